#include "SFT_DropWindow.h"

#include "KVNXSTWindow.h"
#include "KvException.h"
#include "KvLogging.h"
#include "ProfileReg.h"
#include "SFT_DropDialog.h"
#include "UtilFile.h"
#include "resource.h"

#include <algorithm>
#include <string>
#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

namespace
{

constexpr wchar_t KV_SFT_SECTION[] = L"Settings";
constexpr wchar_t KV_SFT_TEMP_INI_VALUE[] = L"SFT:TempIni";
constexpr wchar_t KV_SFT_DATA_VALUE[] = L"SFT:Data";

// Creates one file and remembers it: the path kept, then the registry value.
void CreateAndRemember(const std::wstring& path, std::wstring& kept, const wchar_t* szValue)
{
    LOG4CXX_INFO(logger, L"Create: " << path);
    KvCreateNewFile(path.c_str());
    kept = path;
    g_ProfileReg.WriteProfileString(KV_SFT_SECTION, szValue, path.c_str());
}

} // namespace

CFileTransfer::~CFileTransfer()
{
    // What the service did not delete before the agent ended goes now, as it would have.
    if (!m_tempIni.empty())
        SFT_DeleteTempFile(1);
    if (!m_tempData.empty())
        SFT_DeleteTempFile(2);
}

int CFileTransfer::SFT_CreateTempFiles(const MSG_TRAYICON_SFT_INIT_TEMP& init)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_CreateTempFiles");
    try
    {
        CreateAndRemember(KvReadWideString(init.szTempIniPath), m_tempIni,
                          KV_SFT_TEMP_INI_VALUE);
        CreateAndRemember(KvReadWideString(init.szDataPath), m_tempData, KV_SFT_DATA_VALUE);
    }
    catch (const kvUtil::kvException& e)
    {
        LOG4CXX_ERROR(logger, L"CTaskBarWindow::SFT_CreateTempFiles: Unable to create file. Error: "
                                  << e.Text() << L" error code = " << e.Error());
        return 0;
    }
    return 1;
}

void CFileTransfer::SFT_DeleteTempFile(unsigned int uTempFile)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_DeleteTempFile");
    LOG4CXX_INFO(logger, L"uTempFile=" << uTempFile);
    std::wstring* pPath = uTempFile == 1 ? &m_tempIni : uTempFile == 2 ? &m_tempData : nullptr;
    if (pPath == nullptr)
    {
        LOG4CXX_WARN(logger, L"CTaskBarWindow::SFT_DeleteTempFile: Unknown SFT temp file type: " << uTempFile);
        return;
    }
    try
    {
        KvSecureDeleteFile(pPath->c_str());
    }
    catch (const kvUtil::kvException& e)
    {
        LOG4CXX_ERROR(logger, L"Unable to delete file. Error: " << e.Text() << L" error code = " << e.Error());
        return;
    }
    LOG4CXX_INFO(logger, L"Deleted: " << *pPath);
    g_ProfileReg.Delete(KV_SFT_SECTION, uTempFile == 1 ? KV_SFT_TEMP_INI_VALUE : KV_SFT_DATA_VALUE);
    pPath->clear();
}

namespace
{

HWND DropWindowOf(const MSG_TRAYICON_SFT_DROP_CLIENT& entry)
{
    return reinterpret_cast<HWND>(static_cast<ULONG_PTR>(entry.hDropWnd));
}

// Made, and closed since: its report (1001) may still be on its way.
bool IsClosed(const MSG_TRAYICON_SFT_DROP_CLIENT& entry)
{
    return entry.hDropWnd != 0 && !IsWindow(DropWindowOf(entry));
}

bool IsOf(const MSG_TRAYICON_SFT_DROP_CLIENT& entry, int nViewerId)
{
    return nViewerId == -1 || entry.dwViewerId == static_cast<std::uint32_t>(nViewerId);
}

class CExclusive
{
public:
    explicit CExclusive(SRWLOCK& lock) : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
    ~CExclusive() { ReleaseSRWLockExclusive(&m_lock); }
    CExclusive(const CExclusive&) = delete;
    CExclusive& operator=(const CExclusive&) = delete;

private:
    SRWLOCK& m_lock;
};

} // namespace

