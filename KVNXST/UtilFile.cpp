#include "UtilFile.h"

#include "KvException.h"
#include "KvHandles.h"
#include "KvLogging.h"
#include "KvSystemApi.h"

#include <shellapi.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilFile));

static_assert(sizeof(void*) != 8 || sizeof(SHELLEXECUTEINFOW) == 112, "SHELLEXECUTEINFOW layout");

int GetAgentPath(wchar_t* szPath, DWORD cchPath)
{
    if (szPath == nullptr || cchPath == 0)
        return 0;
    const DWORD cch = GetModuleFileNameW(nullptr, szPath, cchPath);
    if (cch == 0 || cch >= cchPath)
    {
        szPath[0] = L'\0';
        return 0;
    }
    return 1;
}

int GetAgentFolder(wchar_t* szFolder, DWORD cchFolder)
{
    KvLogBlock logBlock(logger, L"GetAgentFolder");
    if (szFolder == nullptr || cchFolder < 2)
        return 0;
    szFolder[0] = L'\0';
    wchar_t szModule[MAX_PATH] = {};
    if (!GetAgentPath(szModule, MAX_PATH))
        return 0;
    wchar_t* pSlash = std::wcsrchr(szModule, L'\\');
    if (pSlash != nullptr)
        pSlash[1] = L'\0';
    else
        szModule[0] = L'\0';
    const size_t cch = std::wcslen(szModule);
    const bool bSlash = cch > 0 && szModule[cch - 1] == L'\\';
    if (cch + (bSlash ? 0 : 1) >= cchFolder)
        return 0;
    std::wcscpy(szFolder, szModule);
    if (!bSlash)
        std::wcscat(szFolder, L"\\");
    return 1;
}

HMODULE Vexa_LoadLibrary(const wchar_t* szName)
{
    KvLogBlock logBlock(logger, L"Vexa_LoadLibrary");
    LOG4CXX_INFO(logger, L"Vexa_LoadLibrary:" << (szName != nullptr ? szName : L""));
    if (szName == nullptr || szName[0] == L'\0')
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }

    wchar_t szPath[MAX_PATH];
    if (!GetAgentFolder(szPath, MAX_PATH) || std::wcslen(szPath) + std::wcslen(szName) >= MAX_PATH)
    {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return nullptr;
    }
    std::wcscat(szPath, szName);

    // A full path never searches; the altered search path lets the library find its own
    // dependencies beside it rather than beside whoever started us.
    HMODULE hModule = LoadLibraryExW(szPath, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    const DWORD dwError = hModule != nullptr ? 0 : GetLastError();
    if (hModule == nullptr)
        LOG4CXX_WARN(logger, L"LoadLibrary failed, path=" << szPath << L" error=" << dwError);
    SetLastError(dwError);
    return hModule;
}

int GetFileInformation(const wchar_t* szPath, WIN32_FIND_DATAW* pData)
{
    KvLogBlock logBlock(logger, L"GetFileInformation");
    if (szPath == nullptr || szPath[0] == L'\0' || pData == nullptr)
        return 0;
    ZeroMemory(pData, sizeof *pData);
    HANDLE hFind = FindFirstFileW(szPath, pData);
    if (hFind == INVALID_HANDLE_VALUE)
        return 0;
    FindClose(hFind);
    return 1;
}

BOOL KvShellExec(HWND hOwner, const wchar_t* szVerb, const wchar_t* szPath, const wchar_t* szParameters,
                 const wchar_t* szDirectory)
{
    KvLogBlock logBlock(logger, L"KvShellExec");
    LOG4CXX_INFO(logger, L"KvShellExec pszVerb=" << (szVerb != nullptr ? szVerb : L"") << L" pszPath="
                                                 << (szPath != nullptr ? szPath : L"") << L" pszParameters="
                                                 << (szParameters != nullptr ? szParameters : L"")
                                                 << L" pszDirectory="
                                                 << (szDirectory != nullptr ? szDirectory : L""));
    SHELLEXECUTEINFOW info = {};
    info.cbSize = sizeof info;
    info.fMask = SEE_MASK_UNICODE;
    info.hwnd = hOwner;
    info.lpVerb = szVerb;
    info.lpFile = szPath;
    info.lpParameters = szParameters;
    info.lpDirectory = szDirectory;
    info.nShow = SW_SHOWNORMAL;
    return ShellExecuteExW(&info);
}

