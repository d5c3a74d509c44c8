// Helper of the session-mutex tests: holds the local session mutex in a process of its own.
//   session_holder EVENT_HANDLE   (an inherited event, signalled once the mutex is held)
// Waits to be ended; exits 3 by itself when the mutex could not be made, after a minute otherwise.
#include "SimultanousSessionMutex.h"

#include <windows.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    CSimultanousSessionMutex session(false);
    if (session.GetHandle() == nullptr)
        return 3;
    SetEvent(reinterpret_cast<HANDLE>(std::strtoull(argv[1], nullptr, 10)));
    Sleep(60000);
    return 0;
}
