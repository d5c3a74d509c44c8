#include "TrayIcon.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "ResourceText.h"
#include "ServiceText.h"
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

HICON LoadTrayIcon(int nId)
{
    return static_cast<HICON>(LoadImageW(g_hResInstance, MAKEINTRESOURCEW(nId), IMAGE_ICON,
                                         GetSystemMetrics(SM_CXSMICON), GetSystemMetrics(SM_CYSMICON), 0));
}

void DestroyIconHandle(HICON& hIcon)
{
    if (hIcon != nullptr)
        DestroyIcon(hIcon);
    hIcon = nullptr;
}

} // namespace

CTrayIcon::~CTrayIcon()
{
    DestroyIconHandle(m_hIconConnected);
    DestroyIconHandle(m_hIconIdle);
    DestroyIconHandle(m_hIconPending);
    DestroyIconHandle(m_hIconExtra);
}

void CTrayIcon::Create(HWND hWnd, bool bShellBalloons)
{
    m_hWnd = hWnd;
    m_uId = KV_TRAY_ICON_ID;
    m_bShellBalloons = bShellBalloons;
    m_hIconConnected = LoadTrayIcon(IDI_TRAY_CONNECTED);
    m_hIconIdle = LoadTrayIcon(IDI_TRAY_IDLE);
    m_hIconPending = LoadTrayIcon(IDI_TRAY_PENDING);
    m_hIconExtra = LoadTrayIcon(IDI_TRAY_EXTRA);
}

bool CTrayIcon::Compose(const KvTrayInputs& in, NOTIFYICONDATAW& nid)
{
    static const MSG_TRAYICON_SETTINGS kNoSettings = {};
    if (m_hWnd == nullptr)
        return false;
    if (!m_bShellReady)
    {
        m_bShellReady = IsUserDesktopInitialized();
        if (!m_bShellReady)
        {
            ++m_nShellNotReady;
            LOG4CXX_INFO(logger, L"The shell is not ready yet, asked " << m_nShellNotReady << L" times.");
            return false;
        }
        m_nShellNotReady = 0;
    }
    const MSG_TRAYICON_SETTINGS& settings = in.pSettings != nullptr ? *in.pSettings : kNoSettings;
    const bool bActive = in.nConnections > 0;
    nid = NOTIFYICONDATAW{};
    size_t cchTip = KV_TOOLTIP_UNITS_PLAIN;
    nid.cbSize = KV_NID_SIZE_PLAIN;
    if (m_bShellBalloons)
    {
        nid.cbSize = KV_NID_SIZE_BALLOONS;
        cchTip = KV_TOOLTIP_UNITS_BALLOONS;
    }
    nid.hWnd = m_hWnd;
    nid.uID = m_uId;
    nid.uFlags = NIF_MESSAGE | NIF_ICON | NIF_TIP;
    nid.uCallbackMessage = WM_KV_TRAY_CALLBACK;

    HICON hIcon = nullptr;
    switch (KvTrayIconResource(bActive, in.uSelector, settings.bCustomIdleIcon != 0))
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
    const bool bNote = settings.bTooltipNote != 0;
    const std::wstring oneTime = bOneTime ? KvLoadText(IDS_TOOLTIP_ONETIME) : std::wstring();
    const std::wstring note = bNote ? KvLoadText(IDS_SERVICE_FLAG_NOTE) : std::wstring();
    const std::wstring caption = KvShowableFieldW(settings.szCaption);
    KvComposeTrayTooltip<wchar_t>(nid.szTip, cchTip, bOneTime, oneTime.c_str(), bNote, note.c_str(),
                                  caption.c_str());
    return true;
}

int CTrayIcon::Send(DWORD dwMessage, const KvTrayInputs& in)
{
    KvLogBlock logBlock(logger, L"CTrayIcon::Send");
    LOG4CXX_INFO(logger, L"dwMsg=" << dwMessage << L" bActive=" << (in.nConnections > 0 ? 1 : 0));
    NOTIFYICONDATAW nid;
    if (!Compose(in, nid))
        return 0;
    if (Shell_NotifyIconW(dwMessage, &nid))
        return 1;
    // An add fails when the shell still holds our icon (an agent before us, a lost answer): the
    // icon is there, so it is brought up to date rather than added again and again.
    if (dwMessage == NIM_ADD && Shell_NotifyIconW(NIM_MODIFY, &nid))
    {
        LOG4CXX_INFO(logger, L"The shell already held the tray icon; it was modified instead.");
        return 1;
    }
    return 0;
}

