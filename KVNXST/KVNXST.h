// The entry point's unit: the process-wide values, the start-up steps after logging, the one-shot
// options, the resident mode and the desktop-state checks. Everything here but wWinMain lives in
// the core library, so tests call the steps directly.
#pragma once

#include "CommandLine.h"

#include <windows.h>

class ILanguageSettingsStorage;

// --- Process-wide values (g_nSessionId is in UtilWTS.h).

// The agent's own module.
extern HINSTANCE g_hInstance;
// The resource library; the agent's own module when no library could be loaded.
extern HINSTANCE g_hResInstance;
// UOI_NAME of the start-up thread's desktop.
extern wchar_t g_szDesktopName[MAX_PATH];
// The account name from GetUserNameW. The resident mode refuses "system".
extern wchar_t g_szUserName[MAX_PATH];
// 1 when started with "-onetimesession".
extern int g_bOneTimeSession;
// Manual-reset, signalled when the message loop has ended; worker threads wait on it.
extern HANDLE g_hStopEvent;
// The single-instance mapping of CheckInstance, kept whatever it found.
extern HANDLE g_hInstanceMapping;
// The resident mode's exit code, set by the tray window's handlers.
extern int g_nExitCode;
// KV_DESKTOP_STATE_*, written by the desktop-state checks.
extern int g_nDesktopState;

// Values of g_nDesktopState.
constexpr int KV_DESKTOP_STATE_UNUSABLE = 7;
constexpr int KV_DESKTOP_STATE_USABLE = 8;

// Process exit codes of the agent's modes.
constexpr int KV_EXIT_NO_TRAY_WINDOW = -14;
constexpr int KV_EXIT_CONSOLE_USABLE = -44;
constexpr int KV_EXIT_CONSOLE_LOCKED = -50; // also: refused to run as the system account
constexpr int KV_EXIT_ALREADY_RUNNING = -56;
constexpr int KV_EXIT_SCREEN_SAVER_RUNNING = -64;

// Everything of the start-up after logging (wWinMain holds the logging set-up and its trace block):
// the process-wide values, the resource library, the port, then the option's mode. Returns the
// process exit code.
int AgentMain(HINSTANCE hInstance, const wchar_t* lpCmdLine);

// The port of the tray agent for lpCmdLine into *puiPort: with "-onetimesession" the number after
// it, as given; otherwise the line's number through GetServicePort. Sets g_bOneTimeSession. 0, with
// the reason logged, when "-onetimesession" has no usable port (the process then exits with 1).
int ParseServicePort(const wchar_t* lpCmdLine, unsigned int* puiPort);

// Runs a one-shot option (not OneTimeSession, not Resident) and returns its exit code.
// hInputDesktop: the input desktop opened at start-up, or null; the desktop-bound options move the
// thread onto it first.
int RunCommandOption(KvCommandOption option, const wchar_t* lpCmdLine, HDESK hInputDesktop);

// The tray agent: refuses the system account (-50), checks for another agent on this desktop
// unless one-time (-56), creates the stop event and the tray window (-14 when that fails), runs the
// message loop and shuts down in order. Returns the exit code.
int RunResidentMode(unsigned int uiPort);

// 1 when this is the first agent on the thread's desktop. The mapping it creates stays in
// g_hInstanceMapping either way, until CloseInstanceMapping.
int CheckInstance();
void CloseInstanceMapping();

// The console state for "-ConsoleLock": KV_EXIT_SCREEN_SAVER_RUNNING, KV_EXIT_CONSOLE_LOCKED or
// KV_EXIT_CONSOLE_USABLE. When the input desktop is another one than the agent's, records its name
// in the console-lock record file.
int CheckDesktopStateCommandLine();

// KV_EXIT_CONSOLE_USABLE (g_nDesktopState usable) when the input desktop is the screen saver's, or
// the agent's own while the session is active; otherwise KV_EXIT_CONSOLE_LOCKED (unusable).
int CheckDesktopState();

// The resource library: "Localization\<code>\KVNXSTRES.dll" beside the agent for the stored
// language, else "KVNXSTRES.dll" beside the agent. Null when neither loads; the caller then takes
// the agent's own module. Loaded as an image resource: no code of it ever runs.
HMODULE LoadResourceLibrary(ILanguageSettingsStorage* pLanguage);

// The same from a given folder (with its trailing backslash) and language code (null or empty:
// none). Logs which file it loaded.
HMODULE LoadResourceLibraryFrom(const wchar_t* szAgentFolder, const wchar_t* szLanguage);
