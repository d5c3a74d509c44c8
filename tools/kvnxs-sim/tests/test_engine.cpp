// The simulator's protocol engine against the fake agent, in memory: the order of the
// handshake, the strict checks, the script's records and the datagram exchanges.
#include "FakeAgent.h"
#include "SimEngine.h"

#include <gtest/gtest.h>

#include <sstream>

using kvsim_test::Bytes;
using kvsim_test::FakeAgent;
using kvsim_test::ToBytes;

namespace
{

class Conversation
{
public:
    explicit Conversation(const kvsim::EngineOptions& options = {}) : engine(options, reporter) {}

    // Moves bytes both ways until neither side has anything more to say.
    void Settle()
    {
        for (int turn = 0; turn < 100; ++turn)
        {
            const Bytes toAgent = engine.TakeOutgoing();
            if (toAgent.empty())
                return;
            const Bytes answers = agent.OnServiceBytes(toAgent.data(), toAgent.size());
            if (!answers.empty())
                engine.OnAgentBytes(answers.data(), answers.size());
        }
        FAIL() << "the conversation never settled";
    }

    void Start()
    {
        engine.Start();
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

    void AgentSends(const Bytes& bytes)
    {
        engine.OnAgentBytes(bytes.data(), bytes.size());
        Settle();
    }

    std::size_t Errors() const { return reporter.ErrorCount(); }

    bool ErrorMentions(const std::string& what) const
    {
        for (const std::string& e : reporter.Errors())
            if (e.find(what) != std::string::npos)
                return true;
        return false;
    }

    // The trace's record lines, without their details: ">> NAME" or "<< NAME".
    std::vector<std::string> Flow() const
    {
        std::vector<std::string> out;
        std::istringstream lines(trace.str());
        for (std::string line; std::getline(lines, line);)
            if (line.rfind(">> ", 0) == 0 || line.rfind("<< ", 0) == 0)
                out.push_back(line.substr(0, line.find(' ', 3)));
        return out;
    }

    template <typename T> T LastRecordAs() const
    {
        T rec;
        const Bytes& last = agent.records.back();
        EXPECT_TRUE(KvRecordFromBytes(rec, last.data(), last.size()));
        return rec;
    }

    std::ostringstream trace;
    kvsim::Reporter reporter{trace, trace};
    kvsim::Engine engine;
    FakeAgent agent;
};

} // namespace

TEST(EngineHandshake, VersionThenInitialisationThenSettingsInThatOrder)
{
    Conversation c;
    c.Start();
    EXPECT_EQ(0u, c.Errors()) << c.trace.str();
    EXPECT_TRUE(c.engine.HandshakeDone());
    const std::vector<std::string> want = {
        ">> MSG_TYPE_VERSION",
        "<< MSG_TYPE_VERSION",
        ">> MSG_TYPE_TRAYICON_INIT",
        "<< MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK",
        "<< MSG_TYPE_TRAYICON_INIT",
        ">> MSG_TYPE_TRAYICON_SETTINGS",
        "<< MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION",
    };
    EXPECT_EQ(want, c.Flow());
    EXPECT_NE(std::string::npos, c.trace.str().find("-- handshake complete"));
    // Records the handshake consumed are not left over for expect steps.
    EXPECT_FALSE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION));
}

