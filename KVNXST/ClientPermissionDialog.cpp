#include "ClientPermissionDialog.h"

#include "CommandLine.h"
#include "KVNXST.h"
#include "KvHandles.h"
#include "KvLogging.h"
#include "KvServiceMessages.h"
#include "KvSocket.h"
#include "KvSystemApi.h"
#include "NotifyDialog.h"
#include "ResourceText.h"
#include "ServiceText.h"
#include "resource.h"

#include <process.h>

#include <cwchar>
#include <memory>
#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ClientPermissionDialog));

namespace
{

constexpr int kRecordSize = static_cast<int>(sizeof(MSG_PERMISSION_RECORD));
constexpr DWORD kSocketTimeoutMs = 5000;
// Longest text read back from control 1002 and written into it.
constexpr int kQuestionUnits = 8000;
constexpr size_t kRequestUnitsShown = 4095;

// The service's socket. The watcher holds a reference of its own while it reads, so ending the
// dialog can close and drop the socket without pulling it from under a read in progress.
std::shared_ptr<CKvSocket> g_pSocket;

std::shared_ptr<CKvSocket> CurrentSocket()
{
    return std::atomic_load(&g_pSocket);
}

// One request per process: the record goes back to the service as it came, answer fields filled.
MSG_PERMISSION_RECORD g_record;
int g_nSecondsLeft = 0;
HICON g_hIcon = nullptr;
HBRUSH g_hBrush = nullptr;
bool g_bGradient = false;

void ShowCountdown(HWND hDlg)
{
    wchar_t szText[MAX_PATH] = {};
    _snwprintf_s(szText, _TRUNCATE, KvLoadText(IDS_PERMISSION_COUNTDOWN_FMT).c_str(), g_nSecondsLeft);
    SetDlgItemTextW(hDlg, IDC_PERMISSION_COUNTDOWN, szText);
    // The line is drawn by the dialog itself, so its area is repainted here.
    HWND hCountdown = GetDlgItem(hDlg, IDC_PERMISSION_COUNTDOWN);
    RECT rc = {};
    if (hCountdown != nullptr && GetWindowRect(hCountdown, &rc))
    {
        MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&rc), 2);
        InvalidateRect(hDlg, &rc, TRUE);
    }
}

// Fills the question's placeholder with the variant the service chose.
void FillQuestion(HWND hDlg)
{
    wchar_t szFormat[kQuestionUnits] = {};
    if (GetDlgItemTextW(hDlg, IDC_PERMISSION_QUESTION, szFormat, kQuestionUnits) == 0)
        return;
    const std::wstring variant =
        KvLoadText(g_record.dwTextVariant == 0 ? IDS_PERMISSION_TEXT_0 : IDS_PERMISSION_TEXT_1);
    auto szQuestion = std::make_unique<wchar_t[]>(kQuestionUnits);
    _snwprintf_s(szQuestion.get(), kQuestionUnits, _TRUNCATE, szFormat, variant.c_str());
    SetDlgItemTextW(hDlg, IDC_PERMISSION_QUESTION, szQuestion.get());
}

void SendAnswer(std::uint32_t dwResult, bool bAnsweredLocally)
{
    KvLogBlock logBlock(logger, L"SendAnswer");
    wchar_t szAccount[MAX_PATH];
    GetConsoleAccount(szAccount, MAX_PATH);
    KvSetPermissionAnswer(g_record, dwResult, bAnsweredLocally, szAccount);
    LOG4CXX_INFO(logger, L"dwResult=" << dwResult << L" bAnsweredLocally=" << (bAnsweredLocally ? 1 : 0)
                                      << L" szConsoleAccount=" << szAccount);
    // Not retried: the service decides on its own time-out when nothing comes.
    const std::shared_ptr<CKvSocket> pSocket = CurrentSocket();
    if (pSocket == nullptr || !pSocket->Send(&g_record, kRecordSize))
        LOG4CXX_WARN(logger, L"Sending the answer failed. WSAGetLastError=" << WSAGetLastError());
}

