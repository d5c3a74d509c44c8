// CTaskBarWindow: the resident agent's one object. A hidden top-level window that holds the
// agent's facilities (tray icon, notice, desktop options, file transfer, chat, outgoing
// connections), the socket to the local service and the blocks the service sends, and dispatches
// its messages to them. Worker threads reach it through IKvTrayLink and IKvWatcherLink only; only
// the window's own thread runs WndProc.
#pragma once

#include "DesktopOptions.h"
#include "KVNXSTWindowChat.h"
#include "KvSocket.h"
#include "KvServiceMessages.h"
#include "NoticeState.h"
#include "ReverseConnect.h"
#include "SFT_DropWindow.h"
#include "TrayIcon.h"
#include "TrayWindowLink.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>

// --- Private window messages of the tray window.
constexpr UINT WM_KV_TRAY_CALLBACK = WM_USER + 1;        // the shell's tray callback
constexpr UINT WM_KV_SHOW_NOTIFY_DLG = WM_USER + 2;      // wParam 1: open even when not asked for
constexpr UINT WM_KV_START = WM_USER + 6;                // runs OnInit once the window exists
constexpr UINT WM_KV_CLOSE_NOTIFY_DLG = WM_USER + 7;     //
constexpr UINT WM_KV_QUEUED_MSGBOX = WM_USER + 8;        // the stored report is ready
constexpr UINT WM_KV_RECREATE_NOTIFY_DLG = WM_USER + 10; //
constexpr UINT WM_KV_QUIT = WM_USER + 12;                // the connection thread ended on its own
constexpr UINT WM_KV_DROP_WINDOW = WM_USER + 14;         // wParam 1000 create, 1001 erase
constexpr UINT WM_KV_JOIN_SESSION_WAIT = WM_USER + 17;   // wParam 0 show, 1 hide, 2 cancel
// Sent by the connection thread after a reconfiguration, so that the resource library is swapped
// on the thread that loads strings from it.
constexpr UINT WM_KV_RELOAD_LANGUAGE = WM_USER + 20;
// Posted by other threads: the tray icon follows the state (no parameters), a reconfiguration's
// text (lParam: a KvReconfigureNote from new, deleted by the window), a timer to start (wParam its
// id, lParam its period; timers belong to the window's thread).
constexpr UINT WM_KV_TRAY_REFRESH = WM_USER + 21;
constexpr UINT WM_KV_TRAY_RECONFIGURING = WM_USER + 22;
constexpr UINT WM_KV_START_TIMER = WM_USER + 23;
// The chat library's messages (2083, 2088, 2089) are in KVNXChat.h.
constexpr UINT WM_CHAT_OPEN = WM_USER + 1060;            // wParam MSG_TRAYICON_CHAT_OPEN*
constexpr UINT WM_CHAT_MESSAGE = WM_USER + 1061;         // wParam a whole MSG_CHAT_MESSAGE
constexpr UINT WM_CHAT_CLOSE = WM_USER + 1062;           //
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

// What the connection thread hands the notification dialog when a viewer comes or goes. Built on
// the thread's stack, zero-filled, and given by SendMessageW only.
struct KV_NOTIFY_RECORD
{
    std::uint32_t dwKind; // 1 connected, 0 disconnected
    wchar_t szText[260];  // "<user> connected" / "<user> disconnected"
    std::uint32_t dwConnections;
};

constexpr DWORD KV_QUESTION_TIMEOUT_MS = 10000;

// A modal dialog of the resource library; -1 (logged) when it cannot be shown.
INT_PTR KvShowDialog(HWND hOwner, int nId, DLGPROC pfnProc, LPARAM lParam);
// The same for a modeless dialog; null (logged) when it cannot be made.
HWND KvCreateModelessDialog(HWND hOwner, int nId, DLGPROC pfnProc, LPARAM lParam);

// The input desktop, the screen saver and the user, as the service asks for them.
void GetDesktopUserInformation(MSG_TRAYICON_DESKTOP_USER_INFORMATION* pInfo);

// The languages of menu items 1044, 1045 and 1046.
inline constexpr const wchar_t* KV_LANGUAGE_TABLE[] = {L"en", L"fr", L"de"};
constexpr int KV_LANGUAGE_COUNT = 3;

class CTaskBarWindow final : public IKvTrayLink
{
public:
    explicit CTaskBarWindow(unsigned int uiPort);
    ~CTaskBarWindow();
    CTaskBarWindow(const CTaskBarWindow&) = delete;
    CTaskBarWindow& operator=(const CTaskBarWindow&) = delete;

