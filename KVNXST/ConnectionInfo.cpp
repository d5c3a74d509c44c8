#include "ConnectionInfo.h"

#include "KVNXST.h"
#include "DesktopOptions.h"
#include "KVNXSTWindow.h"
#include "KvLogText.h"
#include "KvLogging.h"
#include "ResourceText.h"
#include "ServiceText.h"
#include "KvRecordCodec.h"
#include "KvServiceMessages.h"
#include "KvSocket.h"
#include "ReverseConnectionReport.h"
#include "SFT_DropFiles.h"
#include "SFT_DropWindow.h"
#include "TrayWindowLink.h"
#include "UtilFile.h"
#include "UtilLog.h"
#include "UtilService.h"
#include "UtilWTS.h"
#include "resource.h"

#include <process.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectionInfo));

std::uint32_t g_dwOneTimeSession = 0;
wchar_t g_szOneTimeSession[KV_ONE_TIME_SESSION_UNITS] = {};

namespace
{

constexpr wchar_t KV_SERVICE_HOST[] = L"localhost";
constexpr DWORD KV_CONNECT_RETRY_MS = 3000;
constexpr unsigned int KV_CONNECT_TIMEOUT_MS = 3000;
constexpr unsigned int KV_PORT_QUERY_TIMEOUT_MS = 3000;
constexpr DWORD KV_EVENT_SYSTEM_TEXT_UNITS = 1024;
constexpr DWORD KV_REPORT_SYSTEM_TEXT_UNITS = 2048;
// Timer periods after the handshake, the settings and a connect notice.
constexpr UINT KV_NOTIFY_AFTER_INIT_MS = 1000;
constexpr UINT KV_NOTIFY_AFTER_SETTINGS_MS = 5000;
constexpr UINT KV_NOTIFY_AFTER_CONNECT_MS = 2000;
constexpr UINT KV_SETTINGS_DIALOG_DELAY_MS = 500;
constexpr std::size_t KV_NOTIFY_NAME_UNITS = 259;
constexpr std::uint32_t KV_IDLE_ICON_AFTER_LAST_VIEWER = 1;

std::u16string ToU16(const std::wstring& s)
{
    return std::u16string(reinterpret_cast<const char16_t*>(s.data()), s.size());
}

// Copies text into a fixed buffer of N units, cut to N - 1 and terminated.
template <std::size_t N> void CopyInto(wchar_t (&dst)[N], const std::wstring& text)
{
    const std::size_t cch = std::min(text.size(), N - 1);
    std::wmemcpy(dst, text.data(), cch);
    dst[cch] = L'\0';
}

// A record string without its terminator is cut at its last unit, so that whoever reads the
// record later stops inside the array.
template <std::size_t N> void TerminateField(char16_t (&s)[N], const wchar_t* szField)
{
    if (KvIsTerminated(s))
        return;
    s[N - 1] = 0;
    LOG4CXX_WARN(logger, szField << L" has no terminator; cut to " << (N - 1) << L" units.");
}

// The system's text for an error code, at most cchMax - 1 units, without the trailing line break.
std::wstring SystemMessage(DWORD dwCode, DWORD cchMax)
{
    std::wstring text(cchMax, L'\0');
    const DWORD cch = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                     dwCode, 0, text.data(), cchMax, nullptr);
    text.resize(cch);
    while (!text.empty() && (text.back() == L'\r' || text.back() == L'\n' || text.back() == L' '))
        text.pop_back();
    return text;
}

// One connection's reading and dispatch. Every handler returns false when the link must end.
class CServiceLink
{
public:
    CServiceLink(IKvTrayLink& window, std::uint8_t* pBuffer)
        : m_window(window), m_pSocket(&window.Socket()), m_pBuffer(pBuffer)
    {
    }

