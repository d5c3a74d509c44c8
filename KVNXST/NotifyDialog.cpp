#include "NotifyDialog.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "KvSystemApi.h"
#include "NoticePlacement.h"
#include "ResourceText.h"
#include "ServiceText.h"
#include "resource.h"

#include <mmsystem.h>
#include <shellapi.h>

#include <cwchar>
#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::NotifyDialog));

namespace
{

using GradientFillFn = BOOL(WINAPI*)(HDC, PTRIVERTEX, ULONG, PVOID, ULONG, ULONG);
using AppBarMessageFn = UINT_PTR(WINAPI*)(DWORD, PAPPBARDATA);

// Counted: each dialog that drew a gradient releases it on WM_DESTROY.
HMODULE g_hGradientLibrary = nullptr;
GradientFillFn g_pfnGradientFill = nullptr;
int g_nGradientUsers = 0;

template <typename Fn> Fn Resolve(HMODULE hModule, const char* szName)
{
    // Through the generic function type, which the compilers accept without a warning.
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(hModule, szName)));
}

// A paletted screen dithers a gradient into noise: it answers its colour depth there, -1 elsewhere.
int PalettedScreenDepth()
{
    HDC hdc = GetDC(nullptr);
    if (hdc == nullptr)
        return -1;
    const int nBits = GetDeviceCaps(hdc, BITSPIXEL) * GetDeviceCaps(hdc, PLANES);
    ReleaseDC(nullptr, hdc);
    return nBits <= 8 ? nBits : -1;
}

bool ScreenHasBrushes()
{
    HDC hdc = GetDC(nullptr);
    if (hdc == nullptr)
        return false;
    const int nBrushes = GetDeviceCaps(hdc, NUMBRUSHES);
    ReleaseDC(nullptr, hdc);
    return nBrushes != 0;
}

// SHAppBarMessage, resolved once, and only when a shell taskbar exists to answer it.
AppBarMessageFn TaskbarHelper()
{
    static HMODULE hShell = nullptr;
    static AppBarMessageFn pfn = nullptr;
    if (pfn == nullptr && KvGetSystemApi().pfnFindWindowW(L"Shell_TrayWnd", nullptr) != nullptr)
    {
        if (hShell == nullptr)
            hShell = LoadLibraryW(L"Shell32.dll");
        if (hShell != nullptr)
            pfn = Resolve<AppBarMessageFn>(hShell, "SHAppBarMessage");
    }
    return pfn;
}

KvScreenRect ToScreenRect(const RECT& rc)
{
    return {rc.left, rc.top, rc.right, rc.bottom};
}

} // namespace

bool KvAcquireGradient()
{
    if (g_pfnGradientFill == nullptr)
    {
        const int nProbe = PalettedScreenDepth();
        if (nProbe >= 0 || !ScreenHasBrushes())
            return false;
        g_hGradientLibrary = LoadLibraryW(L"msimg32.dll");
        if (g_hGradientLibrary == nullptr)
            return false;
        g_pfnGradientFill = Resolve<GradientFillFn>(g_hGradientLibrary, "GradientFill");
        if (g_pfnGradientFill == nullptr)
        {
            FreeLibrary(g_hGradientLibrary);
            g_hGradientLibrary = nullptr;
            return false;
        }
    }
    ++g_nGradientUsers;
    return true;
}

void KvReleaseGradient()
{
    if (g_nGradientUsers == 0 || --g_nGradientUsers > 0)
        return;
    g_pfnGradientFill = nullptr;
    FreeLibrary(g_hGradientLibrary);
    g_hGradientLibrary = nullptr;
}

void KvPaintGradient(HDC hdc, const RECT& rc)
{
    if (g_pfnGradientFill == nullptr)
        return;
    TRIVERTEX vertices[2] = {
        {rc.left, rc.top, 221 << 8, 237 << 8, 254 << 8, 0},
        {rc.right, rc.bottom, 129 << 8, 169 << 8, 226 << 8, 0},
    };
    GRADIENT_RECT gradient = {0, 1};
    g_pfnGradientFill(hdc, vertices, 2, &gradient, 1, GRADIENT_FILL_RECT_V);
}

COLORREF KvDialogTextColour()
{
    return RGB(0, 0, 0);
}

