// The record codec: framing by type id, the chat body, and every way a stream can go wrong.
#include "ByteLayout.h"
#include "KvRecordCodec.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

namespace
{

using Bytes = std::vector<std::uint8_t>;

Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Chat(std::uint32_t length, std::uint8_t fill = 0x41)
{
    ByteLayout head(528 + length);
    head.U32(0, 75001).Str(4, u"bob").U32(524, length).Fill(528, length, fill);
    return head.Bytes();
}

struct Seen
{
    std::vector<KvDecodeStatus> status;
    std::vector<std::uint32_t> ids;
    std::vector<Bytes> records;
};

Seen DecodeAll(const Bytes& stream, KvDirection dir, std::uint32_t maxChat = KV_MAX_CHAT_BODY_BYTES)
{
    Seen seen;
    KvDecodeStream(
        stream.data(), stream.size(), dir,
        [&](const KvRecordDecoder::Event& ev)
        {
            seen.status.push_back(ev.status);
            seen.ids.push_back(ev.dwType);
            seen.records.push_back(ev.record);
        },
        maxChat);
    return seen;
}

// Service-to-agent records of several kinds, with distinct contents.
Bytes SampleStream()
{
    return Concat({ByteLayout(40).U32(0, 4400).U32(36, 1).Bytes(),
                   ByteLayout(8).U32(0, 50009).U32(4, 0x3E).Bytes(), ByteLayout(4).U32(0, 50008).Bytes(),
                   Chat(6), ByteLayout(1592).U32(0, 40008).Str(4, u"alice").U32(1572, 1).Bytes(), Chat(0),
                   ByteLayout(4).U32(0, 75002).Bytes()});
}

} // namespace

TEST(RecordDecoder, WholeRecordsComeOutHoweverTheBytesAreSplit)
{
    const Bytes stream = SampleStream();
    const Seen whole = DecodeAll(stream, KvDirection::ToAgent);
    ASSERT_EQ(7u, whole.records.size());
    EXPECT_EQ((std::vector<std::uint32_t>{4400, 50009, 50008, 75001, 40008, 75001, 75002}), whole.ids);
    EXPECT_EQ(534u, whole.records[3].size());
    EXPECT_EQ(528u, whole.records[5].size());

    // Byte by byte, and in chunks of every size up to 600: the same records.
    for (std::size_t chunk = 1; chunk <= 600; chunk += (chunk < 16 ? 1 : 37))
    {
        SCOPED_TRACE(chunk);
        KvRecordDecoder decoder(KvDirection::ToAgent);
        std::vector<Bytes> got;
        for (std::size_t pos = 0; pos < stream.size(); pos += chunk)
        {
            decoder.Feed(stream.data() + pos, std::min(chunk, stream.size() - pos));
            for (KvRecordDecoder::Event ev = decoder.Next(); ev.status != KvDecodeStatus::NeedMore;
                 ev = decoder.Next())
            {
                ASSERT_EQ(KvDecodeStatus::Record, ev.status);
                got.push_back(ev.record);
            }
        }
        EXPECT_EQ(whole.records, got);
        EXPECT_EQ(KvDecodeStatus::NeedMore, decoder.Finish().status);
        EXPECT_EQ(0u, decoder.Pending());
    }
}

TEST(RecordDecoder, SizesDependOnTheDirection)
{
    // 70040 is a bare id from the agent but a 7,960-byte answer from the service.
    const Bytes request = ByteLayout(4).U32(0, 70040).Bytes();
    Seen out = DecodeAll(request, KvDirection::ToService);
    ASSERT_EQ(1u, out.status.size());
    EXPECT_EQ(KvDecodeStatus::Record, out.status[0]);

    Seen in = DecodeAll(request, KvDirection::ToAgent);
    ASSERT_EQ(1u, in.status.size());
    EXPECT_EQ(KvDecodeStatus::ShortRecord, in.status[0]);

    // A settings record only ever comes from the service.
    Seen wrongWay = DecodeAll(ByteLayout(4752).U32(0, 40003).Bytes(), KvDirection::ToService);
    ASSERT_FALSE(wrongWay.status.empty());
    EXPECT_EQ(KvDecodeStatus::UnknownId, wrongWay.status[0]);
}

TEST(RecordDecoder, UnknownIdWithoutPayloadIsSkippedAndTheNextIdReadCorrectly)
{
    const Bytes stream =
        Concat({ByteLayout(4).U32(0, 12345).Bytes(), ByteLayout(8).U32(0, 50009).U32(4, 7).Bytes()});
    Seen seen = DecodeAll(stream, KvDirection::ToAgent);
    ASSERT_EQ(2u, seen.status.size());
    EXPECT_EQ(KvDecodeStatus::UnknownId, seen.status[0]);
    EXPECT_EQ(12345u, seen.ids[0]);
    EXPECT_EQ(KvDecodeStatus::Record, seen.status[1]);
    EXPECT_EQ(stream.size() - 4, seen.records[1].size());
}

