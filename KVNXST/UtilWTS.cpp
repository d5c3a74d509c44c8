#include "UtilWTS.h"

#include "KvLogging.h"
#include "KvSystemApi.h"

#include <wtsapi32.h>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilWTS));

DWORD g_nSessionId = 0;

namespace
{

constexpr DWORD kNoConsoleSession = 0xFFFFFFFF;

} // namespace

DWORD GetSessionID()
{
    KvLogBlock logBlock(logger, L"GetSessionID");
    DWORD dwSessionId = 0;
    if (!KvGetSystemApi().pfnProcessIdToSessionId(GetCurrentProcessId(), &dwSessionId))
        return 0;
    return dwSessionId;
}

int GetActiveConsoleID(DWORD* pdwConsoleId)
{
    KvLogBlock logBlock(logger, L"GetActiveConsoleID");
    const KvSystemApi& api = KvGetSystemApi();
    // Right after a session switch the first answer can still name the old console session.
    DWORD dwId = api.pfnWTSGetActiveConsoleSessionId();
    Sleep(0);
    Sleep(1000);
    dwId = api.pfnWTSGetActiveConsoleSessionId();
    if (pdwConsoleId != nullptr)
        *pdwConsoleId = dwId;
    LOG4CXX_DEBUG(logger, L"dwConsoleId=" << dwId);
    SetLastError(0);
    return dwId != kNoConsoleSession ? 1 : 0;
}

int GetActiveSessionID()
{
    KvLogBlock logBlock(logger, L"GetActiveSessionID");
    const KvSystemApi& api = KvGetSystemApi();
    PWTS_SESSION_INFOW pSessions = nullptr;
    DWORD dwCount = 0;
    if (!api.pfnWTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &pSessions, &dwCount))
        return -1;
    int nActive = -1;
    for (DWORD i = 0; i < dwCount && pSessions != nullptr; ++i)
    {
        if (pSessions[i].State == WTSActive)
        {
            nActive = static_cast<int>(pSessions[i].SessionId);
            break;
        }
    }
    if (pSessions != nullptr)
        api.pfnWTSFreeMemory(pSessions);
    LOG4CXX_DEBUG(logger, L"nActiveSessionId=" << nActive);
    return nActive;
}

int IsSessionActive()
{
    KvLogBlock logBlock(logger, L"IsSessionActive");
    const KvSystemApi& api = KvGetSystemApi();
    LPWSTR pBuffer = nullptr;
    DWORD cb = 0;
    int nActive = 0;
    if (api.pfnWTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, g_nSessionId, WTSConnectState, &pBuffer,
                                           &cb) &&
        pBuffer != nullptr && cb >= sizeof(INT))
    {
        nActive = *reinterpret_cast<const INT*>(pBuffer) == WTSActive ? 1 : 0;
    }
    else
    {
        // No answer, whether the library or function is missing or the query failed (terminal
        // services stopped, or Wine): the console is then the session that counts.
        LOG4CXX_INFO(logger, L"The session state query gave no answer. Error = " << GetLastError()
                                                                                  << L"; asking for the console.");
        DWORD dwConsoleId = kNoConsoleSession;
        nActive = GetActiveConsoleID(&dwConsoleId) && dwConsoleId == g_nSessionId ? 1 : 0;
    }
    if (pBuffer != nullptr)
        api.pfnWTSFreeMemory(pBuffer);
    LOG4CXX_INFO(logger, L"bActive=" << nActive);
    return nActive;
}

bool IsSessionLockedWindows10()
{
    KvLogBlock logBlock(logger, L"IsSessionLockedWindows10");
    const KvSystemApi& api = KvGetSystemApi();

    // Both functions must be there before the second-long console query is worth its time.
    for (const char* szName : {"WTSQuerySessionInformationW", "WTSFreeMemory"})
    {
        if (api.pfnFindWTSFunction(szName))
            continue;
        if (GetLastError() == ERROR_MOD_NOT_FOUND)
            LOG4CXX_ERROR(logger, L"Unable to load wtsapi32.dll.");
        else
            LOG4CXX_ERROR(logger, L"Unable to load query for " << szName << L" function in  wtsapi32.dll.");
        return false;
    }

    DWORD dwConsoleId = kNoConsoleSession;
    GetActiveConsoleID(&dwConsoleId);

    LPWSTR pBuffer = nullptr;
    DWORD cb = 0;
    if (!api.pfnWTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION,
                                            static_cast<WTS_INFO_CLASS>(KV_WTSSessionInfoEx), &pBuffer, &cb))
        return false;
    if (pBuffer == nullptr)
        return false;

    bool bLocked = false;
    if (cb < sizeof(KV_WTSINFOEXW))
    {
        LOG4CXX_ERROR(logger, L"Returned data for KV_WTSSessionInfoEx query is less then size of "
                              L"KV_WTSINFOEXW structure.");
    }
    else
    {
        const KV_WTSINFOEXW* pInfo = reinterpret_cast<const KV_WTSINFOEXW*>(pBuffer);
        bLocked = pInfo->Level != 1 || pInfo->Data.WTSInfoExLevel1.SessionFlags == KV_WTS_SESSIONSTATE_LOCK;
    }
    api.pfnWTSFreeMemory(pBuffer);
    LOG4CXX_INFO(logger, L"bLocked=" << bLocked);
    return bLocked;
}

bool isDesktopLockedWindows10()
{
    return IsSessionLockedWindows10();
}

int IsUserDesktopInitialized()
{
    KvLogBlock logBlock(logger, L"IsUserDesktopInitialized");
    return KvGetSystemApi().pfnFindWindowW(L"Shell_TrayWnd", nullptr) != nullptr ? 1 : 0;
}

int RegisterSessionNotification(HWND hWnd)
{
    KvLogBlock logBlock(logger, L"RegisterSessionNotification");
    return KvGetSystemApi().pfnWTSRegisterSessionNotification(hWnd, NOTIFY_FOR_THIS_SESSION) ? 1 : 0;
}

int UnRegisterSessionNotification(HWND hWnd)
{
    KvLogBlock logBlock(logger, L"UnRegisterSessionNotification");
    return KvGetSystemApi().pfnWTSUnRegisterSessionNotification(hWnd) ? 1 : 0;
}

namespace KvWTS
{

int IsUserAnAdmin()
{
    KvLogBlock logBlock(logger, L"IsUserAnAdmin");
    return KvGetSystemApi().pfnIsUserAnAdmin() ? 1 : 0;
}

} // namespace KvWTS
