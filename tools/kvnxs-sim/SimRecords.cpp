#include "SimRecords.h"

#include "SimText.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

namespace kvsim
{

namespace
{

std::u16string Read(const char16_t* s, std::size_t units)
{
    std::size_t n = 0;
    while (n < units && s[n] != 0)
        ++n;
    return std::u16string(s, n);
}

template <std::size_t N> std::string Q(const char16_t (&s)[N], std::size_t maxChars = 64)
{
    return QuoteForTrace(KvReadString(s), maxChars);
}

std::string Num(std::uint32_t v)
{
    return std::to_string(v);
}

std::string Hex(std::uint32_t v)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

bool AllZero(const void* data, std::size_t size)
{
    const auto* p = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < size; ++i)
        if (p[i] != 0)
            return false;
    return true;
}

class Problems
{
public:
    void Add(std::string s) { m_list.push_back(std::move(s)); }

    // A string the agent wrote: terminated inside its array, zero behind the terminator.
    template <std::size_t N> void String(const char16_t (&s)[N], const char* field)
    {
        const std::size_t len = KvStringLength(s);
        if (len == N)
            Add(std::string(field) + ": no terminating NUL in " + Num(N) + " units");
        else if (!AllZero(s + len, (N - len) * sizeof(char16_t)))
            Add(std::string(field) + ": bytes behind the terminator are not zero");
    }

    void Zero(const void* p, std::size_t size, const char* field)
    {
        if (!AllZero(p, size))
            Add(std::string(field) + ": must be zero");
    }

    void Equal(std::uint32_t got, std::uint32_t want, const char* field)
    {
        if (got != want)
            Add(std::string(field) + " = " + Num(got) + ", must be " + Num(want));
    }

    void Flag(std::uint32_t v, const char* field)
    {
        if (v > 1)
            Add(std::string(field) + " = " + Num(v) + ", must be 0 or 1");
    }

    void DesktopState(std::uint32_t v, const char* field)
    {
        if (v != KV_DESKTOP_STATE_NORMAL && v != KV_DESKTOP_STATE_SCREEN_SAVER)
            Add(std::string(field) + " = " + Num(v) + ", must be 7 or 8");
    }

    void UserBlock(const MSG_TRAYICON_DESKTOP_USER_INFORMATION& b, std::uint32_t type)
    {
        Equal(b.dwType, type, "user block type");
        String(b.szUserName, "user name");
        String(b.szDesktopName, "desktop name");
        const std::uint32_t known = KV_DESKTOP_NOT_OPENED | KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER;
        const std::uint32_t openBits = b.dwState & (KV_DESKTOP_NOT_OPENED | KV_DESKTOP_OPENED);
        if ((b.dwState & ~known) != 0)
            Add("desktop state bits " + Hex(b.dwState) + ": unknown bits");
        if (openBits != KV_DESKTOP_NOT_OPENED && openBits != KV_DESKTOP_OPENED)
            Add("desktop state bits " + Hex(b.dwState) + ": need exactly one of 0x2 and 0x4");
        if ((b.dwState & KV_DESKTOP_NOT_OPENED) != 0 && b.szDesktopName[0] != 0)
            Add("desktop name given although the input desktop could not be opened");
        Zero(b.reserved1048, sizeof b.reserved1048, "user block bytes 1048-1067");
    }

