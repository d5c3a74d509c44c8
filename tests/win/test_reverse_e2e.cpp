// Outgoing connections through the built agent and the simulator: the join dialog's code arrives
// trimmed in one 70070 request, a blank code keeps the dialog, a second command brings it to the
// front, no second request goes out while one is under way, the connecting dialog follows the
// service's results and its Cancel withdraws the request (sub-code 103), and a withdrawn request
// closes an open join dialog.
#include "resident_agent.h"

#include "resource.h"

#include <commctrl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace kvtest;

namespace
{

HWND WaitForAgentDialog(const Resident& r, const wchar_t* szTitle, DWORD ms = kE2eWait)
{
    return WaitForDesktopWindow(r.desktop.Name(), L"#32770", szTitle, ms, true);
}

} // namespace

TEST(ReverseConnection, JoinCodeGoesOutTrimmedOnceAndTheConnectingDialogFollowsTheService)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();
    PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    const HWND hJoin = WaitForAgentDialog(r, L"Join an internet session");
    ASSERT_NE(nullptr, hJoin) << r.Story();

    // Blanks only: the note, the focus back on the code, the dialog stays.
    ASSERT_TRUE(kvui::TypeText(hJoin, IDC_JOIN_CODE, L" \t "));
    ASSERT_TRUE(kvui::ClickButton(hJoin, IDOK));
    const HWND hNote = WaitForAgentDialog(r, L"Kestrova Vexa Remote Control");
    ASSERT_NE(nullptr, hNote) << r.Story();
    EXPECT_TRUE(kvui::CloseWindow(hNote));
    EXPECT_TRUE(kvui::WaitUntilGone(hNote, kE2eWait));
    EXPECT_TRUE(IsWindow(hJoin));

    // A second command finds the open dialog.
    PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    EXPECT_TRUE(
        r.WaitForLog("INFO", "KVNXSTWindow", "Join Internet Session dialog exists, bringing to top."));

    ASSERT_TRUE(kvui::TypeText(hJoin, IDC_JOIN_CODE, L"  482-913-077\t "));
    ASSERT_TRUE(kvui::ClickButton(hJoin, IDOK));
    r.sim.Play({"expect-reverse status=0 join=1 code=482-913-077 host=\"\" use-proxy=0"});
    EXPECT_TRUE(kvui::WaitUntilGone(hJoin, kE2eWait));

    // While the request is out the command does nothing.
    PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    EXPECT_EQ(nullptr, WaitForAgentDialog(r, L"Join an internet session", 1500));

    // The service connects: the marquee runs until the user cancels, which withdraws the request;
    // the service's answer takes the dialog away.
    r.sim.Play({"reverse 101"});
    const HWND hWait = WaitForAgentDialog(r, L"Connecting");
    ASSERT_NE(nullptr, hWait) << r.Story();
    EXPECT_NE(0, GetWindowLongW(GetDlgItem(hWait, IDC_CONNECT_PROGRESS), GWL_STYLE) & PBS_MARQUEE);
    ASSERT_TRUE(kvui::ClickButton(hWait, IDCANCEL));
    r.sim.Play({"expect-reverse status=103", "reverse 102"});
    EXPECT_TRUE(WaitUntil([&] { return !IsWindow(hWait); })) << r.Story();

    // The result frees the command again; a request withdrawn meanwhile closes the open dialog.
    r.sim.Play({"reverse 100 suppress=1"});
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
            return WaitForAgentDialog(r, L"Join an internet session", 500) != nullptr;
        }));
    const HWND hAgain = WaitForAgentDialog(r, L"Join an internet session");
    r.sim.Play({"reverse 102"});
    EXPECT_TRUE(kvui::WaitUntilGone(hAgain, kE2eWait)) << r.Story();
    EXPECT_TRUE(r.ExitsOnRequest());
}

namespace
{

constexpr wchar_t kListKey[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Reverse Connection";

// The command is taken only once the last request's result has arrived: asked again until it opens.
HWND OpenConnectDialog(Resident& r, HWND hTray)
{
    HWND hFound = nullptr;
    WaitUntil(
        [&]
        {
            PostMessageW(hTray, WM_COMMAND, IDM_CONNECT_TO_CLIENT, 0);
            return WaitUntil(
                [&]
                {
                    const std::vector<HWND> found = AgentDialogsWith(r, IDC_REVERSE_HOST);
                    hFound = found.empty() ? nullptr : found.front();
                    return hFound != nullptr && kvui::IsShown(hFound);
                },
                500);
        });
    return hFound;
}

// The edit inside a combo box (its id is 1001).
bool TypeIntoCombo(HWND hDlg, int nCombo, const std::wstring& text)
{
    return kvui::TypeText(GetDlgItem(hDlg, nCombo), 1001, text);
}

// Every string value of the list key, "name=value".
std::vector<std::wstring> StringValues()
{
    std::vector<std::wstring> values;
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kListKey, 0, KEY_READ, &hKey) != ERROR_SUCCESS)
        return values;
    for (DWORD i = 0;; ++i)
    {
        wchar_t szName[256] = {};
        DWORD cchName = 256, dwType = 0;
        BYTE data[4096] = {};
        DWORD cbData = sizeof data - 2;
        if (RegEnumValueW(hKey, i, szName, &cchName, nullptr, &dwType, data, &cbData) != ERROR_SUCCESS)
            break;
        if (dwType == REG_SZ)
            values.push_back(std::wstring(szName) + L"=" + reinterpret_cast<const wchar_t*>(data));
    }
    RegCloseKey(hKey);
    return values;
}

} // namespace

