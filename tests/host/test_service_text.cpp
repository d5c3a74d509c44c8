// What the agent makes of the service's texts before it shows them.
#include "ServiceText.h"

#include <gtest/gtest.h>

TEST(ShowableText, KeepsPrintableTextAndDropsWhatCouldHideOrBreakIt)
{
    const struct
    {
        std::u16string in;
        bool bMultiLine;
        std::u16string out;
    } rows[] = {
        {u"alice (WS-7)", false, u"alice (WS-7)"},
        // Controls and direction overrides: "txt.exe" must not read as "exe.txt".
        {u"a\x01\x1b\x7f\x85" u"b\u202Etxt.exe\u2066", false, u"abtxt.exe"},
        // Every kind of line break becomes CR LF in a list, a blank on one line.
        {u"a\rb\nc\r\nd\te", true, u"a\r\nb\r\nc\r\nd\te"},
        {u"a\rb\nc\r\nd\te", false, u"a b c d e"},
        // Pairs stay; halves and noncharacters are replaced.
        {u"\xD83D\xDE00 \xD83D x\xDE00 \xFFFE\xFDD0", false, u"\xD83D\xDE00 \xFFFD x\xFFFD \xFFFD\xFFFD"},
        // The marks that upset Wine's edit control pass: the list and painted text cope with them.
        {u"\u0EC8\u02D7\u05D3A\u05B3", false, u"\u0EC8\u02D7\u05D3A\u05B3"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.out, KvShowableText(row.in.c_str(), row.in.size() + 1, row.bMultiLine));
}

TEST(ShowableText, StopsAtTheEndOfTheArrayWithoutATerminator)
{
    char16_t field[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(u"abcd", KvShowableField(field));
    // A high half in the last unit has no partner inside the array.
    field[3] = 0xD800;
    EXPECT_EQ(u"abc\xFFFD", KvShowableField(field));
    EXPECT_EQ(u"", KvShowableText(nullptr, 10, true));
}
