#include "SimEngine.h"

#include "SimText.h"

#include <algorithm>
#include <cstring>
#include <ostream>

namespace kvsim
{

namespace
{

const char* NameOf(std::uint32_t type)
{
    const char* name = KvMessageName(type);
    return name != nullptr ? name : "unknown id";
}

std::vector<std::u16string> SplitAddresses(const std::string& list)
{
    std::vector<std::u16string> out;
    std::string cur;
    for (char c : list + " ")
    {
        if (c == ',' || c == ' ' || c == '\t')
        {
            if (!cur.empty())
                out.push_back(Utf8ToUtf16(cur));
            cur.clear();
        }
        else
            cur.push_back(c);
    }
    return out;
}

std::u16string OptText(const Command& cmd, const char* key)
{
    const std::string* v = cmd.Option(key);
    return v != nullptr ? Utf8ToUtf16(*v) : std::u16string();
}

} // namespace

// ---------------------------------------------------------------------------------------------

void Reporter::Trace(const std::string& line)
{
    m_trace << line << std::endl;
}

void Reporter::Note(const std::string& line)
{
    m_trace << "-- " << line << std::endl;
}

void Reporter::Error(const std::string& line)
{
    m_list.push_back(line);
    m_trace << "!! PROTOCOL ERROR: " << line << std::endl;
    if (&m_errors != &m_trace)
        m_errors << "kvnxs-sim: PROTOCOL ERROR: " << line << std::endl;
}

void Reporter::ScriptError(const std::string& line)
{
    m_list.push_back(line);
    m_trace << "!! SCRIPT ERROR: " << line << std::endl;
    if (&m_errors != &m_trace)
        m_errors << "kvnxs-sim: SCRIPT ERROR: " << line << std::endl;
}

// ---------------------------------------------------------------------------------------------

Engine::Engine(const EngineOptions& options, Reporter& reporter)
    : m_options(options), m_reporter(reporter), m_settings(std::make_unique<MSG_TRAYICON_SETTINGS>())
{
    DefaultSettings(*m_settings);
}

Engine::~Engine() = default;

const char* Engine::StageName(Stage stage)
{
    switch (stage)
    {
    case Stage::Idle:
        return "waiting for the agent";
    case Stage::AwaitVersion:
        return "waiting for the version echo";
    case Stage::AwaitInitAck:
        return "waiting for the initialisation acknowledgement {50005, 0}";
    case Stage::AwaitInitEcho:
        return "waiting for the initialisation echo";
    case Stage::AwaitUserInfo:
        return "waiting for the desktop user information after the settings";
    case Stage::Running:
        return "running";
    }
    return "?";
}

void Engine::ProtocolError(const std::string& what)
{
    m_reporter.Error(what);
}

void Engine::Send(const std::uint8_t* data, std::size_t size)
{
    m_reporter.Trace(">> " + DescribeRecord(data, size, KvDirection::ToAgent));
    m_outgoing.insert(m_outgoing.end(), data, data + size);
}

Bytes Engine::TakeOutgoing()
{
    Bytes out;
    out.swap(m_outgoing);
    m_bOutgoingMayEndLink = false;
    return out;
}

void Engine::Start()
{
    m_version = std::make_unique<MSG_VERSION>();
    BuildVersion(*m_version, m_options.dwServiceSession);
    m_stage = Stage::AwaitVersion;
    Send(*m_version);
}

void Engine::SendSettings(std::uint32_t dwType)
{
    m_settings->dwType = dwType;
    Send(*m_settings);
    if (dwType == MSG_TYPE_TRAYICON_SETTINGS)
        ++m_nUserInfoPending;
}

void Engine::OnAgentBytes(const std::uint8_t* data, std::size_t size)
{
    if (m_bStreamBroken)
        return;
    m_decoder.Feed(data, size);
    for (;;)
    {
        KvRecordDecoder::Event ev = m_decoder.Next();
        if (ev.status == KvDecodeStatus::NeedMore)
            return;
        if (ev.status == KvDecodeStatus::Record)
        {
            HandleAgentRecord(ev.record);
            continue;
        }
        if (ev.status == KvDecodeStatus::UnknownId)
            ProtocolError("unknown type id " + std::to_string(ev.dwType) +
                          " from the agent; the rest of the stream cannot be framed" +
                          (m_lastAgentType == MSG_TYPE_CHAT_MESSAGE
                               ? " (it follows a chat message: its length field and its body disagree?)"
                               : ""));
        else
            ProtocolError("chat message from the agent announces a body of " +
                          std::to_string(ev.cbExpected - sizeof(MSG_CHAT_MESSAGE)) +
                          " bytes, beyond the bound of " + std::to_string(KV_MAX_CHAT_BODY_BYTES));
        m_bStreamBroken = true;
        return;
    }
}

void Engine::OnAgentClosed()
{
    if (m_bClosed)
        return;
    m_bClosed = true;
    if (!m_bStreamBroken)
    {
        KvRecordDecoder::Event ev = m_decoder.Finish();
        if (ev.status == KvDecodeStatus::ShortRecord)
            ProtocolError(std::string("the agent closed the connection inside ") + NameOf(ev.dwType) + ": " +
                          std::to_string(ev.cbHave) + " of " +
                          (ev.cbExpected != 0 ? std::to_string(ev.cbExpected) : std::string("?")) + " bytes");
    }
    m_reporter.Note(std::string("the agent closed the connection") +
                    (m_bExitRequested ? " (exit was requested)" : ""));
    if (m_stage != Stage::Running)
        ProtocolError(std::string("connection ended during the handshake, ") + StageName(m_stage));
}

void Engine::OnServiceClosed()
{
    if (m_bClosed)
        return;
    m_bClosed = true;
    m_bStreamBroken = true;
    m_reporter.Note("the service closed the connection");
}

void Engine::NoteAnswersAskedBy(const Bytes& rec)
{
    const KvPeekResult head = KvPeekRecord(rec.data(), rec.size(), KvDirection::ToAgent);
    if (head.status != KvDecodeStatus::Record || head.cbRecord != rec.size())
        return; // a part of a record or an unknown id: nothing can be answered
    switch (head.dwType)
    {
    case MSG_TYPE_TRAYICON_SETTINGS:
    case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        ++m_nUserInfoPending;
        break;
    case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS:
        m_effectsAcks.push_back(KvReadU32(rec.data() + 4));
        break;
    case MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE:
        ++m_nUnblockPending;
        break;
    case MSG_TYPE_VERSION:
        ++m_nVersionEchoPending;
        break;
    case MSG_TYPE_TRAYICON_INIT:
        // Acknowledged with 0 in turn with the effects masks, then echoed.
        m_effectsAcks.push_back(0);
        ++m_nInitEchoPending;
        break;
    case MSG_TYPE_TRAYICON_EXIT:
        m_bExitRequested = true;
        break;
    default:
        break;
    }
}

void Engine::HandleAgentRecord(const std::vector<std::uint8_t>& rec)
{
    const std::uint8_t* data = rec.data();
    const std::size_t size = rec.size();
    const std::uint32_t type = KvReadU32(data);
    m_reporter.Trace("<< " + DescribeRecord(data, size, KvDirection::ToService));
    for (const std::string& problem : CheckAgentRecord(data, size))
        ProtocolError(std::string(NameOf(type)) + ": " + problem);
    m_lastAgentType = type;

    if (m_stage == Stage::AwaitVersion && type != MSG_TYPE_VERSION)
    {
        ProtocolError(std::string(NameOf(type)) + " before the version exchange");
        return;
    }

    bool bHandshake = false;
    switch (type)
    {
    case MSG_TYPE_VERSION:
    {
        if (m_stage == Stage::Running && m_nVersionEchoPending > 0)
        {
            --m_nVersionEchoPending;
            break;
        }
        if (m_stage != Stage::AwaitVersion)
        {
            ProtocolError("version echo nobody asked for");
            break;
        }
        MSG_VERSION echo;
        KvRecordFromBytes(echo, data, size);
        if (echo.dwReserved4 != m_version->dwReserved4 ||
            std::memcmp(echo.reserved24, m_version->reserved24, sizeof echo.reserved24) != 0)
            ProtocolError("version echo changed the reserved bytes 4-7 or 24-35");
        m_agentSession = echo.dwSessionId;
        if (m_options.dwAgentSession != kAnySession && echo.dwSessionId != m_options.dwAgentSession)
            ProtocolError("version echo carries session id " + std::to_string(echo.dwSessionId) +
                          ", the agent runs in session " + std::to_string(m_options.dwAgentSession));
        bHandshake = true;
        m_init = std::make_unique<MSG_TRAYICON_INIT>();
        BuildInit(*m_init, m_options.dwInitEffects, m_options.dwOneTime, m_options.oneTimeText);
        m_stage = Stage::AwaitInitAck;
        m_bInitAckPending = true;
        Send(*m_init);
        break;
    }
    case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK:
    {
        const std::uint32_t mask = KvReadU32(data + 4);
        if (m_bInitAckPending)
        {
            // The acknowledgement of the initialisation comes first and always carries 0.
            m_bInitAckPending = false;
            bHandshake = true;
            if (mask != 0)
                ProtocolError("initialisation acknowledgement carries mask " + std::to_string(mask) +
                              ", must be 0");
            if (m_stage == Stage::AwaitInitAck)
                m_stage = Stage::AwaitInitEcho;
            break;
        }
        if (m_effectsAcks.empty())
        {
            ProtocolError("desktop-effects acknowledgement nobody asked for");
            break;
        }
        const std::uint32_t want = m_effectsAcks.front();
        m_effectsAcks.pop_front();
        if (mask != want)
            ProtocolError("desktop-effects acknowledgement carries mask " + std::to_string(mask) +
                          ", the service sent " + std::to_string(want));
        break;
    }
    case MSG_TYPE_TRAYICON_INIT:
    {
        if (m_stage == Stage::Running && m_nInitEchoPending > 0)
        {
            --m_nInitEchoPending;
            break;
        }
        if (m_stage != Stage::AwaitInitAck && m_stage != Stage::AwaitInitEcho)
        {
            ProtocolError("initialisation echo nobody asked for");
            break;
        }
        if (m_stage == Stage::AwaitInitAck)
            ProtocolError("initialisation echo before its acknowledgement {50005, 0}");
        const std::size_t from = offsetof(MSG_TRAYICON_INIT, dwDesktopEffects);
        if (std::memcmp(data + from, KvBytes(*m_init) + from, sizeof(MSG_TRAYICON_INIT) - from) != 0)
            ProtocolError("initialisation echo does not carry bytes 12-16211 as sent");
        const std::uint32_t session = KvReadU32(data + offsetof(MSG_TRAYICON_INIT, dwSessionId));
        if (session != m_agentSession)
            ProtocolError("initialisation echo carries session id " + std::to_string(session) +
                          ", the version echo " + std::to_string(m_agentSession));
        bHandshake = true;
        m_stage = Stage::AwaitUserInfo;
        SendSettings(MSG_TYPE_TRAYICON_SETTINGS);
        break;
    }
    case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        if (m_nUserInfoPending == 0)
        {
            ProtocolError("desktop user information nobody asked for");
            break;
        }
        --m_nUserInfoPending;
        if (m_stage == Stage::AwaitUserInfo)
        {
            bHandshake = true;
            m_stage = Stage::Running;
            m_reporter.Note("handshake complete");
        }
        break;
    case MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE:
        if (m_nUnblockPending == 0)
            ProtocolError("read-unblocking echo nobody asked for");
        else
            --m_nUnblockPending;
        break;
    case MSG_TYPE_CHAT_MESSAGE:
        // The local user may still be typing when the viewer has left; the service drops it.
        if (m_bChatViewerGone)
            m_reporter.Note("chat message for " + m_chatViewer + ", who is gone");
        m_chats.push_back(ChatBody(data, size));
        break;
    case MSG_TYPE_REVERSE_CONNECTION:
        if (size == sizeof(MSG_REVERSE_CONNECTION))
        {
            auto rec = std::make_unique<MSG_REVERSE_CONNECTION>();
            KvRecordFromBytes(*rec, data, size);
            m_reverseRequests.push_back(std::move(rec));
        }
        break;
    default:
        break;
    }
    if (!bHandshake)
        m_received.push_back(type);
}

bool Engine::TakeReceived(std::uint32_t dwType)
{
    auto it = std::find(m_received.begin(), m_received.end(), dwType);
    if (it == m_received.end())
        return false;
    m_received.erase(it);
    return true;
}

bool Engine::TakeInvitationEvent(const std::string& kind)
{
    auto it = std::find(m_inviteEvents.begin(), m_inviteEvents.end(), kind);
    if (it == m_inviteEvents.end())
        return false;
    m_inviteEvents.erase(it);
    return true;
}

bool Engine::CompareInvitation(const Command& cmd) const
{
    static const char* const kFields[] = {"name",       "rights",     "expiry", "password",
                                          "proxy-host", "proxy-port", "secret"};
    if (std::none_of(std::begin(kFields), std::end(kFields),
                     [&](const char* key) { return cmd.Option(key); }))
        return true;
    const std::string where = "line " + std::to_string(cmd.line) + ": invitation request ";
    if (m_lastInvitation == nullptr)
    {
        m_reporter.Error(where + "never arrived whole");
        return false;
    }
    // The request the dialog should have sent, built from the options; then byte by byte.
    const std::u16string name = OptText(cmd, "name"), password = OptText(cmd, "password"),
                         proxyHost = OptText(cmd, "proxy-host"), secret = OptText(cmd, "secret");
    const std::string rights = cmd.Option("rights") ? *cmd.Option("rights") : "00000";
    KvInvitationFields<char16_t> f;
    f.name = name.c_str();
    bool* const flags[] = {&f.bRightA, &f.bRightB, &f.bRightC, &f.bRightD, &f.bRightE};
    for (std::size_t i = 0; i < 5 && i < rights.size(); ++i)
        *flags[i] = rights[i] == '1';
    f.dwExpiry = cmd.OptionU32("expiry");
    f.password = password.empty() ? nullptr : password.c_str();
    f.proxyHost = proxyHost.empty() ? nullptr : proxyHost.c_str();
    f.dwProxyPort = cmd.OptionU32("proxy-port");
    f.proxySecret = secret.empty() ? nullptr : secret.c_str();
    auto want = std::make_unique<MSG_INVITATION_REQUEST>();
    KvBuildInvitationRequest(*want, f);
    const auto* got = reinterpret_cast<const std::uint8_t*>(m_lastInvitation.get());
    const auto* expected = reinterpret_cast<const std::uint8_t*>(want.get());
    const std::size_t at = std::mismatch(got, got + sizeof *want, expected).first - got;
    if (at == sizeof *want)
        return true;
    const MSG_INVITATION_REQUEST& r = *m_lastInvitation;
    m_reporter.Error(where + "differs from byte " + std::to_string(at) + ": name=" +
                     QuoteForTrace(KvReadString(r.szName), 200) + " rights=" + std::to_string(r.bRightA) +
                     std::to_string(r.bRightB) + std::to_string(r.bRightC) + std::to_string(r.bRightD) +
                     std::to_string(r.bRightE) + " expiry=" + std::to_string(r.dwExpiry) +
                     " password=" + QuoteForTrace(KvReadString(r.szPassword), 200) +
                     " proxy-host=" + QuoteForTrace(KvReadString(r.szProxyHost), 200) +
                     " proxy-port=" + std::to_string(r.dwProxyPort) +
                     " secret=" + QuoteForTrace(KvReadString(r.szProxySecret), 200));
    return false;
}

bool Engine::TakePermissionAnswer(std::uint32_t& code)
{
    if (m_permAnswers.empty())
        return false;
    code = m_permAnswers.front();
    m_permAnswers.pop_front();
    return true;
}

bool Engine::TakeChat(const Command& cmd)
{
    const std::u16string got = m_chats.front();
    m_chats.pop_front();
    const std::u16string want = Utf8ToUtf16(cmd.Arg(0));
    if (got == want)
        return true;
    const auto diff = std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first - got.begin();
    m_reporter.Error("line " + std::to_string(cmd.line) + ": chat message " + QuoteForTrace(got, 200) +
                     " from the agent, expected " + QuoteForTrace(want, 200) + " (" +
                     std::to_string(got.size()) + " and " + std::to_string(want.size()) +
                     " units, first difference at unit " + std::to_string(diff) + ")");
    return false;
}

// ---------------------------------------------------------------------------------------------

bool Engine::TakeReverse(const Command& cmd)
{
    const std::unique_ptr<MSG_REVERSE_CONNECTION> got = std::move(m_reverseRequests.front());
    m_reverseRequests.pop_front();
    const std::string where = "line " + std::to_string(cmd.line) + ": reverse-connection request ";
    bool bSame = true;
    const auto Text = [&](const char* key, std::u16string_view field)
    {
        const std::string* want = cmd.Option(key);
        if (want == nullptr || Utf8ToUtf16(*want) == field)
            return;
        m_reporter.Error(where + key + "=" + QuoteForTrace(field, 200) + ", expected " +
                         QuoteForTrace(Utf8ToUtf16(*want), 200));
        bSame = false;
    };
    const auto Number = [&](const char* key, std::uint32_t field)
    {
        const std::string* want = cmd.Option(key);
        if (want == nullptr || cmd.OptionU32(key) == field)
            return;
        m_reporter.Error(where + key + "=" + std::to_string(field) + ", expected " + *want);
        bSame = false;
    };
    Number("status", got->dwStatus);
    Number("option", got->uConnectOption);
    Number("join", got->bShortReport);
    Text("code", KvReadString(got->szShortText));
    Text("host", KvReadString(got->szHost));
    Number("port", got->dwPort);
    Number("use-proxy", got->bUseProxy);
    Text("proxy-host", KvReadString(got->szProxyHost));
    Number("proxy-port", got->dwProxyPort);
    Text("secret", KvReadString(got->szProxySecret));
    return bSame;
}

bool Engine::SftFilesWaiting(std::uint32_t dwViewerId)
{
    const auto it = m_sftDrops.find(dwViewerId);
    if (it == m_sftDrops.end() || it->second.event == nullptr)
        return false;
    if (!it->second.bSet)
        it->second.bSet = it->second.event->Signalled();
    return it->second.bSet;
}

bool Engine::TakeSftFiles(const Command& cmd)
{
    const std::string where = "line " + std::to_string(cmd.line) + ": ";
    SftDrop& drop = m_sftDrops[cmd.U32(0)];
    drop.bSet = false;
    std::vector<std::string> got;
    std::string error;
    if (!ReadSftFileList(drop.listPath, got, error))
    {
        m_reporter.Error(where + error);
        return false;
    }
    m_reporter.Trace("-- " + std::to_string(got.size()) + " files listed in " + drop.listPath);
    const std::string* files = cmd.Option("files");
    std::vector<std::string> want;
    if (files != nullptr)
        for (std::size_t start = 0; start <= files->size();)
        {
            const std::size_t end = std::min(files->find('|', start), files->size());
            want.push_back(files->substr(start, end - start));
            start = end + 1;
        }
    const std::uint32_t dwCount = cmd.OptionU32("count", static_cast<std::uint32_t>(want.size()));
    if (got.size() != dwCount)
    {
        m_reporter.Error(where + std::to_string(got.size()) + " files listed, expected " +
                         std::to_string(dwCount));
        return false;
    }
    for (std::size_t i = 0; i < want.size() && i < got.size(); ++i)
        if (got[i] != want[i])
        {
            m_reporter.Error(where + "file " + std::to_string(i + 1) + " listed as " +
                             QuoteForTrace(Utf8ToUtf16(got[i]), 300) + ", expected " +
                             QuoteForTrace(Utf8ToUtf16(want[i]), 300));
            return false;
        }
    return true;
}

void Engine::SendSoak(const Bytes& rec, const std::string& summary)
{
    m_reporter.Trace(">> " + summary);
    m_outgoing.insert(m_outgoing.end(), rec.begin(), rec.end());
    NoteAnswersAskedBy(rec);
    const MSG_TRAYICON_TYPE_ONLY unblock = KvBuildTypeOnly(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE);
    m_outgoing.insert(m_outgoing.end(), KvBytes(unblock), KvBytes(unblock) + sizeof unblock);
    ++m_nUnblockPending;
}

bool Engine::ApplySettings(const Command& cmd)
{
    for (const auto& kv : cmd.options)
    {
        std::string error;
        if (!SetSettingsField(*m_settings, kv.first, kv.second, error))
        {
            m_reporter.ScriptError("line " + std::to_string(cmd.line) + ": " + error);
            return false;
        }
    }
    return true;
}

void Engine::SendChat(const Command& cmd)
{
    m_chatViewer = cmd.Arg(0);
    m_bChatViewerGone = false;
    const std::string* units = cmd.Option("units");
    const std::string* bytes = cmd.Option("bytes");
    std::u16string text = Utf8ToUtf16(cmd.Arg(1));
    std::size_t cbBody = 2 * text.size();
    if (units != nullptr || bytes != nullptr)
    {
        // Readable at any length and cut anywhere without a broken pair: left-to-right and
        // right-to-left runs, accents, a symbol and a line break.
        text = u"Grüße, señor ✓ שלום עולם 12345 مرحبا بالعالم — Ωμέγα\r\n";
        cbBody = units != nullptr ? 2 * std::size_t{cmd.OptionU32("units")} : cmd.OptionU32("bytes");
    }
    Bytes rec = BuildChat(Utf8ToUtf16(cmd.Arg(0)), cmd.OptionU32("raw-user") != 0, text, cbBody);
    if (cmd.Option("length") != nullptr)
    {
        const std::uint32_t length = cmd.OptionU32("length");
        std::memcpy(rec.data() + offsetof(MSG_CHAT_MESSAGE, dwMessageLength), &length, 4);
    }
    // Up to the skip bound the agent reads the body whole; beyond it, it may let the link go.
    if (KvReadU32(rec.data() + offsetof(MSG_CHAT_MESSAGE, dwMessageLength)) > KV_MAX_CHAT_SKIP_BYTES)
        m_bOutgoingMayEndLink = true;
    Send(rec.data(), rec.size());
}

bool Engine::Execute(const Command& cmd)
{
    const std::string& v = cmd.verb;
    if (v == "note")
    {
        m_reporter.Note(cmd.Arg(0));
        return true;
    }
    if (v == "invite-text")
    {
        if (Utf8ToWindows1252(cmd.Arg(0), m_inviteText))
        {
            m_cbInviteAnnounced = cmd.OptionU32("length", static_cast<std::uint32_t>(m_inviteText.size()));
            return true;
        }
        m_reporter.ScriptError("line " + std::to_string(cmd.line) +
                               ": the invitation text has a character outside code page 1252");
        return false;
    }
    if (v == "invite-silent")
    {
        m_bInviteSilent = cmd.U32(0) != 0;
        return true;
    }
    if (v == "invite-error")
    {
        m_dwInviteError = cmd.U32(0);
        m_inviteErrorText = Utf8ToUtf16(cmd.Arg(1));
        return true;
    }
    if (v == "invite-delete")
    {
        m_dwDeleteStatus = cmd.U32(0);
        m_dwDeleteCount = cmd.U32(1);
        return true;
    }
    if (m_bClosed || m_stage == Stage::Idle)
    {
        m_reporter.ScriptError("line " + std::to_string(cmd.line) + ": '" + v + "': no agent connected");
        return false;
    }

    if (v == "connect" || v == "disconnect")
    {
        const std::string& name = cmd.Arg(0);
        auto it =
            std::find_if(m_viewers.begin(), m_viewers.end(), [&](const auto& e) { return e.first == name; });
        std::uint32_t id;
        if (v == "connect")
        {
            id = cmd.OptionU32("id", m_nextViewerId);
            m_nextViewerId = std::max(m_nextViewerId, id + 1);
            if (it == m_viewers.end())
                m_viewers.emplace_back(name, id);
            else
                it->second = id;
        }
        else
        {
            id = cmd.OptionU32("id", it != m_viewers.end() ? it->second : 0);
            if (it != m_viewers.end())
                m_viewers.erase(it);
            else
                m_reporter.Note("'" + name + "' was not connected");
        }
        if (name == m_chatViewer)
            m_bChatViewerGone = v == "disconnect";
        auto rec = std::make_unique<MSG_TRAYICON_CONNECT_INFO>();
        BuildConnectInfo(
            *rec, v == "connect" ? MSG_TYPE_TRAYICON_CONNECT_NOTIFY : MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY,
            Utf8ToUtf16(name), OptText(cmd, "line2"), OptText(cmd, "line3"), cmd.OptionU32("icon", 1),
            cmd.OptionU32("count", static_cast<std::uint32_t>(m_viewers.size())), cmd.OptionU32("button", 0),
            id);
        Send(*rec);
        return true;
    }
    if (v == "connect-count")
    {
        auto rec = std::make_unique<MSG_TRAYICON_CONNECT_INFO>();
        const std::uint32_t count = cmd.U32(0, static_cast<std::uint32_t>(m_viewers.size()));
        BuildConnectInfo(*rec, MSG_TYPE_TRAYICON_CONNECT_COUNT,
                         m_viewers.empty() ? u"" : Utf8ToUtf16(m_viewers.back().first), u"", u"",
                         cmd.OptionU32("icon", 1), count, 0, m_viewers.empty() ? 0 : m_viewers.back().second);
        Send(*rec);
        return true;
    }
    if (v == "notify-all")
    {
        std::u16string text = Utf8ToUtf16(cmd.Arg(0));
        if (!cmd.Has(0))
            for (const auto& e : m_viewers)
                text += (text.empty() ? u"" : u"\r\n") + Utf8ToUtf16(e.first);
        auto rec = std::make_unique<MSG_TRAYICON_NOTIFY_ALL>();
        BuildNotifyAll(*rec, text, cmd.OptionU32("count", static_cast<std::uint32_t>(m_viewers.size())));
        Send(*rec);
        return true;
    }
    if (v == "effects")
    {
        const MSG_TRAYICON_DESKTOP_EFFECTS rec{MSG_TYPE_TRAYICON_DESKTOP_EFFECTS, cmd.U32(0)};
        m_effectsAcks.push_back(rec.dwMask);
        Send(rec);
        return true;
    }
    if (v == "lock-hint")
    {
        Send(KvBuildTypeOnly(MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE));
        return true;
    }
    if (v == "chat-close")
    {
        m_chatViewer.clear();
        m_bChatViewerGone = false;
        Send(KvBuildTypeOnly(MSG_TYPE_TRAYICON_CHAT_CLOSE));
        return true;
    }
    if (v == "chat-open")
    {
        m_chatViewer = cmd.Arg(0);
        m_bChatViewerGone = false;
        MSG_TRAYICON_CHAT_OPEN rec;
        BuildChatOpen(rec, Utf8ToUtf16(cmd.Arg(0)));
        Send(rec);
        return true;
    }
    if (v == "chat")
    {
        SendChat(cmd);
        return true;
    }
    if (v == "settings" || v == "settings-update")
    {
        if (!ApplySettings(cmd))
            return false;
        SendSettings(v == "settings" ? MSG_TYPE_TRAYICON_SETTINGS : MSG_TYPE_TRAYICON_SETTINGS_UPDATE);
        return true;
    }
    if (v == "settings-dialog")
    {
        const MSG_TRAYICON_SETTINGS_DIALOG rec{MSG_TYPE_TRAYICON_SETTINGS_DIALOG, {0, 0}};
        Send(rec);
        return true;
    }
    if (v == "reconfigure")
    {
        MSG_TRAYICON_SERVER_RECONFIGURE rec;
        BuildReconfigure(rec, cmd.U32(0), Utf8ToUtf16(cmd.Arg(1)));
        Send(rec);
        return true;
    }
    if (v == "addresses")
    {
        auto rec = std::make_unique<MSG_TRAYICON_IP_ADDRESSES>();
        BuildAddresses(*rec, SplitAddresses(cmd.Arg(0)));
        Send(*rec);
        return true;
    }
    if (v == "desktop-info")
    {
        MSG_TRAYICON_DESKTOP_USER_INFORMATION rec;
        KvZero(rec);
        rec.dwType = MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION;
        ++m_nUserInfoPending;
        Send(rec);
        return true;
    }
    if (v == "reverse")
    {
        const std::uint32_t error = cmd.OptionU32("error", 0);
        const std::string* text = cmd.Option("text");
        auto rec = std::make_unique<MSG_REVERSE_CONNECTION>();
        BuildReverseResult(*rec, cmd.U32(0), error,
                           text != nullptr ? Utf8ToUtf16(*text) : (error == 0 ? u"NOERROR" : u""),
                           cmd.OptionU32("short", 0), cmd.OptionU32("suppress", 0),
                           OptText(cmd, "short-text"), OptText(cmd, "host"), cmd.OptionU32("port", 0));
        Send(*rec);
        return true;
    }
    if (v == "sft-drop")
    {
        const std::uint32_t dwViewerId = cmd.U32(0);
        const std::string* event = cmd.Option("event");
        const std::string* list = cmd.Option("list");
        SftDrop drop;
        drop.listPath = list != nullptr ? *list : std::string();
        if (event != nullptr)
        {
            // The service makes the event before it asks; the agent only opens it.
            std::string error;
            drop.event = std::make_unique<SftDropEvent>();
            if (!drop.event->Create(*event, error))
            {
                m_reporter.ScriptError("line " + std::to_string(cmd.line) + ": " + error);
                return false;
            }
        }
        auto rec = std::make_unique<MSG_TRAYICON_SFT_DROP_CLIENT>();
        BuildSftDrop(*rec, dwViewerId, cmd.OptionU32("value", 0), OptText(cmd, "name"),
                     event != nullptr ? Utf8ToUtf16(*event) : u"", Utf8ToUtf16(drop.listPath));
        m_sftDrops[dwViewerId] = std::move(drop);
        Send(*rec);
        return true;
    }
    if (v == "sft-init")
    {
        MSG_TRAYICON_SFT_INIT_TEMP rec;
        BuildSftInit(rec, Utf8ToUtf16(cmd.Arg(0)), Utf8ToUtf16(cmd.Arg(1)), Utf8ToUtf16(cmd.Arg(2)));
        Send(rec);
        return true;
    }
    if (v == "sft-delete")
    {
        const MSG_TRAYICON_SFT_DELETE_TEMP rec{MSG_TYPE_TRAYICON_SFT_DELETE_TEMP, cmd.U32(0)};
        Send(rec);
        return true;
    }
    if (v == "unblock")
    {
        ++m_nUnblockPending;
        Send(KvBuildTypeOnly(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE));
        return true;
    }
    if (v == "exit")
    {
        MSG_TRAYICON_EXIT rec;
        KvZero(rec);
        rec.dwType = MSG_TYPE_TRAYICON_EXIT;
        m_bExitRequested = true;
        Send(rec);
        return true;
    }
    if (v == "raw")
    {
        Bytes rec(cmd.U32(1, 4), static_cast<std::uint8_t>(cmd.OptionU32("fill", 0)));
        const std::uint32_t id = cmd.U32(0);
        std::memcpy(rec.data(), &id, 4);
        NoteAnswersAskedBy(rec);
        Send(rec.data(), rec.size());
        return true;
    }
    m_reporter.ScriptError("line " + std::to_string(cmd.line) + ": '" + v + "' is not a record command");
    return false;
}

// ---------------------------------------------------------------------------------------------

std::vector<Bytes> Engine::OnServiceDatagram(const std::string& peer, const std::uint8_t* data,
                                             std::size_t size)
{
    std::vector<Bytes> replies;
    auto pending = m_udpPending.find(peer);
    if (pending == m_udpPending.end())
    {
        const std::vector<std::string> problems = CheckUdpHeader(data, size);
        for (const std::string& p : problems)
            ProtocolError("udp from " + peer + ": " + p);
        if (!problems.empty())
            return replies;
        const std::uint32_t command = KvReadU32(data + 4);
        m_reporter.Trace("<< udp " + peer + " header command=" + std::to_string(command));
        if (command == KV_UDP_INVITATION_DELETE_ALL && m_bInviteSilent)
        {
            m_reporter.Trace("-- udp " + peer + " delete left unanswered");
            m_inviteEvents.push_back("delete");
            return replies;
        }
        if (command != KV_UDP_INVITATION_DELETE_ALL)
        {
            m_udpPending[peer] = command;
            return replies;
        }
        const MSG_INVITATION_DELETE_REPLY reply{KV_UDP_INVITATION_DELETE_ALL, m_dwDeleteStatus,
                                                m_dwDeleteCount};
        m_reporter.Trace(">> udp " + peer + " delete reply status=" + std::to_string(reply.dwStatus) +
                         " count=" + std::to_string(reply.dwCount));
        m_inviteEvents.push_back("delete");
        replies.push_back(ToBytes(reply));
        return replies;
    }

    const std::uint32_t command = pending->second;
    m_udpPending.erase(pending);
    if (command == KV_UDP_PORT_QUERY)
    {
        const std::vector<std::string> problems = CheckPortQuery(data, size);
        for (const std::string& p : problems)
            ProtocolError("udp from " + peer + ": " + p);
        m_reporter.Trace("<< udp " + peer + " port query (" + std::to_string(size) + " bytes)");
        if (!problems.empty())
            return replies;
        MSG_PORT_QUERY answer;
        BuildPortAnswer(answer, m_options.dwTcpPort);
        m_reporter.Trace(">> udp " + peer + " port answer port=" + std::to_string(answer.dwPort));
        replies.push_back(ToBytes(answer));
        return replies;
    }

    // Invitation create.
    const std::vector<std::string> problems = CheckInvitationRequest(data, size);
    for (const std::string& p : problems)
        ProtocolError("invitation request from " + peer + ": " + p);
    if (size == sizeof(MSG_INVITATION_REQUEST))
    {
        auto& req = m_lastInvitation;
        req = std::make_unique<MSG_INVITATION_REQUEST>();
        KvRecordFromBytes(*req, data, size);
        m_reporter.Trace(
            "<< udp " + peer + " invitation request name=" + QuoteForTrace(KvReadString(req->szName)) +
            " rights=" + std::to_string(req->bRightA) + std::to_string(req->bRightB) +
            std::to_string(req->bRightC) + std::to_string(req->bRightD) + std::to_string(req->bRightE) +
            " expiry=" + std::to_string(req->dwExpiry) + " password=" + std::to_string(req->bUsePassword) +
            " proxy=" + std::to_string(req->bUseProxy));
    }
    if (!problems.empty())
        return replies;
    m_inviteEvents.push_back("create");
    if (m_bInviteSilent)
    {
        m_reporter.Trace("-- udp " + peer + " invitation request left unanswered");
        return replies;
    }
    auto reply = std::make_unique<MSG_INVITATION_REPLY>();
    BuildInvitationReply(*reply, m_dwInviteError, m_inviteErrorText, m_cbInviteAnnounced);
    m_reporter.Trace(">> udp " + peer + " invitation reply error=" + std::to_string(reply->dwError) +
                     " length=" + std::to_string(reply->dwTextLength));
    replies.push_back(ToBytes(*reply));
    if (m_dwInviteError == 0)
        replies.emplace_back(m_inviteText.begin(), m_inviteText.end());
    return replies;
}

// ---------------------------------------------------------------------------------------------

void Engine::StartPermission(std::uint32_t dwPort, const Command& cmd)
{
    if (m_permStage == PermStage::AwaitQuery || m_permStage == PermStage::AwaitAnswer)
        m_reporter.Note("a new permission request replaces the open one");
    m_permRequest = std::make_unique<MSG_PERMISSION_RECORD>();
    BuildPermissionRequest(*m_permRequest, cmd.OptionU32("type", KV_PERMISSION_QUERY_TYPE),
                           Utf8ToUtf16(cmd.Arg(0)), cmd.OptionU32("keep", 0),
                           cmd.OptionU32("deny-default", 0), cmd.OptionU32("variant", 0));
    m_permStage = PermStage::AwaitQuery;
    m_bPermWithdrawn = false;
    const MSG_TRAYICON_PERMISSION rec{MSG_TYPE_TRAYICON_PERMISSION, dwPort, cmd.OptionU32("af", 2)};
    Send(rec);
}

bool Engine::PermissionOpen() const
{
    return m_permStage == PermStage::AwaitQuery || m_permStage == PermStage::AwaitAnswer;
}

std::vector<Bytes> Engine::OnPermissionDatagram(const std::uint8_t* data, std::size_t size)
{
    std::vector<Bytes> replies;
    if (m_permStage == PermStage::AwaitQuery)
    {
        const std::vector<std::string> problems = CheckPermissionQuery(data, size);
        for (const std::string& p : problems)
            ProtocolError("permission query: " + p);
        m_reporter.Trace("<< udp permission query (" + std::to_string(size) + " bytes)");
        if (size != sizeof(MSG_PERMISSION_RECORD))
            return replies;
        m_reporter.Trace(
            ">> udp permission request text=" + QuoteForTrace(KvReadString(m_permRequest->szRequest)) +
            " keep=" + std::to_string(m_permRequest->bKeepPosition) +
            " deny-default=" + std::to_string(m_permRequest->bDenyDefault) +
            " variant=" + std::to_string(m_permRequest->dwTextVariant));
        m_permStage = PermStage::AwaitAnswer;
        replies.push_back(ToBytes(*m_permRequest));
        return replies;
    }
    if (m_permStage != PermStage::AwaitAnswer)
    {
        ProtocolError("datagram of " + std::to_string(size) +
                      " bytes on the permission port with no request open");
        return replies;
    }
    const std::vector<std::string> problems = CheckPermissionAnswer(data, size, *m_permRequest);
    for (const std::string& p : problems)
        ProtocolError("permission answer: " + p);
    if (size != sizeof(MSG_PERMISSION_RECORD))
        return replies;
    auto answer = std::make_unique<MSG_PERMISSION_RECORD>();
    KvRecordFromBytes(*answer, data, size);
    m_reporter.Trace("<< udp permission answer result=" + std::to_string(answer->dwResult) + " (" +
                     PermissionAnswerName(answer->dwResult) +
                     ") local=" + std::to_string(answer->bAnsweredLocally) +
                     " account=" + QuoteForTrace(KvReadString(answer->szConsoleAccount)));
    if (answer->dwResult == KV_PERMISSION_WITHDRAWN && !m_bPermWithdrawn)
        ProtocolError("permission answer 4444 (withdrawn) although the service withdrew nothing");
    m_permAnswers.push_back(answer->dwResult);
    m_permStage = PermStage::Done;
    return replies;
}

Bytes Engine::WithdrawPermission()
{
    if (m_permStage != PermStage::AwaitAnswer)
    {
        m_reporter.ScriptError("permission-withdraw: no permission dialog is up");
        return Bytes();
    }
    m_bPermWithdrawn = true;
    m_reporter.Trace(">> udp permission withdraw (8740 bytes)");
    return ToBytes(*m_permRequest);
}

} // namespace kvsim
