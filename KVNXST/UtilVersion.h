// The Windows version and the versions of modules. The version comes from the system itself
// (RtlGetVersion through the system table), so a missing or old manifest does not change it.
// Not to be included with <versionhelpers.h>, which has inline functions of the same names.
#pragma once

#include <windows.h>

// Pure comparison: true when the version (major, minor, service-pack major) is at least the
// required one.
bool KvVersionAtLeast(DWORD dwMajor, DWORD dwMinor, WORD wServicePackMajor, DWORD dwRequiredMajor,
                      DWORD dwRequiredMinor, WORD wRequiredServicePackMajor);

// 1 when the running system is at least the given version; 0 when older or it cannot be read.
int IsWindowsVersionEqualOrGreater(DWORD dwMajor, DWORD dwMinor, WORD wServicePackMajor);

// 1 on Windows 10 or later.
int IsWindows10OrGreater();

// The major file version of a module ("Shell32.dll"), read from its version resource's root block;
// 0 when it has none.
WORD GetFileMajorVersion(const wchar_t* szModule);
