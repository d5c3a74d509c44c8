// The agent's command line and the start-up decisions that need no system: which option decides,
// the numbers an option carries, and the names the start-up code composes. Pure and portable, so
// the host build tests it natively and under the sanitizers.
#pragma once

#include "KvServiceMessages.h"

#include <cstddef>
#include <cstdint>
#include <string>

// What a command line asks for. The options are tried in this order and the first that matches
// decides; "contains" tests look anywhere in the line, "equals" tests want the whole line, and
// both are case-sensitive.
enum class KvCommandOption
{
    OneTimeSession,        // contains "-onetimesession"
    Permission,            // contains "-Invitation" or "-Permission"
    SettingsAsApplication, // equals "-SettingsAsApplication"
    Settings,              // equals "-Settings"
    ValidateCert,          // contains "-ValidateCert"
    ConsoleLock,           // equals "-ConsoleLock"
    Logoff,                // equals "-Logoff"
    LogoffForce,           // equals "-LogoffForce"
    LockWorkstation,       // equals "-LockWorkstation"
    Resident,              // anything else: the tray agent, usually with a bare port or nothing
};

// The option that decides for szCmdLine (the line without the program name; null counts as empty).
KvCommandOption KvFindCommandOption(const wchar_t* szCmdLine);

// The option as written on the command line ("-Logoff"); "resident" for the tray agent.
const wchar_t* KvCommandOptionName(KvCommandOption option);

// "No port given": the service's default applies.
constexpr std::uint32_t KV_PORT_NONE = 0xFFFFFFFF;

// Leading-digits conversion as _wtoi does it: blanks, an optional sign, decimal digits (ASCII
// only), and nothing else; 0 when no digit comes first; INT_MAX or INT_MIN on overflow.
int KvWtoi(const wchar_t* sz);

// Base-10 conversion as a 32-bit wcstoul does it: blanks, an optional sign (a minus negates modulo
// 2^32), ASCII decimal digits; 0 when no digit comes first; 0xFFFFFFFF on overflow.
std::uint32_t KvWcstoul10(const wchar_t* sz);

// The tray agent's port as given on its command line: the line's leading digits, or KV_PORT_NONE
// when the line is empty. Note that "-1" gives KV_PORT_NONE as well.
std::uint32_t KvCommandLinePort(const wchar_t* szCmdLine);

enum class KvOneTimePortResult
{
    Ok,
    NoBlank,    // nothing follows the option
    NotANumber, // the token converts to 0
};

// The port of "-onetimesession": the first blank-separated token after the line's first blank,
// converted in base 10. *puiPort is set on Ok only.
KvOneTimePortResult KvParseOneTimePort(const wchar_t* szCmdLine, std::uint32_t* puiPort);

// The numbers of "-Permission <port> <address family>": the token after the line's first blank is
// the port, the text after the blank that ends it the address family (0 when there is none). False,
// with nothing set, when the line has no blank.
bool KvParsePermissionArguments(const wchar_t* szCmdLine, int* pnPort, int* pnAfType);

// True for 1..65535.
bool KvIsTcpPort(std::uint32_t uiPort);

// True for the local system account's name, "system" in any case.
bool KvIsSystemAccount(const wchar_t* szUserName);

// The logon desktop, "Winlogon" in any case.
bool KvIsWinlogonDesktop(const wchar_t* szDesktopName);
// The screen saver's desktop, exactly "Screen-saver".
bool KvIsScreenSaverDesktop(const wchar_t* szDesktopName);

// The name of the single-instance object: per desktop when the desktop's name is known (null or
// empty: not known), so agents on other desktops of the session do not see each other.
std::wstring KvInstanceObjectName(const wchar_t* szDesktopName);

// The console-lock record file: szBase, a backslash unless szBase already ends in one, then
// "kvnxs\KVNXST.data". The agent passes an empty base, which puts the file at the root of the
// current drive. False, with buf empty, when it does not fit into cch characters (cch > 0).
bool KvConsoleLockDataPath(const wchar_t* szBase, wchar_t* buf, std::size_t cch);

// A language code usable as a folder name under "Localization\": 1 to 16 ASCII letters, digits,
// '-' or '_'. Anything else (a path, "..") is refused, since the code comes from the user's registry.
bool KvIsLanguageCode(const wchar_t* szCode);
