// The tray window: construction, start of the worker threads, the message table, the timers, the
// tray menu and its commands, and the orderly end.
#include "KVNXSTWindow.h"

#include "AboutDialog.h"
#include "ConnectInProgressDialog.h"
#include "ConnectToClientDialog.h"
#include "ConnectionInfo.h"
#include "CreateInvitationDialog.h"
#include "DesktopSwitchWatcher.h"
#include "JoinAttendedSessionDialog.h"
#include "KVNXST.h"
#include "KvLogging.h"
#include "KvSocket.h"
#include "NotifyDialog.h"
#include "ProfileReg.h"
#include "SFT_DropWindow.h"
#include "SimultanousSessionMutex.h"
#include "TrayIconPolicy.h"
#include "UtilService.h"
#include "UtilSettings.h"
#include "UtilTimedMessageBox.h"
#include "UtilVersion.h"
#include "UtilWTS.h"
#include "resource.h"

#include <objbase.h>
#include <process.h>
#include <wtsapi32.h>

#include <cwchar>
#include <memory>
#include <new>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));

namespace
{

constexpr wchar_t KV_TRAY_WINDOW_CLASS[] = L"Kestrova Vexa Tray Icon Class";
constexpr wchar_t KV_TRAY_WINDOW_TITLE[] = L"Kestrova Vexa Tray Icon";
constexpr DWORD KV_NOTICE_TIMEOUT_MS = 20000;
constexpr DWORD KV_QUESTION_TIMEOUT_MS = 10000;
// How long the end of the window waits for the connection thread to let go of the object.
constexpr DWORD KV_CONNECTION_THREAD_GRACE_MS = 5000;

// The yes/no question of the disconnect and exit commands: a format with the number of viewers.
int AskWithCount(UINT uFormatId, int nConnections)
{
    wchar_t szFormat[1024] = {};
    LoadStringW(g_hResInstance, uFormatId, szFormat, 1024);
    wchar_t szText[1100] = {};
    _snwprintf(szText, 1099, szFormat, nConnections);
    wchar_t szCaption[260] = {};
    LoadStringW(g_hResInstance, IDS_APP_CAPTION, szCaption, 260);
    return TimedMessageBox(nullptr, szText, szCaption, MB_YESNO | MB_ICONQUESTION, KV_QUESTION_TIMEOUT_MS);
}

HICON LoadTrayIcon(int nId)
{
    return static_cast<HICON>(LoadImageW(g_hResInstance, MAKEINTRESOURCEW(nId), IMAGE_ICON,
                                         GetSystemMetrics(SM_CXSMICON), GetSystemMetrics(SM_CYSMICON), 0));
}

// A modal dialog of the resource library. A library without that template makes it fail; that is
// logged rather than shown to the user.
INT_PTR ShowDialog(HWND hOwner, int nId, DLGPROC pfnProc, LPARAM lParam)
{
    const INT_PTR nResult = DialogBoxParamW(g_hResInstance, MAKEINTRESOURCEW(nId), hOwner, pfnProc, lParam);
    if (nResult == -1)
        LOG4CXX_WARN(logger, L"Dialog " << nId << L" cannot be shown. Error = " << GetLastError());
    return nResult;
}

// The same for a modeless dialog; null when it cannot be made.
HWND CreateModelessDialog(HWND hOwner, int nId, DLGPROC pfnProc, LPARAM lParam)
{
    HWND hDlg = CreateDialogParamW(g_hResInstance, MAKEINTRESOURCEW(nId), hOwner, pfnProc, lParam);
    if (hDlg == nullptr)
        LOG4CXX_WARN(logger, L"Dialog " << nId << L" cannot be created. Error = " << GetLastError());
    return hDlg;
}

void DestroyIconHandle(HICON& hIcon)
{
    if (hIcon != nullptr)
        DestroyIcon(hIcon);
    hIcon = nullptr;
}

} // namespace

