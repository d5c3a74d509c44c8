// The resident agent as the built exe on a desktop of its own, driven by the service simulator over
// loopback: its answers on the wire (checked strictly by the simulator), its tray icon as the shell
// holds it, what its timers and private messages do, how it ends, and bad records from the service.
#include "resident_agent.h"

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

constexpr UINT WM_TRAY_CALLBACK = WM_USER + 1;

size_t Calls(const DesktopShell::View& view, DWORD dwMessage, BOOL bAnswer)
{
    size_t n = 0;
    for (const FakeShell::Call& call : view.calls)
        n += call.dwMessage == dwMessage && call.bAnswer == bAnswer;
    return n;
}

} // namespace

TEST(ResidentAgent, HandshakeAnswersUnknownIdsAndTheServicesExitRequestOnTheWire)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    // The simulator has checked both echoes byte for byte, the session and the order; the echo
    // carries the desktop state of a normal desktop, which Wine's failing session query must not
    // turn into "nobody at the console" (7).
    EXPECT_TRUE(r.sim.WaitTrace("<< MSG_TYPE_TRAYICON_INIT (16212 bytes) session=" +
                                    std::to_string(OwnSession()) + " desktop-state=8",
                                0));
    r.sim.Play({
        // The desktop watcher reports the state once the versions are exchanged.
        "expect desktop-state",
        "effects 1",
        "expect 50005",
        "desktop-info",
        "expect 50000",
        "settings caption=Help",
        "expect 50000",
        // Records that ask for nothing, each read at its own size, and unknown ids skipped: the
        // stream still frames after them.
        "lock-hint",
        "sft-drop 7",
        "sft-delete 1",
        "addresses 10.0.0.1",
        "chat-close",
        "raw 12345",
        "raw 4294967295",
        "unblock",
        "expect 100000",
        "exit",
        "expect-closed",
    });
    ASSERT_TRUE(r.sim.Settle(4 * kE2eWait)) << r.Story();
    EXPECT_TRUE(EndedWith(r.agent, KV_EXIT_ALREADY_RUNNING)) << r.Story();
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();

    const std::vector<std::string> log = r.LogLines();
    for (const char* szName : {"MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE",
                               "MSG_TYPE_TRAYICON_SFT_DROP_CLIENT", "MSG_TYPE_TRAYICON_SFT_DELETE_TEMP",
                               "MSG_TYPE_TRAYICON_IP_ADDRESSES", "MSG_TYPE_TRAYICON_CHAT_CLOSE"})
        EXPECT_EQ(1u, CountMessage(log, "INFO", "ConnectionInfo", szName)) << szName;
    for (const char* szId : {"12345", "4294967295"})
        EXPECT_EQ(1u, CountMessage(log, "WARN", "ConnectionInfo",
                                   std::string("Unknown message type ") + szId + " skipped."));
    const DesktopShell::View shell = r.shell.Read();
    EXPECT_FALSE(shell.bHeld) << "the icon outlived the agent";
    EXPECT_EQ(1u, Calls(shell, NIM_DELETE, TRUE));
}

