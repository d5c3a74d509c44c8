// The simulator's protocol engine against the fake agent, in memory: the checks that the built
// agent, which gets it right, never trips (the end-to-end tests run the good paths).
#include "FakeAgent.h"
#include "SimEngine.h"

#include <gtest/gtest.h>

#include <sstream>

using kvsim_test::Bytes;
using kvsim_test::ToBytes;

namespace
{

struct Conversation
{
    explicit Conversation(bool start = true, const kvsim::EngineOptions& options = {})
        : engine(options, reporter)
    {
        if (start)
            engine.Start(); // an agent connected: the handshake runs
        Settle();
    }

    // Moves records to and fro until neither side has anything more to say.
    void Settle()
    {
        for (Bytes toAgent = engine.TakeOutgoing(); !toAgent.empty(); toAgent = engine.TakeOutgoing())
        {
            const Bytes answers = agent.OnServiceBytes(toAgent.data(), toAgent.size());
            engine.OnAgentBytes(answers.data(), answers.size());
        }
    }

    void AgentSends(const Bytes& bytes)
    {
        engine.OnAgentBytes(bytes.data(), bytes.size());
        Settle();
    }

    bool Run(const std::string& line)
    {
        kvsim::Command cmd;
        std::string error;
        EXPECT_TRUE(kvsim::ParseCommand(line, 1, cmd, error)) << error;
        const bool ok = engine.Execute(cmd);
        Settle();
        return ok;
    }

    bool Traced(const std::string& what) const { return trace.str().find(what) != std::string::npos; }

    std::ostringstream trace;
    kvsim::Reporter reporter{trace, trace};
    kvsim::Engine engine;
    kvsim_test::FakeAgent agent;
};

} // namespace

TEST(EngineHandshake, EachWayTheAgentCanGetItWrongIsReported)
{
    const Bytes ack = ToBytes(KvBuildDesktopEffectsAck(0));
    const Bytes state = ToBytes(KvBuildDesktopState(KV_DESKTOP_STATE_NORMAL));
    // The fake answers the initialisation with the acknowledgement (8 bytes), then the echo.
    const auto ackAfterEcho = [&](Bytes& a)
    {
        if (a.size() == 8)
            a.clear();
        else
            a.insert(a.end(), ack.begin(), ack.end());
    };
    const struct
    {
        const char* error;
        std::uint32_t bentAnswerTo;
        std::function<void(Bytes&)> bend;
        std::uint32_t dwAgentSession = 0; // the fake agent answers 1
    } cases[] = {
        // clang-format off
        {"before the version exchange", MSG_TYPE_VERSION,
         [&](Bytes& a) { a.insert(a.begin(), state.begin(), state.end()); }},
        {"reserved bytes 4-7 or 24-35", MSG_TYPE_VERSION, [](Bytes& a) { a[30] ^= 1; }},
        {"before its acknowledgement", MSG_TYPE_TRAYICON_INIT, ackAfterEcho},
        {"bytes 12-16211", MSG_TYPE_TRAYICON_INIT, [](Bytes& a) { if (a.size() > 8) a[20] ^= 1; }},
        {"carries mask 3, must be 0", MSG_TYPE_TRAYICON_INIT,
         [](Bytes& a) { a[4] = a.size() == 8 ? 3 : a[4]; }},
        {"initialisation echo carries session id 2, the version echo 1", MSG_TYPE_TRAYICON_INIT,
         [](Bytes& a) { a[4] = a.size() > 8 ? 2 : a[4]; }},
        // Four bytes too many: the next id is garbage.
        {"unknown type id 0 from the agent", MSG_TYPE_TRAYICON_INIT,
         [](Bytes& a) { a.resize(a.size() == 8 ? 12 : a.size()); }},
        {"version echo carries session id 1, the agent runs in session 2", MSG_TYPE_VERSION,
         [](Bytes&) {}, 2},
        // clang-format on
    };
    for (const auto& fault : cases)
    {
        kvsim::EngineOptions options;
        options.dwAgentSession = fault.dwAgentSession;
        Conversation c(false, options);
        c.agent.bend = [&](std::uint32_t type, Bytes& answer)
        {
            if (type == fault.bentAnswerTo)
                fault.bend(answer);
        };
        c.engine.Start();
        c.Settle();
        EXPECT_TRUE(c.Traced(fault.error)) << fault.error << " not in:\n" << c.trace.str();
    }
}

