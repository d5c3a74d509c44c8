// Outgoing connections through the built agent and the simulator: what the dialogs send, one dialog
// and one request at a time, and the connecting dialog following the service's results.
#include "registry_values.h"
#include "resident_agent.h"

#include "resource.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

using namespace kvtest;

namespace
{

HWND AgentDialog(const Resident& r, const wchar_t* szTitle, DWORD ms = 0)
{
    return WaitForDesktopWindow(r.desktop.Name(), L"#32770", szTitle, ms, true);
}

// Posts the tray command until its dialog shows: the agent takes it only while no request is out.
HWND OpenByCommand(Resident& r, UINT uCommand, const std::function<HWND()>& find)
{
    HWND hFound = nullptr;
    WaitUntil(
        [&]
        {
            PostMessageW(r.TrayWindow(), WM_COMMAND, uCommand, 0);
            return WaitUntil([&] { return (hFound = find()) != nullptr; }, 500);
        });
    return hFound;
}

} // namespace

TEST(ReverseConnection, JoinCodeGoesOutTrimmedOnceAndTheConnectingDialogFollowsTheService)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    const auto JoinDialog = [&] { return AgentDialog(r, L"Join an internet session"); };
    const HWND hJoin = OpenByCommand(r, IDM_JOIN_INTERNET_SESSION, JoinDialog);
    ASSERT_NE(nullptr, hJoin) << r.Story();

    // Blanks only: the note, and the dialog stays.
    ASSERT_TRUE(kvui::TypeText(hJoin, IDC_JOIN_CODE, L" \t "));
    ASSERT_TRUE(kvui::ClickButton(hJoin, IDOK));
    EXPECT_TRUE(kvui::CloseWindow(AgentDialog(r, L"Kestrova Vexa Remote Control", kE2eWait))) << r.Story();
    EXPECT_TRUE(IsWindow(hJoin));

    // A second command finds the open dialog.
    PostMessageW(r.TrayWindow(), WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    EXPECT_TRUE(
        r.WaitForLog("INFO", "KVNXSTWindow", "Join Internet Session dialog exists, bringing to top."));
    ASSERT_TRUE(kvui::TypeText(hJoin, IDC_JOIN_CODE, L"  482-913-077\t "));
    ASSERT_TRUE(kvui::ClickButton(hJoin, IDOK));
    r.sim.Play({"expect-reverse status=0 join=1 code=482-913-077 host=\"\" use-proxy=0"});
    EXPECT_TRUE(kvui::WaitUntilGone(hJoin, kE2eWait));

    // While the request is out the command does nothing.
    PostMessageW(r.TrayWindow(), WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    EXPECT_EQ(nullptr, AgentDialog(r, L"Join an internet session", 1500));

    // The marquee runs until the user cancels, which withdraws the request; the answer ends it.
    r.sim.Play({"reverse 101"});
    const HWND hWait = AgentDialog(r, L"Connecting", kE2eWait);
    ASSERT_TRUE(kvui::ClickButton(hWait, IDCANCEL)) << r.Story();
    r.sim.Play({"expect-reverse status=103", "reverse 102"});
    EXPECT_TRUE(WaitUntil([&] { return !IsWindow(hWait); })) << r.Story();

    // The result frees the command; a request withdrawn meanwhile closes the open dialog.
    r.sim.Play({"reverse 100 suppress=1"});
    const HWND hAgain = OpenByCommand(r, IDM_JOIN_INTERNET_SESSION, JoinDialog);
    r.sim.Play({"reverse 102"});
    EXPECT_TRUE(kvui::WaitUntilGone(hAgain, kE2eWait)) << r.Story();
    EXPECT_TRUE(r.ExitsOnRequest());
}

// What the lists keep is proven in test_connect_to_client.cpp; here, what goes to the service.
TEST(ReverseConnection, ConnectToAWaitingViewerSendsExactlyWhatWasTyped)
{
    // The user's own lists wait aside: what this test stores would fill the next user's dialog.
    static constexpr wchar_t kKey[] =
        L"Software\\Kestrova Development\\Vexa Remote Control\\Reverse Connection";
    const std::shared_ptr<void> restore(nullptr, [kept = ReadRegistryValues(kKey)](void*)
                                        { WriteRegistryValues(kKey, kept); });
    Resident r;
    ASSERT_TRUE(r.Launch());
    const auto ConnectDialog = [&]
    {
        const std::vector<HWND> found = AgentDialogsWith(r, IDC_REVERSE_HOST);
        return found.empty() || !kvui::IsShown(found.front()) ? nullptr : found.front();
    };
    HWND hDlg = OpenByCommand(r, IDM_CONNECT_TO_CLIENT, ConnectDialog);
    ASSERT_NE(nullptr, hDlg) << r.Story();
    // Asked again while it is open, the command brings it to the front instead of a second one.
    PostMessageW(r.TrayWindow(), WM_COMMAND, IDM_CONNECT_TO_CLIENT, 0);
    EXPECT_TRUE(r.WaitForLog("INFO", "KVNXSTWindow", "Connect to client dialog exists, bringing to top."));
    EXPECT_EQ(1u, AgentDialogsWith(r, IDC_REVERSE_HOST).size());
    // 1001: the edit inside a combo box.
    ASSERT_TRUE(kvui::TypeText(GetDlgItem(hDlg, IDC_REVERSE_HOST), 1001, L"\\\\viewer-7.example"));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_REVERSE_PORT, L"5500"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDOK));
    ASSERT_TRUE(kvui::WaitUntilGone(hDlg, kE2eWait));
    r.sim.Play({"expect-reverse status=0 option=1 join=0 host=viewer-7.example port=5500 use-proxy=0 "
                "proxy-host=\"\" proxy-port=0 secret=\"\"",
                "reverse 100 suppress=1"});

    // Through a proxy with a shared secret.
    hDlg = OpenByCommand(r, IDM_CONNECT_TO_CLIENT, ConnectDialog);
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_USE_PROXY)) << r.Story();
    ASSERT_TRUE(WaitUntil([&] { return kvui::ReadControl(hDlg, IDC_REVERSE_PROXY_PORT)->enabled; }));
    ASSERT_TRUE(kvui::TypeText(GetDlgItem(hDlg, IDC_REVERSE_PROXY_HOST), 1001, L"proxy.example"));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_REVERSE_PROXY_PORT, L"8080"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_USE_PROXY_SECRET));
    ASSERT_TRUE(WaitUntil([&] { return kvui::ReadControl(hDlg, IDC_PROXY_SECRET)->enabled; }));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_PROXY_SECRET, L"s3cr3t-\u00e9"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDOK));
    r.sim.Play({"expect-reverse host=viewer-7.example port=5500 use-proxy=1 proxy-host=proxy.example "
                "proxy-port=8080 secret=s3cr3t-\xC3\xA9"});
    EXPECT_TRUE(r.ExitsOnRequest());
}
