// The About box's information block, built from the same source the agent uses.
#include "AboutInfoBlock.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace
{

std::wstring Label(int nId)
{
    return L"[" + std::to_wstring(nId) + L"]";
}

std::wstring Join(std::initializer_list<const wchar_t*> lines)
{
    std::wstring out;
    for (const wchar_t* line : lines)
        out += (out.empty() ? L"" : L"\r\n") + std::wstring(line);
    return out;
}

KvAboutFacts Facts(std::uint32_t a, std::uint32_t b, std::uint32_t c, bool bOneTime, bool bValues)
{
    KvAboutFacts f{{}, a, b, c, bOneTime};
    if (bValues)
        for (int i = 0; i < 9; ++i)
            f.values[i] = L"v" + std::to_wstring(i + 1);
    return f;
}

} // namespace

TEST(AboutInfoBlock, LinesByOptionsFlagsOneTimeAndValues)
{
    const struct
    {
        KvAboutFacts facts;
        std::wstring expected;
    } cases[] = {
        // Nothing from the service: both option lines, lists without a break, value 5's stand-in.
        {Facts(0, 0, 0, false, false), Join({L"[55]", L"[116][118]", L"[121][120]", L"[56]", L"[57]", L"[58]",
                                             L"[60][62]", L"[53]", L"[54]", L"[59]", L"[61]"})},
        // Option A set hides option B; flag C adds its note after value 2; lists start a line.
        {Facts(7, 1, 1, false, true),
         Join({L"[55]v1", L"[116][117]", L"[56]v2", L"[89]", L"[57]", L"v3", L"[58]", L"v4", L"[60]v5",
               L"[53]v6", L"[54]v7", L"[59]v8", L"[61]v9"})},
        {Facts(0, 2, 0, false, true),
         Join({L"[55]v1", L"[116][118]", L"[121][119]", L"[56]v2", L"[57]", L"v3", L"[58]", L"v4", L"[60]v5",
               L"[53]v6", L"[54]v7", L"[59]v8", L"[61]v9"})},
        // The one-time agent shows no option lines at all.
        {Facts(0, 1, 0, true, true), Join({L"[55]v1", L"[56]v2", L"[57]", L"v3", L"[58]", L"v4", L"[60]v5",
                                           L"[53]v6", L"[54]v7", L"[59]v8", L"[61]v9"})},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, KvComposeAboutInfo(c.facts, Label, KV_ABOUT_INFO_UNITS))
            << "a=" << c.facts.uOptionA << " b=" << c.facts.uOptionB << " c=" << c.facts.uFlagC
            << " onetime=" << c.facts.bOneTime;

    // Values that overflow the buffer are cut to leave room for the terminator.
    KvAboutFacts big = Facts(1, 0, 0, false, false);
    for (auto& v : big.values)
        v.assign(400, L'x');
    const std::wstring cut = KvComposeAboutInfo(big, Label, KV_ABOUT_INFO_UNITS);
    EXPECT_EQ(KV_ABOUT_INFO_UNITS - 1, cut.size());
    EXPECT_EQ(0u, cut.find(L"[55]xxx"));
    EXPECT_EQ(L"", KvComposeAboutInfo(big, Label, 0));
}
