#include "DesktopSwitchWatcher.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "TrayWindowLink.h"
#include "KvHandles.h"
#include "KvLogging.h"
#include "KvServiceMessages.h"

#include <windows.h>

// The watcher is part of the service link and logs under its name.
static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectionInfo));

namespace
{

constexpr wchar_t KV_DESKTOP_SWITCH_EVENT[] = L"WinSta0_DesktopSwitch";
// Timers 1002 and 1006 bring notice and icon back soon after the screen saver took the desktop.
constexpr UINT KV_AFTER_SWITCH_TIMER_MS = 250;

// Lets the thread that started us finish its own start first.
void Settle()
{
    Sleep(0);
    Sleep(25);
}

// The index of the object that ended the wait, or -1 when the wait failed (a handle already gone).
template <DWORD N> int WaitAny(const HANDLE (&handles)[N])
{
    const DWORD dwResult = WaitForMultipleObjects(N, handles, FALSE, INFINITE);
    if (dwResult < WAIT_OBJECT_0 + N)
        return static_cast<int>(dwResult - WAIT_OBJECT_0);
    LOG4CXX_DEBUG(logger, L"Wait ended with " << dwResult << L". Error = " << GetLastError());
    return -1;
}

void ReportDesktopState(IKvWatcherLink& window)
{
    KvLogBlock logBlock(logger, L"ReportDesktopState");
    Sleep(0);
    CheckDesktopState();
    const std::uint32_t dwState = static_cast<std::uint32_t>(g_nDesktopState);
    LOG4CXX_INFO(logger, L"Desktop state " << dwState);
    const MSG_TRAYICON_DESKTOP_STATE record = KvBuildDesktopState(dwState);
    if (!window.SendToService(&record, sizeof record))
        LOG4CXX_INFO(logger, L"The desktop state could not be sent.");
    if (window.Connections() > 0 && dwState == KV_DESKTOP_STATE_SCREEN_SAVER)
    {
        window.StartTimer(KV_TIMER_NOTIFY_CONNECT, KV_AFTER_SWITCH_TIMER_MS);
        window.StartTimer(KV_TIMER_TRAY_RETRY, KV_AFTER_SWITCH_TIMER_MS);
    }
}

} // namespace

unsigned int __stdcall DesktopChangeThread(void* pTrayWindow)
{
    KvSetThreadName(L"DesktopChange");
    KvLogBlock logBlock(logger, L"DesktopChangeThread");
    IKvWatcherLink& window = *static_cast<IKvWatcherLink*>(pTrayWindow);
    Settle();

    // Nothing is watched before the service has answered the version.
    const HANDLE hStart[] = {g_hStopEvent, window.SessionEvent()};
    if (WaitAny(hStart) != 1)
    {
        LOG4CXX_INFO(logger, L"Ended before the handshake.");
        return 0;
    }
    const KvKernelHandle hSwitch(OpenEventW(SYNCHRONIZE, FALSE, KV_DESKTOP_SWITCH_EVENT));
    if (!hSwitch)
    {
        LOG4CXX_WARN(logger, L"Cannot open WinSta0_DesktopSwitch. Error = " << GetLastError());
        return 0;
    }
    Settle();

    for (HANDLE hThread; (hThread = window.ConnectionThread()) != nullptr;)
    {
        const HANDLE hWait[] = {hThread, g_hStopEvent, hSwitch.Get()};
        if (WaitAny(hWait) != 2)
            break;
        LOG4CXX_INFO(logger, L"The input desktop switched.");
        SetEvent(window.SessionEvent());
    }
    return 0;
}

unsigned int __stdcall DesktopHaveChangedThread(void* pTrayWindow)
{
    KvSetThreadName(L"DesktopHaveChanged");
    KvLogBlock logBlock(logger, L"DesktopHaveChangedThread");
    IKvWatcherLink& window = *static_cast<IKvWatcherLink*>(pTrayWindow);
    Settle();

    const HANDLE hStart[] = {window.ConnectionThread(), g_hStopEvent, window.SessionEvent()};
    if (WaitAny(hStart) != 2)
    {
        LOG4CXX_INFO(logger, L"Ended before the handshake.");
        return 0;
    }
    Settle();

    // The event is still set from the handshake, so the first turn reports at once.
    for (HANDLE hThread; (hThread = window.ConnectionThread()) != nullptr;)
    {
        const HANDLE hWait[] = {hThread, g_hStopEvent, window.SessionEvent()};
        if (WaitAny(hWait) != 2)
            break;
        // Switches until the next check collapse into one report.
        ResetEvent(window.SessionEvent());
        ReportDesktopState(window);
    }
    return 0;
}