void Answer(HWND hDlg, std::uint32_t dwResult, bool bAnsweredLocally, INT_PTR nEnd)
{
    KillTimer(hDlg, KV_TIMER_PERMISSION_COUNTDOWN);
    SendAnswer(dwResult, bAnsweredLocally);
    EndDialog(hDlg, nEnd);
}

void OnInitDialog(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"OnInitDialog");
    FillQuestion(hDlg);
    if (!CreatePermissionThread(hDlg))
        LOG4CXX_WARN(logger, L"The watcher thread could not be started. GetLastError=" << GetLastError());

    g_bGradient = KvAcquireGradient();
    g_hIcon = KvLoadDialogIcon();
    if (g_hBrush == nullptr)
        g_hBrush = CreateSolidBrush(KV_DIALOG_BACKGROUND);

    g_nSecondsLeft = KV_PERMISSION_SECONDS;
    // The record's text may fill its whole array without a terminator: shown cut, never read past.
    std::wstring request = KvShowableFieldW(g_record.szRequest, true);
    if (request.size() > kRequestUnitsShown)
        request.resize(kRequestUnitsShown);
    SetDlgItemTextW(hDlg, IDC_PERMISSION_REQUEST, request.c_str());
    ShowCountdown(hDlg);

    if (g_record.bDenyDefault != 0)
    {
        SendDlgItemMessageW(hDlg, IDOK, BM_SETSTYLE, BS_PUSHBUTTON, TRUE);
        SendMessageW(hDlg, DM_SETDEFID, IDCANCEL, 0);
        SendDlgItemMessageW(hDlg, IDCANCEL, BM_SETSTYLE, BS_DEFPUSHBUTTON, TRUE);
    }

    if (g_record.bKeepPosition == 0)
        SetNotifyDialogLocation(hDlg);
    else
        SetWindowPos(hDlg, HWND_TOPMOST, 0, 0, 0, 0,
                     SWP_NOSIZE | SWP_NOMOVE | SWP_NOACTIVATE | SWP_SHOWWINDOW | SWP_NOOWNERZORDER);

    SetTimer(hDlg, KV_TIMER_PERMISSION_COUNTDOWN, 1000, nullptr);
    KvGetSystemApi().pfnMessageBeep(0);
}

void OnTimer(HWND hDlg)
{
    --g_nSecondsLeft;
    if (g_nSecondsLeft < 1)
    {
        KillTimer(hDlg, KV_TIMER_PERMISSION_COUNTDOWN);
        PostMessageW(hDlg, WM_COMMAND, 3, 0);
    }
    ShowCountdown(hDlg);
    // The last six seconds beep, and the caption blinks once a second.
    if (static_cast<unsigned>(g_nSecondsLeft - 1) <= 5u)
    {
        KvGetSystemApi().pfnMessageBeep(0);
        KvGetSystemApi().pfnFlashWindow(hDlg, g_nSecondsLeft % 2 == 0);
    }
}

void OnPaint(HWND hDlg)
{
    PAINTSTRUCT ps;
    HDC hdc = BeginPaint(hDlg, &ps);
    if (hdc == nullptr)
        return;
    if (g_bGradient)
    {
        RECT rcClient = {};
        GetClientRect(hDlg, &rcClient);
        KvPaintGradient(hdc, rcClient);
    }
    RECT rc = {};
    HWND hIconPlace = GetDlgItem(hDlg, IDC_PERMISSION_ICON);
    if (g_hIcon != nullptr && hIconPlace != nullptr && GetWindowRect(hIconPlace, &rc))
    {
        MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&rc), 2);
        DrawIcon(hdc, rc.left, rc.top, g_hIcon);
    }
    HWND hCountdown = GetDlgItem(hDlg, IDC_PERMISSION_COUNTDOWN);
    if (hCountdown != nullptr && GetWindowRect(hCountdown, &rc))
    {
        MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&rc), 2);
        wchar_t szText[MAX_PATH] = {};
        GetWindowTextW(hCountdown, szText, MAX_PATH);
        HGDIOBJ hOldFont = SelectObject(hdc, KvDialogFont(hDlg));
        SetBkMode(hdc, TRANSPARENT);
        SetTextColor(hdc, KvDialogTextColour());
        DrawTextW(hdc, szText, -1, &rc, DT_SINGLELINE | DT_VCENTER);
        SelectObject(hdc, hOldFont);
    }
    EndPaint(hDlg, &ps);
}