    bool Connect();
    void ReadLoop();

private:
    // Reads the rest of a record of type T behind the type id already in the buffer.
    template <typename T> T* Read()
    {
        static_assert(sizeof(T) <= KV_RECEIVE_BUFFER_BYTES, "every record fits into the buffer");
        if (!m_pSocket->ReadExact(m_pBuffer + 4, static_cast<int>(sizeof(T) - 4)))
        {
            LOG4CXX_INFO(logger, L"Reading the record failed. Error = " << WSAGetLastError());
            return nullptr;
        }
        return reinterpret_cast<T*>(m_pBuffer);
    }
    template <typename T> bool Send(const T& record) { return SendBytes(&record, sizeof record); }
    bool SendBytes(const void* pRecord, std::size_t cb);
    bool SendUserInformation();
    MSG_TRAYICON_CONNECT_INFO* TakeConnectInfo();
    MSG_TRAYICON_SETTINGS* TakeSettings();
    void NotifyDialog(UINT uMsg, std::uint32_t dwKind, const wchar_t* szWhat,
                      const MSG_TRAYICON_CONNECT_INFO& info);
    void ReportConnectFailure(DWORD dwConnectError);

    bool Dispatch(std::uint32_t dwType);
    bool OnVersion();
    bool OnInit();
    bool OnExit();
    bool OnConnectCount();
    bool OnSettings(bool bFirst);
    bool OnConnectNotify();
    bool OnDisconnectNotify();
    bool OnUserInformation();
    bool OnNotifyAll();
    bool OnDesktopEffects();
    bool OnSftInitTemp();
    bool OnServerReconfigure();
    bool OnAddresses();
    bool OnReverseConnection();
    void ReportReverseConnection(const MSG_REVERSE_CONNECTION& rec);
    bool OnSftDropClient();
    bool OnChatOpen();
    bool OnChatMessage();
    // Reads and drops cb bytes through the receive buffer.
    bool SkipBytes(std::uint32_t cb);

    IKvTrayLink& m_window;
    CKvSocket* const m_pSocket;
    std::uint8_t* const m_pBuffer;
    // Connect notices are acknowledged at once until the first settings came.
    bool m_bAcknowledgeConnect = true;
    std::uint32_t m_dwIdleTrayIcon = 0; // the last settings' idle icon selector
};

bool CServiceLink::SendBytes(const void* pRecord, std::size_t cb)
{
    if (m_window.SendToService(pRecord, static_cast<int>(cb)))
        return true;
    LOG4CXX_INFO(logger, L"Sending a record of " << cb << L" bytes failed. Error = " << WSAGetLastError());
    return false;
}

bool CServiceLink::Connect()
{
    KvLogBlock logBlock(logger, L"CServiceLink::Connect");
    if (m_window.Port() == 0)
        m_window.SetPort(KV_DEFAULT_SERVICE_PORT);
    // Before the first connection there is no handle yet, so this changes nothing; kept so the
    // attempts behave the same whatever the socket held before.
    m_pSocket->SetTimeouts(KV_CONNECT_TIMEOUT_MS);

    for (int nAttempt = 0; nAttempt < 2; ++nAttempt)
    {
        // The pause ends early when the agent is closing, so a closing agent never waits for it.
        if (nAttempt > 0)
        {
            if (g_hStopEvent != nullptr)
                WaitForSingleObject(g_hStopEvent, KV_CONNECT_RETRY_MS);
            else
                Sleep(KV_CONNECT_RETRY_MS);
        }
        if (m_window.Closing())
            return false;
        LOG4CXX_INFO(logger, L"Connecting to the service on port " << m_window.Port());
        if (m_pSocket->Connect(KV_SERVICE_HOST, m_window.Port(), SOCK_STREAM, 0))
            return true;
    }

    const DWORD dwConnectError = GetLastError();
    LOG4CXX_INFO(logger, L"The service did not answer on port " << m_window.Port() << L". Error = "
                                                                << dwConnectError);
    unsigned int uiPort = 0;
    if (!m_window.Closing() && GetPortNumberViaUDP(&uiPort))
    {
        m_window.SetPort(uiPort);
        LOG4CXX_INFO(logger, L"Connecting to the service on its announced port " << uiPort);
        if (m_pSocket->Connect(KV_SERVICE_HOST, uiPort, SOCK_STREAM, 0))
            return true;
    }
    ReportConnectFailure(dwConnectError);
    return false;
}

