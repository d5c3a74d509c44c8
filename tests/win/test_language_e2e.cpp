// The language loop through the built agent and the simulator: the user's pick goes to the service,
// which stores it and asks the agent to reconfigure; the agent then speaks the new language in its
// pop-up and About box, and starts in it next time.
#include "resident_agent.h"

#include "resource.h"

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

struct Language
{
    const wchar_t* szCode;
    UINT uCommand;
    const wchar_t* szAboutCaption;
    const char* szDisconnected; // the pop-up's first line when a viewer leaves
};

const Language kFrench{L"fr", IDM_LANGUAGE_FR, L"\u00c0 propos de Kestrova Vexa Remote Control",
                       "Un utilisateur distant s'est d\xC3\xA9"
                       "connect\xC3\xA9."};
const Language kGerman{L"de", IDM_LANGUAGE_DE, L"Info \u00fcber Kestrova Vexa Remote Control",
                       "Ein Remotebenutzer hat die Verbindung getrennt."};

// The agent's folder gets the translations the build made beside it.
bool Translated(const Resident& r)
{
    for (const wchar_t* szCode : {L"fr", L"de"})
    {
        const std::wstring library = std::wstring(L"Localization\\") + szCode + L"\\KVNXSTRES.dll";
        CreateDirectoryW((r.folder.Path() + L"Localization").c_str(), nullptr);
        CreateDirectoryW((r.folder.Path() + L"Localization\\" + szCode).c_str(), nullptr);
        if (!r.folder.Add(library.c_str(), library.c_str()))
            return false;
    }
    return true;
}

// The About box opens under the language's caption and closes again.
bool AboutSpeaks(Resident& r, const Language& language)
{
    PostMessageW(r.TrayWindow(), WM_COMMAND, IDM_ABOUT, 0);
    r.sim.Play({"expect 70040", "addresses 10.0.0.1"});
    const HWND hAbout =
        WaitForDesktopWindow(r.desktop.Name(), L"#32770", language.szAboutCaption, kE2eWait, true);
    return hAbout != nullptr && kvui::ClickButton(hAbout, IDOK) && kvui::WaitUntilGone(hAbout, kE2eWait);
}

// A viewer comes and goes; the pop-up for the leave begins with the language's own line.
bool PopUpSpeaks(Resident& r, const Language& language)
{
    r.sim.Play({"connect alice", "disconnect alice"});
    return WaitUntil(
        [&]
        {
            for (HWND hWnd : DesktopWindows(r.desktop.Name(), L"#32770", L"Vexa Remote Control"))
                if (Narrow(kvui::ReadText(GetDlgItem(hWnd, IDC_NOTIFY_BODY)).value_or(L""))
                        .rfind(language.szDisconnected, 0) == 0)
                    return true;
            return false;
        });
}

} // namespace

TEST(Language, PickedInTheMenuStoredByTheServiceSpokenAtOnceAndAfterARestart)
{
    ScopedSetting stored(HKEY_CURRENT_USER, L"LangUI");
    ASSERT_TRUE(stored.Opened());
    {
        Resident r;
        ASSERT_TRUE(Translated(r) && r.Launch());
        for (const Language* pLanguage : {&kFrench, &kGerman})
        {
            const Language& language = *pLanguage;
            SCOPED_TRACE(Narrow(language.szCode));
            PostMessageW(r.TrayWindow(), WM_COMMAND, language.uCommand, 0);
            ASSERT_TRUE(r.sim.WaitTrace(" language=\"" + Narrow(language.szCode) + "\"", kE2eWait))
                << r.Story();
            // What the service does with the choice: it stores it and tells the agent to reload.
            ASSERT_TRUE(stored.SetText(language.szCode));
            r.sim.Play({"reconfigure 0"});
            const std::string library = "Resource library " + Narrow(r.folder.Path()) + "Localization\\" +
                                        Narrow(language.szCode) + "\\KVNXSTRES.dll";
            ASSERT_TRUE(WaitUntil([&] { return r.folder.Log().find(library) != std::string::npos; }))
                << r.Story();
            EXPECT_TRUE(AboutSpeaks(r, language)) << r.Story();
            EXPECT_TRUE(PopUpSpeaks(r, language)) << r.Story();
        }
        EXPECT_TRUE(r.ExitsOnRequest());
    }
    Resident restarted;
    ASSERT_TRUE(Translated(restarted) && restarted.Launch());
    EXPECT_TRUE(AboutSpeaks(restarted, kGerman)) << restarted.Story();
    EXPECT_TRUE(restarted.ExitsOnRequest());
}
