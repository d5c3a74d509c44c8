// The built agent (KVNXST.exe beside this program) against a stand-in service on loopback, next to
// a trivial peer in this process that answers with the same record sizes and does nothing else:
//   1. handshake, from accept to the user information answer, and process start to accept (next
//      to a bare process of this program that only connects);
//   2. 100000-echo records per second;
//   3. CPU and wake-ups of the connected agent while nothing happens, next to a bare window process;
//   4. private bytes, GDI/USER objects, windows, kernel handles and threads after a few and after
//      many viewer connect/disconnect cycles.
// Every agent runs from a temporary folder on a desktop of its own with a stand-in notification
// area, and with the shipped logging configuration (INFO) writing into that folder. Prints one
// table; ratios are against the raw peer or the bare process. Ends with a line saying what did not
// come when the agent stops answering, and within --deadline seconds in any case.
//   usage: bench_agent [--rounds N] [--cycles N] [--idle-seconds N] [--deadline S] [--log FILE]
//          (5, 1000, 10, 600); --log keeps a copy of the agents' log.
#include "bench_median.h"
#include "bench_summary.h"
#include "bench_wine.h"
#include "KvServiceMessages.h"
#include "fake_shell_desktop.h"
#include "test_agent_support.h"

#include <winsock2.h>
#include <windows.h>
#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

double Ms(Clock::duration d)
{
    return std::chrono::duration<double, std::milli>(d).count();
}

// Processes this run started, ended when the run fails.
std::mutex g_childrenLock;
std::vector<HANDLE> g_children;

void Track(HANDLE hProcess)
{
    std::lock_guard<std::mutex> lock(g_childrenLock);
    g_children.push_back(hProcess);
}

void Untrack(HANDLE hProcess)
{
    std::lock_guard<std::mutex> lock(g_childrenLock);
    g_children.erase(std::remove(g_children.begin(), g_children.end(), hProcess), g_children.end());
}

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "bench_agent: %s\n", what.c_str());
    std::fflush(stdout);
    std::fflush(stderr);
    {
        std::lock_guard<std::mutex> lock(g_childrenLock);
        for (HANDLE h : g_children)
            TerminateProcess(h, 999);
    }
    std::_Exit(1);
}

// A run that stops moving (an agent that no longer answers) ends instead of hanging the script.
std::atomic<ULONGLONG> g_lastProgress{GetTickCount64()};

void Progress()
{
    g_lastProgress = GetTickCount64();
}

// A run that moves but too slowly ends at the deadline.
void StartWatchdog(ULONGLONG msQuiet, ULONGLONG msDeadline)
{
    const ULONGLONG end = GetTickCount64() + msDeadline;
    std::thread(
        [msQuiet, msDeadline, end]
        {
            for (;;)
            {
                Sleep(1000);
                if (GetTickCount64() - g_lastProgress > msQuiet)
                    Fail("no progress for " + std::to_string(msQuiet / 1000) + " s");
                if (GetTickCount64() > end)
                    Fail("not done within the deadline of " + std::to_string(msDeadline / 1000) + " s");
            }
        })
        .detach();
}

// ---------------------------------------------------------------------------------------------
// Sockets.

struct Socket
{
    explicit Socket(SOCKET hSocket = INVALID_SOCKET) : h(hSocket)
    {
        if (h == INVALID_SOCKET)
            return;
        const BOOL bOn = TRUE;
        setsockopt(h, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&bOn), sizeof bOn);
    }
    ~Socket()
    {
        if (h != INVALID_SOCKET)
            closesocket(h);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    SOCKET h;
};

bool SendAll(SOCKET h, const void* p, int cb)
{
    return send(h, static_cast<const char*>(p), cb, 0) == cb;
}

bool RecvAll(SOCKET h, void* p, int cb)
{
    for (int nHave = 0, n = 0; nHave < cb; nHave += n)
        if ((n = recv(h, static_cast<char*>(p) + nHave, cb - nHave, 0)) <= 0)
            return false;
    return true;
}

// The listening side of the service on 127.0.0.1, any free port.
class Listener
{
public:
    Listener() : m_sock(socket(AF_INET, SOCK_STREAM, 0))
    {
        int cb = sizeof m_addr;
        if (bind(m_sock.h, reinterpret_cast<sockaddr*>(&m_addr), cb) != 0 || listen(m_sock.h, SOMAXCONN) != 0 ||
            getsockname(m_sock.h, reinterpret_cast<sockaddr*>(&m_addr), &cb) != 0)
            Fail("cannot listen on 127.0.0.1");
    }
    const sockaddr_in& Address() const { return m_addr; }
    unsigned short Port() const { return ntohs(m_addr.sin_port); }

    // The next client, or INVALID_SOCKET after 30 s.
    SOCKET Accept()
    {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(m_sock.h, &set);
        timeval tv = {30, 0};
        if (select(0, &set, nullptr, nullptr, &tv) != 1)
            return INVALID_SOCKET;
        return accept(m_sock.h, nullptr, nullptr);
    }

private:
    Socket m_sock;
    sockaddr_in m_addr = {AF_INET, 0, {{{127, 0, 0, 1}}}, {}};
};

// ---------------------------------------------------------------------------------------------
// The service's side of one link: records out, and records in framed by their type id.

struct Records
{
    Records()
    {
        KvZero(version);
        version.dwType = MSG_TYPE_VERSION;
        version.dVersion = version.dVersion2 = KV_AGENT_PROTOCOL_VERSION;
        KvZero(*init);
        init->dwType = MSG_TYPE_TRAYICON_INIT;
        // The icon shown, and a notice on connect and on disconnect: the paths that create and
        // destroy windows and GDI objects for every viewer.
        KvZero(settings);
        settings.dwType = MSG_TYPE_TRAYICON_SETTINGS;
        settings.bTrayIcon = 1;
        settings.bNotifyDlg = 1;
        settings.bNotifyDisconnect = 1;
        settings.dwIdleTrayIcon = 1;
        KvCopyString(settings.szCaption, u"bench");
        for (MSG_TRAYICON_CONNECT_INFO* p : {&connect, &disconnect})
        {
            KvZero(*p);
            KvCopyString(p->szUsername, u"viewer");
            p->dwTrayIcon = 2;
            p->dwViewerId = 1;
        }
        connect.dwType = MSG_TYPE_TRAYICON_CONNECT_NOTIFY;
        connect.dwConnections = 1;
        disconnect.dwType = MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY;
        KvZero(exit);
        exit.dwType = MSG_TYPE_TRAYICON_EXIT;
    }
    MSG_VERSION version;
    std::unique_ptr<MSG_TRAYICON_INIT> init = std::make_unique<MSG_TRAYICON_INIT>();
    MSG_TRAYICON_SETTINGS settings;
    MSG_TRAYICON_CONNECT_INFO connect;
    MSG_TRAYICON_CONNECT_INFO disconnect;
    MSG_TRAYICON_EXIT exit;
    MSG_TRAYICON_TYPE_ONLY echo = {MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE};
};
const Records& Rec()
{
    static const Records records;
    return records;
}