void CServiceLink::ReportConnectFailure(DWORD dwConnectError)
{
    KvLogBlock logBlock(logger, L"CServiceLink::ReportConnectFailure");
    if (!IsServiceInstalled())
    {
        LogInformationMsg(KvLoadText(IDS_EVENT_SERVICE_NOT_INSTALLED).c_str());
    }
    else if (!IsServiceRunning())
    {
        LogInformationMsg(KvLoadText(IDS_EVENT_SERVICE_NOT_RUNNING).c_str());
    }
    else
    {
        const std::wstring text = KvLoadText(IDS_EVENT_CONNECT_FAILED) + L"\r\n" +
                                  SystemMessage(dwConnectError, KV_EVENT_SYSTEM_TEXT_UNITS);
        // The code of the failed attempts: the service queries since have overwritten the last error.
        LogErrorMsg(text.c_str(), dwConnectError);
    }
}

void CServiceLink::ReadLoop()
{
    KvLogBlock logBlock(logger, L"CServiceLink::ReadLoop");
    m_pSocket->SetTimeouts(0);
    LOG4CXX_INFO(logger, L"Waiting for a message from the socket.");
    for (;;)
    {
        if (m_window.Closing())
            return;
        if (!m_pSocket->ReadExact(m_pBuffer, 4))
        {
            LOG4CXX_INFO(logger, L"The service link is closed. Error = " << WSAGetLastError());
            return;
        }
        if (m_pSocket->GetHandle() == INVALID_SOCKET)
            return;
        const std::uint32_t dwType = KvReadU32(m_pBuffer);
        // Per record at DEBUG: the message's name follows at INFO, and the default log keeps many
        // records rather than three lines for each.
        LOG4CXX_DEBUG(logger, L"Received message type " << dwType);
        if (!Dispatch(dwType))
            return;
        LOG4CXX_DEBUG(logger, L"Waiting for a message from the socket.");
    }
}

bool CServiceLink::Dispatch(std::uint32_t dwType)
{
    // The chat records log their names with their fields.
    if (KvRecordSize(dwType, KvDirection::ToAgent) != 0 && dwType != MSG_TYPE_TRAYICON_CHAT_OPEN &&
        dwType != MSG_TYPE_CHAT_MESSAGE)
        LOG4CXX_INFO(logger, KvWidenName(KvMessageName(dwType)));

    IKvTrayLink& w = m_window;
    switch (dwType)
    {
    case MSG_TYPE_VERSION:
        return OnVersion();
    case MSG_TYPE_TRAYICON_INIT:
        return OnInit();
    case MSG_TYPE_TRAYICON_EXIT:
        return OnExit();
    case MSG_TYPE_TRAYICON_CONNECT_COUNT:
        return OnConnectCount();
    case MSG_TYPE_TRAYICON_SETTINGS:
        return OnSettings(true);
    case MSG_TYPE_TRAYICON_SETTINGS_UPDATE:
        return OnSettings(false);
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY:
        return OnConnectNotify();
    case MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY:
        return OnDisconnectNotify();
    case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        return Read<MSG_TRAYICON_DESKTOP_USER_INFORMATION>() != nullptr && SendUserInformation();
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL:
        return OnNotifyAll();
    case MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE:
        CheckDesktopState();
        if (g_nDesktopState != static_cast<int>(KV_DESKTOP_STATE_NORMAL))
            w.NotifyConnect();
        return true;
    case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS:
        return OnDesktopEffects();
    case MSG_TYPE_TRAYICON_SFT_DROP_CLIENT:
        return OnSftDropClient();
    case MSG_TYPE_TRAYICON_SFT_INIT_TEMP:
        return OnSftInitTemp();
    case MSG_TYPE_TRAYICON_SFT_DELETE_TEMP:
    {
        const auto* rec = Read<MSG_TRAYICON_SFT_DELETE_TEMP>();
        if (rec != nullptr)
            w.FileTransfer().SFT_DeleteTempFile(rec->dwTempFile);
        return rec != nullptr;
    }
    case MSG_TYPE_TRAYICON_SETTINGS_DIALOG:
        if (Read<MSG_TRAYICON_SETTINGS_DIALOG>() == nullptr)
            return false;
        w.StartTimer(KV_TIMER_SETTINGS_DIALOG, KV_SETTINGS_DIALOG_DELAY_MS);
        return true;
    case MSG_TYPE_TRAYICON_SERVER_RECONFIGURE:
        return OnServerReconfigure();
    case MSG_TYPE_TRAYICON_IP_ADDRESSES:
        return OnAddresses();
    case MSG_TYPE_TRAYICON_PERMISSION:
    {
        const auto* rec = Read<MSG_TRAYICON_PERMISSION>();
        if (rec != nullptr)
            ExecutePermission(static_cast<int>(rec->nPort), static_cast<int>(rec->nAfType));
        return rec != nullptr;
    }
    case MSG_TYPE_REVERSE_CONNECTION:
        return OnReverseConnection();
    case MSG_TYPE_TRAYICON_CHAT_OPEN:
        return OnChatOpen();
    case MSG_TYPE_CHAT_MESSAGE:
        return OnChatMessage();
    case MSG_TYPE_TRAYICON_CHAT_CLOSE:
        w.Send(WM_CHAT_CLOSE);
        return true;
    case MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE:
        // Only wakes the read; the next turn sees the stop flag if the window is closing.
        return Send(KvBuildTypeOnly(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE));
    default:
        // Nothing more is read: a known sender never sends an id with a payload we do not know.
        LOG4CXX_WARN(logger, L"Unknown message type " << dwType << L" skipped.");
        return true;
    }
}