INT_PTR OnControlColour(HWND hDlg, HDC hdc, HWND hControl)
{
    if (hControl != nullptr && GetDlgCtrlID(hControl) == IDC_PERMISSION_COUNTDOWN)
        return 0;
    KvPrepareDialogText(hDlg, hdc);
    SetBkColor(hdc, KV_DIALOG_BACKGROUND);
    return reinterpret_cast<INT_PTR>(g_bGradient ? GetStockObject(NULL_BRUSH) : g_hBrush);
}

unsigned __stdcall PermissionThread(void* pParam)
{
    KvSetThreadName(L"PermissionThread");
    KvLogBlock logBlock(logger, L"PermissionThread");
    HWND hDlg = static_cast<HWND>(pParam);
    auto pBuffer = std::make_unique<MSG_PERMISSION_RECORD>();
    for (;;)
    {
        const std::shared_ptr<CKvSocket> pSocket = CurrentSocket();
        if (pSocket == nullptr)
            break;
        WSASetLastError(0);
        if (pSocket->ReadOnce(pBuffer.get(), kRecordSize))
        {
            LOG4CXX_INFO(logger, L"The service withdrew the request.");
            break;
        }
        const int nError = WSAGetLastError();
        // A time-out only means nothing came yet; a datagram of another size (no error) is not the
        // service's record and is passed over.
        if (nError == WSAETIMEDOUT || nError == 0)
            continue;
        LOG4CXX_DEBUG(logger, L"The watcher stops. WSAGetLastError=" << nError);
        return 0;
    }
    PostMessageW(hDlg, WM_KV_PERMISSION_WITHDRAWN, 0, 0);
    return 0;
}

// Asks and answers; the socket is connected and kept in g_pSocket.
int Exchange(const std::shared_ptr<CKvSocket>& pSocket)
{
    KvLogBlock logBlock(logger, L"Exchange");
    pSocket->SetTimeouts(kSocketTimeoutMs);
    KvBuildPermissionQuery(g_record);
    if (!pSocket->Send(&g_record, kRecordSize))
    {
        LOG4CXX_WARN(logger, L"Asking for the request failed. WSAGetLastError=" << WSAGetLastError());
        return 0;
    }
    WSASetLastError(0);
    if (!pSocket->ReadOnce(&g_record, kRecordSize))
    {
        LOG4CXX_WARN(logger, L"No request of " << kRecordSize << L" bytes came. WSAGetLastError="
                                               << WSAGetLastError());
        return 0;
    }

    if (CheckDesktopState() != KV_EXIT_CONSOLE_USABLE)
    {
        LOG4CXX_INFO(logger, L"Nobody at the console can answer.");
        SendAnswer(KV_PERMISSION_NOBODY, true);
        return 0;
    }

    g_record.bAnsweredLocally = 0;
    g_record.dwResult = 0;
    const INT_PTR nEnd =
        DialogBoxParamW(g_hResInstance, MAKEINTRESOURCEW(IDD_PERMISSION), nullptr, PermissionWndProc, 0);
    if (nEnd == -1)
    {
        LOG4CXX_ERROR(logger, L"The permission dialog could not be shown. GetLastError=" << GetLastError());
        return 0;
    }
    LOG4CXX_INFO(logger, L"The dialog ended with " << nEnd);
    return 1;
}

} // namespace

