// The service's link cut after byte k of what it sends (the simulator's cut plan), an agent a cut
// point: it must end by itself and in order. Runs every fourth point; KVNXST_CUT_ALL=1 (make cut)
// runs them all. Prints a table: "ok", "-" where what a column checks never came to be, or FAIL.
#include "desktop_effects.h"
#include "resident_agent.h"

#include "SimCut.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

const char* Check(bool bReached, bool bHeld)
{
    return !bReached ? "-" : bHeld ? "ok" : "FAIL";
}

bool Passed(const std::vector<std::string>& row)
{
    return row.size() == 7 &&
           std::all_of(row.begin(), row.end(), [](const std::string& s) { return s == "ok" || s == "-"; });
}

bool Gone(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES;
}

// The row's cells after the byte offset and the record: exit, icon, options, files, drop windows,
// children, reason.
std::vector<std::string> CutAt(std::size_t offset, const DesktopEffect& effect, std::string& story)
{
    kvsim::ServerOptions options = SimThread::Options(OwnSession());
    options.engine.dwInitEffects = static_cast<std::uint32_t>(effect.nBit);
    options.cutAfterBytes = offset;
    Resident r(options);
    if (!r.Ready() || !r.folder.Add(L"KVNXChat.dll", L"KVNXChat.dll") || !r.Start())
        return {"no start"};
    std::string folder = Narrow(r.folder.Path());
    std::replace(folder.begin(), folder.end(), '\\', '/');
    const std::vector<kvsim::CutPiece> stream = kvsim::CutStream(folder);
    for (const kvsim::CutPiece& p : stream)
        if (!p.line.empty())
            r.sim.Play({p.line});
    const DWORD dwCode = r.agent.Wait(kE2eWait);
    r.sim.Finish();
    const std::vector<std::string> lines = r.LogLines();
    // What a record delivered whole must have done, and undone by the end.
    auto whole = [&](const char* szName) { return offset >= kvsim::CutPieceEnd(stream, szName); };
    const std::size_t opened = CountContaining(lines, "Drop window for viewer 7 at position");
    const std::vector<std::string> row = {
        dwCode == 0 ? "ok" : "FAIL " + std::to_string(static_cast<int>(dwCode)),
        Check(true, !r.shell.Read().bHeld),
        Check(whole("init"), CountMessage(lines, "INFO", "DesktopOptions",
                                          "m_nDesktopResets=" + std::to_string(1 | effect.nBit)) != 0 &&
                                 Get(effect) != 0 && !NotePresent()),
        Check(whole("sft-init"), CountContaining(lines, "Create: ") == 2 &&
                                     Gone(r.folder.Path() + L"cut.ini") &&
                                     Gone(r.folder.Path() + L"cut.dat")),
        Check(whole("sft-drop"),
              opened == 1 && CountContaining(lines, "Drop window for viewer 7 closed.") == 1),
        Check(true, kvui::ChildProcesses(r.agent.Handle()).empty()),
        Check(true, CountMessage(lines, "INFO", "ConnectionInfo",
                                 "The connection to the service ended; closing the tray window.") == 1)};
    if (!Passed(row))
        story += "--- cut after byte " + std::to_string(offset) + "\n" + r.Story();
    return row;
}

} // namespace

TEST(LinkCut, AfterEveryCutTheAgentEndsInOrder)
{
    const DesktopEffect& shadow = KV_EFFECTS[2];
    const DWORD dwWas = Get(shadow);
    Put(shadow, 1);
    const std::vector<kvsim::CutPiece> stream = kvsim::CutStream("");
    const std::vector<std::size_t> all = kvsim::CutPoints(stream);
    const char* szAll = std::getenv("KVNXST_CUT_ALL");
    const std::size_t stride = szAll != nullptr && *szAll == '1' ? 1 : 4;
    const char* const kFormat = "%8s %-16s %-6s %-5s %-8s %-6s %-6s %-8s %-6s\n";
    std::printf(kFormat, "byte", "record+at", "exit", "icon", "options", "files", "drop", "children",
                "reason");
    std::size_t tried = 0, failed = 0;
    std::string story;
    for (std::size_t i = 0; i < all.size(); i += stride, ++tried)
    {
        std::vector<std::string> row = CutAt(all[i], shadow, story);
        failed += Passed(row) ? 0 : 1;
        row.resize(7);
        std::printf(kFormat, std::to_string(all[i]).c_str(), kvsim::CutWhere(stream, all[i]).c_str(),
                    row[0].c_str(), row[1].c_str(), row[2].c_str(), row[3].c_str(), row[4].c_str(),
                    row[5].c_str(), row[6].c_str());
        std::fflush(stdout);
    }
    std::printf("cut points: %zu passed of %zu tried (%zu in the full set)\n", tried - failed, tried,
                all.size());
    Put(shadow, dwWas);
    EXPECT_EQ(0u, failed) << story;
}
