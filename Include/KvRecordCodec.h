// Splitting the service link's byte stream into whole records. The framing has no length field:
// the 4-byte type id says how big the record is, except a chat message, whose head says how long
// its body is. Both the agent's reader and the simulator go through these functions, which never
// read outside the bytes they are given.
#pragma once

#include "KvServiceMessages.h"

#include <cstddef>
#include <cstdint>
#include <vector>

enum class KvDecodeStatus
{
    Record,      // a whole record is at the head
    NeedMore,    // not enough bytes yet (at end of stream with nothing pending: a clean end)
    UnknownId,   // the id is not one that travels this way; only its 4 bytes are consumed
    ChatTooLong, // a chat head announces a body beyond the bound; the stream cannot go on
    ShortRecord, // the stream ended inside a record (the peer vanished)
};

inline const char* KvDecodeStatusName(KvDecodeStatus status) noexcept
{
    switch (status)
    {
    case KvDecodeStatus::Record:
        return "record";
    case KvDecodeStatus::NeedMore:
        return "need more";
    case KvDecodeStatus::UnknownId:
        return "unknown id";
    case KvDecodeStatus::ChatTooLong:
        return "chat length out of bounds";
    case KvDecodeStatus::ShortRecord:
        return "short record";
    }
    return "?";
}

// Whether a chat body of that many bytes may be read at all.
inline bool KvChatLengthAcceptable(std::uint32_t cbBody,
                                   std::uint32_t cbMax = KV_MAX_CHAT_BODY_BYTES) noexcept
{
    return cbBody <= cbMax;
}

struct KvPeekResult
{
    KvDecodeStatus status;
    std::uint32_t dwType; // valid once 4 bytes are there
    std::size_t cbRecord; // whole record size when known (4 for an unknown id); 0 before
};

// What starts at the head of [data, data + size): a whole record, not yet enough, or a fault.
inline KvPeekResult KvPeekRecord(const std::uint8_t* data, std::size_t size, KvDirection dir,
                                 std::uint32_t cbMaxChat = KV_MAX_CHAT_BODY_BYTES) noexcept
{
    if (data == nullptr || size < 4)
        return {KvDecodeStatus::NeedMore, 0, 0};
    const std::uint32_t dwType = KvReadU32(data);
    const KvMessageInfo* info = KvFindMessage(dwType);
    const std::uint32_t cbFixed =
        info == nullptr ? 0 : (dir == KvDirection::ToAgent ? info->cbToAgent : info->cbToService);
    if (cbFixed == 0)
        return {KvDecodeStatus::UnknownId, dwType, 4};
    std::size_t cbRecord = cbFixed;
    if (info->bChatBody)
    {
        if (size < cbFixed)
            return {KvDecodeStatus::NeedMore, dwType, cbFixed};
        const std::uint32_t cbBody = KvReadU32(data + offsetof(MSG_CHAT_MESSAGE, dwMessageLength));
        if (!KvChatLengthAcceptable(cbBody, cbMaxChat))
            return {KvDecodeStatus::ChatTooLong, dwType, cbFixed + static_cast<std::size_t>(cbBody)};
        cbRecord += cbBody;
    }
    return {size >= cbRecord ? KvDecodeStatus::Record : KvDecodeStatus::NeedMore, dwType, cbRecord};
}

// Incremental decoder: feed it bytes as they arrive, take records out.
class KvRecordDecoder
{
public:
    struct Event
    {
        KvDecodeStatus status = KvDecodeStatus::NeedMore;
        std::uint32_t dwType = 0;
        std::size_t cbExpected = 0;       // record size (ShortRecord, ChatTooLong: what was announced)
        std::size_t cbHave = 0;           // bytes of it that arrived (ShortRecord)
        std::vector<std::uint8_t> record; // the whole record (Record only)
    };

    explicit KvRecordDecoder(KvDirection dir, std::uint32_t cbMaxChat = KV_MAX_CHAT_BODY_BYTES)
        : m_dir(dir), m_cbMaxChat(cbMaxChat)
    {
    }

