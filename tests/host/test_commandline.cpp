// The agent's command-line decisions, built from the same source the agent uses.
#include "CommandLine.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace
{

std::string Narrow(const std::wstring& w)
{
    std::string s;
    for (wchar_t ch : w)
        s += (ch >= 32 && ch < 127) ? static_cast<char>(ch) : '?';
    return s;
}

struct OptionCase
{
    const wchar_t* szCmdLine;
    KvCommandOption expected;
};

void ExpectOptions(const std::vector<OptionCase>& cases)
{
    for (const OptionCase& c : cases)
        EXPECT_EQ(static_cast<int>(c.expected), static_cast<int>(KvFindCommandOption(c.szCmdLine)))
            << "\"" << Narrow(c.szCmdLine) << "\"";
}

// Full-width "5000".
const wchar_t kFullWidth5000[] = L"\xFF15\xFF10\xFF10\xFF10";

} // namespace

TEST(CommandLineOptions, EachOptionIsRecognisedAlone)
{
    ExpectOptions({
        {L"-onetimesession 6200", KvCommandOption::OneTimeSession},
        {L"-Permission 5000 2", KvCommandOption::Permission},
        {L"-Invitation 5000 2", KvCommandOption::Permission},
        {L"-SettingsAsApplication", KvCommandOption::SettingsAsApplication},
        {L"-Settings", KvCommandOption::Settings},
        {L"-ValidateCert", KvCommandOption::ValidateCert},
        {L"-ConsoleLock", KvCommandOption::ConsoleLock},
        {L"-Logoff", KvCommandOption::Logoff},
        {L"-LogoffForce", KvCommandOption::LogoffForce},
        {L"-LockWorkstation", KvCommandOption::LockWorkstation},
        {L"5000", KvCommandOption::Resident},
        {L"", KvCommandOption::Resident},
        {nullptr, KvCommandOption::Resident},
    });
}

TEST(CommandLineOptions, ContainedOptionsMatchAnywhereEqualOptionsOnlyAlone)
{
    ExpectOptions({
        // Substring tests: anywhere, glued to anything.
        {L"5000 -onetimesession", KvCommandOption::OneTimeSession},
        {L"x-onetimesessionx", KvCommandOption::OneTimeSession},
        {L"child -Permission 1 2", KvCommandOption::Permission},
        {L"-Invitations", KvCommandOption::Permission},
        {L"abc-ValidateCertxyz", KvCommandOption::ValidateCert},
        {L"/path/to/cert -ValidateCert", KvCommandOption::ValidateCert},
        // Whole-line tests: any further text, even a blank, falls through to the tray agent.
        {L"-Settings extra", KvCommandOption::Resident},
        {L"-Settings ", KvCommandOption::Resident},
        {L" -Settings", KvCommandOption::Resident},
        {L"-SettingsAsApplication 1", KvCommandOption::Resident},
        {L"-Logoffx", KvCommandOption::Resident},
        {L"x-Logoff", KvCommandOption::Resident},
        {L"-Logoff -Logoff", KvCommandOption::Resident},
        {L"-LogoffForcex", KvCommandOption::Resident},
        {L"-ConsoleLock\t", KvCommandOption::Resident},
        {L"-LockWorkstation2", KvCommandOption::Resident},
    });
}

TEST(CommandLineOptions, MatchingIsCaseSensitive)
{
    ExpectOptions({
        {L"-OneTimeSession 6200", KvCommandOption::Resident},
        {L"-permission 5000 2", KvCommandOption::Resident},
        {L"-INVITATION", KvCommandOption::Resident},
        {L"-settings", KvCommandOption::Resident},
        {L"-validatecert", KvCommandOption::Resident},
        {L"-consolelock", KvCommandOption::Resident},
        {L"-logoff", KvCommandOption::Resident},
        {L"-Logofforce", KvCommandOption::Resident},
        {L"-LockWorkStation", KvCommandOption::Resident},
    });
}

TEST(CommandLineOptions, TheEarlierRowOfTheTableWins)
{
    ExpectOptions({
        {L"-ValidateCert -onetimesession 6200", KvCommandOption::OneTimeSession},
        {L"-Permission 1 2 -onetimesession", KvCommandOption::OneTimeSession},
        {L"-ValidateCert -Permission 1 2", KvCommandOption::Permission},
        {L"-Invitation -ValidateCert", KvCommandOption::Permission},
    });
}