bool CServiceLink::OnVersion()
{
    auto* rec = Read<MSG_VERSION>();
    if (rec == nullptr)
        return false;
    LOG4CXX_INFO(logger, L"Service version " << rec->dVersion << L" session " << rec->dwSessionId);
    KvBuildVersionAnswer(*rec, GetSessionID());
    if (!Send(*rec))
        return false;
    Sleep(0);
    // The desktop watcher reports the desktop's state as soon as the service can take it.
    if (m_window.SessionEvent() != nullptr)
        SetEvent(m_window.SessionEvent());
    return true;
}

bool CServiceLink::OnInit()
{
    std::memset(m_pBuffer, 0, sizeof(MSG_TRAYICON_INIT));
    auto* rec = Read<MSG_TRAYICON_INIT>();
    if (rec == nullptr)
        return false;
    g_dwOneTimeSession = rec->dwOneTimeSession;
    const std::size_t cchText =
        std::min(KvStringLength(rec->szOneTimeSession), KV_ONE_TIME_SESSION_UNITS - 1);
    if (!KvIsTerminated(rec->szOneTimeSession))
        LOG4CXX_WARN(logger, L"MSG_TRAYICON_INIT.szOneTimeSession has no terminator; cut to " << cchText
                                                                                              << L" units.");
    std::wmemcpy(g_szOneTimeSession, KvWide(rec->szOneTimeSession), cchText);
    g_szOneTimeSession[cchText] = L'\0';
    LOG4CXX_INFO(logger, L"dwDesktopEffects=" << rec->dwDesktopEffects << L" dwOneTimeSession="
                                              << rec->dwOneTimeSession << L" text units=" << cchText);

    if (rec->dwDesktopEffects > 1)
        m_window.DesktopOptions().Set(static_cast<int>(rec->dwDesktopEffects));
    if (!Send(KvBuildDesktopEffectsAck(0)))
        return false;
    CheckDesktopState();
    KvBuildInitAnswer(*rec, GetSessionID(), static_cast<std::uint32_t>(g_nDesktopState));
    if (!Send(*rec))
        return false;
    m_window.StartTimer(KV_TIMER_NOTIFY_CONNECT, KV_NOTIFY_AFTER_INIT_MS);
    return true;
}

bool CServiceLink::OnExit()
{
    if (Read<MSG_TRAYICON_EXIT>() == nullptr)
        return false;
    m_window.DesktopOptions().Restore();
    m_pSocket->Shutdown();
    m_pSocket->Close();
    m_window.Post(WM_CLOSE);
    g_nExitCode = KV_EXIT_CODE_ENDED;
    return false;
}

MSG_TRAYICON_CONNECT_INFO* CServiceLink::TakeConnectInfo()
{
    auto* rec = Read<MSG_TRAYICON_CONNECT_INFO>();
    if (rec == nullptr)
        return nullptr;
    TerminateField(rec->szUsername, L"MSG_TRAYICON_CONNECT_INFO.szUsername");
    TerminateField(rec->szSecondLine, L"MSG_TRAYICON_CONNECT_INFO.szSecondLine");
    TerminateField(rec->szThirdLine, L"MSG_TRAYICON_CONNECT_INFO.szThirdLine");
    m_window.StoreConnectInfo(*rec);
    LOG4CXX_INFO(logger, L"dwConnections=" << rec->dwConnections << L" dwTrayIcon=" << rec->dwTrayIcon
                                           << L" dwViewerId=" << rec->dwViewerId);
    return rec;
}

