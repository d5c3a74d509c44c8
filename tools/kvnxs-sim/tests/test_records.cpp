// Records through the simulator's side: what the agent's builders make passes the checks and
// reads back field for field; each check catches the fault it is there for; the trace names
// the fields.
#include "FakeAgent.h"
#include "KvRecordCodec.h"
#include "SimRecords.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using kvsim_test::Bytes;
using kvsim_test::ToBytes;

namespace
{

// The one record in a stream, as the simulator's reader gets it.
Bytes DecodeOne(const Bytes& stream)
{
    std::vector<Bytes> records;
    const KvDecodeStatus end = KvDecodeStream(stream.data(), stream.size(), KvDirection::ToService,
                                              [&](const KvRecordDecoder::Event& ev)
                                              {
                                                  EXPECT_EQ(KvDecodeStatus::Record, ev.status);
                                                  records.push_back(ev.record);
                                              });
    EXPECT_EQ(KvDecodeStatus::NeedMore, end);
    return records.size() == 1 ? records[0] : Bytes();
}

std::vector<std::string> Check(const Bytes& rec)
{
    return kvsim::CheckAgentRecord(rec.data(), rec.size());
}

bool Mentions(const std::vector<std::string>& problems, const std::string& what)
{
    for (const std::string& p : problems)
        if (p.find(what) != std::string::npos)
            return true;
    return false;
}

MSG_TRAYICON_DESKTOP_USER_INFORMATION Info(std::uint32_t type = 0, std::uint32_t state = KV_DESKTOP_OPENED)
{
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvBuildDesktopUserInformation(info, type, u"alice", u"Default", state);
    return info;
}

template <typename T> T Back(const Bytes& rec)
{
    T out;
    EXPECT_TRUE(KvRecordFromBytes(out, rec.data(), rec.size()));
    return out;
}

} // namespace

TEST(AgentRecordRoundTrip, BuiltRecordsDecodeCheckCleanAndKeepTheirFields)
{
    MSG_TRAYICON_LANGUAGE lang;
    KvBuildLanguage(lang, u"fr", Info());
    Bytes rec = DecodeOne(ToBytes(lang));
    EXPECT_TRUE(Check(rec).empty());
    MSG_TRAYICON_LANGUAGE langBack = Back<MSG_TRAYICON_LANGUAGE>(rec);
    EXPECT_EQ(u"fr", KvReadString(langBack.szLanguage));
    EXPECT_EQ(u"alice", KvReadString(langBack.info.szUserName));
    EXPECT_EQ(u"Default", KvReadString(langBack.info.szDesktopName));
    EXPECT_EQ(KV_DESKTOP_OPENED, langBack.info.dwState);

    MSG_TRAYICON_USER_REQUEST req;
    KvBuildUserRequest(
        req, Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER));
    rec = DecodeOne(ToBytes(req));
    EXPECT_TRUE(Check(rec).empty());
    EXPECT_EQ(0x14u, Back<MSG_TRAYICON_USER_REQUEST>(rec).info.dwState);

    MSG_TRAYICON_EXIT exitRec;
    KvBuildExit(exitRec, Info());
    EXPECT_TRUE(Check(DecodeOne(ToBytes(exitRec))).empty());

    rec = DecodeOne(ToBytes(KvBuildSessionEnd(3)));
    EXPECT_TRUE(Check(rec).empty());
    EXPECT_EQ(3u, Back<MSG_TRAYICON_SESSION_END>(rec).dwSessionId);
    EXPECT_EQ(-56, Back<MSG_TRAYICON_SESSION_END>(rec).nExitCode);

    for (const Bytes& small :
         {ToBytes(KvBuildDesktopState(8)), ToBytes(KvBuildDesktopEffectsAck(0x7)),
          ToBytes(KvBuildTypeOnly(50006)), ToBytes(KvBuildTypeOnly(70040)), ToBytes(KvBuildTypeOnly(100000))})
    {
        EXPECT_EQ(small, DecodeOne(small));
        EXPECT_TRUE(Check(small).empty());
    }

    auto rc = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvReverseConnectionFields<char16_t> f;
    f.host = u"viewer";
    f.dwPort = 6130;
    KvBuildReverseConnectionRequest(*rc, f);
    rec = DecodeOne(ToBytes(*rc));
    EXPECT_TRUE(Check(rec).empty());
    auto rcBack = std::make_unique<MSG_REVERSE_CONNECTION>();
    ASSERT_TRUE(KvRecordFromBytes(*rcBack, rec.data(), rec.size()));
    EXPECT_EQ(u"viewer", KvReadString(rcBack->szHost));
    EXPECT_EQ(6130u, rcBack->dwPort);
    KvBuildJoinSessionRequest(*rc, 1, u"42-42");
    EXPECT_TRUE(Check(DecodeOne(ToBytes(*rc))).empty());
    KvBuildReverseConnectionCancel(*rc);
    EXPECT_TRUE(Check(DecodeOne(ToBytes(*rc))).empty());

    const std::u16string text = u"how are you?";
    rec = DecodeOne(KvBuildChatMessage(u"alice", text.data(), text.size()));
    EXPECT_TRUE(Check(rec).empty());
    EXPECT_EQ(24u, Back<MSG_CHAT_MESSAGE>(rec).dwMessageLength);
    EXPECT_EQ(0, std::memcmp(rec.data() + 528, text.data(), 24));

    MSG_VERSION v;
    KvZero(v);
    KvBuildVersionAnswer(v, 1);
    EXPECT_TRUE(Check(DecodeOne(ToBytes(v))).empty());
}