class ServiceLink
{
public:
    explicit ServiceLink(SOCKET h) : m_sock(h), m_buf(KV_RECEIVE_BUFFER_BYTES) {}
    bool Valid() const { return m_sock.h != INVALID_SOCKET; }

    template <typename T> bool Send(const T& rec) { return SendAll(m_sock.h, &rec, sizeof rec); }

    // Reads records until one of that type has arrived; others are counted by type.
    bool Await(std::uint32_t dwType)
    {
        for (;;)
        {
            if (!RecvAll(m_sock.h, m_buf.data(), 4))
                return false;
            const std::uint32_t dwGot = KvReadU32(m_buf.data());
            const std::uint32_t cb = KvRecordSize(dwGot, KvDirection::ToService);
            if (cb == 0 || cb > m_buf.size())
            {
                std::fprintf(stderr, "bench_agent: unknown record %u from the peer\n", dwGot);
                return false;
            }
            if (!RecvAll(m_sock.h, m_buf.data() + 4, static_cast<int>(cb - 4)))
                return false;
            if (dwGot == MSG_TYPE_CHAT_MESSAGE)
            {
                const std::uint32_t cbBody =
                    KvReadU32(m_buf.data() + offsetof(MSG_CHAT_MESSAGE, dwMessageLength));
                std::vector<char> body(std::min<std::uint32_t>(cbBody, KV_MAX_CHAT_BODY_BYTES));
                if (!body.empty() && !RecvAll(m_sock.h, body.data(), static_cast<int>(body.size())))
                    return false;
            }
            if (dwGot == dwType)
            {
                Progress();
                return true;
            }
            ++m_unsolicited[dwGot];
        }
    }
    const std::uint8_t* Last() const { return m_buf.data(); }

    // Version, initialisation and settings, each with its answers; ends when the user
    // information has arrived.
    bool Handshake()
    {
        if (!Send(Rec().version) || !Await(MSG_TYPE_VERSION))
            return false;
        MSG_VERSION answer;
        KvRecordFromBytes(answer, Last(), sizeof answer);
        if (answer.dVersion != KV_AGENT_PROTOCOL_VERSION || answer.dVersion2 != KV_AGENT_PROTOCOL_VERSION)
            return false;
        return Send(*Rec().init) && Await(MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK) &&
               Await(MSG_TYPE_TRAYICON_INIT) && Send(Rec().settings) &&
               Await(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION);
    }
    bool Echo() { return Send(Rec().echo) && Await(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE); }

    const std::map<std::uint32_t, int>& Unsolicited() const { return m_unsolicited; }

private:
    Socket m_sock;
    std::vector<std::uint8_t> m_buf;
    std::map<std::uint32_t, int> m_unsolicited;
};

