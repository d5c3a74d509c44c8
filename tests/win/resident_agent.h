// One resident agent for an end-to-end test: the built exe on a desktop of its own with the
// stand-in shell there (fake_shell_desktop.h), linked over loopback to the simulator on a thread of
// the test. The simulator is strict as ever (any protocol error fails the run); the test feeds its
// script line by line while the agent runs and reads the trace as it grows.
#pragma once

#include "fake_shell_desktop.h"
#include "test_agent_support.h"

#include "KVNXST.h"
#include "SimServer.h"

#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <thread>

namespace kvtest
{

// The server's trace, which other threads may wait on.
class TraceBuffer : public std::streambuf
{
public:
    std::string Text() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_text;
    }
    // Waits until the trace holds part, at most ms.
    bool WaitFor(const std::string& part, DWORD ms) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::milliseconds(ms),
                             [&] { return m_text.find(part) != std::string::npos; });
    }

protected:
    int_type overflow(int_type c) override
    {
        if (c != traits_type::eof())
        {
            const char ch = traits_type::to_char_type(c);
            xsputn(&ch, 1);
        }
        return c;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_text.append(s, static_cast<size_t>(n));
        }
        m_cv.notify_all();
        return n;
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::string m_text;
};

class SimThread
{
public:
    // Any free TCP port; the service's UDP port only when asked for (it is machine-wide).
    static kvsim::ServerOptions Options(std::uint32_t dwAgentSession)
    {
        kvsim::ServerOptions options;
        options.tcpPort = 0;
        options.udp = false;
        options.acceptTimeoutMs = 30000;
        options.handshakeTimeoutMs = 15000;
        options.engine.dwAgentSession = dwAgentSession;
        return options;
    }

    explicit SimThread(const kvsim::ServerOptions& options) : m_server(options, m_stream, m_stream)
    {
        m_bOpened = m_server.Open(m_error);
        if (m_bOpened)
            m_thread = std::thread([this] { m_nResult = m_server.Run(m_lines); });
    }
    ~SimThread()
    {
        m_server.RequestStop();
        m_lines.Close();
        if (m_thread.joinable())
            m_thread.join();
    }
    SimThread(const SimThread&) = delete;
    SimThread& operator=(const SimThread&) = delete;

    bool Opened() const { return m_bOpened; }
    const std::string& OpenError() const { return m_error; }
    std::uint16_t Port() const { return m_server.TcpPort(); }

    // Script lines; they run once the handshake is done, in order.
    void Play(std::initializer_list<std::string> lines)
    {
        for (const std::string& line : lines)
            m_lines.Push(line);
    }
    // Waits until every line played so far has run (expect steps included), at most ms.
    bool Settle(DWORD ms)
    {
        const std::string mark = "settled " + std::to_string(++m_nMarks);
        m_lines.Push("note " + mark);
        return m_trace.WaitFor("-- " + mark + "\n", ms);
    }
    bool WaitTrace(const std::string& part, DWORD ms) const { return m_trace.WaitFor(part, ms); }
    bool Handshaken(DWORD ms) const { return WaitTrace("-- handshake complete", ms); }
    std::string Trace() const { return m_trace.Text(); }

    // Ends the script and the server: 0 when the agent broke no rule and every expectation held.
    int Finish()
    {
        m_lines.Close();
        if (m_thread.joinable())
            m_thread.join();
        return m_nResult;
    }
    // After Finish: what went wrong, one line each.
    std::string Errors() const
    {
        std::string out;
        for (const std::string& e : m_server.GetReporter().Errors())
            out += e + "\n";
        return out;
    }

private:
    TraceBuffer m_trace;
    std::ostream m_stream{&m_trace};
    kvsim::LineQueue m_lines;
    kvsim::Server m_server;
    std::thread m_thread;
    bool m_bOpened = false;
    std::string m_error;
    int m_nResult = -1;
    unsigned m_nMarks = 0;
};

// Long enough for a loaded machine; only a failing check waits that long.
constexpr DWORD kE2eWait = 15000;
constexpr UINT kTrayIconId = 44444;

// Asks done every 50 ms until it holds, at most ms; its last answer.
inline bool WaitUntil(const std::function<bool()>& done, DWORD ms = kE2eWait)
{
    for (const ULONGLONG end = GetTickCount64() + ms; GetTickCount64() < end; Sleep(50))
        if (done())
            return true;
    return done();
}

inline DWORD OwnSession()
{
    DWORD dwSession = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &dwSession);
    return dwSession;
}

// The process ended by itself (not killed, no fault) with this code.
inline ::testing::AssertionResult EndedWith(const AgentProcess& agent, int nCode)
{
    const DWORD dwCode = agent.Wait(kE2eWait);
    if (dwCode == Code(nCode))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "exit code " << static_cast<int>(dwCode) << " (0x" << std::hex
                                         << dwCode << "), expected " << std::dec << nCode;
}