HICON KvLoadDialogIcon()
{
    // Loaded once per resource library: a shared icon is never destroyed, and from a library mapped
    // as data every load made a new one under Wine (5 GDI objects and 15 KB for each notice).
    static HINSTANCE s_hFrom = nullptr;
    static HICON s_hIcon = nullptr;
    if (s_hIcon == nullptr || s_hFrom != g_hResInstance)
    {
        s_hFrom = g_hResInstance;
        s_hIcon = static_cast<HICON>(LoadImageW(g_hResInstance, MAKEINTRESOURCEW(IDI_TRAY_IDLE), IMAGE_ICON,
                                                GetSystemMetrics(SM_CXICON), GetSystemMetrics(SM_CYICON),
                                                LR_SHARED));
    }
    return s_hIcon;
}

HGDIOBJ KvDialogFont(HWND hDlg)
{
    HGDIOBJ hFont = reinterpret_cast<HGDIOBJ>(SendMessageW(hDlg, WM_GETFONT, 0, 0));
    return hFont != nullptr ? hFont : GetStockObject(ANSI_VAR_FONT);
}

void KvShowLines(HWND hList, const std::wstring& text)
{
    SendMessageW(hList, WM_SETREDRAW, FALSE, 0);
    SendMessageW(hList, LB_RESETCONTENT, 0, 0);
    HDC hdc = GetDC(hList);
    HGDIOBJ hOldFont = SelectObject(hdc, reinterpret_cast<HGDIOBJ>(SendMessageW(hList, WM_GETFONT, 0, 0)));
    LONG cxWidest = 0;
    for (std::size_t begin = 0; begin <= text.size();)
    {
        std::size_t end = text.find(L"\r\n", begin);
        if (end == std::wstring::npos)
            end = text.size();
        const std::wstring line = text.substr(begin, end - begin);
        SendMessageW(hList, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(line.c_str()));
        SIZE size = {};
        if (GetTextExtentPoint32W(hdc, line.c_str(), static_cast<int>(line.size()), &size) && size.cx > cxWidest)
            cxWidest = size.cx;
        begin = end + 2;
    }
    SelectObject(hdc, hOldFont);
    ReleaseDC(hList, hdc);
    SendMessageW(hList, LB_SETHORIZONTALEXTENT, static_cast<WPARAM>(cxWidest + 4), 0);
    SendMessageW(hList, WM_SETREDRAW, TRUE, 0);
    InvalidateRect(hList, nullptr, TRUE);
}

void KvPrepareDialogText(HWND hDlg, HDC hdc)
{
    SetBkMode(hdc, TRANSPARENT);
    SetTextColor(hdc, KvDialogTextColour());
    SetWindowLongPtrW(hDlg, DWLP_MSGRESULT, 1);
}

BOOL GetDisplayWorkArea(const RECT& rcIn, RECT& rcWork)
{
    using MonitorFromRectFn = HMONITOR(WINAPI*)(LPCRECT, DWORD);
    using GetMonitorInfoFn = BOOL(WINAPI*)(HMONITOR, LPMONITORINFO);
    HMODULE hUser = LoadLibraryW(L"User32.DLL");
    if (hUser == nullptr)
        return FALSE;
    BOOL bResult = FALSE;
    auto pfnMonitorFromRect = Resolve<MonitorFromRectFn>(hUser, "MonitorFromRect");
    auto pfnGetMonitorInfo = Resolve<GetMonitorInfoFn>(hUser, "GetMonitorInfoW");
    HMONITOR hMonitor =
        pfnMonitorFromRect != nullptr ? pfnMonitorFromRect(&rcIn, MONITOR_DEFAULTTONULL) : nullptr;
    if (hMonitor != nullptr && pfnGetMonitorInfo != nullptr)
    {
        MONITORINFO info = {};
        info.cbSize = sizeof info;
        if (pfnGetMonitorInfo(hMonitor, &info))
        {
            rcWork = info.rcWork;
            bResult = TRUE;
        }
    }
    FreeLibrary(hUser);
    return bResult;
}