    std::vector<std::string> Take() { return std::move(m_list); }

private:
    std::vector<std::string> m_list;
};

// Copies the record into a heap buffer of its own type: any alignment in, no giant stack frames.
template <typename T> std::unique_ptr<T> As(const std::uint8_t* data, std::size_t size)
{
    auto rec = std::make_unique<T>();
    KvRecordFromBytes(*rec, data, size);
    return rec;
}

void CheckReverseRequest(const MSG_REVERSE_CONNECTION& r, Problems& p)
{
    if (r.dwStatus != 0 && r.dwStatus != KV_REVERSE_CANCEL)
        p.Add("status " + Num(r.dwStatus) + ": the agent sends 0 (request) or 103 (cancel)");
    p.Equal(r.dwError, 0, "error code");
    p.Zero(r.szError, sizeof r.szError, "error text");
    p.Zero(&r.dwReserved4112, 4, "bytes 4112-4115");
    p.Equal(r.bSuppressReport, 0, "suppress field");
    p.Zero(r.reserved20316, sizeof r.reserved20316, "bytes 20316-36507");
    p.Zero(&r.dwReserved40624, 4, "bytes 40624-40627");
    p.Zero(r.reserved41148, sizeof r.reserved41148, "bytes 41148-41163");
    p.Flag(r.bShortReport, "join flag");
    p.Flag(r.bUseProxy, "use proxy");
    p.String(r.szShortText, "session code");
    p.String(r.szHost, "host");
    p.String(r.szProxyHost, "proxy host");
    p.String(r.szProxySecret, "proxy secret");
    if (r.dwStatus != 0)
        return;
    if (r.bShortReport == 0 && r.szHost[0] == 0)
        p.Add("request names no host and is no join request");
    if (r.bShortReport != 0 && r.szShortText[0] == 0)
        p.Add("join request without a session code");
    if (r.bUseProxy == 0 && (r.szProxyHost[0] != 0 || r.dwProxyPort != 0 || r.szProxySecret[0] != 0))
        p.Add("proxy fields filled although no proxy is used");
}

// The local user's message as the chat window makes it: a named author, the name zero-filled,
// and text the service can show as it is, every byte of it looked at.
void CheckChatMessage(const std::uint8_t* data, std::size_t size, Problems& p)
{
    auto r = As<MSG_CHAT_MESSAGE>(data, size);
    p.String(r->szUsername, "chat user name");
    if (r->szUsername[0] == 0)
        p.Add("chat user name is empty");
    if (r->dwMessageLength % 2 != 0)
        p.Add("chat body of " + Num(r->dwMessageLength) + " bytes is no UTF-16 text");
    const std::u16string body = ChatBody(data, size);
    const std::size_t nul = body.find(u'\0');
    if (nul != std::u16string::npos)
        p.Add("chat body: NUL at unit " + Num(static_cast<std::uint32_t>(nul)));
    for (std::size_t i = 0; i < body.size(); ++i)
    {
        const bool high = body[i] >= 0xD800 && body[i] <= 0xDBFF;
        const bool low = body[i] >= 0xDC00 && body[i] <= 0xDFFF;
        if (high && i + 1 < body.size() && body[i + 1] >= 0xDC00 && body[i + 1] <= 0xDFFF)
            ++i;
        else if (high || low)
        {
            p.Add("chat body: unpaired surrogate " + Hex(body[i]) + " at unit " +
                  Num(static_cast<std::uint32_t>(i)));
            break;
        }
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------

const std::vector<SettingsField>& SettingsFields()
{
    using S = MSG_TRAYICON_SETTINGS;
    static const std::vector<SettingsField> fields = {
        {"notify-dlg", offsetof(S, bNotifyDlg), 0},
        {"notify-mode2", offsetof(S, bNotifyMode2), 0},
        {"notify-disconnect", offsetof(S, bNotifyDisconnect), 0},
        {"allow-settings", offsetof(S, bAllowSettings), 0},
        {"allow-disconnect", offsetof(S, bAllowDisconnect), 0},
        {"tray-icon", offsetof(S, bTrayIcon), 0},
        {"options", offsetof(S, uOptions), 0},
        {"quiet", offsetof(S, bQuietWhenIdleIcon), 0},
        {"display-time", offsetof(S, dwNotifyDisplayTime), 0},
        {"permission-required", offsetof(S, bPermissionRequired), 0},
        {"lock-a", offsetof(S, bLockSettingsA), 0},
        {"idle-icon", offsetof(S, dwIdleTrayIcon), 0},
        {"machine-profile", offsetof(S, bMachineProfile), 0},
        {"keep-open", offsetof(S, bKeepNotifyOpen), 0},
        {"lock-b", offsetof(S, bLockSettingsB), 0},
        {"allow-invitations", offsetof(S, bAllowInvitations), 0},
        {"allow-connect", offsetof(S, bAllowConnectToClient), 0},
        {"connect-option", offsetof(S, uConnectOption), 0},
        {"tooltip-note", offsetof(S, bTooltipNote), 0},
        {"custom-idle-icon", offsetof(S, bCustomIdleIcon), 0},
        {"invite-b", offsetof(S, bInviteRightB), 0},
        {"invite-c", offsetof(S, bInviteRightC), 0},
        {"invite-e", offsetof(S, bInviteRightE), 0},
        {"invite-d", offsetof(S, bInviteRightD), 0},
        {"about-a", offsetof(S, uAboutOptionA), 0},
        {"about-b", offsetof(S, uAboutOptionB), 0},
        {"about-c", offsetof(S, uAboutFlagC), 0},
        {"caption", offsetof(S, szCaption), 260},
        {"title", offsetof(S, szNotifyTitle), 260},
        {"heading", offsetof(S, szNotifyHeading), 260},
        {"connect-header", offsetof(S, szConnectHeader), 260},
        {"about1", offsetof(S, szAboutText) + 0 * 256, 128},
        {"about2", offsetof(S, szAboutText) + 1 * 256, 128},
        {"about3", offsetof(S, szAboutText) + 2 * 256, 128},
        {"about4", offsetof(S, szAboutText) + 3 * 256, 128},
        {"about5", offsetof(S, szAboutText) + 4 * 256, 128},
        {"about6", offsetof(S, szAboutText) + 5 * 256, 128},
        {"about7", offsetof(S, szAboutText) + 6 * 256, 128},
        {"about8", offsetof(S, szAboutText) + 7 * 256, 128},
        {"about9", offsetof(S, szAboutText) + 8 * 256, 128},
        {"language", offsetof(S, szLanguage), 3},
    };
    return fields;
}

const SettingsField* FindSettingsField(std::string_view name)
{
    for (const SettingsField& f : SettingsFields())
        if (name == f.name)
            return &f;
    return nullptr;
}

bool SetSettingsField(MSG_TRAYICON_SETTINGS& rec, std::string_view name, std::string_view value,
                      std::string& error)
{
    const SettingsField* f = FindSettingsField(name);
    if (f == nullptr)
    {
        error = "no settings field '" + std::string(name) + "'";
        return false;
    }
    auto* base = reinterpret_cast<std::uint8_t*>(&rec) + f->offset;
    if (f->units == 0)
    {
        std::uint32_t v;
        if (!ParseU32(value, v))
        {
            error = std::string(f->name) + ": not a number: '" + std::string(value) + "'";
            return false;
        }
        std::memcpy(base, &v, 4);
        return true;
    }
    std::u16string text = Utf8ToUtf16(value);
    if (text.size() > f->units - 1)
        text.resize(f->units - 1);
    std::memset(base, 0, f->units * 2);
    std::memcpy(base, text.data(), text.size() * 2);
    return true;
}

void DefaultSettings(MSG_TRAYICON_SETTINGS& rec)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_SETTINGS;
    rec.bNotifyDlg = 1;
    rec.bNotifyDisconnect = 1;
    rec.bAllowSettings = 1;
    rec.bAllowDisconnect = 1;
    rec.bTrayIcon = 1;
    rec.uOptions = 0x10;
    rec.dwNotifyDisplayTime = 5;
    rec.dwIdleTrayIcon = 1;
    rec.bMachineProfile = 1;
    rec.bAllowInvitations = 1;
    rec.bAllowConnectToClient = 1;
    rec.uConnectOption = 1;
    rec.bInviteRightB = rec.bInviteRightC = rec.bInviteRightE = rec.bInviteRightD = 1;
    KvCopyString(rec.szCaption, u"Vexa Remote Control Service (simulated)");
    KvCopyString(rec.szNotifyTitle, u"Vexa Remote Control");
    KvCopyString(rec.szConnectHeader, u"A viewer is connected.");
    KvCopyString(rec.szAboutText[0], u"kvnxs-sim");
    KvCopyString(rec.szLanguage, u"en");
}

// ---------------------------------------------------------------------------------------------

void BuildVersion(MSG_VERSION& rec, std::uint32_t dwSessionId)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_VERSION;
    rec.dwReserved4 = 0x5AA50004;
    rec.dVersion = 4.0;
    rec.dVersion2 = 2.5;
    for (std::size_t i = 0; i < sizeof rec.reserved24; ++i)
        rec.reserved24[i] = static_cast<std::uint8_t>(0xC0 + i);
    rec.dwSessionId = dwSessionId;
}

void BuildInit(MSG_TRAYICON_INIT& rec, std::uint32_t dwEffects, std::uint32_t dwOneTime,
               std::u16string_view text)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_INIT;
    rec.dwDesktopEffects = dwEffects;
    rec.dwOneTimeSession = dwOneTime;
    KvCopyString(rec.szOneTimeSession, text);
}

