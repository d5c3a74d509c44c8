// The stand-in service "kvnxsv" (kvnxst_fake_service.exe beside the tests) in Wine's real Service
// Control Manager: absent when the object is made and again when it goes.
#pragma once

#include "test_logging_support.h"

#include <windows.h>

#include <string>

namespace kvtest
{

class StandInService
{
public:
    StandInService() { Remove(); }
    ~StandInService()
    {
        Remove();
        CloseServiceHandle(m_hManager);
    }
    StandInService(const StandInService&) = delete;
    StandInService& operator=(const StandInService&) = delete;

    // Installs it, stopped; false (GetLastError says why) when that failed.
    bool Install() const
    {
        const std::wstring command = L"\"" + ModuleFolder() + L"kvnxst_fake_service.exe\"";
        SC_HANDLE h = CreateServiceW(m_hManager, L"kvnxsv", L"kvnxsv stand-in", SERVICE_ALL_ACCESS,
                                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                     command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
        if (h == nullptr)
            return false;
        CloseServiceHandle(h);
        return true;
    }
    // Starts it and waits until it runs.
    bool Start() const
    {
        SC_HANDLE h = OpenServiceW(m_hManager, L"kvnxsv", SERVICE_ALL_ACCESS);
        const bool bStarted = h != nullptr && StartServiceW(h, 0, nullptr);
        CloseServiceHandle(h);
        return bStarted && Control(0, SERVICE_RUNNING);
    }
    // Sends the control (0: none) and waits for the state; true when it was reached.
    bool Control(DWORD dwControl, DWORD dwState) const
    {
        SC_HANDLE h = OpenServiceW(m_hManager, L"kvnxsv", SERVICE_ALL_ACCESS);
        SERVICE_STATUS status = {};
        if (dwControl != 0)
            ControlService(h, dwControl, &status);
        for (int i = 0; i < 100 && QueryServiceStatus(h, &status) && status.dwCurrentState != dwState; ++i)
            Sleep(100);
        CloseServiceHandle(h);
        return status.dwCurrentState == dwState;
    }
    void Remove() const
    {
        SC_HANDLE h = OpenServiceW(m_hManager, L"kvnxsv", SERVICE_ALL_ACCESS);
        if (h != nullptr && Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED))
            DeleteService(h);
        CloseServiceHandle(h);
    }

private:
    const SC_HANDLE m_hManager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
};

} // namespace kvtest
