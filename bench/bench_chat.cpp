// The chat window (KVNXChat.dll beside this program) taking a long conversation, next to a plain
// list box on the same thread:
//   1. incoming messages a second into the chat window, and the same texts into a list box with
//      LB_ADDSTRING, each followed by a run of the thread's queue as a window thread's loop runs it;
//   2. private bytes before the window, after 10 and after all messages; GDI and USER objects
//      before, after them, and once that window and then a second one are closed;
//   3. then whether the last message is in view, and rounds of typing (WM_CHAR into the input box)
//      and of scrolling (a page up, then the bottom), next to a fresh window with 10 messages.
// The owner is a hidden window of this program that says it is alive and leaves the resource
// library to the chat window's own folder. Prints one table. Every wait is bounded, and the run
// ends within --deadline seconds in any case.
//   usage: bench_chat [--messages N] [--rounds N] [--deadline S]   (10000, 50, 300)
#include "KVNXChat.h"
#include "bench_median.h"
#include "bench_summary.h"
#include "bench_wine.h"
#include "test_logging_support.h"

#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "bench_chat: %s\n", what.c_str());
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(1);
}

double MsSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// A window thread's loop between two messages from the service: everything waiting, paints too.
void Pump()
{
    MSG msg;
    for (int n = 0; n < 10000 && PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE); ++n)
    {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

// Runs the queue until nothing has come for 50 ms (longer than the shortest timer), at most 2 s;
// returns when the last message was handled.
Clock::time_point Settle()
{
    const auto t0 = Clock::now();
    auto last = t0;
    while (MsSince(t0) < 2000 &&
           MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT) != WAIT_TIMEOUT)
    {
        Pump();
        last = Clock::now();
    }
    return last;
}

// ---------------------------------------------------------------------------------------------
// The library and its owner.

struct ChatLibrary
{
    PFN_KVNX_CreateChatWindow pfnCreate;
    PFN_KVNX_AppendChatMessage pfnAppend;
    PFN_KVNX_CloseChatWindow pfnClose;
};

ChatLibrary LoadChatLibrary()
{
    const std::wstring path = kvtest::ModuleFolder() + L"KVNXChat.dll";
    HMODULE hLib = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (hLib == nullptr)
        Fail("cannot load " + kvtest::Narrow(path) + ", error " + std::to_string(GetLastError()));
    const auto find = [hLib](const char* szName)
    {
        void* p = reinterpret_cast<void*>(GetProcAddress(hLib, szName));
        if (p == nullptr)
            Fail(std::string("KVNXChat.dll has no export ") + szName);
        return p;
    };
    return {reinterpret_cast<PFN_KVNX_CreateChatWindow>(find(KVNX_CREATE_CHAT_WINDOW)),
            reinterpret_cast<PFN_KVNX_AppendChatMessage>(find(KVNX_APPEND_CHAT_MESSAGE)),
            reinterpret_cast<PFN_KVNX_CloseChatWindow>(find(KVNX_CLOSE_CHAT_WINDOW))};
}

// Alive, and no answer to the resource library's message.
LRESULT CALLBACK OwnerProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    return uMsg == WM_KV_CHAT_OWNER_ALIVE ? 1 : DefWindowProcW(hWnd, uMsg, wParam, lParam);
}

HWND CreateOwner()
{
    WNDCLASSW wc = {};
    wc.lpfnWndProc = OwnerProc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = L"bench_chat.owner";
    RegisterClassW(&wc);
    HWND hOwner = CreateWindowExW(0, wc.lpszClassName, L"bench_chat", WS_OVERLAPPED, 0, 0, 100, 100, nullptr,
                                  nullptr, wc.hInstance, nullptr);
    if (hOwner == nullptr)
        Fail("cannot create the owner window, error " + std::to_string(GetLastError()));
    return hOwner;
}

// ---------------------------------------------------------------------------------------------
// The conversation: short lines, long multi-line ones, other scripts, right-to-left text.

std::u16string MessageText(int i)
{
    const std::string digits = std::to_string(i);
    std::u16string n = u"#";
    n.append(digits.begin(), digits.end());
    switch (i % 4)
    {
    case 0:
        return u"ok " + n;
    case 1:
    {
        std::u16string text;
        for (int line = 0; line < 6; ++line)
            text += u"A longer message that runs over several lines, as a viewer explains a step " + n +
                    (line < 5 ? u"\r\n" : u"");
        return text;
    }
    case 2:
        return u"Grüße aus Köln — 東京の天気 ✓ Ωμέγα " + n;
    default:
        return u"שלום, מה שלומך? مرحبا بالعالم " + n;
    }
}

