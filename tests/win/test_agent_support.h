// Shared by the start-up tests: the built agent run from a folder of its own with a TRACE log,
// desktops of the tests' own, and registry values put back after a test.
#pragma once

#include "desktop_windows.h"
#include "test_logging_support.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kvtest
{

// Exit codes as GetExitCodeProcess reports them.
// What a tray agent that a test closed returns: the exit code nobody changed.
constexpr int kTrayAgentClosed = 0;

inline DWORD Code(int n)
{
    return static_cast<DWORD>(n);
}

// A desktop of the test's own in the current window station. An agent on it has its own
// single-instance object, so runs of different tests never meet.
// With a size ("1024x768"), Wine gives it a virtual-desktop window of its own as it gives the
// prefix's "Default"; without, its windows are bare X11 windows, and on a display without a window
// manager each shown window that hides waits 2 s for a withdrawal that never comes.
class TestDesktop
{
public:
    // A fresh name unless one is given.
    explicit TestDesktop(std::wstring name = std::wstring(), const wchar_t* szVirtualSize = nullptr)
        : m_bVirtual(szVirtualSize != nullptr), m_name(std::move(name))
    {
        static LONG counter = 0;
        if (m_name.empty())
            m_name = L"kvtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                     std::to_wstring(InterlockedIncrement(&counter));
        if (m_bVirtual)
            RegSetKeyValueW(HKEY_CURRENT_USER, kVirtualDesktops, m_name.c_str(), REG_SZ, szVirtualSize,
                            static_cast<DWORD>((wcslen(szVirtualSize) + 1) * sizeof(wchar_t)));
        m_hDesk = CreateDesktopW(m_name.c_str(), nullptr, nullptr, 0, GENERIC_ALL, nullptr);
    }
    ~TestDesktop()
    {
        if (m_hDesk != nullptr)
            CloseDesktop(m_hDesk);
        if (m_bVirtual)
            RegDeleteKeyValueW(HKEY_CURRENT_USER, kVirtualDesktops, m_name.c_str());
    }
    TestDesktop(const TestDesktop&) = delete;
    TestDesktop& operator=(const TestDesktop&) = delete;

    bool Created() const { return m_hDesk != nullptr; }
    const std::wstring& Name() const { return m_name; }
    // Through a handle of its own: Wine closes a thread's desktop handle when the thread ends.
    bool SetOnThisThread() const
    {
        HDESK hDesk = OpenDesktopW(m_name.c_str(), 0, FALSE, GENERIC_ALL);
        return hDesk != nullptr && SetThreadDesktop(hDesk);
    }

private:
    static constexpr const wchar_t* kVirtualDesktops = L"Software\\Wine\\Explorer\\Desktops";
    bool m_bVirtual;
    std::wstring m_name;
    HDESK m_hDesk = nullptr;
};

struct AgentRun
{
    DWORD dwExitCode = 0xDEADBEEF;
    DWORD dwMainThread = 0;
    std::string log;
    std::vector<std::string> lines;

    size_t Count(const std::string& part) const { return CountContaining(lines, part); }
};

// An agent started without waiting for it. It runs until it ends on its own or the test ends
// it; the object ends it (exit code 999) at the latest when it goes.
class AgentProcess
{
public:
    AgentProcess() = default;
    explicit AgentProcess(const PROCESS_INFORMATION& pi)
        : m_hProcess(pi.hProcess), m_dwId(pi.dwProcessId), m_dwMainThread(pi.dwThreadId)
    {
        CloseHandle(pi.hThread);
    }
    ~AgentProcess()
    {
        if (m_hProcess == nullptr)
            return;
        End();
        CloseHandle(m_hProcess);
    }
    AgentProcess(AgentProcess&& other) noexcept { *this = std::move(other); }
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;
    // The agent held before goes with the other object.
    AgentProcess& operator=(AgentProcess&& other) noexcept
    {
        std::swap(m_hProcess, other.m_hProcess);
        std::swap(m_dwId, other.m_dwId);
        std::swap(m_dwMainThread, other.m_dwMainThread);
        return *this;
    }

    bool Started() const { return m_hProcess != nullptr; }
    DWORD Id() const { return m_dwId; }
    HANDLE Handle() const { return m_hProcess; }
    DWORD MainThread() const { return m_dwMainThread; }
    // Waits up to ms for the end: the exit code, or STILL_ACTIVE while it runs.
    DWORD Wait(DWORD ms) const
    {
        DWORD dwCode = STILL_ACTIVE;
        if (m_hProcess != nullptr && WaitForSingleObject(m_hProcess, ms) == WAIT_OBJECT_0)
            GetExitCodeProcess(m_hProcess, &dwCode);
        return dwCode;
    }
    // Ends it with 999 unless it has ended; its exit code.
    DWORD End() const
    {
        if (m_hProcess != nullptr && WaitForSingleObject(m_hProcess, 0) != WAIT_OBJECT_0)
            TerminateProcess(m_hProcess, 999);
        return Wait(10000);
    }

private:
    HANDLE m_hProcess = nullptr;
    DWORD m_dwId = 0;
    DWORD m_dwMainThread = 0;
};

// A copy of the built agent and its resource library in a temporary folder on drive C:, with a
// TRACE configuration writing "level|logger|thread|place|message" lines. Runs start in that folder,
// so the console-lock record lands at C:\kvnxs.
class AgentFolder
{
public:
    AgentFolder() : m_exe(m_folder.Path() + L"KVNXST.exe"), m_log(m_folder.Path() + L"agent.log")
    {
        m_bReady = Add(L"KVNXST.exe", L"KVNXST.exe") && Add(L"KVNXSTRES.dll", L"KVNXSTRES.dll");
        WriteTextFile(m_folder.Path() + L"KVNXST.Logging.xml", LogConfigXml(m_log, "TRACE"));
    }

    bool Ready() const { return m_bReady; }
    const std::wstring& Path() const { return m_folder.Path(); }
    // Copies a file from the test's own folder into the agent's.
    bool Add(const wchar_t* from, const wchar_t* to) const
    {
        return CopyFileW((ModuleFolder() + from).c_str(), (Path() + to).c_str(), FALSE) != FALSE;
    }

    // Starts the agent on the named desktop (empty: the test's own) with a fresh log, in this
    // environment (null: the test's own).
    AgentProcess Start(const std::wstring& arguments, const std::wstring& desktop = std::wstring(),
                       const wchar_t* environment = nullptr) const
    {
        DeleteFileW(m_log.c_str());
        std::wstring commandLine = L"\"" + m_exe + L"\" " + arguments;
        std::wstring startupDesktop = L"WinSta0\\" + desktop;
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        si.lpDesktop = desktop.empty() ? nullptr : &startupDesktop[0];
        PROCESS_INFORMATION pi = {};
        if (!CreateProcessW(m_exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE,
                            CREATE_UNICODE_ENVIRONMENT, const_cast<wchar_t*>(environment), Path().c_str(),
                            &si, &pi))
            return AgentProcess();
        return AgentProcess(pi);
    }

    // Runs the agent on the named desktop (empty: the test's own) and waits for it; a tray agent is
    // closed once its window exists (exit code 0), and a run that hangs is ended with 999.
    AgentRun Run(const std::wstring& arguments, const std::wstring& desktop = std::wstring(),
                 const wchar_t* environment = nullptr) const
    {
        AgentRun run;
        {
            const AgentProcess agent = Start(arguments, desktop, environment);
            if (!agent.Started())
                return run;
            run.dwMainThread = agent.MainThread();
            // A tray agent runs until closed: it is closed as soon as its window exists.
            bool bClosed = false;
            for (int nWait = 0; nWait < 1200 && run.dwExitCode == 0xDEADBEEF; ++nWait)
            {
                const DWORD dwCode = agent.Wait(50);
                if (dwCode != STILL_ACTIVE)
                    run.dwExitCode = dwCode;
                else if (!bClosed)
                {
                    HWND hTray =
                        kvui::WaitForWindow({L"Kestrova Vexa Tray Icon Class", L"", agent.Id(), desktop});
                    bClosed = hTray != nullptr && PostMessageW(hTray, WM_CLOSE, 0, 0);
                }
            }
            if (run.dwExitCode == 0xDEADBEEF)
                run.dwExitCode = agent.End();
        }
        run.log = Log();
        run.lines = Lines(run.log);
        return run;
    }

    std::string Log() const { return ReadTextFile(m_log); }

private:
    TempFolder m_folder;
    std::wstring m_exe;
    std::wstring m_log;
    bool m_bReady = false;
};

// A registry value under the product's "Settings" key that a test sets: the service's "Port" (HKLM)
// or the user's "LangUI" (HKCU). The test prefix has neither, so it is removed before and after.
class ScopedSetting
{
public:
    ScopedSetting(HKEY hRoot, const wchar_t* szName) : m_name(szName)
    {
        RegCreateKeyExW(hRoot, L"Software\\Kestrova Development\\Vexa Remote Control Service\\Settings", 0,
                        nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_hKey, nullptr);
        Remove();
    }
    ~ScopedSetting()
    {
        Remove();
        RegCloseKey(m_hKey);
    }
    ScopedSetting(const ScopedSetting&) = delete;
    ScopedSetting& operator=(const ScopedSetting&) = delete;

    bool Opened() const { return m_hKey != nullptr; }
    bool Set(DWORD dwType, const void* pData, DWORD cbData)
    {
        return RegSetValueExW(m_hKey, m_name.c_str(), 0, dwType, static_cast<const BYTE*>(pData), cbData) ==
               ERROR_SUCCESS;
    }
    bool SetText(const wchar_t* sz) { return Set(REG_SZ, sz, static_cast<DWORD>((wcslen(sz) + 1) * 2)); }
    void Remove() { RegDeleteValueW(m_hKey, m_name.c_str()); }

private:
    HKEY m_hKey = nullptr;
    std::wstring m_name;
};

} // namespace kvtest