    void Feed(const void* data, std::size_t size)
    {
        if (m_bFailed || data == nullptr || size == 0)
            return;
        if (m_pos > 0 && m_pos >= m_buf.size() / 2)
        {
            m_buf.erase(m_buf.begin(), m_buf.begin() + static_cast<std::ptrdiff_t>(m_pos));
            m_pos = 0;
        }
        const auto* p = static_cast<const std::uint8_t*>(data);
        m_buf.insert(m_buf.end(), p, p + size);
    }

    // The next event: Record and UnknownId consume bytes; NeedMore waits for more; ChatTooLong
    // stops the decoder for good.
    Event Next()
    {
        Event ev;
        const KvPeekResult peek =
            KvPeekRecord(m_buf.data() + m_pos, m_buf.size() - m_pos, m_dir, m_cbMaxChat);
        ev.status = m_bFailed ? KvDecodeStatus::ChatTooLong : peek.status;
        ev.dwType = peek.dwType;
        ev.cbExpected = peek.cbRecord;
        switch (ev.status)
        {
        case KvDecodeStatus::Record:
            ev.record.assign(m_buf.begin() + static_cast<std::ptrdiff_t>(m_pos),
                             m_buf.begin() + static_cast<std::ptrdiff_t>(m_pos + peek.cbRecord));
            ev.cbHave = peek.cbRecord;
            m_pos += peek.cbRecord;
            break;
        case KvDecodeStatus::UnknownId:
            m_pos += 4;
            break;
        case KvDecodeStatus::ChatTooLong:
            m_bFailed = true;
            break;
        default:
            break;
        }
        return ev;
    }

    // Call once the stream has ended and Next says NeedMore: ShortRecord when a record was
    // begun, NeedMore for a clean end between records.
    Event Finish() const
    {
        Event ev;
        const std::size_t cbHave = m_buf.size() - m_pos;
        if (m_bFailed || cbHave == 0)
        {
            ev.status = m_bFailed ? KvDecodeStatus::ChatTooLong : KvDecodeStatus::NeedMore;
            return ev;
        }
        const KvPeekResult peek = KvPeekRecord(m_buf.data() + m_pos, cbHave, m_dir, m_cbMaxChat);
        ev.status = KvDecodeStatus::ShortRecord;
        ev.dwType = peek.dwType;
        ev.cbExpected = peek.cbRecord;
        ev.cbHave = cbHave;
        return ev;
    }

    std::size_t Pending() const noexcept { return m_buf.size() - m_pos; }
    bool Failed() const noexcept { return m_bFailed; }

private:
    KvDirection m_dir;
    std::uint32_t m_cbMaxChat;
    std::vector<std::uint8_t> m_buf;
    std::size_t m_pos = 0;
    bool m_bFailed = false;
};

// Decodes a whole stream that has ended, calling onEvent(const KvRecordDecoder::Event&) for every
// record and unknown id, then once more for a final ChatTooLong or ShortRecord. Returns the final
// status: NeedMore when the stream ended cleanly between records. This is also the entry point
// for fuzzing the framing.
template <typename F>
inline KvDecodeStatus KvDecodeStream(const void* data, std::size_t size, KvDirection dir, F&& onEvent,
                                     std::uint32_t cbMaxChat = KV_MAX_CHAT_BODY_BYTES)
{
    KvRecordDecoder decoder(dir, cbMaxChat);
    decoder.Feed(data, size);
    for (;;)
    {
        KvRecordDecoder::Event ev = decoder.Next();
        if (ev.status == KvDecodeStatus::NeedMore)
            break;
        onEvent(ev);
        if (ev.status == KvDecodeStatus::ChatTooLong)
            return ev.status;
    }
    KvRecordDecoder::Event last = decoder.Finish();
    if (last.status != KvDecodeStatus::NeedMore)
        onEvent(last);
    return last.status;
}
