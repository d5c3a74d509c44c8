// The invitation dialog of the built agent against the simulator's invitation service: what reaches
// the service, how each kind of answer ends, and what the user gets from the text on the clipboard,
// in files (only ever created new) and in the registry.
#include "registry_values.h"
#include "resident_agent.h"

#include "CreateInvitationDialog.h"
#include "resource.h"

#include <fstream>

using namespace kvtest;

namespace
{

constexpr wchar_t kInvitationsKey[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Invitations";

std::string FileBytes(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The clipboard's CF_TEXT bytes; its first dropped file.
std::string ClipboardAnsiText()
{
    std::string text;
    if (!WaitUntil([] { return OpenClipboard(nullptr) != FALSE; }))
        return text;
    HANDLE hData = GetClipboardData(CF_TEXT);
    if (const char* p = hData != nullptr ? static_cast<const char*>(GlobalLock(hData)) : nullptr;
        p != nullptr)
    {
        text.assign(p, strnlen(p, GlobalSize(hData)));
        GlobalUnlock(hData);
    }
    CloseClipboard();
    return text;
}

std::wstring ClipboardDroppedFile()
{
    wchar_t szPath[MAX_PATH] = {};
    if (WaitUntil([] { return OpenClipboard(nullptr) != FALSE; }))
    {
        if (HANDLE hDrop = GetClipboardData(CF_HDROP); hDrop != nullptr)
            DragQueryFileW(HDROP(hDrop), 0, szPath, MAX_PATH);
        CloseClipboard();
    }
    return szPath;
}

bool Enabled(HWND hDlg, int nId)
{
    return kvui::ReadControl(hDlg, nId).value_or(kvui::Control{}).enabled;
}

// The message box the agent shows next, read and closed with this button.
std::wstring AnswerBox(const Resident& r, int nButton)
{
    const HWND hBox =
        WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"Kestrova Vexa Remote Control", kE2eWait, true);
    const std::wstring text = kvui::ReadControl(hBox, 0xFFFF).value_or(kvui::Control{}).text;
    EXPECT_TRUE(kvui::ClickButton(hBox, nButton) && kvui::WaitUntilGone(hBox, kE2eWait));
    return text;
}

// Create, with nothing shown and nothing said once the service's exchange is over.
void CreateComesToNothing(Resident& r, HWND hDlg)
{
    ASSERT_TRUE(r.sim.Settle(kE2eWait) && kvui::ClickButton(hDlg, IDC_INVITATION_CREATE));
    r.sim.Play({"expect-invite create"});
    ASSERT_TRUE(r.sim.Settle(2 * kE2eWait));
    SendMessageTimeoutW(hDlg, WM_NULL, 0, 0, SMTO_NORMAL, kE2eWait, nullptr);
    EXPECT_EQ(nullptr,
              WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"Kestrova Vexa Remote Control", 0, true));
    EXPECT_FALSE(Enabled(hDlg, IDC_INVITATION_TEXT) || Enabled(hDlg, IDC_INVITATION_COPY_AS_TEXT));
}

} // namespace

