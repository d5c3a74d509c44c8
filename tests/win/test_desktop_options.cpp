// The desktop options switched off and put back by the tray window object in this process, read
// back with the system's own getters. Changes are session-only; the user's profile is compared
// before and after.
#include "desktop_effects.h"
#include "parked_tray_window.h"
#include "resident_agent.h"

#include "KvSystemApi.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

using namespace kvtest;

namespace
{

const wchar_t kDesktopKey[] = L"Control Panel\\Desktop";

std::wstring Wallpaper()
{
    wchar_t sz[MAX_PATH] = {};
    SystemParametersInfoW(SPI_GETDESKWALLPAPER, MAX_PATH, sz, 0);
    return sz;
}
void PutWallpaper(const std::wstring& path)
{
    SystemParametersInfoW(SPI_SETDESKWALLPAPER, 0, const_cast<wchar_t*>(path.c_str()), SPIF_SENDCHANGE);
}

// Every value of the profile's desktop key, name to type and bytes.
std::map<std::wstring, std::pair<DWORD, std::string>> Profile()
{
    std::map<std::wstring, std::pair<DWORD, std::string>> values;
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kDesktopKey, 0, KEY_READ, &hKey) != ERROR_SUCCESS)
        return values;
    for (DWORD i = 0;; ++i)
    {
        wchar_t szName[512];
        char data[8192];
        DWORD cchName = 512, cbData = sizeof data, dwType = 0;
        if (RegEnumValueW(hKey, i, szName, &cchName, nullptr, &dwType, reinterpret_cast<BYTE*>(data),
                          &cbData) != ERROR_SUCCESS)
            break;
        values[szName] = {dwType, std::string(data, cbData)};
    }
    RegCloseKey(hKey);
    return values;
}
void SetProfileString(const wchar_t* szName, const std::wstring& value)
{
    RegSetKeyValueW(HKEY_CURRENT_USER, kDesktopKey, szName, REG_SZ, value.c_str(),
                    static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

bool g_bShellUp = true;

class DesktopOptions : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_profile = Profile();
        for (const DesktopEffect& e : KV_EFFECTS)
            m_session[e.nBit] = Get(e);
        m_wallpaper = Wallpaper();
        m_api.pfnFindWindowW = [](LPCWSTR szClass, LPCWSTR szTitle) -> HWND
        { return g_bShellUp ? FindWindowW(szClass, szTitle) : nullptr; };
        g_bShellUp = true;
        m_tray = std::make_unique<ParkedTrayWindow>();
        ASSERT_TRUE(m_tray->Ready());
        m_window = m_tray->window.get();
    }
    void TearDown() override
    {
        m_tray.reset();
        RegDeleteKeyValueW(HKEY_CURRENT_USER, kDesktopNoteKey, L"DesktopOptionsChanged");
        for (const DesktopEffect& e : KV_EFFECTS)
            Put(e, m_session[e.nBit]);
        PutWallpaper(m_wallpaper);
        for (const auto& [name, value] : Profile())
            if (m_profile.count(name) == 0)
                RegDeleteKeyValueW(HKEY_CURRENT_USER, kDesktopKey, name.c_str());
        for (const auto& [name, value] : m_profile)
            RegSetKeyValueW(HKEY_CURRENT_USER, kDesktopKey, name.c_str(), value.first, value.second.data(),
                            static_cast<DWORD>(value.second.size()));
    }
    // Switches the options of nMask off and then back on as the last viewer leaves; the profile
    // must not change on the way.
    void Apply(int nMask)
    {
        const auto before = Profile();
        Options().Set(nMask);
        EXPECT_TRUE(before == Profile());
    }
    void Restore()
    {
        const auto before = Profile();
        m_window->NotifyDisconnect();
        EXPECT_EQ(1, Options().Changed());
        EXPECT_FALSE(NotePresent());
        EXPECT_TRUE(before == Profile());
    }

    std::map<std::wstring, std::pair<DWORD, std::string>> m_profile;
    std::map<int, DWORD> m_session;
    std::wstring m_wallpaper;
    KvSystemApi m_api = KvDefaultSystemApi();
    CDesktopOptions& Options() { return m_window->DesktopOptions(); }

    std::unique_ptr<ParkedTrayWindow> m_tray;
    CTaskBarWindow* m_window = nullptr;
};

} // namespace

TEST_F(DesktopOptions, EachEffectIsSwitchedOffOnlyWhenOnAndPutBackWhenTheLastViewerLeaves)
{
    SetProfileString(L"FontSmoothing", L"2");
    for (const DesktopEffect& e : KV_EFFECTS)
    {
        for (UINT uWasOn : {1u, 0u})
        {
            SCOPED_TRACE(testing::Message() << "bit 0x" << std::hex << e.nBit << " was on " << uWasOn);
            for (const DesktopEffect& other : KV_EFFECTS)
                Put(other, 1);
            Put(e, uWasOn);
            ASSERT_EQ(uWasOn, Get(e) != 0);
            Apply(e.nBit);
            EXPECT_EQ(0u, Get(e));
            EXPECT_EQ(uWasOn ? 1 | e.nBit : 1, Options().Changed());
            EXPECT_EQ(uWasOn != 0, NotePresent());
            for (const DesktopEffect& other : KV_EFFECTS)
                EXPECT_TRUE(other.nBit == e.nBit || Get(other) != 0) << std::hex << other.nBit;
            Restore();
            EXPECT_EQ(uWasOn, Get(e) != 0);
        }
    }
}