void BuildConnectInfo(MSG_TRAYICON_CONNECT_INFO& rec, std::uint32_t dwType, std::u16string_view user,
                      std::u16string_view line2, std::u16string_view line3, std::uint32_t dwIcon,
                      std::uint32_t dwConnections, std::uint32_t bButton, std::uint32_t dwViewerId)
{
    KvZero(rec);
    rec.dwType = dwType;
    KvCopyString(rec.szUsername, user);
    KvCopyString(rec.szSecondLine, line2);
    KvCopyString(rec.szThirdLine, line3);
    rec.dwTrayIcon = dwIcon;
    rec.dwConnections = dwConnections;
    rec.bDisconnectButton = bButton;
    rec.dwViewerId = dwViewerId;
}

void BuildNotifyAll(MSG_TRAYICON_NOTIFY_ALL& rec, std::u16string_view text, std::uint32_t dwCount)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL;
    KvCopyString(rec.szText, text);
    rec.dwCount = dwCount;
}

void BuildReconfigure(MSG_TRAYICON_SERVER_RECONFIGURE& rec, std::uint32_t dwState, std::u16string_view text)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_SERVER_RECONFIGURE;
    rec.dwState = dwState;
    KvCopyString(rec.szText, text);
}

void BuildAddresses(MSG_TRAYICON_IP_ADDRESSES& rec, const std::vector<std::u16string>& list)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_IP_ADDRESSES;
    std::u16string text;
    for (const std::u16string& a : list)
        text += (text.empty() ? u"" : u"\r\n") + a;
    rec.dwCount = static_cast<std::uint32_t>(list.size());
    KvCopyString(rec.szAddresses, text);
}

