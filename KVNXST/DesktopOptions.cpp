#include "DesktopOptions.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "KvSystemApi.h"

#include <windows.h>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::DesktopOptions));

int Logoff(int bForce)
{
    KvLogBlock logBlock(logger, L"Logoff");
    LOG4CXX_INFO(logger, L"bForce=" << bForce);
    return KvGetSystemApi().pfnExitWindowsEx(bForce ? EWX_FORCE : EWX_LOGOFF, 0);
}

int LockWorkstation()
{
    KvLogBlock logBlock(logger, L"LockWorkstation");
    const KvSystemApi& api = KvGetSystemApi();
    if (api.pfnLockWorkStation())
        return 1;
    // No lock on this system: the screen saver, with its password if the user has one, stands in.
    LOG4CXX_INFO(logger, L"LockWorkStation failed, starting the screen saver. Error = " << GetLastError());
    HWND hForeground = api.pfnGetForegroundWindow();
    if (hForeground != nullptr)
        PostMessageW(hForeground, WM_SYSCOMMAND, SC_SCREENSAVE, 0);
    return 1;
}

// Switching desktop decorations off while viewers watch is not part of this build yet. The calls
// arrive from the connection thread and the tray window and are logged.

void CTaskBarWindow::SetDesktopOptions(int nOptions)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SetDesktopOptions");
    LOG4CXX_WARN(logger, L"Desktop options are not built yet: mask " << nOptions << L" not applied.");
}

void CTaskBarWindow::SetDesktopOptionsDelayed()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SetDesktopOptionsDelayed");
    if (m_nDesktopOptions > 1)
        SetDesktopOptions(m_nDesktopOptions);
}

void CTaskBarWindow::RetoreDesktopOptions()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::RetoreDesktopOptions");
    LOG4CXX_DEBUG(logger, L"Desktop options are not built yet: nothing to restore.");
}
