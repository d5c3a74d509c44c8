// Placement of the notices beside the taskbar and the text of a connect or disconnect notice.
#include "NoticePlacement.h"

#include <gtest/gtest.h>

namespace
{
constexpr long W = 280, H = 150;
}

TEST(NoticePlacement, BesideTheTaskbarOnEachEdge)
{
    // A 1024 x 768 primary monitor, and a second one right of it whose origin is (1024, 0): the
    // monitor's extent is used as coordinates, so the second lands on the same corner as the first.
    const KvScreenRect primary{0, 0, 1024, 738}, secondary{1024, 0, 2048, 738};
    const struct
    {
        unsigned int edge;
        KvScreenRect taskbar, monitor;
        KvScreenPoint expected;
    } cases[] = {
        {KV_EDGE_BOTTOM, {0, 738, 1024, 768}, primary, {1024 - W - 4, 738 - H - 4}},
        {KV_EDGE_BOTTOM, {1024, 738, 2048, 768}, secondary, {1024 - W - 4, 738 - H - 4}},
        {KV_EDGE_RIGHT, {984, 0, 1024, 768}, {0, 0, 984, 768}, {984 - W - 4, 768 - H - 4}},
        {KV_EDGE_LEFT, {0, 0, 40, 768}, {40, 0, 1024, 768}, {984 - W - 4, 768 - H - 4}},
        {KV_EDGE_TOP, {0, 0, 1024, 30}, {0, 30, 1024, 768}, {1024 - W - 4, 738 - H - 4}},
        // Only bottom and right are told apart; anything else is treated as left or top.
        {7, {0, 0, 1024, 30}, {0, 30, 1024, 768}, {1024 - W - 4, 738 - H - 4}},
    };
    for (const auto& c : cases)
    {
        const KvScreenPoint p = KvPlaceBesideTaskbar(c.edge, c.taskbar, c.monitor, W, H);
        EXPECT_EQ(c.expected.x, p.x) << "edge " << c.edge << " monitor left " << c.monitor.left;
        EXPECT_EQ(c.expected.y, p.y) << "edge " << c.edge << " monitor left " << c.monitor.left;
    }
}

TEST(NoticePlacement, WorkAreaCornerWithTheFullScreenGapAsMargin)
{
    const struct
    {
        bool bWorkArea;
        KvScreenRect work;
        long cx, cy;
        KvScreenPoint expected;
    } cases[] = {
        // Gap 738 - 738 = 0, and 30 exactly: the margin stays 30.
        {true, {0, 0, 1024, 738}, 1024, 738, {1024 - 30 - W, 738 - 30 - H}},
        {true, {0, 0, 1024, 708}, 1024, 738, {1024 - 30 - W, 708 - 30 - H}},
        // Gap 31 and 100: the gap itself, on both axes.
        {true, {0, 0, 1024, 707}, 1024, 738, {1024 - 31 - W, 707 - 31 - H}},
        {true, {0, 0, 1000, 638}, 1024, 738, {1000 - 100 - W, 638 - 100 - H}},
        // A work area below the full-screen height (negative gap) keeps 30.
        {true, {0, 0, 1024, 768}, 1024, 738, {1024 - 30 - W, 768 - 30 - H}},
        // No work area: 30 in from the full-screen corner.
        {false, {}, 1024, 738, {1024 - W - 30, 738 - H - 30}},
    };
    for (const auto& c : cases)
    {
        const KvScreenPoint p = KvPlaceInWorkArea(c.bWorkArea ? &c.work : nullptr, c.cx, c.cy, W, H);
        EXPECT_EQ(c.expected.x, p.x) << "work bottom " << c.work.bottom << " right " << c.work.right;
        EXPECT_EQ(c.expected.y, p.y) << "work bottom " << c.work.bottom << " right " << c.work.right;
    }
}

TEST(NoticeText, LabelledLinesSkipAnEmptySecondFieldAndStopAtTheBufferSize)
{
    // Whole bodies, with and without the second field, are read back end to end (test_notice_e2e.cpp).
    // Empty first and third fields still give their labelled lines.
    const KvNoticeLines bare{L"", {L"U:", L"C:", L"A:"}, {L"", L"", L""}, L""};
    EXPECT_EQ(L"\r\nU:\r\nA:", KvComposeNoticeBody(bare, 4096));

    KvNoticeLines lines{std::wstring(5000, L'x'), {L"U:", L"C:", L"A:"}, {L"a", L"", L"b"}, L"Note"};
    EXPECT_EQ(4095u, KvComposeNoticeBody(lines, 4096).size());
}
