// The tray window: construction, start of the worker threads, the message table and its dispatch
// to the facilities, the timers, the tray menu and its commands, and the orderly end.
#include "KVNXSTWindow.h"

#include "AboutDialog.h"
#include "ConnectionInfo.h"
#include "CreateInvitationDialog.h"
#include "DesktopSwitchWatcher.h"
#include "KVNXST.h"
#include "KvLogging.h"
#include "KvSocket.h"
#include "KvSystemApi.h"
#include "ProfileReg.h"
#include "ResourceText.h"
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

#include <algorithm>
#include <climits>
#include <cstring>
#include <cwchar>
#include <memory>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));

namespace
{

constexpr wchar_t KV_TRAY_WINDOW_CLASS[] = L"Kestrova Vexa Tray Icon Class";
constexpr wchar_t KV_TRAY_WINDOW_TITLE[] = L"Kestrova Vexa Tray Icon";
constexpr DWORD KV_NOTICE_TIMEOUT_MS = 20000;
// How long the end of the window waits for the connection thread to let go of the object.
constexpr DWORD KV_CONNECTION_THREAD_GRACE_MS = 5000;

// The yes/no question of the disconnect and exit commands: a format with the number of viewers.
int AskWithCount(UINT uFormatId, int nConnections)
{
    wchar_t szText[1100] = {};
    _snwprintf(szText, 1099, KvLoadText(uFormatId).c_str(), nConnections);
    return TimedMessageBox(nullptr, szText, KvLoadText(IDS_APP_CAPTION).c_str(), MB_YESNO | MB_ICONQUESTION,
                           KV_QUESTION_TIMEOUT_MS);
}

} // namespace

INT_PTR KvShowDialog(HWND hOwner, int nId, DLGPROC pfnProc, LPARAM lParam)
{
    const INT_PTR nResult = DialogBoxParamW(g_hResInstance, MAKEINTRESOURCEW(nId), hOwner, pfnProc, lParam);
    if (nResult == -1)
        LOG4CXX_WARN(logger, L"Dialog " << nId << L" cannot be shown. Error = " << GetLastError());
    return nResult;
}

HWND KvCreateModelessDialog(HWND hOwner, int nId, DLGPROC pfnProc, LPARAM lParam)
{
    HWND hDlg = CreateDialogParamW(g_hResInstance, MAKEINTRESOURCEW(nId), hOwner, pfnProc, lParam);
    if (hDlg == nullptr)
        LOG4CXX_WARN(logger, L"Dialog " << nId << L" cannot be created. Error = " << GetLastError());
    return hDlg;
}

CTaskBarWindow::CTaskBarWindow(unsigned int uiPort)
    : m_hWnd(nullptr), m_uTaskbarCreated(0), m_uChatResourceModule(0), m_nMode(1), m_szLanguage(),
      m_bClosing(0), m_uiPort(uiPort), m_hConnectionThread(nullptr), m_hSessionEvent(nullptr),
      m_hMenu(nullptr), m_Settings(), m_ConnectInfo(), m_NotifyAll(), m_AboutInfo(), m_nConnections(0),
      m_uTrayIconSelector(1), m_bReplyReceived(0), m_reverse(*this)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::CTaskBarWindow");
    LOG4CXX_INFO(logger, L"uiPort=" << uiPort);
    // OLE, not only COM: the drop windows are drop targets.
    OleInitialize(nullptr);
    // An agent that died with the desktop stripped left a note: put the user's desktop back first.
    m_desktopOptions.Recover();

    wchar_t szAccount[240] = {};
    DWORD cchAccount = 240;
    GetUserNameW(szAccount, &cchAccount);
    const bool bSystem = KvIsSystemAccount(szAccount);
    if (!bSystem)
    {
        m_Settings.bNotifyDlg = 1;
        m_Settings.bNotifyDisconnect = 1;
        m_Settings.bAllowSettings = 1;
        m_Settings.bAllowDisconnect = 1;
        m_Settings.bTrayIcon = 1;
        m_Settings.bPermissionRequired = 1;
        if (!g_bOneTimeSession)
        {
            DWORD dwValue = 0;
            if (ReadServiceSettingDword(L"TrayIcon", &dwValue))
                m_Settings.bTrayIcon = dwValue;
            if (ReadServiceSettingDword(L"Permission Required", &dwValue))
                m_Settings.bPermissionRequired = dwValue;
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
        m_trayIcon.Create(m_hWnd, GetFileMajorVersion(L"Shell32.dll") >= 5);
        m_desktopOptions.SetWindow(m_hWnd);
        m_fileTransfer.SetWindow(m_hWnd);
    }
    if (m_hWnd == nullptr || bSystem)
        PostQuitMessage(0);
}

