// The library's three exports and where the window's texts come from. Errors come back as a null
// window or as nothing done: the library has no log of its own (a second, unconfigured copy of
// the agent's logging would be linked into it).
#include "KVNXChat.h"

#include "ChatWindow.h"
#include "KvHandles.h"

#include <exception>
#include <string>
#include <type_traits>

// This library's own module: its folder is where the resource library is looked for.
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace
{

constexpr wchar_t KV_RESOURCE_LIBRARY[] = L"KVNXSTRES.dll";
constexpr DWORD KV_LONGEST_PATH = 32768;

// The owner's resource library, in the language the agent runs in; null when it has none to give.
HINSTANCE OwnersResources(HWND hOwner)
{
    const UINT uMsg = RegisterWindowMessageW(KV_CHAT_RESOURCE_MODULE_MESSAGE);
    if (hOwner == nullptr || uMsg == 0)
        return nullptr;
    return reinterpret_cast<HINSTANCE>(SendMessageW(hOwner, uMsg, 0, 0));
}

// KVNXSTRES.dll beside this library, mapped as data only; never from the search path.
KvModule LoadResourcesBesideUs()
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD cch = GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path.data(),
                                             static_cast<DWORD>(path.size()));
        if (cch == 0)
            return KvModule();
        if (cch < path.size())
        {
            path.resize(cch);
            break;
        }
        if (path.size() >= KV_LONGEST_PATH)
            return KvModule();
        path.resize(path.size() * 2);
    }
    const std::size_t slash = path.find_last_of(L"\\/");
    if (slash == std::wstring::npos)
        return KvModule();
    path.replace(slash + 1, std::wstring::npos, KV_RESOURCE_LIBRARY);
    return KvModule(
        LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
}

} // namespace

extern "C" __declspec(dllexport) HWND KVNX_CreateChatWindow(HWND hOwner)
{
    try
    {
        const HINSTANCE hOwners = OwnersResources(hOwner);
        if (hOwners != nullptr)
            return CChatWindow::Create(hOwner, hOwners, KvModule());
        KvModule resources = LoadResourcesBesideUs();
        if (!resources)
            return nullptr;
        const HINSTANCE hRes = reinterpret_cast<HINSTANCE>(resources.Get());
        return CChatWindow::Create(hOwner, hRes, std::move(resources));
    }
    catch (const std::exception&)
    {
        return nullptr;
    }
}

extern "C" __declspec(dllexport) void KVNX_AppendChatMessage(HWND hChat, const MSG_CHAT_MESSAGE* pMessage)
{
    if (pMessage == nullptr || pMessage->dwType != MSG_TYPE_CHAT_MESSAGE)
        return;
    CChatWindow* pWindow = CChatWindow::FromHandle(hChat);
    if (pWindow == nullptr)
        return;
    try
    {
        pWindow->ShowIncoming(*pMessage);
    }
    catch (const std::exception&)
    {
        // Not shown; the window stays as it was.
    }
}

extern "C" __declspec(dllexport) void KVNX_CloseChatWindow(HWND hChat)
{
    if (CChatWindow::FromHandle(hChat) != nullptr)
        DestroyWindow(hChat);
}

static_assert(std::is_same_v<decltype(&KVNX_CreateChatWindow), PFN_KVNX_CreateChatWindow>);
static_assert(std::is_same_v<decltype(&KVNX_AppendChatMessage), PFN_KVNX_AppendChatMessage>);
static_assert(std::is_same_v<decltype(&KVNX_CloseChatWindow), PFN_KVNX_CloseChatWindow>);