TEST_F(DesktopOptions, WhatTheUserHadOffOrTooLongToReadBackStaysOff)
{
    // Paths of 129 and 130 units: only the first fits the 260 bytes read back from the profile.
    const std::wstring folder = L"C:\\kvtest-wallpaper";
    CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring fits = folder + L"\\" + std::wstring(105, L'w') + L".bmp", tooLong = fits + L"p";
    const struct
    {
        const char* szCase;
        const wchar_t* szFontSmoothing;
        std::wstring wallpaper;
        int nChanged;
        UINT uFontAfter;
        std::wstring wallpaperAfter;
    } rows[] = {
        {"smoothing on, wallpaper that fits", L"2", fits, 0x15, 1, fits},
        {"smoothing off in the profile", L"0", fits, 0x15, 0, fits},
        {"wallpaper too long for the profile read", L"2", tooLong, 0x15, 1, L""},
        {"no wallpaper", L"2", L"", 0x11, 1, L""},
    };
    for (const auto& r : rows)
    {
        SCOPED_TRACE(r.szCase);
        SetProfileString(L"FontSmoothing", r.szFontSmoothing);
        SetProfileString(L"Wallpaper", r.wallpaper);
        Put(KV_EFFECTS[0], 1);
        PutWallpaper(r.wallpaper);
        ASSERT_EQ(r.wallpaper, Wallpaper());
        Apply(0x0014);
        EXPECT_EQ(r.nChanged, Options().Changed());
        EXPECT_EQ(0u, Get(KV_EFFECTS[0]));
        EXPECT_EQ(L"", Wallpaper());
        Restore();
        EXPECT_EQ(r.uFontAfter, Get(KV_EFFECTS[0]));
        EXPECT_EQ(r.wallpaperAfter, Wallpaper());
    }
    RemoveDirectoryW(folder.c_str());
}

TEST_F(DesktopOptions, BeforeTheShellIsUpTheRequestWaitsForItsTaskbar)
{
    const DesktopEffect& shadow = KV_EFFECTS[2];
    const DesktopEffect& fade = KV_EFFECTS[3];
    Put(shadow, 1);
    Put(fade, 1);
    KvScopedSystemApi scoped(m_api);
    g_bShellUp = false;
    Options().Set(shadow.nBit);
    Options().Set(fade.nBit); // ignored while one waits
    // The window's own timers run: nothing happens while the taskbar is missing.
    ParkedTrayWindow::Pump(1000);
    EXPECT_NE(0u, Get(shadow));
    g_bShellUp = true;
    ParkedTrayWindow::Pump(kE2eWait, [&] { return Options().Changed() != 1; });
    EXPECT_EQ(0u, Get(shadow));
    EXPECT_NE(0u, Get(fade));
    EXPECT_EQ(1 | shadow.nBit, Options().Changed());
}

// An agent killed with options off left its note: the next agent in the session puts them back.
TEST_F(DesktopOptions, AKilledAgentsOptionsComeBackWhenTheNextAgentStarts)
{
    const DesktopEffect& shadow = KV_EFFECTS[2];
    Put(shadow, 1);
    Apply(shadow.nBit);
    ASSERT_TRUE(NotePresent());
    // The note names a process that has ended.
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    wchar_t szLine[] = L"cmd.exe /c exit";
    ASSERT_TRUE(CreateProcessW(nullptr, szLine, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                               &si, &pi));
    WaitForSingleObject(pi.hProcess, INFINITE);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    const DWORD note[] = {static_cast<DWORD>(1 | shadow.nBit), pi.dwProcessId};
    RegSetKeyValueW(HKEY_CURRENT_USER, kDesktopNoteKey, L"DesktopOptionsChanged", REG_BINARY, note,
                    sizeof note);
    ParkedTrayWindow next;
    EXPECT_NE(0u, Get(shadow));
    EXPECT_FALSE(NotePresent());
}

// The agent's own ends, the service's exit request and the link dropping, put the options back
// before the agent is gone: its restore runs with the changed mask and the note is cleared.
TEST_F(DesktopOptions, TheServicesExitAndADroppedLinkRestoreBeforeTheAgentEnds)
{
    Put(KV_EFFECTS[2], 1);
    for (const std::string end : {"exit", "hang-up"})
    {
        Resident r;
        ASSERT_TRUE(r.Launch());
        r.sim.Play({"effects 0x40", "expect 50005"});
        ASSERT_TRUE(r.WaitForLog("INFO", "DesktopOptions", "m_nDesktopResets=65")) << r.Story();
        r.sim.Play({end});
        EXPECT_EQ(end == "exit" ? Code(KV_EXIT_CODE_ENDED) : 0u, r.agent.Wait(kE2eWait)) << end << r.Story();
        // Once when switched off, then by the restore.
        EXPECT_EQ(2u, CountMessage(r.LogLines(), "INFO", "DesktopOptions", "m_nDesktopResets=65"))
            << end << r.Story();
        EXPECT_FALSE(NotePresent()) << end;
    }
}
