// The record codec: framing by type id, the chat body, and every way a stream can go wrong.
#include "ByteLayout.h"
#include "KvRecordCodec.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{

using S = KvDecodeStatus;

Bytes Chat(std::uint32_t length)
{
    return Layout(528 + length,
                  {{0, 75001}, {4, u"bob"}, {524, length}, {528, std::u16string(length / 2, u'A')}});
}

Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::vector<KvRecordDecoder::Event> DecodeAll(const Bytes& stream, KvDirection dir,
                                              std::uint32_t maxChat = KV_MAX_CHAT_BODY_BYTES)
{
    std::vector<KvRecordDecoder::Event> seen;
    KvDecodeStream(
        stream.data(), stream.size(), dir, [&](const KvRecordDecoder::Event& ev) { seen.push_back(ev); },
        maxChat);
    return seen;
}

} // namespace

TEST(RecordDecoder, WholeRecordsComeOutHoweverTheBytesAreSplit)
{
    const Bytes stream =
        Concat({Layout(40, {{0, 4400}}), Layout(8, {{0, 50009}, {4, 0x3E}}), Layout(4, {{0, 50008}}), Chat(6),
                Layout(1592, {{0, 40008}, {4, u"alice"}}), Chat(0)});
    std::vector<Bytes> whole;
    for (const auto& ev : DecodeAll(stream, KvDirection::ToAgent))
        whole.push_back(ev.record);
    ASSERT_EQ(6u, whole.size());

    for (std::size_t chunk = 1; chunk <= 600; chunk += (chunk < 16 ? 1 : 37))
    {
        KvRecordDecoder decoder(KvDirection::ToAgent);
        std::vector<Bytes> got;
        for (std::size_t pos = 0; pos < stream.size(); pos += chunk)
        {
            decoder.Feed(stream.data() + pos, std::min(chunk, stream.size() - pos));
            for (auto ev = decoder.Next(); ev.status == S::Record; ev = decoder.Next())
                got.push_back(ev.record);
        }
        EXPECT_EQ(whole, got) << "chunks of " << chunk;
        EXPECT_EQ(0u, decoder.Pending());
    }
}

TEST(RecordDecoder, BadInputOutcomes)
{
    const auto ToAgent = KvDirection::ToAgent;
    const struct
    {
        const char* what;
        Bytes stream;
        KvDirection dir;
        std::uint32_t maxChat;
        std::vector<S> statuses;
    } cases[] = {
        // clang-format off
        {"peer vanished inside the id", Bytes(3, 0x44), ToAgent, 4096, {S::ShortRecord}},
        {"peer vanished one byte short", Layout(39, {{0, 4400}}), ToAgent, 4096, {S::ShortRecord}},
        {"unknown id skipped, the next read", Layout(12, {{0, 12345}, {4, 50009}}), ToAgent, 4096,
         {S::UnknownId, S::Record}},
        {"a bare 70040 is a request only from the agent", Layout(4, {{0, 70040}}), ToAgent, 4096,
         {S::ShortRecord}},
        {"settings only come from the service", Layout(4, {{0, 40003}}), KvDirection::ToService, 4096,
         {S::UnknownId}},
        {"chat body at the bound", Chat(16), ToAgent, 16, {S::Record}},
        {"chat body over the bound", Chat(18), ToAgent, 16, {S::ChatTooLong}},
        {"chat length announced huge, no body awaited", Layout(528, {{0, 75001}, {524, ~0u}}), ToAgent,
         KV_MAX_CHAT_BODY_BYTES, {S::ChatTooLong}},
        // clang-format on
    };
    for (const auto& c : cases)
    {
        std::vector<S> got;
        for (const auto& ev : DecodeAll(c.stream, c.dir, c.maxChat))
            got.push_back(ev.status);
        EXPECT_EQ(c.statuses, got) << c.what;
    }

    // What a cut record is and how big it should have been is read back in the simulator's report
    // (test_loopback.cpp).
    // After a chat length over the bound nothing more is trusted.
    KvRecordDecoder decoder(ToAgent, 16);
    const Bytes tooLongThenClose = Concat({Chat(18), Layout(4, {{0, 75002}})});
    decoder.Feed(tooLongThenClose.data(), tooLongThenClose.size());
    EXPECT_EQ(S::ChatTooLong, decoder.Next().status);
    EXPECT_EQ(S::ChatTooLong, decoder.Next().status);
}

TEST(RecordDecoder, PeekNeverReadsPastTheBytesItIsGiven)
{
    // Each prefix of a chat head in a heap block of exactly that size: ASan reports any overread.
    const Bytes head = Chat(2);
    for (std::size_t n = 0; n <= head.size(); ++n)
    {
        std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[n == 0 ? 1 : n]);
        std::copy(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(n), exact.get());
        const S want = n == head.size() ? S::Record : S::NeedMore;
        EXPECT_EQ(want, KvPeekRecord(exact.get(), n, KvDirection::ToAgent).status) << n;
    }
}
