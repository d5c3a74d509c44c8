// The whole simulator over loopback sockets, with the fake agent on its own thread: the runs that
// must fail, which the built agent never causes.
#include "FakeAgent.h"
#include "SimServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

using kvsim_test::Bytes;

namespace
{

// How the agent misbehaves: one answer of the given size resized, and perhaps gone right after.
struct Fault
{
    std::uint32_t answerTo = 0;
    std::size_t size = 0;
    std::size_t newSize = 0;
    bool vanish = false;
};

void RunAgent(std::uint16_t port, const Fault& fault, std::atomic<bool>& stop)
{
    kvsim::Socket link;
    std::string failure;
    if (!kvsim::ConnectLoopback(link, true, port, failure))
        return;
    kvsim::SetReceiveTimeout(link, 100);
    kvsim_test::FakeAgent agent;
    bool bent = false;
    agent.bend = [&](std::uint32_t type, Bytes& answer)
    {
        if (type == fault.answerTo && answer.size() == fault.size)
            answer.resize(fault.newSize), bent = true;
    };
    while (!stop)
    {
        Bytes in(65536);
        const long n = kvsim::RecvSome(link, in.data(), in.size());
        if (n == 0)
            return;
        const Bytes out = agent.OnServiceBytes(in.data(), n > 0 ? static_cast<std::size_t>(n) : 0);
        kvsim::SendAll(link, out.data(), out.size());
        if ((bent && fault.vanish) || agent.exitRequested || agent.LinkBroken())
            return; // after an exit request the agent closes and ends
    }
}

struct Session
{
    int Run(const std::vector<std::string>& lines, const Fault& fault = {})
    {
        kvsim::ServerOptions options; // any free port; the port query runs end to end
        options.tcpPort = 0;
        options.udp = false;
        options.acceptTimeoutMs = 10000;
        options.handshakeTimeoutMs = 1500;
        kvsim::LineQueue script;
        for (const std::string& line : lines)
            script.Push(line);
        script.Close();
        kvsim::Server server(options, trace, trace);
        std::string error;
        if (!server.Open(error))
        {
            ADD_FAILURE() << error;
            return -1;
        }
        std::atomic<bool> stop{false};
        std::thread agent([&] { RunAgent(server.TcpPort(), fault, stop); });
        const int rc = server.Run(script);
        stop = true;
        agent.join();
        return rc;
    }

    bool Traced(const std::string& what) const { return trace.str().find(what) != std::string::npos; }

    std::ostringstream trace;
};

} // namespace

TEST(Loopback, RunsThatMustFail)
{
    const struct
    {
        const char* what;
        std::vector<std::string> script;
        Fault fault;
        std::vector<const char*> traced;
    } cases[] = {
        {"the agent vanishing mid-record",
         {"connect alice"},
         {MSG_TYPE_TRAYICON_SETTINGS, 1068, 100, true},
         {"inside MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION: 100 of 1068"}},
        {"an unmet expectation",
         {"expect MSG_TYPE_TRAYICON_SESSION_END 200", "exit", "expect-closed"},
         {},
         {"expected MSG_TYPE_TRAYICON_SESSION_END from the agent within 200 ms"}},
    };
    for (const auto& c : cases)
    {
        Session session;
        EXPECT_EQ(1, session.Run(c.script, c.fault)) << c.what;
        for (const char* text : c.traced)
            EXPECT_TRUE(session.Traced(text)) << c.what << ": " << text << " not in:\n"
                                              << session.trace.str();
    }
}

// The agent lets the link go inside a chat body that announces more than it would skip, likely while
// the simulator is still sending it: the script's expectation judges that, the failed send is no
// error.
TEST(Loopback, TheAgentMayEndTheLinkInsideAHugeChatBody)
{
    Session session;
    EXPECT_EQ(0, session.Run({"chat alice bytes=16777216 length=4294967295", "expect-closed"}))
        << session.trace.str();
    EXPECT_TRUE(session.Traced("length=4294967295 text=\"Grüße, señor")) << session.trace.str();
}
