// The file transfer through the built agent and the simulator. The temporary files: made new in
// the user's context and remembered in the registry, the service's event set whatever happened,
// and each file deleted on request with its value; a name already taken, an unknown file type and
// an event nobody made are logged and lose nothing. The drop windows: one per viewer, toggled by a
// second request, all closed with the last viewer; files dragged onto one from this process or
// chosen with its button reach the service's list in order, names of any script and length intact.
#include "resident_agent.h"

#include "resource.h"

#include <ole2.h>
#include <shlobj.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

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

// A path inside a quoted script text, where a backslash escapes.
std::string Quoted(const std::wstring& path)
{
    std::string text;
    for (char c : Narrow(path))
        text += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return text;
}

std::string ListOf(const std::vector<std::wstring>& paths)
{
    std::string list;
    for (const std::wstring& path : paths)
        list += (list.empty() ? "" : "|") + Quoted(path);
    return "\"" + list + "\"";
}

std::vector<HWND> DropWindows(const Resident& r)
{
    return AgentDialogsWith(r, IDC_SFT_DROP_AREA);
}

HWND WaitForDropWindowOf(const Resident& r, const std::wstring& viewer)
{
    HWND hFound = nullptr;
    WaitUntil(
        [&]
        {
            for (HWND hDrop : DropWindows(r))
                if (kvui::ReadText(GetDlgItem(hDrop, IDC_SFT_VIEWER)).value_or(L"").find(viewer) !=
                    std::wstring::npos)
                    return (hFound = hDrop) != nullptr;
            return false;
        });
    return hFound;
}

// Drags from a thread of the agent's desktop, where the drop window can be found under the cursor.
std::optional<DWORD> Drag(Resident& r, HWND hTarget, const std::vector<std::wstring>& paths,
                          bool asText = false)
{
    std::optional<DWORD> effect;
    r.shell.Run([&](FakeShell&) { effect = kvui::DragFiles(hTarget, paths, asText); });
    return effect;
}

std::wstring MakeFile(const std::wstring& path)
{
    WriteTextFile(path, "x");
    return path;
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
    EXPECT_TRUE(r.WaitForLog("WARN", "SFT_DropWindow", "Cannot open event. Last error: 2"));
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

TEST(FileTransfer, DropWindowsTogglePerViewerAndAllCloseWithTheLastViewer)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"sft-drop 7 name=alice", "sft-drop 8"});
    const HWND hAlice = WaitForDropWindowOf(r, L"alice");
    ASSERT_NE(nullptr, hAlice) << r.Story();
    ASSERT_NE(nullptr, WaitForDropWindowOf(r, L"the viewer"));

    // A second request for a viewer closes its window, a third opens it again.
    r.sim.Play({"sft-drop 7 name=alice"});
    EXPECT_TRUE(kvui::WaitUntilGone(hAlice, kE2eWait));
    EXPECT_TRUE(r.WaitForLog("INFO", "SFT_DropWindow", "Viewer 7; drop windows left: 1"));
    EXPECT_EQ(1u, DropWindows(r).size());
    r.sim.Play({"sft-drop 7 name=alice"});
    EXPECT_NE(nullptr, WaitForDropWindowOf(r, L"alice"));

    // Without a settings file the files go to the clipboard; with no event the service is not told.
    const TempFolder folder;
    const std::wstring file = MakeFile(folder.Path() + L"notes.txt");
    EXPECT_EQ(std::optional<DWORD>(DROPEFFECT_COPY), Drag(r, WaitForDropWindowOf(r, L"the viewer"), {file}));
    EXPECT_TRUE(r.WaitForLog("WARN", "SFT_DropWindow", "The service named no event to set."));
    ASSERT_TRUE(OpenClipboard(nullptr));
    const HANDLE hList = GetClipboardData(RegisterClipboardFormatW(L"KVNXS_Files"));
    const auto* pList = hList != nullptr ? static_cast<const DROPFILES*>(GlobalLock(hList)) : nullptr;
    EXPECT_EQ(file, pList != nullptr ? std::wstring(reinterpret_cast<const wchar_t*>(pList + 1)) : L"");
    if (pList != nullptr)
        GlobalUnlock(hList);
    CloseClipboard();

    // A record whose texts all lack their end: each is cut inside its field and the window shows it.
    r.sim.Play({"raw 67001 2120 fill=65"});
    EXPECT_TRUE(
        r.WaitForLog("WARN", "ConnectionInfo",
                     "MSG_TRAYICON_SFT_DROP_CLIENT.szFileListPath has no terminator; cut to 260 units."));
    EXPECT_NE(nullptr, WaitForDropWindowOf(r, std::wstring(260, L'\x4141')));

    // The last viewer leaving closes every window and empties the list.
    r.sim.Play({"connect alice", "disconnect alice count=0"});
    EXPECT_TRUE(WaitUntil([&] { return DropWindows(r).empty(); })) << r.Story();
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            const std::string log = r.folder.Log();
            return log.find("Viewer 7; drop windows left: 0") != std::string::npos ||
                   log.find("Viewer 8; drop windows left: 0") != std::string::npos ||
                   log.find("Viewer 1094795585; drop windows left: 0") != std::string::npos;
        }));
    EXPECT_TRUE(r.ExitsOnRequest());
}