TEST(EngineRunning, AnswersNobodyAskedForAndWrongMasksAreErrors)
{
    Conversation c;
    EXPECT_TRUE(c.Run("effects 0x1F"));
    EXPECT_TRUE(c.Run("unblock"));
    // Records the agent may send on its own are fine and wait for expect steps.
    c.AgentSends(ToBytes(KvBuildDesktopState(KV_DESKTOP_STATE_SCREEN_SAVER)));
    EXPECT_EQ(0u, c.reporter.ErrorCount()) << c.trace.str();

    c.AgentSends(ToBytes(KvBuildDesktopEffectsAck(1)));
    EXPECT_TRUE(c.Traced("desktop-effects acknowledgement nobody asked for"));
    c.AgentSends(ToBytes(KvBuildTypeOnly(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE)));
    EXPECT_TRUE(c.Traced("read-unblocking echo nobody asked for"));
    c.agent.bend = [](std::uint32_t, Bytes& answer) { answer[4] = 0x0F; };
    c.Run("effects 0x1F");
    EXPECT_TRUE(c.Traced("carries mask 15, the service sent 31"));
}

TEST(EngineDatagrams, PortQueryAndInvitationPeerByPeerAndStrayDatagramsAreErrors)
{
    kvsim::EngineOptions options;
    options.dwTcpPort = 6200;
    Conversation c(false, options);
    const auto exchange = [&](const std::string& peer, const Bytes& datagram)
    { return c.engine.OnServiceDatagram(peer, datagram.data(), datagram.size()); };
    MSG_PORT_QUERY query;
    KvBuildPortQuery(query);
    auto invitation = std::make_unique<MSG_INVITATION_REQUEST>();
    KvBuildInvitationRequest(*invitation, KvInvitationFields<char16_t>{u"Support", false, true});

    // Two peers at once keep their own exchanges apart.
    EXPECT_TRUE(exchange("a", ToBytes(KvBuildUdpHeader(KV_UDP_PORT_QUERY))).empty());
    EXPECT_TRUE(exchange("b", ToBytes(KvBuildUdpHeader(KV_UDP_INVITATION_CREATE))).empty());
    std::vector<Bytes> replies = exchange("a", ToBytes(query));
    ASSERT_EQ(1u, replies.size());
    ASSERT_EQ(80u, replies[0].size());
    EXPECT_EQ(6200u, KvReadU32(replies[0].data() + 8));
    replies = exchange("b", ToBytes(*invitation));
    ASSERT_EQ(2u, replies.size()); // the reply, then the invitation text it announces
    EXPECT_EQ(replies[1].size(), KvReadU32(replies[0].data() + 5712));
    EXPECT_TRUE(c.engine.TakeInvitationEvent("create"));
    EXPECT_EQ(0u, c.reporter.ErrorCount()) << c.trace.str();

    EXPECT_TRUE(exchange("d", Bytes{1, 2, 3}).empty());
    EXPECT_TRUE(c.Traced("must be 12"));
    MSG_PERMISSION_RECORD answer;
    KvBuildPermissionQuery(answer);
    EXPECT_TRUE(c.engine.OnPermissionDatagram(KvBytes(answer), sizeof answer).empty());
    EXPECT_TRUE(c.Traced("with no request open"));
}

TEST(EngineChat, ExpectChatTakesTheOldestAndReportsBothTextsAndAViewerWhoLeftIsNoError)
{
    Conversation c;
    c.Run("chat-open alice");
    c.Run("disconnect alice");
    const std::u16string text = u"Grüße\r\nשלום";
    c.AgentSends(KvBuildChatMessage(u"carol", text.data(), text.size()));
    c.AgentSends(KvBuildChatMessage(u"carol", u"hello", 5));
    EXPECT_TRUE(c.Traced("-- chat message for alice, who is gone"));
    EXPECT_EQ(0u, c.reporter.ErrorCount()) << c.trace.str();

    kvsim::Command expect;
    std::string error;
    ASSERT_TRUE(kvsim::ParseCommand("expect-chat \"Grüße\\r\\nשלום\" timeout=100", 1, expect, error));
    EXPECT_TRUE(c.engine.TakeChat(expect));
    ASSERT_TRUE(kvsim::ParseCommand("expect-chat hello!", 2, expect, error));
    EXPECT_FALSE(c.engine.TakeChat(expect));
    EXPECT_TRUE(c.Traced("line 2: chat message \"hello\" from the agent, expected \"hello!\""));
    EXPECT_FALSE(c.engine.ChatWaiting());
}

// The bodies the service builds, judged as the agent's would be: exact sizes, odd ones too, the
// pattern text at any length, and a name that fills its array.
TEST(EngineChat, BuiltBodiesHaveAnyByteCountAndThePatternIsTextAtAnyLength)
{
    Conversation c;
    c.Run("chat bob units=100000 raw-user=1");
    c.Run("chat bob bytes=1001");
    const auto problems = [&](std::size_t fromEnd)
    {
        const Bytes& rec = c.agent.records[c.agent.records.size() - fromEnd];
        std::string all;
        for (const std::string& p : kvsim::CheckAgentRecord(rec.data(), rec.size()))
            all += p + ";";
        return all;
    };
    EXPECT_EQ("chat user name: no terminating NUL in 260 units;", problems(2));
    EXPECT_EQ("chat body of 1001 bytes is no UTF-16 text;", problems(1));
}
