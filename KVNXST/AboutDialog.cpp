#include "AboutDialog.h"

#include "AboutInfoBlock.h"
#include "KVNXST.h"
#include "KvLogText.h"
#include "KvLogging.h"
#include "KvServiceMessages.h"
#include "NotifyDialog.h"
#include "ResourceText.h"
#include "ServiceText.h"
#include "UtilFile.h"
#include "resource.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <string>
#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::AboutDialog));

namespace
{

constexpr UINT_PTR KV_ABOUT_TIMER = 111;
constexpr UINT KV_ABOUT_TIMER_MS = 30000;
// The clipboard gets 8,192 bytes: 4,096 units with the terminator.
constexpr SIZE_T KV_CLIPBOARD_BYTES = 8192;
constexpr int KV_CLIPBOARD_UNITS = static_cast<int>(KV_CLIPBOARD_BYTES / sizeof(wchar_t));
constexpr std::size_t KV_PATH_UNITS = 260;
constexpr wchar_t KV_SERVICE_EXE[] = L"KVNXS.exe";
#ifdef _WIN64
constexpr wchar_t KV_BITNESS[] = L", 64 bit";
#else
constexpr wchar_t KV_BITNESS[] = L"";
#endif
// SWP_NOSIZE | SWP_NOMOVE | SWP_NOACTIVATE | SWP_SHOWWINDOW | SWP_NOOWNERZORDER: on top, and the
// user's window keeps the keyboard.
constexpr UINT KV_TOPMOST_NO_ACTIVATE = 0x253;

// What one open box paints with and copies, kept in its DWLP_USER.
struct AboutLook
{
    bool bGradient = false;
    HICON hIcon = nullptr; // shared: not destroyed
    std::wstring info;     // the information block, as the list shows it line by line
};

AboutLook* LookOf(HWND hDlg)
{
    return reinterpret_cast<AboutLook*>(GetWindowLongPtrW(hDlg, DWLP_USER));
}

// An item of a file's version block through its first translation.
int ReadVersionString(const wchar_t* szFile, const wchar_t* szItem, wchar_t* szValue, std::size_t cchValue)
{
    if (szValue == nullptr || cchValue == 0)
        return 0;
    szValue[0] = L'\0';
    DWORD dwHandle = 0;
    const DWORD cb = GetFileVersionInfoSizeW(szFile, &dwHandle);
    if (cb == 0)
    {
        LOG4CXX_DEBUG(logger, L"No version block in " << szFile << L". Error = " << GetLastError());
        return 0;
    }
    std::vector<BYTE> block(cb);
    if (!GetFileVersionInfoW(szFile, 0, cb, block.data()))
        return 0;
    struct Translation
    {
        WORD wLanguage;
        WORD wCodePage;
    }* pTranslation = nullptr;
    UINT cbTranslation = 0;
    if (!VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&pTranslation),
                        &cbTranslation) ||
        pTranslation == nullptr || cbTranslation < sizeof(Translation))
    {
        LOG4CXX_DEBUG(logger, L"No translation in the version block of " << szFile);
        return 0;
    }
    wchar_t szQuery[KV_PATH_UNITS] = {};
    _snwprintf(szQuery, KV_PATH_UNITS - 1, L"\\StringFileInfo\\%04hX%04hX\\%ls", pTranslation->wLanguage,
               pTranslation->wCodePage, szItem);
    wchar_t* pValue = nullptr;
    UINT cchFound = 0;
    if (!VerQueryValueW(block.data(), szQuery, reinterpret_cast<void**>(&pValue), &cchFound) ||
        pValue == nullptr || cchFound == 0)
    {
        LOG4CXX_DEBUG(logger, L"No " << szQuery << L" in " << szFile);
        return 0;
    }
    // The found length may or may not count the terminator; never read past it.
    const std::size_t cch = std::min<std::size_t>(wcsnlen(pValue, cchFound), cchValue - 1);
    std::wmemcpy(szValue, pValue, cch);
    szValue[cch] = L'\0';
    return 1;
}

std::wstring Label(int nId)
{
    return KvLoadText(static_cast<UINT>(nId));
}

