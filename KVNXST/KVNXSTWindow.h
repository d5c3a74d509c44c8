// CTaskBarWindow: the resident agent's one object. A hidden top-level window that owns the tray
// icon, the socket to the local service, the worker threads, the modeless dialogs and the state
// the service sends. Worker threads read and write its members directly (see each member); only
// the window's own thread runs WndProc.
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>
#include <shellapi.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

class CKvSocket;

// --- Private window messages of the tray window.
constexpr UINT WM_KV_TRAY_CALLBACK = WM_USER + 1;        // the shell's tray callback
constexpr UINT WM_KV_SHOW_NOTIFY_DLG = WM_USER + 2;      // wParam 1: open even when not asked for
constexpr UINT WM_KV_START = WM_USER + 6;                // runs OnInit once the window exists
constexpr UINT WM_KV_CLOSE_NOTIFY_DLG = WM_USER + 7;     //
constexpr UINT WM_KV_QUEUED_MSGBOX = WM_USER + 8;        // m_szMsgBoxText/m_szMsgBoxCaption are ready
constexpr UINT WM_KV_RECREATE_NOTIFY_DLG = WM_USER + 10; //
constexpr UINT WM_KV_QUIT = WM_USER + 12;                // the connection thread ended on its own
constexpr UINT WM_KV_DROP_WINDOW = WM_USER + 14;         // wParam 1000 create, 1001 erase
constexpr UINT WM_KV_JOIN_SESSION_WAIT = WM_USER + 17;   // wParam 0 show, 1 hide, 2 cancel
// Sent by the connection thread after a reconfiguration, so that the resource library is swapped
// on the thread that loads strings from it.
constexpr UINT WM_KV_RELOAD_LANGUAGE = WM_USER + 20;
constexpr UINT WM_RC_CHAT_MESSAGE_SENT = WM_USER + 1059; // wParam buffer, lParam its size
constexpr UINT WM_CHAT_OPEN = WM_USER + 1060;            // wParam MSG_TRAYICON_CHAT_OPEN*
constexpr UINT WM_CHAT_MESSAGE = WM_USER + 1061;         // wParam a whole MSG_CHAT_MESSAGE
constexpr UINT WM_CHAT_CLOSE = WM_USER + 1062;           //
constexpr UINT WM_KV_ANSWER = WM_USER + 1064;            // answers 1
constexpr UINT WM_KV_DROP_WINDOW_GONE = WM_USER + 1065;  //
constexpr UINT WM_HIDE_JOIN_INTERNET_SESSION_DLG = WM_APP + 1;
constexpr UINT WM_SHOW_ONE_TIME_AGENT_BALLON = WM_APP + 2;

// Sent to the notification dialog with a KV_NOTIFY_RECORD.
constexpr UINT WM_KV_NOTIFY_DISCONNECTED = 2090;
constexpr UINT WM_KV_NOTIFY_CONNECTED = 2091;

// --- Timers of the tray window.
constexpr UINT_PTR KV_TIMER_NOTIFY_CONNECT = 1002;
constexpr UINT_PTR KV_TIMER_TRAY_RETRY = 1006;
constexpr UINT_PTR KV_TIMER_SETTINGS_DIALOG = 1010;
constexpr UINT_PTR KV_TIMER_DESKTOP_POLL = 1025;
constexpr UINT_PTR KV_TIMER_DESKTOP_APPLY = 1026;

constexpr UINT KV_TRAY_ICON_ID = 44444;

// Why the notification dialog opens (m_nNotifyKind).
constexpr int KV_NOTIFY_CONNECT = 1;
constexpr int KV_NOTIFY_DISCONNECT = 2;
constexpr int KV_NOTIFY_ALL = 3;

// What the connection thread hands the notification dialog when a viewer comes or goes. Built on
// the thread's stack, zero-filled, and given by SendMessageW only.
struct KV_NOTIFY_RECORD
{
    std::uint32_t dwKind; // 1 connected, 0 disconnected
    wchar_t szText[260];  // "<user> connected" / "<user> disconnected"
    std::uint32_t dwConnections;
};

// The languages of menu items 1044, 1045 and 1046.
inline constexpr const wchar_t* KV_LANGUAGE_TABLE[] = {L"en", L"fr", L"de"};
constexpr int KV_LANGUAGE_COUNT = 3;

class CTaskBarWindow
{
public:
    explicit CTaskBarWindow(unsigned int uiPort);
    ~CTaskBarWindow();
    CTaskBarWindow(const CTaskBarWindow&) = delete;
    CTaskBarWindow& operator=(const CTaskBarWindow&) = delete;

    // Creates the socket and starts the connection and desktop-switch threads. Non-zero when the
    // socket object was created.
    int OnInit();