void SetNotifyDialogLocation(HWND hWnd)
{
    KvLogBlock logBlock(logger, L"SetNotifyDialogLocation");
    RECT rcWindow = {};
    GetWindowRect(hWnd, &rcWindow);
    const long w = rcWindow.right - rcWindow.left;
    const long h = rcWindow.bottom - rcWindow.top;

    KvScreenPoint at{};
    bool bPlaced = false;
    if (AppBarMessageFn pfnAppBar = TaskbarHelper())
    {
        APPBARDATA abd = {};
        abd.cbSize = sizeof abd;
        RECT rcMonitor = {};
        const BOOL bPos = static_cast<BOOL>(pfnAppBar(ABM_GETTASKBARPOS, &abd));
        LOG4CXX_DEBUG(logger, L"Taskbar " << bPos << L" on edge " << abd.uEdge << L" at " << abd.rc.left
                                          << L"," << abd.rc.top << L"-" << abd.rc.right << L","
                                          << abd.rc.bottom);
        if (bPos && GetDisplayWorkArea(abd.rc, rcMonitor))
        {
            at = KvPlaceBesideTaskbar(abd.uEdge, ToScreenRect(abd.rc), ToScreenRect(rcMonitor), w, h);
            bPlaced = true;
        }
    }
    if (!bPlaced)
    {
        RECT rcWork = {};
        const bool bWorkArea = SystemParametersInfoW(SPI_GETWORKAREA, 0, &rcWork, 0) != FALSE;
        const KvScreenRect work = ToScreenRect(rcWork);
        at = KvPlaceInWorkArea(bWorkArea ? &work : nullptr, GetSystemMetrics(SM_CXFULLSCREEN),
                               GetSystemMetrics(SM_CYFULLSCREEN), w, h);
    }
    LOG4CXX_DEBUG(logger, L"Placed at " << at.x << L"," << at.y
                                        << (bPlaced ? L" beside the taskbar" : L" in the work area"));
    MoveWindow(hWnd, at.x, at.y, w, h, TRUE);
    SetWindowPos(hWnd, HWND_TOPMOST, 0, 0, 0, 0,
                 SWP_NOSIZE | SWP_NOMOVE | SWP_NOACTIVATE | SWP_SHOWWINDOW | SWP_NOOWNERZORDER);
}

BOOL VexaPlaySound(const wchar_t* pszSound, HINSTANCE hmod, DWORD fdwSound)
{
    return KvGetSystemApi().pfnPlaySoundW(pszSound, hmod, fdwSound);
}

