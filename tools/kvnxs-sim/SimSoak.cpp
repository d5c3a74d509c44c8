#include "SimSoak.h"

#include "KvServiceMessages.h"

#include <cstddef>
#include <cstring>
#include <vector>

namespace kvsim
{

#define KV_TEXT(T, f)                                                                                        \
    SoakText                                                                                                 \
    {                                                                                                        \
#f, offsetof(T, f), sizeof(T::f) / 2                                                                 \
    }

std::vector<SoakText> SoakTexts(std::uint32_t id)
{
    switch (id)
    {
    case MSG_TYPE_TRAYICON_INIT:
        return {KV_TEXT(MSG_TRAYICON_INIT, szOneTimeSession)};
    case MSG_TYPE_TRAYICON_CONNECT_COUNT:
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY:
    case MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY:
        return {KV_TEXT(MSG_TRAYICON_CONNECT_INFO, szUsername), KV_TEXT(MSG_TRAYICON_CONNECT_INFO, szSecondLine),
                KV_TEXT(MSG_TRAYICON_CONNECT_INFO, szThirdLine)};
    case MSG_TYPE_TRAYICON_SETTINGS:
    case MSG_TYPE_TRAYICON_SETTINGS_UPDATE:
    {
        std::vector<SoakText> texts = {
            KV_TEXT(MSG_TRAYICON_SETTINGS, szCaption), KV_TEXT(MSG_TRAYICON_SETTINGS, szNotifyTitle),
            KV_TEXT(MSG_TRAYICON_SETTINGS, szNotifyHeading), KV_TEXT(MSG_TRAYICON_SETTINGS, szConnectHeader),
            KV_TEXT(MSG_TRAYICON_SETTINGS, szLanguage)};
        for (std::size_t i = 0; i < 9; ++i)
            texts.push_back({"szAboutText", offsetof(MSG_TRAYICON_SETTINGS, szAboutText) + i * 256, 128});
        return texts;
    }
    case MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION:
        return {KV_TEXT(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szUserName),
                KV_TEXT(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szDesktopName)};
    case MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL:
        return {KV_TEXT(MSG_TRAYICON_NOTIFY_ALL, szText)};
    case MSG_TYPE_TRAYICON_SFT_DROP_CLIENT:
        return {KV_TEXT(MSG_TRAYICON_SFT_DROP_CLIENT, szViewerName),
                KV_TEXT(MSG_TRAYICON_SFT_DROP_CLIENT, szEventName),
                KV_TEXT(MSG_TRAYICON_SFT_DROP_CLIENT, szFileListPath)};
    case MSG_TYPE_TRAYICON_SFT_INIT_TEMP:
        return {KV_TEXT(MSG_TRAYICON_SFT_INIT_TEMP, szEventName), KV_TEXT(MSG_TRAYICON_SFT_INIT_TEMP, szTempIniPath),
                KV_TEXT(MSG_TRAYICON_SFT_INIT_TEMP, szDataPath)};
    case MSG_TYPE_TRAYICON_SERVER_RECONFIGURE:
        return {KV_TEXT(MSG_TRAYICON_SERVER_RECONFIGURE, szText)};
    case MSG_TYPE_TRAYICON_IP_ADDRESSES:
        return {KV_TEXT(MSG_TRAYICON_IP_ADDRESSES, szAddresses)};
    case MSG_TYPE_REVERSE_CONNECTION:
        return {KV_TEXT(MSG_REVERSE_CONNECTION, szError), KV_TEXT(MSG_REVERSE_CONNECTION, szShortText),
                KV_TEXT(MSG_REVERSE_CONNECTION, szHost), KV_TEXT(MSG_REVERSE_CONNECTION, szProxyHost),
                KV_TEXT(MSG_REVERSE_CONNECTION, szProxySecret)};
    case MSG_TYPE_TRAYICON_CHAT_OPEN:
        return {KV_TEXT(MSG_TRAYICON_CHAT_OPEN, szUsername)};
    case MSG_TYPE_CHAT_MESSAGE:
        return {KV_TEXT(MSG_CHAT_MESSAGE, szUsername)};
    default:
        return {};
    }
}

#undef KV_TEXT

namespace
{

// Ids left out of the draw, because their effect ends or swamps the run rather than testing the
// agent's robustness: the exit request ends the agent (the soak sends it once, at the end); the
// permission request and the settings dialog start a child process each (thousands of them);
// the read-unblocking echo is the soak's own pacing and liveness probe.
bool Drawn(std::uint32_t id)
{
    return id != MSG_TYPE_TRAYICON_EXIT && id != MSG_TYPE_TRAYICON_PERMISSION &&
           id != MSG_TYPE_TRAYICON_SETTINGS_DIALOG && id != MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE;
}

constexpr std::size_t kChatBodyMaxUnits = 8192;

void PutU32(Bytes& rec, std::size_t offset, std::uint32_t value)
{
    std::memcpy(rec.data() + offset, &value, 4);
}

} // namespace

SoakRecords::SoakRecords(std::uint64_t seed, std::uint32_t skipId) : m_rng(seed)
{
    for (const KvMessageInfo& info : KV_MESSAGE_CATALOGUE)
        if (Drawn(info.dwType) && info.dwType != skipId)
            m_ids.push_back(info.dwType);
}

// Half the words are small (0 to 3), so that flags and counts take both sides of their tests;
// the others are any value.
std::uint32_t SoakRecords::Word()
{
    const std::uint64_t r = m_rng();
    return (r & 1) != 0 ? static_cast<std::uint32_t>(r >> 1) & 3 : static_cast<std::uint32_t>(r >> 32);
}

// A text of random length up to the field's whole size (a quarter of them fill it, with no
// terminator), of any units: control characters, lone and paired surrogates, direction marks and
// combining marks are drawn as often as the rest of the 16-bit range. Returns its length.
std::size_t SoakRecords::FillText(Bytes& rec, std::size_t offset, std::size_t units, const char* name,
                                  std::string& summary)
{
    const std::size_t length = Below(4) == 0 ? units : Below(static_cast<std::uint32_t>(units + 1));
    static const std::uint16_t kBidi[] = {0x200E, 0x200F, 0x202A, 0x202B, 0x202C, 0x202D,
                                          0x202E, 0x2066, 0x2067, 0x2068, 0x2069, 0x061C};
    for (std::size_t i = 0; i < length; ++i)
    {
        std::uint16_t unit = 0;
        switch (Below(5))
        {
        case 0:
            unit = static_cast<std::uint16_t>(1 + Below(0x1F));
            break;
        case 1:
            unit = static_cast<std::uint16_t>(0xD800 + Below(0x800));
            break;
        case 2:
            unit = kBidi[Below(sizeof kBidi / sizeof kBidi[0])];
            break;
        case 3:
            unit = static_cast<std::uint16_t>(0x0300 + Below(0x70));
            break;
        default:
            unit = static_cast<std::uint16_t>(1 + Below(0xFFFF));
            break;
        }
        rec[offset + 2 * i] = static_cast<std::uint8_t>(unit & 0xFF);
        rec[offset + 2 * i + 1] = static_cast<std::uint8_t>(unit >> 8);
    }
    if (length < units)
        rec[offset + 2 * length] = rec[offset + 2 * length + 1] = 0;
    summary += std::string(" ") + name + "=" + std::to_string(length) + (length == units ? "!" : "");
    return length;
}

Bytes SoakRecords::Next(std::string& summary)
{
    const std::uint32_t id = m_ids[Below(static_cast<std::uint32_t>(m_ids.size()))];
    summary = std::to_string(id);
    // Ids the agent never receives: it skips the type word alone, so nothing else may follow.
    const std::uint32_t size = KvRecordSize(id, KvDirection::ToAgent);
    Bytes rec(size == 0 ? 4 : size);
    for (std::size_t at = 4; at + 4 <= rec.size(); at += 4)
        PutU32(rec, at, Word());
    PutU32(rec, 0, id);
    for (const SoakText& text : SoakTexts(id))
        FillText(rec, text.offset, text.units, text.name, summary);

    switch (id)
    {
    case MSG_TYPE_TRAYICON_INIT:
    case MSG_TYPE_TRAYICON_DESKTOP_EFFECTS:
        // Masks above 1 switch the session's visual effects off, and an agent that crashes
        // leaves them off for every later program in this desktop session.
        PutU32(rec, id == MSG_TYPE_TRAYICON_INIT ? offsetof(MSG_TRAYICON_INIT, dwDesktopEffects) : 4, Below(2));
        break;
    case MSG_TYPE_REVERSE_CONNECTION:
        // Mostly the statuses the agent acts on, and reports that are shown.
        PutU32(rec, offsetof(MSG_REVERSE_CONNECTION, dwStatus), Below(4) == 3 ? Word() : KV_REVERSE_DONE + Below(3));
        PutU32(rec, offsetof(MSG_REVERSE_CONNECTION, bSuppressReport), Below(2));
        break;
    case MSG_TYPE_CHAT_MESSAGE:
    {
        // The length says how much follows, so the stream stays in frame whatever the body holds:
        // mostly a text, but also no body, an odd length, and one beyond what the agent shows
        // (which it reads and drops).
        const std::size_t at = rec.size();
        const std::uint32_t kind = Below(32);
        std::size_t bytes = 0;
        if (kind == 0)
            bytes = KV_MAX_CHAT_BODY_BYTES + 1 + Below(1u << 16);
        else if (kind <= 2)
            bytes = 2 * Below(kChatBodyMaxUnits) + 1;
        else if (kind != 3)
            bytes = 2 * kChatBodyMaxUnits;
        rec.resize(at + bytes);
        if (kind <= 3)
        {
            for (std::size_t i = at; i < rec.size(); ++i)
                rec[i] = static_cast<std::uint8_t>(m_rng());
            summary += " body=" + std::to_string(bytes) + "B";
        }
        else
            rec.resize(at + 2 * FillText(rec, at, kChatBodyMaxUnits, "body", summary));
        PutU32(rec, offsetof(MSG_CHAT_MESSAGE, dwMessageLength), static_cast<std::uint32_t>(rec.size() - at));
        break;
    }
    default:
        break;
    }
    return rec;
}

} // namespace kvsim
