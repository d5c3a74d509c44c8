// The file transfer's temporary files through the built agent and the simulator: made new in the
// user's context and remembered in the registry, the service's event set whatever happened, and
// each file deleted on request with its value; a name already taken, an unknown file type and an
// event nobody made are logged and lose nothing.
#include "resident_agent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using namespace kvtest;

namespace
{

constexpr wchar_t kSettingsKey[] = L"Software\\Kestrova Development\\Vexa Remote Control Service\\Settings";

// The value as the agent wrote it, or "<none>".
std::wstring RegistryValue(const wchar_t* szName)
{
    wchar_t sz[1024] = {};
    DWORD cb = sizeof sz;
    if (RegGetValueW(HKEY_CURRENT_USER, kSettingsKey, szName, RRF_RT_REG_SZ, nullptr, sz, &cb) !=
        ERROR_SUCCESS)
        return L"<none>";
    return sz;
}

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The simulator's script takes a path as one word: forward slashes, which Windows takes as well.
std::string Word(std::wstring path)
{
    std::replace(path.begin(), path.end(), L'\\', L'/');
    return Narrow(path);
}

} // namespace

TEST(FileTransfer, TempFilesAreMadeNewRememberedAndDeletedOnRequest)
{
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kSettingsKey, L"SFT:TempIni");
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kSettingsKey, L"SFT:Data");
    const TempFolder folder;
    const std::wstring ini = folder.Path() + L"transfer.ini", data = folder.Path() + L"transfer.dat";
    const std::wstring eventName = L"kvtest-sft-" + std::to_wstring(GetCurrentProcessId());
    const HANDLE hEvent = CreateEventW(nullptr, TRUE, FALSE, eventName.c_str());
    ASSERT_NE(nullptr, hEvent);

    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"sft-init " + Narrow(eventName) + " " + Word(ini) + " " + Word(data)});
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hEvent, kE2eWait)) << r.Story();
    EXPECT_TRUE(Exists(ini));
    EXPECT_TRUE(Exists(data));
    EXPECT_EQ(Word(ini), Narrow(RegistryValue(L"SFT:TempIni")));
    EXPECT_EQ(Word(data), Narrow(RegistryValue(L"SFT:Data")));

    // Each file goes with its value, and only that one.
    r.sim.Play({"sft-delete 1"});
    EXPECT_TRUE(WaitUntil([&] { return !Exists(ini) && RegistryValue(L"SFT:TempIni") == L"<none>"; }));
    EXPECT_TRUE(Exists(data));
    r.sim.Play({"sft-delete 2", "sft-delete 3"});
    EXPECT_TRUE(WaitUntil([&] { return !Exists(data) && RegistryValue(L"SFT:Data") == L"<none>"; }));
    EXPECT_TRUE(r.WaitForLog("WARN", "SFT_DropWindow",
                             "CTaskBarWindow::SFT_DeleteTempFile: Unknown SFT temp file type: 3"));

    // A name already taken: that file keeps its content, no value is written, and the service is
    // still told; an event nobody made is logged.
    WriteTextFile(ini, "somebody else's");
    ResetEvent(hEvent);
    r.sim.Play({"sft-init " + Narrow(eventName) + " " + Word(ini) + " " + Word(data),
                "sft-init kvtest-no-such-event " + Word(folder.Path() + L"other.ini") + " " +
                    Word(folder.Path() + L"other.dat")});
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hEvent, kE2eWait)) << r.Story();
    EXPECT_TRUE(r.WaitForLog("ERROR", "SFT_DropWindow",
                             "CTaskBarWindow::SFT_CreateTempFiles: Unable to create file. Error: Cannot get "
                             "file handle. error code = 80"));
    EXPECT_TRUE(r.WaitForLog("WARN", "ConnectionInfo", "Cannot open event. Last error: 2"));
    EXPECT_EQ("somebody else's", ReadTextFile(ini));
    EXPECT_FALSE(Exists(data));
    EXPECT_EQ(Word(folder.Path() + L"other.ini"), Narrow(RegistryValue(L"SFT:TempIni")));

    // What the service left behind goes when the agent ends.
    EXPECT_TRUE(r.ExitsOnRequest());
    EXPECT_FALSE(Exists(folder.Path() + L"other.ini"));
    EXPECT_FALSE(Exists(folder.Path() + L"other.dat"));
    EXPECT_EQ(L"<none>", RegistryValue(L"SFT:TempIni"));
    EXPECT_EQ(L"<none>", RegistryValue(L"SFT:Data"));
    CloseHandle(hEvent);
}
