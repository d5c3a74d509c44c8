// The whole simulator over loopback sockets, with a small fake agent on its own thread: the port
// query, the handshake in order, a script with expectations, the permission and invitation
// datagrams, and a run that fails because the agent sent a record of the wrong size.
#include "FakeAgent.h"
#include "SimServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <thread>

using kvsim_test::Bytes;
using kvsim_test::FakeAgent;
using kvsim_test::ToBytes;

namespace
{

struct AgentPlan
{
    bool portQuery = true;            // ask the UDP port for the TCP port first
    bool invitation = false;          // create an invitation once the settings came
    bool closeAfterFirstBend = false; // vanish right after a bent answer
    std::function<void(std::uint32_t, Bytes&)> bend;
};

struct AgentResult
{
    std::uint16_t portFromQuery = 0;
    std::uint32_t permissionAnswerSent = 0;
    std::string invitationText;
    std::string failure;
};

Bytes Receive(kvsim::Socket& s, std::size_t max = 65536)
{
    Bytes buf(max);
    const long n = kvsim::RecvSome(s, buf.data(), buf.size());
    buf.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return buf;
}

// Datagram exchanges a real agent makes on sockets of their own.
std::uint16_t AskPort(std::uint16_t udpPort, std::string& failure)
{
    kvsim::Socket s;
    if (!kvsim::ConnectLoopback(s, false, udpPort, failure))
        return 0;
    kvsim::SetReceiveTimeout(s, 5000);
    const MSG_UDP_HEADER head = KvBuildUdpHeader(KV_UDP_PORT_QUERY);
    MSG_PORT_QUERY body;
    KvBuildPortQuery(body);
    kvsim::SendAll(s, KvBytes(head), sizeof head);
    kvsim::SendAll(s, KvBytes(body), sizeof body);
    const Bytes answer = Receive(s);
    if (answer.size() != 80)
    {
        failure = "port answer of " + std::to_string(answer.size()) + " bytes";
        return 0;
    }
    return static_cast<std::uint16_t>(KvReadU32(answer.data() + 8));
}

std::string CreateInvitation(std::uint16_t udpPort, std::string& failure)
{
    kvsim::Socket s;
    if (!kvsim::ConnectLoopback(s, false, udpPort, failure))
        return "";
    kvsim::SetReceiveTimeout(s, 5000);
    const MSG_UDP_HEADER head = KvBuildUdpHeader(KV_UDP_INVITATION_CREATE);
    auto request = std::make_unique<MSG_INVITATION_REQUEST>();
    KvInvitationFields<char16_t> f;
    f.name = u"Support";
    f.bRightA = f.bRightB = true;
    f.dwExpiry = 1;
    KvBuildInvitationRequest(*request, f);
    kvsim::SendAll(s, KvBytes(head), sizeof head);
    kvsim::SendAll(s, KvBytes(*request), sizeof *request);
    const Bytes reply = Receive(s);
    if (reply.size() != sizeof(MSG_INVITATION_REPLY) || KvReadU32(reply.data() + 4) != 0)
    {
        failure = "bad invitation reply";
        return "";
    }
    const Bytes text = Receive(s);
    return std::string(text.begin(), text.end());
}

std::uint32_t AnswerPermission(std::uint32_t port, std::string& failure)
{
    kvsim::Socket s;
    if (!kvsim::ConnectLoopback(s, false, static_cast<std::uint16_t>(port), failure))
        return 0;
    kvsim::SetReceiveTimeout(s, 5000);
    auto record = std::make_unique<MSG_PERMISSION_RECORD>();
    KvBuildPermissionQuery(*record);
    kvsim::SendAll(s, KvBytes(*record), sizeof *record);
    const Bytes request = Receive(s);
    if (!KvRecordFromBytes(*record, request.data(), request.size()))
    {
        failure = "no permission request";
        return 0;
    }
    KvSetPermissionAnswer(*record, KV_PERMISSION_ALLOWED, true, u"HOST\\alice");
    kvsim::SendAll(s, KvBytes(*record), sizeof *record);
    return KV_PERMISSION_ALLOWED;
}

void RunAgent(std::uint16_t tcpPort, std::uint16_t udpPort, const AgentPlan& plan, std::atomic<bool>& stop,
              AgentResult& result)
{
    if (plan.portQuery)
    {
        result.portFromQuery = AskPort(udpPort, result.failure);
        tcpPort = result.portFromQuery;
    }
    kvsim::Socket link;
    if (!kvsim::ConnectLoopback(link, true, tcpPort, result.failure))
        return;
    kvsim::SetReceiveTimeout(link, 100);
    FakeAgent agent;
    bool bent = false;
    agent.bend = [&](std::uint32_t type, Bytes& answer)
    {
        const Bytes before = answer;
        if (plan.bend)
            plan.bend(type, answer);
        bent = bent || answer != before;
    };
    std::size_t handled = 0;
    while (!stop)
    {
        Bytes in(65536);
        const long n = kvsim::RecvSome(link, in.data(), in.size());
        if (n == 0)
            return;
        if (n < 0)
            continue;
        const Bytes out = agent.OnServiceBytes(in.data(), static_cast<std::size_t>(n));
        if (!out.empty())
            kvsim::SendAll(link, out.data(), out.size());
        if (bent && plan.closeAfterFirstBend)
            return;
        for (; handled < agent.received.size(); ++handled)
        {
            const std::uint32_t type = agent.received[handled];
            if (type == MSG_TYPE_TRAYICON_SETTINGS && plan.invitation)
                result.invitationText = CreateInvitation(udpPort, result.failure);
            if (type == MSG_TYPE_TRAYICON_PERMISSION)
                result.permissionAnswerSent = AnswerPermission(agent.permissionPort, result.failure);
            if (type == MSG_TYPE_TRAYICON_EXIT)
                return; // as the agent does: close and end
        }
    }
}

struct Session
{
    explicit Session(const std::vector<std::string>& lines)
    {
        options.tcpPort = 0;
        options.udpPort = 0;
        options.acceptTimeoutMs = 10000;
        options.handshakeTimeoutMs = 5000;
        for (const std::string& line : lines)
            script.Push(line);
        script.Close();
    }

