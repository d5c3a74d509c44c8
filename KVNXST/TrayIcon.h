// The tray window's notification-area icon and its balloons. Every call to the shell is made on
// the window's thread: other threads post WM_KV_TRAY_REFRESH or WM_KV_TRAY_RECONFIGURING instead.
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>
#include <shellapi.h>

#include <cstdint>

// What decides whether the icon shows, its picture and its tooltip.
struct KvTrayInputs
{
    const MSG_TRAYICON_SETTINGS* pSettings = nullptr;
    int nConnections = 0;
    int nMode = 0;
    std::uint32_t uSelector = 0;
};

// The text of a reconfiguration, posted to the window's thread on the heap (WM_KV_TRAY_RECONFIGURING).
struct KvReconfigureNote
{
    DWORD dwState = 0;
    wchar_t szText[261] = {};
};

class CTrayIcon
{
public:
    CTrayIcon() = default;
    ~CTrayIcon();
    CTrayIcon(const CTrayIcon&) = delete;
    CTrayIcon& operator=(const CTrayIcon&) = delete;

    // Binds the icon to its window and loads its pictures.
    void Create(HWND hWnd, bool bShellBalloons);

    // Adds, changes or removes the icon as the inputs ask; a failed add is retried on timer 1006.
    void Update(const KvTrayInputs& in);
    int Remove();
    // Timer 1006.
    void OnRetryTimer(const KvTrayInputs& in);
    // The shell started again and holds no icons.
    void OnTaskbarCreated(const KvTrayInputs& in);
    // A balloon, only when the icon is always shown (bTrayIcon 1) and the shell has balloons.
    int ShowBalloon(const wchar_t* szText, std::uint32_t bTrayIcon);
    // The service reconfigures: its text as the tooltip and as a balloon by state.
    int ShowReconfiguring(const KvReconfigureNote& note);
    // Whether a tray callback is a click on this icon that opens the menu.
    bool IsMenuClick(WPARAM wParam, LPARAM lParam) const;

private:
    // Composes the icon's record; false while the shell is not up yet.
    bool Compose(const KvTrayInputs& in, NOTIFYICONDATAW& nid);
    int Send(DWORD dwMessage, const KvTrayInputs& in);
    void Add(const KvTrayInputs& in);

    HWND m_hWnd = nullptr;
    UINT m_uId = 0;
    bool m_bShellBalloons = false;
    bool m_bAdded = false;
    // Whether the shell was once found ready, and how often it was asked since it was not.
    bool m_bShellReady = false;
    int m_nShellNotReady = 0;
    UINT_PTR m_uRetryTimer = 0;
    int m_nRetries = 0;
    HICON m_hIconConnected = nullptr;
    HICON m_hIconIdle = nullptr;
    HICON m_hIconPending = nullptr;
    HICON m_hIconExtra = nullptr;
};
