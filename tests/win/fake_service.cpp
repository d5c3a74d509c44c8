// Stands in for the remote-control service program. Started without arguments it is the service
// "kvnxsv" under the Service Control Manager; started with arguments (as "KVNXS.EXE -service" by
// the agent) it appends its command line to the record (fake_record.h) and exits.
#include "fake_record.h"

#include <windows.h>

namespace
{

SERVICE_STATUS_HANDLE g_hStatus = nullptr;
HANDLE g_hStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);

void Report(DWORD dwState)
{
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = dwState;
    status.dwControlsAccepted = dwState == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    SetServiceStatus(g_hStatus, &status);
}

DWORD WINAPI Handler(DWORD dwControl, DWORD, LPVOID, LPVOID)
{
    if (dwControl == SERVICE_CONTROL_STOP)
        Report(SERVICE_STOP_PENDING), SetEvent(g_hStopEvent);
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, LPWSTR*)
{
    g_hStatus = RegisterServiceCtrlHandlerExW(L"kvnxsv", Handler, nullptr);
    Report(SERVICE_RUNNING);
    WaitForSingleObject(g_hStopEvent, INFINITE);
    Report(SERVICE_STOPPED);
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR lpCmdLine, int)
{
    if (lpCmdLine != nullptr && lpCmdLine[0] != L'\0')
        return kvtest::AppendRecord(std::wstring(L"args=") + lpCmdLine), 0;
    wchar_t szName[] = L"kvnxsv";
    SERVICE_TABLE_ENTRYW table[] = {{szName, ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
