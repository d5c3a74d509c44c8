// The tray window object in this process: its tray menu read back from the open menu itself.
#include "parked_tray_window.h"

#include "resource.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>

using namespace kvtest;

namespace
{

constexpr UINT kMenuItems[] = {
    IDM_INVITATIONS, IDM_DISCONNECT,  IDM_CONNECT_TO_CLIENT, IDM_EXIT,
    IDM_SETTINGS,    IDM_ABOUT,       IDM_NOTIFY_ALL,        IDM_JOIN_INTERNET_SESSION,
    IDM_LANGUAGE_EN, IDM_LANGUAGE_FR, IDM_LANGUAGE_DE};

// Item states of the menu open at the time the timer fires; the menu is closed again.
std::map<UINT, UINT> g_menuStates;

void CALLBACK ReadOpenMenu(HWND, UINT, UINT_PTR uTimer, DWORD)
{
    HWND hMenuWindow = FindWindowW(L"#32768", nullptr);
    if (hMenuWindow == nullptr || !IsWindowVisible(hMenuWindow))
        return;
    KillTimer(nullptr, uTimer);
    auto hMenu = reinterpret_cast<HMENU>(SendMessageW(hMenuWindow, MN_GETHMENU, 0, 0));
    for (UINT uId : kMenuItems)
        g_menuStates[uId] = GetMenuState(hMenu, uId, MF_BYCOMMAND);
    EndMenu();
}

class TrayWindow : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_tray = std::make_unique<ParkedTrayWindow>();
        ASSERT_TRUE(m_tray->Ready());
        m_window = m_tray->window.get();
    }
    void TearDown() override { m_tray.reset(); }

    // Opens the tray menu as the shell's callback does and returns each item's state.
    std::map<UINT, UINT> OpenMenu(UINT uMouseMessage = WM_RBUTTONUP)
    {
        g_menuStates.clear();
        const UINT_PTR uTimer = SetTimer(nullptr, 0, 50, ReadOpenMenu);
        SendMessageW(m_window->m_hWnd, WM_KV_TRAY_CALLBACK, KV_TRAY_ICON_ID, uMouseMessage);
        KillTimer(nullptr, uTimer);
        return g_menuStates;
    }

    std::unique_ptr<ParkedTrayWindow> m_tray;
    CTaskBarWindow* m_window = nullptr;
};

// The ids, ascending, of the items whose state has uFlag.
std::string ItemsWith(const std::map<UINT, UINT>& states, UINT uFlag)
{
    std::string out;
    for (const auto& [uId, uState] : states)
        if (uState & uFlag)
            out += std::to_string(uId) + " ";
    return out;
}

} // namespace

TEST_F(TrayWindow, MenuGreysWhatTheSettingsAndTheSessionDoNotAllow)
{
    CTaskBarWindow& w = *m_window;
    const struct
    {
        const char* szCase;
        int nConnections;
        std::uint32_t bAllowInvitations, uOptions, bAllowConnectToClient, bLockSettingsB, bAllowDisconnect;
        int bReverseConnectActive;
        const wchar_t* szLanguage;
        const char* szGreyed; // ascending ids
        const char* szChecked;
    } cases[] = {
        {"defaults, nobody connected", 0, 0, 0, 0, 0, 1, 0, L"en", "40002 40005 40006 ", "1044 "},
        {"viewers connected, settings locked", 2, 1, 0x10, 1, 1, 1, 0, L"fr", "40006 40007 40011 ", "1045 "},
        {"outgoing connection under way, invitations off by option", 0, 1, 0, 1, 0, 1, 1, L"DE",
         "40002 40005 40006 40011 ", "1046 "},
        {"connected but disconnect not allowed", 1, 1, 0x10, 0, 0, 0, 0, L"xx", "40005 40006 40011 ", ""},
    };
    for (const auto& c : cases)
    {
        w.m_nConnections = c.nConnections;
        w.m_bAllowInvitations = c.bAllowInvitations;
        w.m_uOptions = c.uOptions;
        w.m_bAllowConnectToClient = c.bAllowConnectToClient;
        w.m_bLockSettingsB = c.bLockSettingsB;
        w.m_bAllowDisconnect = c.bAllowDisconnect;
        w.m_bReverseConnectActive = c.bReverseConnectActive;
        wcsncpy(w.m_szLanguage, c.szLanguage, 2);
        const std::map<UINT, UINT> states = OpenMenu();
        ASSERT_EQ(std::size(kMenuItems), states.size()) << c.szCase << ": the menu did not open";
        EXPECT_EQ(c.szGreyed, ItemsWith(states, MF_GRAYED)) << c.szCase;
        EXPECT_EQ(c.szChecked, ItemsWith(states, MF_CHECKED)) << c.szCase;
    }
}

TEST_F(TrayWindow, OnlyTheMenuMouseMessagesOfItsOwnIconOpenTheMenu)
{
    EXPECT_FALSE(OpenMenu(WM_LBUTTONDOWN).empty());
    EXPECT_FALSE(OpenMenu(WM_CONTEXTMENU).empty());
    EXPECT_TRUE(OpenMenu(WM_MOUSEMOVE).empty());
    EXPECT_TRUE(OpenMenu(WM_LBUTTONDBLCLK).empty());
    g_menuStates.clear();
    SendMessageW(m_window->m_hWnd, WM_KV_TRAY_CALLBACK, KV_TRAY_ICON_ID + 1, WM_RBUTTONUP);
    EXPECT_TRUE(g_menuStates.empty());
}
