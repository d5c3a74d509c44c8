// cmdstorm: seeded hostile command lines against the built agent, one process each on a desktop of
// its own. Every option with its arguments missing, doubled, huge, negative, not numbers or not
// ASCII, and lines up to the system's 32,767 units. The agent must end with one of its documented
// exit codes, by itself or when its windows are asked to close, and leave no process behind.
#include "CommandLine.h"
#include "UiDriver.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{

const wchar_t* const kOptions[] = {L"-onetimesession",
                                   L"-Permission",
                                   L"-Invitation",
                                   L"-SettingsAsApplication",
                                   L"-Settings",
                                   L"-ValidateCert",
                                   L"-ConsoleLock",
                                   L"-Logoff",
                                   L"-LogoffForce",
                                   L"-LockWorkstation",
                                   L"",
                                   L"-onetimesession"};
// The line as the agent's start-up code hands it over: without the blanks and control units before it.
const wchar_t* AsTheAgentSeesIt(const std::wstring& line)
{
    return line.c_str() +
           (std::find_if(line.begin(), line.end(), [](wchar_t c) { return c > L' '; }) - line.begin());
}
// These end or lock the whole session; under Wine, every program of the prefix goes with it.
bool EndsTheSession(const std::wstring& line)
{
    const KvCommandOption option = KvFindCommandOption(AsTheAgentSeesIt(line));
    return option == KvCommandOption::Logoff || option == KvCommandOption::LogoffForce ||
           option == KvCommandOption::LockWorkstation;
}
// The exit codes each of the agent's decisions may end with; its windows are closed as a user would
// (the tray window's Exit: 0; a dialog's close box: no).
bool Documented(KvCommandOption option, DWORD dwCode)
{
    const int n = static_cast<int>(dwCode);
    switch (option)
    {
    case KvCommandOption::Permission:
    case KvCommandOption::SettingsAsApplication:
    case KvCommandOption::Settings:
    case KvCommandOption::ValidateCert:
        return n == 0 || n == 1;
    case KvCommandOption::ConsoleLock:
        return n == -44 || n == -50 || n == -64;
    case KvCommandOption::OneTimeSession: // 1: no port
        return n == 0 || n == 1 || n == -14 || n == -50;
    default: // the tray agent; the session actions never run alone
        return n == 0 || n == -14 || n == -50 || n == -56;
    }
}
constexpr std::size_t kMaxLineUnits = 32767;

class Lines
{
public:
    explicit Lines(std::uint64_t seed) : m_rng(seed) {}

    std::wstring Next(std::size_t cchRoom)
    {
        for (;;)
        {
            const wchar_t* szOption = kOptions[Below(sizeof kOptions / sizeof kOptions[0])];
            std::wstring line = Below(8) == 0 ? Argument() + L" " : std::wstring();
            line += szOption;
            if (Below(6) == 0)
                line = Mangled(line);
            for (std::uint32_t n = Below(5); n > 0; --n)
                line += (Below(4) == 0 ? L"\t" : std::wstring(1 + Below(3), L' ')) + Argument();
            if (Below(100) == 0)
                while (line.size() < cchRoom)
                    line += L" " + Argument();
            if (line.size() > cchRoom)
                line.resize(cchRoom);
            if (!EndsTheSession(line))
                return line;
        }
    }

private:
    std::uint32_t Below(std::uint32_t n) { return static_cast<std::uint32_t>(m_rng() % n); }

    std::wstring Digits(std::uint32_t n)
    {
        std::wstring s;
        while (n-- > 0)
            s += static_cast<wchar_t>(L'0' + Below(10));
        return s;
    }

    // Units that are not ASCII: other scripts' digits, wide blanks, marks, surrogates, controls.
    std::wstring Foreign()
    {
        static const wchar_t kFirst[] = {0x0660, 0x06F0, 0x0966, 0xFF10, 0x3000, 0x00A0, 0x0300,
                                         0xD800, 0xDC00, 0x202E, 0xFEFF, 0x0001, 0x00FF, 0x4E00};
        std::wstring s;
        for (std::uint32_t n = 1 + Below(12); n > 0; --n)
            s += static_cast<wchar_t>(kFirst[Below(sizeof kFirst / sizeof kFirst[0])] + Below(10));
        return s;
    }

