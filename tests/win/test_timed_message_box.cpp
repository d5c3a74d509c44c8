// The self-closing message box on the test's thread; a helper thread answers it where the user
// would.
#include "test_log_capture.h"

#include "KVNXST.h"
#include "UtilTimedMessageBox.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

using namespace kvtest;

namespace
{

// Answers the first message box that thread dwThread shows with button idButton, and keeps its
// caption.
class BoxAnswerer
{
public:
    BoxAnswerer(DWORD dwThread, int idButton)
        : m_thread(
              [this, dwThread, idButton]
              {
                  for (int i = 0; i < 2000 && !m_bStop; ++i)
                  {
                      HWND hBox = nullptr;
                      EnumThreadWindows(dwThread, FindBox, reinterpret_cast<LPARAM>(&hBox));
                      if (hBox != nullptr && IsWindowVisible(hBox))
                      {
                          wchar_t sz[260] = {};
                          GetWindowTextW(hBox, sz, 260);
                          m_caption = sz;
                          SendMessageW(hBox, WM_COMMAND, MAKEWPARAM(idButton, BN_CLICKED), 0);
                          return;
                      }
                      Sleep(10);
                  }
              })
    {
    }
    ~BoxAnswerer()
    {
        m_bStop = true;
        m_thread.join();
    }
    // Valid once the box has returned.
    const std::wstring& Caption() const { return m_caption; }

private:
    static BOOL CALLBACK FindBox(HWND hWnd, LPARAM lParam)
    {
        wchar_t szClass[16] = {};
        GetClassNameW(hWnd, szClass, 16);
        if (std::wstring(szClass) != L"#32770")
            return TRUE;
        *reinterpret_cast<HWND*>(lParam) = hWnd;
        return FALSE;
    }

    std::atomic<bool> m_bStop{false};
    std::wstring m_caption;
    std::thread m_thread;
};

bool QuitWaiting()
{
    MSG msg;
    return PeekMessageW(&msg, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE) != FALSE;
}

} // namespace

TEST(TimedMessageBox, TimedOutBoxReturnsZeroAndTheCallersLoopGoesOn)
{
    LogCapture log;
    ASSERT_TRUE(log.Configured());
    HWND hOwner =
        CreateWindowExW(0, L"STATIC", L"owner", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, hOwner);

    // A question whose default is Yes: a time-out is no answer.
    EXPECT_EQ(0, TimedMessageBox(hOwner, L"Closes by itself", L"Timed", MB_YESNO | MB_TOPMOST, 300));
    EXPECT_FALSE(QuitWaiting());
    EXPECT_TRUE(IsWindowEnabled(hOwner));
    // The caller's own loop still gets its messages.
    PostThreadMessageW(GetCurrentThreadId(), WM_APP, 7, 0);
    MSG msg = {};
    while (GetMessageW(&msg, nullptr, 0, 0) > 0 && msg.message != WM_APP)
        DispatchMessageW(&msg);
    EXPECT_EQ(static_cast<UINT>(WM_APP), msg.message);
    DestroyWindow(hOwner);

    EXPECT_EQ(1u, log.Count("INFO", "UtilTimedMessageBox", "TimedMessageBox"));
    EXPECT_EQ(1u, log.Count("INFO", "UtilTimedMessageBox", "MessageBoxTimer fired. Posting WM_QUIT."));
    EXPECT_EQ(1u, log.Count("INFO", "UtilTimedMessageBox", "Timed out. Looking for WM_QUIT message to eat."));
}

TEST(TimedMessageBox, AnsweredBoxReturnsTheButtonAndLeavesNoQuit)
{
    LogCapture log;
    ASSERT_TRUE(log.Configured());
    HMODULE hResources = LoadResourceLibraryFrom(ModuleFolder().c_str(), nullptr);
    ASSERT_NE(nullptr, hResources);
    wchar_t szCaption[260] = {};
    ASSERT_NE(0, LoadStringW(hResources, IDS_APP_CAPTION, szCaption, 260));

    for (int idButton : {IDYES, IDNO})
    {
        BoxAnswerer answerer(GetCurrentThreadId(), idButton);
        EXPECT_EQ(idButton, TimedMessageBox(hResources, nullptr, IDS_CONFIRM_SIMULTANEOUS, IDS_APP_CAPTION,
                                            MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2, 20000));
        EXPECT_EQ(std::wstring(szCaption), answerer.Caption());
        EXPECT_FALSE(QuitWaiting());
    }
    EXPECT_EQ(2u, log.Count("INFO", "UtilTimedMessageBox", "TimedMessageBox"));
    EXPECT_EQ(0u, log.Count("INFO", "UtilTimedMessageBox", "MessageBoxTimer fired. Posting WM_QUIT."));
    FreeLibrary(hResources);
}
