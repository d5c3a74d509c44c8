// The connect/disconnect notice, opened by the tray window object in this process as the connection
// thread asks: its sound and when it closes. Its texts are read end to end (test_notice_e2e.cpp);
// where it goes is the host's (test_notice_placement.cpp).
#include "parked_tray_window.h"

#include "KvSystemApi.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace kvtest;

namespace
{

struct SoundCalls
{
    std::wstring user = L"alice";
    BOOL bPlayResult = TRUE;
    std::vector<std::wstring> played;
    std::vector<DWORD> flags;
    int nBeeps = 0;
} g_sound;

BOOL WINAPI FakeGetUserName(LPWSTR lpBuffer, LPDWORD pcch)
{
    wcsncpy_s(lpBuffer, *pcch, g_sound.user.c_str(), _TRUNCATE);
    return TRUE;
}
BOOL WINAPI FakePlaySound(LPCWSTR pszSound, HMODULE, DWORD fdwSound)
{
    g_sound.played.push_back(pszSound);
    g_sound.flags.push_back(fdwSound);
    return g_sound.bPlayResult;
}
BOOL WINAPI FakeMessageBeep(UINT)
{
    ++g_sound.nBeeps;
    return TRUE;
}

class Notice : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_tray = std::make_unique<ParkedTrayWindow>();
        ASSERT_TRUE(m_tray->Ready());
        m_window = m_tray->window.get();
        m_api = KvDefaultSystemApi();
        m_api.pfnGetUserNameW = FakeGetUserName;
        m_api.pfnPlaySoundW = FakePlaySound;
        m_api.pfnMessageBeep = FakeMessageBeep;
        m_scoped = std::make_unique<KvScopedSystemApi>(m_api);
        g_sound = SoundCalls();
        m_info.dwConnections = 1;
        m_info.dwTrayIcon = 1;
        m_settings = m_window->Settings();
        m_settings.dwNotifyDisplayTime = 5;
        m_settings.dwIdleTrayIcon = 1;
    }
    void TearDown() override
    {
        m_window->CloseNotice();
        m_scoped.reset();
        m_tray.reset();
    }

    // Hands the window the blocks as the connection thread does, opens a notice of this kind the
    // way that thread does, and lets it play its sound.
    HWND Open(int nKind)
    {
        m_window->StoreConnectInfo(m_info);
        m_window->StoreSettings(m_settings);
        if (nKind == KV_NOTIFY_CONNECT)
            m_window->NotifyConnect();
        else if (nKind == KV_NOTIFY_DISCONNECT)
            m_window->NotifyDisconnect();
        else
            m_window->NotifyAll();
        ParkedTrayWindow::Pump(300);
        EXPECT_EQ(nKind, m_window->NoticeKind());
        return m_window->NoticeWindow();
    }

    std::unique_ptr<ParkedTrayWindow> m_tray;
    MSG_TRAYICON_CONNECT_INFO m_info = {};
    MSG_TRAYICON_SETTINGS m_settings = {};
    CTaskBarWindow* m_window = nullptr;
    KvSystemApi m_api{};
    std::unique_ptr<KvScopedSystemApi> m_scoped;
};

} // namespace

TEST_F(Notice, SoundIsTheLogonOrLogoffAliasABeepWhenItCannotPlayAndNothingForTheSystemOrAQuietService)
{
    const struct
    {
        const char* szCase;
        int nKind;
        const wchar_t* szUser;
        std::uint32_t bQuiet, dwIdleIcon;
        BOOL bPlays;
        const wchar_t* szExpected; // null: nothing played
        int nBeeps;
    } cases[] = {
        {"connect", 1, L"alice", 0, 1, TRUE, L"WindowsLogon", 0},
        {"disconnect", 2, L"alice", 0, 1, TRUE, L"WindowsLogoff", 0},
        {"no such sound", 1, L"alice", 0, 1, FALSE, L"WindowsLogon", 1},
        {"system account", 1, L"SYSTEM", 0, 1, FALSE, nullptr, 0},
        {"system account, lower case", 2, L"system", 0, 1, FALSE, nullptr, 0},
        {"quiet with the normal idle icon", 1, L"alice", 1, 1, FALSE, nullptr, 0},
        {"quiet but another idle icon", 1, L"alice", 1, 2, TRUE, L"WindowsLogon", 0},
        {"viewer list", 3, L"alice", 0, 1, TRUE, nullptr, 0},
    };
    for (const auto& c : cases)
    {
        g_sound = SoundCalls();
        g_sound.user = c.szUser;
        g_sound.bPlayResult = c.bPlays;
        m_settings.bQuietWhenIdleIcon = c.bQuiet;
        m_settings.dwIdleTrayIcon = c.dwIdleIcon;
        ASSERT_NE(nullptr, Open(c.nKind)) << c.szCase;
        if (c.szExpected == nullptr)
            EXPECT_TRUE(g_sound.played.empty()) << c.szCase;
        else
        {
            ASSERT_EQ(1u, g_sound.played.size()) << c.szCase;
            EXPECT_EQ(c.szExpected, g_sound.played[0]) << c.szCase;
            EXPECT_EQ(0x12002u, g_sound.flags[0]) << c.szCase;
        }
        EXPECT_EQ(c.nBeeps, g_sound.nBeeps) << c.szCase;
    }
}

TEST_F(Notice, TimerAndCloseBoxCloseItUnlessItMustStay)
{
    const struct
    {
        const char* szCase;
        std::uint32_t dwConnections, dwSelector, bButton, bKeep;
        bool bStays;
    } cases[] = {
        {"last viewer gone", 0, 2, 0, 0, false},
        {"viewers, normal icon", 1, 1, 0, 0, false},
        {"viewers, normal icon, keep asked", 1, 1, 0, 1, true},
        {"viewers, other icon", 2, 2, 0, 0, true},
        {"viewers, hidden icon", 1, 0, 0, 0, true},
        {"disconnect button", 0, 1, 1, 0, true},
        {"count -1 is no viewer", 0xFFFFFFFF, 2, 0, 0, false},
    };
    for (UINT uMsg : {WM_TIMER, WM_CLOSE})
        for (const auto& c : cases)
        {
            m_info.dwConnections = c.dwConnections;
            m_info.dwTrayIcon = c.dwSelector;
            m_info.bDisconnectButton = c.bButton;
            m_settings.bKeepNotifyOpen = c.bKeep;
            const HWND hNotice = Open(3);
            ASSERT_NE(nullptr, hNotice) << c.szCase;
            SendMessageW(hNotice, uMsg, uMsg == WM_TIMER ? 222 : 0, 0);
            EXPECT_EQ(c.bStays, IsWindow(hNotice) != FALSE)
                << c.szCase << (uMsg == WM_TIMER ? " (timer)" : " (close)");
            EXPECT_EQ(c.bStays ? hNotice : nullptr, m_window->NoticeWindow()) << c.szCase;
        }

    // Display time 0: no timer at all; otherwise the display time's period.
    m_info = {};
    for (std::uint32_t dwSeconds : {0u, 3u})
    {
        m_settings.dwNotifyDisplayTime = dwSeconds;
        const HWND hNotice = Open(2);
        EXPECT_EQ(dwSeconds != 0, KillTimer(hNotice, 222) != FALSE) << "display time " << dwSeconds;
    }
}