void BuildReverseResult(MSG_REVERSE_CONNECTION& rec, std::uint32_t dwStatus, std::uint32_t dwError,
                        std::u16string_view error, std::uint32_t bShort, std::uint32_t bSuppress,
                        std::u16string_view shortText, std::u16string_view host, std::uint32_t dwPort)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_REVERSE_CONNECTION;
    rec.dwStatus = dwStatus;
    rec.dwError = dwError;
    KvCopyString(rec.szError, error);
    rec.bShortReport = bShort;
    rec.bSuppressReport = bSuppress;
    KvCopyString(rec.szShortText, shortText);
    KvCopyString(rec.szHost, host);
    rec.dwPort = dwPort;
}

void BuildSftDrop(MSG_TRAYICON_SFT_DROP_CLIENT& rec, std::uint32_t dwViewerId, std::uint32_t dwValue,
                  std::u16string_view viewerName, std::u16string_view eventName, std::u16string_view listPath)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_SFT_DROP_CLIENT;
    rec.dwViewerId = dwViewerId;
    rec.dwService8 = dwValue;
    KvCopyString(rec.szViewerName, viewerName);
    KvCopyString(rec.szEventName, eventName);
    KvCopyString(rec.szFileListPath, listPath);
}

void BuildSftInit(MSG_TRAYICON_SFT_INIT_TEMP& rec, std::u16string_view eventName, std::u16string_view iniPath,
                  std::u16string_view dataPath)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_SFT_INIT_TEMP;
    KvCopyString(rec.szEventName, eventName);
    KvCopyString(rec.szTempIniPath, iniPath);
    KvCopyString(rec.szDataPath, dataPath);
}

void BuildChatOpen(MSG_TRAYICON_CHAT_OPEN& rec, std::u16string_view user)
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_CHAT_OPEN;
    KvCopyString(rec.szUsername, user);
}

Bytes BuildChat(std::u16string_view user, bool bFillUser, std::u16string_view text, std::size_t cbBody)
{
    MSG_CHAT_MESSAGE head;
    KvZero(head);
    head.dwType = MSG_TYPE_CHAT_MESSAGE;
    if (bFillUser && !user.empty())
        for (std::size_t i = 0; i < std::size(head.szUsername); ++i)
            head.szUsername[i] = user[i % user.size()];
    else
        KvCopyString(head.szUsername, user);
    head.dwMessageLength = static_cast<std::uint32_t>(cbBody);
    Bytes rec(sizeof head + cbBody);
    std::memcpy(rec.data(), &head, sizeof head);
    // The text once, then copies of what is there already: a 16 MiB body in two dozen copies.
    std::uint8_t* body = rec.data() + sizeof head;
    std::size_t have = std::min(cbBody, text.size() * 2);
    std::memcpy(body, text.data(), have);
    while (have > 0 && have < cbBody)
    {
        const std::size_t n = std::min(have, cbBody - have);
        std::memcpy(body + have, body, n);
        have += n;
    }
    return rec;
}

std::u16string ChatBody(const std::uint8_t* data, std::size_t size, std::size_t maxUnits)
{
    const std::size_t units =
        size > sizeof(MSG_CHAT_MESSAGE) ? std::min((size - sizeof(MSG_CHAT_MESSAGE)) / 2, maxUnits) : 0;
    std::u16string body(units, u'\0');
    if (units > 0)
        std::memcpy(&body[0], data + sizeof(MSG_CHAT_MESSAGE), units * 2);
    return body;
}

void BuildPortAnswer(MSG_PORT_QUERY& rec, std::uint32_t dwTcpPort)
{
    KvZero(rec);
    rec.dwCommand = KV_UDP_PORT_QUERY;
    rec.dwPort = dwTcpPort;
}

void BuildPermissionRequest(MSG_PERMISSION_RECORD& rec, std::uint32_t dwType, std::u16string_view text,
                            std::uint32_t bKeep, std::uint32_t bDenyDefault, std::uint32_t dwVariant)
{
    KvZero(rec);
    rec.dwType = dwType;
    KvCopyString(rec.szRequest, text);
    rec.bKeepPosition = bKeep;
    rec.bDenyDefault = bDenyDefault;
    rec.dwTextVariant = dwVariant;
}

