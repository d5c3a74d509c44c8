// The chat between a viewer and the local user, through the built agent, its chat library and the
// simulator: what the viewer writes is read back from the chat window, what the user types reaches
// the service byte for byte, the window's life follows both sides, and bad chat records or a
// missing or incomplete library leave the agent serving. A length no service would send ends the
// link (test_resident_e2e.cpp).
#include "resident_agent.h"

#include "UtilLog.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kvtest;

namespace
{

// The agent's chat windows on its desktop.
std::vector<HWND> ChatWindows(const Resident& r)
{
    return AgentDialogsWith(r, IDC_CHAT_TRANSCRIPT);
}

// The first chat window other than hOld.
HWND WaitForChatWindow(const Resident& r, HWND hOld = nullptr)
{
    HWND hFound = nullptr;
    WaitUntil(
        [&]
        {
            for (HWND hChat : ChatWindows(r))
                if (hChat != hOld)
                    return (hFound = hChat) != nullptr;
            return false;
        });
    return hFound;
}

bool WaitForNoChatWindow(const Resident& r)
{
    return WaitUntil([&] { return ChatWindows(r).empty(); });
}

// The transcript's items, one string each.
std::vector<std::wstring> Transcript(HWND hChat)
{
    const HWND hList = GetDlgItem(hChat, IDC_CHAT_TRANSCRIPT);
    std::vector<std::wstring> items;
    const LRESULT nCount = SendMessageW(hList, LB_GETCOUNT, 0, 0);
    for (LRESULT i = 0; i < nCount; ++i)
    {
        std::wstring item(static_cast<size_t>(SendMessageW(hList, LB_GETTEXTLEN, i, 0)) + 1, L'\0');
        item.resize(
            static_cast<size_t>(SendMessageW(hList, LB_GETTEXT, i, reinterpret_cast<LPARAM>(&item[0]))));
        items.push_back(item);
    }
    return items;
}

// Polls until the last item holds part.
::testing::AssertionResult LastItemHolds(HWND hChat, const std::wstring& part)
{
    std::vector<std::wstring> items;
    if (WaitUntil(
            [&]
            {
                items = Transcript(hChat);
                return !items.empty() && items.back().find(part) != std::wstring::npos;
            }))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the last of " << items.size() << " items is \""
                                         << Narrow(items.empty() ? L"" : items.back()) << "\"";
}

std::wstring ChatText(UINT uId)
{
    const HMODULE hRes = LoadLibraryExW((ModuleFolder() + L"KVNXSTRES.dll").c_str(), nullptr,
                                        LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    const std::wstring text = ResourceText(hRes, uId);
    FreeLibrary(hRes);
    return text;
}

// Polls the agent's log until the line has come n times.
bool WaitForCount(const Resident& r, const std::string& level, const std::string& logger,
                  const std::string& text, size_t n)
{
    return WaitUntil([&] { return CountMessage(r.LogLines(), level, logger, text) >= n; });
}

size_t SentChatMessages(const Resident& r)
{
    return CountContaining(Lines(r.sim.Trace()), "<< MSG_TYPE_CHAT_MESSAGE");
}

// This process's environment with folder at the front of PATH, as a block for CreateProcessW.
std::wstring EnvironmentWithPathFirst(const std::wstring& folder)
{
    std::wstring block;
    wchar_t* pEnv = GetEnvironmentStringsW();
    for (const wchar_t* p = pEnv; *p != L'\0'; p += wcslen(p) + 1)
    {
        std::wstring entry = p;
        if (_wcsnicmp(entry.c_str(), L"PATH=", 5) == 0)
            entry = L"PATH=" + folder + L";" + entry.substr(5);
        block += entry + L'\0';
    }
    FreeEnvironmentStringsW(pEnv);
    return block + L'\0';
}

} // namespace

TEST(Chat, ViewerAndUserTalkAndTheWindowFollowsBothSides)
{
    Resident r;
    ASSERT_TRUE(r.folder.Add(L"KVNXChat.dll", L"KVNXChat.dll"));
    ASSERT_TRUE(r.Launch());

    r.sim.Play({"chat-open alice", "chat alice Grüße aus Köln — שלום, can you see my screen?"});
    const HWND hChat = WaitForChatWindow(r);
    ASSERT_NE(nullptr, hChat) << r.Story();
    EXPECT_TRUE(LastItemHolds(hChat, L"alice"));
    EXPECT_TRUE(LastItemHolds(hChat, L"Grüße aus Köln — שלום, can you see my screen?"));

    // A second open brings the same window forward; there is never a second one.
    r.sim.Play({"chat-open alice"});
    ASSERT_TRUE(r.sim.Settle(kE2eWait));
    ASSERT_TRUE(WaitForCount(r, "TRACE", "KVNXSTWindowChat", "CTaskBarWindow::OpenChatWindow exiting.", 2));
    EXPECT_EQ(std::vector<HWND>{hChat}, ChatWindows(r));

    // Escape keeps what the user typed; Enter sends it as one record, byte for byte.
    const std::wstring typed = L"Ja, ça marche.\r\nZweite Zeile";
    ASSERT_TRUE(kvui::TypeText(hChat, IDC_CHAT_INPUT, typed));
    ASSERT_TRUE(kvui::PressKey(hChat, IDC_CHAT_INPUT, VK_ESCAPE));
    EXPECT_EQ(typed, kvui::ReadText(GetDlgItem(hChat, IDC_CHAT_INPUT)));
    ASSERT_TRUE(kvui::PressKey(hChat, IDC_CHAT_INPUT, VK_RETURN));
    r.sim.Play({"expect-chat \"Ja, ça marche.\\r\\nZweite Zeile\""});
    ASSERT_TRUE(r.sim.Settle(kE2eWait)) << r.Story();
    EXPECT_EQ(L"", kvui::ReadText(GetDlgItem(hChat, IDC_CHAT_INPUT)));
    EXPECT_TRUE(LastItemHolds(hChat, ChatText(IDS_CHAT_YOU)));
    EXPECT_TRUE(LastItemHolds(hChat, typed));

    // White space alone cannot be sent, neither by the button nor by Enter.
    ASSERT_TRUE(kvui::TypeText(hChat, IDC_CHAT_INPUT, L" \r\n\t "));
    EXPECT_FALSE(kvui::ReadControl(hChat, IDC_CHAT_SEND)->enabled);
    ASSERT_TRUE(kvui::PressKey(hChat, IDC_CHAT_INPUT, VK_RETURN));

    // The user closes the window: the next message opens a new one, which the service's close ends.
    ASSERT_TRUE(kvui::CloseWindow(hChat));
    ASSERT_TRUE(WaitForNoChatWindow(r));
    r.sim.Play({"chat alice Are you still there?"});
    const HWND hAgain = WaitForChatWindow(r, hChat);
    ASSERT_NE(nullptr, hAgain) << r.Story();
    EXPECT_TRUE(LastItemHolds(hAgain, L"Are you still there?"));
    r.sim.Play({"chat-close"});
    EXPECT_TRUE(WaitForNoChatWindow(r));

    EXPECT_TRUE(r.ExitsOnRequest());
    EXPECT_EQ(1u, SentChatMessages(r)) << r.sim.Trace();
}

TEST(Chat, BadChatRecordsAreLoggedAndTheAgentServesOn)
{
    Resident r;
    ASSERT_TRUE(r.folder.Add(L"KVNXChat.dll", L"KVNXChat.dll"));
    ASSERT_TRUE(r.Launch());

    r.sim.Play({
        "chat bob bytes=16777216", // read and skipped
        "chat bob first shown",
        "chat bob bytes=7",
        "chat bob bytes=0",
        "chat bob units=8000",
        "chat bob no terminator raw-user=1",
        "chat bob last",
    });
    const HWND hChat = WaitForChatWindow(r);
    ASSERT_NE(nullptr, hChat) << r.Story();
    ASSERT_TRUE(LastItemHolds(hChat, L"last")) << r.Story();
    const std::vector<std::wstring> items = Transcript(hChat);
    ASSERT_EQ(6u, items.size());
    EXPECT_NE(std::wstring::npos, items[0].find(L"first shown"));
    EXPECT_GE(SendMessageW(GetDlgItem(hChat, IDC_CHAT_TRANSCRIPT), LB_GETTEXTLEN, 3, 0), 8000);

    for (const char* szWarning :
         {"Chat message body of 16777216 bytes exceeds the limit of 1048576 bytes; it is read and skipped.",
          "Chat message body of 7 bytes ends in half a character; the last byte is not shown.",
          "MSG_CHAT_MESSAGE.szUsername has no terminator; cut to 259 units."})
        EXPECT_TRUE(r.WaitForLog("WARN", "ConnectionInfo", szWarning)) << szWarning;

    EXPECT_TRUE(r.ExitsOnRequest());
}

// Without its library, or with one that lacks an entry, the agent logs why, shows no window and
// serves on. A library of that name on the search path is never taken.
TEST(Chat, MissingOrIncompleteLibraryIsLoggedAndNoWindowOpens)
{
    const struct
    {
        const wchar_t* szLibrary; // copied in as KVNXChat.dll; null: none
        std::string expected;
    } cases[] = {
        {nullptr, "Failed to load KVNXChat.dll. " + Narrow(KvErrorText(ERROR_MOD_NOT_FOUND))},
        {L"fake-chat\\KVNXChat.dll", "Failed to GetProcAddress for KVNX_CloseChatWindow from KVNXChat.dll. " +
                                         Narrow(KvErrorText(ERROR_PROC_NOT_FOUND))},
    };
    const std::wstring environment = EnvironmentWithPathFirst(ModuleFolder());
    for (const auto& c : cases)
    {
        Resident r;
        if (c.szLibrary != nullptr)
        {
            ASSERT_TRUE(r.folder.Add(c.szLibrary, L"KVNXChat.dll"));
        }
        ASSERT_TRUE(r.Launch(std::wstring(), environment.c_str()));
        r.sim.Play({"chat-open carol", "chat carol hello"});
        ASSERT_TRUE(r.sim.Settle(kE2eWait));
        // Each record tries again, and says why it failed.
        EXPECT_TRUE(WaitForCount(r, "ERROR", "KVNXSTWindowChat", c.expected, 2)) << r.Story();
        EXPECT_TRUE(ChatWindows(r).empty());
        EXPECT_TRUE(r.ExitsOnRequest());
    }
}
