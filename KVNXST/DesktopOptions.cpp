#include "DesktopOptions.h"

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