// Version of the service program and the agent's legal notice; the template's text stays when the
// service program's version cannot be read.
void SetVersionLine(HWND hDlg)
{
    wchar_t szVersion[KV_PATH_UNITS] = {};
    if (!GetExeVersion(szVersion, KV_PATH_UNITS))
    {
        LOG4CXX_INFO(logger, L"The version of " << KV_SERVICE_EXE << L" cannot be read.");
        return;
    }
    wchar_t szLine[1024] = {};
    _snwprintf(szLine, 1023, KvLoadText(IDS_ABOUT_VERSION_FMT).c_str(), szVersion, KV_BITNESS);
    wchar_t szCopyright[KV_PATH_UNITS] = {};
    if (GetModuleVersionString(L"LegalCopyright", szCopyright, KV_PATH_UNITS))
    {
        const std::size_t cch = std::wcslen(szLine);
        _snwprintf(szLine + cch, 1023 - cch, L"\r\n%ls", szCopyright);
    }
    SetDlgItemTextW(hDlg, IDC_ABOUT_VERSION, szLine);
}

void SetInfoBlock(HWND hDlg, AboutLook& look, const MSG_TRAYICON_SETTINGS* pSettings)
{
    KvAboutFacts facts{};
    facts.bOneTime = g_bOneTimeSession != 0;
    if (pSettings != nullptr)
    {
        for (std::size_t i = 0; i < 9; ++i)
            facts.values[i] = KvShowableFieldW(pSettings->szAboutText[i]);
        facts.uOptionA = pSettings->uAboutOptionA;
        facts.uOptionB = pSettings->uAboutOptionB;
        facts.uFlagC = pSettings->uAboutFlagC;
    }
    else
        LOG4CXX_WARN(logger, L"No service information for the About box.");
    const std::wstring block = KvComposeAboutInfo(facts, Label, KV_ABOUT_INFO_UNITS);
    LOG4CXX_INFO(logger, L"uAboutOptionA=" << facts.uOptionA << L" uAboutOptionB=" << facts.uOptionB
                                           << L" uAboutFlagC=" << facts.uFlagC << L" cchInfo="
                                           << block.size());
    KvShowLines(GetDlgItem(hDlg, IDC_ABOUT_INFO), block);
    look.info = block;
}

INT_PTR OnInitDialog(HWND hDlg, LPARAM lParam)
{
    KvLogBlock logBlock(logger, L"AboutWndProc WM_INITDIALOG");
    auto* pLook = new AboutLook;
    SetWindowLongPtrW(hDlg, DWLP_USER, reinterpret_cast<LONG_PTR>(pLook));
    pLook->bGradient = KvAcquireGradient();
    if (pLook->bGradient)
        ShowWindow(GetDlgItem(hDlg, IDC_ABOUT_ICON), SW_HIDE);
    pLook->hIcon = KvLoadDialogIcon();
    SetVersionLine(hDlg);
    SetTimer(hDlg, KV_ABOUT_TIMER, KV_ABOUT_TIMER_MS, nullptr);
    SetInfoBlock(hDlg, *pLook, reinterpret_cast<const MSG_TRAYICON_SETTINGS*>(lParam));
    SetWindowPos(hDlg, HWND_TOPMOST, 0, 0, 0, 0, KV_TOPMOST_NO_ACTIVATE);
    // Focus on OK, where Enter and Esc both close the box.
    SetFocus(GetDlgItem(hDlg, IDOK));
    return FALSE;
}

void OnPaint(HWND hDlg)
{
    PAINTSTRUCT ps;
    HDC hdc = BeginPaint(hDlg, &ps);
    const AboutLook* pLook = LookOf(hDlg);
    if (hdc != nullptr && pLook != nullptr && pLook->bGradient)
    {
        RECT rc = {};
        GetClientRect(hDlg, &rc);
        KvPaintGradient(hdc, rc);
        RECT rcIcon = {};
        HWND hIconPlace = GetDlgItem(hDlg, IDC_ABOUT_ICON);
        if (pLook->hIcon != nullptr && hIconPlace != nullptr && GetWindowRect(hIconPlace, &rcIcon))
        {
            MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&rcIcon), 2);
            DrawIconEx(hdc, rcIcon.left, rcIcon.top, pLook->hIcon, 0, 0, 0, nullptr, DI_NORMAL);
        }
    }
    EndPaint(hDlg, &ps);
}