// The trivial peer: connects, and answers each record with records of the sizes the agent sends,
// without looking inside.
void RawPeer(sockaddr_in addr)
{
    Socket sock(socket(AF_INET, SOCK_STREAM, 0));
    if (connect(sock.h, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return;
    std::vector<std::uint8_t> buf(KV_RECEIVE_BUFFER_BYTES);
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvZero(info);
    info.dwType = MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION;
    const MSG_TRAYICON_DESKTOP_EFFECTS ack = KvBuildDesktopEffectsAck(0);
    for (;;)
    {
        if (!RecvAll(sock.h, buf.data(), 4))
            return;
        const std::uint32_t dwType = KvReadU32(buf.data());
        const std::uint32_t cb = KvRecordSize(dwType, KvDirection::ToAgent);
        if (cb > 4 && !RecvAll(sock.h, buf.data() + 4, static_cast<int>(cb - 4)))
            return;
        bool bSent = true;
        switch (dwType)
        {
        case MSG_TYPE_VERSION:
        case MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE:
            bSent = SendAll(sock.h, buf.data(), static_cast<int>(cb));
            break;
        case MSG_TYPE_TRAYICON_INIT:
            bSent = SendAll(sock.h, &ack, sizeof ack) && SendAll(sock.h, buf.data(), static_cast<int>(cb));
            break;
        case MSG_TYPE_TRAYICON_SETTINGS:
            bSent = SendAll(sock.h, &info, sizeof info);
            break;
        case MSG_TYPE_TRAYICON_EXIT:
            return;
        default:
            break;
        }
        if (!bSent)
            return;
    }
}

// ---------------------------------------------------------------------------------------------
// The agent's surroundings.

// The agent and its resource library copied into a folder of their own, with the shipped logging
// configuration whose file lands in that folder rather than in the user's temporary folder.
class AgentFiles
{
public:
    AgentFiles() : m_exe(m_folder.Path() + L"KVNXST.exe"), m_log(m_folder.Path() + L"KVNXST.log")
    {
        const std::wstring from = kvtest::ModuleFolder();
        for (const wchar_t* szName : {L"KVNXST.exe", L"KVNXSTRES.dll"})
            if (!CopyFileW((from + szName).c_str(), (m_folder.Path() + szName).c_str(), FALSE))
                Fail("cannot copy " + kvtest::Narrow(from + szName));
        std::string config = kvtest::ReadTextFile(from + L"KVNXST.Logging.xml");
        const std::string place = "${TEMP}\\KVNXST.log";
        const size_t at = config.find(place);
        if (at == std::string::npos)
            Fail("KVNXST.Logging.xml beside bench_agent.exe names no ${TEMP}\\KVNXST.log");
        config.replace(at, place.size(), kvtest::Narrow(m_log));
        FILE* f = _wfopen((m_folder.Path() + L"KVNXST.Logging.xml").c_str(), L"wb");
        if (f == nullptr || std::fwrite(config.data(), 1, config.size(), f) != config.size())
            Fail("cannot write the logging configuration");
        std::fclose(f);
    }
    const std::wstring& Exe() const { return m_exe; }
    const std::wstring& Folder() const { return m_folder.Path(); }
    const std::wstring& Log() const { return m_log; }

private:
    kvtest::TempFolder m_folder;
    std::wstring m_exe;
    std::wstring m_log;
};

// One resident agent on a fresh desktop with a stand-in notification area, connecting to the
// listener.
class Agent
{
public:
    Agent(const AgentFiles& files, unsigned short uPort)
        : m_desktop(std::wstring(), kVirtualDesktop),
          m_shell(m_desktop.Name(), files.Folder() + L"KVNXSTRES.dll", kTrayIconId),
          m_argv{kvtest::Narrow(files.Exe()), std::to_string(uPort)}
    {
        if (!m_desktop.Created() || !m_shell.Ready())
            Fail("cannot prepare a desktop with a notification area for the agent");
        std::wstring commandLine = L"\"" + files.Exe() + L"\" " + std::to_wstring(uPort);
        std::wstring desktop = L"WinSta0\\" + m_desktop.Name();
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        si.lpDesktop = &desktop[0];
        // From the shell's thread, which sits on that desktop: Wine gives the threads a process
        // makes later the desktop of the thread that started it, not the one in lpDesktop.
        bool bStarted = false;
        m_shell.Run(
            [&](kvtest::FakeShell&)
            {
                m_started = Clock::now();
                bStarted = CreateProcessW(files.Exe().c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0,
                                          nullptr, files.Folder().c_str(), &si, &m_pi) != FALSE;
            });
        if (!bStarted)
            Fail("cannot start the agent, error " + std::to_string(GetLastError()));
        Track(m_pi.hProcess);
    }
    ~Agent()
    {
        Untrack(m_pi.hProcess);
        if (WaitForSingleObject(m_pi.hProcess, 0) == WAIT_TIMEOUT)
        {
            TerminateProcess(m_pi.hProcess, 999);
            WaitForSingleObject(m_pi.hProcess, 10000);
        }
        CloseHandle(m_pi.hThread);
        CloseHandle(m_pi.hProcess);
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    Clock::time_point Started() const { return m_started; }
    DWORD Pid() const { return m_pi.dwProcessId; }
    const std::vector<std::string>& Argv() const { return m_argv; }
    const kvtest::TestDesktop& Desktop() const { return m_desktop; }
    kvtest::DesktopShell& Shell() { return m_shell; }
    // Shell_NotifyIconW calls that reached the notification area so far.
    long TrayCalls()
    {
        size_t n = 0;
        m_shell.Run([&](kvtest::FakeShell& shell) { n = shell.calls.size(); });
        return static_cast<long>(n);
    }

    // The service's exit request; the agent's exit code, or 999 when it had to be ended.
    DWORD Stop(ServiceLink& link)
    {
        link.Send(Rec().exit);
        if (WaitForSingleObject(m_pi.hProcess, 15000) != WAIT_OBJECT_0)
            TerminateProcess(m_pi.hProcess, 999);
        WaitForSingleObject(m_pi.hProcess, 10000);
        DWORD dwCode = 0;
        GetExitCodeProcess(m_pi.hProcess, &dwCode);
        return dwCode;
    }

private:
    static constexpr UINT kTrayIconId = 44444;
    // Without a virtual desktop each notice that closes costs Wine's 2 s, not the agent's work.
    static constexpr const wchar_t* kVirtualDesktop = L"1024x768";

    kvtest::TestDesktop m_desktop;
    kvtest::DesktopShell m_shell;
    std::vector<std::string> m_argv;
    PROCESS_INFORMATION m_pi = {};
    Clock::time_point m_started;
};

// ---------------------------------------------------------------------------------------------
// What the agent holds, read from this process.

struct Holdings
{
    bool bMemory = false;
    SIZE_T cbPrivate = 0;
    bool bAnonymous = false; // Wine leaves PrivateUsage 0 for other processes; its page-file
                             // figure is the anonymous resident memory then
    bool bGui = false;
    bool bWineGdi = false; // GDI from the process's own handle table, no USER figure
    DWORD nGdi = 0;
    DWORD nUser = 0;
    bool bHandles = false;
    bool bSystemHandles = false; // from the system's handle list
    DWORD nHandles = 0;
    int nThreads = 0;
    int nWindows = 0;
};

// Kernel handles of the process, from the system's list of every open handle.
DWORD SystemHandleCount(DWORD dwPid)
{
    struct Entry
    {
        ULONG ownerPid;
        BYTE objectType;
        BYTE flags;
        USHORT value;
        void* object;
        ULONG access;
    };
    using QuerySystem = LONG(WINAPI*)(SYSTEM_INFORMATION_CLASS, void*, ULONG, ULONG*);
    const auto pfnQuery = NtFunction<QuerySystem>("NtQuerySystemInformation");
    if (pfnQuery == nullptr)
        return 0;
    std::vector<std::uint8_t> buf(1 << 20);
    LONG status;
    while ((status = pfnQuery(static_cast<SYSTEM_INFORMATION_CLASS>(16), buf.data(),
                              static_cast<ULONG>(buf.size()), nullptr)) == static_cast<LONG>(0xC0000004) &&
           buf.size() < (64u << 20))
        buf.resize(buf.size() * 2);
    if (status != 0)
        return 0;
    const ULONG nAll = *reinterpret_cast<const ULONG*>(buf.data());
    const auto* pEntries = reinterpret_cast<const Entry*>(buf.data() + sizeof(void*));
    DWORD n = 0;
    for (ULONG i = 0; i < nAll && sizeof(void*) + (i + 1) * sizeof(Entry) <= buf.size(); ++i)
        n += pEntries[i].ownerPid == dwPid;
    return n;
}

// CPU used and wake-ups of a process so far. Windows reports the CPU through GetProcessTimes. Wine
// answers that call with the caller's own times whatever the handle, so under Wine both figures
// come from the Linux process behind it: run time and voluntary context switches of its tasks.
struct CpuSample
{
    double ms = 0;
    long long nWakeups = -1;                            // -1: not known
    std::map<long, std::pair<double, long long>> tasks; // Linux task: ms, wake-ups
};

class CpuProbe
{
public:
    // The process, and its command line as the system splits it, to find it under Wine.
    CpuProbe(DWORD dwPid, std::vector<std::string> argv) : m_dwPid(dwPid), m_argv(std::move(argv)) {}

    CpuSample Sample()
    {
        CpuSample out;
        if (!UnderWine())
        {
            FILETIME created, exited, kernel, user;
            HANDLE h = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, m_dwPid);
            if (h != nullptr && GetProcessTimes(h, &created, &exited, &kernel, &user))
                out.ms = double((ULONGLONG(kernel.dwHighDateTime) << 32 | kernel.dwLowDateTime) +
                                (ULONGLONG(user.dwHighDateTime) << 32 | user.dwLowDateTime)) /
                         1e4;
            if (h != nullptr)
                CloseHandle(h);
            return out;
        }
        if (m_unixPid == 0)
            m_unixPid = FindUnixPid();
        const std::wstring tasks = L"Z:\\proc\\" + std::to_wstring(m_unixPid) + L"\\task\\";
        WIN32_FIND_DATAW fd;
        HANDLE hFind = FindFirstFileW((tasks + L"*").c_str(), &fd);
        if (m_unixPid == 0 || hFind == INVALID_HANDLE_VALUE)
            return out;
        out.nWakeups = 0;
        do
        {
            const long tid = std::wcstol(fd.cFileName, nullptr, 10);
            if (tid <= 0)
                continue;
            const std::string schedstat = kvtest::ReadTextFile(tasks + fd.cFileName + L"\\schedstat");
            const std::string status = kvtest::ReadTextFile(tasks + fd.cFileName + L"\\status");
            const size_t at = status.find("voluntary_ctxt_switches:");
            const double ms = std::strtod(schedstat.c_str(), nullptr) / 1e6;
            const long long n = at == status.npos ? 0 : std::strtoll(status.c_str() + at + 24, nullptr, 10);
            out.tasks[tid] = {ms, n};
            out.ms += ms;
            out.nWakeups += n;
        } while (FindNextFileW(hFind, &fd));
        FindClose(hFind);
        return out;
    }

private:
    // The Linux process whose command line is this one's.
    long FindUnixPid() const
    {
        WIN32_FIND_DATAW fd;
        HANDLE hFind = FindFirstFileW(L"Z:\\proc\\*", &fd);
        if (hFind == INVALID_HANDLE_VALUE)
            return 0;
        long found = 0;
        do
        {
            const long pid = std::wcstol(fd.cFileName, nullptr, 10);
            if (pid <= 0)
                continue;
            const std::string cmdline =
                kvtest::ReadTextFile(L"Z:\\proc\\" + std::wstring(fd.cFileName) + L"\\cmdline");
            size_t pos = 0;
            bool bSame = true;
            for (const std::string& arg : m_argv)
            {
                const size_t end = cmdline.find('\0', pos);
                bSame = bSame && end != cmdline.npos &&
                        CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, cmdline.c_str() + pos,
                                       static_cast<int>(end - pos), arg.c_str(),
                                       static_cast<int>(arg.size())) == CSTR_EQUAL;
                pos = end + 1;
            }
            if (bSame)
                found = pid;
        } while (found == 0 && FindNextFileW(hFind, &fd));
        FindClose(hFind);
        return found;
    }

    DWORD m_dwPid;
    std::vector<std::string> m_argv;
    long m_unixPid = 0;
};

int ThreadCount(DWORD dwPid)
{
    int n = 0;
    HANDLE hSnap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (hSnap == INVALID_HANDLE_VALUE)
        return 0;
    THREADENTRY32 te = {};
    te.dwSize = sizeof te;
    for (BOOL b = Thread32First(hSnap, &te); b; b = Thread32Next(hSnap, &te))
        n += te.th32OwnerProcessID == dwPid;
    CloseHandle(hSnap);
    return n;
}

void MeasureMemory(HANDLE hProcess, Holdings& out)
{
    PROCESS_MEMORY_COUNTERS_EX pmc = {};
    pmc.cb = sizeof pmc;
    if (K32GetProcessMemoryInfo(hProcess, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&pmc), sizeof pmc))
    {
        out.bAnonymous = pmc.PrivateUsage == 0;
        out.cbPrivate = out.bAnonymous ? pmc.PagefileUsage : pmc.PrivateUsage;
        out.bMemory = out.cbPrivate != 0;
    }
}