MSG_TRAYICON_SETTINGS* CServiceLink::TakeSettings()
{
    auto* rec = Read<MSG_TRAYICON_SETTINGS>();
    if (rec == nullptr)
        return nullptr;
    TerminateField(rec->szCaption, L"MSG_TRAYICON_SETTINGS.szCaption");
    TerminateField(rec->szNotifyTitle, L"MSG_TRAYICON_SETTINGS.szNotifyTitle");
    TerminateField(rec->szNotifyHeading, L"MSG_TRAYICON_SETTINGS.szNotifyHeading");
    TerminateField(rec->szConnectHeader, L"MSG_TRAYICON_SETTINGS.szConnectHeader");
    for (auto& szAbout : rec->szAboutText)
        TerminateField(szAbout, L"MSG_TRAYICON_SETTINGS.szAboutText");
    TerminateField(rec->szLanguage, L"MSG_TRAYICON_SETTINGS.szLanguage");
    m_window.StoreSettings(*rec);
    m_dwIdleTrayIcon = rec->dwIdleTrayIcon;
    return rec;
}

bool CServiceLink::OnConnectCount()
{
    const auto* rec = TakeConnectInfo();
    if (rec == nullptr)
        return false;
    m_window.SetIconSelector(rec->dwConnections != 0 ? rec->dwTrayIcon : m_dwIdleTrayIcon);
    return true;
}

bool CServiceLink::OnSettings(bool bFirst)
{
    const auto* rec = TakeSettings();
    if (rec == nullptr)
        return false;
    if (bFirst)
        m_bAcknowledgeConnect = false;
    // The tray window waits for a reply after asking for settings or addresses.
    m_window.ReplyReceived();
    m_window.SetIconSelector(rec->dwIdleTrayIcon);
    if (!bFirst)
        return true;
    if (!SendUserInformation())
        return false;
    m_window.StartTimer(KV_TIMER_NOTIFY_CONNECT, KV_NOTIFY_AFTER_SETTINGS_MS);
    return true;
}

bool CServiceLink::SendUserInformation()
{
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvZero(info);
    GetDesktopUserInformation(&info);
    info.dwType = MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION;
    return Send(info);
}

void CServiceLink::NotifyDialog(UINT uMsg, std::uint32_t dwKind, const wchar_t* szWhat,
                                const MSG_TRAYICON_CONNECT_INFO& info)
{
    KV_NOTIFY_RECORD record;
    std::memset(&record, 0, sizeof record);
    record.dwKind = dwKind;
    CopyInto(record.szText, KvReadWideString(info.szUsername).substr(0, KV_NOTIFY_NAME_UNITS) + szWhat);
    record.dwConnections = info.dwConnections;
    m_window.TellNotice(uMsg, record);
}

bool CServiceLink::OnConnectNotify()
{
    const auto* rec = TakeConnectInfo();
    if (rec == nullptr)
        return false;
    m_window.SetIconSelector(rec->dwTrayIcon);
    NotifyDialog(WM_KV_NOTIFY_CONNECTED, 1, L" connected", *rec);
    if (m_bAcknowledgeConnect)
        return Send(KvBuildTypeOnly(MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK));
    m_window.StartTimer(KV_TIMER_NOTIFY_CONNECT, KV_NOTIFY_AFTER_CONNECT_MS);
    return true;
}

bool CServiceLink::OnDisconnectNotify()
{
    const auto* rec = TakeConnectInfo();
    if (rec == nullptr)
        return false;
    NotifyDialog(WM_KV_NOTIFY_DISCONNECTED, 0, L" disconnected", *rec);
    if (rec->dwConnections == 0)
    {
        m_window.FileTransfer().SFT_RemoveDropWindow(-1);
        m_window.SetIconSelector(KV_IDLE_ICON_AFTER_LAST_VIEWER);
    }
    else
    {
        m_window.FileTransfer().SFT_RemoveDropWindow(static_cast<int>(rec->dwViewerId));
    }
    m_window.NotifyDisconnect();
    return true;
}

