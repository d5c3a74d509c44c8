#include "UtilService.h"

#include "KvHandles.h"
#include "KvLogging.h"
#include "UtilLog.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilService));

namespace
{

constexpr wchar_t KV_SERVICE_NAME[] = L"kvnxsv";

} // namespace

int IsServiceInstalled()
{
    KvLogBlock logBlock(logger, L"IsServiceInstalled");
    int bInstalled = 0;
    {
        const KvServiceHandle hManager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        if (!hManager)
        {
            LogErrorMsg(L"Unable to connect to Service Control Manager (OpenSCManager).", GetLastError());
        }
        else
        {
            KvServiceHandle hService(
                OpenServiceW(hManager.Get(), KV_SERVICE_NAME, SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS));
            // Only "no such service" is a definite no; a refusal may still leave a narrower
            // access open, and any open proves the service exists.
            if (!hService && GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
            {
                hService.Reset(OpenServiceW(hManager.Get(), KV_SERVICE_NAME, SERVICE_QUERY_STATUS));
                if (!hService)
                    hService.Reset(OpenServiceW(hManager.Get(), KV_SERVICE_NAME, SERVICE_START));
                if (!hService)
                    LogErrorMsg(L"Unable to query service (OpenService).", GetLastError());
            }
            bInstalled = hService ? 1 : 0;
        }
    }
    LOG4CXX_INFO(logger, L"IsServiceInstalled =" << bInstalled);
    SetLastError(0);
    return bInstalled;
}

int IsServiceRunning()
{
    KvLogBlock logBlock(logger, L"IsServiceRunning");
    int bRunning = 0;
    DWORD dwError = 0;
    {
        const KvServiceHandle hManager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        if (!hManager)
        {
            dwError = GetLastError();
            LogErrorMsg(L"Unable to connect to Service Control Manager (OpenSCManager) (1).", dwError);
        }
        else
        {
            KvServiceHandle hService(OpenServiceW(hManager.Get(), KV_SERVICE_NAME, SERVICE_QUERY_STATUS));
            if (!hService)
            {
                dwError = GetLastError();
                if (dwError != ERROR_SERVICE_DOES_NOT_EXIST)
                {
                    hService.Reset(OpenServiceW(hManager.Get(), KV_SERVICE_NAME, SERVICE_QUERY_STATUS));
                    if (!hService)
                    {
                        dwError = GetLastError();
                        LogErrorMsg(L"Unable to call OpenService (1).", dwError);
                    }
                }
            }
            if (hService)
            {
                SERVICE_STATUS status = {};
                if (QueryServiceStatus(hService.Get(), &status))
                {
                    dwError = 0;
                    bRunning = status.dwCurrentState == SERVICE_RUNNING ? 1 : 0;
                }
                else
                {
                    dwError = GetLastError();
                    LogErrorMsg(L"Unable to Query Service Status (1).", dwError);
                }
            }
        }
    }
    LOG4CXX_INFO(logger, L"IsServiceRunning =" << bRunning);
    SetLastError(dwError == ERROR_IO_PENDING ? 0 : dwError);
    return bRunning;
}

DWORD StartLocalKvnxsvService()
{
    KvLogBlock logBlock(logger, L"StartLocalKvnxsvService");
    LOG4CXX_INFO(logger, L"StartLocalKvnxsvService");
    DWORD dwError = 0;
    {
        const KvServiceHandle hManager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        KvServiceHandle hService(hManager ? OpenServiceW(hManager.Get(), KV_SERVICE_NAME, SERVICE_START) : nullptr);
        if (!hService || !StartServiceW(hService.Get(), 0, nullptr))
            dwError = GetLastError();
    }
    if (dwError != 0)
        LogErrorMsg(L"Unable to start service (StartService).", dwError);
    LOG4CXX_INFO(logger, L"StartLocalKvnxsvService exit dwError=" << dwError);
    SetLastError(dwError);
    return dwError;
}

int ReadServiceSettingDword(const wchar_t* szName, DWORD* pdwValue)
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Kestrova Development\\Vexa Remote Control Service\\Settings", 0,
                      KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
        return 0;
    DWORD dwType = 0;
    DWORD dwValue = 0;
    DWORD cbValue = sizeof dwValue;
    const LONG lResult =
        RegQueryValueExW(hKey, szName, nullptr, &dwType, reinterpret_cast<BYTE*>(&dwValue), &cbValue);
    RegCloseKey(hKey);
    // Only a true 32-bit value counts; anything else is a broken setting.
    if (lResult == ERROR_SUCCESS && dwType == REG_DWORD && cbValue == sizeof dwValue)
    {
        *pdwValue = dwValue;
        return 1;
    }
    if (lResult != ERROR_FILE_NOT_FOUND)
        LOG4CXX_WARN(logger, szName << L" value ignored: lResult=" << lResult << L" dwType=" << dwType
                                    << L" cbValue=" << cbValue);
    return 0;
}

unsigned int GetServicePort(unsigned int uiPort)
{
    KvLogBlock logBlock(logger, L"GetServicePort");
    DWORD dwPort = 0;
    const unsigned int uiResult =
        ReadServiceSettingDword(L"Port", &dwPort) ? dwPort : (uiPort == 0xFFFFFFFF ? 6129 : uiPort);
    LOG4CXX_INFO(logger, L"GetServicePort uiPort=" << uiPort << L" result=" << uiResult);
    return uiResult;
}
