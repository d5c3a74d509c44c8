#include "ReverseConnect.h"

#include "ConnectInProgressDialog.h"
#include "ConnectToClientDialog.h"
#include "ConnectionInfo.h"
#include "JoinAttendedSessionDialog.h"
#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "SimultanousSessionMutex.h"
#include "TrayWindowLink.h"
#include "UtilTimedMessageBox.h"
#include "resource.h"

#include <memory>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));

void CReverseConnect::ConnectToClient(HWND hOwner, std::uint32_t uConnectOption, bool bAllowed)
{
    KvLogBlock logBlock(logger, L"CReverseConnect::ConnectToClient");
    if (!bAllowed || m_bActive)
        return;
    if (HWND hOpen = KvConnectToClientDialog(); hOpen != nullptr)
    {
        LOG4CXX_INFO(logger, L"Connect to client dialog exists, bringing to top.");
        BringWindowToTop(hOpen);
        SetForegroundWindow(hOpen);
        return;
    }
    auto request = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvZero(*request);
    request->uConnectOption = uConnectOption;
    if (KvShowDialog(hOwner, IDD_CONNECT_TO_CLIENT, ::ConnectToClient,
                     reinterpret_cast<LPARAM>(request.get())) != 1)
        return;
    request->dwType = MSG_TYPE_REVERSE_CONNECTION;
    if (m_link.SendToService(request.get(), sizeof *request))
        m_bActive = true;
}

void CReverseConnect::JoinSession(HWND hOwner, std::uint32_t uConnectOption)
{
    KvLogBlock logBlock(logger, L"CReverseConnect::JoinSession");
    if (m_bActive)
        return;
    auto request = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvBuildJoinSessionRequest(*request, uConnectOption, static_cast<const wchar_t*>(nullptr));
    if (g_dwOneTimeSession != 0)
    {
        // The one-time agent already knows its session: the request is prepared without asking.
        KvCopyString(request->szShortText, g_szOneTimeSession, 8096);
    }
    else if (HWND hJoin = KvJoinDialog(); hJoin != nullptr)
    {
        LOG4CXX_INFO(logger, L"Join Internet Session dialog exists, bringing to top.");
        BringWindowToTop(hJoin);
        SetForegroundWindow(hJoin);
        return;
    }
    else if (KvShowDialog(hOwner, IDD_JOIN_ATTENDED_SESSION, JoinAttendedSessionProc,
                          reinterpret_cast<LPARAM>(request.get())) != 1)
        return;
    if ((IsOtiSessionInProgress() || IsLocalSessionInProgress()) &&
        TimedMessageBox(g_hResInstance, nullptr, IDS_CONFIRM_SIMULTANEOUS, IDS_APP_CAPTION,
                        MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2 | MB_TOPMOST,
                        KV_QUESTION_TIMEOUT_MS) != IDYES)
        return;
    if (m_link.SendToService(request.get(), sizeof *request))
        m_bActive = true;
}

void CReverseConnect::OnWait(HWND hOwner, WPARAM wParam)
{
    if (HWND hJoin = KvJoinDialog(); hJoin != nullptr)
    {
        LOG4CXX_INFO(logger, L"PostMessage WM_HIDE_JOIN_INTERNET_SESSION_DLG.");
        PostMessageW(hJoin, WM_HIDE_JOIN_INTERNET_SESSION_DLG, 0, 0);
    }
    switch (wParam)
    {
    case 0:
        LOG4CXX_INFO(logger, L"Displaying Join Internet Session Wait Dialog.");
        if (IsWindow(m_hWaitDlg))
            DestroyWindow(m_hWaitDlg);
        m_hWaitDlg = KvCreateModelessDialog(hOwner, IDD_CONNECT_IN_PROGRESS, ConnectInProgressProc,
                                            reinterpret_cast<LPARAM>(&m_link));
        if (m_hWaitDlg != nullptr)
            ShowWindow(m_hWaitDlg, SW_SHOW);
        break;
    case 1:
        LOG4CXX_INFO(logger, L"Destroying Join Internet Session Wait Dialog.");
        if (IsWindow(m_hWaitDlg))
            DestroyWindow(m_hWaitDlg);
        m_hWaitDlg = nullptr;
        break;
    case 2:
    {
        LOG4CXX_INFO(logger, L"Canceling OTI connection attempt.");
        auto request = std::make_unique<MSG_REVERSE_CONNECTION>();
        KvBuildReverseConnectionCancel(*request);
        m_link.SendToService(request.get(), sizeof *request);
        break;
    }
    default:
        break;
    }
}