CTaskBarWindow::CTaskBarWindow(unsigned int uiPort)
    : m_Settings(), m_szLanguage(), m_nConnections(0), m_bConnectPending(0), m_AboutInfo(), m_uTrayRetryTimer(0),
      m_bDesktopOptionsPending(0), m_hNotifyDlg(nullptr), m_hConnectWaitDlg(nullptr), m_bTrayIconAdded(0),
      m_nMode(1), m_bAboutRequested(0), m_bReplyReceived(0), m_bReverseConnectActive(0), m_hWnd(nullptr),
      m_nNotifyKind(KV_NOTIFY_CONNECT), m_pSocket(nullptr), m_bClosing(0), m_uiPort(uiPort),
      m_hConnectionThread(nullptr), m_hSessionEvent(nullptr), m_bMsgBoxError(0), m_szMsgBoxText(),
      m_szMsgBoxCaption(), m_nDesktopResets(1), m_nDesktopOptions(1), m_bFirstNotify(1),
      m_TempFiles(new std::list<std::wstring>), m_strTempIni(new std::wstring), m_strTempData(new std::wstring),
      m_hDropWnd(nullptr), m_nTrayRetries(0), m_hMenu(nullptr), m_nid(), m_bShellBalloons(0),
      m_hIconConnected(nullptr), m_hIconIdle(nullptr), m_hIconPending(nullptr), m_hIconExtra(nullptr),
      m_uTrayIconId(KV_TRAY_ICON_ID), m_ConnectInfo(), m_NotifyAll(), m_uTrayIconSelector(1), m_bDataChanged(0),
      m_bAcknowledgeConnect(1), m_bConnectNotified(0), m_bReverseConnectBusy(0), m_bReverseConnectDone(0),
      m_bShellReady(0), m_nShellNotReady(0), m_uTaskbarCreated(0), m_bJoinDialogOpen(0)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::CTaskBarWindow");
    LOG4CXX_INFO(logger, L"uiPort=" << uiPort);
    CoInitialize(nullptr);
    // An agent that died with the desktop stripped left a note: put the user's desktop back first.
    RecoverDesktopOptions();

    wchar_t szAccount[240] = {};
    DWORD cchAccount = 240;
    GetUserNameW(szAccount, &cchAccount);
    const bool bSystem = KvIsSystemAccount(szAccount);
    if (!bSystem)
    {
        m_bShellBalloons = GetFileMajorVersion(L"Shell32.dll") >= 5;

        m_bNotifyDlg = 1;
        m_bNotifyDisconnect = 1;
        m_bAllowSettings = 1;
        m_bAllowDisconnect = 1;
        m_bTrayIcon = 1;
        m_bPermissionRequired = 1;
        if (!g_bOneTimeSession)
        {
            DWORD dwValue = 0;
            if (ReadServiceSettingDword(L"TrayIcon", &dwValue))
                m_bTrayIcon = dwValue;
            if (ReadServiceSettingDword(L"Permission Required", &dwValue))
                m_bPermissionRequired = dwValue;
        }
        wcsncpy(m_szLanguage, KV_LANGUAGE_TABLE[0], 2);

        WNDCLASSEXW wc = {};
        wc.cbSize = sizeof wc;
        wc.lpfnWndProc = WndProc;
        wc.hInstance = g_hInstance;
        wc.hIcon = LoadIconW(g_hResInstance, MAKEINTRESOURCEW(IDI_TRAY_IDLE));
        wc.hIconSm = wc.hIcon;
        wc.hCursor = LoadCursorW(nullptr, MAKEINTRESOURCEW(32512)); // IDC_ARROW
        wc.hbrBackground = static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH));
        wc.lpszClassName = KV_TRAY_WINDOW_CLASS;
        if (!RegisterClassExW(&wc) && GetLastError() != ERROR_CLASS_ALREADY_EXISTS)
            LOG4CXX_ERROR(logger, L"RegisterClassExW failed. Error = " << GetLastError());
        // The object travels as the creation parameter, so WM_CREATE already finds it.
        CreateWindowExW(0, KV_TRAY_WINDOW_CLASS, KV_TRAY_WINDOW_TITLE, WS_OVERLAPPEDWINDOW, 0, 0, 0, 0, nullptr,
                        nullptr, g_hInstance, this);
        if (m_hWnd != nullptr)
            ShowWindow(m_hWnd, SW_HIDE);
        else
            LOG4CXX_ERROR(logger, L"CreateWindowExW failed. Error = " << GetLastError());
        // The icon's identity holds from the start: the tray callback is checked against it.
        m_nid.hWnd = m_hWnd;
        m_nid.uID = m_uTrayIconId;

        m_hIconConnected = LoadTrayIcon(IDI_TRAY_CONNECTED);
        m_hIconIdle = LoadTrayIcon(IDI_TRAY_IDLE);
        m_hIconPending = LoadTrayIcon(IDI_TRAY_PENDING);
        m_hIconExtra = LoadTrayIcon(IDI_TRAY_EXTRA);
    }
    if (m_hWnd == nullptr || bSystem)
        PostQuitMessage(0);
}

