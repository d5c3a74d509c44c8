// The agent's command-line decisions, built from the same source the agent uses.
#include "CommandLine.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <utility>

namespace
{

const wchar_t kFullWidth5000[] = L"\xFF15\xFF10\xFF10\xFF10";

} // namespace

TEST(CommandLine, FirstMatchingRowOfTheOptionTableDecides)
{
    using O = KvCommandOption;
    const struct
    {
        const wchar_t* szCmdLine;
        KvCommandOption expected;
    } cases[] = {
        // Substring rows match anywhere, glued to anything.
        {L"x-onetimesessionx", O::OneTimeSession},
        {L"child -Permission 1 2", O::Permission},
        {L"-Invitations", O::Permission},
        {L"abc-ValidateCertxyz", O::ValidateCert},
        // Whole-line rows want nothing else, not even a blank. Each option's own name is proved where
        // the agent runs it.
        {L" -Settings", O::Resident},
        {L"-Logoffx", O::Resident},
        {L"-ConsoleLock\t", O::Resident},
        // Case matters.
        {L"-OneTimeSession 6200", O::Resident},
        {L"-logoff", O::Resident},
        // Earlier rows win wherever they stand in the line.
        {L"-ValidateCert -onetimesession 6200", O::OneTimeSession},
        {L"-ValidateCert -Permission 1 2", O::Permission},
        {L"5000", O::Resident},
        {L"", O::Resident},
        {nullptr, O::Resident},
    };
    for (const auto& c : cases)
        EXPECT_EQ(static_cast<int>(c.expected), static_cast<int>(KvFindCommandOption(c.szCmdLine)))
            << c.szCmdLine;

    std::wstring line(32000, L'a');
    EXPECT_EQ(O::Resident, KvFindCommandOption(line.c_str()));
    line.replace(line.size() - 13, 13, L"-ValidateCert");
    EXPECT_EQ(O::ValidateCert, KvFindCommandOption(line.c_str()));
}

TEST(CommandLine, NumbersConvertLikeTheRuntimeWithAsciiDigitsOnly)
{
    EXPECT_EQ(42, KvWtoi(L" \t42abc"));
    EXPECT_EQ(-5, KvWtoi(L"-5"));
    EXPECT_EQ(0, KvWtoi(L"0x10"));
    EXPECT_EQ(0, KvWtoi(kFullWidth5000));
    EXPECT_EQ(INT_MAX, KvWtoi(L"2147483647"));
    EXPECT_EQ(INT_MIN, KvWtoi(L"-2147483648"));
    EXPECT_EQ(INT_MAX, KvWtoi(L"99999999999"));
    EXPECT_EQ(INT_MIN, KvWtoi(L"-99999999999"));
    EXPECT_EQ(INT_MAX, KvWtoi(std::wstring(32000, L'9').c_str()));

    EXPECT_EQ(0xFFFFFFFFu, KvWcstoul10(L"4294967295"));
    EXPECT_EQ(0xFFFFFFFFu, KvWcstoul10(L"4294967296"));
    EXPECT_EQ(4294967291u, KvWcstoul10(L"-5"));
    EXPECT_EQ(0u, KvWcstoul10(kFullWidth5000));
}

TEST(CommandLine, PortsOfTheTrayAgentAndOfTheOneTimeAgent)
{
    EXPECT_EQ(KV_PORT_NONE, KvCommandLinePort(L""));
    EXPECT_EQ(KV_PORT_NONE, KvCommandLinePort(nullptr));
    EXPECT_EQ(5000u, KvCommandLinePort(L"5000 extra"));
    EXPECT_EQ(0u, KvCommandLinePort(L"-Logoffx"));
    // "-1" reads as "none": a quirk of the number's range, kept.
    EXPECT_EQ(KV_PORT_NONE, KvCommandLinePort(L"-1"));

    using R = KvOneTimePortResult;
    const struct
    {
        const wchar_t* szCmdLine;
        KvOneTimePortResult result;
        std::uint32_t uiPort;
    } cases[] = {
        {L"-onetimesession   6200 7000", R::Ok, 6200},
        {L"-onetimesession 99999999999", R::Ok, 0xFFFFFFFF},
        {L"-onetimesession", R::NoBlank, 0},
        {L"-onetimesession\t6200", R::NoBlank, 0},
        {L"-onetimesession ", R::NotANumber, 0},
        {L"-onetimesession 0", R::NotANumber, 0},
        {L"-onetimesession 0x10", R::NotANumber, 0},
        // The line's first blank, wherever the option stands.
        {L"x -onetimesession 6200", R::NotANumber, 0},
    };
    for (const auto& c : cases)
    {
        std::uint32_t uiPort = 12345;
        EXPECT_EQ(static_cast<int>(c.result), static_cast<int>(KvParseOneTimePort(c.szCmdLine, &uiPort)))
            << c.szCmdLine;
        EXPECT_EQ(c.result == R::Ok ? c.uiPort : 12345u, uiPort) << c.szCmdLine;
    }
}

TEST(CommandLine, PermissionCarriesPortThenAddressFamily)
{
    int nPort = -1;
    int nAfType = -1;
    EXPECT_FALSE(KvParsePermissionArguments(L"-Permission", &nPort, &nAfType));
    EXPECT_EQ(-1, nPort);
    ASSERT_TRUE(KvParsePermissionArguments(L"-Invitation  5001  23", &nPort, &nAfType));
    EXPECT_EQ(std::make_pair(5001, 23), std::make_pair(nPort, nAfType));
    ASSERT_TRUE(KvParsePermissionArguments(L"-Permission 5003", &nPort, &nAfType));
    EXPECT_EQ(std::make_pair(5003, 0), std::make_pair(nPort, nAfType));
}

TEST(CommandLine, NamesComposedAtStartUp)
{
    EXPECT_EQ(L"Default Kestrova Vexa Remote Control Tray Icon", KvInstanceObjectName(L"Default"));
    EXPECT_EQ(L"Kestrova Brontal Utilities Vexa Remote Control Tray Icon", KvInstanceObjectName(nullptr));

    EXPECT_TRUE(KvIsWinlogonDesktop(L"WINLOGON"));
    EXPECT_FALSE(KvIsScreenSaverDesktop(L"screen-saver"));

    // The record path exactly fitting, then one short: the terminator must still fit.
    wchar_t buf[19];
    ASSERT_TRUE(KvConsoleLockDataPath(L"", buf, 19));
    EXPECT_STREQ(L"\\kvnxs\\KVNXST.data", buf);
    EXPECT_FALSE(KvConsoleLockDataPath(L"", buf, 18));
    EXPECT_STREQ(L"", buf);
    wchar_t path[64];
    ASSERT_TRUE(KvConsoleLockDataPath(L"C:\\", path, 64));
    EXPECT_STREQ(L"C:\\kvnxs\\KVNXST.data", path);

    // Language codes become folder names: nothing that walks out of "Localization\".
    EXPECT_TRUE(KvIsLanguageCode(L"zh-CN"));
    EXPECT_FALSE(KvIsLanguageCode(L""));
    EXPECT_FALSE(KvIsLanguageCode(L".."));
    EXPECT_FALSE(KvIsLanguageCode(L"..\\x"));
    EXPECT_FALSE(KvIsLanguageCode(L"abcdefghijklmnopq"));
}
