#include "UtilScreenSaver.h"

#include "KvHandles.h"
#include "KvLogging.h"
#include "KvSystemApi.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilScreenSaver));

BOOL CALLBACK KillScreenSaverFunc(HWND hWnd, LPARAM /*lParam*/)
{
    if (IsWindowVisible(hWnd))
    {
        LOG4CXX_DEBUG(logger, L"Closing screen saver window hWnd=" << hWnd);
        PostMessageW(hWnd, WM_CLOSE, 0, 0);
    }
    return TRUE;
}

void KillScreenSaver()
{
    KvLogBlock logBlock(logger, L"KillScreenSaver");
    const KvSystemApi& api = KvGetSystemApi();
    const KvDesktop desk(
        api.pfnOpenDesktopW(L"Screen-saver", 0, FALSE, DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS));
    if (!desk)
    {
        LOG4CXX_DEBUG(logger, L"No screen saver desktop. Error = " << GetLastError());
        return;
    }
    api.pfnEnumDesktopWindows(desk.Get(), KillScreenSaverFunc, 0);
}
