// The reverse-connection report, built from the same source the agent uses.
#include "ReverseConnectionReport.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

std::string Ascii(const std::u16string& s)
{
    std::string out;
    for (char16_t c : s)
        out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

KvReverseReportInput Input()
{
    KvReverseReportInput in;
    in.shortFormat = u"Session %ls not joined.";
    in.longFormat = u"No connection.\r\n%ls";
    in.errorText = u"timed out";
    in.systemText = u"System says no.";
    in.shortText = u"123-456";
    in.host = u"viewer.example";
    in.dwPort = 4294967295u; // in full, unsigned
    return in;
}

} // namespace

TEST(ReverseReport, KindAndPostFollowTheRecord)
{
    const struct
    {
        const char* name;
        bool bSuppress, bShort;
        const char16_t* errorText;
        bool bBuilt, bPost;
        const char16_t* text;
    } cases[] = {
        {"suppressed", true, false, u"x", false, false, u""},
        {"suppressed short", true, true, u"x", false, false, u""},
        {"short", false, true, u"failed", true, true, u"Session 123-456 not joined."},
        // The text is built, only the box stays shut.
        {"short NOERROR", false, true, u"NOERROR", true, false, u"Session 123-456 not joined."},
        {"short noerror is not NOERROR", false, true, u"noerror", true, true, u"Session 123-456 not joined."},
        {"long", false, false, u"refused", true, true,
         u"No connection.\r\nrefused\r\nHost: viewer.example\r\nPort: 4294967295"},
        {"long without error text takes the system's", false, false, u"", true, true,
         u"No connection.\r\nSystem says no.\r\nHost: viewer.example\r\nPort: 4294967295"},
        {"long NOERROR still posts", false, false, u"NOERROR", true, true,
         u"No connection.\r\nNOERROR\r\nHost: viewer.example\r\nPort: 4294967295"},
    };
    for (const auto& c : cases)
    {
        KvReverseReportInput in = Input();
        in.bSuppress = c.bSuppress;
        in.bShort = c.bShort;
        in.errorText = c.errorText;
        const KvReverseReport report = KvComposeReverseReport(in);
        EXPECT_EQ(c.bBuilt, report.bBuilt) << c.name;
        EXPECT_EQ(c.bPost, report.bPost) << c.name;
        EXPECT_EQ(Ascii(c.text), Ascii(report.text)) << c.name;
    }
}

TEST(ReverseReport, TextIsCutToTheBufferWithoutSplittingACharacter)
{
    KvReverseReportInput in = Input();
    in.errorText = std::u16string(5000, u'e');
    const KvReverseReport report = KvComposeReverseReport(in);
    EXPECT_EQ(KV_REPORT_TEXT_UNITS - 1, report.text.size());
    EXPECT_EQ(u'e', report.text.back()) << "host and port are what is cut";

    in.bShort = true;
    in.shortFormat = u"%s";
    in.shortText = std::u16string(4094, u'a') + u"\xD83D\xDE00"; // an emoji across the limit
    EXPECT_EQ(std::u16string(4094, u'a'), KvComposeReverseReport(in).text);
    in.shortText = std::u16string(4093, u'a') + u"\xD83D\xDE00" + u"tail";
    EXPECT_EQ(std::u16string(4093, u'a') + u"\xD83D\xDE00", KvComposeReverseReport(in).text);
}

TEST(ReverseReport, FormatTakesOneStringAndNothingElse)
{
    const struct
    {
        const char16_t* format;
        const char16_t* expected;
    } cases[] = {
        {u"a %ls b", u"a X b"},
        {u"a %s b", u"a X b"},
        {u"a %S b", u"a X b"},
        {u"%ls%ls", u"X"}, // no second argument to read
        {u"100%% %s", u"100% X"},
        {u"%d %x %n %s", u"%d %x %n X"},
        {u"no conversion", u"no conversion"},
        {u"trailing %", u"trailing %"},
        {u"trailing %l", u"trailing %l"},
        {u"", u""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Ascii(c.expected), Ascii(KvFormatWithString(c.format, u"X"))) << Ascii(c.format);
}