bool CServiceLink::OnNotifyAll()
{
    auto* rec = Read<MSG_TRAYICON_NOTIFY_ALL>();
    if (rec == nullptr)
        return false;
    TerminateField(rec->szText, L"MSG_TRAYICON_NOTIFY_ALL.szText");
    m_window.StoreViewerList(*rec);
    m_window.NotifyAll();
    return true;
}

bool CServiceLink::OnDesktopEffects()
{
    // The icon is refreshed before the mask is read; the order is kept as the service knows it.
    std::memset(m_pBuffer, 0, sizeof(MSG_TRAYICON_DESKTOP_EFFECTS));
    m_window.Post(WM_KV_TRAY_REFRESH);
    const auto* rec = Read<MSG_TRAYICON_DESKTOP_EFFECTS>();
    if (rec == nullptr)
        return false;
    const std::uint32_t dwMask = rec->dwMask;
    LOG4CXX_INFO(logger, L"dwMask=" << dwMask);
    if (dwMask > 1)
        m_window.DesktopOptions().Set(static_cast<int>(dwMask));
    return Send(KvBuildDesktopEffectsAck(dwMask));
}

bool CServiceLink::OnSftInitTemp()
{
    auto* rec = Read<MSG_TRAYICON_SFT_INIT_TEMP>();
    if (rec == nullptr)
        return false;
    TerminateField(rec->szEventName, L"MSG_TRAYICON_SFT_INIT_TEMP.szEventName");
    TerminateField(rec->szTempIniPath, L"MSG_TRAYICON_SFT_INIT_TEMP.szTempIniPath");
    TerminateField(rec->szDataPath, L"MSG_TRAYICON_SFT_INIT_TEMP.szDataPath");
    m_window.FileTransfer().SFT_CreateTempFiles(*rec);
    // The service waits on this event whether or not the files could be made.
    KvSetServiceEvent(KvWide(rec->szEventName));
    return true;
}

bool CServiceLink::OnSftDropClient()
{
    auto* rec = Read<MSG_TRAYICON_SFT_DROP_CLIENT>();
    if (rec == nullptr)
        return false;
    TerminateField(rec->szViewerName, L"MSG_TRAYICON_SFT_DROP_CLIENT.szViewerName");
    TerminateField(rec->szEventName, L"MSG_TRAYICON_SFT_DROP_CLIENT.szEventName");
    TerminateField(rec->szFileListPath, L"MSG_TRAYICON_SFT_DROP_CLIENT.szFileListPath");
    m_window.FileTransfer().SFT_AddDropWindow(*rec);
    return true;
}

bool CServiceLink::OnServerReconfigure()
{
    auto* rec = Read<MSG_TRAYICON_SERVER_RECONFIGURE>();
    if (rec == nullptr)
        return false;
    TerminateField(rec->szText, L"MSG_TRAYICON_SERVER_RECONFIGURE.szText");
    LOG4CXX_INFO(logger, L"dwState=" << rec->dwState);
    m_window.ShowReconfiguring(rec->dwState, KvShowableFieldW(rec->szText).c_str());
    // The resource library is swapped on the window's thread, which loads strings from it.
    m_window.Send(WM_KV_RELOAD_LANGUAGE);
    return true;
}

bool CServiceLink::OnAddresses()
{
    auto* rec = Read<MSG_TRAYICON_IP_ADDRESSES>();
    if (rec == nullptr)
        return false;
    TerminateField(rec->szAddresses, L"MSG_TRAYICON_IP_ADDRESSES.szAddresses");
    m_window.StoreAddresses(*rec);
    m_window.ReplyReceived();
    return true;
}

bool CServiceLink::OnReverseConnection()
{
    // The request is answered: the menu may offer a new one.
    m_window.ReverseConnectionAnswered();
    std::memset(m_pBuffer + 4, 0, sizeof(MSG_REVERSE_CONNECTION) - 4);
    const auto* rec = Read<MSG_REVERSE_CONNECTION>();
    if (rec == nullptr)
        return false;
    LOG4CXX_INFO(logger, L"dwStatus=" << rec->dwStatus << L" dwError=" << rec->dwError);
    switch (rec->dwStatus)
    {
    case KV_REVERSE_STARTED:
        m_window.Post(WM_KV_JOIN_SESSION_WAIT, 0);
        break;
    case KV_REVERSE_ENDED:
        m_window.Post(WM_KV_JOIN_SESSION_WAIT, 1);
        break;
    case KV_REVERSE_DONE:
        m_window.Post(WM_KV_JOIN_SESSION_WAIT, 1);
        ReportReverseConnection(*rec);
        break;
    default:
        break;
    }
    return true;
}