TEST(AgentRecordChecks, SizeAndIdFaults)
{
    EXPECT_TRUE(Mentions(Check(Bytes{1, 2}), "shorter than its type id"));
    EXPECT_TRUE(Mentions(Check(ToBytes(KvBuildTypeOnly(4242))), "unknown type id 4242"));
    EXPECT_TRUE(
        Mentions(Check(ToBytes(KvBuildTypeOnly(MSG_TYPE_TRAYICON_CHAT_CLOSE))), "never sent by the agent"));
    Bytes ack = ToBytes(KvBuildDesktopEffectsAck(0));
    ack.resize(12);
    EXPECT_TRUE(Mentions(Check(ack), "of 12 bytes, must be 8"));
    Bytes chat = KvBuildChatMessage(u"a", u"xy", 2);
    chat.pop_back();
    EXPECT_TRUE(Mentions(Check(chat), "must be 532"));
}

TEST(AgentRecordChecks, FieldFaults)
{
    MSG_VERSION v;
    KvZero(v);
    KvBuildVersionAnswer(v, 1);
    v.dVersion2 = 443.0;
    EXPECT_TRUE(Mentions(Check(ToBytes(v)), "444.0"));

    EXPECT_TRUE(Mentions(Check(ToBytes(KvBuildDesktopState(9))), "must be 7 or 8"));

    MSG_TRAYICON_SESSION_END end = KvBuildSessionEnd(1);
    end.nExitCode = 0;
    end.dwReserved8 = 1;
    const auto endProblems = Check(ToBytes(end));
    EXPECT_TRUE(Mentions(endProblems, "must be -56"));
    EXPECT_TRUE(Mentions(endProblems, "bytes 8-11"));

    // The user information: state bits, names, the zero tail.
    auto info = Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, KV_DESKTOP_OPENED | KV_DESKTOP_NOT_OPENED);
    EXPECT_TRUE(Mentions(Check(ToBytes(info)), "exactly one of 0x2 and 0x4"));
    info = Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, KV_DESKTOP_NOT_OPENED);
    EXPECT_TRUE(Mentions(Check(ToBytes(info)), "could not be opened"));
    info = Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, KV_DESKTOP_OPENED | 0x100);
    EXPECT_TRUE(Mentions(Check(ToBytes(info)), "unknown bits"));
    info = Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION);
    info.reserved1048[19] = 1;
    EXPECT_TRUE(Mentions(Check(ToBytes(info)), "1048-1067"));
    info = Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION);
    for (char16_t& c : info.szUserName)
        c = u'u';
    EXPECT_TRUE(Mentions(Check(ToBytes(info)), "user name: no terminating NUL"));
    info = Info(MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION);
    info.szDesktopName[200] = u'?'; // stale bytes behind "Default"
    EXPECT_TRUE(Mentions(Check(ToBytes(info)), "desktop name: bytes behind the terminator"));

    MSG_TRAYICON_USER_REQUEST req;
    KvBuildUserRequest(req, Info());
    req.info.dwType = MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION; // the embedded block's id must be 0
    EXPECT_TRUE(Mentions(Check(ToBytes(req)), "user block type"));

    MSG_TRAYICON_LANGUAGE lang;
    KvBuildLanguage(lang, u"EN", Info());
    EXPECT_TRUE(Mentions(Check(ToBytes(lang)), "two-letter"));
    KvBuildLanguage(lang, u"e", Info());
    EXPECT_TRUE(Mentions(Check(ToBytes(lang)), "two-letter"));
    KvBuildLanguage(lang, u"en", Info());
    lang.wReserved10 = 0x4141;
    EXPECT_TRUE(Mentions(Check(ToBytes(lang)), "bytes 10-11"));

    auto all = std::make_unique<MSG_TRAYICON_NOTIFY_ALL>();
    KvBuildNotifyAllRequest(*all);
    all->dwCount = 1;
    EXPECT_TRUE(Mentions(Check(ToBytes(*all)), "must be zero"));

    auto rc = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvBuildReverseConnectionCancel(*rc);
    rc->dwStatus = 100;
    EXPECT_TRUE(Mentions(Check(ToBytes(*rc)), "0 (request) or 103"));
    KvBuildJoinSessionRequest(*rc, 0, u"");
    EXPECT_TRUE(Mentions(Check(ToBytes(*rc)), "without a session code"));
    KvReverseConnectionFields<char16_t> f;
    f.host = u"h";
    KvBuildReverseConnectionRequest(*rc, f);
    rc->dwProxyPort = 6127;
    EXPECT_TRUE(Mentions(Check(ToBytes(*rc)), "no proxy is used"));
    KvBuildReverseConnectionRequest(*rc, f);
    rc->reserved20316[100] = 1;
    EXPECT_TRUE(Mentions(Check(ToBytes(*rc)), "20316"));

    Bytes odd = KvBuildChatMessage(u"a", u"x", 1);
    odd[524] = 1;
    odd.pop_back();
    EXPECT_TRUE(Mentions(Check(odd), "no UTF-16 text"));
}