TEST(CommandLineOptions, AVeryLongLineIsClassifiedWhole)
{
    std::wstring line(32000, L'a');
    EXPECT_EQ(KvCommandOption::Resident, KvFindCommandOption(line.c_str()));
    line.replace(line.size() - 13, 13, L"-ValidateCert");
    EXPECT_EQ(KvCommandOption::ValidateCert, KvFindCommandOption(line.c_str()));
}

TEST(CommandLineNumbers, LeadingDigitsConversionFollowsWtoi)
{
    EXPECT_EQ(5000, KvWtoi(L"5000"));
    EXPECT_EQ(42, KvWtoi(L" \t42abc"));
    EXPECT_EQ(7, KvWtoi(L"+7"));
    EXPECT_EQ(-5, KvWtoi(L"-5"));
    EXPECT_EQ(0, KvWtoi(L"abc"));
    EXPECT_EQ(0, KvWtoi(L"0x10"));
    EXPECT_EQ(0, KvWtoi(L"- 5"));
    EXPECT_EQ(0, KvWtoi(L""));
    EXPECT_EQ(0, KvWtoi(nullptr));
    EXPECT_EQ(0, KvWtoi(kFullWidth5000));
    EXPECT_EQ(INT_MAX, KvWtoi(L"2147483647"));
    EXPECT_EQ(INT_MIN, KvWtoi(L"-2147483648"));
    EXPECT_EQ(INT_MAX, KvWtoi(L"2147483648"));
    EXPECT_EQ(INT_MAX, KvWtoi(L"99999999999"));
    EXPECT_EQ(INT_MIN, KvWtoi(L"-99999999999"));
    EXPECT_EQ(INT_MAX, KvWtoi(std::wstring(32000, L'9').c_str()));
}

TEST(CommandLineNumbers, Base10ConversionFollowsA32BitWcstoul)
{
    EXPECT_EQ(6200u, KvWcstoul10(L"6200"));
    EXPECT_EQ(6200u, KvWcstoul10(L"  6200x"));
    EXPECT_EQ(0u, KvWcstoul10(L"0x10"));
    EXPECT_EQ(0u, KvWcstoul10(L"abc"));
    EXPECT_EQ(0u, KvWcstoul10(kFullWidth5000));
    EXPECT_EQ(0xFFFFFFFFu, KvWcstoul10(L"4294967295"));
    EXPECT_EQ(0xFFFFFFFFu, KvWcstoul10(L"4294967296"));
    EXPECT_EQ(0xFFFFFFFFu, KvWcstoul10(L"99999999999"));
    EXPECT_EQ(4294967291u, KvWcstoul10(L"-5"));
    EXPECT_EQ(0xFFFFFFFFu, KvWcstoul10(std::wstring(32000, L'1').c_str()));
}

TEST(CommandLinePorts, TheTrayAgentsPortIsTheLinesLeadingNumber)
{
    EXPECT_EQ(KV_PORT_NONE, KvCommandLinePort(L""));
    EXPECT_EQ(KV_PORT_NONE, KvCommandLinePort(nullptr));
    EXPECT_EQ(5000u, KvCommandLinePort(L"5000"));
    EXPECT_EQ(5000u, KvCommandLinePort(L"5000 extra"));
    // Not a number: port 0, not "none", so the service key decides or the link fails.
    EXPECT_EQ(0u, KvCommandLinePort(L"-Logoffx"));
    EXPECT_EQ(0u, KvCommandLinePort(L" "));
    EXPECT_EQ(0u, KvCommandLinePort(kFullWidth5000));
    EXPECT_EQ(0u, KvCommandLinePort(L"0x10"));
    EXPECT_EQ(static_cast<std::uint32_t>(-5), KvCommandLinePort(L"-5"));
    EXPECT_EQ(static_cast<std::uint32_t>(INT_MAX), KvCommandLinePort(L"99999999999"));
    // "-1" reads as "none" and so gets the default: a quirk of the number's range, kept.
    EXPECT_EQ(KV_PORT_NONE, KvCommandLinePort(L"-1"));

    EXPECT_TRUE(KvIsTcpPort(1));
    EXPECT_TRUE(KvIsTcpPort(65535));
    EXPECT_FALSE(KvIsTcpPort(0));
    EXPECT_FALSE(KvIsTcpPort(65536));
    EXPECT_FALSE(KvIsTcpPort(KV_PORT_NONE));
}