TEST(InvitationDialog, TheServiceGetsEveryFieldAndTheUserGetsTheTextEveryWayWithoutLosingAFile)
{
    const std::shared_ptr<void> restore(nullptr, [kept = ReadRegistryValues(kInvitationsKey)](void*)
                                        { WriteRegistryValues(kInvitationsKey, kept); });
    WriteRegistryValues(kInvitationsKey, {});
    kvsim::ServerOptions options = SimThread::Options(OwnSession());
    options.udp = true;
    options.udpPort = KV_INVITATION_UDP_PORT;
    Resident r(options);
    ASSERT_TRUE(r.Launch());
    // The dialog opens after the agent has waited for the service's word on 50006.
    PostMessageW(r.TrayWindow(), WM_COMMAND, IDM_INVITATIONS, 0);
    r.sim.Play({"expect 50006"});
    const HWND hDlg = WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"Invitations", 3 * kE2eWait, true);
    ASSERT_NE(nullptr, hDlg) << r.Story();

    // Asking first is no right: without one of the four nothing is sent.
    const std::wstring name = L"Support call " + std::to_wstring(GetCurrentProcessId());
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_INVITATION_NAME, name));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_CREATE));
    EXPECT_EQ(L"Choose at least one thing the viewer may do.", AnswerBox(r, IDOK));
    for (int nId : {IDC_INVITATION_RIGHT_B, IDC_INVITATION_RIGHT_D, IDC_INVITATION_USE_PASSWORD,
                    IDC_USE_PROXY, IDC_USE_PROXY_SECRET})
        ASSERT_TRUE(kvui::ClickButton(hDlg, nId));
    ASSERT_TRUE(WaitUntil([&] { return Enabled(hDlg, IDC_PROXY_SECRET); }));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_INVITATION_PASSWORD, L"p\u00e4ss") &&
                kvui::TypeText(hDlg, IDC_INVITATION_PROXY_PORT, L"3128") &&
                kvui::TypeText(GetDlgItem(hDlg, IDC_INVITATION_PROXY_HOST), 1001, L"proxy.example") &&
                kvui::TypeText(hDlg, IDC_PROXY_SECRET, L"s3cr3t") &&
                kvui::SelectComboIndex(hDlg, IDC_INVITATION_EXPIRY, 3));
    ASSERT_EQ(std::string::npos, r.sim.Trace().find("invitation request")) << r.Story();

    // Silence for the 5 s time-out, an empty length, one past any allocation and a text cut short.
    r.sim.Play({"invite-silent 1"});
    CreateComesToNothing(r, hDlg);
    for (const char* szLength : {"0", "0xFFFFFFFF", "100"})
    {
        r.sim.Play({"invite-silent 0", std::string("invite-text 0123456789 length=") + szLength});
        CreateComesToNothing(r, hDlg);
    }
    EXPECT_TRUE(
        r.WaitForLog("WARN", "CreateInvitationDialog",
                     "The service announced an invitation of 4294967295 bytes; at least 1 and at most "
                     "65507 are taken."));

    // A refusal: the service's text and the system's in one box.
    r.sim.Play({"invite-error 5 \"Refused here\""});
    ASSERT_TRUE(r.sim.Settle(kE2eWait) && kvui::ClickButton(hDlg, IDC_INVITATION_CREATE));
    EXPECT_EQ(L"Refused here\r\nSystem Error: 5\r\nSystem Message: ", AnswerBox(r, IDOK).substr(0, 47));

    // Answered in the ANSI code page: every field arrives as typed, the text shows as it was meant.
    r.sim.Play({"invite-error 0", "invite-text \"INV-\xC3\xA9t\xC3\xA9 \xE2\x82\xAC"
                                  "5\""});
    ASSERT_TRUE(r.sim.Settle(kE2eWait) && kvui::ClickButton(hDlg, IDC_INVITATION_CREATE));
    r.sim.Play({"expect-invite create name=\"" + Narrow(name) +
                "\" rights=11010 expiry=3 password=p\xC3\xA4ss proxy-host=proxy.example proxy-port=3128 "
                "secret=s3cr3t"});
    ASSERT_TRUE(WaitUntil([&] { return Enabled(hDlg, IDC_INVITATION_SAVE_AS_FILE); })) << r.Story();
    const std::wstring shown = L"INV-\u00e9t\u00e9 \u20ac5";
    EXPECT_EQ(Narrow(shown), Narrow(kvui::ReadControl(hDlg, IDC_INVITATION_TEXT)->text));
    const std::string utf16(reinterpret_cast<const char*>(shown.data()), shown.size() * 2);

    // As text: the ANSI bytes.
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_COPY_AS_TEXT));
    const std::string ansi = "INV-\xE9t\xE9 \x80"
                             "5";
    EXPECT_TRUE(WaitUntil([&] { return ClipboardAnsiText() == ansi; }));

    // As a file in Documents: with the name and all twenty numbered ones taken, nothing happens and
    // the clipboard keeps the text; with the last one free, it gets the UTF-16 text and is dropped there.
    wchar_t szDocs[MAX_PATH] = {};
    ASSERT_TRUE(GetFolderPath(szDocs, MAX_PATH));
    std::vector<std::wstring> taken;
    for (int n = 0; n <= 20; ++n)
        std::ofstream(taken
                          .emplace_back(std::wstring(szDocs) + L"\\" + name +
                                        (n > 0 ? std::to_wstring(n) : L"") + L".inv")
                          .c_str())
            << "keep";
    const std::shared_ptr<void> remove(nullptr,
                                       [&](void*)
                                       {
                                           for (const std::wstring& path : taken)
                                               DeleteFileW(path.c_str());
                                       });
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_COPY_AS_FILE));
    EXPECT_TRUE(
        r.WaitForLog("WARN", "CreateInvitationDialog",
                     "No free file name beside \"" + Narrow(szDocs) + "\\" + Narrow(name) + ".inv\"."));
    EXPECT_EQ(ansi, ClipboardAnsiText());
    DeleteFileW(taken.back().c_str());
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_COPY_AS_FILE));
    EXPECT_TRUE(WaitUntil([&] { return ClipboardDroppedFile() == taken.back(); }));
    EXPECT_EQ(utf16, FileBytes(taken.back()));

    // Save as: onto the offered name, which exists, nothing changes; a new name gets the text.
    wchar_t szTemp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, szTemp);
    const std::wstring saved =
        std::wstring(szTemp) + L"kvtest-saved-" + std::to_wstring(GetCurrentProcessId()) + L".inv";
    for (const std::wstring& target : {std::wstring(), saved})
    {
        ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_SAVE_AS_FILE));
        const HWND hSave =
            WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"Save Invitation As", kE2eWait, true);
        ASSERT_NE(nullptr, hSave);
        // The file name box (1148) is an edit inside combo boxes of the same id.
        HWND hNameCombo = nullptr;
        for (const kvui::Control& c : kvui::ListControls(hSave))
            hNameCombo = c.id == 1148 && c.className == L"Edit" ? GetParent(c.hWnd) : hNameCombo;
        ASSERT_TRUE(target.empty() || kvui::TypeText(hNameCombo, 1148, target));
        ASSERT_TRUE(kvui::ClickButton(hSave, IDOK) && kvui::WaitUntilGone(hSave, kE2eWait));
    }
    EXPECT_TRUE(WaitUntil([&] { return FileBytes(saved) == utf16; }));
    EXPECT_EQ("keep", FileBytes(taken.front()));
    DeleteFileW(saved.c_str());

    // Delete all: asked first, then the count in a box that closes by itself; status 170 is "busy".
    for (const auto& [szReply, szShown] :
         {std::pair{"invite-delete 0 4", L"Invitations deleted: 4"},
          std::pair{"invite-delete 170 3", L"Invitations still in use, not deleted: 3"}})
    {
        r.sim.Play({szReply});
        ASSERT_TRUE(r.sim.Settle(kE2eWait) && kvui::ClickButton(hDlg, IDC_INVITATION_DELETE_ALL));
        AnswerBox(r, IDYES);
        r.sim.Play({"expect-invite delete"});
        EXPECT_EQ(szShown, AnswerBox(r, IDOK));
    }

    // The proxy is remembered for next time; the password and the secret are nowhere.
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDCANCEL) && kvui::WaitUntilGone(hDlg, kE2eWait));
    const RegistryValues want = {
        {L"Proxy Host 0", L"proxy.example"}, {L"Proxy Port 0", L"#3128"}, {L"Proxy Last", L"proxy.example"},
        {L"Proxy Port", L"#3128"},           {L"Use Proxy", L"#1"},       {L"Use Proxy Secret", L"#1"}};
    EXPECT_EQ(want, ReadRegistryValues(kInvitationsKey));
    EXPECT_EQ(std::string::npos, r.folder.Log().find("s3cr3t"));
    EXPECT_TRUE(r.ExitsOnRequest());
}
