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
using S = KvDecodeStatus;

Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Rec(std::size_t size, std::uint32_t id)
{
    return ByteLayout(size).Int(0, id).Bytes();
}

Bytes Chat(std::uint32_t length)
{
    return ByteLayout(528 + length).Int(0, 75001).Str(4, u"bob").Int(524, length).Fill(528, length, 0x41).Bytes();
}

std::vector<KvRecordDecoder::Event> DecodeAll(const Bytes& stream, KvDirection dir,
                                              std::uint32_t maxChat = KV_MAX_CHAT_BODY_BYTES)
{
    std::vector<KvRecordDecoder::Event> seen;
    KvDecodeStream(stream.data(), stream.size(), dir, [&](const KvRecordDecoder::Event& ev) { seen.push_back(ev); },
                   maxChat);
    return seen;
}

} // namespace

TEST(RecordDecoder, WholeRecordsComeOutHoweverTheBytesAreSplit)
{
    const Bytes stream = Concat({Rec(40, 4400), ByteLayout(8).Int(0, 50009).Int(4, 0x3E).Bytes(), Rec(4, 50008),
                                 Chat(6), ByteLayout(1592).Int(0, 40008).Str(4, u"alice").Bytes(), Chat(0)});
    std::vector<Bytes> whole;
    for (const auto& ev : DecodeAll(stream, KvDirection::ToAgent))
        whole.push_back(ev.record);
    const std::vector<std::size_t> sizes = {40, 8, 4, 534, 1592, 528};
    ASSERT_EQ(sizes.size(), whole.size());
    for (std::size_t i = 0; i < sizes.size(); ++i)
        EXPECT_EQ(sizes[i], whole[i].size()) << i;

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
    const struct
    {
        const char* what;
        Bytes stream;
        KvDirection dir;
        std::uint32_t maxChat;
        std::vector<S> statuses;
    } cases[] = {
        {"peer vanished inside the id", Bytes(3, 0x44), KvDirection::ToAgent, 4096, {S::ShortRecord}},
        {"peer vanished one byte short", ByteLayout(39).Int(0, 4400).Bytes(), KvDirection::ToAgent, 4096,
         {S::ShortRecord}},
        {"unknown id skipped, the next read", Concat({Rec(4, 12345), Rec(8, 50009)}), KvDirection::ToAgent, 4096,
         {S::UnknownId, S::Record}},
        {"a bare 70040 is a request only from the agent", Rec(4, 70040), KvDirection::ToAgent, 4096,
         {S::ShortRecord}},
        {"settings only come from the service", Rec(4, 40003), KvDirection::ToService, 4096, {S::UnknownId}},
        {"chat body at the bound", Chat(16), KvDirection::ToAgent, 16, {S::Record}},
        {"chat body over the bound", Chat(18), KvDirection::ToAgent, 16, {S::ChatTooLong}},
        {"chat length announced huge, no body awaited", ByteLayout(528).Int(0, 75001).Int(524, ~0u).Bytes(),
         KvDirection::ToAgent, KV_MAX_CHAT_BODY_BYTES, {S::ChatTooLong}},
    };
    for (const auto& c : cases)
    {
        std::vector<S> got;
        for (const auto& ev : DecodeAll(c.stream, c.dir, c.maxChat))
            got.push_back(ev.status);
        EXPECT_EQ(c.statuses, got) << c.what;
    }

    // A cut record reports what it is and how big it should have been, chat body included.
    const Bytes chat = Chat(100);
    const auto cut = DecodeAll(Bytes(chat.begin(), chat.begin() + 600), KvDirection::ToService);
    ASSERT_EQ(1u, cut.size());
    EXPECT_EQ(75001u, cut[0].dwType);
    EXPECT_EQ(628u, cut[0].cbExpected);
    EXPECT_EQ(600u, cut[0].cbHave);

    // After a chat length over the bound nothing more is trusted.
    KvRecordDecoder decoder(KvDirection::ToAgent, 16);
    decoder.Feed(Chat(18).data(), 546);
    EXPECT_EQ(S::ChatTooLong, decoder.Next().status);
    decoder.Feed(Rec(4, 75002).data(), 4);
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
        EXPECT_EQ(n == head.size() ? S::Record : S::NeedMore, KvPeekRecord(exact.get(), n, KvDirection::ToAgent).status)
            << n;
    }
}

TEST(RecordDecoder, ArbitraryBytesAreAccountedForExactly)
{
    // Records plus skipped ids plus the unfinished tail add up to the input.
    std::mt19937 rng(20240611);
    const std::uint32_t ids[] = {4400, 40000, 50009, 75001, 70040, 100000, 7, 50005};
    for (int round = 0; round < 300; ++round)
    {
        Bytes stream;
        for (int p = static_cast<int>(rng() % 8); p > 0; --p)
        {
            const Bytes id = Rec(4, ids[rng() % 8]);
            stream.insert(stream.end(), id.begin(), id.end());
            for (std::size_t junk = rng() % 700; junk > 0; --junk)
                stream.push_back(static_cast<std::uint8_t>(rng() % 4 == 0 ? rng() : 0));
        }
        for (KvDirection dir : {KvDirection::ToAgent, KvDirection::ToService})
        {
            std::size_t consumed = 0;
            bool stopped = false;
            for (const auto& ev : DecodeAll(stream, dir, 4096))
            {
                EXPECT_TRUE(ev.status != S::Record || ev.cbExpected == ev.record.size());
                consumed += ev.status == S::Record      ? ev.record.size()
                            : ev.status == S::UnknownId ? 4
                            : ev.status == S::ShortRecord ? ev.cbHave
                                                          : 0;
                stopped = stopped || ev.status == S::ChatTooLong;
            }
            EXPECT_TRUE(stopped || stream.size() == consumed) << "round " << round;
        }
    }
}