CTaskBarWindow::~CTaskBarWindow()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::~CTaskBarWindow");
    DelTrayIcon();
    if (m_hMenu != nullptr)
        DestroyMenu(m_hMenu);
    // The connection thread may still be on its way out; it uses this object until it ends.
    HANDLE hThread = m_hConnectionThread.exchange(nullptr);
    if (hThread != nullptr)
    {
        if (m_pSocket != nullptr)
            m_pSocket->Close();
        if (WaitForSingleObject(hThread, KV_CONNECTION_THREAD_GRACE_MS) != WAIT_OBJECT_0)
            LOG4CXX_WARN(logger, L"The connection thread did not end in time.");
        CloseHandle(hThread);
    }
    delete m_pSocket;
    m_pSocket = nullptr;
    if (m_hSessionEvent != nullptr)
        CloseHandle(m_hSessionEvent);
    SFT_DeleteTempFile(1);
    SFT_DeleteTempFile(2);
    DestroyIconHandle(m_hIconConnected);
    DestroyIconHandle(m_hIconIdle);
    DestroyIconHandle(m_hIconPending);
    DestroyIconHandle(m_hIconExtra);
    delete m_strTempIni;
    delete m_strTempData;
    delete m_TempFiles;
    CoUninitialize();
}

int CTaskBarWindow::OnInit()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnInit");
    m_pSocket = new (std::nothrow) CKvSocket();
    if (m_pSocket == nullptr)
    {
        LOG4CXX_ERROR(logger, L"Cannot create the service socket.");
        return 0;
    }

    unsigned int uThreadId = 0;
    const uintptr_t hStarted = _beginthreadex(nullptr, 0, ConnectionInfo, this, CREATE_SUSPENDED, &uThreadId);
    if (hStarted == 0)
        LOG4CXX_ERROR(logger, L"Cannot start the connection thread. errno = " << errno);
    else
    {
        HANDLE hDuplicate = nullptr;
        DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(hStarted), GetCurrentProcess(), &hDuplicate,
                        0, FALSE, DUPLICATE_SAME_ACCESS);
        m_hConnectionThread = hDuplicate;
        ResumeThread(reinterpret_cast<HANDLE>(hStarted));
        CloseHandle(reinterpret_cast<HANDLE>(hStarted));
    }

    m_hSessionEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    for (unsigned(__stdcall * pfnWatcher)(void*) : {DesktopHaveChangedThread, DesktopChangeThread})
    {
        const uintptr_t hWatcher = _beginthreadex(nullptr, 0, pfnWatcher, this, 0, &uThreadId);
        if (hWatcher != 0)
            CloseHandle(reinterpret_cast<HANDLE>(hWatcher));
        else
            LOG4CXX_ERROR(logger, L"Cannot start a desktop-switch thread. errno = " << errno);
    }
    return 1;
}

int CTaskBarWindow::SendToService(const void* pBuffer, int nLength)
{
    CKvSocket* pSocket = m_pSocket;
    if (pSocket == nullptr || pSocket->GetHandle() == INVALID_SOCKET)
        return 0;
    return pSocket->Send(pBuffer, nLength);
}

LRESULT CALLBACK CTaskBarWindow::WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    if (uMsg == WM_NCCREATE)
    {
        auto* pWindow = static_cast<CTaskBarWindow*>(reinterpret_cast<CREATESTRUCTW*>(lParam)->lpCreateParams);
        pWindow->m_hWnd = hWnd;
        SetWindowLongPtrW(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(pWindow));
    }
    auto* pWindow = reinterpret_cast<CTaskBarWindow*>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
    if (pWindow == nullptr)
        return DefWindowProcW(hWnd, uMsg, wParam, lParam);
    return pWindow->HandleMessage(uMsg, wParam, lParam);
}

