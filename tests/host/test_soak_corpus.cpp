// The soak's records through the agent's own portable decoding, as the Windows soak sends them (same
// seed): the stream framed in uneven parts, every text made fit to show within its bound, the
// reverse-connection report composed. Its point is the host-asan build, where a read beyond a field
// or a record fails. KVNXST_SOAK_RECORDS sets the count.
#include "KvRecordCodec.h"
#include "ReverseConnectionReport.h"
#include "ServiceText.h"
#include "SimSoak.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace
{

#define KV_FIELD(f)                                                                                          \
    KvShowableText(reinterpret_cast<const char16_t*>(rec.data() + offsetof(MSG_REVERSE_CONNECTION, f)),      \
                   sizeof(MSG_REVERSE_CONNECTION::f) / 2, false)

} // namespace

TEST(SoakCorpus, RecordsFrameAndTheirTextsAndReportsStayWithinBounds)
{
    const char* szCount = std::getenv("KVNXST_SOAK_RECORDS");
    const unsigned count =
        szCount != nullptr ? static_cast<unsigned>(std::strtoul(szCount, nullptr, 10)) : 1000;
    kvsim::SoakRecords records(14, 0);
    KvRecordDecoder decoder(KvDirection::ToAgent, KV_MAX_CHAT_SKIP_BYTES);
    unsigned framed = 0;
    for (unsigned i = 0; i < count; ++i)
    {
        std::string summary;
        const kvsim::Bytes rec = records.Next(summary);
        // Uneven parts, so records straddle reads as they do on a socket.
        for (std::size_t at = 0; at < rec.size(); at += 1 + (i * 7919 + at) % 5003)
            decoder.Feed(rec.data() + at, std::min<std::size_t>(1 + (i * 7919 + at) % 5003, rec.size() - at));
        const KvRecordDecoder::Event ev = decoder.Next();
        if (KvRecordSize(KvReadU32(rec.data()), KvDirection::ToAgent) == 0)
            ASSERT_EQ(KvDecodeStatus::UnknownId, ev.status) << summary;
        else
            ASSERT_TRUE(ev.status == KvDecodeStatus::Record && ev.record == rec) << summary;
        ASSERT_EQ(KvDecodeStatus::NeedMore, decoder.Next().status) << summary;
        ++framed;

        for (const kvsim::SoakText& text : kvsim::SoakTexts(KvReadU32(rec.data())))
            for (bool bMultiLine : {false, true})
            {
                const std::u16string shown = KvShowableText(
                    reinterpret_cast<const char16_t*>(rec.data() + text.offset), text.units, bMultiLine);
                EXPECT_LE(shown.size(), 2 * text.units) << summary << " " << text.name;
            }
        if (KvReadU32(rec.data()) == MSG_TYPE_REVERSE_CONNECTION)
        {
            KvReverseReportInput in;
            in.bShort = KvReadU32(rec.data() + offsetof(MSG_REVERSE_CONNECTION, bShortReport)) != 0;
            in.shortFormat = u"%ls";
            in.longFormat = u"%ls";
            in.errorText = KV_FIELD(szError);
            in.shortText = KV_FIELD(szShortText);
            in.host = KV_FIELD(szHost);
            in.dwPort = KvReadU32(rec.data() + offsetof(MSG_REVERSE_CONNECTION, dwPort));
            EXPECT_LT(KvComposeReverseReport(in).text.size(), KV_REPORT_TEXT_UNITS) << summary;
        }
    }
    std::printf("soak corpus: %u of %u records framed and decoded\n", framed, count);
}