TEST(ReverseConnection, ConnectToAWaitingViewerSendsWhatWasTypedAndStoresNoSecret)
{
    RegDeleteTreeW(HKEY_CURRENT_USER, kListKey);
    Resident r;
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();

    // Cancel sends nothing and stores nothing.
    HWND hDlg = OpenConnectDialog(r, hTray);
    ASSERT_NE(nullptr, hDlg) << r.Story();
    ASSERT_TRUE(TypeIntoCombo(hDlg, IDC_REVERSE_HOST, L"never.example"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDCANCEL));
    ASSERT_TRUE(kvui::WaitUntilGone(hDlg, kE2eWait));
    EXPECT_TRUE(StringValues().empty());

    hDlg = OpenConnectDialog(r, hTray);
    ASSERT_TRUE(TypeIntoCombo(hDlg, IDC_REVERSE_HOST, L"\\\\viewer-7.example"));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_REVERSE_PORT, L"5500"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDOK));
    ASSERT_TRUE(kvui::WaitUntilGone(hDlg, kE2eWait));
    r.sim.Play({"expect-reverse status=0 option=1 join=0 host=viewer-7.example port=5500 use-proxy=0 "
                "proxy-host=\"\" proxy-port=0 secret=\"\"",
                "reverse 100 suppress=1"});

    // Through a proxy with a shared secret, which goes to the service and nowhere else.
    hDlg = OpenConnectDialog(r, hTray);
    ASSERT_NE(nullptr, hDlg) << r.Story();
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_USE_PROXY));
    ASSERT_TRUE(WaitUntil([&] { return kvui::ReadControl(hDlg, IDC_REVERSE_PROXY_PORT)->enabled; }));
    ASSERT_TRUE(TypeIntoCombo(hDlg, IDC_REVERSE_PROXY_HOST, L"proxy.example"));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_REVERSE_PROXY_PORT, L"8080"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_USE_PROXY_SECRET));
    ASSERT_TRUE(WaitUntil([&] { return kvui::ReadControl(hDlg, IDC_PROXY_SECRET)->enabled; }));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_PROXY_SECRET, L"s3cr3t-\u00e9"));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDOK));
    r.sim.Play({"expect-reverse host=viewer-7.example port=5500 use-proxy=1 proxy-host=proxy.example "
                "proxy-port=8080 secret=s3cr3t-\xC3\xA9",
                "reverse 100 suppress=1"});
    ASSERT_TRUE(kvui::WaitUntilGone(hDlg, kE2eWait)) << r.Story();

    const std::vector<std::wstring> stored = StringValues();
    EXPECT_NE(stored.end(), std::find(stored.begin(), stored.end(), L"Host 0=viewer-7.example"));
    EXPECT_NE(stored.end(), std::find(stored.begin(), stored.end(), L"Proxy Host 0=proxy.example"));
    for (const std::wstring& value : stored)
        EXPECT_EQ(std::wstring::npos, value.find(L"s3cr3t")) << Narrow(value);

    // The next opening offers the host as a list and only the last proxy; asking again while it is
    // open brings it to the front instead of a second one.
    hDlg = OpenConnectDialog(r, hTray);
    ASSERT_NE(nullptr, hDlg) << r.Story();
    PostMessageW(hTray, WM_COMMAND, IDM_CONNECT_TO_CLIENT, 0);
    EXPECT_TRUE(r.WaitForLog("INFO", "KVNXSTWindow", "Connect to client dialog exists, bringing to top."));
    EXPECT_EQ(1u, AgentDialogsWith(r, IDC_REVERSE_HOST).size());
    EXPECT_EQ(1, SendMessageW(GetDlgItem(hDlg, IDC_REVERSE_HOST), CB_GETCOUNT, 0, 0));
    EXPECT_EQ(L"proxy.example", kvui::ReadText(GetDlgItem(hDlg, IDC_REVERSE_PROXY_HOST)).value_or(L""));
    EXPECT_EQ(1, SendMessageW(GetDlgItem(hDlg, IDC_REVERSE_PROXY_HOST), CB_GETCOUNT, 0, 0));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDCANCEL));
    EXPECT_TRUE(r.ExitsOnRequest());
    RegDeleteTreeW(HKEY_CURRENT_USER, kListKey);
}