TEST(EngineHandshake, EachWayTheAgentCanGetItWrongIsReported)
{
    {
        SCOPED_TRACE("echo before its acknowledgement");
        Conversation c;
        c.agent.bend = [](std::uint32_t type, Bytes& answer)
        {
            // The fake sends {50005, 0} and the echo as two answers; keep only the echo, then the ack.
            if (type == MSG_TYPE_TRAYICON_INIT && answer.size() == 8)
                answer.clear();
            else if (type == MSG_TYPE_TRAYICON_INIT)
            {
                const Bytes ack = ToBytes(KvBuildDesktopEffectsAck(0));
                answer.insert(answer.end(), ack.begin(), ack.end());
            }
        };
        c.Start();
        EXPECT_TRUE(c.ErrorMentions("before its acknowledgement")) << c.trace.str();
    }
    {
        SCOPED_TRACE("reserved bytes not echoed");
        Conversation c;
        c.agent.bend = [](std::uint32_t type, Bytes& answer)
        {
            if (type == MSG_TYPE_VERSION)
                answer[30] = 0;
        };
        c.Start();
        EXPECT_TRUE(c.ErrorMentions("reserved bytes 4-7 or 24-35"));
    }
    {
        SCOPED_TRACE("initialisation text not echoed");
        Conversation c;
        c.agent.bend = [](std::uint32_t type, Bytes& answer)
        {
            if (type == MSG_TYPE_TRAYICON_INIT && answer.size() > 8)
                answer[20] ^= 1;
        };
        c.Start();
        EXPECT_TRUE(c.ErrorMentions("bytes 12-16211"));
    }
    {
        SCOPED_TRACE("acknowledgement with a mask");
        Conversation c;
        c.agent.bend = [](std::uint32_t type, Bytes& answer)
        {
            if (type == MSG_TYPE_TRAYICON_INIT && answer.size() == 8)
                answer[4] = 3;
        };
        c.Start();
        EXPECT_TRUE(c.ErrorMentions("carries mask 3, must be 0"));
    }
    {
        SCOPED_TRACE("speaking before the version exchange");
        Conversation c;
        c.engine.Start();
        c.AgentSends(ToBytes(KvBuildDesktopState(KV_DESKTOP_STATE_NORMAL)));
        EXPECT_TRUE(c.ErrorMentions("before the version exchange"));
    }
}

TEST(EngineHandshake, AWronglySizedRecordBreaksTheStreamAndTheHandshake)
{
    Conversation c;
    c.agent.bend = [](std::uint32_t type, Bytes& answer)
    {
        if (type == MSG_TYPE_TRAYICON_INIT && answer.size() == 8)
            answer.resize(12); // four bytes too many: the next id is garbage
    };
    c.Start();
    EXPECT_TRUE(c.ErrorMentions("unknown type id 0 from the agent"));
    EXPECT_FALSE(c.engine.HandshakeDone());
    // Whatever follows is not interpreted any more.
    const std::size_t errors = c.Errors();
    c.AgentSends(ToBytes(KvBuildTypeOnly(99)));
    EXPECT_EQ(errors, c.Errors());
}

TEST(EngineHandshake, AgentClosingInsideARecordIsReported)
{
    Conversation c;
    c.agent.bend = [](std::uint32_t type, Bytes& answer)
    {
        if (type == MSG_TYPE_TRAYICON_SETTINGS)
            answer.resize(100);
    };
    c.Start();
    c.engine.OnAgentClosed();
    EXPECT_TRUE(c.ErrorMentions("inside MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION: 100 of 1068 bytes"))
        << c.trace.str();
    EXPECT_TRUE(c.ErrorMentions("during the handshake"));
}

TEST(EngineRunning, AnswersAreMatchedToTheirRequests)
{
    Conversation c;
    c.Start();
    ASSERT_TRUE(c.engine.HandshakeDone());

    EXPECT_TRUE(c.Run("effects 0x1F"));
    EXPECT_TRUE(c.Run("unblock"));
    EXPECT_TRUE(c.Run("desktop-info"));
    EXPECT_TRUE(c.Run("settings display-time=9"));
    EXPECT_EQ(0u, c.Errors()) << c.trace.str();
    EXPECT_TRUE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK));
    EXPECT_TRUE(c.engine.TakeReceived(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE));
    EXPECT_TRUE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION));
    EXPECT_TRUE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION));
    EXPECT_FALSE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION));

    // Answers nobody asked for, and an acknowledgement with the wrong mask.
    c.AgentSends(ToBytes(KvBuildDesktopEffectsAck(1)));
    EXPECT_TRUE(c.ErrorMentions("desktop-effects acknowledgement nobody asked for"));
    c.AgentSends(ToBytes(KvBuildTypeOnly(MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE)));
    EXPECT_TRUE(c.ErrorMentions("read-unblocking echo nobody asked for"));
    c.AgentSends(FakeAgent::UserInformation(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION));
    EXPECT_TRUE(c.ErrorMentions("desktop user information nobody asked for"));
    c.agent.bend = [](std::uint32_t, Bytes& answer) { answer[4] = 0x0F; };
    c.Run("effects 0x1F");
    EXPECT_TRUE(c.ErrorMentions("carries mask 15, the service sent 31"));

    // Records the agent may send on its own are fine and wait for expect steps.
    const std::size_t errors = c.Errors();
    c.AgentSends(ToBytes(KvBuildDesktopState(KV_DESKTOP_STATE_SCREEN_SAVER)));
    c.AgentSends(ToBytes(KvBuildTypeOnly(MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK)));
    EXPECT_EQ(errors, c.Errors());
    EXPECT_TRUE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK));
    EXPECT_TRUE(c.engine.TakeReceived(MSG_TYPE_TRAYICON_DESKTOP_STATE));
}