void BuildInvitationReply(MSG_INVITATION_REPLY& rec, std::uint32_t dwError, std::u16string_view message,
                          std::uint32_t cbText)
{
    KvZero(rec);
    rec.dwCommand = KV_UDP_INVITATION_CREATE;
    rec.dwError = dwError;
    KvCopyString(rec.szMessage, message);
    rec.dwTextLength = dwError == 0 ? cbText : 0;
}

// ---------------------------------------------------------------------------------------------

std::vector<std::string> CheckAgentRecord(const std::uint8_t* data, std::size_t size)
{
    Problems p;
    if (data == nullptr || size < 4)
    {
        p.Add("record shorter than its type id");
        return p.Take();
    }
    const std::uint32_t type = KvReadU32(data);
    const KvMessageInfo* info = KvFindMessage(type);
    if (info == nullptr)
    {
        p.Add("unknown type id " + Num(type));
        return p.Take();
    }
    if (info->cbToService == 0)
    {
        p.Add(std::string(info->pszName) + " is never sent by the agent");
        return p.Take();
    }
    std::size_t want = info->cbToService;
    if (info->bChatBody && size >= want)
        want += KvReadU32(data + offsetof(MSG_CHAT_MESSAGE, dwMessageLength));
    if (size != want)
    {
        p.Add(std::string(info->pszName) + " of " + Num(static_cast<std::uint32_t>(size)) +
              " bytes, must be " + Num(static_cast<std::uint32_t>(want)));
        return p.Take();
    }

    switch (type)
    {
    case MSG_TYPE_VERSION:
    {
        auto r = As<MSG_VERSION>(data, size);
        if (r->dVersion != KV_AGENT_PROTOCOL_VERSION || r->dVersion2 != KV_AGENT_PROTOCOL_VERSION)
            p.Add("versions " + std::to_string(r->dVersion) + "/" + std::to_string(r->dVersion2) +
                  ", must both be 444.0");
        break;
    }
    case MSG_TYPE_TRAYICON_INIT:
        p.DesktopState(As<MSG_TRAYICON_INIT>(data, size)->dwDesktopState, "desktop state");
        break;
    case MSG_TYPE_TRAYICON_EXIT:
        p.UserBlock(As<MSG_TRAYICON_EXIT>(data, size)->info, 0);
        break;
    case MSG_TYPE_TRAYICON_USER_REQUEST:
    {
        auto r = As<MSG_TRAYICON_USER_REQUEST>(data, size);
        p.Equal(r->dwReserved4, 0, "bytes 4-7");
        p.UserBlock(r->info, 0);
        break;
    }
    case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        p.UserBlock(*As<MSG_TRAYICON_DESKTOP_USER_INFORMATION>(data, size),
                    MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION);
        break;
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL:
        p.Zero(data + 4, size - 4, "viewer-list request body");
        break;
    case MSG_TYPE_TRAYICON_DESKTOP_STATE:
        p.DesktopState(As<MSG_TRAYICON_DESKTOP_STATE>(data, size)->dwDesktopState, "desktop state");
        break;
    case MSG_TYPE_TRAYICON_SESSION_END:
    {
        auto r = As<MSG_TRAYICON_SESSION_END>(data, size);
        p.Equal(r->dwReserved8, 0, "bytes 8-11");
        if (r->nExitCode != KV_EXIT_CODE_ENDED)
            p.Add("exit code " + std::to_string(r->nExitCode) + ", must be -56");
        break;
    }
    case MSG_TYPE_TRAYICON_LANGUAGE:
    {
        auto r = As<MSG_TRAYICON_LANGUAGE>(data, size);
        p.String(r->szLanguage, "language");
        const bool letters = r->szLanguage[0] >= u'a' && r->szLanguage[0] <= u'z' &&
                             r->szLanguage[1] >= u'a' && r->szLanguage[1] <= u'z';
        if (!letters)
            p.Add("language " + QuoteForTrace(Read(r->szLanguage, 3)) + " is no two-letter code");
        p.Equal(r->wReserved10, 0, "bytes 10-11");
        p.UserBlock(r->info, 0);
        break;
    }
    case MSG_TYPE_REVERSE_CONNECTION:
        CheckReverseRequest(*As<MSG_REVERSE_CONNECTION>(data, size), p);
        break;
    case MSG_TYPE_CHAT_MESSAGE:
        CheckChatMessage(data, size, p);
        break;
    default:
        break; // the type id alone, or fields that depend on the conversation
    }
    return p.Take();
}

