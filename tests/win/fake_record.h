// How the stand-in programs and libraries tell a test what was asked of them: one line per call,
// appended to the file named by the environment variable KVNXST_TEST_RECORD.
#pragma once

#include <windows.h>

#include <string>

namespace kvtest
{

inline void AppendRecord(const std::wstring& line)
{
    wchar_t szPath[MAX_PATH] = {};
    const DWORD cch = GetEnvironmentVariableW(L"KVNXST_TEST_RECORD", szPath, MAX_PATH);
    if (cch == 0 || cch >= MAX_PATH)
        return;
    HANDLE hFile = CreateFileW(szPath, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE)
        return;
    const std::wstring text = line + L"\n";
    char buf[2048];
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), buf,
                                      sizeof buf, nullptr, nullptr);
    DWORD dwWritten = 0;
    WriteFile(hFile, buf, static_cast<DWORD>(n), &dwWritten, nullptr);
    CloseHandle(hFile);
}

} // namespace kvtest