Holdings Measure(const Agent& agent)
{
    Holdings out;
    HANDLE h = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, agent.Pid());
    if (h == nullptr)
        return out;
    MeasureMemory(h, out);
    out.nGdi = GetGuiResources(h, GR_GDIOBJECTS);
    out.nUser = GetGuiResources(h, GR_USEROBJECTS);
    out.bGui = out.nGdi != 0 || out.nUser != 0; // a live GUI process always holds some
    out.bHandles = GetProcessHandleCount(h, &out.nHandles) && out.nHandles != 0;
    CloseHandle(h);
    if (!out.bGui && UnderWine())
    {
        out.bWineGdi = (out.nGdi = WineGdiObjects(agent.Pid())) != 0;
        out.bGui = out.bWineGdi;
    }
    if (!out.bHandles)
    {
        out.nHandles = SystemHandleCount(agent.Pid());
        out.bHandles = out.bSystemHandles = out.nHandles != 0;
    }
    out.nThreads = ThreadCount(agent.Pid());

    // Windows of the agent on its desktop, top-level and child: the USER objects a leak of
    // dialogs would show, also where the object counts are not available.
    struct Count
    {
        DWORD dwPid;
        int n;
        static BOOL CALLBACK Child(HWND hWnd, LPARAM lParam)
        {
            auto* c = reinterpret_cast<Count*>(lParam);
            DWORD dwPid = 0;
            GetWindowThreadProcessId(hWnd, &dwPid);
            c->n += dwPid == c->dwPid;
            return TRUE;
        }
        static BOOL CALLBACK Top(HWND hWnd, LPARAM lParam)
        {
            Child(hWnd, lParam);
            EnumChildWindows(hWnd, Child, lParam);
            return TRUE;
        }
    } count = {agent.Pid(), 0};
    HDESK hDesk =
        OpenDesktopW(agent.Desktop().Name().c_str(), 0, FALSE, DESKTOP_READOBJECTS | DESKTOP_ENUMERATE);
    if (hDesk != nullptr)
    {
        EnumDesktopWindows(hDesk, Count::Top, reinterpret_cast<LPARAM>(&count));
        CloseDesktop(hDesk);
    }
    out.nWindows = count.n;
    return out;
}

