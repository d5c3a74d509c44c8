// The self-closing message box on the test's thread. A box the user answers is driven end to end
// (the viewer list's disconnect question, test_notice_e2e.cpp).
#include "test_log_capture.h"

#include "UtilTimedMessageBox.h"

#include <gtest/gtest.h>

using namespace kvtest;

TEST(TimedMessageBox, TimedOutBoxReturnsZeroAndTheCallersLoopGoesOn)
{
    LogCapture log;
    ASSERT_TRUE(log.Configured());
    HWND hOwner =
        CreateWindowExW(0, L"STATIC", L"owner", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, hOwner);

    // A question whose default is Yes: a time-out is no answer.
    EXPECT_EQ(0, TimedMessageBox(hOwner, L"Closes by itself", L"Timed", MB_YESNO | MB_TOPMOST, 300));
    MSG msg = {};
    EXPECT_FALSE(PeekMessageW(&msg, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE)) << "the box's quit was eaten";
    EXPECT_TRUE(IsWindowEnabled(hOwner));
    // The caller's own loop still gets its messages.
    PostThreadMessageW(GetCurrentThreadId(), WM_APP, 7, 0);
    while (GetMessageW(&msg, nullptr, 0, 0) > 0 && msg.message != WM_APP)
        DispatchMessageW(&msg);
    EXPECT_EQ(static_cast<UINT>(WM_APP), msg.message);
    DestroyWindow(hOwner);

    EXPECT_EQ(1u, log.Count("INFO", "UtilTimedMessageBox", "MessageBoxTimer fired. Posting WM_QUIT."));
    EXPECT_EQ(1u, log.Count("INFO", "UtilTimedMessageBox", "Timed out. Looking for WM_QUIT message to eat."));
}