TEST(CommandLinePorts, OneTimePortIsTheTokenAfterTheFirstBlank)
{
    struct Case
    {
        const wchar_t* szCmdLine;
        KvOneTimePortResult result;
        std::uint32_t uiPort;
    };
    const Case cases[] = {
        {L"-onetimesession 6200", KvOneTimePortResult::Ok, 6200},
        {L"-onetimesession   6200", KvOneTimePortResult::Ok, 6200},
        {L"-onetimesession 6200 7000", KvOneTimePortResult::Ok, 6200},
        {L"-onetimesession 6200x", KvOneTimePortResult::Ok, 6200},
        {L"-onetimesession 99999999999", KvOneTimePortResult::Ok, 0xFFFFFFFF},
        {L"-onetimesession -5", KvOneTimePortResult::Ok, 4294967291u},
        {L"-onetimesession", KvOneTimePortResult::NoBlank, 0},
        {L"-onetimesession\t6200", KvOneTimePortResult::NoBlank, 0},
        {L"-onetimesession ", KvOneTimePortResult::NotANumber, 0},
        {L"-onetimesession 0", KvOneTimePortResult::NotANumber, 0},
        {L"-onetimesession abc", KvOneTimePortResult::NotANumber, 0},
        {L"-onetimesession 0x10", KvOneTimePortResult::NotANumber, 0},
        {L"-onetimesession \xFF16\xFF12\xFF10\xFF10", KvOneTimePortResult::NotANumber, 0},
        // The first blank of the line, wherever the option stands.
        {L"6200 -onetimesession", KvOneTimePortResult::NotANumber, 0},
        {L"x -onetimesession 6200", KvOneTimePortResult::NotANumber, 0},
    };
    for (const Case& c : cases)
    {
        std::uint32_t uiPort = 12345;
        EXPECT_EQ(static_cast<int>(c.result), static_cast<int>(KvParseOneTimePort(c.szCmdLine, &uiPort)))
            << Narrow(c.szCmdLine);
        EXPECT_EQ(c.result == KvOneTimePortResult::Ok ? c.uiPort : 12345u, uiPort) << Narrow(c.szCmdLine);
    }

    std::uint32_t uiPort = 0;
    const std::wstring digits = L"-onetimesession " + std::wstring(31984, L'7');
    EXPECT_EQ(KvOneTimePortResult::Ok, KvParseOneTimePort(digits.c_str(), &uiPort));
    EXPECT_EQ(0xFFFFFFFFu, uiPort);
}

TEST(CommandLinePorts, PermissionCarriesPortThenAddressFamily)
{
    int nPort = -1;
    int nAfType = -1;
    EXPECT_FALSE(KvParsePermissionArguments(L"-Permission", &nPort, &nAfType));
    EXPECT_EQ(-1, nPort);
    EXPECT_EQ(-1, nAfType);

    ASSERT_TRUE(KvParsePermissionArguments(L"-Permission 5000 2", &nPort, &nAfType));
    EXPECT_EQ(5000, nPort);
    EXPECT_EQ(2, nAfType);
    ASSERT_TRUE(KvParsePermissionArguments(L"-Invitation 5001 23", &nPort, &nAfType));
    EXPECT_EQ(5001, nPort);
    EXPECT_EQ(23, nAfType);
    ASSERT_TRUE(KvParsePermissionArguments(L"-Permission  5002  23", &nPort, &nAfType));
    EXPECT_EQ(5002, nPort);
    EXPECT_EQ(23, nAfType);
    ASSERT_TRUE(KvParsePermissionArguments(L"-Permission 5003", &nPort, &nAfType));
    EXPECT_EQ(5003, nPort);
    EXPECT_EQ(0, nAfType);
    ASSERT_TRUE(KvParsePermissionArguments(L"-Permission abc 2", &nPort, &nAfType));
    EXPECT_EQ(0, nPort);
    EXPECT_EQ(2, nAfType);
}