LONGLONG FileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return LONGLONG(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

// ---------------------------------------------------------------------------------------------
// The table.

void Row(const char* what, const std::string& figure, const std::string& ratio = std::string())
{
    std::printf("%-48s %-30s %s\n", what, figure.c_str(), ratio.c_str());
}

std::string Fmt(const char* format, double a, double b = 0.0, double c = 0.0)
{
    char sz[128];
    std::snprintf(sz, sizeof sz, format, a, b, c);
    return sz;
}

struct Options
{
    int nRounds = 5;
    int nCycles = 1000;
    int nIdleSeconds = 10;
    int nDeadlineSeconds = 600;
    std::string logCopy;
    std::vector<int> scale; // agent counts for --scale; empty: the single-agent table
};

Options ParseOptions(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (arg == "--log" && i + 1 < argc)
        {
            o.logCopy = argv[++i];
            continue;
        }
        if (arg == "--scale" && i + 1 < argc)
        {
            for (const char* p = argv[++i]; *p != '\0'; p += *p == ',' ? 1 : 0)
                o.scale.push_back(static_cast<int>(std::strtol(p, const_cast<char**>(&p), 10)));
            continue;
        }
        int* pValue = arg == "--rounds"         ? &o.nRounds
                      : arg == "--cycles"       ? &o.nCycles
                      : arg == "--idle-seconds" ? &o.nIdleSeconds
                      : arg == "--deadline"     ? &o.nDeadlineSeconds
                                                : nullptr;
        if (pValue == nullptr || i + 1 == argc || (*pValue = std::atoi(argv[++i])) < 1)
            Fail("usage: bench_agent [--rounds N] [--cycles N] [--idle-seconds N] [--deadline S] [--log "
                 "FILE] [--scale N,N,...]");
    }
    o.nCycles = std::max(o.nCycles, 11);
    return o;
}

// The start-up baseline: a bare process of this program that connects to the listener and ends.
int ConnectChild(const char* szPort)
{
    WSADATA wsa;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0)
        return 1;
    Socket sock(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr = {AF_INET, htons(static_cast<u_short>(std::atoi(szPort))), {{{127, 0, 0, 1}}}, {}};
    return connect(sock.h, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? 0 : 1;
}

double BareStartToAccept(Listener& listener)
{
    const std::wstring exe = kvtest::ModuleFolder() + L"bench_agent.exe";
    std::wstring commandLine = L"\"" + exe + L"\" --connect-child " + std::to_wstring(listener.Port());
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    const auto start = Clock::now();
    if (!CreateProcessW(exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                        nullptr, &si, &pi))
        Fail("cannot start the bare process, error " + std::to_string(GetLastError()));
    Track(pi.hProcess);
    const Socket accepted(listener.Accept());
    const double ms = Ms(Clock::now() - start);
    if (accepted.h == INVALID_SOCKET)
        Fail("the bare process did not connect within 30 s");
    Progress();
    WaitForSingleObject(pi.hProcess, 10000);
    Untrack(pi.hProcess);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return ms;
}

// The idle baseline: a bare GUI process with one window and a message loop, which is what any
// program costs under this system while nothing happens.
int IdleChild()
{
    CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    MSG msg;
    while (GetMessageW(&msg, nullptr, 0, 0) > 0)
        DispatchMessageW(&msg);
    return 0;
}

class IdleBaseline
{
public:
    IdleBaseline()
    {
        // This run's own, so that it is told from another run's under Wine.
        const std::wstring exe = kvtest::ModuleFolder() + L"bench_agent.exe";
        const std::wstring tag = std::to_wstring(GetCurrentProcessId());
        m_argv = {kvtest::Narrow(exe), "--idle-child", kvtest::Narrow(tag)};
        std::wstring commandLine = L"\"" + exe + L"\" --idle-child " + tag;
        std::wstring desktop = L"WinSta0\\" + m_desktop.Name();
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        si.lpDesktop = &desktop[0];
        if (CreateProcessW(exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si,
                           &m_pi))
            Track(m_pi.hProcess);
        else
            m_pi = {};
    }
    ~IdleBaseline()
    {
        if (m_pi.hProcess == nullptr)
            return;
        Untrack(m_pi.hProcess);
        TerminateProcess(m_pi.hProcess, 0);
        WaitForSingleObject(m_pi.hProcess, 10000);
        CloseHandle(m_pi.hThread);
        CloseHandle(m_pi.hProcess);
    }
    IdleBaseline(const IdleBaseline&) = delete;
    IdleBaseline& operator=(const IdleBaseline&) = delete;
    DWORD Pid() const { return m_pi.dwProcessId; }
    const std::vector<std::string>& Argv() const { return m_argv; }

private:
    kvtest::TestDesktop m_desktop;
    std::vector<std::string> m_argv;
    PROCESS_INFORMATION m_pi = {};
};

// N agents at once, each on a desktop of its own with a folder of its own (so each is told apart under
// Wine), all linked to this one stand-in service: each one's handshake while the others idle, then
// what each holds and costs while all idle.
void RunScale(const Options& opt, Listener& listener)
{
    std::printf("\nagents side by side, %d s idle (median / largest of the agents)\n", opt.nIdleSeconds);
    const char* const kFormat = "%6s %-16s %-16s %-9s %-10s %-12s %-22s %-18s\n";
    std::printf(kFormat, "agents", "handshake ms", "private KB", "threads", "handles", "GDI objects",
                "idle CPU ms per 60 s", "wake-ups per 60 s");
    {
        // What any program with one window holds here, for comparison.
        IdleBaseline bare;
        std::this_thread::sleep_for(std::chrono::seconds(2));
        Holdings h;
        if (HANDLE hBare = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, bare.Pid()))
        {
            MeasureMemory(hBare, h);
            CloseHandle(hBare);
        }
        std::printf(kFormat, "bare", "-", Fmt("%.0f", h.cbPrivate / 1024.0).c_str(),
                    Fmt("%.0f", ThreadCount(bare.Pid())).c_str(), "-", "-", "-", "-");
    }
    for (const int n : opt.scale)
    {
        std::vector<std::unique_ptr<AgentFiles>> files;
        std::vector<std::unique_ptr<Agent>> agents;
        std::vector<std::unique_ptr<ServiceLink>> links;
        std::vector<double> handshake, kb, threads, handles, gdi, cpu, wakeups;
        for (int i = 0; i < n; ++i)
        {
            files.push_back(std::make_unique<AgentFiles>());
            agents.push_back(std::make_unique<Agent>(*files.back(), listener.Port()));
            links.push_back(std::make_unique<ServiceLink>(listener.Accept()));
            const auto accepted = Clock::now();
            if (!links.back()->Valid() || !links.back()->Handshake())
                Fail("agent " + std::to_string(i + 1) + " of " + std::to_string(n) + " did not link up");
            handshake.push_back(Ms(Clock::now() - accepted));
        }
        // Past the 5-s timer that follows the settings.
        std::this_thread::sleep_for(std::chrono::seconds(6));
        std::vector<CpuProbe> probes;
        std::vector<CpuSample> before;
        for (const auto& agent : agents)
        {
            probes.emplace_back(agent->Pid(), agent->Argv());
            before.push_back(probes.back().Sample());
        }
        const auto start = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(opt.nIdleSeconds));
        const double per60s = 60000.0 / Ms(Clock::now() - start);
        for (int i = 0; i < n; ++i)
        {
            const CpuSample after = probes[i].Sample();
            cpu.push_back((after.ms - before[i].ms) * per60s);
            wakeups.push_back(double(after.nWakeups - before[i].nWakeups) * per60s);
            const Holdings h = Measure(*agents[i]);
            kb.push_back(h.cbPrivate / 1024.0);
            threads.push_back(h.nThreads);
            handles.push_back(h.nHandles);
            gdi.push_back(h.nGdi);
        }
        auto cell = [](const std::vector<double>& v, const char* format)
        { return Fmt(format, Median(v), *std::max_element(v.begin(), v.end())); };
        std::printf(kFormat, std::to_string(n).c_str(), cell(handshake, "%.1f / %.1f").c_str(),
                    cell(kb, "%.0f / %.0f").c_str(), cell(threads, "%.0f / %.0f").c_str(),
                    cell(handles, "%.0f / %.0f").c_str(), cell(gdi, "%.0f / %.0f").c_str(),
                    cell(cpu, "%.1f / %.1f").c_str(), cell(wakeups, "%.0f / %.0f").c_str());
        for (int i = 0; i < n; ++i)
            agents[i]->Stop(*links[i]);
    }
}

