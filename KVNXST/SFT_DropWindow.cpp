#include "SFT_DropWindow.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SFT_DropWindow));

// File transfer is not part of this build yet: the service's requests are taken and logged, the
// named event of 67002 is still set by the caller so the service does not wait.

INT_PTR CALLBACK SFTDropWndProc(HWND /*hDlg*/, UINT /*uMsg*/, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return FALSE;
}

int CTaskBarWindow::SFT_CreateTempFiles(MSG_TRAYICON_SFT_INIT_TEMP* /*pInit*/)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_CreateTempFiles");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no temporary files created.");
    return 0;
}

void CTaskBarWindow::SFT_DeleteTempFile(unsigned int uTempFile)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_DeleteTempFile");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: temporary file " << uTempFile << L" not deleted.");
}

void CTaskBarWindow::SFT_AddDropWindow(MSG_TRAYICON_SFT_DROP_CLIENT* pDrop)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_AddDropWindow");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no drop window for viewer " << pDrop->dwViewerId);
}

void CTaskBarWindow::SFT_RemoveDropWindow(int nViewerId)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_RemoveDropWindow");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no drop window to remove for viewer " << nViewerId);
}

void CTaskBarWindow::SFT_EraseDropWindow(int nViewerId)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::SFT_EraseDropWindow");
    LOG4CXX_WARN(logger, L"File transfer is not built yet: no drop window to erase for viewer " << nViewerId);
}