struct Conversation
{
    explicit Conversation(int nMessages)
    {
        for (int i = 0; i < nMessages; ++i)
        {
            texts.push_back(MessageText(i));
            records.push_back(
                KvBuildChatMessage(i % 2 == 0 ? u"alice" : u"bob", texts.back().data(), texts.back().size()));
            cbText += texts.back().size() * 2;
        }
    }
    const MSG_CHAT_MESSAGE* Record(int i) const
    {
        return reinterpret_cast<const MSG_CHAT_MESSAGE*>(records[static_cast<size_t>(i)].data());
    }
    std::vector<std::u16string> texts;
    std::vector<std::vector<std::uint8_t>> records;
    size_t cbText = 0;
};

// ---------------------------------------------------------------------------------------------
// What this process holds.

struct Holdings
{
    SIZE_T cbPrivate = 0;
    bool bAnonymous = false; // Wine may leave PrivateUsage 0; its page-file figure stands in then
    DWORD nGdi = 0;
    DWORD nUser = 0;
    bool bWineGdi = false; // GDI from the process's own handle table; no USER figure there
};

Holdings Measure()
{
    Holdings out;
    PROCESS_MEMORY_COUNTERS_EX pmc = {};
    pmc.cb = sizeof pmc;
    if (K32GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&pmc),
                                sizeof pmc))
    {
        out.bAnonymous = pmc.PrivateUsage == 0;
        out.cbPrivate = out.bAnonymous ? pmc.PagefileUsage : pmc.PrivateUsage;
    }
    out.nGdi = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
    out.nUser = GetGuiResources(GetCurrentProcess(), GR_USEROBJECTS);
    if (out.nGdi == 0 && out.nUser == 0 && UnderWine())
    {
        out.nGdi = WineGdiObjects(GetCurrentProcessId());
        out.bWineGdi = true;
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// The chat window's parts, found by class: the transcript (a list box, or else the first child
// that scrolls) and the input box.

struct Parts
{
    HWND hTranscript = nullptr;
    bool bListBox = false;
    HWND hInput = nullptr;
};

Parts FindParts(HWND hChat)
{
    struct Search
    {
        Parts parts;
        static BOOL CALLBACK Child(HWND hWnd, LPARAM lParam)
        {
            Parts& p = reinterpret_cast<Search*>(lParam)->parts;
            wchar_t szClass[64] = {};
            GetClassNameW(hWnd, szClass, 64);
            std::wstring cls(szClass);
            for (wchar_t& c : cls)
                c = static_cast<wchar_t>(std::towlower(c));
            if (cls == L"listbox" && !p.bListBox)
                p.hTranscript = hWnd, p.bListBox = true;
            else if (cls.find(L"edit") != std::wstring::npos && p.hInput == nullptr &&
                     (GetWindowLongW(hWnd, GWL_STYLE) & ES_READONLY) == 0)
                p.hInput = hWnd;
            else if (p.hTranscript == nullptr && (GetWindowLongW(hWnd, GWL_STYLE) & WS_VSCROLL) != 0)
                p.hTranscript = hWnd;
            return TRUE;
        }
    } search;
    EnumChildWindows(hChat, Search::Child, reinterpret_cast<LPARAM>(&search));
    return search.parts;
}

HWND OpenChat(const ChatLibrary& lib, HWND hOwner)
{
    HWND hChat = lib.pfnCreate(hOwner);
    if (hChat == nullptr)
        Fail("KVNX_CreateChatWindow returned no window");
    const auto t0 = Clock::now();
    while (!IsWindowVisible(hChat) && MsSince(t0) < 5000)
    {
        Pump();
        Sleep(10);
    }
    if (!IsWindowVisible(hChat))
        Fail("the chat window was not shown within 5 s");
    Pump();
    return hChat;
}

// Appends messages [from, to) with a run of the queue behind each; returns the time it took until
// the window had nothing more to do (a repaint it put off included).
double Append(const ChatLibrary& lib, HWND hChat, const Conversation& talk, int from, int to)
{
    const auto t0 = Clock::now();
    for (int i = from; i < to; ++i)
    {
        lib.pfnAppend(hChat, talk.Record(i));
        Pump();
    }
    return std::chrono::duration<double, std::milli>(Settle() - t0).count();
}

struct RoundTimes
{
    double medianMs = 0;
    double maxMs = 0;
};

template <typename Step> RoundTimes TimeRounds(int nRounds, Step step)
{
    std::vector<double> ms;
    for (int r = 0; r < nRounds; ++r)
    {
        const auto t0 = Clock::now();
        step();
        Pump();
        ms.push_back(MsSince(t0));
    }
    RoundTimes out;
    out.medianMs = Median(ms);
    for (double v : ms)
        out.maxMs = std::max(out.maxMs, v);
    return out;
}

// A few keys into the input box, and a page up then back to the bottom of the transcript.
struct Responsiveness
{
    RoundTimes typing;
    RoundTimes scroll;
};

Responsiveness MeasureResponsiveness(const Parts& parts, int nRounds)
{
    Responsiveness out;
    if (parts.hInput != nullptr)
        out.typing = TimeRounds(nRounds,
                                [&]
                                {
                                    for (wchar_t c : std::wstring(L"hello"))
                                        SendMessageW(parts.hInput, WM_CHAR, c, 1);
                                });
    if (parts.hTranscript != nullptr)
        out.scroll = TimeRounds(nRounds,
                                [&]
                                {
                                    SendMessageW(parts.hTranscript, WM_VSCROLL, SB_PAGEUP, 0);
                                    SendMessageW(parts.hTranscript, WM_VSCROLL, SB_BOTTOM, 0);
                                });
    return out;
}

// The last item's place in the transcript's client area.
std::string LastItemInView(const Parts& parts, bool& bInView)
{
    bInView = false;
    if (!parts.bListBox)
        return "n/a (no list box transcript)";
    const LRESULT nItems = SendMessageW(parts.hTranscript, LB_GETCOUNT, 0, 0);
    const LRESULT nTop = SendMessageW(parts.hTranscript, LB_GETTOPINDEX, 0, 0);
    RECT client = {};
    RECT item = {};
    GetClientRect(parts.hTranscript, &client);
    if (nItems <= 0 || SendMessageW(parts.hTranscript, LB_GETITEMRECT, static_cast<WPARAM>(nItems - 1),
                                    reinterpret_cast<LPARAM>(&item)) == LB_ERR)
        return "n/a (no items)";
    // An item taller than the transcript is in view when its top is.
    bInView = item.top >= 0 && item.top < client.bottom && (item.bottom <= client.bottom || item.top == 0);
    char sz[160];
    std::snprintf(sz, sizeof sz, "top item %ld of %ld, last item at %ld..%ld of %ld px",
                  static_cast<long>(nTop), static_cast<long>(nItems), item.top, item.bottom, client.bottom);
    return sz;
}

// ---------------------------------------------------------------------------------------------
// The baseline: the same texts into a plain list box of the chat window's size.

double ListBoxMs(const Conversation& talk, int nMessages, const RECT& rcChat)
{
    HWND hList = CreateWindowExW(0, L"LISTBOX", L"bench_chat baseline",
                                 WS_OVERLAPPEDWINDOW | WS_VSCROLL | LBS_NOINTEGRALHEIGHT, rcChat.left,
                                 rcChat.top, rcChat.right - rcChat.left, rcChat.bottom - rcChat.top, nullptr,
                                 nullptr, GetModuleHandleW(nullptr), nullptr);
    if (hList == nullptr)
        Fail("cannot create the list box, error " + std::to_string(GetLastError()));
    ShowWindow(hList, SW_SHOWNOACTIVATE);
    Pump();
    std::vector<std::wstring> wide;
    for (const std::u16string& text : talk.texts)
        wide.emplace_back(text.begin(), text.end());
    const auto t0 = Clock::now();
    for (int i = 0; i < nMessages; ++i)
    {
        SendMessageW(hList, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(wide[static_cast<size_t>(i)].c_str()));
        Pump();
    }
    const double ms = std::chrono::duration<double, std::milli>(Settle() - t0).count();
    DestroyWindow(hList);
    Pump();
    return ms;
}

// ---------------------------------------------------------------------------------------------
// The table.

void Row(const char* what, const std::string& figure, const std::string& ratio = std::string())
{
    std::printf("%-44s %-34s %s\n", what, figure.c_str(), ratio.c_str());
}

std::string Fmt(const char* format, double a, double b = 0.0, double c = 0.0, double d = 0.0)
{
    char sz[160];
    std::snprintf(sz, sizeof sz, format, a, b, c, d);
    return sz;
}

std::string Rounds(const RoundTimes& times, const char* what)
{
    if (times.maxMs == 0)
        return "n/a (no " + std::string(what) + ")";
    return Fmt("%.3f ms, max %.2f ms", times.medianMs, times.maxMs);
}

std::string RoundsRatio(const RoundTimes& many, const RoundTimes& few)
{
    if (few.medianMs <= 0)
        return std::string();
    return Fmt("%.2fx a window with 10 (%.3f ms, max %.2f ms)", many.medianMs / few.medianMs, few.medianMs,
               few.maxMs);
}

struct Options
{
    int nMessages = 10000;
    int nRounds = 50;
    int nDeadlineSeconds = 300;
};

Options ParseOptions(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        int* pValue = arg == "--messages"   ? &o.nMessages
                      : arg == "--rounds"   ? &o.nRounds
                      : arg == "--deadline" ? &o.nDeadlineSeconds
                                            : nullptr;
        if (pValue == nullptr || i + 1 == argc || (*pValue = std::atoi(argv[++i])) < 1)
            Fail("usage: bench_chat [--messages N] [--rounds N] [--deadline S]");
    }
    o.nMessages = std::max(o.nMessages, 11);
    return o;
}

} // namespace