CTaskBarWindow::~CTaskBarWindow()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::~CTaskBarWindow");
    m_trayIcon.Remove();
    if (m_hMenu != nullptr)
        DestroyMenu(m_hMenu);
    // The connection thread may still be on its way out; it uses this object until it ends.
    HANDLE hThread = m_hConnectionThread.exchange(nullptr);
    if (hThread != nullptr)
    {
        m_socket.Close();
        if (WaitForSingleObject(hThread, KV_CONNECTION_THREAD_GRACE_MS) != WAIT_OBJECT_0)
            LOG4CXX_WARN(logger, L"The connection thread did not end in time.");
        CloseHandle(hThread);
    }
    if (m_hSessionEvent != nullptr)
        CloseHandle(m_hSessionEvent);
    OleUninitialize();
}

void CTaskBarWindow::OnInit()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnInit");

    unsigned int uThreadId = 0;
    const uintptr_t hStarted = _beginthreadex(nullptr, 0, ConnectionInfo, static_cast<IKvTrayLink*>(this),
                                              CREATE_SUSPENDED, &uThreadId);
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
        const uintptr_t hWatcher =
            _beginthreadex(nullptr, 0, pfnWatcher, static_cast<IKvWatcherLink*>(this), 0, &uThreadId);
        if (hWatcher != 0)
            CloseHandle(reinterpret_cast<HANDLE>(hWatcher));
        else
            LOG4CXX_ERROR(logger, L"Cannot start a desktop-switch thread. errno = " << errno);
    }
}

int CTaskBarWindow::SendToService(const void* pBuffer, int nLength)
{
    if (m_socket.GetHandle() == INVALID_SOCKET)
        return 0;
    return m_socket.Send(pBuffer, nLength);
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
        m_trayIcon.OnTaskbarCreated(TrayInputs());
        return 1;
    }
    if (m_uChatResourceModule != 0 && uMsg == m_uChatResourceModule)
        return reinterpret_cast<LRESULT>(KvResourceModule());
    switch (uMsg)
    {
    case WM_CREATE:
        m_uTaskbarCreated = RegisterWindowMessageW(L"TaskbarCreated");
        m_uChatResourceModule = RegisterWindowMessageW(KV_CHAT_RESOURCE_MODULE_MESSAGE);
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
        if (m_trayIcon.IsMenuClick(wParam, lParam))
            ShowTrayMenu();
        return 0;
    case WM_KV_TRAY_REFRESH:
        m_trayIcon.Update(TrayInputs());
        return 0;
    case WM_KV_TRAY_RECONFIGURING:
    {
        const std::unique_ptr<KvReconfigureNote> note(reinterpret_cast<KvReconfigureNote*>(lParam));
        m_trayIcon.ShowReconfiguring(*note);
        return 0;
    }
    case WM_KV_START_TIMER:
        SetTimer(m_hWnd, wParam, static_cast<UINT>(lParam), nullptr);
        return 0;
    case WM_KV_SHOW_NOTIFY_DLG:
        if (wParam == 0 && m_nMode == 1 && m_Settings.bNotifyDlg == 0)
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
        m_notice.Close();
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
            m_fileTransfer.CreateDropWindow(reinterpret_cast<MSG_TRAYICON_SFT_DROP_CLIENT*>(lParam));
        else if (wParam == 1001)
            m_fileTransfer.SFT_EraseDropWindow(lParam != 0 ? static_cast<int>(lParam) : -1);
        return 0;
    case WM_KV_JOIN_SESSION_WAIT:
        m_reverse.OnWait(m_hWnd, wParam);
        return 0;
    case WM_KV_RELOAD_LANGUAGE:
        OnReloadLanguage();
        return 0;
    case WM_RC_CHAT_MESSAGE_SENT:
        LOG4CXX_INFO(logger, L"WM_RC_CHAT_MESSAGE_SENT - local user hit send in the chat window");
        OnChatMessageSent(reinterpret_cast<const void*>(wParam), lParam);
        return 0;
    case WM_CHAT_OPEN:
        LOG4CXX_INFO(logger, L"WM_CHAT_OPEN");
        m_chat.OpenChatWindow(m_hWnd);
        return 0;
    case WM_CHAT_MESSAGE:
        LOG4CXX_INFO(logger, L"WM_CHAT_MESSAGE");
        m_chat.ShowChatMessage(m_hWnd, reinterpret_cast<const MSG_CHAT_MESSAGE*>(wParam));
        return 0;
    case WM_CHAT_CLOSE:
        LOG4CXX_INFO(logger, L"WM_CHAT_CLOSE");
        m_chat.CloseChatWindow();
        return 0;
    case WM_KV_CHAT_OWNER_ALIVE:
        return 1;
    case WM_KV_CHAT_WINDOW_GONE:
        m_chat.ChatWindowGone(reinterpret_cast<HWND>(wParam));
        return 0;
    case WM_SHOW_ONE_TIME_AGENT_BALLON:
        LOG4CXX_DEBUG(logger, L"WM_SHOW_ONE_TIME_AGENT_BALLON");
        m_trayIcon.ShowBalloon(KvLoadText(IDS_ONETIME_BALLOON).c_str(), m_Settings.bTrayIcon);
        return 0;
    default:
        break;
    }
    return DefWindowProcW(m_hWnd, uMsg, wParam, lParam);
}

