// The invitation dialog in this process against a stand-in for the service's datagram port, checked
// by the simulator's rules: the request as sent, how each reply ends, and the files it writes.
#include "resident_agent.h"

#include "CreateInvitationDialog.h"
#include "KVNXSTWindow.h"
#include "SimRecords.h"
#include "SimSocket.h"
#include "UiDriver.h"
#include "resource.h"

#include <fstream>
#include <future>

using namespace kvtest;

namespace
{

using Bytes = std::vector<std::uint8_t>;
constexpr wchar_t kCaption[] = L"Kestrova Vexa Remote Control";

// The service's port: after a header (and a request) it sends what the case holds, keeping the
// request and the simulator's objections.
struct Service
{
    std::mutex m;
    std::vector<Bytes> replies;
    Bytes request;
    std::vector<std::string> problems;
    std::atomic<bool> stop{false};
    kvsim::Socket sockets[2];
    std::thread thread{[this] { Run(); }};

    ~Service()
    {
        stop = true;
        thread.join();
    }
    void Run()
    {
        std::string error;
        for (bool v6 : {false, true})
            kvsim::OpenLoopback(sockets[v6], false, v6, KV_INVITATION_UDP_PORT, error);
        std::vector<bool> ready;
        std::uint8_t buf[65536];
        for (bool bHeader = true; !stop;)
            for (kvsim::Socket& s : sockets)
            {
                kvsim::PeerAddress from;
                if (!s.Valid() || !kvsim::WaitReadable({s.Get()}, 20, ready) || !ready[0])
                    continue;
                const long n = kvsim::RecvFrom(s, buf, sizeof buf, from);
                std::lock_guard<std::mutex> lock(m);
                const auto found = bHeader ? kvsim::CheckUdpHeader(buf, size_t(n))
                                           : kvsim::CheckInvitationRequest(buf, size_t(n));
                problems.insert(problems.end(), found.begin(), found.end());
                if (!bHeader)
                    request.assign(buf, buf + n);
                bHeader = !bHeader || KvReadU32(buf + 4) == KV_UDP_INVITATION_DELETE_ALL;
                for (const Bytes& r : (bHeader ? replies : std::vector<Bytes>()))
                    kvsim::SendTo(s, r.data(), r.size(), from);
            }
    }
    void Answer(std::vector<Bytes> r)
    {
        std::lock_guard<std::mutex> lock(m);
        replies = std::move(r);
    }
};

Bytes Reply(std::uint32_t dwError, const char16_t* message, std::uint32_t cbText)
{
    MSG_INVITATION_REPLY reply;
    kvsim::BuildInvitationReply(reply, dwError, message, cbText);
    return Bytes(reinterpret_cast<std::uint8_t*>(&reply), reinterpret_cast<std::uint8_t*>(&reply + 1));
}

// The dialog's thread has handled all it was sent; true when a box with our caption is open.
bool IdleThenBox(HWND hDlg, const std::wstring& desktop, HWND* phBox = nullptr)
{
    SendMessageTimeoutW(hDlg, WM_NULL, 0, 0, SMTO_NORMAL, 10000, nullptr);
    HWND hBox = kvui::WaitForWindow({L"#32770", kCaption, 0, desktop, true}, phBox ? kE2eWait : 200);
    return (phBox ? *phBox = hBox : hBox) != nullptr;
}

std::wstring BoxText(HWND hBox, int nButton)
{
    const std::wstring text = kvui::ReadControl(hBox, 0xFFFF).value_or(kvui::Control{}).text;
    EXPECT_TRUE(kvui::ClickButton(hBox, nButton) && kvui::WaitUntilGone(hBox, kE2eWait));
    return text;
}

std::string FileBytes(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

INT_PTR Show(const TestDesktop* pDesktop)
{
    pDesktop->SetOnThisThread();
    return KvShowDialog(nullptr, IDD_CREATE_INVITATION, CreateInvitationWndProc, 0);
}

} // namespace

TEST(InvitationDialog, SendsTheRequestShowsTheReplyAndWritesOnlyNewFiles)
{
    const TestDesktop desktop(std::wstring(), L"1024x768");
    g_hResInstance = LoadResourceLibraryFrom(ModuleFolder().c_str(), nullptr);
    ASSERT_TRUE(g_hResInstance != nullptr && desktop.Created());
    // No remembered proxy may check the proxy box before the test clicks it.
    const wchar_t* kKey = L"Software\\Kestrova Development\\Vexa Remote Control\\Invitations";
    RegDeleteTreeW(HKEY_CURRENT_USER, kKey);
    Service service;
    std::future<INT_PTR> shown = std::async(std::launch::async, Show, &desktop);
    HWND hDlg = kvui::WaitForWindow({L"#32770", L"Invitations", 0, desktop.Name(), true}, kE2eWait);
    ASSERT_NE(nullptr, hDlg);
    const auto textShown = [&] { return IsWindowEnabled(GetDlgItem(hDlg, IDC_INVITATION_TEXT)) != FALSE; };

    const std::wstring name = L"kvtest-inv-" + std::to_wstring(GetCurrentProcessId());
    // Without a right besides A nothing is sent.
    HWND hBox = nullptr;
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_INVITATION_NAME, name));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_CREATE) && IdleThenBox(hDlg, desktop.Name(), &hBox));
    EXPECT_EQ(Narrow(ResourceText(g_hResInstance, IDS_INVITATION_NO_RIGHTS)), Narrow(BoxText(hBox, IDOK)));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_RIGHT_B) && service.request.empty());

    // Garbled or missing replies end the create without a word; nothing is shown.
    for (const std::vector<Bytes>& replies : std::vector<std::vector<Bytes>>{
             {}, {Reply(0, u"", 0)}, {Reply(0, u"", 0xFFFFFFFF)}, {Reply(0, u"", 100), Bytes(10, 'x')}})
    {
        service.Answer(replies);
        ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_CREATE));
        EXPECT_FALSE(IdleThenBox(hDlg, desktop.Name()));
        EXPECT_FALSE(textShown());
    }

    // A refusal shows the service's text and the system's.
    service.Answer({Reply(5, u"Refused here", 0)});
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_CREATE) && IdleThenBox(hDlg, desktop.Name(), &hBox));
    EXPECT_EQ("Refused here\r\nSystem Error: 5\r\nSystem Message: ",
              Narrow(BoxText(hBox, IDOK).substr(0, 47)));
    EXPECT_FALSE(textShown());

    // Every box filled: the request byte for byte; an ANSI text shown as it came.
    const std::string text = "INV \xE9t\xE9\r\nline 2";
    service.Answer({Reply(0, u"", std::uint32_t(text.size())), Bytes(text.begin(), text.end())});
    for (int nId : {IDC_INVITATION_RIGHT_D, IDC_INVITATION_USE_PASSWORD, IDC_USE_PROXY, IDC_USE_PROXY_SECRET})
        ASSERT_TRUE(kvui::ClickButton(hDlg, nId));
    // The secret box, clicked last, is enabled once every click has been handled.
    ASSERT_TRUE(WaitUntil([&] { return kvui::TypeText(hDlg, IDC_PROXY_SECRET, L"s"); }));
    ASSERT_TRUE(kvui::TypeText(hDlg, IDC_INVITATION_PASSWORD, L"pw") &&
                kvui::TypeText(hDlg, IDC_INVITATION_PROXY_PORT, L"3128") &&
                kvui::TypeText(GetDlgItem(hDlg, IDC_INVITATION_PROXY_HOST), 1001, L"proxy.example") &&
                kvui::SelectComboIndex(hDlg, IDC_INVITATION_EXPIRY, 11));
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_CREATE));
    ASSERT_TRUE(WaitUntil(textShown));
    auto want = std::make_unique<MSG_INVITATION_REQUEST>();
    KvBuildInvitationRequest(*want, KvInvitationFields<wchar_t>{name.c_str(), true, true, false, true, false,
                                                                11, L"pw", L"proxy.example", 3128, L"s"});
    {
        std::lock_guard<std::mutex> lock(service.m);
        EXPECT_EQ(std::vector<std::string>(), service.problems);
        ASSERT_EQ(sizeof *want, service.request.size());
        EXPECT_EQ(0, std::memcmp(want.get(), service.request.data(), sizeof *want));
    }
    wchar_t szWide[64] = {};
    MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, szWide, 64);
    EXPECT_EQ(Narrow(szWide), Narrow(kvui::ReadControl(hDlg, IDC_INVITATION_TEXT)->text));
    const std::string utf16(reinterpret_cast<const char*>(szWide), wcslen(szWide) * 2);

    // Copy as file: with the name and all twenty numbered ones taken it fails and the clipboard
    // keeps what it held; with the last one free, that file gets the text and is put there.
    wchar_t szDocs[MAX_PATH] = {};
    ASSERT_TRUE(GetFolderPath(szDocs, MAX_PATH));
    const std::wstring base = std::wstring(szDocs) + L"\\" + name;
    std::vector<std::wstring> taken;
    for (int n = 0; n <= 20; ++n)
        std::ofstream(taken.emplace_back(base + (n > 0 ? std::to_wstring(n) : L"") + L".inv").c_str())
            << "keep";
    HWND hOwner = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    ASSERT_TRUE(OpenClipboard(hOwner) && EmptyClipboard());
    HGLOBAL hBefore = GlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, 8);
    ASSERT_TRUE(std::memcpy(hBefore, "before", 6) && SetClipboardData(CF_TEXT, hBefore) && CloseClipboard());
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_COPY_AS_FILE));
    EXPECT_FALSE(IdleThenBox(hDlg, desktop.Name()));
    EXPECT_EQ(L"before", kvui::ClipboardText().value_or(L"?"));
    DeleteFileW(taken.back().c_str());
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_COPY_AS_FILE));
    EXPECT_FALSE(IdleThenBox(hDlg, desktop.Name()));
    EXPECT_EQ(utf16, FileBytes(taken.back()));
    wchar_t szDropped[MAX_PATH] = {};
    ASSERT_TRUE(OpenClipboard(nullptr) &&
                DragQueryFileW(HDROP(GetClipboardData(CF_HDROP)), 0, szDropped, MAX_PATH));
    CloseClipboard();
    EXPECT_EQ(Narrow(taken.back()), Narrow(szDropped));

    // Saving onto an existing file (the name offered, in Documents) leaves it as it was.
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_SAVE_AS_FILE));
    HWND hSave = kvui::WaitForWindow({L"#32770", L"Save Invitation As", 0, desktop.Name(), true}, kE2eWait);
    ASSERT_TRUE(hSave != nullptr && kvui::ClickButton(hSave, IDOK) && kvui::WaitUntilGone(hSave, kE2eWait));
    EXPECT_FALSE(IdleThenBox(hDlg, desktop.Name()));
    EXPECT_EQ("keep", FileBytes(taken.front()));
    for (const std::wstring& path : taken)
        DeleteFileW(path.c_str());
    RegDeleteTreeW(HKEY_CURRENT_USER, kKey);

    // Delete all: asked first, then the busy count.
    MSG_INVITATION_DELETE_REPLY del{KV_UDP_INVITATION_DELETE_ALL, KV_INVITATION_DELETE_NONE, 3};
    service.Answer({Bytes(reinterpret_cast<std::uint8_t*>(&del), reinterpret_cast<std::uint8_t*>(&del + 1))});
    ASSERT_TRUE(kvui::ClickButton(hDlg, IDC_INVITATION_DELETE_ALL) &&
                IdleThenBox(hDlg, desktop.Name(), &hBox));
    BoxText(hBox, IDYES);
    ASSERT_TRUE(IdleThenBox(hDlg, desktop.Name(), &hBox));
    EXPECT_EQ("Invitations still in use, not deleted: 3", Narrow(BoxText(hBox, IDOK)));

    ASSERT_TRUE(kvui::ClickButton(hDlg, IDCANCEL));
    ASSERT_EQ(std::future_status::ready, shown.wait_for(std::chrono::milliseconds(kE2eWait)));
    EXPECT_EQ(0, shown.get());
}