TEST(EngineRunning, ViewersAreCountedAndListed)
{
    Conversation c;
    c.Start();
    c.Run("connect alice");
    MSG_TRAYICON_CONNECT_INFO rec = c.LastRecordAs<MSG_TRAYICON_CONNECT_INFO>();
    EXPECT_EQ(MSG_TYPE_TRAYICON_CONNECT_NOTIFY, rec.dwType);
    EXPECT_EQ(1u, rec.dwConnections);
    EXPECT_EQ(1u, rec.dwViewerId);
    c.Run("connect bob icon=2 line3=\"from 10.0.0.9\"");
    rec = c.LastRecordAs<MSG_TRAYICON_CONNECT_INFO>();
    EXPECT_EQ(2u, rec.dwConnections);
    EXPECT_EQ(2u, rec.dwViewerId);
    EXPECT_EQ(2u, rec.dwTrayIcon);
    EXPECT_EQ(u"from 10.0.0.9", KvReadString(rec.szThirdLine));

    c.Run("notify-all");
    auto all = c.LastRecordAs<MSG_TRAYICON_NOTIFY_ALL>();
    EXPECT_EQ(u"alice\r\nbob", KvReadString(all.szText));
    EXPECT_EQ(2u, all.dwCount);

    c.Run("disconnect alice");
    rec = c.LastRecordAs<MSG_TRAYICON_CONNECT_INFO>();
    EXPECT_EQ(MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY, rec.dwType);
    EXPECT_EQ(u"alice", KvReadString(rec.szUsername));
    EXPECT_EQ(1u, rec.dwConnections);
    EXPECT_EQ(1u, rec.dwViewerId);
    c.Run("disconnect bob");
    EXPECT_EQ(0u, c.LastRecordAs<MSG_TRAYICON_CONNECT_INFO>().dwConnections);
    EXPECT_EQ(0u, c.Errors());
}