void CTaskBarWindow::OnChatMessageSent(const void* pRecord, LPARAM cbRecord)
{
    // A record whose size disagrees with its head would leave the service reading our next record
    // as chat text: it does not go out.
    const auto* pHead = static_cast<const MSG_CHAT_MESSAGE*>(pRecord);
    if (pHead == nullptr || cbRecord < static_cast<LPARAM>(sizeof(MSG_CHAT_MESSAGE)) ||
        pHead->dwType != MSG_TYPE_CHAT_MESSAGE ||
        static_cast<std::uint64_t>(cbRecord) !=
            sizeof(MSG_CHAT_MESSAGE) + std::uint64_t{pHead->dwMessageLength} ||
        cbRecord > INT_MAX)
    {
        LOG4CXX_ERROR(logger, L"The chat window handed over no whole chat record ("
                                  << cbRecord << L" bytes); nothing sent.");
        return;
    }
    if (!SendToService(pRecord, static_cast<int>(cbRecord)))
        LOG4CXX_WARN(logger,
                     L"The chat message of " << cbRecord << L" bytes could not be sent to the service.");
}

void CTaskBarWindow::OnDestroy()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnDestroy");
    UnRegisterSessionNotification(m_hWnd);
    if (g_hStopEvent != nullptr)
        SetEvent(g_hStopEvent);
    m_desktopOptions.Restore();
    // The icon goes while its window still exists; the shell drops icons of vanished windows late.
    m_trayIcon.Remove();
    m_bClosing = 1;
    // Closing unblocks the connection thread's read; the object goes with the window object, once
    // that thread has let go of it.
    m_socket.Close();
    m_notice.Close();
    m_fileTransfer.CloseAllDropWindows();
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
    m_fileTransfer.SFT_RemoveDropWindow(-1);
    const MSG_TRAYICON_SESSION_END end = KvBuildSessionEnd(g_nSessionId);
    SendToService(&end, sizeof end);
}