INT_PTR OnCtlColor(HWND hDlg, HDC hdc)
{
    KvPrepareDialogText(hDlg, hdc);
    const AboutLook* pLook = LookOf(hDlg);
    return pLook != nullptr && pLook->bGradient ? reinterpret_cast<INT_PTR>(GetStockObject(NULL_BRUSH)) : 0;
}

void OnDestroy(HWND hDlg)
{
    KillTimer(hDlg, KV_ABOUT_TIMER);
    AboutLook* pLook = LookOf(hDlg);
    SetWindowLongPtrW(hDlg, DWLP_USER, 0);
    if (pLook != nullptr && pLook->bGradient)
        KvReleaseGradient();
    delete pLook;
}

} // namespace

INT_PTR CALLBACK AboutWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        return OnInitDialog(hDlg, lParam);
    case WM_TIMER:
        if (wParam != KV_ABOUT_TIMER)
            return FALSE;
        EndDialog(hDlg, 0);
        return TRUE;
    case WM_ACTIVATE:
        // A click elsewhere closes the box.
        if (LOWORD(wParam) == WA_INACTIVE)
            PostMessageW(hDlg, WM_CLOSE, 0, 0);
        return FALSE;
    case WM_CLOSE:
        EndDialog(hDlg, 0);
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wParam))
        {
        case IDOK:
        case IDCANCEL:
            EndDialog(hDlg, 0);
            return TRUE;
        case IDC_ABOUT_COPY:
            CopyToClipboard(hDlg);
            return TRUE;
        default:
            return FALSE;
        }
    case WM_PAINT:
        OnPaint(hDlg);
        return TRUE;
    case WM_CTLCOLORDLG:
    case WM_CTLCOLORSTATIC:
        return OnCtlColor(hDlg, reinterpret_cast<HDC>(wParam));
    case WM_DESTROY:
        OnDestroy(hDlg);
        return FALSE;
    default:
        return FALSE;
    }
}

int CopyToClipboard(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"CopyToClipboard");
    if (!OpenClipboard(hDlg))
    {
        LOG4CXX_WARN(logger, L"The clipboard cannot be opened. Error = " << GetLastError());
        return 0;
    }
    int nResult = 0;
    EmptyClipboard();
    HGLOBAL hMem = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, KV_CLIPBOARD_BYTES);
    if (hMem != nullptr)
    {
        if (auto* pText = static_cast<wchar_t*>(GlobalLock(hMem)))
        {
            const AboutLook* pLook = LookOf(hDlg);
            const std::size_t cch =
                pLook != nullptr ? pLook->info.copy(pText, KV_CLIPBOARD_UNITS - 1) : 0;
            GlobalUnlock(hMem);
            LOG4CXX_INFO(logger, L"cch=" << cch);
            if (SetClipboardData(CF_UNICODETEXT, hMem) != nullptr)
            {
                nResult = 1;
                hMem = nullptr; // the clipboard owns it now
            }
        }
        if (hMem != nullptr)
            GlobalFree(hMem);
    }
    if (nResult == 0)
        LOG4CXX_WARN(logger, L"The text cannot be put on the clipboard. Error = " << GetLastError());
    CloseClipboard();
    return nResult;
}

int GetExeVersion(wchar_t* szVersion, std::size_t cchVersion)
{
    KvLogBlock logBlock(logger, L"GetExeVersion");
    wchar_t szOwn[KV_PATH_UNITS] = {};
    wchar_t szPath[KV_PATH_UNITS] = {};
    if (!GetAgentPath(szOwn, KV_PATH_UNITS) || !KvPathBesideModule(szPath, KV_PATH_UNITS, szOwn, KV_SERVICE_EXE))
        return 0;
    const int nResult = ReadVersionString(szPath, L"FileVersion", szVersion, cchVersion);
    if (nResult)
        LOG4CXX_INFO(logger, L"szVersion=" << szVersion);
    return nResult;
}

int GetModuleVersionString(const wchar_t* szItem, wchar_t* szValue, std::size_t cchValue)
{
    KvLogBlock logBlock(logger, L"GetModuleVersionString");
    wchar_t szPath[KV_PATH_UNITS] = {};
    if (!GetAgentPath(szPath, KV_PATH_UNITS))
        return 0;
    return ReadVersionString(szPath, szItem, szValue, cchValue);
}