    std::wstring Argument()
    {
        switch (Below(12))
        {
        case 0:
            return L"";
        case 1:
            return Digits(1 + Below(5));
        case 2:
            return Digits(10 + Below(300)); // beyond every integer type
        case 3:
            return L"-" + Digits(1 + Below(12));
        case 4:
            return L"0";
        case 5:
            return L"0x" + Digits(4);
        case 6:
            return Foreign();
        case 7:
            return Digits(3) + Foreign();
        case 8:
            return L"%s%n%x%ls\"'\\";
        case 9:
            return kOptions[Below(sizeof kOptions / sizeof kOptions[0])];
        case 10:
            return L"\"" + Digits(4) + L" " + Foreign() + L"\"";
        default:
            return std::wstring(1 + Below(4000), static_cast<wchar_t>(L'A' + Below(26)));
        }
    }

    // The option in another case, cut short, or glued to what follows.
    std::wstring Mangled(std::wstring s)
    {
        switch (Below(3))
        {
        case 0:
            for (wchar_t& c : s)
                c = static_cast<wchar_t>(Below(2) == 0 ? towupper(c) : towlower(c));
            return s;
        case 1:
            return s.substr(0, s.size() / 2);
        default:
            return s + Digits(4);
        }
    }

    std::mt19937_64 m_rng;
};

struct Outcome
{
    DWORD dwCode = 0;
    bool bStarted = false;
    bool bAsked = false; // its windows were asked to close
    bool bHung = false;  // ended by force at the time limit
    DWORD dwStartError = 0;    // why a first start failed
    std::wstring childrenLeft; // their programs' names
};

// Runs one line; windows the agent shows are asked to close at once, as a user would answer.
Outcome Run(const std::wstring& exe, const std::wstring& folder, const std::wstring& line,
            const std::wstring& desktop, DWORD dwLimitMs)
{
    Outcome out;
    std::wstring commandLine = L"\"" + exe + L"\" " + line;
    std::wstring startupDesktop = L"WinSta0\\" + desktop;
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    si.lpDesktop = &startupDesktop[0];
    PROCESS_INFORMATION pi = {};
    // Wine now and then fails to start a process on a busy machine (about 1 in 2,000 here); the agent
    // never ran then, so the line gets a second try.
    for (int nTry = 0; nTry < 2 && !out.bStarted; ++nTry)
    {
        out.bStarted = CreateProcessW(exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                                      folder.c_str(), &si, &pi) != FALSE;
        if (!out.bStarted)
        {
            out.dwStartError = GetLastError();
            Sleep(100);
        }
    }
    if (!out.bStarted)
        return out;
    CloseHandle(pi.hThread);
    for (const ULONGLONG end = GetTickCount64() + dwLimitMs;
         WaitForSingleObject(pi.hProcess, 50) == WAIT_TIMEOUT;)
    {
        if (GetTickCount64() > end)
        {
            out.bHung = true;
            TerminateProcess(pi.hProcess, 999);
            WaitForSingleObject(pi.hProcess, 10000);
            break;
        }
        kvui::WindowQuery query;
        query.processId = pi.dwProcessId;
        query.desktop = desktop;
        for (HWND hWnd : kvui::FindWindows(query))
        {
            wchar_t szClass[64] = {};
            GetClassNameW(hWnd, szClass, 64);
            if (std::wcscmp(szClass, L"#32770") == 0 ||
                std::wcscmp(szClass, L"Kestrova Vexa Tray Icon Class") == 0)
                out.bAsked = PostMessageW(hWnd, WM_CLOSE, 0, 0) != FALSE || out.bAsked;
        }
    }
    GetExitCodeProcess(pi.hProcess, &out.dwCode);
    for (const kvui::ChildProcess& child : kvui::ChildProcesses(pi.hProcess))
    {
        out.childrenLeft += L" " + (child.exe.empty() ? L"(unnamed)" : child.exe);
        if (HANDLE hChild = OpenProcess(PROCESS_TERMINATE, FALSE, child.id))
        {
            TerminateProcess(hChild, 999);
            CloseHandle(hChild);
        }
    }
    CloseHandle(pi.hProcess);
    return out;
}