void CTaskBarWindow::OnTimer(UINT_PTR uTimer)
{
    switch (uTimer)
    {
    case KV_TIMER_NOTIFY_CONNECT:
        KillTimer(m_hWnd, uTimer);
        NotifyConnect();
        break;
    case KV_TIMER_TRAY_RETRY:
        KillTimer(m_hWnd, uTimer);
        m_trayIcon.OnRetryTimer(TrayInputs());
        break;
    case KV_TIMER_SETTINGS_DIALOG:
        KillTimer(m_hWnd, uTimer);
        PostMessageW(m_hWnd, WM_COMMAND, IDM_SETTINGS, 0);
        break;
    case KV_TIMER_DESKTOP_POLL:
    case KV_TIMER_DESKTOP_APPLY:
        m_desktopOptions.OnTimer(uTimer);
        break;
    default:
        break;
    }
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
    flags.bAllowSettings = m_Settings.bAllowSettings != 0;
    flags.bAllowDisconnect = m_Settings.bAllowDisconnect != 0;
    flags.bAllowInvitations = m_Settings.bAllowInvitations != 0;
    flags.bAllowConnectToClient = m_Settings.bAllowConnectToClient != 0;
    flags.bReverseConnectActive = m_reverse.Active();
    flags.bLockSettings = m_Settings.bLockSettingsA != 0 || m_Settings.bLockSettingsB != 0;
    flags.uOptions = m_Settings.uOptions;
    const KvGreyedItems greyed = KvTrayMenuGreyed(flags);
    for (int i = 0; i < greyed.count; ++i)
        EnableMenuItem(hPopup, greyed.ids[i], MF_BYCOMMAND | MF_GRAYED);
    const unsigned int uLanguageItem = KvLanguageMenuItem(m_szLanguage, KV_LANGUAGE_TABLE, KV_LANGUAGE_COUNT);
    if (uLanguageItem != 0)
        CheckMenuItem(hPopup, uLanguageItem, MF_BYCOMMAND | MF_CHECKED);

    POINT pt = {};
    GetCursorPos(&pt);
    SetForegroundWindow(m_hWnd);
    TrackPopupMenu(hPopup, TPM_RIGHTBUTTON, pt.x, pt.y, 0, m_hWnd, nullptr);
    PostMessageW(m_hWnd, WM_NULL, 0, 0);
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
        AskAndTell(false);
        break;
    case IDM_CONNECT_TO_CLIENT:
        m_reverse.ConnectToClient(m_hWnd, m_Settings.uConnectOption, m_Settings.bAllowConnectToClient != 0);
        break;
    case IDM_EXIT:
        AskAndTell(true);
        break;
    case IDM_SETTINGS:
    {
        HWND hOwner = GetForegroundWindow();
        if (hOwner == nullptr || IsIconic(hOwner))
            hOwner = m_hWnd;
        ExecuteSettingsDialog(hOwner, m_Settings.bLockSettingsA || m_Settings.bLockSettingsB ? 1 : 0);
        break;
    }
    case IDM_ABOUT:
        OpenAbout();
        break;
    case IDM_JOIN_INTERNET_SESSION:
        m_reverse.JoinSession(m_hWnd, m_Settings.uConnectOption);
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
    KvShowDialog(m_hWnd, IDD_CREATE_INVITATION, CreateInvitationWndProc, reinterpret_cast<LPARAM>(this));
}

void CTaskBarWindow::OpenAbout()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OpenAbout");
    m_bReplyReceived = 0;
    const MSG_TRAYICON_TYPE_ONLY request = KvBuildTypeOnly(MSG_TYPE_TRAYICON_IP_ADDRESSES);
    SendToService(&request, sizeof request);
    WaitForReply();
    KvShowDialog(m_hWnd, IDD_ABOUT, AboutWndProc, reinterpret_cast<LPARAM>(&m_Settings));
}

void CTaskBarWindow::AskAndTell(bool bExit)
{
    KvLogBlock logBlock(logger, bExit ? L"CTaskBarWindow::AskAndExit" : L"CTaskBarWindow::AskAndDisconnect");
    const int nConnections = m_nConnections;
    // Disconnecting needs a viewer and always asks; exiting asks only while viewers watch.
    if (!bExit && nConnections < 1)
        return;
    if ((!bExit || nConnections > 0) &&
        AskWithCount(bExit ? IDS_CONFIRM_EXIT_FMT : IDS_CONFIRM_DISCONNECT_FMT, nConnections) != IDYES)
        return;
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info = {};
    GetDesktopUserInformation(&info);
    if (!bExit)
    {
        MSG_TRAYICON_USER_REQUEST request;
        KvBuildUserRequest(request, info);
        SendToService(&request, sizeof request);
        return;
    }
    MSG_TRAYICON_EXIT request;
    KvBuildExit(request, info);
    SendToService(&request, sizeof request);
    g_nExitCode = KV_EXIT_CODE_ENDED;
    m_trayIcon.Remove();
    DestroyWindow(m_hWnd);
}

void CTaskBarWindow::OnQueuedMessageBox()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnQueuedMessageBox");
    // Every report that is shown tells of a failed attempt.
    TimedMessageBox(nullptr, m_reportText.c_str(), m_reportCaption.c_str(), MB_TOPMOST | MB_ICONERROR,
                    KV_NOTICE_TIMEOUT_MS);
    if (g_bOneTimeSession && g_dwOneTimeSession != 0)
        PostMessageW(m_hWnd, WM_COMMAND, IDM_EXIT, 0);
}

void CTaskBarWindow::OnShowNotifyDialog(bool bUnconditional)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OnShowNotifyDialog");
    m_notice.Close();
    if (!bUnconditional && m_nMode == 1 && m_Settings.bNotifyDlg == 0)
        return;
    m_notice.Open(m_hWnd, reinterpret_cast<LPARAM>(this));
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