void GetConsoleAccount(wchar_t* szAccount, DWORD cchAccount)
{
    KvLogBlock logBlock(logger, L"GetConsoleAccount");
    if (szAccount == nullptr || cchAccount == 0)
        return;
    szAccount[0] = L'\0';
    KvKernelHandle hToken;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, hToken.Put()))
    {
        alignas(TOKEN_USER) BYTE user[256] = {};
        DWORD cbUser = 0;
        wchar_t szName[MAX_PATH] = {};
        wchar_t szDomain[MAX_PATH] = {};
        DWORD cchName = MAX_PATH;
        DWORD cchDomain = MAX_PATH;
        SID_NAME_USE use = SidTypeUnknown;
        if (GetTokenInformation(hToken.Get(), TokenUser, user, sizeof user, &cbUser) &&
            LookupAccountSidW(nullptr, reinterpret_cast<TOKEN_USER*>(user)->User.Sid, szName, &cchName,
                              szDomain, &cchDomain, &use))
            _snwprintf_s(szAccount, cchAccount, _TRUNCATE, L"%ls\\%ls", szDomain, szName);
    }
    if (szAccount[0] == L'\0')
    {
        DWORD cchUser = cchAccount < 130 ? cchAccount : 130;
        if (!KvGetSystemApi().pfnGetUserNameW(szAccount, &cchUser))
            szAccount[0] = L'\0';
    }
}

BOOL CreatePermissionThread(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"CreatePermissionThread");
    const uintptr_t hThread = _beginthreadex(nullptr, 0, PermissionThread, hDlg, 0, nullptr);
    if (hThread == 0)
        return FALSE;
    CloseHandle(reinterpret_cast<HANDLE>(hThread));
    return TRUE;
}

INT_PTR CALLBACK PermissionWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        OnInitDialog(hDlg);
        if (g_record.bDenyDefault != 0)
        {
            // The focus on the allow button would make it the default again.
            SendMessageW(hDlg, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(GetDlgItem(hDlg, IDCANCEL)), TRUE);
            return FALSE;
        }
        return TRUE;
    case WM_TIMER:
        if (wParam == KV_TIMER_PERMISSION_COUNTDOWN)
            OnTimer(hDlg);
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wParam))
        {
        case IDOK:
            Answer(hDlg, KV_PERMISSION_ALLOWED, true, IDOK);
            break;
        case IDCANCEL:
            Answer(hDlg, KV_PERMISSION_DENIED, true, IDCANCEL);
            break;
        case 3:
            Answer(hDlg, KV_PERMISSION_TIMEOUT, true, 3);
            break;
        default:
            break;
        }
        return TRUE;
    case WM_KV_PERMISSION_WITHDRAWN:
        Answer(hDlg, KV_PERMISSION_WITHDRAWN, false, IDCANCEL);
        return TRUE;
    case WM_CLOSE:
        // The close box denies.
        PostMessageW(hDlg, WM_COMMAND, IDCANCEL, 0);
        return TRUE;
    case WM_DESTROY:
        KillTimer(hDlg, KV_TIMER_PERMISSION_COUNTDOWN);
        if (g_bGradient)
            KvReleaseGradient();
        g_bGradient = false;
        return TRUE;
    case WM_PAINT:
        OnPaint(hDlg);
        return TRUE;
    case WM_CTLCOLOREDIT:
    case WM_CTLCOLORDLG:
    case WM_CTLCOLORSTATIC:
        return OnControlColour(hDlg, reinterpret_cast<HDC>(wParam), reinterpret_cast<HWND>(lParam));
    default:
        return FALSE;
    }
}

int CreatePermissionDialog(int nPort, int nAfType)
{
    KvLogBlock logBlock(logger, L"CreatePermissionDialog");
    LOG4CXX_INFO(logger, L"nPort=" << nPort << L" nAfType=" << nAfType);
    if (nPort < 0 || !KvIsTcpPort(static_cast<std::uint32_t>(nPort)))
    {
        LOG4CXX_WARN(logger, L"No port to ask on: " << nPort);
        return 0;
    }

    std::shared_ptr<CKvSocket> pSocket = std::make_shared<CKvSocket>();
    std::atomic_store(&g_pSocket, pSocket);
    int nResult = 0;
    if (pSocket->Connect(L"localhost", static_cast<unsigned>(nPort), SOCK_DGRAM, nAfType))
        nResult = Exchange(pSocket);
    else
        LOG4CXX_WARN(logger, L"Connecting to the service failed. WSAGetLastError=" << WSAGetLastError());

    // Closing wakes the watcher, which lets go of its reference and ends.
    std::atomic_store(&g_pSocket, std::shared_ptr<CKvSocket>());
    pSocket->Close();
    return nResult;
}