// Which picture each policy shows, and the shell's restarts and refusals, are proved in process
// (test_tray_window.cpp); here each record that moves the icon reaches it.
TEST(ResidentAgent, TrayIconFollowsViewersAndSettings)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();
    ASSERT_NE(nullptr, hTray);

    // Added once, idle, with the service's caption as its tooltip and the tray callback.
    DesktopShell::View view = r.shell.WaitFor([](const auto& v) { return v.bHeld; }, kE2eWait);
    ASSERT_TRUE(view.bHeld) << r.Story();
    EXPECT_EQ("idle", view.picture);
    EXPECT_EQ(L"Vexa Remote Control Service (simulated)", view.tip);
    EXPECT_EQ(WM_TRAY_CALLBACK, view.uCallbackMessage);
    const FakeShell::Call& add = view.calls.front();
    EXPECT_EQ(static_cast<DWORD>(NIM_ADD), add.dwMessage);
    EXPECT_EQ(hTray, add.hWnd);
    EXPECT_EQ(kTrayIconId, add.uID);
    EXPECT_EQ(1u, Calls(view, NIM_ADD, TRUE));

    // Each step and the picture (or absence) the shell then holds.
    const struct
    {
        const char* szLine;
        const char* szPicture; // nullptr: no icon
    } steps[] = {
        {"connect alice", "connected"},
        {"disconnect alice", "idle"},
        {"connect-count 2", "connected"},
        {"connect-count 0", "idle"},
        {"settings-update idle-icon=2", "pending"},
        {"settings-update tray-icon=0", nullptr},
        {"settings-update idle-icon=1 tray-icon=1", "idle"},
    };
    for (const auto& step : steps)
    {
        r.sim.Play({step.szLine});
        view = r.shell.WaitFor(
            [&](const auto& v)
            { return step.szPicture == nullptr ? !v.bHeld : v.bHeld && v.picture == step.szPicture; },
            kE2eWait);
        EXPECT_EQ(step.szPicture != nullptr, view.bHeld) << step.szLine;
        if (step.szPicture != nullptr)
        {
            EXPECT_EQ(step.szPicture, view.picture) << step.szLine;
        }
    }

    r.sim.Play({"settings caption=\"Support desk\"", "expect 50000"});
    view = r.shell.WaitFor([](const auto& v) { return v.tip == L"Support desk"; }, kE2eWait);
    EXPECT_EQ(L"Support desk", view.tip);

    // The reconfiguring service shows its text as a balloon.
    r.sim.Play({"reconfigure 1 Restarting the service"});
    view = r.shell.WaitFor([](const auto& v)
                           { return !v.calls.empty() && v.calls.back().info == L"Restarting the service"; },
                           kE2eWait);
    ASSERT_FALSE(view.calls.empty());
    EXPECT_EQ(L"Restarting the service", view.calls.back().info) << r.Story();
    EXPECT_NE(0u, view.calls.back().uFlags & NIF_INFO);

    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();
}

TEST(ResidentAgent, TimersAndPostedMessagesTakeEffect)
{
    Resident r;
    ASSERT_TRUE(r.Ready());
    const std::wstring eventName = L"kvtest-sft-" + std::to_wstring(GetCurrentProcessId());
    HANDLE hSftEvent = CreateEventW(nullptr, TRUE, FALSE, eventName.c_str());
    ASSERT_NE(nullptr, hSftEvent);
    ASSERT_TRUE(r.Start());
    ASSERT_TRUE(r.sim.Handshaken(kE2eWait)) << r.Story();

    // Each record and the line in the agent's log that shows its timer or message was handled.
    const struct
    {
        std::string line;
        const char* szLogger;
        const char* szMessage;
    } steps[] = {
        // Timer 1002, two seconds after a viewer came, posts the notice.
        {"connect alice", "KVNXSTWindow", "Opening the notification dialog, kind 1"},
        {"notify-all", "KVNXSTWindow", "Opening the notification dialog, kind 3"},
        // Timer 1010 posts the settings command, which starts the settings editor.
        {"settings-dialog", "UtilSettings", "Running self with -SettingsAsApplication"},
        {"reverse 101", "KVNXSTWindow", "Displaying Join Internet Session Wait Dialog."},
        {"reverse 102", "KVNXSTWindow", "Destroying Join Internet Session Wait Dialog."},
        {"chat-open bob", "KVNXSTWindow", "WM_CHAT_OPEN"},
        {"chat bob hello", "KVNXSTWindow", "WM_CHAT_MESSAGE"},
        {"chat-close", "KVNXSTWindow", "WM_CHAT_CLOSE"},
    };
    for (const auto& step : steps)
    {
        r.sim.Play({step.line});
        EXPECT_TRUE(r.WaitForLog("INFO", step.szLogger, step.szMessage)) << step.line << "\n" << r.Story();
    }

    // The named event of a file transfer is set once the temporary files are made.
    r.sim.Play({"sft-init " + Narrow(eventName) + " C:\\kvtest-sft.ini C:\\kvtest-sft.dat"});
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hSftEvent, kE2eWait)) << r.Story();
    CloseHandle(hSftEvent);

    // A failed reverse connection is reported in a message box of its own on the agent's desktop.
    r.sim.Play({"reverse 100 error=5 host=viewer.example port=5900"});
    const HWND hBox =
        WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"Kestrova Vexa Remote Control", kE2eWait);
    ASSERT_NE(nullptr, hBox) << r.Story();
    std::wstring text;
    for (const kvui::Control& control : kvui::ListControls(hBox))
        text += control.text;
    EXPECT_NE(std::wstring::npos, text.find(L"Host: viewer.example\r\nPort: 5900")) << Narrow(text);
    PostMessageW(hBox, WM_COMMAND, IDOK, 0);
    EXPECT_TRUE(kvui::WaitUntilGone(hBox, kE2eWait)) << "the report did not close on OK";

    EXPECT_TRUE(r.ExitsOnRequest());
}