    static LRESULT CALLBACK WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam);
    HWND Window() const { return m_hWnd; }

    // --- For the dialogs, on the window's thread.
    const MSG_TRAYICON_SETTINGS& Settings() const { return m_Settings; }
    const MSG_TRAYICON_CONNECT_INFO& ConnectInfo() const { return m_ConnectInfo; }
    const MSG_TRAYICON_NOTIFY_ALL& ViewerList() const { return m_NotifyAll; }
    int NoticeKind() const { return m_notice.Kind(); }
    HWND NoticeWindow() const { return m_notice.Window(); }
    void CloseNotice() { m_notice.Close(); }
    void NoticeGone(HWND hDlg) { m_notice.Gone(hDlg); }

    // --- IKvTrayLink, any thread.
    CKvSocket& Socket() override { return m_socket; }
    unsigned int Port() const override { return m_uiPort; }
    void SetPort(unsigned int uiPort) override { m_uiPort = uiPort; }
    bool Closing() const override { return m_bClosing != 0; }
    int SendToService(const void* pBuffer, int nLength) override;
    HANDLE SessionEvent() const override { return m_hSessionEvent; }
    HANDLE ConnectionThread() const override { return m_hConnectionThread; }
    int Connections() const override { return m_nConnections; }
    void StoreSettings(const MSG_TRAYICON_SETTINGS& settings) override;
    void StoreConnectInfo(const MSG_TRAYICON_CONNECT_INFO& info) override;
    void StoreViewerList(const MSG_TRAYICON_NOTIFY_ALL& list) override;
    void StoreAddresses(const MSG_TRAYICON_IP_ADDRESSES& addresses) override;
    void StoreReport(const std::wstring& caption, const std::wstring& text, bool bShow) override;
    void ReplyReceived() override { m_bReplyReceived = 1; }
    void Post(UINT uMsg, WPARAM wParam = 0, LPARAM lParam = 0) override;
    LRESULT Send(UINT uMsg, WPARAM wParam = 0, LPARAM lParam = 0) override;
    void StartTimer(UINT_PTR uTimer, UINT uMs) override;
    void SetIconSelector(std::uint32_t uSelector) override;
    void ShowReconfiguring(DWORD dwState, const wchar_t* szText) override;
    void NotifyConnect() override;
    void NotifyDisconnect() override;
    void NotifyAll() override;
    void TellNotice(UINT uMsg, const KV_NOTIFY_RECORD& record) override;
    void ReverseConnectionAnswered() override { m_reverse.Answered(); }
    CDesktopOptions& DesktopOptions() override { return m_desktopOptions; }
    CFileTransfer& FileTransfer() override { return m_fileTransfer; }

private:
    LRESULT HandleMessage(UINT uMsg, WPARAM wParam, LPARAM lParam);
    // Starts the connection and desktop-switch threads (WM_KV_START).
    void OnInit();
    KvTrayInputs TrayInputs() const;
    void OnDestroy();
    void OnEndSession(WPARAM wParam);
    void OnTimer(UINT_PTR uTimer);
    void OnCommand(UINT uCommand);
    void OnQueuedMessageBox();
    void OnShowNotifyDialog(bool bUnconditional);
    void OnReloadLanguage();
    // The local user's chat message, a whole record from the chat library, to the service.
    void OnChatMessageSent(const void* pRecord, LPARAM cbRecord);
    void ChooseLanguage(int nIndex);
    // The menu's disconnect and exit: asks with the viewer count (exit only while viewed), then
    // tells the service.
    void AskAndTell(bool bExit);
    void OpenInvitations();
    void OpenAbout();
    // Waits up to 500 rounds of about 10 ms for m_bReplyReceived.
    void WaitForReply();
    void ShowTrayMenu();

    HWND m_hWnd;
    UINT m_uTaskbarCreated;
    UINT m_uChatResourceModule; // the chat library asks for the resource library
    int m_nMode; // 1: attended
    wchar_t m_szLanguage[3];
    CKvSocket m_socket;
    std::atomic<int> m_bClosing; // the stop flag of the worker threads
    std::atomic<unsigned int> m_uiPort;
    std::atomic<HANDLE> m_hConnectionThread;
    HANDLE m_hSessionEvent; // the handshake event of the desktop-switch watcher
    HMENU m_hMenu;

    // The blocks the service sends: its settings overlay the defaults (40003, 40007), the last
    // viewer's record, the viewer list and the address block (70040).
    MSG_TRAYICON_SETTINGS m_Settings;
    MSG_TRAYICON_CONNECT_INFO m_ConnectInfo;
    MSG_TRAYICON_NOTIFY_ALL m_NotifyAll;
    MSG_TRAYICON_IP_ADDRESSES m_AboutInfo;
    std::atomic<int> m_nConnections;
    std::atomic<std::uint32_t> m_uTrayIconSelector;
    std::atomic<int> m_bReplyReceived;
    // The reverse connection's report for WM_KV_QUEUED_MSGBOX.
    std::wstring m_reportCaption;
    std::wstring m_reportText;

    CTrayIcon m_trayIcon;
    CNoticeState m_notice;
    CDesktopOptions m_desktopOptions;
    CFileTransfer m_fileTransfer;
    CChatWindow m_chat;
    CReverseConnect m_reverse;
};
