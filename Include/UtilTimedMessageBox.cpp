#include "UtilTimedMessageBox.h"

#include "KvLogging.h"

#include <atomic>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilTimedMessageBox));

namespace
{

// The owner a box disables while it runs, when it was enabled before; the timer enables it again.
std::atomic<HWND> g_hTimedOwner{nullptr};
std::atomic<bool> g_bTimedOut{false};
// Whether the timer posted the quit that ends the box, which is then ours to take back.
std::atomic<bool> g_bOwnQuit{false};
// The exit code of that quit: a quit the caller posts meanwhile (its window was destroyed while the
// box was up) merges with it, and must not be eaten with it.
constexpr int KV_OWN_QUIT_CODE = 0x4B56;

constexpr int KV_TEXT_UNITS = 4096;
constexpr int KV_CAPTION_UNITS = 260;

} // namespace

void CALLBACK MessageBoxTimer(HWND /*hWnd*/, UINT /*uMsg*/, UINT_PTR /*idEvent*/, DWORD /*dwTime*/)
{
    g_bTimedOut = true;
    HWND hOwner = g_hTimedOwner.load();
    if (hOwner != nullptr)
        EnableWindow(hOwner, TRUE);
    MSG msg;
    if (PeekMessageW(&msg, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE))
    {
        LOG4CXX_INFO(logger, L"MessageBoxTimer fired with a quit already pending; that one ends the box.");
        return;
    }
    LOG4CXX_INFO(logger, L"MessageBoxTimer fired. Posting WM_QUIT.");
    g_bOwnQuit = true;
    PostQuitMessage(KV_OWN_QUIT_CODE);
}

int TimedMessageBox(HWND hOwner, const wchar_t* szText, const wchar_t* szCaption, UINT uType, DWORD dwTimeout)
{
    KvLogBlock logBlock(logger, L"TimedMessageBox");
    LOG4CXX_INFO(logger, L"TimedMessageBox");
    g_hTimedOwner = nullptr;
    g_bTimedOut = false;
    g_bOwnQuit = false;
    if (hOwner != nullptr && IsWindowEnabled(hOwner))
        g_hTimedOwner = hOwner;

    const UINT_PTR uTimer = SetTimer(nullptr, 0, dwTimeout, MessageBoxTimer);
    if (uTimer == 0)
        LOG4CXX_WARN(logger, L"SetTimer failed; the box waits for the user. Error = " << GetLastError());
    int nResult = MessageBoxW(hOwner, szText, szCaption, uType);
    if (uTimer != 0)
        KillTimer(nullptr, uTimer);

    if (g_bTimedOut)
    {
        // A box ended by the quit message may report its default button (Wine does); nobody
        // pressed it, so a Yes/No question must not read as Yes.
        nResult = 0;
    }
    if (g_bOwnQuit)
    {
        LOG4CXX_INFO(logger, L"Timed out. Looking for WM_QUIT message to eat.");
        // The box's loop put the quit message back when it ended; it is ours, not the caller's.
        MSG msg;
        while (GetMessageW(&msg, nullptr, 0, 0) > 0)
        {
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
        if (msg.message == WM_QUIT && msg.wParam != KV_OWN_QUIT_CODE)
        {
            LOG4CXX_INFO(logger, L"The caller asked to quit meanwhile; its quit goes back.");
            PostQuitMessage(static_cast<int>(msg.wParam));
        }
    }
    g_hTimedOwner = nullptr;
    return nResult;
}

int TimedMessageBox(HINSTANCE hResources, HWND hOwner, UINT uTextId, const wchar_t* szCaption, UINT uType,
                    DWORD dwTimeout)
{
    wchar_t szText[KV_TEXT_UNITS] = {};
    LoadStringW(hResources, uTextId, szText, KV_TEXT_UNITS);
    return TimedMessageBox(hOwner, szText, szCaption, uType, dwTimeout);
}

int TimedMessageBox(HINSTANCE hResources, HWND hOwner, UINT uTextId, UINT uCaptionId, UINT uType,
                    DWORD dwTimeout)
{
    wchar_t szCaption[KV_CAPTION_UNITS] = {};
    LoadStringW(hResources, uCaptionId, szCaption, KV_CAPTION_UNITS);
    return TimedMessageBox(hResources, hOwner, uTextId, szCaption, uType, dwTimeout);
}