KvTrayInputs CTaskBarWindow::TrayInputs() const
{
    KvTrayInputs in;
    in.pSettings = &m_Settings;
    in.nConnections = m_nConnections;
    in.nMode = m_nMode;
    in.uSelector = m_uTrayIconSelector;
    return in;
}

void CTaskBarWindow::StoreSettings(const MSG_TRAYICON_SETTINGS& settings)
{
    std::memcpy(&m_Settings, &settings, sizeof settings);
}

void CTaskBarWindow::StoreConnectInfo(const MSG_TRAYICON_CONNECT_INFO& info)
{
    std::memcpy(&m_ConnectInfo, &info, sizeof info);
    m_nConnections = static_cast<int>(std::min<std::uint32_t>(info.dwConnections, INT_MAX));
}

void CTaskBarWindow::StoreViewerList(const MSG_TRAYICON_NOTIFY_ALL& list)
{
    std::memcpy(&m_NotifyAll, &list, sizeof list);
}

void CTaskBarWindow::StoreAddresses(const MSG_TRAYICON_IP_ADDRESSES& addresses)
{
    std::memcpy(&m_AboutInfo, &addresses, sizeof addresses);
}

void CTaskBarWindow::StoreReport(const std::wstring& caption, const std::wstring& text, bool bShow)
{
    m_reportCaption = caption;
    m_reportText = text;
    if (bShow)
        Post(WM_KV_QUEUED_MSGBOX);
}

void CTaskBarWindow::Post(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    PostMessageW(m_hWnd, uMsg, wParam, lParam);
}

LRESULT CTaskBarWindow::Send(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    return SendMessageW(m_hWnd, uMsg, wParam, lParam);
}

void CTaskBarWindow::StartTimer(UINT_PTR uTimer, UINT uMs)
{
    Post(WM_KV_START_TIMER, uTimer, static_cast<LPARAM>(uMs));
}

void CTaskBarWindow::SetIconSelector(std::uint32_t uSelector)
{
    m_uTrayIconSelector = uSelector;
    Post(WM_KV_TRAY_REFRESH);
}

void CTaskBarWindow::ShowReconfiguring(DWORD dwState, const wchar_t* szText)
{
    auto note = std::make_unique<KvReconfigureNote>();
    note->dwState = dwState;
    if (szText != nullptr)
        std::wcsncpy(note->szText, szText, 260);
    if (PostMessageW(m_hWnd, WM_KV_TRAY_RECONFIGURING, 0, reinterpret_cast<LPARAM>(note.get())))
        note.release(); // the window's thread owns it now
}

void CTaskBarWindow::NotifyConnect()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyConnect");
    m_desktopOptions.Reapply();
    Post(WM_KV_TRAY_REFRESH);
    if (m_nConnections <= 0)
        return;
    if (m_Settings.bNotifyDlg == 0 && m_nMode != 0 && (m_Settings.bNotifyMode2 == 0 || m_nMode != 2))
        return;
    m_notice.SetKind(KV_NOTIFY_CONNECT);
    Post(WM_KV_SHOW_NOTIFY_DLG);
}

void CTaskBarWindow::NotifyDisconnect()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyDisconnect");
    Send(WM_KV_CLOSE_NOTIFY_DLG, 0, 1);
    m_notice.SetKind(KV_NOTIFY_DISCONNECT);
    if (m_Settings.bNotifyDlg && m_Settings.bNotifyDisconnect)
        Post(WM_KV_RECREATE_NOTIFY_DLG);
    if (m_nConnections > 0)
        return;
    if (m_desktopOptions.Changed() > 1)
        m_desktopOptions.Restore();
    Post(WM_KV_TRAY_REFRESH);
}

void CTaskBarWindow::NotifyAll()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyAll");
    m_notice.SetKind(KV_NOTIFY_ALL);
    Post(WM_KV_SHOW_NOTIFY_DLG, 1);
}

void CTaskBarWindow::TellNotice(UINT uMsg, const KV_NOTIFY_RECORD& record)
{
    HWND hDialog = m_notice.Window();
    if (hDialog != nullptr && IsWindow(hDialog))
        SendMessageW(hDialog, uMsg, reinterpret_cast<WPARAM>(&record), 0);
}

void GetDesktopUserInformation(MSG_TRAYICON_DESKTOP_USER_INFORMATION* pInfo)
{
    KvLogBlock logBlock(logger, L"GetDesktopUserInformation");
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