TEST(EngineRunning, ScriptCommandsBuildTheirRecords)
{
    Conversation c;
    c.Start();
    c.Run("settings-update display-time=9 caption=\"Maintenance\"");
    auto s = c.LastRecordAs<MSG_TRAYICON_SETTINGS>();
    EXPECT_EQ(MSG_TYPE_TRAYICON_SETTINGS_UPDATE, s.dwType);
    EXPECT_EQ(9u, s.dwNotifyDisplayTime);
    EXPECT_EQ(u"Maintenance", KvReadString(s.szCaption));
    c.Run("settings-update idle-icon=2"); // earlier changes stay
    s = c.LastRecordAs<MSG_TRAYICON_SETTINGS>();
    EXPECT_EQ(9u, s.dwNotifyDisplayTime);
    EXPECT_EQ(2u, s.dwIdleTrayIcon);

    c.Run("reverse 100 short=1 short-text=\"all done\"");
    auto r = std::make_unique<MSG_REVERSE_CONNECTION>(c.LastRecordAs<MSG_REVERSE_CONNECTION>());
    EXPECT_EQ(100u, r->dwStatus);
    EXPECT_EQ(u"NOERROR", KvReadString(r->szError));
    EXPECT_EQ(1u, r->bShortReport);
    EXPECT_EQ(u"all done", KvReadString(r->szShortText));
    c.Run("reverse 100 error=10061 host=viewer port=5500");
    r = std::make_unique<MSG_REVERSE_CONNECTION>(c.LastRecordAs<MSG_REVERSE_CONNECTION>());
    EXPECT_EQ(10061u, r->dwError);
    EXPECT_EQ(u"", KvReadString(r->szError));
    EXPECT_EQ(u"viewer", KvReadString(r->szHost));
    EXPECT_EQ(5500u, r->dwPort);

    c.Run("addresses 10.0.0.1, fe80::1");
    auto a = c.LastRecordAs<MSG_TRAYICON_IP_ADDRESSES>();
    EXPECT_EQ(2u, a.dwCount);
    EXPECT_EQ(u"10.0.0.1\r\nfe80::1", KvReadString(a.szAddresses));

    c.Run("chat bob hello \u00e9");
    const Bytes& chat = c.agent.records.back();
    ASSERT_EQ(528u + 14u, chat.size());
    EXPECT_EQ(14u, KvReadU32(chat.data() + 524));

    c.Run("sft-init Global\\ev C:\\t.ini C:\\t.dat");
    EXPECT_EQ(u"C:\\t.ini", KvReadString(c.LastRecordAs<MSG_TRAYICON_SFT_INIT_TEMP>().szTempIniPath));
    c.Run("raw 31337 8");
    EXPECT_EQ(0u, c.Errors());

    c.Run("exit");
    EXPECT_TRUE(c.agent.exitRequested);
    c.engine.OnAgentClosed();
    EXPECT_EQ(0u, c.Errors());
    EXPECT_NE(std::string::npos, c.trace.str().find("closed the connection (exit was requested)"));
    EXPECT_FALSE(c.Run("lock-hint"));
    EXPECT_TRUE(c.ErrorMentions("no agent connected"));
}