LRESULT CTaskBarWindow::HandleMessage(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    if (m_uTaskbarCreated != 0 && uMsg == m_uTaskbarCreated)
    {
        LOG4CXX_INFO(logger, L"TaskbarCreated");
        m_bTrayIconAdded = 0;
        SetTrayIcon();
        return 1;
    }
    switch (uMsg)
    {
    case WM_CREATE:
        m_uTaskbarCreated = RegisterWindowMessageW(L"TaskbarCreated");
        PostMessageW(m_hWnd, WM_KV_START, 0, 0);
        return 0;
    case WM_DESTROY:
        OnDestroy();
        return 0;
    case WM_QUERYENDSESSION:
        g_nExitCode = KV_EXIT_CODE_ENDED;
        break;
    case WM_ENDSESSION:
        OnEndSession(wParam);
        return 0;
    case WM_USERCHANGED:
        return 0;
    case WM_COMMAND:
        OnCommand(LOWORD(wParam));
        return 0;
    case WM_TIMER:
        OnTimer(wParam);
        return 0;
    case WM_WTSSESSION_CHANGE:
        if (wParam == WTS_CONSOLE_CONNECT || wParam == WTS_CONSOLE_DISCONNECT || wParam == WTS_SESSION_LOGON ||
            wParam == WTS_SESSION_LOCK || wParam == WTS_SESSION_UNLOCK)
        {
            LOG4CXX_INFO(logger, L"WM_WTSSESSION_CHANGE " << wParam);
            SetEvent(m_hSessionEvent);
        }
        return 0;
    case WM_KV_TRAY_CALLBACK:
        return OnTrayCallback(wParam, lParam);
    case WM_KV_SHOW_NOTIFY_DLG:
        if (wParam == 0 && m_nMode == 1 && m_bNotifyDlg == 0)
            return 1;
        OnShowNotifyDialog(wParam != 0);
        return 0;
    case WM_KV_START:
        g_nDesktopState = KV_DESKTOP_STATE_NORMAL;
        CheckDesktopState();
        RegisterSessionNotification(m_hWnd);
        OnInit();
        return 1;
    case WM_KV_CLOSE_NOTIFY_DLG:
        if (IsWindow(m_hNotifyDlg))
            DestroyWindow(m_hNotifyDlg);
        m_hNotifyDlg = nullptr;
        return 0;
    case WM_KV_QUEUED_MSGBOX:
        OnQueuedMessageBox();
        return 0;
    case WM_KV_RECREATE_NOTIFY_DLG:
        OnShowNotifyDialog(true);
        return 0;
    case WM_KV_QUIT:
        LOG4CXX_INFO(logger, L"The service link ended; closing.");
        DestroyWindow(m_hWnd);
        return 0;
    case WM_KV_DROP_WINDOW:
        if (wParam == 1000)
        {
            HWND hDrop = CreateModelessDialog(nullptr, IDD_SFT_DROP, SFTDropWndProc, lParam);
            if (hDrop != nullptr)
                ShowWindow(hDrop, SW_SHOW);
        }
        else if (wParam == 1001)
            SFT_EraseDropWindow(lParam != 0 ? static_cast<int>(lParam) : -1);
        return 0;
    case WM_KV_JOIN_SESSION_WAIT:
        OnJoinSessionWait(wParam);
        return 0;
    case WM_KV_RELOAD_LANGUAGE:
        OnReloadLanguage();
        return 0;
    case WM_RC_CHAT_MESSAGE_SENT:
        LOG4CXX_INFO(logger, L"WM_RC_CHAT_MESSAGE_SENT - local user hit send in the chat window");
        SendToService(reinterpret_cast<const void*>(wParam), static_cast<int>(lParam));
        return 0;
    case WM_CHAT_OPEN:
        LOG4CXX_INFO(logger, L"WM_CHAT_OPEN");
        OpenChatWindow();
        return 0;
    case WM_CHAT_MESSAGE:
        LOG4CXX_INFO(logger, L"WM_CHAT_MESSAGE");
        ShowChatMessage(reinterpret_cast<const MSG_CHAT_MESSAGE*>(wParam));
        return 0;
    case WM_CHAT_CLOSE:
        LOG4CXX_INFO(logger, L"WM_CHAT_CLOSE");
        CloseChatWindow();
        return 0;
    case WM_KV_ANSWER:
        return 1;
    case WM_KV_DROP_WINDOW_GONE:
        m_hDropWnd = nullptr;
        return 0;
    case WM_SHOW_ONE_TIME_AGENT_BALLON:
        LOG4CXX_DEBUG(logger, L"WM_SHOW_ONE_TIME_AGENT_BALLON");
        {
            wchar_t szBalloon[512] = {};
            LoadStringW(g_hResInstance, IDS_ONETIME_BALLOON, szBalloon, 512);
            ShowTrayBalloonMsg(szBalloon);
        }
        return 0;
    default:
        break;
    }
    return DefWindowProcW(m_hWnd, uMsg, wParam, lParam);
}

