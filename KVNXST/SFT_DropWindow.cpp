#include "SFT_DropWindow.h"

#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

// File transfer is not part of this build yet: the service's requests are taken and logged, the
// named event of 67002 is still set by the caller so the service does not wait.

INT_PTR CALLBACK SFTDropWndProc(HWND /*hDlg*/, UINT /*uMsg*/, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return FALSE;
}

CFileTransfer::~CFileTransfer()
{
    DeleteTempFile(1);
    DeleteTempFile(2);
}

int CFileTransfer::CreateTempFiles(const MSG_TRAYICON_SFT_INIT_TEMP& /*init*/)
{
    KvLogBlock logBlock(logger, L"CFileTransfer::CreateTempFiles");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no temporary files created.");
    return 0;
}

void CFileTransfer::DeleteTempFile(unsigned int uTempFile)
{
    KvLogBlock logBlock(logger, L"CFileTransfer::DeleteTempFile");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: temporary file " << uTempFile << L" not deleted.");
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
