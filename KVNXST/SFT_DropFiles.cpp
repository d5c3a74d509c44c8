#include "SFT_DropFiles.h"

#include "KvHandles.h"
#include "KvLogging.h"
#include "UtilFile.h"

#include <shlobj.h>

#include <algorithm>
#include <cstring>
#include <cwctype>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

namespace
{

// A section of the profile functions holds at most this many units here: 1,000 long paths fit many
// times over, and a file that someone grew beyond it is not read to the end.
constexpr DWORD KV_MAX_SECTION_UNITS = 16 * 1024 * 1024;

// Files only, each by the name another process can open.
std::vector<std::wstring> FilesToSend(const std::vector<std::wstring>& paths)
{
    std::vector<std::wstring> files;
    for (const std::wstring& path : paths)
    {
        const DWORD dwAttributes = GetFileAttributesW(path.c_str());
        if (dwAttributes == INVALID_FILE_ATTRIBUTES)
            LOG4CXX_WARN(logger,
                         L"Not sent, cannot be read: " << path << L" error code = " << GetLastError());
        else if ((dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            LOG4CXX_WARN(logger, L"Not sent, a folder: " << path);
        else
            files.push_back(KvUniversalPath(path));
    }
    return files;
}

// The section's lines as the profile functions return them: "key=value", each ended by a NUL.
bool ReadSection(const std::wstring& listPath, std::vector<wchar_t>& section)
{
    for (DWORD cch = 64 * 1024; cch <= KV_MAX_SECTION_UNITS; cch *= 2)
    {
        section.assign(cch, L'\0');
        const DWORD dwRead =
            GetPrivateProfileSectionW(KV_SFT_FILES_SECTION, section.data(), cch, listPath.c_str());
        if (dwRead < cch - 2)
        {
            section.resize(dwRead);
            return true;
        }
    }
    LOG4CXX_ERROR(logger, L"The file list " << listPath << L" is too large to add to.");
    return false;
}

bool StartsWithCounter(const wchar_t* szLine)
{
    return _wcsnicmp(szLine, L"Counter=", 8) == 0;
}

// The profile functions write UTF-16 only to a file that starts with its byte-order mark.
bool MarkAsUnicode(const std::wstring& listPath)
{
    HANDLE hFile = CreateFileW(listPath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE)
        return false;
    const KvKernelHandle file(hFile);
    LARGE_INTEGER size = {};
    if (!GetFileSizeEx(file.Get(), &size))
        return false;
    if (size.QuadPart != 0)
        return true;
    const std::uint8_t bom[] = {0xFF, 0xFE};
    DWORD cbWritten = 0;
    return WriteFile(file.Get(), bom, sizeof bom, &cbWritten, nullptr) && cbWritten == sizeof bom;
}

bool WriteFileList(const std::wstring& listPath, const std::vector<std::wstring>& files)
{
    std::vector<wchar_t> section;
    if (!MarkAsUnicode(listPath))
    {
        LOG4CXX_ERROR(logger,
                      L"Cannot open the file list " << listPath << L" error code = " << GetLastError());
        return false;
    }
    if (!ReadSection(listPath, section))
        return false;

    // The lines there stay; the new files follow the last number and the counter is rewritten.
    std::wstring block;
    for (std::size_t i = 0; i < section.size();)
    {
        const wchar_t* szLine = section.data() + i;
        const std::size_t cch = wcsnlen(szLine, section.size() - i);
        if (cch != 0 && !StartsWithCounter(szLine))
            block.append(szLine, cch).push_back(L'\0');
        i += cch + 1;
    }
    const std::uint64_t ullListed =
        GetPrivateProfileIntW(KV_SFT_FILES_SECTION, L"Counter", 0, listPath.c_str());
    std::uint64_t ullNumber = ullListed;
    for (const std::wstring& file : files)
        block.append(L"File" + std::to_wstring(++ullNumber) + L"=" + file).push_back(L'\0');
    block.append(L"Counter=" + std::to_wstring(ullNumber)).push_back(L'\0');
    block.push_back(L'\0');
    if (!WritePrivateProfileSectionW(KV_SFT_FILES_SECTION, block.c_str(), listPath.c_str()))
    {
        LOG4CXX_ERROR(logger,
                      L"Cannot write the file list " << listPath << L" error code = " << GetLastError());
        return false;
    }
    // Cached by the profile functions until flushed: the service reads the file, not our cache.
    WritePrivateProfileStringW(nullptr, nullptr, nullptr, listPath.c_str());
    return true;
}

bool PutOnClipboard(const std::vector<std::wstring>& files, HWND hOwner)
{
    std::size_t cb = sizeof(DROPFILES) + sizeof(wchar_t);
    for (const std::wstring& file : files)
        cb += (file.size() + 1) * sizeof(wchar_t);
    HGLOBAL hBlock = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, cb);
    auto* pBlock = hBlock != nullptr ? static_cast<std::uint8_t*>(GlobalLock(hBlock)) : nullptr;
    if (pBlock == nullptr)
    {
        if (hBlock != nullptr)
            GlobalFree(hBlock);
        LOG4CXX_ERROR(logger, L"No memory for the clipboard's file list of " << cb << L" bytes.");
        return false;
    }
    DROPFILES head = {};
    head.pFiles = sizeof(DROPFILES);
    head.fWide = TRUE;
    std::memcpy(pBlock, &head, sizeof head);
    std::size_t offset = sizeof head;
    for (const std::wstring& file : files)
    {
        std::memcpy(pBlock + offset, file.c_str(), (file.size() + 1) * sizeof(wchar_t));
        offset += (file.size() + 1) * sizeof(wchar_t);
    }
    GlobalUnlock(hBlock);

    const UINT uFormat = RegisterClipboardFormatW(KV_SFT_CLIPBOARD_FORMAT);
    bool bPlaced = false;
    if (uFormat != 0 && OpenClipboard(hOwner))
    {
        bPlaced = EmptyClipboard() && SetClipboardData(uFormat, hBlock) != nullptr;
        CloseClipboard();
    }
    if (!bPlaced)
    {
        LOG4CXX_ERROR(logger, L"Cannot place the files on the clipboard. error code = " << GetLastError());
        GlobalFree(hBlock);
    }
    return bPlaced;
}

} // namespace

std::vector<std::wstring> KvReadFileDrop(const std::uint8_t* pBlock, std::size_t cb)
{
    std::vector<std::wstring> names;
    DROPFILES head = {};
    if (pBlock == nullptr || cb < sizeof head)
        return names;
    std::memcpy(&head, pBlock, sizeof head);
    std::size_t offset = head.pFiles;
    if (offset < sizeof head || offset > cb)
        return names;
    const std::size_t cbUnit = head.fWide ? sizeof(wchar_t) : 1;
    for (;;)
    {
        // Whole units only, and a name counts only with its terminator inside the block.
        const std::size_t cUnits = (cb - offset) / cbUnit;
        std::size_t n = 0;
        std::wstring name;
        if (head.fWide)
        {
            for (wchar_t ch = 0; n < cUnits; ++n)
            {
                std::memcpy(&ch, pBlock + offset + n * cbUnit, sizeof ch);
                if (ch == L'\0')
                    break;
                name.push_back(ch);
            }
        }
        else
        {
            const char* pFirst = reinterpret_cast<const char*>(pBlock + offset);
            n = static_cast<std::size_t>(std::find(pFirst, pFirst + cUnits, '\0') - pFirst);
            if (n != 0 && n < cUnits)
            {
                name.resize(n);
                const int cch = MultiByteToWideChar(CP_ACP, 0, pFirst,
                                                    static_cast<int>(std::min<std::size_t>(n, INT_MAX)),
                                                    name.data(), static_cast<int>(name.size()));
                name.resize(cch > 0 ? static_cast<std::size_t>(cch) : 0);
            }
        }
        if (n == cUnits)
        {
            if (n != 0)
                LOG4CXX_WARN(logger, L"A dropped name without its end was left out.");
            break;
        }
        if (n == 0)
            break;
        names.push_back(std::move(name));
        offset += (n + 1) * cbUnit;
    }
    return names;
}

void KvSetServiceEvent(const wchar_t* szName)
{
    if (szName == nullptr || *szName == L'\0')
    {
        LOG4CXX_WARN(logger, L"The service named no event to set.");
        return;
    }
    HANDLE hEvent = OpenEventW(EVENT_MODIFY_STATE, FALSE, szName);
    if (hEvent == nullptr)
    {
        LOG4CXX_WARN(logger, L"Cannot open event. Last error: " << GetLastError());
        return;
    }
    SetEvent(hEvent);
    CloseHandle(hEvent);
}

std::size_t KvSendDroppedFiles(const MSG_TRAYICON_SFT_DROP_CLIENT& drop,
                               const std::vector<std::wstring>& paths, HWND hOwner)
{
    KvLogBlock logBlock(logger, L"KvSendDroppedFiles");
    const std::vector<std::wstring> files = FilesToSend(paths);
    LOG4CXX_INFO(logger, L"Viewer " << drop.dwViewerId << L": " << paths.size() << L" dropped, "
                                    << files.size() << L" files to send.");
    if (files.empty())
        return 0;
    const std::wstring listPath = KvReadWideString(drop.szFileListPath);
    if (!listPath.empty() && WriteFileList(listPath, files))
        LOG4CXX_INFO(logger, L"Files listed in " << listPath);
    else if (PutOnClipboard(files, hOwner))
        LOG4CXX_INFO(logger, L"Files placed on the clipboard as " << KV_SFT_CLIPBOARD_FORMAT);
    else
        return 0;
    return files.size();
}