TEST(DatagramChecks, PortQueryAndHeaders)
{
    MSG_PORT_QUERY q;
    KvBuildPortQuery(q);
    EXPECT_TRUE(kvsim::CheckPortQuery(KvBytes(q), sizeof q).empty());
    q.dwPort = 1;
    EXPECT_TRUE(Mentions(kvsim::CheckPortQuery(KvBytes(q), sizeof q), "word 8"));
    EXPECT_TRUE(Mentions(kvsim::CheckPortQuery(KvBytes(q), 79), "must be 80"));

    MSG_UDP_HEADER h = KvBuildUdpHeader(KV_UDP_INVITATION_CREATE);
    EXPECT_TRUE(kvsim::CheckUdpHeader(KvBytes(h), sizeof h).empty());
    h.dwTag = 702;
    EXPECT_TRUE(Mentions(kvsim::CheckUdpHeader(KvBytes(h), sizeof h), "tag"));
    h = KvBuildUdpHeader(704);
    EXPECT_TRUE(Mentions(kvsim::CheckUdpHeader(KvBytes(h), sizeof h), "none of 703, 720, 721"));
    EXPECT_TRUE(Mentions(kvsim::CheckUdpHeader(KvBytes(h), 8), "must be 12"));
}

TEST(DatagramChecks, InvitationRequest)
{
    auto rec = std::make_unique<MSG_INVITATION_REQUEST>();
    KvInvitationFields<char16_t> f;
    f.name = u"Support";
    f.bRightA = f.bRightD = true;
    f.dwExpiry = 1;
    KvBuildInvitationRequest(*rec, f);
    auto check = [&] { return kvsim::CheckInvitationRequest(KvBytes(*rec), sizeof *rec); };
    EXPECT_TRUE(check().empty());

    f.bRightD = false;
    KvBuildInvitationRequest(*rec, f);
    EXPECT_TRUE(Mentions(check(), "all clear"));
    f.bRightD = true;
    f.dwExpiry = 12;
    KvBuildInvitationRequest(*rec, f);
    EXPECT_TRUE(Mentions(check(), "12 choices"));
    f.dwExpiry = 0;
    f.name = u"";
    KvBuildInvitationRequest(*rec, f);
    EXPECT_TRUE(Mentions(check(), "without a name"));
    f.name = u"n";
    f.password = u"";
    KvBuildInvitationRequest(*rec, f);
    EXPECT_TRUE(Mentions(check(), "empty password"));
    f.password = nullptr;
    KvBuildInvitationRequest(*rec, f);
    rec->bRightA = 2;
    rec->reserved4[0] = 1;
    const auto problems = check();
    EXPECT_TRUE(Mentions(problems, "right A = 2"));
    EXPECT_TRUE(Mentions(problems, "bytes 4-2055"));
}