namespace
{

constexpr UINT_PTR KV_TIMER_NOTIFY_CLOSE = 222;
constexpr int KV_NOTIFY_TEXT_MAX = 4096;
constexpr DWORD KV_SOUND_FLAGS = SND_ALIAS | SND_NOWAIT | SND_NODEFAULT;

// The notice's own gradient; at most one notice exists at a time.
bool g_bNotifyGradient = false;
HICON g_hNotifyIcon = nullptr;

std::wstring FormatNumber(UINT uFormatId, long nValue)
{
    wchar_t szText[KV_NOTIFY_TEXT_MAX] = {};
    _snwprintf_s(szText, _TRUNCATE, KvLoadText(uFormatId).c_str(), nValue);
    return szText;
}

CTaskBarWindow* TrayOf(HWND hDlg)
{
    return reinterpret_cast<CTaskBarWindow*>(GetWindowLongPtrW(hDlg, GWLP_USERDATA));
}

// Kinds 1 and 2: the viewer's record as labelled lines under the kind's first line.
std::wstring ViewerNoticeBody(const CTaskBarWindow& tray, bool bConnected)
{
    const MSG_TRAYICON_CONNECT_INFO& info = tray.ConnectInfo();
    KvNoticeLines lines;
    lines.first = bConnected ? KvShowableFieldW(tray.Settings().szConnectHeader) : KvLoadText(IDS_NOTIFY_DISCONNECTED);
    lines.labels[0] = KvLoadText(IDS_NOTIFY_LABEL_FIELD1);
    lines.labels[1] = KvLoadText(IDS_NOTIFY_LABEL_FIELD2);
    lines.labels[2] = KvLoadText(IDS_NOTIFY_LABEL_FIELD3);
    lines.fields[0] = KvShowableFieldW(info.szUsername);
    lines.fields[1] = KvShowableFieldW(info.szSecondLine);
    lines.fields[2] = KvShowableFieldW(info.szThirdLine);
    if (info.dwTrayIcon == 0)
        lines.selectorNote = KvLoadText(IDS_NOTIFY_LINE_SELECTOR_0);
    else if (info.dwTrayIcon == 2)
        lines.selectorNote = KvLoadText(IDS_NOTIFY_LINE_SELECTOR_2);
    return KvComposeNoticeBody(lines, KV_NOTIFY_TEXT_MAX);
}

void ShowViewerList(HWND hDlg, const CTaskBarWindow& tray)
{
    const bool bButton = tray.ConnectInfo().bDisconnectButton != 0;
    if (bButton)
    {
        // No close box: the list stays until the viewers are gone or disconnected.
        SetWindowLongPtrW(hDlg, GWL_STYLE,
                          GetWindowLongPtrW(hDlg, GWL_STYLE) & ~static_cast<LONG_PTR>(WS_SYSMENU));
        SetWindowPos(hDlg, nullptr, 0, 0, 0, 0,
                     SWP_NOSIZE | SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE | SWP_FRAMECHANGED);
        ShowWindow(GetDlgItem(hDlg, IDC_NOTIFY_DISCONNECT), SW_SHOWNA);
    }
    SetDlgItemTextW(
        hDlg, IDC_NOTIFY_HEADING,
        FormatNumber(IDS_NOTIFY_ALL_HEADING_FMT, static_cast<long>(tray.ViewerList().dwCount)).c_str());
    const std::wstring text = KvShowableFieldW(tray.ViewerList().szText, true);
    if (text.empty())
    {
        SetDlgItemTextW(hDlg, IDC_NOTIFY_BODY, KvLoadText(IDS_NOTIFY_ALL_EMPTY).c_str());
        return;
    }
    HWND hList = GetDlgItem(hDlg, IDC_NOTIFY_LIST);
    KvShowLines(hList, text.substr(0, KV_NOTIFY_TEXT_MAX - 1));
    ShowWindow(hList, SW_SHOWNA);
    if (!bButton)
        SetFocus(hList);
}

void ShowViewerNotice(HWND hDlg, const CTaskBarWindow& tray, bool bConnected)
{
    const std::wstring heading = KvShowableFieldW(tray.Settings().szNotifyHeading);
    if (!bConnected || !heading.empty())
        SetDlgItemTextW(hDlg, IDC_NOTIFY_HEADING, heading.c_str());
    SetDlgItemTextW(hDlg, IDC_NOTIFY_BODY, ViewerNoticeBody(tray, bConnected).c_str());
    PostMessageW(hDlg, WM_KV_NOTIFY_SOUND, 0, bConnected ? 0 : 1);
}

void OnInitNotice(HWND hDlg, CTaskBarWindow& tray)
{
    SetWindowLongPtrW(hDlg, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&tray));
    g_bNotifyGradient = KvAcquireGradient();
    g_hNotifyIcon = KvLoadDialogIcon();
    const std::uint32_t dwSeconds = tray.Settings().dwNotifyDisplayTime;
    if (dwSeconds != 0)
    {
        const unsigned long long ullMs = dwSeconds * 1000ull;
        SetTimer(hDlg, KV_TIMER_NOTIFY_CLOSE,
                 ullMs < USER_TIMER_MAXIMUM ? static_cast<UINT>(ullMs) : USER_TIMER_MAXIMUM, nullptr);
    }
    const std::wstring title = KvShowableFieldW(tray.Settings().szNotifyTitle);
    if (!title.empty())
        SetWindowTextW(hDlg, title.c_str());
    SetNotifyDialogLocation(hDlg);
    LOG4CXX_INFO(logger, L"Notice of kind " << tray.NoticeKind() << L" shown.");
    switch (tray.NoticeKind())
    {
    case 3:
        ShowViewerList(hDlg, tray);
        break;
    case 2:
        ShowViewerNotice(hDlg, tray, false);
        break;
    case 1:
        ShowViewerNotice(hDlg, tray, true);
        break;
    default:
        break;
    }
}

void PlayNoticeSound(HWND hDlg, const CTaskBarWindow& tray, bool bDisconnect)
{
    InvalidateRect(hDlg, nullptr, TRUE);
    UpdateWindow(hDlg);
    wchar_t szUser[120] = {};
    DWORD cchUser = 120;
    if (KvGetSystemApi().pfnGetUserNameW(szUser, &cchUser) && KvIsSystemAccount(szUser))
    {
        LOG4CXX_INFO(logger, L"No sound: the agent runs as the system account.");
        return;
    }
    if (tray.Settings().bQuietWhenIdleIcon != 0 && tray.Settings().dwIdleTrayIcon == 1)
    {
        LOG4CXX_INFO(logger, L"No sound: the service asks for quiet notices.");
        return;
    }
    const wchar_t* szSound = bDisconnect ? L"WindowsLogoff" : L"WindowsLogon";
    if (VexaPlaySound(szSound, nullptr, KV_SOUND_FLAGS))
    {
        LOG4CXX_INFO(logger, L"Played the sound \"" << szSound << L"\".");
        return;
    }
    LOG4CXX_INFO(logger, L"The sound \"" << szSound << L"\" cannot be played; beeping instead.");
    KvGetSystemApi().pfnMessageBeep(0);
}

