// Helper of the session-mutex tests: holds a session mutex in a process of its own.
//   session_holder oti|local READY_EVENT RELEASE_EVENT
// Creates the session mutex of that kind, signals READY_EVENT, and keeps the mutex until
// RELEASE_EVENT is signalled (or 60 s pass). Exit code 0, or 2 on bad arguments, 3 when the
// mutex could not be made.
#include "SimultanousSessionMutex.h"

#include <windows.h>

#include <shellapi.h>

#include <cwchar>

int main()
{
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (argv == nullptr || argc != 4)
        return 2;
    const bool bOti = std::wcscmp(argv[1], L"oti") == 0;
    if (!bOti && std::wcscmp(argv[1], L"local") != 0)
        return 2;
    HANDLE hReady = OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[2]);
    HANDLE hRelease = OpenEventW(SYNCHRONIZE, FALSE, argv[3]);
    if (hReady == nullptr || hRelease == nullptr)
        return 2;

    CSimultanousSessionMutex session(bOti);
    if (session.GetHandle() == nullptr)
        return 3;
    SetEvent(hReady);
    WaitForSingleObject(hRelease, 60000);
    CloseHandle(hReady);
    CloseHandle(hRelease);
    LocalFree(argv);
    return 0;
}