std::string Narrow(const std::wstring& s)
{
    std::string out;
    for (wchar_t c : s)
        out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

struct Tally
{
    unsigned tried = 0, asked = 0, bad = 0;
    std::map<int, unsigned> codes;
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    unsigned count = 10000;
    unsigned first = 1; // the lines before it are made but not run, to replay one
    std::uint64_t seed = 1;
    DWORD dwLimitMs = 20000;
    std::wstring exe;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        const std::wstring arg = argv[i];
        if (arg == L"--count")
            count = static_cast<unsigned>(std::wcstoul(argv[i + 1], nullptr, 10));
        else if (arg == L"--seed")
            seed = std::wcstoull(argv[i + 1], nullptr, 10);
        else if (arg == L"--first")
            first = static_cast<unsigned>(std::wcstoul(argv[i + 1], nullptr, 10));
        else if (arg == L"--limit-ms")
            dwLimitMs = std::wcstoul(argv[i + 1], nullptr, 10);
        else if (arg == L"--agent")
            exe = argv[i + 1];
    }
    if (exe.empty() || argc % 2 == 0)
    {
        std::fprintf(
            stderr,
            "usage: cmdstorm --agent PATH\\KVNXST.exe [--count N] [--seed S] [--first N] [--limit-ms MS]\n");
        return 2;
    }
    wchar_t szFull[MAX_PATH] = {};
    GetFullPathNameW(exe.c_str(), MAX_PATH, szFull, nullptr);
    exe = szFull;
    // Runs start in the temporary folder: the console-lock record goes to the root of the current drive.
    wchar_t szTemp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, szTemp);
    const std::wstring folder = szTemp;

    // A virtual desktop of its own: the agent's single-instance object is per desktop, and a window
    // that hides there does not wait for a window manager.
    const std::wstring desktop = L"kvstorm-" + std::to_wstring(GetCurrentProcessId());
    const wchar_t kDesktops[] = L"Software\\Wine\\Explorer\\Desktops";
    RegSetKeyValueW(HKEY_CURRENT_USER, kDesktops, desktop.c_str(), REG_SZ, L"800x600", sizeof L"800x600");
    const HDESK hDesk = CreateDesktopW(desktop.c_str(), nullptr, nullptr, 0, GENERIC_ALL, nullptr);
    // The agent's later threads land on the desktop of the thread that starts it.
    if (hDesk == nullptr || !SetThreadDesktop(hDesk))
    {
        std::fprintf(stderr, "cmdstorm: no desktop of its own (%lu)\n", GetLastError());
        return 2;
    }
    // Wine starts the desktop's own process with the first window there: it is to be this one's
    // child, not an agent's, whose children are counted as left behind.
    DestroyWindow(CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr));

    std::printf("cmdstorm: %u lines, seed %llu\n", count, static_cast<unsigned long long>(seed));
    Lines lines(seed);
    std::map<std::wstring, Tally> families;
    unsigned failures = 0, longest = 0;
    for (unsigned i = 1; i <= count; ++i)
    {
        const std::wstring line = lines.Next(kMaxLineUnits - exe.size() - 4);
        if (i < first)
            continue;
        const KvCommandOption option = KvFindCommandOption(AsTheAgentSeesIt(line));
        longest = std::max(longest, static_cast<unsigned>(line.size()));
        const Outcome out = Run(exe, folder, line, desktop, dwLimitMs);
        Tally& t = families[KvCommandOptionName(option)];
        ++t.tried;
        t.asked += out.bAsked ? 1 : 0;
        ++t.codes[static_cast<int>(out.dwCode)];
        if (out.bStarted && out.dwStartError != 0)
            std::printf("note: line %u started at the second try; the first failed with error %lu\n", i,
                        out.dwStartError);
        if (!out.bStarted || out.bHung || !out.childrenLeft.empty() || !Documented(option, out.dwCode))
        {
            ++t.bad;
            ++failures;
            if (!out.bStarted)
                std::printf("FAIL line %u (%zu units): not started twice, error %lu: %.300s\n", i,
                            line.size(), out.dwStartError, Narrow(line).c_str());
            else
                std::printf("FAIL line %u (%zu units): exit code %d (0x%lx)%s%s%s: %.300s\n", i, line.size(),
                            static_cast<int>(out.dwCode), out.dwCode, out.bHung ? " hung" : "",
                            out.childrenLeft.empty() ? "" : " left behind:", Narrow(out.childrenLeft).c_str(),
                            Narrow(line).c_str());
        }
        if (i % 500 == 0)
            std::printf("cmdstorm: %u lines run, %u failed\n", i, failures);
        std::fflush(stdout);
    }

    std::printf("\n%-24s %6s %8s %6s  exit codes (count)\n", "decided as", "lines", "closed", "failed");
    for (const auto& entry : families)
    {
        std::string codes;
        for (const auto& code : entry.second.codes)
            codes += std::to_string(code.first) + " (" + std::to_string(code.second) + ")  ";
        std::printf("%-24s %6u %8u %6u  %s\n", Narrow(entry.first).c_str(), entry.second.tried,
                    entry.second.asked, entry.second.bad, codes.c_str());
    }
    std::printf("cmdstorm: %u lines, %u failed, longest %u units\n", first <= count ? count - first + 1 : 0,
                failures, longest);
    CloseDesktop(hDesk);
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kDesktops, desktop.c_str());
    return failures == 0 ? 0 : 1;
}