void CServiceLink::ReportReverseConnection(const MSG_REVERSE_CONNECTION& rec)
{
    KvLogBlock logBlock(logger, L"CServiceLink::ReportReverseConnection");
    KvReverseReportInput in;
    in.bSuppress = rec.bSuppressReport != 0;
    in.bShort = rec.bShortReport != 0;
    if (in.bSuppress)
    {
        LOG4CXX_INFO(logger, L"The service asks for no report.");
        return;
    }
    (in.bShort ? in.shortFormat : in.longFormat) =
        ToU16(KvLoadText(in.bShort ? IDS_REVERSE_REPORT_SHORT_FMT : IDS_REVERSE_REPORT_LONG_FMT));
    in.errorText = KvReadString(rec.szError);
    if (in.errorText.empty())
        in.systemText = ToU16(SystemMessage(rec.dwError, KV_REPORT_SYSTEM_TEXT_UNITS));
    in.shortText = KvReadString(rec.szShortText);
    in.host = KvReadString(rec.szHost);
    in.dwPort = rec.dwPort;
    const KvReverseReport report = KvComposeReverseReport(in);

    // Cut as the message box's buffer always cut it.
    const std::wstring text(reinterpret_cast<const wchar_t*>(report.text.data()),
                            std::min<std::size_t>(report.text.size(), 4095));
    LOG4CXX_INFO(logger, L"Reverse connection report: " << text);
    m_window.StoreReport(KvLoadText(IDS_APP_CAPTION).substr(0, 4095), text, report.bPost);
}

bool CServiceLink::OnChatOpen()
{
    auto* rec = Read<MSG_TRAYICON_CHAT_OPEN>();
    if (rec == nullptr)
        return false;
    TerminateField(rec->szUsername, L"MSG_TRAYICON_CHAT_OPEN.szUsername");
    LOG4CXX_INFO(logger, L"MSG_TYPE_TRAYICON_CHAT_OPEN: szUsername = " << KvReadWideString(rec->szUsername));
    m_window.Send(WM_CHAT_OPEN, reinterpret_cast<WPARAM>(rec));
    return true;
}

bool CServiceLink::SkipBytes(std::uint32_t cb)
{
    while (cb != 0)
    {
        const std::uint32_t cbPart = std::min<std::uint32_t>(cb, KV_RECEIVE_BUFFER_BYTES);
        if (!m_pSocket->ReadExact(m_pBuffer, static_cast<int>(cbPart)))
            return false;
        cb -= cbPart;
    }
    return true;
}