std::vector<std::string> CheckUdpHeader(const std::uint8_t* data, std::size_t size)
{
    Problems p;
    if (size != sizeof(MSG_UDP_HEADER))
    {
        p.Add("datagram header of " + Num(static_cast<std::uint32_t>(size)) + " bytes, must be 12");
        return p.Take();
    }
    MSG_UDP_HEADER h;
    KvRecordFromBytes(h, data, size);
    p.Equal(h.dwTag, KV_UDP_TAG, "header tag");
    if (h.dwCommand != KV_UDP_PORT_QUERY && h.dwCommand != KV_UDP_INVITATION_CREATE &&
        h.dwCommand != KV_UDP_INVITATION_DELETE_ALL)
        p.Add("header command " + Num(h.dwCommand) + " is none of 703, 720, 721");
    p.Equal(h.dwReserved, 0, "header word 8");
    return p.Take();
}

std::vector<std::string> CheckPortQuery(const std::uint8_t* data, std::size_t size)
{
    Problems p;
    if (size != sizeof(MSG_PORT_QUERY))
    {
        p.Add("port query of " + Num(static_cast<std::uint32_t>(size)) + " bytes, must be 80");
        return p.Take();
    }
    MSG_PORT_QUERY q;
    KvRecordFromBytes(q, data, size);
    p.Equal(q.dwCommand, KV_UDP_PORT_QUERY, "port query word 0");
    p.Equal(q.dwPort, 0, "port query word 8");
    return p.Take();
}

std::vector<std::string> CheckInvitationRequest(const std::uint8_t* data, std::size_t size)
{
    Problems p;
    if (size != sizeof(MSG_INVITATION_REQUEST))
    {
        p.Add("invitation request of " + Num(static_cast<std::uint32_t>(size)) + " bytes, must be 5716");
        return p.Take();
    }
    auto r = As<MSG_INVITATION_REQUEST>(data, size);
    p.Equal(r->dwCommand, KV_UDP_INVITATION_CREATE, "command");
    p.Zero(r->reserved4, sizeof r->reserved4, "bytes 4-2055");
    p.Zero(&r->dwReserved3112, 4, "bytes 3112-3115");
    p.Zero(&r->dwReserved5712, 4, "bytes 5712-5715");
    p.String(r->szName, "name");
    p.String(r->szPassword, "password");
    p.String(r->szProxyHost, "proxy host");
    p.String(r->szProxySecret, "proxy secret");
    if (r->szName[0] == 0)
        p.Add("invitation without a name");
    p.Flag(r->bRightA, "right A");
    p.Flag(r->bRightB, "right B");
    p.Flag(r->bRightC, "right C");
    p.Flag(r->bRightD, "right D");
    p.Flag(r->bRightE, "right E");
    p.Flag(r->bUsePassword, "use password");
    p.Flag(r->bUseProxy, "use proxy");
    p.Flag(r->bUseProxySecret, "use proxy secret");
    if (r->bRightB == 0 && r->bRightC == 0 && r->bRightE == 0 && r->bRightD == 0)
        p.Add("rights B, C, D and E all clear");
    if (r->dwExpiry >= KV_INVITATION_EXPIRY_CHOICES)
        p.Add("expiry " + Num(r->dwExpiry) + " beyond the 12 choices");
    if (r->bUsePassword != 0 && r->szPassword[0] == 0)
        p.Add("password flag set with an empty password");
    if (r->bUsePassword == 0 && r->szPassword[0] != 0)
        p.Add("password given without its flag");
    if (r->bUseProxySecret != 0 && r->szProxySecret[0] == 0)
        p.Add("proxy secret flag set with an empty secret");
    if (r->bUseProxy != 0 && r->szProxyHost[0] == 0)
        p.Add("proxy flag set with an empty proxy host");
    if (r->bUseProxy == 0 && (r->szProxyHost[0] != 0 || r->dwProxyPort != 0))
        p.Add("proxy fields filled although no proxy is used");
    return p.Take();
}

std::vector<std::string> CheckPermissionQuery(const std::uint8_t* data, std::size_t size)
{
    Problems p;
    if (size != sizeof(MSG_PERMISSION_RECORD))
    {
        p.Add("permission record of " + Num(static_cast<std::uint32_t>(size)) + " bytes, must be 8740");
        return p.Take();
    }
    p.Equal(KvReadU32(data), KV_PERMISSION_QUERY_TYPE, "permission query type");
    p.Zero(data + 4, size - 4, "permission query body");
    return p.Take();
}