void CTrayIcon::Add(const KvTrayInputs& in)
{
    KvLogBlock logBlock(logger, L"CTrayIcon::Add");
    if (m_uRetryTimer != 0)
        KillTimer(m_hWnd, m_uRetryTimer);
    m_uRetryTimer = 0;
    m_bAdded = Send(NIM_ADD, in) != 0;
    if (m_bAdded)
    {
        m_nRetries = 0;
        if (g_bOneTimeSession)
            PostMessageW(m_hWnd, WM_SHOW_ONE_TIME_AGENT_BALLON, 0, 0);
        return;
    }
    ++m_nRetries;
    const unsigned int uPeriod = KvTrayRetryPeriod(m_nRetries);
    LOG4CXX_INFO(logger, L"Adding the tray icon failed, attempt " << m_nRetries << L"; next try in "
                                                                  << uPeriod << L" ms.");
    m_uRetryTimer = SetTimer(m_hWnd, KV_TIMER_TRAY_RETRY, uPeriod, nullptr);
}

int CTrayIcon::Remove()
{
    KvLogBlock logBlock(logger, L"CTrayIcon::Remove");
    const int bRemoved = Send(NIM_DELETE, KvTrayInputs{});
    if (bRemoved)
        m_bAdded = false;
    return bRemoved;
}

void CTrayIcon::Update(const KvTrayInputs& in)
{
    KvLogBlock logBlock(logger, L"CTrayIcon::Update");
    const std::uint32_t bTrayIcon = in.pSettings != nullptr ? in.pSettings->bTrayIcon : 0;
    if (KvTrayIconAction(bTrayIcon, in.nConnections > 0, in.nMode, g_bOneTimeSession != 0) ==
        KvTrayAction::Delete)
        Remove();
    else if (m_bAdded)
        Send(NIM_MODIFY, in);
    else
        Add(in);
}

void CTrayIcon::OnRetryTimer(const KvTrayInputs& in)
{
    if (m_uRetryTimer != 0)
        KillTimer(m_hWnd, m_uRetryTimer);
    m_uRetryTimer = 0;
    Update(in);
}

void CTrayIcon::OnTaskbarCreated(const KvTrayInputs& in)
{
    LOG4CXX_INFO(logger, L"TaskbarCreated");
    m_bAdded = false;
    Update(in);
}

int CTrayIcon::ShowBalloon(const wchar_t* szText, std::uint32_t bTrayIcon)
{
    KvLogBlock logBlock(logger, L"CTrayIcon::ShowBalloon");
    LOG4CXX_DEBUG(logger, L"ShowTrayBalloon");
    if (szText == nullptr || m_hWnd == nullptr || !IsWindow(m_hWnd))
        return 0;
    if (bTrayIcon != 1)
        return 1; // no balloons unless the icon is always shown
    if (!m_bShellBalloons)
        return 0;

    NOTIFYICONDATAW nid = {};
    nid.cbSize = KV_NID_SIZE_BALLOONS;
    nid.hWnd = m_hWnd;
    nid.uID = m_uId;
    nid.uFlags = KV_BALLOON_FLAGS;
    nid.dwInfoFlags = NIIF_INFO;
    CopyBounded(nid.szInfoTitle, KV_BALLOON_TITLE);
    CopyBounded(nid.szInfo, szText);
    nid.uTimeout = 0;
    return Shell_NotifyIconW(NIM_MODIFY, &nid) ? 1 : 0;
}

int CTrayIcon::ShowReconfiguring(const KvReconfigureNote& note)
{
    KvLogBlock logBlock(logger, L"CTrayIcon::ShowReconfiguring");
    LOG4CXX_INFO(logger, L"dwState=" << note.dwState);
    if (m_hWnd == nullptr)
        return 0;
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
        nid.dwInfoFlags = ReconfigureBalloonIcon(note.dwState);
        CopyBounded(nid.szInfoTitle, KV_BALLOON_TITLE);
        CopyBounded(nid.szInfo, note.szText);
    }
    nid.hWnd = m_hWnd;
    nid.uID = m_uId;
    KvComposeTrayTooltip<wchar_t>(nid.szTip, cchTip, false, nullptr, false, nullptr, note.szText);
    return Shell_NotifyIconW(NIM_MODIFY, &nid) ? 1 : 0;
}

bool CTrayIcon::IsMenuClick(WPARAM wParam, LPARAM lParam) const
{
    const UINT uMouse = static_cast<UINT>(lParam);
    return LOWORD(wParam) == m_uId &&
           (uMouse == WM_RBUTTONUP || uMouse == WM_CONTEXTMENU || uMouse == WM_LBUTTONDOWN);
}
