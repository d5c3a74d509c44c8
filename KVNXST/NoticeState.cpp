#include "NoticeState.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "NotifyDialog.h"
#include "resource.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));

void CNoticeState::Open(HWND hOwner, LPARAM lParam)
{
    Close();
    LOG4CXX_INFO(logger, L"Opening the notification dialog, kind " << m_nKind);
    m_hDlg = KvCreateModelessDialog(hOwner, IDD_NOTIFY, NotifyWndProc, lParam);
    if (m_hDlg != nullptr)
        SetWindowLongPtrW(m_hDlg, GWLP_USERDATA, lParam);
}

void CNoticeState::Close()
{
    if (IsWindow(m_hDlg))
        DestroyWindow(m_hDlg);
    m_hDlg = nullptr;
}
