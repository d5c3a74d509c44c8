// The simulator's seeded soak against the built agent: random records of valid ids with long random
// text in every field it shows. It survives them, still answers, and ends on the service's exit
// request. KVNXST_SOAK_RECORDS and KVNXST_SOAK_SEED replace the count and the seed (make soak).
#include "resident_agent.h"

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

std::string FromEnvironment(const char* szName, const char* szDefault)
{
    const char* szValue = std::getenv(szName);
    return szValue != nullptr && *szValue != '\0' ? szValue : szDefault;
}

} // namespace

TEST(ResidentAgentSoak, SurvivesSeededRandomRecordsAndStillEndsOnTheExitRequest)
{
    // A virtual desktop: each notice that closes then costs the agent's work, not Wine's 2 s.
    Resident r(SimThread::Options(OwnSession()), std::wstring(), L"1024x768");
    ASSERT_TRUE(r.Ready());
    ASSERT_TRUE(r.Start());
    ASSERT_TRUE(r.sim.Handshaken(kE2eWait)) << r.Story();
    r.sim.Play({"soak " + FromEnvironment("KVNXST_SOAK_RECORDS", "1000") + " " +
                    FromEnvironment("KVNXST_SOAK_SEED", "14"),
                "unblock", "expect 100000 15000", "exit", "expect-closed 15000"});
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors();
    // The simulator's table of what was sent and answered.
    const std::string trace = r.sim.Trace();
    const std::size_t table = trace.find("-- soak done");
    if (table != std::string::npos)
        std::printf("%s", trace.substr(table, trace.find("\n##", table) + 1 - table).c_str());
    const DWORD dwCode = r.agent.Wait(kE2eWait);
    EXPECT_EQ(Code(KV_EXIT_CODE_ENDED), dwCode) << "exit code 0x" << std::hex << dwCode << r.Story();
}