    static LRESULT CALLBACK WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam);

    // One record to the service in one send; 0 without a connected socket. Any thread.
    int SendToService(const void* pBuffer, int nLength);

    // --- Tray icon, balloons and connection notices (KVNXSTWindowTray.cpp).
    // dwMessage: NIM_ADD, NIM_MODIFY or NIM_DELETE; bActive: a viewer is connected.
    int SendTrayMsg(DWORD dwMessage, int bActive);
    int AddTrayIcon();
    int ChangeTrayIcon(int bActive);
    int DelTrayIcon();
    int SetTrayIcon();
    int ShowTrayBalloonMsg(const wchar_t* szText);
    int SendTrayMsgServerReconfiguring(DWORD dwState, const wchar_t* szText);
    void NotifyConnect();
    void NotifyDisconnect();
    void NotifyAll();
    void GetDesktopUserInformation(MSG_TRAYICON_DESKTOP_USER_INFORMATION* pInfo);
    int IsSocketConnected();

    // --- Desktop options while viewers watch (DesktopOptions.cpp).
    void SetDesktopOptions(int nOptions);
    void SetDesktopOptionsDelayed();
    void RetoreDesktopOptions();
    void RecoverDesktopOptions(); // at start-up, after an agent that left options off

    // --- Simple file transfer (SFT_DropWindow.cpp).
    int SFT_CreateTempFiles(MSG_TRAYICON_SFT_INIT_TEMP* pInit);
    void SFT_DeleteTempFile(unsigned int uTempFile);
    void SFT_AddDropWindow(MSG_TRAYICON_SFT_DROP_CLIENT* pDrop);
    void SFT_RemoveDropWindow(int nViewerId);
    void SFT_EraseDropWindow(int nViewerId);

    // --- Chat (KVNXSTWindowChat.cpp).
    void OpenChatWindow();
    void ShowChatMessage(const MSG_CHAT_MESSAGE* pMessage);
    void CloseChatWindow();

    // The service block, overlaid by the settings the service sends (40003, 40007). The names
    // below are views of its fields.
    MSG_TRAYICON_SETTINGS m_Settings;
    std::uint32_t& m_bNotifyDlg = m_Settings.bNotifyDlg;
    std::uint32_t& m_bNotifyMode2 = m_Settings.bNotifyMode2;
    std::uint32_t& m_bNotifyDisconnect = m_Settings.bNotifyDisconnect;
    std::uint32_t& m_bAllowSettings = m_Settings.bAllowSettings;
    std::uint32_t& m_bAllowDisconnect = m_Settings.bAllowDisconnect;
    std::uint32_t& m_bTrayIcon = m_Settings.bTrayIcon;
    std::uint32_t& m_uOptions = m_Settings.uOptions;
    std::uint32_t& m_bPermissionRequired = m_Settings.bPermissionRequired;
    std::uint32_t& m_bLockSettingsA = m_Settings.bLockSettingsA;
    std::uint32_t& m_bLockSettingsB = m_Settings.bLockSettingsB;
    std::uint32_t& m_bAllowInvitations = m_Settings.bAllowInvitations;
    std::uint32_t& m_bAllowConnectToClient = m_Settings.bAllowConnectToClient;
    std::uint32_t& m_uConnectOption = m_Settings.uConnectOption;

    wchar_t m_szLanguage[3];
    std::atomic<int> m_nConnections;
    int m_bConnectPending;
    MSG_TRAYICON_IP_ADDRESSES m_AboutInfo; // the address block (70040)
    UINT_PTR m_uTrayRetryTimer;
    UINT_PTR m_bDesktopOptionsPending;
    HWND m_hNotifyDlg;
    HWND m_hConnectWaitDlg;
    int m_bTrayIconAdded;
    int m_nMode;
    int m_bAboutRequested;
    std::atomic<int> m_bReplyReceived;
    int m_bReverseConnectActive;
    HWND m_hWnd;
    int m_nNotifyKind;
    CKvSocket* m_pSocket;
    std::atomic<int> m_bClosing; // the stop flag of the worker threads
    std::atomic<unsigned int> m_uiPort;
    std::atomic<HANDLE> m_hConnectionThread;
    HANDLE m_hSessionEvent; // the handshake event of the desktop-switch watcher
    int m_bMsgBoxError;
    wchar_t m_szMsgBoxText[4096];
    wchar_t m_szMsgBoxCaption[4096];
    int m_nDesktopResets;
    int m_nDesktopOptions;
    int m_bFirstNotify;
    std::list<std::wstring>* m_TempFiles;
    std::wstring* m_strTempIni;
    std::wstring* m_strTempData;
    HWND m_hDropWnd;
    int m_nTrayRetries;
    HMENU m_hMenu;
    NOTIFYICONDATAW m_nid;
    int m_bShellBalloons;
    HICON m_hIconConnected;
    HICON m_hIconIdle;
    HICON m_hIconPending;
    HICON m_hIconExtra;
    UINT m_uTrayIconId;

    // --- Filled by the connection thread (ConnectionInfo.cpp).
    MSG_TRAYICON_CONNECT_INFO m_ConnectInfo;
    MSG_TRAYICON_NOTIFY_ALL m_NotifyAll;
    std::atomic<std::uint32_t> m_uTrayIconSelector;
    std::atomic<int> m_bDataChanged;
    std::atomic<int> m_bAcknowledgeConnect;
    std::atomic<int> m_bConnectNotified;
    std::atomic<int> m_bReverseConnectBusy;
    std::atomic<int> m_bReverseConnectDone;

    // SendTrayMsg's memory of whether the shell was found ready, and its failed asks.
    int m_bShellReady;
    int m_nShellNotReady;

private:
    LRESULT HandleMessage(UINT uMsg, WPARAM wParam, LPARAM lParam);
    void OnDestroy();
    void OnEndSession(WPARAM wParam);
    void OnTimer(UINT_PTR uTimer);
    LRESULT OnTrayCallback(WPARAM wParam, LPARAM lParam);
    void OnCommand(UINT uCommand);
    void OnQueuedMessageBox();
    void OnJoinSessionWait(WPARAM wParam);
    void OnShowNotifyDialog(bool bUnconditional);
    void OnReloadLanguage();
    void ChooseLanguage(int nIndex);
    void AskAndDisconnect();
    void AskAndExit();
    void OpenInvitations();
    void OpenAbout();
    void OpenConnectToClient();
    void JoinInternetSession();
    // Waits up to 500 rounds of about 10 ms for m_bReplyReceived.
    void WaitForReply();
    void ShowTrayMenu();

    UINT m_uTaskbarCreated;
    int m_bJoinDialogOpen;
};