// The agent takes the service's "Port" setting over its command line; with one set it would not
// come to this listener.
bool ServicePortSet()
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                      L"Software\\Kestrova Development\\Vexa Remote Control Service\\Settings", 0,
                      KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
        return false;
    const bool bSet = RegQueryValueExW(hKey, L"Port", nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
    RegCloseKey(hKey);
    return bSet;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--idle-child") == 0)
        return IdleChild();
    if (argc == 3 && std::strcmp(argv[1], "--connect-child") == 0)
        return ConnectChild(argv[2]);
    const Options opt = ParseOptions(argc, argv);
    WSADATA wsa;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0)
        Fail("no Winsock");
    if (ServicePortSet())
        Fail("the service's \"Port\" setting exists in this prefix; remove it first");
    setvbuf(stdout, nullptr, _IONBF, 0);
    StartWatchdog(60000 + 1000ULL * opt.nIdleSeconds, 1000ULL * opt.nDeadlineSeconds);

    Listener listener;
    if (!opt.scale.empty())
    {
        RunScale(opt, listener);
        WSACleanup();
        return 0;
    }
    AgentFiles files;

    // 1. Handshakes: a fresh agent per round, then the raw peer, taking turns to lead. The last
    // agent stays connected for the rest.
    std::vector<double> startToAccept, startToAcceptBare, handshake, handshakeRaw;
    std::unique_ptr<Agent> agent;
    std::unique_ptr<ServiceLink> link;
    Clock::time_point settingsSent;
    for (int round = 0; round < opt.nRounds; ++round)
    {
        for (int turn = 0; turn < 2; ++turn)
        {
            if ((turn == 0) == (round % 2 == 0))
            {
                if (link != nullptr && agent->Stop(*link) != static_cast<DWORD>(KV_EXIT_CODE_ENDED))
                    std::printf("note: an agent ended with an exit code other than -56\n");
                link.reset();
                agent.reset();
                agent = std::make_unique<Agent>(files, listener.Port());
                link = std::make_unique<ServiceLink>(listener.Accept());
                const auto accepted = Clock::now();
                if (!link->Valid())
                    Fail("the agent did not connect within 30 s; see " + kvtest::Narrow(files.Log()));
                if (!link->Handshake())
                    Fail("the agent's handshake failed; see " + kvtest::Narrow(files.Log()));
                settingsSent = Clock::now();
                startToAccept.push_back(Ms(accepted - agent->Started()));
                handshake.push_back(Ms(settingsSent - accepted));
            }
            else
            {
                std::thread peer(RawPeer, listener.Address());
                ServiceLink raw(listener.Accept());
                const auto accepted = Clock::now();
                if (!raw.Valid() || !raw.Handshake())
                    Fail("the raw peer's handshake failed");
                handshakeRaw.push_back(Ms(Clock::now() - accepted));
                raw.Send(Rec().exit);
                peer.join();
                startToAcceptBare.push_back(BareStartToAccept(listener));
            }
        }
    }

    // Started now so that its start-up is over when the idle measurement begins.
    IdleBaseline baseline;

    // 2. 100000 echoes, agent and raw peer in turns of a batch; medians over the turns.
    std::thread peer(RawPeer, listener.Address());
    ServiceLink raw(listener.Accept());
    if (!raw.Valid() || !raw.Handshake())
        Fail("the raw peer's handshake failed");
    constexpr int kBatch = 200;
    constexpr int kTurns = 10;
    std::vector<double> perSec, perSecRaw, ratio;
    const LONGLONG cbLogBefore = FileSize(files.Log());
    CpuProbe agentCpu(agent->Pid(), agent->Argv());
    const CpuSample echoCpuBefore = agentCpu.Sample();
    for (int turn = 0; turn < kTurns; ++turn)
    {
        double rate[2] = {};
        for (int i : {turn % 2, 1 - turn % 2})
        {
            ServiceLink& l = i == 0 ? *link : raw;
            const auto start = Clock::now();
            for (int n = 0; n < kBatch; ++n)
                if (!l.Echo())
                    Fail(i == 0 ? "the agent's echo failed" : "the raw peer's echo failed");
            rate[i] = kBatch / (Ms(Clock::now() - start) / 1000.0);
        }
        perSec.push_back(rate[0]);
        perSecRaw.push_back(rate[1]);
        ratio.push_back(rate[0] / rate[1]);
    }
    const double cbLogPerEcho = double(FileSize(files.Log()) - cbLogBefore) / (kBatch * kTurns);
    const CpuSample echoCpuAfter = agentCpu.Sample();
    const double cpuUsPerEcho = (echoCpuAfter.ms - echoCpuBefore.ms) * 1000.0 / (kBatch * kTurns);
    const double wakeupsPerEcho = double(echoCpuAfter.nWakeups - echoCpuBefore.nWakeups) / (kBatch * kTurns);
    raw.Send(Rec().exit);
    peer.join();

    // 3. Idle: once the 5-s timer that follows the settings has run, nothing should wake the agent.
    const auto settled = settingsSent + std::chrono::seconds(6);
    if (Clock::now() < settled)
        std::this_thread::sleep_until(settled);
    const long nTrayBeforeIdle = agent->TrayCalls();
    const int nIdleThreads = ThreadCount(agent->Pid());
    CpuProbe baselineCpu(baseline.Pid(), baseline.Argv());
    const CpuSample idleBefore = agentCpu.Sample();
    const CpuSample baselineBefore = baselineCpu.Sample();
    const auto idleStart = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(opt.nIdleSeconds));
    const CpuSample idleAfter = agentCpu.Sample();
    const CpuSample baselineAfter = baselineCpu.Sample();
    const double idleWallMs = Ms(Clock::now() - idleStart);
    const double per10s = 10000.0 / idleWallMs;
    const long nTrayIdle = agent->TrayCalls() - nTrayBeforeIdle;

    // 4. Viewer cycles: connect (one viewer), its notice, disconnect (none left). An echo after
    // each record keeps the connection thread in step. The notice comes at once instead of 2 s
    // later: the bench posts the timer's own message. To keep the window's thread in step too,
    // each posted timer is followed until its tray call has reached the shell; the second one
    // (the icon's retry timer) comes after everything the first posted, the notice included. A
    // timer whose tray call does not come ends the run: unsynchronised cycles measure nothing.
    // Measured after 10 cycles and after all, each time once the agent's 2-s timer has passed.
    const std::vector<HWND> trays =
        kvtest::DesktopWindows(agent->Desktop().Name(), L"Kestrova Vexa Tray Icon Class");
    if (trays.empty())
        Fail("no tray window of the agent on its desktop");
    const HWND hTray = trays.front();
    auto timerRan = [&](UINT_PTR uTimer, int nCycle)
    {
        const long nBefore = agent->TrayCalls();
        PostMessageW(hTray, WM_TIMER, uTimer, 0);
        for (const ULONGLONG end = GetTickCount64() + 10000; GetTickCount64() < end; Sleep(1))
            if (agent->TrayCalls() > nBefore)
                return;
        Fail("timer " + std::to_string(uTimer) + " brought no tray call within 10 s at cycle " +
             std::to_string(nCycle));
    };
    const long nTrayBeforeCycles = agent->TrayCalls();
    Holdings after[2];
    double cycleMs = 0;
    int nDone = 0;
    for (int checkpoint : {10, opt.nCycles})
    {
        const auto start = Clock::now();
        for (; nDone < checkpoint; ++nDone)
        {
            if (!link->Send(Rec().connect) || !link->Echo())
                Fail("connect notify failed at cycle " + std::to_string(nDone));
            timerRan(1002, nDone);
            timerRan(1006, nDone);
            if (!link->Send(Rec().disconnect) || !link->Echo())
                Fail("disconnect notify failed at cycle " + std::to_string(nDone));
        }
        if (checkpoint == opt.nCycles)
            cycleMs = Ms(Clock::now() - start) / (opt.nCycles - 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        if (!link->Echo())
            Fail("the agent stopped answering after the cycles");
        after[checkpoint == 10 ? 0 : 1] = Measure(*agent);
    }
    const double trayPerCycle = double(agent->TrayCalls() - nTrayBeforeCycles) / opt.nCycles;
    const kvtest::DesktopShell::View trayAtEnd = agent->Shell().Read();

    const DWORD dwExit = agent->Stop(*link);
    const std::string log = kvtest::ReadTextFile(files.Log());
    if (!opt.logCopy.empty())
        CopyFileA(kvtest::Narrow(files.Log()).c_str(), opt.logCopy.c_str(), FALSE);
    const std::vector<std::string> lines = kvtest::Lines(log);

    // ------------------------------------------------------------------------------------------
    const double nMore = opt.nCycles - 10;
    std::printf("\nresident agent, %d rounds, %d viewer cycles, %d s idle (medians)\n", opt.nRounds,
                opt.nCycles, opt.nIdleSeconds);
    Row("what", "figure", "ratio");
    Row("process start -> accept", Fmt("%.0f ms", Median(startToAccept)),
        Fmt("%.1fx a bare process that connects (%.0f ms)", Median(startToAccept) / Median(startToAcceptBare),
            Median(startToAcceptBare)));
    Row("handshake accept -> 50000, agent", Fmt("%.2f ms", Median(handshake)),
        Fmt("%.1fx the raw peer (%.2f ms)", Median(handshake) / Median(handshakeRaw), Median(handshakeRaw)));
    Row("100000 echoes, agent", Fmt("%.0f records/s", Median(perSec)),
        Fmt("%.2f of the raw peer (%.0f/s)", Median(ratio), Median(perSecRaw)));
    SummaryRow("agent: process start -> its connect", Median(startToAccept), "bare process that connects",
               Median(startToAcceptBare), "ms");
    SummaryRow("agent: handshake, accept -> 50000", Median(handshake), "raw peer's handshake",
               Median(handshakeRaw), "ms");
    SummaryRow("agent: echo of records", Median(perSec), "raw peer's echo", Median(perSecRaw), "/s");
    Row("agent CPU / log written per echo", Fmt("%.0f us / %.0f bytes", cpuUsPerEcho, cbLogPerEcho),
        echoCpuAfter.nWakeups >= 0 ? Fmt("%.1f wake-ups per echo", wakeupsPerEcho) : std::string());
    const double idleMs = idleAfter.ms - idleBefore.ms;
    const double baselineMs = baselineAfter.ms - baselineBefore.ms;
    Row("idle CPU, connected, per 10 s",
        Fmt("%.2f ms (%.3f %% of a core)", idleMs * per10s, idleMs / idleWallMs * 100),
        baselineMs > 0
            ? Fmt("%.1fx a bare window process (%.2f ms)", idleMs / baselineMs, baselineMs * per10s)
            : Fmt("a bare window process: %.2f ms", baselineMs * per10s));
    SummaryRow("agent: idle CPU, connected, per 10 s", idleMs * per10s, "bare window process",
               baselineMs * per10s, "ms");
    if (idleAfter.nWakeups >= 0)
    {
        SummaryRow("agent: idle wake-ups, per 10 s", (idleAfter.nWakeups - idleBefore.nWakeups) * per10s,
                   "bare window process", (baselineAfter.nWakeups - baselineBefore.nWakeups) * per10s, "");
        Row("idle wake-ups, per 10 s", Fmt("%.0f", (idleAfter.nWakeups - idleBefore.nWakeups) * per10s),
            Fmt("bare window process: %.0f", (baselineAfter.nWakeups - baselineBefore.nWakeups) * per10s));
        // By thread, main first and then in the order they were made.
        std::string byTask;
        for (const auto& [tid, figures] : idleAfter.tasks)
        {
            const auto before = idleBefore.tasks.find(tid);
            const bool bOld = before != idleBefore.tasks.end();
            byTask +=
                Fmt(" [%.2f ms, %.0f wake-ups]", (figures.first - (bOld ? before->second.first : 0)) * per10s,
                    double(figures.second - (bOld ? before->second.second : 0)) * per10s);
        }
        std::printf("note: idle per 10 s, thread by thread:%s\n", byTask.c_str());
    }
    Row("tray calls while idle", Fmt("%.0f", nTrayIdle));
    Row("threads idle / after cycles", Fmt("%.0f / %.0f", nIdleThreads, after[1].nThreads));
    Row("viewer cycle (connect, notice, disconnect)", Fmt("%.2f ms", cycleMs),
        Fmt("%.1f tray calls a cycle (1 the bench's)", trayPerCycle));
    auto growth = [&](const char* what, bool bHave, double a, double b, const char* unit)
    {
        if (!bHave)
            return Row(what, "n/a (not reported here)");
        Row(what, Fmt("%.0f -> %.0f", a, b), Fmt("%+.3f", (b - a) / nMore) + unit + " a cycle");
    };
    growth(after[1].bAnonymous ? "anonymous resident KB, 10 -> all cycles" : "private KB, 10 -> all cycles",
           after[0].bMemory && after[1].bMemory, after[0].cbPrivate / 1024.0, after[1].cbPrivate / 1024.0,
           " KB");
    growth(after[1].bWineGdi ? "GDI objects (handle table), 10 -> all cycles"
                             : "GDI objects, 10 -> all cycles",
           after[0].bGui && after[1].bGui, after[0].nGdi, after[1].nGdi, "");
    growth("USER objects, 10 -> all cycles", after[0].bGui && after[1].bGui && !after[1].bWineGdi,
           after[0].nUser, after[1].nUser, "");
    growth("windows, 10 -> all cycles", true, after[0].nWindows, after[1].nWindows, "");
    growth(after[1].bSystemHandles ? "kernel handles (system list), 10 -> all cycles"
                                   : "kernel handles, 10 -> all cycles",
           after[0].bHandles && after[1].bHandles, after[0].nHandles, after[1].nHandles, "");
    Row("tray icon after the cycles", trayAtEnd.bHeld ? trayAtEnd.picture : "none",
        trayAtEnd.bHeld && trayAtEnd.picture == "idle" ? "" : "expected the idle picture");
    Row("exit code on the service's request", Fmt("%.0f", static_cast<int>(dwExit)),
        dwExit == static_cast<DWORD>(KV_EXIT_CODE_ENDED) ? "" : "expected -56");
    // What the agents warned about, most frequent first.
    std::map<std::string, int> warnings;
    for (const std::string& line : lines)
    {
        const size_t at = line.find(" - ");
        if (at != line.npos && (line.find(" WARN ") < at || line.find(" ERROR ") < at))
            ++warnings[line.substr(line.find(' ', line.find(' ') + 1) + 1, 6) + line.substr(at + 3, 100)];
    }
    std::vector<std::pair<int, std::string>> byCount;
    for (const auto& [text, n] : warnings)
        byCount.emplace_back(n, text);
    std::sort(byCount.rbegin(), byCount.rend());
    for (size_t i = 0; i < byCount.size() && i < 5; ++i)
        std::printf("note: the agents' log has %dx %s\n", byCount[i].first, byCount[i].second.c_str());
    for (const auto& [dwType, n] : link->Unsolicited())
        std::printf("note: the agent also sent %d record(s) of type %u\n", n, dwType);
    WSACleanup();
    return 0;
}
