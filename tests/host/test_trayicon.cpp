// The tray icon's decisions, built from the same source the agent uses.
#include "TrayIconPolicy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>

using A = KvTrayAction;

TEST(TrayIconPolicy, ShowOrRemoveByPolicyModeAndConnections)
{
    const struct
    {
        std::uint32_t t;
        bool c;
        int mode;
        bool oneTime;
        KvTrayAction expected;
    } cases[] = {
        {1, false, 1, false, A::ModifyOrAdd},
        // Policy 2 in attended mode: only while a viewer is connected.
        {2, true, 1, false, A::ModifyOrAdd},
        {2, false, 1, false, A::Delete},
        {2, false, 1, true, A::Delete},
        {2, false, 0, false, A::ModifyOrAdd},
        {0xFFFFFFFF, false, 1, false, A::ModifyOrAdd},
        // Policy 0: no icon in attended mode, unless one-time.
        {0, true, 1, false, A::Delete},
        {0, false, 1, true, A::ModifyOrAdd},
        {0, false, 2, false, A::ModifyOrAdd},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, KvTrayIconAction(c.t, c.c, c.mode, c.oneTime))
            << "t=" << c.t << " c=" << c.c << " mode=" << c.mode << " onetime=" << c.oneTime;
}

TEST(TrayIconPolicy, RefusedAddIsRetriedEverySecondForAMinuteThenEveryMinute)
{
    for (const auto& [nFailures, uPeriod] : {std::pair{1, 1000u}, {60, 1000u}, {61, 60000u}, {500, 60000u}})
        EXPECT_EQ(uPeriod, KvTrayRetryPeriod(nFailures)) << nFailures;
}

TEST(TrayIconPolicy, PictureByStateSelectorAndCustomIdle)
{
    const struct
    {
        bool active;
        std::uint32_t selector;
        bool custom;
        int id;
    } cases[] = {
        {true, 1, true, 130}, {true, 2, false, 130}, {false, 0, false, 7},
        {false, 9, false, 7}, {false, 1, true, 131}, {false, 2, true, 107},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.id, KvTrayIconResource(c.active, c.selector, c.custom))
            << c.active << " " << c.selector << " " << c.custom;
}

namespace
{

std::u16string Tooltip(std::size_t limit, bool oneTime, bool note, const std::u16string& caption)
{
    char16_t out[KV_TOOLTIP_UNITS_BALLOONS];
    std::fill(std::begin(out), std::end(out), u'#');
    const std::size_t n =
        KvComposeTrayTooltip(out, limit, oneTime, u"One-time", note, u"Note", caption.c_str());
    EXPECT_EQ(0, out[n]);
    for (std::size_t i = n + 1; i < KV_TOOLTIP_UNITS_BALLOONS; ++i)
        EXPECT_EQ(u'#', out[i]) << "written past the text at " << i;
    return std::u16string(out, n);
}

} // namespace

TEST(TrayIconPolicy, TooltipComposedThenCutWithDotsAtTheLimit)
{
    const std::u16string a123(123, u'a'), a124(124, u'a'), a59(59, u'a'), a60(60, u'a');
    const struct
    {
        std::size_t limit;
        bool oneTime, note;
        std::u16string caption, expected;
    } cases[] = {
        {128, false, false, u"Vexa", u"Vexa"},
        {128, true, true, u"", u"One-time\r\nNote\r\n"},
        {128, true, false, u"Vexa", u"One-time\r\nVexa"},
        // limit - 5 units fit whole; one more is cut there and marked.
        {128, false, false, a123, a123},
        {128, false, false, a124, a123 + u"..."},
        {64, false, false, a59, a59},
        {64, false, false, a60, a59 + u"..."},
        // The whole 260-unit caption behind both heads.
        {128, true, true, std::u16string(259, u'c'),
         (u"One-time\r\nNote\r\n" + std::u16string(107, u'c')) + u"..."},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, Tooltip(c.limit, c.oneTime, c.note, c.caption))
            << c.limit << " " << c.caption.size();

    // Null texts count as empty; a tiny field still ends in its terminator.
    char16_t small[3] = {u'#', u'#', u'#'};
    EXPECT_EQ(2u, KvComposeTrayTooltip<char16_t>(small, 3, true, nullptr, true, nullptr, nullptr));
    EXPECT_EQ(std::u16string(u"\r\n"), std::u16string(small));
    EXPECT_EQ(2u, KvComposeTrayTooltip<char16_t>(small, 3, false, nullptr, false, nullptr, u"abcdef"));
}

TEST(TrayIconPolicy, MenuGreyingFollowsSettingsConnectionsAndMode)
{
    constexpr bool Y = true, N = false;
    constexpr std::uint32_t INV = KV_OPTION_INVITATIONS;
    // Flags: connections, mode (1 attended), allowed settings, disconnect, invitations, connect to
    // client; reverse connection out; settings locked; options.
    const struct
    {
        const char* what;
        KvTrayMenuFlags flags;
        std::initializer_list<unsigned int> greyed;
    } cases[] = {
        {"idle, all allowed", {0, 0, Y, Y, Y, Y, N, N, INV}, {40005}},
        {"viewed", {2, 0, Y, Y, Y, Y, N, N, INV}, {40006, 40011}},
        {"viewed, attended, no disconnect", {1, 1, Y, N, Y, Y, N, N, INV}, {40005, 40006, 40011}},
        {"viewed, not attended, no disconnect", {1, 0, Y, N, Y, Y, N, N, INV}, {40006, 40011}},
        {"locked, attended", {0, 1, Y, Y, Y, Y, N, Y, INV}, {40005, 40007}},
        {"locked, not attended", {0, 0, Y, Y, Y, Y, N, Y, INV}, {40005}},
        {"reverse connection out", {0, 0, Y, Y, Y, Y, Y, N, INV}, {40005, 40006, 40011}},
        {"invitations option bit clear", {0, 0, Y, Y, Y, Y, N, N, ~INV}, {40002, 40005}},
        {"nothing allowed", KvTrayMenuFlags{}, {40002, 40005, 40006, 40008}},
    };
    for (const auto& c : cases)
    {
        const KvGreyedItems g = KvTrayMenuGreyed(c.flags);
        EXPECT_EQ(static_cast<int>(c.greyed.size()), g.count) << c.what;
        for (unsigned int id : c.greyed)
            EXPECT_TRUE(g.Contains(id)) << c.what << ": " << id;
    }
}

TEST(TrayIconPolicy, LanguageItemByCaseInsensitiveCode)
{
    const char16_t* table[] = {u"en", u"fr", u"de"};
    const struct
    {
        const char16_t* code;
        unsigned int item;
    } cases[] = {{u"en", 1044}, {u"FR", 1045}, {u"dE", 1046}, {u"e", 0}, {u"enx", 0}, {u"", 0}, {nullptr, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(c.item, KvLanguageMenuItem(c.code, table, 3));

    // A full three-unit buffer without its terminator is read no further.
    const char16_t unterminated[3] = {u'd', u'e', u'x'};
    EXPECT_EQ(0u, KvLanguageMenuItem(unterminated, table, 3));
}