TEST(RecordDecoder, StreamEndingInsideARecordIsAShortRecord)
{
    const Bytes version = ByteLayout(40).U32(0, 4400).Bytes();
    for (std::size_t cut : {1u, 3u, 4u, 39u})
    {
        SCOPED_TRACE(cut);
        KvRecordDecoder decoder(KvDirection::ToAgent);
        decoder.Feed(version.data(), cut);
        EXPECT_EQ(KvDecodeStatus::NeedMore, decoder.Next().status);
        const KvRecordDecoder::Event end = decoder.Finish();
        EXPECT_EQ(KvDecodeStatus::ShortRecord, end.status);
        EXPECT_EQ(cut, end.cbHave);
        // Once the id is in, the report says which record and how big it should have been.
        EXPECT_EQ(cut >= 4 ? 40u : 0u, end.cbExpected);
        EXPECT_EQ(cut >= 4 ? 4400u : 0u, end.dwType);
    }

    // A chat message cut in its body reports the whole announced size.
    const Bytes chat = Chat(100);
    KvRecordDecoder decoder(KvDirection::ToService);
    decoder.Feed(chat.data(), 600);
    EXPECT_EQ(KvDecodeStatus::NeedMore, decoder.Next().status);
    const KvRecordDecoder::Event end = decoder.Finish();
    EXPECT_EQ(KvDecodeStatus::ShortRecord, end.status);
    EXPECT_EQ(628u, end.cbExpected);
    EXPECT_EQ(600u, end.cbHave);
}

TEST(RecordDecoder, ChatLengthBeyondTheBoundStopsTheDecoder)
{
    // The bound is checked as soon as the head is in, before any body is awaited.
    const Bytes huge = ByteLayout(528).U32(0, 75001).U32(524, 0xFFFFFFFF).Bytes();
    KvRecordDecoder decoder(KvDirection::ToAgent);
    decoder.Feed(huge.data(), huge.size());
    KvRecordDecoder::Event ev = decoder.Next();
    EXPECT_EQ(KvDecodeStatus::ChatTooLong, ev.status);
    EXPECT_TRUE(decoder.Failed());
    // Nothing after it is trusted.
    const Bytes more = ByteLayout(4).U32(0, 75002).Bytes();
    decoder.Feed(more.data(), more.size());
    EXPECT_EQ(KvDecodeStatus::ChatTooLong, decoder.Next().status);

    // At the bound exactly: accepted; one byte more: refused.
    Seen atBound = DecodeAll(Chat(16), KvDirection::ToAgent, 16);
    ASSERT_EQ(1u, atBound.status.size());
    EXPECT_EQ(KvDecodeStatus::Record, atBound.status[0]);
    Seen over = DecodeAll(Chat(18), KvDirection::ToAgent, 16);
    ASSERT_EQ(1u, over.status.size());
    EXPECT_EQ(KvDecodeStatus::ChatTooLong, over.status[0]);
    EXPECT_TRUE(KvChatLengthAcceptable(KV_MAX_CHAT_BODY_BYTES));
    EXPECT_FALSE(KvChatLengthAcceptable(KV_MAX_CHAT_BODY_BYTES + 1));
}

TEST(RecordDecoder, PeekNeverReadsPastTheBytesItIsGiven)
{
    // Each prefix of a chat head in a heap block of exactly that size: ASan reports any overread.
    const Bytes head = Chat(2);
    for (std::size_t n = 0; n <= head.size(); ++n)
    {
        std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[n == 0 ? 1 : n]);
        std::copy(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(n), exact.get());
        const KvPeekResult peek = KvPeekRecord(exact.get(), n, KvDirection::ToAgent);
        EXPECT_EQ(n == head.size() ? KvDecodeStatus::Record : KvDecodeStatus::NeedMore, peek.status) << n;
    }
    EXPECT_EQ(KvDecodeStatus::NeedMore, KvPeekRecord(nullptr, 100, KvDirection::ToAgent).status);
}

TEST(RecordDecoder, ArbitraryBytesAreAccountedForExactly)
{
    // Whatever comes in, records plus skipped ids plus the unfinished tail add up to the input,
    // and no event claims more bytes than there were.
    std::mt19937 rng(20240611);
    const std::uint32_t ids[] = {4400, 40000, 50009, 75001, 70040, 100000, 7, 50005};
    for (int round = 0; round < 300; ++round)
    {
        Bytes stream;
        const int parts = static_cast<int>(rng() % 8);
        for (int p = 0; p < parts; ++p)
        {
            ByteLayout id(4);
            id.U32(0, ids[rng() % 8]);
            stream.insert(stream.end(), id.Bytes().begin(), id.Bytes().end());
            const std::size_t junk = rng() % 700;
            for (std::size_t j = 0; j < junk; ++j)
                stream.push_back(static_cast<std::uint8_t>(rng() % 4 == 0 ? rng() : 0));
        }
        for (KvDirection dir : {KvDirection::ToAgent, KvDirection::ToService})
        {
            std::size_t consumed = 0;
            std::size_t tail = 0;
            bool stopped = false;
            KvDecodeStream(
                stream.data(), stream.size(), dir,
                [&](const KvRecordDecoder::Event& ev)
                {
                    if (ev.status == KvDecodeStatus::Record)
                    {
                        EXPECT_EQ(ev.cbExpected, ev.record.size());
                        consumed += ev.record.size();
                    }
                    else if (ev.status == KvDecodeStatus::UnknownId)
                        consumed += 4;
                    else if (ev.status == KvDecodeStatus::ShortRecord)
                        tail = ev.cbHave;
                    else
                        stopped = true;
                },
                4096);
            if (!stopped)
                EXPECT_EQ(stream.size(), consumed + tail) << "round " << round;
            else
                EXPECT_LE(consumed, stream.size());
        }
    }
}
