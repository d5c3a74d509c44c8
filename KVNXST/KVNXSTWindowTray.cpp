// The tray window's notification-area icon, its balloons, and the connect and disconnect notices.
#include "KVNXSTWindow.h"

#include "KVNXST.h"
#include "KvLogging.h"
#include "KvSocket.h"
#include "KvSystemApi.h"
#include "TrayIconPolicy.h"
#include "UtilWTS.h"
#include "resource.h"

#include <cwchar>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));

namespace
{

constexpr wchar_t KV_BALLOON_TITLE[] = L"Kestrova Vexa Remote Control";
constexpr UINT KV_BALLOON_FLAGS = NIF_INFO | NIF_REALTIME;

// Record sizes the shell accepts for this build's layout. The shell checks the size against its
// own list and treats any other as the oldest record, without balloons; a fixed number such as 952
// fits one layout only and is not on that list in a 64-bit process.
constexpr DWORD KV_NID_SIZE_BALLOONS = NOTIFYICONDATAW_V2_SIZE;
constexpr DWORD KV_NID_SIZE_PLAIN = NOTIFYICONDATAW_V1_SIZE;

// Copies at most N - 1 units and terminates; a null source gives the empty string.
template <size_t N> void CopyBounded(wchar_t (&dest)[N], const wchar_t* src)
{
    size_t n = 0;
    if (src != nullptr)
        while (n + 1 < N && src[n] != L'\0')
        {
            dest[n] = src[n];
            ++n;
        }
    dest[n] = L'\0';
}

// The balloon of a service reconfiguration, by state: 0 the service starts reconfiguring (warning:
// viewers may be cut off meanwhile), 1 it is done (information), anything else it failed (error).
DWORD ReconfigureBalloonIcon(DWORD dwState)
{
    switch (dwState)
    {
    case 0:
        return NIIF_WARNING;
    case 1:
        return NIIF_INFO;
    default:
        return NIIF_ERROR;
    }
}

} // namespace

int CTaskBarWindow::SendTrayMsg(DWORD dwMessage, int bActive)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SendTrayMsg");
    LOG4CXX_INFO(logger, L"dwMsg=" << dwMessage << L" bActive=" << bActive);
    if (m_hWnd == nullptr)
        return 0;

    if (!m_bShellReady)
    {
        m_bShellReady = IsUserDesktopInitialized();
        if (!m_bShellReady)
        {
            ++m_nShellNotReady;
            LOG4CXX_INFO(logger, L"The shell is not ready yet, asked " << m_nShellNotReady << L" times.");
            return 0;
        }
        m_nShellNotReady = 0;
    }

    // Built whole on the stack: the connection thread and the window's thread both come here, and
    // neither may send a record the other is half-way through. m_nid keeps the last one.
    NOTIFYICONDATAW nid = {};
    size_t cchTip = KV_TOOLTIP_UNITS_PLAIN;
    nid.cbSize = KV_NID_SIZE_PLAIN;
    if (m_bShellBalloons)
    {
        nid.cbSize = KV_NID_SIZE_BALLOONS;
        cchTip = KV_TOOLTIP_UNITS_BALLOONS;
    }
    nid.hWnd = m_hWnd;
    nid.uID = m_uTrayIconId;
    nid.uFlags = NIF_MESSAGE | NIF_ICON | NIF_TIP;
    nid.uCallbackMessage = WM_KV_TRAY_CALLBACK;

    HICON hIcon = nullptr;
    switch (KvTrayIconResource(bActive != 0, m_uTrayIconSelector, m_Settings.bCustomIdleIcon != 0))
    {
    case KV_ICON_CONNECTED:
        hIcon = m_hIconConnected;
        break;
    case KV_ICON_PENDING:
        hIcon = m_hIconPending;
        break;
    case KV_ICON_CUSTOM_IDLE:
        hIcon = m_hIconExtra;
        break;
    default:
        hIcon = m_hIconIdle;
        break;
    }
    nid.hIcon = hIcon != nullptr ? hIcon : m_hIconIdle;

    const bool bOneTime = g_bOneTimeSession != 0;
    const bool bNote = m_Settings.bTooltipNote != 0;
    wchar_t szOneTime[260] = {};
    wchar_t szNote[260] = {};
    if (bOneTime)
        LoadStringW(g_hResInstance, IDS_TOOLTIP_ONETIME, szOneTime, 260);
    if (bNote)
        LoadStringW(g_hResInstance, IDS_SERVICE_FLAG_NOTE, szNote, 260);
    wchar_t szCaption[261] = {}; // the settings' caption need not be terminated
    std::wmemcpy(szCaption, KvWide(m_Settings.szCaption), 260);
    KvComposeTrayTooltip<wchar_t>(nid.szTip, cchTip, bOneTime, szOneTime, bNote, szNote, szCaption);

    m_nid = nid;
    return Shell_NotifyIconW(dwMessage, &nid) ? 1 : 0;
}

