#include "SFT_DropWindow.h"

#include "KvException.h"
#include "KvLogging.h"
#include "ProfileReg.h"
#include "UtilFile.h"

#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

// The drop windows are not part of this build yet: their requests are taken and logged.

INT_PTR CALLBACK SFTDropWndProc(HWND /*hDlg*/, UINT /*uMsg*/, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return FALSE;
}

namespace
{

constexpr wchar_t KV_SFT_SECTION[] = L"Settings";
constexpr wchar_t KV_SFT_TEMP_INI_VALUE[] = L"SFT:TempIni";
constexpr wchar_t KV_SFT_DATA_VALUE[] = L"SFT:Data";

template <std::size_t N> std::wstring PathOf(const char16_t (&szPath)[N])
{
    return std::wstring(KvWide(szPath), KvStringLength(szPath));
}

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
        CreateAndRemember(PathOf(init.szTempIniPath), m_tempIni,
                          KV_SFT_TEMP_INI_VALUE);
        CreateAndRemember(PathOf(init.szDataPath), m_tempData, KV_SFT_DATA_VALUE);
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

void CFileTransfer::AddDropWindow(const MSG_TRAYICON_SFT_DROP_CLIENT& drop)
{
    KvLogBlock logBlock(logger, L"CFileTransfer::AddDropWindow");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no drop window for viewer " << drop.dwViewerId);
}

void CFileTransfer::RemoveDropWindow(int nViewerId)
{
    KvLogBlock logBlock(logger, L"CFileTransfer::RemoveDropWindow");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no drop window to remove for viewer " << nViewerId);
}

void CFileTransfer::EraseDropWindow(int nViewerId)
{
    KvLogBlock logBlock(logger, L"CFileTransfer::EraseDropWindow");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no drop window to erase for viewer " << nViewerId);
}

void CFileTransfer::DestroyDropWindow()
{
    if (IsWindow(m_hDropWnd))
        DestroyWindow(m_hDropWnd);
    m_hDropWnd = nullptr;
}
