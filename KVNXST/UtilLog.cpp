#include "UtilLog.h"

#include "KvHandles.h"
#include "KvLogText.h"
#include "KvLogging.h"

#include <atomic>
#include <cwchar>
#include <memory>
#include <new>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilLog));

namespace
{

const KvEventLogApi g_systemEventLogApi = {RegisterEventSourceW, ReportEventW};
std::atomic<const KvEventLogApi*> g_pEventLogApi{&g_systemEventLogApi};

// Registered on first use and kept for the life of the process; two threads racing on the first
// report may both register, which costs one spare handle.
std::atomic<HANDLE> g_hEventSource{nullptr};

const wchar_t* OrEmpty(const wchar_t* s)
{
    return s != nullptr ? s : L"";
}

} // namespace

const KvEventLogApi* KvSetEventLogApi(const KvEventLogApi* api)
{
    const KvEventLogApi* previous = g_pEventLogApi.exchange(api != nullptr ? api : &g_systemEventLogApi);
    g_hEventSource.store(nullptr);
    return previous;
}

void ReportEventLog(WORD wType, DWORD dwEventId, const wchar_t* s1, const wchar_t* s2, const wchar_t* s3)
{
    const wchar_t* first = OrEmpty(s1);
    const size_t cchFirst = std::wcslen(first);
    // Twice the length plus 64 bytes, in characters.
    const size_t cchCopy = (2 * cchFirst + 64 + sizeof(wchar_t) - 1) / sizeof(wchar_t);
    std::unique_ptr<wchar_t[]> copy(new (std::nothrow) wchar_t[cchCopy]);
    if (!copy)
        return;
    std::wmemcpy(copy.get(), first, cchFirst);
    copy[cchFirst] = L'\0';

    const KvEventLogApi* api = g_pEventLogApi.load();
    HANDLE hSource = g_hEventSource.load();
    if (hSource == nullptr)
    {
        hSource = api->pfnRegisterEventSourceW(nullptr, L"kvnxsv");
        if (hSource == nullptr)
            return; // tried again on the next report
        g_hEventSource.store(hSource);
    }

    // The insertion strings are the non-null ones, in order, without gaps.
    LPCWSTR strings[3] = {copy.get(), nullptr, nullptr};
    WORD wNumStrings = 1;
    if (s2 != nullptr)
        strings[wNumStrings++] = s2;
    if (s3 != nullptr)
        strings[wNumStrings++] = s3;

    api->pfnReportEventW(hSource, wType, 0, dwEventId, nullptr, wNumStrings, 0, strings, nullptr);
}

void LogErrorMsg(const wchar_t* msg, DWORD dwErr)
{
    // Read before logging: the appenders may overwrite the thread's last error.
    const DWORD dwLastError = GetLastError();
    LOG4CXX_ERROR(logger, L"LogErrorMsg dwErr=" << dwErr << L": " << OrEmpty(msg));

    const DWORD dwCode = KvEventErrorCode(dwErr, dwLastError);
    wchar_t szText[KV_EVENT_TEXT_CHARS];
    KvFormatErrorEventText(szText, KV_EVENT_TEXT_CHARS, dwCode, msg);
    ReportEventLog(KvEventTypeForCode(dwCode), 0, szText, nullptr, nullptr);
}

void LogInformationMsg(const wchar_t* msg)
{
    LOG4CXX_INFO(logger, L"LogInformationMsg" << OrEmpty(msg));

    wchar_t szText[KV_EVENT_TEXT_CHARS];
    KvFormatInformationEventText(szText, KV_EVENT_TEXT_CHARS, msg);
    ReportEventLog(KV_EVENT_TYPE_INFORMATION, 0, szText, nullptr, nullptr);
}

std::wstring KvErrorText(DWORD dwError)
{
    const DWORD dwCode = HRESULT_FACILITY(dwError) == FACILITY_WIN32 ? HRESULT_CODE(dwError) : dwError;
    const bool bNetwork = dwCode >= 2100 && dwCode <= 2999;
    // As data, from the system folder only: no code of it runs.
    const KvModule netmsg(bNetwork ? LoadLibraryExW(L"netmsg.dll", nullptr,
                                                    LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_SEARCH_SYSTEM32)
                                   : nullptr);

    std::wstring text;
    wchar_t* pText = nullptr;
    if (!bNetwork || netmsg)
    {
        const DWORD dwFrom = bNetwork ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM;
        const DWORD cch = FormatMessageW(
            FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | dwFrom, netmsg.Get(), dwCode,
            MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL), reinterpret_cast<LPWSTR>(&pText), 0, nullptr);
        if (cch != 0 && pText != nullptr)
            text.assign(pText, cch);
        LocalFree(pText);
    }
    for (wchar_t& ch : text)
        if (ch == L'\r' || ch == L'\n')
            ch = L' ';
    while (!text.empty() && text.back() == L' ')
        text.pop_back();

    std::wstring out = L"Error: " + std::to_wstring(static_cast<int>(dwCode));
    if (!text.empty())
        out += L" - " + text;
    return out;
}