void CTaskBarWindow::OnDestroy()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnDestroy");
    UnRegisterSessionNotification(m_hWnd);
    if (g_hStopEvent != nullptr)
        SetEvent(g_hStopEvent);
    RetoreDesktopOptions();
    // The icon goes while its window still exists; the shell drops icons of vanished windows late.
    DelTrayIcon();
    m_bClosing = 1;
    // Closing unblocks the connection thread's read; the object goes with the window object, once
    // that thread has let go of it.
    if (m_pSocket != nullptr)
        m_pSocket->Close();
    if (IsWindow(m_hNotifyDlg))
        DestroyWindow(m_hNotifyDlg);
    m_hNotifyDlg = nullptr;
    if (IsWindow(m_hDropWnd))
        DestroyWindow(m_hDropWnd);
    m_hDropWnd = nullptr;
    if (m_uTrayRetryTimer != 0)
        KillTimer(m_hWnd, m_uTrayRetryTimer);
    m_uTrayRetryTimer = 0;
    Sleep(0);
    Sleep(250);
    Sleep(0);
    PostQuitMessage(0);
}

void CTaskBarWindow::OnEndSession(WPARAM wParam)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnEndSession");
    g_nExitCode = KV_EXIT_CODE_ENDED;
    if (!wParam)
        return;
    SFT_RemoveDropWindow(-1);
    const MSG_TRAYICON_SESSION_END end = KvBuildSessionEnd(g_nSessionId);
    SendToService(&end, sizeof end);
}

void CTaskBarWindow::OnTimer(UINT_PTR uTimer)
{
    switch (uTimer)
    {
    case KV_TIMER_NOTIFY_CONNECT:
        KillTimer(m_hWnd, uTimer);
        if (m_bConnectPending && m_nConnections > 0)
            PostMessageW(m_hWnd, WM_COMMAND, IDM_NOTIFY_ALL, 0);
        else
            NotifyConnect();
        break;
    case KV_TIMER_TRAY_RETRY:
        m_uTrayRetryTimer = 0;
        KillTimer(m_hWnd, uTimer);
        SetTrayIcon();
        break;
    case KV_TIMER_SETTINGS_DIALOG:
        KillTimer(m_hWnd, uTimer);
        PostMessageW(m_hWnd, WM_COMMAND, IDM_SETTINGS, 0);
        break;
    case KV_TIMER_DESKTOP_POLL:
        if (IsUserDesktopInitialized())
        {
            KillTimer(m_hWnd, uTimer);
            SetTimer(m_hWnd, KV_TIMER_DESKTOP_APPLY, 2500, nullptr);
        }
        break;
    case KV_TIMER_DESKTOP_APPLY:
        KillTimer(m_hWnd, uTimer);
        m_bDesktopOptionsPending = 0;
        SetDesktopOptions(m_nDesktopOptions);
        break;
    default:
        break;
    }
}

LRESULT CTaskBarWindow::OnTrayCallback(WPARAM wParam, LPARAM lParam)
{
    const UINT uMouse = m_nid.uVersion != 0 ? LOWORD(lParam) : static_cast<UINT>(lParam);
    if (LOWORD(wParam) != m_nid.uID ||
        (uMouse != WM_RBUTTONUP && uMouse != WM_CONTEXTMENU && uMouse != WM_LBUTTONDOWN))
        return 0;
    ShowTrayMenu();
    return 0;
}