    int Run(const AgentPlan& plan)
    {
        kvsim::Server server(options, trace, trace);
        std::string error;
        if (!server.Open(error))
        {
            ADD_FAILURE() << error;
            return -1;
        }
        std::atomic<bool> stop{false};
        std::thread agent([&] { RunAgent(server.TcpPort(), server.UdpPort(), plan, stop, result); });
        const int rc = server.Run(script);
        stop = true;
        agent.join();
        tcpPort = server.TcpPort();
        return rc;
    }

    kvsim::ServerOptions options;
    kvsim::LineQueue script;
    std::ostringstream trace;
    AgentResult result;
    std::uint16_t tcpPort = 0;
};

} // namespace

TEST(Loopback, ScriptedRunAgainstAWellBehavedAgentSucceeds)
{
    Session session({
        "expect-invite create",
        "connect alice",
        "effects 0x1F",
        "expect MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK",
        "unblock",
        "expect 100000 2000",
        "permission \"Viewer X wants in\"",
        "expect-permission allow",
        "wait 20",
        "exit",
        "expect-closed",
    });
    AgentPlan plan;
    plan.invitation = true;
    EXPECT_EQ(0, session.Run(plan)) << session.trace.str();
    EXPECT_EQ("", session.result.failure);
    EXPECT_EQ(session.tcpPort, session.result.portFromQuery);
    EXPECT_EQ("VEXA-INVITATION:SIMULATED", session.result.invitationText);
    EXPECT_EQ(KV_PERMISSION_ALLOWED, session.result.permissionAnswerSent);
    const std::string trace = session.trace.str();
    EXPECT_NE(std::string::npos, trace.find("-- handshake complete"));
    EXPECT_NE(std::string::npos, trace.find("<< udp permission answer result=1111 (allowed)"));
    EXPECT_NE(std::string::npos, trace.find("## expect-closed"));
}

TEST(Loopback, AWronglySizedRecordFailsTheRun)
{
    Session session({"connect alice"});
    AgentPlan plan;
    plan.portQuery = false;
    plan.bend = [](std::uint32_t type, Bytes& answer)
    {
        if (type == MSG_TYPE_TRAYICON_INIT && answer.size() == 8)
            answer.resize(10);
    };
    session.options.tcpPort = 0;
    session.options.handshakeTimeoutMs = 1500;
    EXPECT_EQ(1, session.Run(plan));
    const std::string trace = session.trace.str();
    EXPECT_NE(std::string::npos, trace.find("PROTOCOL ERROR: unknown type id")) << trace;
    EXPECT_NE(std::string::npos, trace.find("handshake stalled")) << trace;
}

TEST(Loopback, AgentVanishingMidRecordFailsTheRun)
{
    Session session({"connect alice"});
    AgentPlan plan;
    plan.portQuery = false;
    plan.closeAfterFirstBend = true;
    plan.bend = [](std::uint32_t type, Bytes& answer)
    {
        if (type == MSG_TYPE_TRAYICON_SETTINGS)
            answer.resize(100);
    };
    EXPECT_EQ(1, session.Run(plan));
    EXPECT_NE(std::string::npos,
              session.trace.str().find("inside MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION: 100 of 1068"))
        << session.trace.str();
}

TEST(Loopback, AnUnmetExpectationFailsTheRun)
{
    Session session({"expect MSG_TYPE_TRAYICON_SESSION_END 200", "exit", "expect-closed"});
    AgentPlan plan;
    plan.portQuery = false;
    EXPECT_EQ(1, session.Run(plan));
    EXPECT_NE(std::string::npos, session.trace.str().find(
                                     "expected MSG_TYPE_TRAYICON_SESSION_END from the agent within 200 ms"));
}