std::vector<std::string> CheckPermissionAnswer(const std::uint8_t* data, std::size_t size,
                                               const MSG_PERMISSION_RECORD& request)
{
    Problems p;
    if (size != sizeof(MSG_PERMISSION_RECORD))
    {
        p.Add("permission answer of " + Num(static_cast<std::uint32_t>(size)) + " bytes, must be 8740");
        return p.Take();
    }
    auto r = As<MSG_PERMISSION_RECORD>(data, size);
    // Everything up to the answer fields is the request, unchanged.
    if (std::memcmp(data, &request, offsetof(MSG_PERMISSION_RECORD, bAnsweredLocally)) != 0)
        p.Add("the answer does not carry the request unchanged (bytes 0-8211)");
    switch (r->dwResult)
    {
    case KV_PERMISSION_ALLOWED:
    case KV_PERMISSION_DENIED:
    case KV_PERMISSION_TIMEOUT:
    case KV_PERMISSION_NOBODY:
        p.Equal(r->bAnsweredLocally, 1, "answered locally");
        break;
    case KV_PERMISSION_WITHDRAWN:
        p.Equal(r->bAnsweredLocally, 0, "answered locally");
        break;
    default:
        p.Add("result " + Num(r->dwResult) + " is none of 1111, 2222, 3333, 4444, 6666");
    }
    p.String(r->szConsoleAccount, "console account");
    // "DOMAIN\user": both parts present.
    const std::u16string account = KvReadString(r->szConsoleAccount);
    const std::size_t slash = account.find(u'\\');
    if (slash == std::u16string::npos || slash == 0 || slash + 1 == account.size())
        p.Add("console account " + Q(r->szConsoleAccount) + " is not of the form DOMAIN\\user");
    return p.Take();
}

// ---------------------------------------------------------------------------------------------

std::string PermissionAnswerName(std::uint32_t code)
{
    switch (code)
    {
    case KV_PERMISSION_ALLOWED:
        return "allowed";
    case KV_PERMISSION_DENIED:
        return "denied";
    case KV_PERMISSION_TIMEOUT:
        return "timed out";
    case KV_PERMISSION_WITHDRAWN:
        return "withdrawn";
    case KV_PERMISSION_NOBODY:
        return "nobody at the console";
    default:
        return "code " + Num(code);
    }
}