void CTaskBarWindow::ShowTrayMenu()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::ShowTrayMenu");
    m_hMenu = LoadMenuW(g_hResInstance, MAKEINTRESOURCEW(g_bOneTimeSession ? IDR_TRAY_MENU_ONETIME : IDR_TRAY_MENU));
    HMENU hPopup = m_hMenu != nullptr ? GetSubMenu(m_hMenu, 0) : nullptr;
    if (hPopup == nullptr)
    {
        LOG4CXX_ERROR(logger, L"Cannot load the tray menu. Error = " << GetLastError());
        if (m_hMenu != nullptr)
            DestroyMenu(m_hMenu);
        m_hMenu = nullptr;
        return;
    }

    KvTrayMenuFlags flags;
    flags.nConnections = m_nConnections;
    flags.nMode = m_nMode;
    flags.bAllowSettings = m_bAllowSettings != 0;
    flags.bAllowDisconnect = m_bAllowDisconnect != 0;
    flags.bAllowInvitations = m_bAllowInvitations != 0;
    flags.bAllowConnectToClient = m_bAllowConnectToClient != 0;
    flags.bReverseConnectActive = m_bReverseConnectActive != 0;
    flags.bLockSettings = m_bLockSettingsA != 0 || m_bLockSettingsB != 0;
    flags.uOptions = m_uOptions;
    const KvGreyedItems greyed = KvTrayMenuGreyed(flags);
    for (int i = 0; i < greyed.count; ++i)
        EnableMenuItem(hPopup, greyed.ids[i], MF_BYCOMMAND | MF_GRAYED);
    const unsigned int uLanguageItem = KvLanguageMenuItem(m_szLanguage, KV_LANGUAGE_TABLE, KV_LANGUAGE_COUNT);
    if (uLanguageItem != 0)
        CheckMenuItem(hPopup, uLanguageItem, MF_BYCOMMAND | MF_CHECKED);

    POINT pt = {};
    GetCursorPos(&pt);
    HWND hOwner = m_nid.hWnd != nullptr ? m_nid.hWnd : m_hWnd;
    SetForegroundWindow(hOwner);
    TrackPopupMenu(hPopup, TPM_RIGHTBUTTON, pt.x, pt.y, 0, hOwner, nullptr);
    PostMessageW(hOwner, WM_NULL, 0, 0);
    DestroyMenu(m_hMenu);
    m_hMenu = nullptr;
}

void CTaskBarWindow::OnCommand(UINT uCommand)
{
    LOG4CXX_INFO(logger, L"WM_COMMAND " << uCommand);
    switch (uCommand)
    {
    case IDM_LANGUAGE_EN:
    case IDM_LANGUAGE_FR:
    case IDM_LANGUAGE_DE:
        ChooseLanguage(static_cast<int>(uCommand - IDM_LANGUAGE_EN));
        break;
    case IDM_INVITATIONS:
        OpenInvitations();
        break;
    case IDM_NOTIFY_ALL:
    {
        auto request = std::make_unique<MSG_TRAYICON_NOTIFY_ALL>();
        KvBuildNotifyAllRequest(*request);
        SendToService(request.get(), sizeof *request);
        break;
    }
    case IDM_DISCONNECT:
        AskAndDisconnect();
        break;
    case IDM_CONNECT_TO_CLIENT:
        OpenConnectToClient();
        break;
    case IDM_EXIT:
        AskAndExit();
        break;
    case IDM_SETTINGS:
    {
        HWND hOwner = GetForegroundWindow();
        if (hOwner == nullptr || IsIconic(hOwner))
            hOwner = m_hWnd;
        ExecuteSettingsDialog(hOwner, m_bLockSettingsA || m_bLockSettingsB ? 1 : 0);
        break;
    }
    case IDM_ABOUT:
        OpenAbout();
        break;
    case IDM_JOIN_INTERNET_SESSION:
        JoinInternetSession();
        break;
    default:
        break;
    }
}