void PaintNotice(HWND hDlg)
{
    PAINTSTRUCT ps;
    HDC hdc = BeginPaint(hDlg, &ps);
    if (g_bNotifyGradient)
    {
        RECT rcClient;
        GetClientRect(hDlg, &rcClient);
        KvPaintGradient(hdc, rcClient);
    }
    if (g_hNotifyIcon != nullptr)
        DrawIconEx(hdc, 2, 2, g_hNotifyIcon, 0, 0, 0, nullptr, DI_NORMAL);
    HWND hBody = GetDlgItem(hDlg, IDC_NOTIFY_BODY);
    if (hBody != nullptr && !IsWindowVisible(GetDlgItem(hDlg, IDC_NOTIFY_LIST)))
    {
        wchar_t szText[KV_NOTIFY_TEXT_MAX] = {};
        GetWindowTextW(hBody, szText, KV_NOTIFY_TEXT_MAX);
        RECT rcBody;
        GetWindowRect(hBody, &rcBody);
        MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&rcBody), 2);
        SetBkMode(hdc, TRANSPARENT);
        SetTextColor(hdc, KvDialogTextColour());
        HGDIOBJ hOldFont = SelectObject(hdc, KvDialogFont(hDlg));
        DrawTextW(hdc, szText, -1, &rcBody, DT_EDITCONTROL | DT_WORDBREAK);
        SelectObject(hdc, hOldFont);
    }
    EndPaint(hDlg, &ps);
}

// The timer and the close box: the notice stays while it offers the disconnect button, and while
// viewers are connected unless the service's normal icon is shown and nothing asks to keep it.
void CloseNoticeUnlessKept(HWND hDlg, CTaskBarWindow& tray)
{
    const MSG_TRAYICON_CONNECT_INFO& info = tray.ConnectInfo();
    const bool bViewers = static_cast<std::int32_t>(info.dwConnections) >= 1;
    if (info.bDisconnectButton != 0 ||
        (bViewers && (info.dwTrayIcon != 1 || tray.Settings().bKeepNotifyOpen != 0)))
    {
        LOG4CXX_DEBUG(logger, L"The notice stays open.");
        return;
    }
    KillTimer(hDlg, KV_TIMER_NOTIFY_CLOSE);
    if (hDlg != tray.NoticeWindow())
        DestroyWindow(hDlg);
    tray.CloseNotice();
}

} // namespace

INT_PTR CALLBACK NotifyWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    LOG4CXX_DEBUG(logger, L"NotifyWndProc iMsg=" << uMsg);
    if (uMsg == WM_INITDIALOG)
    {
        if (lParam != 0)
            OnInitNotice(hDlg, *reinterpret_cast<CTaskBarWindow*>(lParam));
        // No focus from the dialog manager: that would activate the notice and take the
        // keyboard from whatever the user is doing. The viewer list takes it explicitly.
        return FALSE;
    }
    CTaskBarWindow* pTray = TrayOf(hDlg);
    if (pTray == nullptr)
        return FALSE;
    switch (uMsg)
    {
    case WM_KV_NOTIFY_SOUND:
        PlayNoticeSound(hDlg, *pTray, lParam != 0);
        return TRUE;
    case WM_PAINT:
        PaintNotice(hDlg);
        return TRUE;
    case WM_CTLCOLORSTATIC:
    case WM_CTLCOLORDLG:
        KvPrepareDialogText(hDlg, reinterpret_cast<HDC>(wParam));
        return g_bNotifyGradient ? reinterpret_cast<INT_PTR>(GetStockObject(NULL_BRUSH)) : 0;
    case WM_COMMAND:
        if (LOWORD(wParam) == IDC_NOTIFY_DISCONNECT)
        {
            LOG4CXX_INFO(logger, L"Disconnect asked from the notice.");
            PostMessageW(pTray->Window(), WM_COMMAND, IDM_DISCONNECT, 0);
        }
        return TRUE;
    case WM_TIMER:
        if (wParam == KV_TIMER_NOTIFY_CLOSE)
            CloseNoticeUnlessKept(hDlg, *pTray);
        return TRUE;
    case WM_CLOSE:
        CloseNoticeUnlessKept(hDlg, *pTray);
        return TRUE;
    case WM_DESTROY:
        KillTimer(hDlg, KV_TIMER_NOTIFY_CLOSE);
        pTray->NoticeGone(hDlg);
        if (g_bNotifyGradient)
            KvReleaseGradient();
        g_bNotifyGradient = false;
        return TRUE;
    case WM_DISPLAYCHANGE:
        SetNotifyDialogLocation(hDlg);
        return TRUE;
    case WM_SYSCOLORCHANGE:
    case WM_PALETTECHANGED:
    case WM_DWMCOMPOSITIONCHANGED:
        InvalidateRect(hDlg, nullptr, TRUE);
        UpdateWindow(hDlg);
        return TRUE;
    default:
        return FALSE;
    }
}