TEST(DatagramChecks, PermissionQueryAndAnswer)
{
    auto query = std::make_unique<MSG_PERMISSION_RECORD>();
    KvBuildPermissionQuery(*query);
    EXPECT_TRUE(kvsim::CheckPermissionQuery(KvBytes(*query), sizeof *query).empty());
    query->szConsoleAccount[0] = u'x';
    EXPECT_TRUE(Mentions(kvsim::CheckPermissionQuery(KvBytes(*query), sizeof *query), "must be zero"));

    auto request = std::make_unique<MSG_PERMISSION_RECORD>();
    kvsim::BuildPermissionRequest(*request, KV_PERMISSION_QUERY_TYPE, u"Viewer wants in", 0, 1, 0);
    auto answer = std::make_unique<MSG_PERMISSION_RECORD>(*request);
    KvSetPermissionAnswer(*answer, KV_PERMISSION_ALLOWED, true, u"HOST\\alice");
    auto check = [&] { return kvsim::CheckPermissionAnswer(KvBytes(*answer), sizeof *answer, *request); };
    EXPECT_TRUE(check().empty());

    answer->szRequest[0] = u'v';
    EXPECT_TRUE(Mentions(check(), "unchanged"));
    *answer = *request;
    KvSetPermissionAnswer(*answer, KV_PERMISSION_WITHDRAWN, true, u"HOST\\alice");
    EXPECT_TRUE(Mentions(check(), "answered locally"));
    KvSetPermissionAnswer(*answer, 5555, true, u"");
    const auto problems = check();
    EXPECT_TRUE(Mentions(problems, "none of 1111"));
    EXPECT_TRUE(Mentions(problems, "account empty"));
}