TEST(StartupNames, SingleInstanceObjectIsNamedAfterTheDesktop)
{
    EXPECT_EQ(L"Default Kestrova Vexa Remote Control Tray Icon", KvInstanceObjectName(L"Default"));
    EXPECT_EQ(L"Kestrova Brontal Utilities Vexa Remote Control Tray Icon", KvInstanceObjectName(nullptr));
    EXPECT_EQ(L"Kestrova Brontal Utilities Vexa Remote Control Tray Icon", KvInstanceObjectName(L""));
    EXPECT_NE(KvInstanceObjectName(L"Default"), KvInstanceObjectName(L"Other"));
}

TEST(StartupNames, AccountAndDesktopNames)
{
    EXPECT_TRUE(KvIsSystemAccount(L"SYSTEM"));
    EXPECT_TRUE(KvIsSystemAccount(L"system"));
    EXPECT_TRUE(KvIsSystemAccount(L"SyStEm"));
    EXPECT_FALSE(KvIsSystemAccount(L"systems"));
    EXPECT_FALSE(KvIsSystemAccount(L"syste"));
    EXPECT_FALSE(KvIsSystemAccount(L""));
    EXPECT_FALSE(KvIsSystemAccount(nullptr));

    EXPECT_TRUE(KvIsWinlogonDesktop(L"Winlogon"));
    EXPECT_TRUE(KvIsWinlogonDesktop(L"WINLOGON"));
    EXPECT_FALSE(KvIsWinlogonDesktop(L"Winlogon2"));
    EXPECT_TRUE(KvIsScreenSaverDesktop(L"Screen-saver"));
    EXPECT_FALSE(KvIsScreenSaverDesktop(L"screen-saver"));
    EXPECT_FALSE(KvIsScreenSaverDesktop(L"Screen-saverx"));
}

TEST(StartupNames, ConsoleLockRecordPath)
{
    wchar_t buf[260];
    ASSERT_TRUE(KvConsoleLockDataPath(L"", buf, 260));
    EXPECT_STREQ(L"\\kvnxs\\KVNXST.data", buf);
    ASSERT_TRUE(KvConsoleLockDataPath(L"C:", buf, 260));
    EXPECT_STREQ(L"C:\\kvnxs\\KVNXST.data", buf);
    ASSERT_TRUE(KvConsoleLockDataPath(L"C:\\", buf, 260));
    EXPECT_STREQ(L"C:\\kvnxs\\KVNXST.data", buf);

    // Exactly fitting, then one short: the terminator must still fit.
    wchar_t small[19];
    ASSERT_TRUE(KvConsoleLockDataPath(L"", small, 19));
    EXPECT_STREQ(L"\\kvnxs\\KVNXST.data", small);
    EXPECT_FALSE(KvConsoleLockDataPath(L"", small, 18));
    EXPECT_STREQ(L"", small);
}

TEST(StartupNames, LanguageCodesAreFolderNamesOnly)
{
    EXPECT_TRUE(KvIsLanguageCode(L"fr"));
    EXPECT_TRUE(KvIsLanguageCode(L"de"));
    EXPECT_TRUE(KvIsLanguageCode(L"zh-CN"));
    EXPECT_TRUE(KvIsLanguageCode(L"pt_BR"));
    EXPECT_TRUE(KvIsLanguageCode(L"abcdefghijklmnop"));
    EXPECT_FALSE(KvIsLanguageCode(L"abcdefghijklmnopq"));
    EXPECT_FALSE(KvIsLanguageCode(L""));
    EXPECT_FALSE(KvIsLanguageCode(nullptr));
    EXPECT_FALSE(KvIsLanguageCode(L".."));
    EXPECT_FALSE(KvIsLanguageCode(L"..\\..\\x"));
    EXPECT_FALSE(KvIsLanguageCode(L"fr\\"));
    EXPECT_FALSE(KvIsLanguageCode(L"C:"));
    EXPECT_FALSE(KvIsLanguageCode(L"f r"));
}