int CTaskBarWindow::AddTrayIcon()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::AddTrayIcon");
    m_bTrayIconAdded = SendTrayMsg(NIM_ADD, m_nConnections > 0);
    if (m_bTrayIconAdded)
    {
        if (m_uTrayRetryTimer != 0)
            KillTimer(m_hWnd, m_uTrayRetryTimer);
        m_uTrayRetryTimer = 0;
        m_nTrayRetries = 0;
        if (g_bOneTimeSession)
            PostMessageW(m_hWnd, WM_SHOW_ONE_TIME_AGENT_BALLON, 0, 0);
        return m_bTrayIconAdded;
    }

    ++m_nTrayRetries;
    if (m_uTrayRetryTimer != 0)
        KillTimer(m_hWnd, m_uTrayRetryTimer);
    const unsigned int uPeriod = KvTrayRetryPeriod(m_nTrayRetries);
    LOG4CXX_INFO(logger, L"Adding the tray icon failed, attempt " << m_nTrayRetries << L"; next try in "
                                                                  << uPeriod << L" ms.");
    m_uTrayRetryTimer = SetTimer(m_hWnd, KV_TIMER_TRAY_RETRY, uPeriod, nullptr);
    return m_bTrayIconAdded;
}

int CTaskBarWindow::ChangeTrayIcon(int bActive)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::ChangeTrayIcon");
    return SendTrayMsg(NIM_MODIFY, bActive);
}

int CTaskBarWindow::DelTrayIcon()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::DelTrayIcon");
    const int bRemoved = SendTrayMsg(NIM_DELETE, 0);
    if (bRemoved)
        m_bTrayIconAdded = 0;
    return bRemoved;
}

int CTaskBarWindow::SetTrayIcon()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SetTrayIcon");
    const bool bConnections = m_nConnections > 0;
    if (KvTrayIconAction(m_bTrayIcon, bConnections, m_nMode, g_bOneTimeSession != 0) == KvTrayAction::Delete)
    {
        DelTrayIcon();
        return 1;
    }
    if (m_bTrayIconAdded)
        return SendTrayMsg(NIM_MODIFY, bConnections);
    AddTrayIcon();
    return 1;
}

int CTaskBarWindow::ShowTrayBalloonMsg(const wchar_t* szText)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::ShowTrayBalloonMsg");
    LOG4CXX_DEBUG(logger, L"ShowTrayBalloon");
    if (szText == nullptr || m_hWnd == nullptr || !IsWindow(m_hWnd))
        return 0;
    if (m_bTrayIcon != 1)
        return 1; // no balloons unless the icon is always shown
    if (!m_bShellBalloons)
        return 0;

    NOTIFYICONDATAW nid = {};
    nid.cbSize = KV_NID_SIZE_BALLOONS;
    nid.hWnd = m_hWnd;
    nid.uID = m_uTrayIconId;
    nid.uFlags = KV_BALLOON_FLAGS;
    nid.dwInfoFlags = NIIF_INFO;
    CopyBounded(nid.szInfoTitle, KV_BALLOON_TITLE);
    CopyBounded(nid.szInfo, szText);
    nid.uTimeout = 0;
    m_nid = nid;
    return Shell_NotifyIconW(NIM_MODIFY, &nid) ? 1 : 0;
}