void CFileTransfer::SFT_AddDropWindow(const MSG_TRAYICON_SFT_DROP_CLIENT& drop)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_AddDropWindow");
    LOG4CXX_INFO(logger, L"Viewer " << drop.dwViewerId);
    MSG_TRAYICON_SFT_DROP_CLIENT* pBlock = nullptr;
    HWND hOpen = nullptr;
    {
        const CExclusive lock(m_dropLock);
        m_dropWindows.remove_if([&](const MSG_TRAYICON_SFT_DROP_CLIENT& entry)
                                { return entry.dwViewerId == drop.dwViewerId && IsClosed(entry); });
        for (const MSG_TRAYICON_SFT_DROP_CLIENT& entry : m_dropWindows)
            if (entry.dwViewerId == drop.dwViewerId)
                hOpen = DropWindowOf(entry);
        if (hOpen == nullptr)
        {
            MSG_TRAYICON_SFT_DROP_CLIENT& block = m_dropWindows.emplace_back(drop);
            block.dwPosition = static_cast<std::uint32_t>(m_dropWindows.size() - 1);
            block.hDropWnd = 0;
            block.hTrayWnd = reinterpret_cast<ULONG_PTR>(m_hTrayWnd);
            pBlock = &block;
        }
    }
    if (hOpen != nullptr)
    {
        // The service's second request for the same viewer is the user's toggle.
        LOG4CXX_INFO(logger, L"The drop window of viewer " << drop.dwViewerId << L" is open: it closes.");
        PostMessageW(hOpen, WM_CLOSE, 0, 0);
        return;
    }
    SendMessageW(m_hTrayWnd, WM_KV_DROP_WINDOW, 1000, reinterpret_cast<LPARAM>(pBlock));
}

void CFileTransfer::CreateDropWindow(MSG_TRAYICON_SFT_DROP_CLIENT* pBlock)
{
    {
        // Only a block that is still listed: the message may come from anywhere on this desktop.
        const CExclusive lock(m_dropLock);
        const bool bListed = std::any_of(m_dropWindows.begin(), m_dropWindows.end(),
                                         [&](const MSG_TRAYICON_SFT_DROP_CLIENT& entry)
                                         { return &entry == pBlock && entry.hDropWnd == 0; });
        if (!bListed)
        {
            LOG4CXX_WARN(logger, L"No drop window is waiting to be made for that block.");
            return;
        }
    }
    // The dialog works on its own copy, taken before this returns.
    HWND hDrop =
        KvCreateModelessDialog(nullptr, IDD_SFT_DROP, SFTDropWndProc, reinterpret_cast<LPARAM>(pBlock));
    const CExclusive lock(m_dropLock);
    if (hDrop == nullptr)
    {
        m_dropWindows.remove_if([&](const MSG_TRAYICON_SFT_DROP_CLIENT& entry) { return &entry == pBlock; });
        return;
    }
    pBlock->hDropWnd = reinterpret_cast<ULONG_PTR>(hDrop);
    ShowWindow(hDrop, SW_SHOW);
}

void CFileTransfer::SFT_RemoveDropWindow(int nViewerId)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_RemoveDropWindow");
    LOG4CXX_INFO(logger, L"Viewer " << nViewerId);
    std::vector<HWND> windows;
    {
        const CExclusive lock(m_dropLock);
        for (const MSG_TRAYICON_SFT_DROP_CLIENT& entry : m_dropWindows)
            if (IsOf(entry, nViewerId) && entry.hDropWnd != 0)
                windows.push_back(DropWindowOf(entry));
    }
    for (HWND hDrop : windows)
        PostMessageW(hDrop, WM_KV_DROP_WINDOW, 0, 0);
}

void CFileTransfer::SFT_EraseDropWindow(int nViewerId)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_EraseDropWindow");
    const CExclusive lock(m_dropLock);
    // A window still open for that viewer (a new one after a quick toggle) stays listed.
    m_dropWindows.remove_if([&](const MSG_TRAYICON_SFT_DROP_CLIENT& entry)
                            { return IsOf(entry, nViewerId) && IsClosed(entry); });
    LOG4CXX_INFO(logger, L"Viewer " << nViewerId << L"; drop windows left: " << m_dropWindows.size());
}

void CFileTransfer::CloseAllDropWindows()
{
    std::vector<HWND> windows;
    {
        const CExclusive lock(m_dropLock);
        for (const MSG_TRAYICON_SFT_DROP_CLIENT& entry : m_dropWindows)
            if (entry.hDropWnd != 0)
                windows.push_back(DropWindowOf(entry));
        m_dropWindows.clear();
    }
    for (HWND hDrop : windows)
        SendMessageW(hDrop, WM_KV_DROP_WINDOW, 0, 0);
}
