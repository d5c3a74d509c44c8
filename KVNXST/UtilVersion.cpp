#include "UtilVersion.h"

#include "KvLogging.h"
#include "KvSystemApi.h"

#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilVersion));

bool KvVersionAtLeast(DWORD dwMajor, DWORD dwMinor, WORD wServicePackMajor, DWORD dwRequiredMajor,
                      DWORD dwRequiredMinor, WORD wRequiredServicePackMajor)
{
    if (dwMajor != dwRequiredMajor)
        return dwMajor > dwRequiredMajor;
    if (dwMinor != dwRequiredMinor)
        return dwMinor > dwRequiredMinor;
    return wServicePackMajor >= wRequiredServicePackMajor;
}

int IsWindowsVersionEqualOrGreater(DWORD dwMajor, DWORD dwMinor, WORD wServicePackMajor)
{
    KvLogBlock logBlock(logger, L"IsWindowsVersionEqualOrGreater");
    OSVERSIONINFOEXW osvi = {};
    osvi.dwOSVersionInfoSize = sizeof(osvi);
    if (KvGetSystemApi().pfnRtlGetVersion(&osvi) != 0)
    {
        LOG4CXX_WARN(logger, L"The system version cannot be read.");
        return 0;
    }
    const bool bResult = KvVersionAtLeast(osvi.dwMajorVersion, osvi.dwMinorVersion, osvi.wServicePackMajor,
                                          dwMajor, dwMinor, wServicePackMajor);
    LOG4CXX_DEBUG(logger, L"dwMajorVersion=" << osvi.dwMajorVersion << L" dwMinorVersion="
                                             << osvi.dwMinorVersion << L" wServicePackMajor="
                                             << osvi.wServicePackMajor << L" bResult=" << bResult);
    return bResult ? 1 : 0;
}

int IsWindows10OrGreater()
{
    KvLogBlock logBlock(logger, L"IsWindows10OrGreater");
    return IsWindowsVersionEqualOrGreater(10, 0, 0);
}

WORD GetFileMajorVersion(const wchar_t* szModule)
{
    KvLogBlock logBlock(logger, L"GetFileMajorVersion");
    if (szModule == nullptr)
        return 0;
    DWORD dwHandle = 0;
    const DWORD cb = GetFileVersionInfoSizeW(szModule, &dwHandle);
    if (cb == 0)
        return 0;
    std::vector<BYTE> block(cb);
    if (!GetFileVersionInfoW(szModule, 0, cb, block.data()))
        return 0;
    VS_FIXEDFILEINFO* pInfo = nullptr;
    UINT cbInfo = 0;
    if (!VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&pInfo), &cbInfo) || pInfo == nullptr ||
        cbInfo < sizeof(VS_FIXEDFILEINFO))
        return 0;
    const WORD wMajor = HIWORD(pInfo->dwFileVersionMS);
    LOG4CXX_DEBUG(logger, L"szModule=" << szModule << L" wMajor=" << wMajor);
    return wMajor;
}