int main(int argc, char** argv)
{
    const Options opt = ParseOptions(argc, argv);
    std::thread(
        [seconds = opt.nDeadlineSeconds]
        {
            Sleep(static_cast<DWORD>(seconds) * 1000);
            Fail("not done within the deadline of " + std::to_string(seconds) + " s");
        })
        .detach();

    const ChatLibrary lib = LoadChatLibrary();
    const HWND hOwner = CreateOwner();
    const Conversation talk(opt.nMessages);
    Pump();

    // A long conversation.
    const Holdings before = Measure();
    HWND hChat = OpenChat(lib, hOwner);
    double msChat = Append(lib, hChat, talk, 0, 10);
    const Holdings after10 = Measure();
    msChat += Append(lib, hChat, talk, 10, opt.nMessages);
    const Holdings afterAll = Measure();
    const Parts parts = FindParts(hChat);
    bool bInView = false;
    const std::string inView = LastItemInView(parts, bInView);
    const Responsiveness many = MeasureResponsiveness(parts, opt.nRounds);
    RECT rcChat = {};
    GetWindowRect(hChat, &rcChat);
    lib.pfnClose(hChat);
    Settle();
    const Holdings closedOnce = Measure();

    // A fresh window with a few messages.
    hChat = OpenChat(lib, hOwner);
    Append(lib, hChat, talk, 0, 10);
    const Responsiveness few = MeasureResponsiveness(FindParts(hChat), opt.nRounds);
    lib.pfnClose(hChat);
    Settle();
    const Holdings closedTwice = Measure();

    const double msList = ListBoxMs(talk, opt.nMessages, rcChat);

    // ------------------------------------------------------------------------------------------
    const double nMore = opt.nMessages - 10;
    std::printf("\nchat window, %d messages (%.0f text bytes on average), %d rounds (medians)\n",
                opt.nMessages, double(talk.cbText) / opt.nMessages, opt.nRounds);
    Row("what", "figure", "ratio");
    Row("messages into the chat window", Fmt("%.0f messages/s", opt.nMessages / msChat * 1000),
        Fmt("%.2f of a plain list box (%.0f/s)", msList / msChat, opt.nMessages / msList * 1000));
    SummaryRow("chat: messages into the window", opt.nMessages / msChat * 1000, "plain list box",
               opt.nMessages / msList * 1000, "/s");
    SummaryRow("chat: typing round after all messages", many.typing.medianMs, "window with 10 messages",
               few.typing.medianMs, "ms");
    SummaryRow("chat: scroll round after all messages", many.scroll.medianMs, "window with 10 messages",
               few.scroll.medianMs, "ms");
    Row(afterAll.bAnonymous ? "anonymous resident KB, before / 10 / all" : "private KB, before / 10 / all",
        Fmt("%.0f / %.0f / %.0f", before.cbPrivate / 1024.0, after10.cbPrivate / 1024.0,
            afterAll.cbPrivate / 1024.0),
        Fmt("%+.0f bytes a message after the 10th",
            (double(afterAll.cbPrivate) - double(after10.cbPrivate)) / nMore));
    // What the first window leaves behind may be the system's one-time set-up; a second window
    // that leaves more is a leak.
    Row(afterAll.bWineGdi ? "GDI (handle table), before/all/closed/2nd"
                          : "GDI objects, before/all/closed/2nd",
        Fmt("%.0f / %.0f / %.0f / %.0f", before.nGdi, afterAll.nGdi, closedOnce.nGdi, closedTwice.nGdi),
        Fmt("%+.0f a further window", double(closedTwice.nGdi) - double(closedOnce.nGdi)));
    if (!afterAll.bWineGdi)
        Row("USER objects, before/all/closed/2nd",
            Fmt("%.0f / %.0f / %.0f / %.0f", before.nUser, afterAll.nUser, closedOnce.nUser,
                closedTwice.nUser),
            Fmt("%+.0f a further window", double(closedTwice.nUser) - double(closedOnce.nUser)));
    Row("last message in view after all", bInView ? "yes" : "no", inView);
    Row("typing round (5 WM_CHAR, then the queue)", Rounds(many.typing, "input box"),
        RoundsRatio(many.typing, few.typing));
    Row("scroll round (page up, bottom, the queue)", Rounds(many.scroll, "transcript"),
        RoundsRatio(many.scroll, few.scroll));
    return 0;
}
