// Top-level windows on the desktops of the tests' own, found by class and title.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kvtest
{

// The top-level windows of a desktop (empty: this thread's) with this class (empty: any) and title
// (empty: any).
inline std::vector<HWND> DesktopWindows(const std::wstring& desktop, const std::wstring& className,
                                        const std::wstring& title = std::wstring())
{
    struct Search
    {
        const std::wstring& className;
        const std::wstring& title;
        std::vector<HWND> found;
    } search{className, title, {}};
    HDESK hDesk = desktop.empty()
                      ? GetThreadDesktop(GetCurrentThreadId())
                      : OpenDesktopW(desktop.c_str(), 0, FALSE, DESKTOP_READOBJECTS | DESKTOP_ENUMERATE);
    if (hDesk == nullptr)
        return search.found;
    EnumDesktopWindows(
        hDesk,
        [](HWND hWnd, LPARAM lParam) -> BOOL
        {
            auto& s = *reinterpret_cast<Search*>(lParam);
            wchar_t szClass[256] = {}, szTitle[512] = {};
            GetClassNameW(hWnd, szClass, 256);
            GetWindowTextW(hWnd, szTitle, 512);
            if ((s.className.empty() || s.className == szClass) && (s.title.empty() || s.title == szTitle))
                s.found.push_back(hWnd);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&search));
    if (!desktop.empty())
        CloseDesktop(hDesk);
    return search.found;
}

// Shown by its owner. (IsWindowVisible also asks the desktop, and a desktop that is not the input
// desktop is never visible.)
inline bool IsShown(HWND hWnd)
{
    return IsWindow(hWnd) && (GetWindowLongW(hWnd, GWL_STYLE) & WS_VISIBLE) != 0;
}

// Polls for such a window on the desktop (a shown one when asked), at most ms; null when none came.
inline HWND WaitForDesktopWindow(const std::wstring& desktop, const std::wstring& className,
                                 const std::wstring& title, DWORD ms, bool bVisible = false)
{
    const ULONGLONG end = GetTickCount64() + ms;
    for (;;)
    {
        for (HWND hWnd : DesktopWindows(desktop, className, title))
            if (!bVisible || IsShown(hWnd))
                return hWnd;
        if (GetTickCount64() >= end)
            return nullptr;
        Sleep(20);
    }
}

} // namespace kvtest
