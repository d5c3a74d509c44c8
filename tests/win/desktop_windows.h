// Top-level windows on the desktops of the tests' own, found by class and title through the UI
// driver.
#pragma once

#include "UiDriver.h"

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
    kvui::WindowQuery query;
    query.desktop = desktop;
    query.className = className;
    query.title = title;
    return kvui::FindWindows(query);
}

using kvui::IsShown;

// Polls for such a window on the desktop (a shown one when asked), at most ms; null when none came.
inline HWND WaitForDesktopWindow(const std::wstring& desktop, const std::wstring& className,
                                 const std::wstring& title, DWORD ms, bool bVisible = false)
{
    kvui::WindowQuery query;
    query.desktop = desktop;
    query.className = className;
    query.title = title;
    query.shownOnly = bVisible;
    return kvui::WaitForWindow(query, ms);
}

} // namespace kvtest
