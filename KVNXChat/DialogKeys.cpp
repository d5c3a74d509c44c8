#include "DialogKeys.h"

// This library's own module, for the hook.
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace
{

constexpr wchar_t KV_DIALOG_KEYS_PROP[] = L"KVNXChat.DialogKeys";

// Hooks are per thread, so is their count.
thread_local HHOOK t_hHook = nullptr;
thread_local int t_nDialogs = 0;

// A menu's own loop takes the keys it removes; routing them to the dialog would, say, close the
// window on the Esc that only closes the menu.
bool InMenu()
{
    GUITHREADINFO info = {};
    info.cbSize = sizeof info;
    return GetGUIThreadInfo(GetCurrentThreadId(), &info) &&
           (info.flags & (GUI_INMENUMODE | GUI_POPUPMENUMODE | GUI_SYSTEMMENUMODE)) != 0;
}

LRESULT CALLBACK GetMessageHook(int nCode, WPARAM wParam, LPARAM lParam)
{
    if (nCode == HC_ACTION && wParam == PM_REMOVE)
    {
        MSG* pMsg = reinterpret_cast<MSG*>(lParam);
        if (pMsg->message >= WM_KEYFIRST && pMsg->message <= WM_KEYLAST && pMsg->hwnd != nullptr)
        {
            const HWND hRoot = GetAncestor(pMsg->hwnd, GA_ROOT);
            if (hRoot != nullptr && GetPropW(hRoot, KV_DIALOG_KEYS_PROP) != nullptr && !InMenu() &&
                IsDialogMessageW(hRoot, pMsg))
            {
                pMsg->message = WM_NULL;
                pMsg->wParam = 0;
                pMsg->lParam = 0;
            }
        }
    }
    return CallNextHookEx(t_hHook, nCode, wParam, lParam);
}

} // namespace

void KvAttachDialogKeys(HWND hDlg)
{
    if (GetPropW(hDlg, KV_DIALOG_KEYS_PROP) != nullptr ||
        !SetPropW(hDlg, KV_DIALOG_KEYS_PROP, reinterpret_cast<HANDLE>(1)))
        return;
    if (t_nDialogs++ == 0)
        t_hHook = SetWindowsHookExW(WH_GETMESSAGE, GetMessageHook, reinterpret_cast<HINSTANCE>(&__ImageBase),
                                    GetCurrentThreadId());
}

void KvDetachDialogKeys(HWND hDlg)
{
    if (RemovePropW(hDlg, KV_DIALOG_KEYS_PROP) == nullptr)
        return;
    if (--t_nDialogs == 0 && t_hHook != nullptr)
    {
        UnhookWindowsHookEx(t_hHook);
        t_hHook = nullptr;
    }
}
