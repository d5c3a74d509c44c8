// Shared by the start-up tests: the built agent run from a folder of its own with a TRACE log,
// desktops of the tests' own, and a safe system table for tests that call the agent's code in
// process.
#pragma once

#include "test_logging_support.h"

#include "KvSystemApi.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kvtest
{

// Exit codes as GetExitCodeProcess reports them.
inline DWORD Code(int n)
{
    return static_cast<DWORD>(n);
}

// A desktop of the test's own in the current window station, closed at the end. An agent started
// on it has its own single-instance object, so tests running side by side do not meet.
class TestDesktop
{
public:
    TestDesktop()
    {
        static LONG counter = 0;
        m_name = L"kvtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(InterlockedIncrement(&counter));
        m_hDesk = CreateDesktopW(m_name.c_str(), nullptr, nullptr, 0, GENERIC_ALL, nullptr);
    }
    ~TestDesktop()
    {
        if (m_hDesk != nullptr)
            CloseDesktop(m_hDesk);
    }
    TestDesktop(const TestDesktop&) = delete;
    TestDesktop& operator=(const TestDesktop&) = delete;

    HDESK Handle() const { return m_hDesk; }
    // Moves the calling thread (without windows) onto the desktop, through a handle of its own: Wine
    // closes a thread's desktop handle when the thread ends.
    bool SetOnThisThread() const
    {
        HDESK hDesk = OpenDesktopW(m_name.c_str(), 0, FALSE, GENERIC_ALL);
        return hDesk != nullptr && SetThreadDesktop(hDesk);
    }
    const std::wstring& Name() const { return m_name; }
    // For STARTUPINFO's desktop field.
    std::wstring StartupName() const { return L"WinSta0\\" + m_name; }

private:
    std::wstring m_name;
    HDESK m_hDesk = nullptr;
};

struct AgentRun
{
    bool bStarted = false;
    DWORD dwExitCode = 0xDEADBEEF;
    std::string log;
    std::vector<std::string> lines;

    bool Has(const std::string& part) const { return CountContaining(lines, part) != 0; }
    size_t Count(const std::string& part) const { return CountContaining(lines, part); }

    // Lines of that level and logger whose message is exactly text.
    size_t CountMessage(const std::string& level, const std::string& logger, const std::string& text) const
    {
        size_t n = 0;
        const std::string head = level + "|" + logger + "|";
        const std::string tail = "|" + text;
        for (const std::string& line : lines)
            n += line.rfind(head, 0) == 0 && line.size() >= tail.size() &&
                         line.compare(line.size() - tail.size(), tail.size(), tail) == 0
                     ? 1
                     : 0;
        return n;
    }
};

// A copy of the built agent and its resource library in a temporary folder on drive C:, with a
// TRACE configuration that writes "level|logger|thread|place|message" lines. Runs start in that
// folder, so the console-lock record lands at C:\kvnxs.
class AgentFolder
{
public:
    AgentFolder() : m_exe(m_folder.Path() + L"KVNXST.exe"), m_log(m_folder.Path() + L"agent.log")
    {
        m_bReady = CopyFileW((ModuleFolder() + L"KVNXST.exe").c_str(), m_exe.c_str(), FALSE) != FALSE &&
                   CopyFileW((ModuleFolder() + L"KVNXSTRES.dll").c_str(),
                             (m_folder.Path() + L"KVNXSTRES.dll").c_str(), FALSE) != FALSE;
        WriteTextFile(m_folder.Path() + L"KVNXST.Logging.xml", LogConfigXml(m_log, "TRACE"));
    }

    bool Ready() const { return m_bReady; }
    const std::wstring& Path() const { return m_folder.Path(); }

    // Runs the agent with arguments on desktop (STARTUPINFO form, nullptr: the test's own) and
    // waits for it. A run that hangs is ended with 999.
    AgentRun Run(const std::wstring& arguments, const std::wstring* desktop = nullptr) const
    {
        AgentRun run;
        DeleteFileW(m_log.c_str());
        std::wstring commandLine = L"\"" + m_exe + L"\" " + arguments;
        std::wstring desktopName = desktop != nullptr ? *desktop : std::wstring();
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        si.lpDesktop = desktop != nullptr ? &desktopName[0] : nullptr;
        PROCESS_INFORMATION pi = {};
        if (!CreateProcessW(m_exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                            m_folder.Path().c_str(), &si, &pi))
            return run;
        run.bStarted = true;
        if (WaitForSingleObject(pi.hProcess, 60000) != WAIT_OBJECT_0)
            TerminateProcess(pi.hProcess, 999);
        GetExitCodeProcess(pi.hProcess, &run.dwExitCode);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
        run.log = ReadTextFile(m_log);
        run.lines = Lines(run.log);
        return run;
    }

    // Runs on a fresh desktop of the test's own.
    AgentRun RunOnOwnDesktop(const std::wstring& arguments) const
    {
        TestDesktop desktop;
        EXPECT_NE(nullptr, desktop.Handle());
        const std::wstring name = desktop.StartupName();
        return Run(arguments, &name);
    }

private:
    TempFolder m_folder;
    std::wstring m_exe;
    std::wstring m_log;
    bool m_bReady = false;
};

// A registry value changed by a test and put back as it was at the end.
class SavedRegistryValue
{
public:
    SavedRegistryValue(HKEY hRoot, const wchar_t* szSubKey, const wchar_t* szName) : m_name(szName)
    {
        if (RegCreateKeyExW(hRoot, szSubKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_hKey, nullptr) !=
            ERROR_SUCCESS)
        {
            m_hKey = nullptr;
            return;
        }
        DWORD cb = 0;
        m_bHad = RegQueryValueExW(m_hKey, m_name.c_str(), nullptr, &m_dwType, nullptr, &cb) == ERROR_SUCCESS;
        m_saved.resize(cb);
        if (m_bHad && cb != 0)
            RegQueryValueExW(m_hKey, m_name.c_str(), nullptr, &m_dwType, m_saved.data(), &cb);
    }
    ~SavedRegistryValue()
    {
        if (m_hKey == nullptr)
            return;
        if (m_bHad)
            RegSetValueExW(m_hKey, m_name.c_str(), 0, m_dwType, m_saved.data(),
                           static_cast<DWORD>(m_saved.size()));
        else
            RegDeleteValueW(m_hKey, m_name.c_str());
        RegCloseKey(m_hKey);
    }
    SavedRegistryValue(const SavedRegistryValue&) = delete;
    SavedRegistryValue& operator=(const SavedRegistryValue&) = delete;

    bool Opened() const { return m_hKey != nullptr; }
    bool Set(DWORD dwType, const void* pData, DWORD cbData)
    {
        return RegSetValueExW(m_hKey, m_name.c_str(), 0, dwType, static_cast<const BYTE*>(pData), cbData) ==
               ERROR_SUCCESS;
    }
    bool SetDword(DWORD dw) { return Set(REG_DWORD, &dw, sizeof dw); }
    bool SetText(const std::wstring& text)
    {
        return Set(REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }
    void Remove() { RegDeleteValueW(m_hKey, m_name.c_str()); }

private:
    HKEY m_hKey = nullptr;
    std::wstring m_name;
    bool m_bHad = false;
    DWORD m_dwType = 0;
    std::vector<BYTE> m_saved;
};

// The service's machine-wide port setting.
class ServicePortValue : public SavedRegistryValue
{
public:
    ServicePortValue()
        : SavedRegistryValue(HKEY_LOCAL_MACHINE,
                             L"SOFTWARE\\Kestrova Development\\Vexa Remote Control Service\\Settings",
                             L"Port")
    {
    }
};

// The user's interface language as the agent's language store keeps it.
class LanguageValue : public SavedRegistryValue
{
public:
    LanguageValue()
        : SavedRegistryValue(HKEY_CURRENT_USER,
                             L"Software\\Kestrova Development\\Vexa Remote Control Service\\Settings",
                             L"LangUI")
    {
    }
};

} // namespace kvtest
