// Errors and notices that the administrator must see: written to the log and to the Windows event
// log under the source "kvnxsv".
#pragma once

#include <windows.h>

#include <string>

// Logs msg with the error code and reports it to the event log: an error event for a non-zero
// code (dwErr, or GetLastError() when dwErr is 0; ERROR_IO_PENDING counts as no error), an
// information event otherwise.
void LogErrorMsg(const wchar_t* msg, DWORD dwErr);

// An error code as the log shows it: "Error: %d - %s" with the system's text on one line, or
// "Error: %d" when there is none. A Win32 code inside an HRESULT counts as the code itself; network
// codes (2100-2999) read their text from netmsg.dll.
std::wstring KvErrorText(DWORD dwError);

// Logs msg and reports it to the event log as an information event.
void LogInformationMsg(const wchar_t* msg);

// Writes one event under the "kvnxsv" source with the non-null strings among s1, s2, s3 as its
// insertion strings. Failures are ignored.
void ReportEventLog(WORD wType, DWORD dwEventId, const wchar_t* s1, const wchar_t* s2, const wchar_t* s3);

// The event-log functions ReportEventLog calls. The event log under Wine stores nothing, so
// tests put their own table in to see what would be written.
struct KvEventLogApi
{
    HANDLE(WINAPI* pfnRegisterEventSourceW)(LPCWSTR lpUNCServerName, LPCWSTR lpSourceName);
    BOOL(WINAPI* pfnReportEventW)
    (HANDLE hEventLog, WORD wType, WORD wCategory, DWORD dwEventID, PSID lpUserSid, WORD wNumStrings,
     DWORD dwDataSize, LPCWSTR* lpStrings, LPVOID lpRawData);
};

// Installs api (nullptr: the system's functions) and forgets the registered source, so the next
// report registers through the new table. Returns the previous table. Not for concurrent use.
const KvEventLogApi* KvSetEventLogApi(const KvEventLogApi* api);