class Resident
{
public:
    // desktopName: a fresh one when empty; szVirtualDesktop: see TestDesktop.
    explicit Resident(const kvsim::ServerOptions& options = SimThread::Options(OwnSession()),
                      const std::wstring& desktopName = std::wstring(), const wchar_t* szVirtualDesktop = nullptr)
        : desktop(desktopName, szVirtualDesktop), shell(desktop.Name(), ModuleFolder() + L"KVNXSTRES.dll", kTrayIconId),
          sim(options)
    {
        // Appending: the agent's child processes (settings editor) log into the same file.
        std::string xml = LogConfigXml(folder.Path() + L"agent.log", "TRACE");
        const std::string truncate = "'Append' value='false'";
        xml.replace(xml.find(truncate), truncate.size(), "'Append' value='true'");
        WriteTextFile(folder.Path() + L"KVNXST.Logging.xml", xml);
    }

    // Everything is in place for an agent.
    ::testing::AssertionResult Ready() const
    {
        if (!folder.Ready() || !desktop.Created())
            return ::testing::AssertionFailure() << "no agent folder or desktop";
        if (!shell.Ready())
            return ::testing::AssertionFailure() << "the stand-in shell is not the one the agent would reach";
        if (!sim.Opened())
            return ::testing::AssertionFailure() << "simulator: " << sim.OpenError();
        return ::testing::AssertionSuccess();
    }

    // Starts the agent with this command line (default: the simulator's port) and environment (null:
    // the test's own). From the shell's thread: Wine puts the agent's further threads on the desktop
    // of the thread that started it.
    bool Start(const std::wstring& arguments = std::wstring(), const wchar_t* environment = nullptr)
    {
        const std::wstring line = arguments.empty() ? std::to_wstring(sim.Port()) : arguments;
        shell.Run([&](FakeShell&) { agent = folder.Start(line, desktop.Name(), environment); });
        return agent.Started();
    }

    // Ready, started with this command line and through the handshake with the simulator.
    ::testing::AssertionResult Launch(const std::wstring& arguments = std::wstring(),
                                      const wchar_t* environment = nullptr)
    {
        ::testing::AssertionResult ready = Ready();
        if (!ready)
            return ready;
        if (!Start(arguments, environment))
            return ::testing::AssertionFailure() << "the agent did not start";
        if (!sim.Handshaken(kE2eWait))
            return ::testing::AssertionFailure() << "no handshake\n" << Story();
        return ::testing::AssertionSuccess();
    }

    // The service asks the agent to exit: it closes the link and ends with its own code, and the
    // simulator saw no fault.
    ::testing::AssertionResult ExitsOnRequest()
    {
        sim.Play({"exit", "expect-closed"});
        ::testing::AssertionResult ended = EndedWith(agent, KV_EXIT_ALREADY_RUNNING);
        if (!ended)
            return ended << "\n" << Story();
        if (sim.Finish() != 0)
            return ::testing::AssertionFailure() << sim.Errors() << Story();
        return ::testing::AssertionSuccess();
    }

    // The agent's hidden tray window, once it exists.
    HWND TrayWindow(DWORD ms = kE2eWait) const
    {
        return WaitForDesktopWindow(desktop.Name(), L"Kestrova Vexa Tray Icon Class",
                                    L"Kestrova Vexa Tray Icon", ms);
    }

    std::vector<std::string> LogLines() const { return Lines(folder.Log()); }
    // Polls the agent's log for a line of that level and logger with exactly this message.
    bool WaitForLog(const std::string& level, const std::string& logger, const std::string& message,
                    DWORD ms = kE2eWait) const
    {
        return WaitUntil([&] { return CountMessage(LogLines(), level, logger, message) != 0; }, ms);
    }
    // What a failure shows: the simulator's trace and the agent's log.
    std::string Story() const { return "--- simulator\n" + sim.Trace() + "--- agent log\n" + folder.Log(); }

    AgentFolder folder;
    TestDesktop desktop;
    DesktopShell shell;
    SimThread sim;
    AgentProcess agent; // last: ended before the shell and the simulator go
};

// The agent's dialogs on its desktop that hold a control of this id.
inline std::vector<HWND> AgentDialogsWith(const Resident& r, int nControlId)
{
    kvui::WindowQuery query;
    query.className = L"#32770";
    query.processId = r.agent.Id();
    query.desktop = r.desktop.Name();
    std::vector<HWND> found;
    for (HWND hWnd : kvui::FindWindows(query))
        if (GetDlgItem(hWnd, nControlId) != nullptr)
            found.push_back(hWnd);
    return found;
}

} // namespace kvtest
