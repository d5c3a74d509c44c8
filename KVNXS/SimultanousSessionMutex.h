// Machine-wide markers of a remote-control session in progress: the holder of a session keeps one
// of two named mutexes for as long as it lasts, and anyone may ask whether one exists.
#pragma once

#include <windows.h>

// Names in the global namespace, so they are seen across terminal-services sessions.
inline constexpr wchar_t KV_OTI_SESSION_MUTEX[] = L"Global\\KestrovaOtiSessionIsInProgress";
inline constexpr wchar_t KV_LOCAL_SESSION_MUTEX[] = L"Global\\KestrovaLocalSessionIsInProgress";

class CSimultanousSessionMutex
{
public:
    // Creates the one-time (internet) session's mutex when bOtiSession, else the local session's,
    // open to every account. A failure is logged and leaves no handle.
    explicit CSimultanousSessionMutex(bool bOtiSession);
    ~CSimultanousSessionMutex();
    CSimultanousSessionMutex(const CSimultanousSessionMutex&) = delete;
    CSimultanousSessionMutex& operator=(const CSimultanousSessionMutex&) = delete;

    // True when a mutex of that name exists, including one this account may not open.
    static bool IsSession(const wchar_t* szMutexName);

    HANDLE GetHandle() const { return m_hMutex; }

private:
    HANDLE m_hMutex;
};

bool IsOtiSessionInProgress();
bool IsLocalSessionInProgress();
