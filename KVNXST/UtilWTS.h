// Questions about the terminal-services session: which session the agent runs in, which one owns
// the console, whether the session is active or locked, whether the user's shell is up. Every WTS
// and kernel function comes through the system table (KvSystemApi.h), looked up at run time, so
// the agent starts on systems without them.
#pragma once

#include <windows.h>

#include <cstddef>

// The process's terminal-services session, set once at start-up from GetSessionID(). Defined in
// UtilWTS.cpp; IsSessionActive compares against it.
extern DWORD g_nSessionId;

// The extended session record of WTSQuerySessionInformationW for WTSSessionInfoEx (25), declared
// here with the system's layout because not every SDK header carries it.
constexpr int KV_WTSSessionInfoEx = 25;
constexpr LONG KV_WTS_SESSIONSTATE_LOCK = 0;
constexpr LONG KV_WTS_SESSIONSTATE_UNLOCK = 1;

struct KV_WTSINFOEX_LEVEL1_W
{
    ULONG SessionId;
    INT SessionState;
    LONG SessionFlags;
    WCHAR WinStationName[33];
    WCHAR UserName[21];
    WCHAR DomainName[18];
    LARGE_INTEGER LogonTime;
    LARGE_INTEGER ConnectTime;
    LARGE_INTEGER DisconnectTime;
    LARGE_INTEGER LastInputTime;
    LARGE_INTEGER CurrentTime;
    DWORD IncomingBytes;
    DWORD OutgoingBytes;
    DWORD IncomingFrames;
    DWORD OutgoingFrames;
    DWORD IncomingCompressedBytes;
    DWORD OutgoingCompressedBytes;
};

struct KV_WTSINFOEXW
{
    DWORD Level;
    union
    {
        KV_WTSINFOEX_LEVEL1_W WTSInfoExLevel1;
    } Data;
};

static_assert(sizeof(KV_WTSINFOEXW) == 232, "a valid answer is at least this long");
static_assert(offsetof(KV_WTSINFOEXW, Data) + offsetof(KV_WTSINFOEX_LEVEL1_W, SessionFlags) == 16,
              "the lock flags sit at byte 16 of the record");

// Session of the current process (ProcessIdToSessionId); 0 when it cannot be asked.
DWORD GetSessionID();

// The console's session into *pdwConsoleId: asked once, then again after about one second, and the
// second answer counts. 1 on success; 0 when there is no console session (0xFFFFFFFF) or no way to
// ask. Clears the last error.
int GetActiveConsoleID(DWORD* pdwConsoleId);

// The first active session in enumeration order; -1 when none is active or they cannot be listed.
int GetActiveSessionID();

// 1 when g_nSessionId is in the WTSActive state. Without the WTS query (library or function
// missing): 1 when the console session is g_nSessionId. A query that fails answers 0.
int IsSessionActive();

// True when the current session is locked: the extended session record's level is not 1 or its
// flags say locked. False when the record cannot be had.
bool IsSessionLockedWindows10();

// The same as IsSessionLockedWindows10, under the name the desktop checks use.
bool isDesktopLockedWindows10();

// 1 when the user's shell is up (a "Shell_TrayWnd" window exists).
int IsUserDesktopInitialized();

// Session notifications (NOTIFY_FOR_THIS_SESSION) for hWnd; non-zero on success.
int RegisterSessionNotification(HWND hWnd);
int UnRegisterSessionNotification(HWND hWnd);

// Kept in a namespace: the shell's header declares a function of the same name.
namespace KvWTS
{
// The shell's IsUserAnAdmin, looked up at run time; 0 when it is missing.
int IsUserAnAdmin();
} // namespace KvWTS
