#include "NotifyDialog.h"

#include "KVNXST.h"
#include "KvLogging.h"
#include "KvSystemApi.h"
#include "NoticePlacement.h"
#include "resource.h"

#include <shellapi.h>

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
    return static_cast<HICON>(LoadImageW(g_hResInstance, MAKEINTRESOURCEW(IDI_TRAY_IDLE), IMAGE_ICON,
                                         GetSystemMetrics(SM_CXICON), GetSystemMetrics(SM_CYICON),
                                         LR_SHARED));
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
        if (pfnAppBar(ABM_GETTASKBARPOS, &abd) && GetDisplayWorkArea(abd.rc, rcMonitor))
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

// The notice itself comes with its own change.
INT_PTR CALLBACK NotifyWndProc(HWND /*hDlg*/, UINT /*uMsg*/, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return FALSE;
}
