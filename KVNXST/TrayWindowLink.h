// What the connection thread and the desktop-switch watchers may ask of the tray window. Any thread
// may call these; whatever touches the shell, timers or dialogs is posted to the window's thread.
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

#include <cstdint>
#include <string>

class CKvSocket;
class CDesktopOptions;
class CFileTransfer;
struct KV_NOTIFY_RECORD;

// The desktop-switch watchers' part.
class IKvWatcherLink
{
public:
    // One record to the service in one send; 0 without a connected socket.
    virtual int SendToService(const void* pBuffer, int nLength) = 0;
    // The watchers' handshake event, the connection thread they end with, and the viewer count.
    virtual HANDLE SessionEvent() const = 0;
    virtual HANDLE ConnectionThread() const = 0;
    virtual int Connections() const = 0;
    // Starts one of the window's timers on its thread, which owns them.
    virtual void StartTimer(UINT_PTR uTimer, UINT uMs) = 0;

protected:
    ~IKvWatcherLink() = default;
};

// The connection thread's part.
class IKvTrayLink : public IKvWatcherLink
{
public:
    // The link to the service: its socket, port and stop flag.
    virtual CKvSocket& Socket() = 0;
    virtual unsigned int Port() const = 0;
    virtual void SetPort(unsigned int uiPort) = 0;
    virtual bool Closing() const = 0;

    // The blocks the service sends, kept for the window and its dialogs.
    virtual void StoreSettings(const MSG_TRAYICON_SETTINGS& settings) = 0;
    virtual void StoreConnectInfo(const MSG_TRAYICON_CONNECT_INFO& info) = 0;
    virtual void StoreViewerList(const MSG_TRAYICON_NOTIFY_ALL& list) = 0;
    virtual void StoreAddresses(const MSG_TRAYICON_IP_ADDRESSES& addresses) = 0;
    // A failed reverse connection's report, shown in a message box when bShow.
    virtual void StoreReport(const std::wstring& caption, const std::wstring& text, bool bShow) = 0;
    // A reply the window's thread may be waiting for has come.
    virtual void ReplyReceived() = 0;

    // Events for the window's thread.
    virtual void Post(UINT uMsg, WPARAM wParam = 0, LPARAM lParam = 0) = 0;
    virtual LRESULT Send(UINT uMsg, WPARAM wParam = 0, LPARAM lParam = 0) = 0;
    // The service's icon selector; the icon follows.
    virtual void SetIconSelector(std::uint32_t uSelector) = 0;
    virtual void ShowReconfiguring(DWORD dwState, const wchar_t* szText) = 0;
    // A viewer came (or the desktop may have locked), one left, the service sent its viewer list;
    // the record goes to an open notice.
    virtual void NotifyConnect() = 0;
    virtual void NotifyDisconnect() = 0;
    virtual void NotifyAll() = 0;
    virtual void TellNotice(UINT uMsg, const KV_NOTIFY_RECORD& record) = 0;
    // The service answered a reverse connection; the menu may offer a new one.
    virtual void ReverseConnectionAnswered() = 0;

    // Facilities the service drives directly.
    virtual CDesktopOptions& DesktopOptions() = 0;
    virtual CFileTransfer& FileTransfer() = 0;

protected:
    ~IKvTrayLink() = default;
};
