// The service's link cut after byte k of everything it sends: the handshake, the desktop effects,
// the transfer's temporary files, a drop window, a 41,164-byte reverse-connection result and a chat
// message. Each cut gets an agent of its own, which must end by itself and in order. The test runs
// every fourth cut point; KVNXST_CUT_ALL=1 (make cut) runs them all. Both print a table.
#include "desktop_effects.h"
#include "resident_agent.h"

#include "KvServiceMessages.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

constexpr std::size_t kChatUnits = 300;

// What the simulator sends, in order: the script line that sends it after the handshake (none for
// the handshake's own records) and its size.
struct Piece
{
    const char* name;
    std::string line;
    std::size_t size;
};

std::vector<Piece> Stream(const std::wstring& folder)
{
    const std::string at = Narrow(folder);
    std::string slashed = at;
    for (char& c : slashed)
        c = c == '\\' ? '/' : c;
    return {
        {"version", "", sizeof(MSG_VERSION)},
        {"init", "", sizeof(MSG_TRAYICON_INIT)},
        {"settings", "", sizeof(MSG_TRAYICON_SETTINGS)},
        {"effects", "effects 0x40", 8},
        {"sft-init", "sft-init kvtest-cut-none " + slashed + "cut.ini " + slashed + "cut.dat",
         sizeof(MSG_TRAYICON_SFT_INIT_TEMP)},
        {"sft-drop", "sft-drop 7 name=alice", sizeof(MSG_TRAYICON_SFT_DROP_CLIENT)},
        {"reverse", "reverse 102", sizeof(MSG_REVERSE_CONNECTION)},
        {"chat", "chat alice units=" + std::to_string(kChatUnits), sizeof(MSG_CHAT_MESSAGE) + 2 * kChatUnits},
    };
}

// Every record's first bytes (its id cut anywhere, then whole) and its last, then points spread
// over each record in proportion to its size: 200 and more in all.
std::vector<std::size_t> CutPoints(const std::vector<Piece>& stream)
{
    std::size_t total = 0;
    for (const Piece& p : stream)
        total += p.size;
    std::set<std::size_t> points;
    std::size_t start = 0;
    for (const Piece& p : stream)
    {
        for (std::size_t k :
             {std::size_t{0}, std::size_t{1}, std::size_t{3}, std::size_t{4}, std::size_t{5}, p.size - 1})
            points.insert(start + k);
        const std::size_t spread = 2 + 160 * p.size / total;
        for (std::size_t i = 1; i <= spread; ++i)
            points.insert(start + p.size * i / (spread + 1));
        start += p.size;
    }
    return {points.begin(), points.end()};
}

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// One row of the table: "ok", "-" where what it checks never came to be, or what went wrong.
struct Row
{
    std::size_t offset = 0;
    std::string where, code, icon, options, files, drop, children, reason;
    bool Passed() const
    {
        for (const std::string* s : {&code, &icon, &options, &files, &drop, &children, &reason})
            if (*s != "ok" && *s != "-")
                return false;
        return true;
    }
};

std::string Check(bool bReached, bool bHeld)
{
    return !bReached ? "-" : bHeld ? "ok" : "FAIL";
}

Row CutAt(std::size_t offset, const std::vector<Piece>& stream, const DesktopEffect& effect,
          std::string& story)
{
    Row row;
    row.offset = offset;
    std::size_t start = 0;
    for (const Piece& p : stream)
    {
        if (offset < start + p.size || &p == &stream.back())
        {
            row.where = std::string(p.name) + "+" + std::to_string(offset - start);
            break;
        }
        start += p.size;
    }
    kvsim::ServerOptions options = SimThread::Options(OwnSession());
    options.engine.dwInitEffects = static_cast<std::uint32_t>(effect.nBit);
    options.cutAfterBytes = offset;
    Resident r(options);
    const std::wstring ini = r.folder.Path() + L"cut.ini", data = r.folder.Path() + L"cut.dat";
    if (!r.Ready() || !r.folder.Add(L"KVNXChat.dll", L"KVNXChat.dll") || !r.Start())
    {
        row.code = "no start";
        return row;
    }
    for (const Piece& p : Stream(r.folder.Path()))
        if (!p.line.empty())
            r.sim.Play({p.line});
    const DWORD dwCode = r.agent.Wait(kE2eWait);
    r.sim.Finish();
    const std::vector<std::string> lines = r.LogLines();
    row.code = dwCode == 0 ? "ok" : "FAIL " + std::to_string(static_cast<int>(dwCode));
    row.icon = Check(true, !r.shell.Read().bHeld);
    const bool bStripped = CountMessage(lines, "INFO", "DesktopOptions",
                                        "m_nDesktopResets=" + std::to_string(1 | effect.nBit)) != 0;
    row.options = Check(bStripped, Get(effect) != 0 && !NotePresent());
    row.files = Check(CountContaining(lines, "Create: ") != 0, !Exists(ini) && !Exists(data));
    const std::size_t opened = CountContaining(lines, "Drop window for viewer 7 at position");
    row.drop = Check(opened != 0, opened == CountContaining(lines, "Drop window for viewer 7 closed."));
    row.children = Check(true, kvui::ChildProcesses(r.agent.Id()).empty());
    row.reason =
        Check(true, CountMessage(lines, "INFO", "ConnectionInfo",
                                 "The connection to the service ended; closing the tray window.") == 1);
    if (!row.Passed())
        story += "--- cut after byte " + std::to_string(offset) + "\n" + r.Story();
    return row;
}

} // namespace

TEST(LinkCut, AfterEveryCutTheAgentEndsInOrder)
{
    const DesktopEffect& shadow = KV_EFFECTS[2];
    const DWORD dwWas = Get(shadow);
    Put(shadow, 1);
    const std::vector<Piece> stream = Stream(L"");
    const std::vector<std::size_t> all = CutPoints(stream);
    const char* szAll = std::getenv("KVNXST_CUT_ALL");
    const std::size_t stride = szAll != nullptr && *szAll == '1' ? 1 : 4;

    std::printf("%8s %-16s %-6s %-5s %-8s %-6s %-6s %-8s %-6s\n", "byte", "record+at", "exit", "icon",
                "options", "files", "drop", "children", "reason");
    std::size_t tried = 0, passed = 0;
    std::string story;
    for (std::size_t i = 0; i < all.size(); i += stride)
    {
        const Row row = CutAt(all[i], stream, shadow, story);
        ++tried;
        passed += row.Passed() ? 1 : 0;
        std::printf("%8zu %-16s %-6s %-5s %-8s %-6s %-6s %-8s %-6s\n", row.offset, row.where.c_str(),
                    row.code.c_str(), row.icon.c_str(), row.options.c_str(), row.files.c_str(),
                    row.drop.c_str(), row.children.c_str(), row.reason.c_str());
        std::fflush(stdout);
    }
    std::printf("cut points: %zu passed of %zu tried (%zu in the full set)\n", passed, tried, all.size());
    Put(shadow, dwWas);
    EXPECT_EQ(tried, passed) << story;
}