int CTaskBarWindow::SendTrayMsgServerReconfiguring(DWORD dwState, const wchar_t* szText)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SendTrayMsgServerReconfiguring");
    LOG4CXX_INFO(logger, L"dwState=" << dwState);
    if (m_hWnd == nullptr)
        return 0;
    wchar_t szBounded[261] = {}; // the record's text need not be terminated
    if (szText != nullptr)
        std::wcsncpy(szBounded, szText, 260);

    // The tooltip says it while the service works; its next settings put the caption back.
    NOTIFYICONDATAW nid = {};
    size_t cchTip = KV_TOOLTIP_UNITS_PLAIN;
    nid.cbSize = KV_NID_SIZE_PLAIN;
    nid.uFlags = NIF_TIP;
    if (m_bShellBalloons)
    {
        cchTip = KV_TOOLTIP_UNITS_BALLOONS;
        nid.cbSize = KV_NID_SIZE_BALLOONS;
        nid.uFlags |= KV_BALLOON_FLAGS;
        nid.dwInfoFlags = ReconfigureBalloonIcon(dwState);
        CopyBounded(nid.szInfoTitle, KV_BALLOON_TITLE);
        CopyBounded(nid.szInfo, szBounded);
    }
    nid.hWnd = m_hWnd;
    nid.uID = m_uTrayIconId;
    KvComposeTrayTooltip<wchar_t>(nid.szTip, cchTip, false, nullptr, false, nullptr, szBounded);
    m_nid = nid;
    return Shell_NotifyIconW(NIM_MODIFY, &nid) ? 1 : 0;
}

void CTaskBarWindow::NotifyConnect()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyConnect");
    SetDesktopOptionsDelayed();
    SetTrayIcon();
    if (m_nConnections <= 0)
        return;
    if (m_bNotifyDlg == 0 && m_nMode != 0 && (m_bNotifyMode2 == 0 || m_nMode != 2))
        return;
    m_nNotifyKind = KV_NOTIFY_CONNECT;
    PostMessageW(m_hWnd, WM_KV_SHOW_NOTIFY_DLG, 0, 0);
}

void CTaskBarWindow::NotifyDisconnect()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyDisconnect");
    m_bFirstNotify = 1;
    SendMessageW(m_hWnd, WM_KV_CLOSE_NOTIFY_DLG, 0, 1);
    m_nNotifyKind = KV_NOTIFY_DISCONNECT;
    if (m_bNotifyDlg && m_bNotifyDisconnect)
        PostMessageW(m_hWnd, WM_KV_RECREATE_NOTIFY_DLG, 0, 0);
    if (m_nConnections > 0)
        return;
    if (m_nDesktopResets > 1)
    {
        RetoreDesktopOptions();
        m_nDesktopResets = 1;
    }
    SetTrayIcon();
}

void CTaskBarWindow::NotifyAll()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyAll");
    m_nNotifyKind = KV_NOTIFY_ALL;
    PostMessageW(m_hWnd, WM_KV_SHOW_NOTIFY_DLG, 1, 0);
}

void CTaskBarWindow::GetDesktopUserInformation(MSG_TRAYICON_DESKTOP_USER_INFORMATION* pInfo)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::GetDesktopUserInformation");
    if (pInfo == nullptr)
        return;
    const KvSystemApi& api = KvGetSystemApi();
    std::uint32_t dwState = 0;
    BOOL bRunning = FALSE;
    if (api.pfnGetScreenSaverRunning(&bRunning) && bRunning)
        dwState |= KV_DESKTOP_SCREEN_SAVER;

    wchar_t szDesktop[MAX_PATH] = {};
    if (api.pfnGetInputDesktopName(szDesktop, MAX_PATH))
    {
        dwState |= KV_DESKTOP_OPENED;
        if (_wcsicmp(szDesktop, L"Screen-saver") == 0)
            dwState |= KV_DESKTOP_SCREEN_SAVER;
    }
    else
    {
        LOG4CXX_INFO(logger, L"The input desktop cannot be opened. Error = " << GetLastError());
        dwState |= KV_DESKTOP_NOT_OPENED;
        szDesktop[0] = L'\0';
    }
    KvCopyString(pInfo->szDesktopName, szDesktop, MAX_PATH);
    pInfo->dwState = dwState;

    wchar_t szUser[MAX_PATH] = {};
    if (g_szUserName[0] != L'\0')
        KvCopyString(pInfo->szUserName, g_szUserName, MAX_PATH);
    else
    {
        DWORD cchUser = MAX_PATH;
        if (!GetUserNameW(szUser, &cchUser))
            szUser[0] = L'\0';
        KvCopyString(pInfo->szUserName, szUser, MAX_PATH);
    }
    LOG4CXX_DEBUG(logger, L"dwState=" << dwState << L" szDesktopName=" << szDesktop);
}

int CTaskBarWindow::IsSocketConnected()
{
    CKvSocket* pSocket = m_pSocket;
    return pSocket != nullptr && pSocket->GetHandle() != INVALID_SOCKET ? 1 : 0;
}