void CTaskBarWindow::ChooseLanguage(int nIndex)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::ChooseLanguage");
    const wchar_t* szCode = KV_LANGUAGE_TABLE[nIndex];
    wcsncpy(m_szLanguage, szCode, 2);
    m_bReplyReceived = 0;
    KvCopyString(m_Settings.szLanguage, szCode);
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info = {};
    GetDesktopUserInformation(&info);
    MSG_TRAYICON_LANGUAGE choice;
    KvBuildLanguage(choice, szCode, info);
    SendToService(&choice, sizeof choice);
}

void CTaskBarWindow::WaitForReply()
{
    for (int nRound = 0; nRound < 500 && !m_bReplyReceived; ++nRound)
    {
        Sleep(0);
        Sleep(10);
        Sleep(0);
    }
    if (!m_bReplyReceived)
        LOG4CXX_WARN(logger, L"No reply from the service; going on without it.");
}

void CTaskBarWindow::OpenInvitations()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OpenInvitations");
    m_bReplyReceived = 0;
    const MSG_TRAYICON_TYPE_ONLY request = KvBuildTypeOnly(MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK);
    SendToService(&request, sizeof request);
    WaitForReply();
    ShowDialog(m_hWnd, IDD_CREATE_INVITATION, CreateInvitationWndProc, reinterpret_cast<LPARAM>(this));
}

void CTaskBarWindow::OpenAbout()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OpenAbout");
    m_bReplyReceived = 0;
    m_bAboutRequested = 1;
    const MSG_TRAYICON_TYPE_ONLY request = KvBuildTypeOnly(MSG_TYPE_TRAYICON_IP_ADDRESSES);
    SendToService(&request, sizeof request);
    WaitForReply();
    ShowDialog(m_hWnd, IDD_ABOUT, AboutWndProc, reinterpret_cast<LPARAM>(&m_Settings));
    m_bAboutRequested = 0;
}

void CTaskBarWindow::AskAndDisconnect()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::AskAndDisconnect");
    const int nConnections = m_nConnections;
    if (nConnections < 1)
        return;
    if (AskWithCount(IDS_CONFIRM_DISCONNECT_FMT, nConnections) != IDYES)
        return;
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info = {};
    GetDesktopUserInformation(&info);
    MSG_TRAYICON_USER_REQUEST request;
    KvBuildUserRequest(request, info);
    SendToService(&request, sizeof request);
}

void CTaskBarWindow::AskAndExit()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::AskAndExit");
    const int nConnections = m_nConnections;
    if (nConnections > 0 && AskWithCount(IDS_CONFIRM_EXIT_FMT, nConnections) != IDYES)
        return;
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info = {};
    GetDesktopUserInformation(&info);
    MSG_TRAYICON_EXIT request;
    KvBuildExit(request, info);
    SendToService(&request, sizeof request);
    g_nExitCode = KV_EXIT_CODE_ENDED;
    DelTrayIcon();
    DestroyWindow(m_hWnd);
}

void CTaskBarWindow::OpenConnectToClient()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OpenConnectToClient");
    if (!m_bAllowConnectToClient || m_bReverseConnectActive)
        return;
    auto request = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvZero(*request);
    request->uConnectOption = m_uConnectOption;
    if (ShowDialog(m_hWnd, IDD_CONNECT_TO_CLIENT, ConnectToClient, reinterpret_cast<LPARAM>(request.get())) != 1)
        return;
    request->dwType = MSG_TYPE_REVERSE_CONNECTION;
    if (SendToService(request.get(), sizeof *request))
        m_bReverseConnectActive = 1;
}

void CTaskBarWindow::JoinInternetSession()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::JoinInternetSession");
    if (m_bReverseConnectActive)
        return;
    auto request = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvBuildJoinSessionRequest(*request, m_uConnectOption, static_cast<const wchar_t*>(nullptr));
    if (g_dwOneTimeSession != 0)
    {
        // The one-time agent already knows its session: the request is prepared without asking.
        KvCopyString(request->szShortText, g_szOneTimeSession, 8096);
    }
    else if (m_bJoinDialogOpen)
    {
        LOG4CXX_INFO(logger, L"Join Internet Session dialog exists, bringing to top.");
        HWND hJoin = GetLastActivePopup(m_hWnd);
        if (hJoin != nullptr && hJoin != m_hWnd)
            BringWindowToTop(hJoin);
        return;
    }
    else
    {
        m_bJoinDialogOpen = 1;
        const INT_PTR nResult = ShowDialog(m_hWnd, IDD_JOIN_ATTENDED_SESSION, JoinAttendedSessionProc,
                                           reinterpret_cast<LPARAM>(request.get()));
        m_bJoinDialogOpen = 0;
        if (nResult != 1)
            return;
    }
    if ((IsOtiSessionInProgress() || IsLocalSessionInProgress()) &&
        TimedMessageBox(g_hResInstance, nullptr, IDS_CONFIRM_SIMULTANEOUS, IDS_APP_CAPTION,
                        MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2 | MB_TOPMOST, KV_QUESTION_TIMEOUT_MS) != IDYES)
        return;
    if (SendToService(request.get(), sizeof *request))
        m_bReverseConnectActive = 1;
}

