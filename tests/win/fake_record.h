// How the stand-in programs and libraries tell a test what was asked of them: one line per call,
// appended to the file named by the environment variable KVNXST_TEST_RECORD.
#pragma once

#include <windows.h>

#include <cstdio>
#include <string>

namespace kvtest
{

inline void AppendRecord(const std::wstring& line)
{
    wchar_t szPath[MAX_PATH] = {};
    const DWORD cch = GetEnvironmentVariableW(L"KVNXST_TEST_RECORD", szPath, MAX_PATH);
    FILE* f = cch != 0 && cch < MAX_PATH ? _wfopen(szPath, L"ab") : nullptr;
    if (f == nullptr)
        return;
    std::fprintf(f, "%ls\n", line.c_str());
    std::fclose(f);
}

} // namespace kvtest
