// A chat library that lacks KVNX_CloseChatWindow, as an old or broken build would: the agent must
// refuse it whole. Its entries are never called.
#include <windows.h>

extern "C" __declspec(dllexport) HWND KVNX_CreateChatWindow(HWND)
{
    return nullptr;
}

extern "C" __declspec(dllexport) void KVNX_AppendChatMessage(HWND, const void*) {}