TEST(FileTransfer, DroppedAndChosenFilesAreListedForTheServiceInOrder)
{
    const TempFolder folder;
    // Over 200 characters, and a name in three scripts.
    std::wstring deep = folder.Path();
    while (deep.size() < 200)
        deep += L"nested-folder-of-the-user\\";
    for (std::size_t i = folder.Path().size(); i < deep.size(); ++i)
        if (deep[i] == L'\\')
            CreateDirectoryW(deep.substr(0, i).c_str(), nullptr);
    const std::vector<std::wstring> files = {
        MakeFile(folder.Path() + L"report.pdf"),
        MakeFile(folder.Path() + L"Bericht \u00fcber \u6587\u4ef6 \u0444.txt"),
        MakeFile(deep + L"plan.docx")};
    const std::wstring ini = folder.Path() + L"transfer.ini";
    const std::string event = "kvtest-drop-" + std::to_string(GetCurrentProcessId());

    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"sft-init " + event + "-init " + Word(ini) + " " + Word(folder.Path() + L"transfer.dat"),
                "sft-drop 3 name=carol event=" + event + " list=" + Word(ini)});
    HWND hDrop = WaitForDropWindowOf(r, L"carol");
    ASSERT_NE(nullptr, hDrop) << r.Story();

    // What is not a list of files is refused, and so is a drop with no file in it: the window stays.
    EXPECT_EQ(std::optional<DWORD>(DROPEFFECT_NONE), Drag(r, hDrop, files, true));
    EXPECT_EQ(std::optional<DWORD>(DROPEFFECT_COPY), Drag(r, hDrop, {}));
    EXPECT_TRUE(r.WaitForLog("WARN", "SFT_DropWindow", "The drop held no files."));
    EXPECT_NE(L"", kvui::ReadText(GetDlgItem(hDrop, IDC_SFT_STATUS)).value_or(L""));

    // The files and a folder: the files are listed in order, the folder is left out, the window goes.
    std::vector<std::wstring> dropped = files;
    dropped.insert(dropped.begin() + 1, folder.Path() + L"nested-folder-of-the-user");
    EXPECT_EQ(std::optional<DWORD>(DROPEFFECT_COPY), Drag(r, hDrop, dropped));
    r.sim.Play({"expect-sft-files 3 files=" + ListOf(files)});
    EXPECT_TRUE(kvui::WaitUntilGone(hDrop, kE2eWait));

    // The same files through the button and the open-file dialog go on after them.
    r.sim.Play({"sft-drop 3 name=carol event=" + event + " list=" + Word(ini)});
    hDrop = WaitForDropWindowOf(r, L"carol");
    ASSERT_TRUE(kvui::ClickButton(hDrop, IDC_SFT_CHOOSE));
    kvui::WindowQuery chooser;
    chooser.title = L"Choose files to send";
    chooser.desktop = r.desktop.Name();
    const HWND hChooser = kvui::WaitForWindow(chooser, kE2eWait);
    ASSERT_NE(nullptr, hChooser) << r.Story();
    // The file name is the edit inside the combo box 1148 (cmb13).
    HWND hName = nullptr;
    for (const kvui::Control& control : kvui::ListControls(hChooser))
        if (control.id == 1148 && control.className == L"ComboBox")
            hName = control.hWnd;
    ASSERT_TRUE(kvui::TypeText(hName, 1148, deep));
    ASSERT_TRUE(kvui::ClickButton(hChooser, IDOK));
    // In the deep folder once "Look in" (1137) names it.
    ASSERT_TRUE(WaitUntil(
        [&] { return kvui::ReadText(GetDlgItem(hChooser, 1137)) == L"nested-folder-of-the-user"; }));
    ASSERT_TRUE(kvui::TypeText(hName, 1148, L"\"plan.docx\""));
    ASSERT_TRUE(kvui::ClickButton(hChooser, IDOK));
    std::vector<std::wstring> listed = files;
    listed.push_back(deep + L"plan.docx");
    r.sim.Play({"expect-sft-files 3 files=" + ListOf(listed)});
    EXPECT_TRUE(kvui::WaitUntilGone(hDrop, kE2eWait));

    // A thousand files at once.
    std::vector<std::wstring> many;
    for (int i = 0; i < 1000; ++i)
        many.push_back(MakeFile(folder.Path() + L"many-" + std::to_wstring(i) + L".txt"));
    r.sim.Play({"sft-drop 3 name=carol event=" + event + " list=" + Word(ini)});
    hDrop = WaitForDropWindowOf(r, L"carol");
    EXPECT_EQ(std::optional<DWORD>(DROPEFFECT_COPY), Drag(r, hDrop, many));
    r.sim.Play({"expect-sft-files 3 count=1004"});
    EXPECT_TRUE(r.ExitsOnRequest());
}