void CTaskBarWindow::OnQueuedMessageBox()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnQueuedMessageBox");
    TimedMessageBox(nullptr, m_szMsgBoxText, m_szMsgBoxCaption,
                    MB_TOPMOST | (m_bMsgBoxError ? MB_ICONERROR : MB_ICONINFORMATION), KV_NOTICE_TIMEOUT_MS);
    if (g_bOneTimeSession && g_dwOneTimeSession != 0)
        PostMessageW(m_hWnd, WM_COMMAND, IDM_EXIT, 0);
}

void CTaskBarWindow::OnJoinSessionWait(WPARAM wParam)
{
    if (IsWindow(m_hConnectWaitDlg))
    {
        LOG4CXX_INFO(logger, L"PostMessage WM_HIDE_JOIN_INTERNET_SESSION_DLG.");
        PostMessageW(m_hConnectWaitDlg, WM_HIDE_JOIN_INTERNET_SESSION_DLG, 0, 0);
    }
    switch (wParam)
    {
    case 0:
        LOG4CXX_INFO(logger, L"Displaying Join Internet Session Wait Dialog.");
        m_hConnectWaitDlg = CreateModelessDialog(m_hWnd, IDD_CONNECT_IN_PROGRESS, ConnectInProgressProc,
                                                 reinterpret_cast<LPARAM>(this));
        if (m_hConnectWaitDlg != nullptr)
            ShowWindow(m_hConnectWaitDlg, SW_SHOW);
        break;
    case 1:
        LOG4CXX_INFO(logger, L"Destroying Join Internet Session Wait Dialog.");
        if (IsWindow(m_hConnectWaitDlg))
            DestroyWindow(m_hConnectWaitDlg);
        m_hConnectWaitDlg = nullptr;
        break;
    case 2:
    {
        LOG4CXX_INFO(logger, L"Canceling OTI connection attempt.");
        auto request = std::make_unique<MSG_REVERSE_CONNECTION>();
        KvBuildReverseConnectionCancel(*request);
        SendToService(request.get(), sizeof *request);
        break;
    }
    default:
        break;
    }
}

void CTaskBarWindow::OnShowNotifyDialog(bool bUnconditional)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnShowNotifyDialog");
    if (IsWindow(m_hNotifyDlg))
        DestroyWindow(m_hNotifyDlg);
    m_hNotifyDlg = nullptr;
    if (!bUnconditional && m_nMode == 1 && m_bNotifyDlg == 0)
        return;
    LOG4CXX_INFO(logger, L"Opening the notification dialog, kind " << m_nNotifyKind);
    m_hNotifyDlg = CreateModelessDialog(m_hWnd, IDD_NOTIFY, NotifyWndProc, reinterpret_cast<LPARAM>(this));
    if (m_hNotifyDlg != nullptr)
    {
        m_bFirstNotify = 0;
        SetWindowLongPtrW(m_hNotifyDlg, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    }
}

void CTaskBarWindow::OnReloadLanguage()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnReloadLanguage");
    if (m_Settings.bMachineProfile == 0)
        g_ProfileReg.SetRootKey(HKEY_CURRENT_USER);
    KvCProfileRegStorage language(&g_ProfileReg);
    HMODULE hReloaded = LoadResourceLibrary(&language);
    if (hReloaded == nullptr)
        return;
    HMODULE hOld = g_hResInstance;
    g_hResInstance = hReloaded;
    if (hOld != nullptr && hOld != g_hInstance)
        FreeLibrary(hOld);
}