TEST(ResidentAgent, ServiceDroppingTheLinkMidRecordEndsTheAgentAndItsIcon)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"connect alice"});
    ASSERT_TRUE(r.shell.WaitForPicture("connected", kE2eWait)) << r.Story();

    // 100 of the settings record's 4,752 bytes, then the service is gone.
    r.sim.Play({"raw 40003 100", "hang-up"});
    EXPECT_TRUE(EndedWith(r.agent, 0)) << r.Story();
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();
    EXPECT_EQ(1u, CountMessage(r.LogLines(), "INFO", "ConnectionInfo",
                               "The connection to the service ended; closing the tray window."));
    EXPECT_FALSE(r.shell.Read().bHeld) << "the icon outlived the agent";
    EXPECT_EQ(nullptr, r.TrayWindow(0));
}

TEST(ResidentAgent, RecordsFullOfFFsAndTextsWithoutTerminatorAreCutNotOverrun)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({
        "raw 40003 4752 fill=0xFF",
        "expect 50000",
        "raw 40008 1592 fill=0xFF",
        "raw 50001 8204 fill=0x41",
        "raw 40007 4752 fill=0xFF",
        // Still framing and answering after all of that.
        "unblock",
        "expect 100000",
    });
    ASSERT_TRUE(r.sim.Settle(4 * kE2eWait)) << r.Story();
    // The tooltip: the caption cut to the shell's field, marked as cut; U+FFFF is no character and
    // shows as the replacement character.
    const DesktopShell::View view =
        r.shell.WaitFor([](const auto& v) { return v.tip.size() > 100; }, kE2eWait);
    EXPECT_EQ(126u, view.tip.size()) << r.Story();
    EXPECT_EQ(L"\xFFFD...", view.tip.substr(view.tip.size() - 4));
    EXPECT_TRUE(view.bHeld);

    // A chat body of 4 GiB cannot be read nor skipped: the agent lets the link go and ends.
    r.sim.Play({"chat bob hi length=0xFFFFFFFF", "expect-closed"});
    EXPECT_TRUE(EndedWith(r.agent, 0)) << r.Story();
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();

    const std::vector<std::string> log = r.LogLines();
    for (const char* szField : {"MSG_TRAYICON_SETTINGS.szCaption has no terminator; cut to 259 units.",
                                "MSG_TRAYICON_SETTINGS.szLanguage has no terminator; cut to 2 units.",
                                "MSG_TRAYICON_CONNECT_INFO.szUsername has no terminator; cut to 259 units.",
                                "MSG_TRAYICON_NOTIFY_ALL.szText has no terminator; cut to 4097 units."})
        EXPECT_LE(1u, CountMessage(log, "WARN", "ConnectionInfo", szField)) << szField;
    EXPECT_EQ(1u, CountMessage(log, "ERROR", "ConnectionInfo",
                               "Chat message body of 4294967295 bytes cannot be a chat message; the link to "
                               "the service ends."));
    EXPECT_FALSE(r.shell.Read().bHeld);
}