TEST(SettingsFields, NamesWriteTheirOffsets)
{
    auto s = std::make_unique<MSG_TRAYICON_SETTINGS>();
    kvsim::DefaultSettings(*s);
    std::string error;
    ASSERT_TRUE(kvsim::SetSettingsField(*s, "display-time", "0x1e", error)) << error;
    ASSERT_TRUE(kvsim::SetSettingsField(*s, "language", "deu", error)) << error;
    ASSERT_TRUE(kvsim::SetSettingsField(*s, "about9", std::string(300, 'z'), error)) << error;
    const std::uint8_t* b = KvBytes(*s);
    EXPECT_EQ(30u, KvReadU32(b + 36));
    EXPECT_EQ('d', b[4744]);
    EXPECT_EQ('e', b[4746]);
    EXPECT_EQ(0, b[4748]); // cut to two letters and the terminator
    EXPECT_EQ(127u, KvStringLength(s->szAboutText[8]));
    EXPECT_FALSE(kvsim::SetSettingsField(*s, "display-time", "long", error));
    EXPECT_FALSE(kvsim::SetSettingsField(*s, "volume", "1", error));

    // Every field lies inside the record and no two overlap.
    const auto& fields = kvsim::SettingsFields();
    for (std::size_t i = 0; i < fields.size(); ++i)
    {
        const std::size_t end = fields[i].offset + (fields[i].units == 0 ? 4 : 2 * fields[i].units);
        EXPECT_LE(end, sizeof(MSG_TRAYICON_SETTINGS)) << fields[i].name;
        for (std::size_t j = i + 1; j < fields.size(); ++j)
        {
            const std::size_t endJ = fields[j].offset + (fields[j].units == 0 ? 4 : 2 * fields[j].units);
            EXPECT_TRUE(end <= fields[j].offset || endJ <= fields[i].offset)
                << fields[i].name << " overlaps " << fields[j].name;
        }
    }
}

TEST(Trace, LinesNameTheRecordAndItsKeyFields)
{
    MSG_TRAYICON_CONNECT_INFO c;
    kvsim::BuildConnectInfo(c, MSG_TYPE_TRAYICON_CONNECT_NOTIFY, u"al\"ice", u"", u"", 1, 2, 0, 7);
    EXPECT_EQ(
        "MSG_TYPE_TRAYICON_CONNECT_NOTIFY (1592 bytes) user=\"al\\\"ice\" icon=1 connections=2 viewer=7",
        kvsim::DescribeRecord(KvBytes(c), sizeof c, KvDirection::ToAgent));

    const MSG_TRAYICON_DESKTOP_EFFECTS ack = KvBuildDesktopEffectsAck(0x1f);
    EXPECT_EQ("MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK (8 bytes) mask=0x1f",
              kvsim::DescribeRecord(KvBytes(ack), sizeof ack, KvDirection::ToService));

    const Bytes chat = KvBuildChatMessage(u"bob", u"line1\r\nline2", 12);
    EXPECT_EQ("MSG_TYPE_CHAT_MESSAGE (552 bytes) user=\"bob\" length=24 text=\"line1\\r\\nline2\"",
              kvsim::DescribeRecord(chat.data(), chat.size(), KvDirection::ToService));

    const MSG_TRAYICON_TYPE_ONLY request = KvBuildTypeOnly(70040);
    EXPECT_EQ("MSG_TYPE_TRAYICON_IP_ADDRESSES (4 bytes) request",
              kvsim::DescribeRecord(KvBytes(request), 4, KvDirection::ToService));

    const MSG_TRAYICON_TYPE_ONLY unknown = KvBuildTypeOnly(31337);
    EXPECT_EQ("unknown id 31337 (4 bytes)",
              kvsim::DescribeRecord(KvBytes(unknown), 4, KvDirection::ToService));

    // Long texts are cut in the trace, never in the record.
    auto init = std::make_unique<MSG_TRAYICON_INIT>();
    kvsim::BuildInit(*init, 0, 1, std::u16string(500, u'w'));
    const std::string line = kvsim::DescribeRecord(KvBytes(*init), sizeof *init, KvDirection::ToAgent);
    EXPECT_NE(std::string::npos, line.find("text=\"" + std::string(40, 'w') + "\"..."));
}