bool CServiceLink::OnChatMessage()
{
    KvLogBlock logBlock(logger, L"CServiceLink::OnChatMessage");
    LOG4CXX_INFO(logger, L"MSG_TYPE_CHAT_MESSAGE received.");
    MSG_CHAT_MESSAGE head;
    KvZero(head);
    head.dwType = MSG_TYPE_CHAT_MESSAGE;
    if (!m_pSocket->ReadExact(reinterpret_cast<std::uint8_t*>(&head) + 4, static_cast<int>(sizeof head - 4)))
        return false;
    TerminateField(head.szUsername, L"MSG_CHAT_MESSAGE.szUsername");
    LOG4CXX_INFO(logger, L"MSG_CHAT_MESSAGE.szUsername = " << KvReadWideString(head.szUsername));
    LOG4CXX_INFO(logger, L"MSG_CHAT_MESSAGE.dwMessageLength = " << head.dwMessageLength);

    // A body beyond what a chat window shows is read and dropped, so the records behind it still
    // frame; one so large that no service would send it means the stream is lost.
    if (head.dwMessageLength > KV_MAX_CHAT_SKIP_BYTES)
    {
        LOG4CXX_ERROR(logger, L"Chat message body of "
                                  << head.dwMessageLength
                                  << L" bytes cannot be a chat message; the link to the service ends.");
        return false;
    }
    if (!KvChatLengthAcceptable(head.dwMessageLength))
    {
        LOG4CXX_WARN(logger, L"Chat message body of "
                                 << head.dwMessageLength << L" bytes exceeds the limit of "
                                 << KV_MAX_CHAT_BODY_BYTES << L" bytes; it is read and skipped.");
        return SkipBytes(head.dwMessageLength);
    }
    if (head.dwMessageLength % 2 != 0)
        LOG4CXX_WARN(logger, L"Chat message body of "
                                 << head.dwMessageLength
                                 << L" bytes ends in half a character; the last byte is not shown.");
    const std::size_t cbWhole = sizeof head + head.dwMessageLength;
    std::unique_ptr<std::uint8_t[]> whole(new (std::nothrow) std::uint8_t[cbWhole]);
    if (!whole)
    {
        LOG4CXX_ERROR(logger, L"No memory for a chat message of "
                                  << cbWhole << L" bytes; the link to the service ends.");
        return false;
    }
    std::memcpy(whole.get(), &head, sizeof head);
    if (!m_pSocket->ReadExact(whole.get() + sizeof head, static_cast<int>(head.dwMessageLength)))
    {
        const DWORD dwError = GetLastError();
        const int nSocketError = WSAGetLastError();
        LOG4CXX_ERROR(logger, L"Socket read failed. GetLastError=" << dwError << L" WSAGetLastError="
                                                                   << nSocketError);
        return false;
    }
    m_window.Send(WM_CHAT_MESSAGE, reinterpret_cast<WPARAM>(whole.get()));
    return true;
}

void RunConnection(IKvTrayLink& window)
{
    KvLogBlock logBlock(logger, L"RunConnection");
    std::unique_ptr<std::uint8_t[]> buffer(new (std::nothrow) std::uint8_t[KV_RECEIVE_BUFFER_BYTES]);
    if (!buffer)
    {
        LOG4CXX_ERROR(logger, L"No memory for the receive buffer.");
        return;
    }
    CServiceLink link(window, buffer.get());
    if (link.Connect())
        link.ReadLoop();
}

} // namespace

unsigned int __stdcall ConnectionInfo(void* pTrayWindow)
{
    KvSetThreadName(L"ConnectionInfo");
    {
        KvLogBlock logBlock(logger, L"ConnectionInfo");
        auto* pWindow = static_cast<IKvTrayLink*>(pTrayWindow);
        if (pWindow != nullptr)
        {
            RunConnection(*pWindow);
            // A window that is closing has already let go of the link; otherwise the agent ends
            // with its link.
            if (!pWindow->Closing())
            {
                LOG4CXX_INFO(logger, L"The connection to the service ended; closing the tray window.");
                pWindow->Post(WM_KV_QUIT);
            }
        }
    }
    _endthreadex(0);
    return 0;
}

int GetPortNumberViaUDP(unsigned int* puiPort)
{
    KvLogBlock logBlock(logger, L"GetPortNumberViaUDP");
    if (puiPort == nullptr)
        return 0;
    CKvSocket socket;
    if (!socket.Connect(KV_SERVICE_HOST, KV_DEFAULT_SERVICE_PORT, SOCK_DGRAM, 0))
    {
        LOG4CXX_INFO(logger, L"No datagram socket to the service. Error = " << WSAGetLastError());
        return 0;
    }
    socket.SetTimeouts(KV_PORT_QUERY_TIMEOUT_MS);
    const MSG_UDP_HEADER head = KvBuildUdpHeader(KV_UDP_PORT_QUERY);
    MSG_PORT_QUERY query;
    KvBuildPortQuery(query);
    MSG_PORT_QUERY answer;
    KvZero(answer);
    if (!socket.Send(&head, sizeof head) || !socket.Send(&query, sizeof query) ||
        !socket.ReadOnce(&answer, sizeof answer))
    {
        LOG4CXX_INFO(logger, L"The service did not tell its port. Error = " << WSAGetLastError());
        return 0;
    }
    LOG4CXX_INFO(logger, L"The service listens on port " << answer.dwPort);
    *puiPort = answer.dwPort;
    return 1;
}