TEST(EngineDatagrams, PortQueryAndInvitations)
{
    kvsim::EngineOptions options;
    options.dwTcpPort = 6200;
    Conversation c(options);
    auto exchange = [&](const std::string& peer, const Bytes& datagram)
    { return c.engine.OnServiceDatagram(peer, datagram.data(), datagram.size()); };

    EXPECT_TRUE(exchange("a", ToBytes(KvBuildUdpHeader(KV_UDP_PORT_QUERY))).empty());
    MSG_PORT_QUERY query;
    KvBuildPortQuery(query);
    std::vector<Bytes> replies = exchange("a", ToBytes(query));
    ASSERT_EQ(1u, replies.size());
    ASSERT_EQ(80u, replies[0].size());
    EXPECT_EQ(6200u, KvReadU32(replies[0].data() + 8));

    // Two peers at once keep their own exchanges apart.
    exchange("b", ToBytes(KvBuildUdpHeader(KV_UDP_INVITATION_CREATE)));
    replies = exchange("c", ToBytes(KvBuildUdpHeader(KV_UDP_INVITATION_DELETE_ALL)));
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ((Bytes{0xD1, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), replies[0]);
    EXPECT_TRUE(c.engine.TakeInvitationEvent("delete"));

    auto request = std::make_unique<MSG_INVITATION_REQUEST>();
    KvInvitationFields<char16_t> f;
    f.name = u"Support";
    f.bRightB = true;
    KvBuildInvitationRequest(*request, f);
    replies = exchange("b", ToBytes(*request));
    ASSERT_EQ(2u, replies.size());
    ASSERT_EQ(5716u, replies[0].size());
    EXPECT_EQ(0u, KvReadU32(replies[0].data() + 4));
    const std::string text(replies[1].begin(), replies[1].end());
    EXPECT_EQ(text.size(), KvReadU32(replies[0].data() + 5712));
    EXPECT_TRUE(c.engine.TakeInvitationEvent("create"));
    EXPECT_EQ(0u, c.Errors()) << c.trace.str();

    // A refusal: the reply alone, with the code and message.
    c.Run("invite-error 5 \"Access denied\"");
    exchange("b", ToBytes(KvBuildUdpHeader(KV_UDP_INVITATION_CREATE)));
    replies = exchange("b", ToBytes(*request));
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(5u, KvReadU32(replies[0].data() + 4));
    EXPECT_EQ(0u, KvReadU32(replies[0].data() + 5712));

    // Faults: a wrong header, a body of the wrong size, a bad request.
    EXPECT_TRUE(exchange("d", Bytes{1, 2, 3}).empty());
    EXPECT_TRUE(c.ErrorMentions("must be 12"));
    exchange("d", ToBytes(KvBuildUdpHeader(KV_UDP_PORT_QUERY)));
    EXPECT_TRUE(exchange("d", Bytes(81, 0)).empty());
    EXPECT_TRUE(c.ErrorMentions("port query of 81 bytes"));
    request->reserved4[10] = 1;
    exchange("b", ToBytes(KvBuildUdpHeader(KV_UDP_INVITATION_CREATE)));
    EXPECT_TRUE(exchange("b", ToBytes(*request)).empty());
    EXPECT_TRUE(c.ErrorMentions("bytes 4-2055"));
}

TEST(EngineDatagrams, PermissionExchangeAnswersAndWithdrawal)
{
    Conversation c;
    c.Start();
    kvsim::Command cmd;
    std::string error;
    ASSERT_TRUE(kvsim::ParseCommand("permission deny-default=1 Viewer X wants in", 1, cmd, error));
    c.engine.StartPermission(50123, cmd);
    c.Settle();
    EXPECT_EQ(50123u, c.agent.permissionPort);
    EXPECT_EQ(2u, c.agent.permissionAf);

    auto record = std::make_unique<MSG_PERMISSION_RECORD>();
    KvBuildPermissionQuery(*record);
    std::vector<Bytes> replies = c.engine.OnPermissionDatagram(KvBytes(*record), sizeof *record);
    ASSERT_EQ(1u, replies.size());
    ASSERT_TRUE(KvRecordFromBytes(*record, replies[0].data(), replies[0].size()));
    EXPECT_EQ(u"Viewer X wants in", KvReadString(record->szRequest));
    EXPECT_EQ(1u, record->bDenyDefault);

    // Withdrawn while the dialog is up: the answer must say 4444 and not local.
    EXPECT_EQ(8740u, c.engine.WithdrawPermission().size());
    KvSetPermissionAnswer(*record, KV_PERMISSION_WITHDRAWN, false, u"HOST\\alice");
    EXPECT_TRUE(c.engine.OnPermissionDatagram(KvBytes(*record), sizeof *record).empty());
    std::uint32_t code = 0;
    ASSERT_TRUE(c.engine.TakePermissionAnswer(code));
    EXPECT_EQ(KV_PERMISSION_WITHDRAWN, code);
    EXPECT_EQ(0u, c.Errors()) << c.trace.str();

    // Anything after the answer, and a withdrawal nobody made.
    c.engine.OnPermissionDatagram(KvBytes(*record), sizeof *record);
    EXPECT_TRUE(c.ErrorMentions("no request open"));
    EXPECT_TRUE(c.engine.WithdrawPermission().empty());
    c.engine.StartPermission(50124, cmd);
    c.Settle();
    KvBuildPermissionQuery(*record);
    replies = c.engine.OnPermissionDatagram(KvBytes(*record), sizeof *record);
    ASSERT_EQ(1u, replies.size());
    KvRecordFromBytes(*record, replies[0].data(), replies[0].size());
    KvSetPermissionAnswer(*record, KV_PERMISSION_WITHDRAWN, false, u"HOST\\alice");
    c.engine.OnPermissionDatagram(KvBytes(*record), sizeof *record);
    EXPECT_TRUE(c.ErrorMentions("withdrew nothing"));
}