int ExecutePermission(int nPort, int nAfType)
{
    KvLogBlock logBlock(logger, L"ExecutePermission");
    LOG4CXX_INFO(logger, L"ExecutePermission nPort=" << nPort << L" nAfType=" << nAfType);
    wchar_t szPath[MAX_PATH];
    if (!GetAgentFolder(szPath, MAX_PATH) || std::wcslen(szPath) + std::wcslen(L"KVNXST.exe") >= MAX_PATH)
    {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return 0;
    }
    std::wcscat(szPath, L"KVNXST.exe");
    wchar_t szCmdLine[120];
    std::swprintf(szCmdLine, 120, L" -Permission %d %d", nPort, nAfType);

    wchar_t szDesktop[1] = {L'\0'};
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    si.lpDesktop = szDesktop;
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessW(szPath, szCmdLine, nullptr, nullptr, FALSE,
                        CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS, nullptr, nullptr, &si, &pi))
    {
        const DWORD dwError = GetLastError();
        LOG4CXX_WARN(logger, L"CreateProcess failed, path=" << szPath << L" error=" << dwError);
        SetLastError(dwError);
        return 0;
    }
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return 1;
}

namespace
{

// Read, write and delete access, no sharing.
KvKernelHandle OpenExclusive(const wchar_t* szPath, DWORD dwDisposition)
{
    HANDLE hFile = CreateFileW(szPath, GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, dwDisposition,
                               FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (hFile == INVALID_HANDLE_VALUE)
        throw kvUtil::kvException(L"Cannot get file handle.", GetLastError());
    return KvKernelHandle(hFile);
}

} // namespace

void KvCreateNewFile(const wchar_t* szPath)
{
    OpenExclusive(szPath, CREATE_NEW);
}

void KvSecureDeleteFile(const wchar_t* szPath)
{
    // The link itself is opened, never what it points to.
    const KvKernelHandle file = OpenExclusive(szPath, OPEN_EXISTING);
    BY_HANDLE_FILE_INFORMATION info = {};
    if (!KvGetSystemApi().pfnGetFileInformationByHandle(file.Get(), &info))
        throw kvUtil::kvException(L"Cannot get file info.", GetLastError());
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        throw kvUtil::kvException(L"File is reparse point.", ERROR_ACCESS_DENIED);
    FILE_DISPOSITION_INFO disposition = {};
    disposition.DeleteFile = TRUE;
    if (!SetFileInformationByHandle(file.Get(), FileDispositionInfo, &disposition, sizeof disposition))
        throw kvUtil::kvException(L"Cannot set file info.", GetLastError());
}

std::wstring KvUniversalPath(const std::wstring& path)
{
    // The answer holds a pointer into the buffer, then the name itself.
    std::vector<std::uint8_t> buffer(sizeof(UNIVERSAL_NAME_INFOW) + (MAX_PATH + 1) * sizeof(wchar_t));
    for (int nTry = 0; nTry < 2; ++nTry)
    {
        DWORD cb = static_cast<DWORD>(buffer.size());
        const DWORD dwResult = KvGetSystemApi().pfnWNetGetUniversalNameW(
            path.c_str(), UNIVERSAL_NAME_INFO_LEVEL, buffer.data(), &cb);
        if (dwResult == ERROR_MORE_DATA && cb > buffer.size())
        {
            buffer.resize(cb);
            continue;
        }
        if (dwResult != NO_ERROR)
            break;
        const auto* pInfo = reinterpret_cast<const UNIVERSAL_NAME_INFOW*>(buffer.data());
        const auto* pEnd = reinterpret_cast<const wchar_t*>(buffer.data() + buffer.size());
        const wchar_t* pName = pInfo->lpUniversalName;
        if (pName == nullptr || pName < reinterpret_cast<const wchar_t*>(buffer.data()) || pName >= pEnd)
            break;
        const wchar_t* pNul = std::find(pName, pEnd, L'\0');
        if (pNul == pEnd || pNul == pName)
            break;
        return std::wstring(pName, pNul);
    }
    return path;
}
