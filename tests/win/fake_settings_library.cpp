// Stands in for the settings library KVNXSET.DLL: records each call (see fake_record.h). The
// dialog answers with KVNXST_TEST_SETTINGS_RESULT, 1 when unset.
#include "fake_record.h"

#include <windows.h>

#include <cwchar>
#include <string>

extern "C" __declspec(dllexport) void WINAPI KVNX_SetApplicationMode()
{
    kvtest::AppendRecord(L"SetApplicationMode");
}

extern "C" __declspec(dllexport) int WINAPI KVNX_SettingsDialog(HWND hOwner)
{
    kvtest::AppendRecord(L"SettingsDialog owner=" +
                         std::to_wstring(reinterpret_cast<unsigned long long>(hOwner)));
    wchar_t szResult[16] = {};
    if (GetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", szResult, 16) == 0)
        return 1;
    return static_cast<int>(std::wcstol(szResult, nullptr, 10));
}