std::string DescribeRecord(const std::uint8_t* data, std::size_t size, KvDirection dir)
{
    if (data == nullptr || size < 4)
        return "(" + Num(static_cast<std::uint32_t>(size)) + " bytes, no type id)";
    const std::uint32_t type = KvReadU32(data);
    const char* name = KvMessageName(type);
    std::string out = (name != nullptr ? std::string(name) : "unknown id " + Num(type)) + " (" +
                      Num(static_cast<std::uint32_t>(size)) + " bytes)";
    const std::size_t want = KvRecordSize(type, dir);
    if (name == nullptr || want == 0 || size < want)
        return out;
    const bool toAgent = dir == KvDirection::ToAgent;

    switch (type)
    {
    case MSG_TYPE_VERSION:
    {
        auto r = As<MSG_VERSION>(data, size);
        char buf[96];
        std::snprintf(buf, sizeof buf, " version=%g/%g session=%u", r->dVersion, r->dVersion2,
                      r->dwSessionId);
        out += buf;
        break;
    }
    case MSG_TYPE_TRAYICON_INIT:
    {
        auto r = As<MSG_TRAYICON_INIT>(data, size);
        out += " session=" + Num(r->dwSessionId) + " desktop-state=" + Num(r->dwDesktopState) +
               " effects=" + Hex(r->dwDesktopEffects) + " one-time=" + Num(r->dwOneTimeSession) +
               " text=" + Q(r->szOneTimeSession, 40);
        break;
    }
    case MSG_TYPE_TRAYICON_EXIT:
        if (!toAgent)
        {
            auto r = As<MSG_TRAYICON_EXIT>(data, size);
            out += " user=" + Q(r->info.szUserName) + " desktop=" + Q(r->info.szDesktopName);
        }
        break;
    case MSG_TYPE_TRAYICON_CONNECT_COUNT:
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY:
    case MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY:
    {
        auto r = As<MSG_TRAYICON_CONNECT_INFO>(data, size);
        out += " user=" + Q(r->szUsername) + " icon=" + Num(r->dwTrayIcon) +
               " connections=" + Num(r->dwConnections) + " viewer=" + Num(r->dwViewerId);
        break;
    }
    case MSG_TYPE_TRAYICON_SETTINGS:
    case MSG_TYPE_TRAYICON_SETTINGS_UPDATE:
    {
        auto r = As<MSG_TRAYICON_SETTINGS>(data, size);
        out += " tray-icon=" + Num(r->bTrayIcon) + " idle-icon=" + Num(r->dwIdleTrayIcon) +
               " display-time=" + Num(r->dwNotifyDisplayTime) + " options=" + Hex(r->uOptions) +
               " language=" + Q(r->szLanguage) + " caption=" + Q(r->szCaption, 40);
        break;
    }
    case MSG_TYPE_TRAYICON_USER_REQUEST:
    {
        auto r = As<MSG_TRAYICON_USER_REQUEST>(data, size);
        out += " user=" + Q(r->info.szUserName) + " desktop=" + Q(r->info.szDesktopName) +
               " state=" + Hex(r->info.dwState);
        break;
    }
    case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        if (!toAgent)
        {
            auto r = As<MSG_TRAYICON_DESKTOP_USER_INFORMATION>(data, size);
            out +=
                " user=" + Q(r->szUserName) + " desktop=" + Q(r->szDesktopName) + " state=" + Hex(r->dwState);
        }
        break;
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL:
    {
        auto r = As<MSG_TRAYICON_NOTIFY_ALL>(data, size);
        if (toAgent)
            out += " count=" + Num(r->dwCount) + " text=" + Q(r->szText, 48);
        break;
    }
    case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS:
    case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK:
        out += " mask=" + Hex(As<MSG_TRAYICON_DESKTOP_EFFECTS>(data, size)->dwMask);
        break;
    case MSG_TYPE_TRAYICON_DESKTOP_STATE:
        out += " desktop-state=" + Num(As<MSG_TRAYICON_DESKTOP_STATE>(data, size)->dwDesktopState);
        break;
    case MSG_TYPE_TRAYICON_SESSION_END:
    {
        auto r = As<MSG_TRAYICON_SESSION_END>(data, size);
        out += " session=" + Num(r->dwSessionId) + " exit-code=" + std::to_string(r->nExitCode);
        break;
    }
    case MSG_TYPE_TRAYICON_SFT_DROP_CLIENT:
        out += " viewer=" + Num(As<MSG_TRAYICON_SFT_DROP_CLIENT>(data, size)->dwViewerId);
        break;
    case MSG_TYPE_TRAYICON_SFT_INIT_TEMP:
    {
        auto r = As<MSG_TRAYICON_SFT_INIT_TEMP>(data, size);
        out += " event=" + Q(r->szEventName) + " ini=" + Q(r->szTempIniPath) + " data=" + Q(r->szDataPath);
        break;
    }
    case MSG_TYPE_TRAYICON_SFT_DELETE_TEMP:
        out += " file=" + Num(As<MSG_TRAYICON_SFT_DELETE_TEMP>(data, size)->dwTempFile);
        break;
    case MSG_TYPE_TRAYICON_SERVER_RECONFIGURE:
    {
        auto r = As<MSG_TRAYICON_SERVER_RECONFIGURE>(data, size);
        out += " state=" + Num(r->dwState) + " text=" + Q(r->szText);
        break;
    }
    case MSG_TYPE_TRAYICON_IP_ADDRESSES:
        if (toAgent)
        {
            auto r = As<MSG_TRAYICON_IP_ADDRESSES>(data, size);
            out += " count=" + Num(r->dwCount) + " addresses=" + Q(r->szAddresses, 64);
        }
        else
            out += " request";
        break;
    case MSG_TYPE_TRAYICON_PERMISSION:
    {
        auto r = As<MSG_TRAYICON_PERMISSION>(data, size);
        out += " port=" + Num(r->nPort) + " af=" + Num(r->nAfType);
        break;
    }
    case MSG_TYPE_TRAYICON_LANGUAGE:
    {
        auto r = As<MSG_TRAYICON_LANGUAGE>(data, size);
        out += " language=" + Q(r->szLanguage) + " user=" + Q(r->info.szUserName);
        break;
    }
    case MSG_TYPE_REVERSE_CONNECTION:
    {
        auto r = As<MSG_REVERSE_CONNECTION>(data, size);
        out += " status=" + Num(r->dwStatus);
        if (toAgent)
            out += " error=" + Num(r->dwError) + " text=" + Q(r->szError, 40) +
                   " short=" + Num(r->bShortReport) + " suppress=" + Num(r->bSuppressReport);
        else if (r->bShortReport != 0)
            out += " join code=" + Q(r->szShortText, 40);
        out += " host=" + Q(r->szHost, 40) + " port=" + Num(r->dwPort);
        if (r->bUseProxy != 0)
            out += " proxy=" + Q(r->szProxyHost, 40) + ":" + Num(r->dwProxyPort);
        break;
    }
    case MSG_TYPE_TRAYICON_CHAT_OPEN:
        out += " user=" + Q(As<MSG_TRAYICON_CHAT_OPEN>(data, size)->szUsername);
        break;
    case MSG_TYPE_CHAT_MESSAGE:
    {
        auto r = As<MSG_CHAT_MESSAGE>(data, size);
        // One unit past the cut, so that the quote shows that the text goes on.
        out += " user=" + Q(r->szUsername) + " length=" + Num(r->dwMessageLength) +
               " text=" + QuoteForTrace(ChatBody(data, size, 65), 64);
        break;
    }
    default:
        break;
    }
    return out;
}

} // namespace kvsim
