// One resident agent for an end-to-end test: the built exe on a desktop of its own with the
// stand-in shell there, linked over loopback to the simulator on a thread of the test.
#pragma once

#include "fake_shell_desktop.h"
#include "sim_thread.h"
#include "test_agent_support.h"

#include "KVNXST.h"

#include <windows.h>

#include <string>

namespace kvtest
{

// Long enough for a loaded machine; only a failing check waits that long.
constexpr DWORD kE2eWait = 15000;
constexpr UINT kTrayIconId = 44444;

inline DWORD OwnSession()
{
    DWORD dwSession = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &dwSession);
    return dwSession;
}

class Resident
{
public:
    explicit Resident(const kvsim::ServerOptions& options = SimThread::Options(OwnSession()))
        : shell(desktop.Name(), ModuleFolder() + L"KVNXSTRES.dll", kTrayIconId), sim(options)
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

    // Starts the agent with this command line (default: the simulator's port). From the shell's
    // thread: Wine puts the agent's further threads on the desktop of the thread that started it.
    bool Start(const std::wstring& arguments = std::wstring())
    {
        const std::wstring line = arguments.empty() ? std::to_wstring(sim.Port()) : arguments;
        shell.Run([&](FakeShell&) { agent = folder.Start(line, desktop.Name()); });
        return agent.Started();
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
        const ULONGLONG end = GetTickCount64() + ms;
        for (;;)
        {
            if (CountMessage(LogLines(), level, logger, message) != 0)
                return true;
            if (GetTickCount64() >= end)
                return false;
            Sleep(50);
        }
    }
    // What a failure shows: the simulator's trace and the agent's log.
    std::string Story() const { return "--- simulator\n" + sim.Trace() + "--- agent log\n" + folder.Log(); }

    AgentFolder folder;
    TestDesktop desktop;
    DesktopShell shell;
    SimThread sim;
    AgentProcess agent; // last: ended before the shell and the simulator go
};

} // namespace kvtest
