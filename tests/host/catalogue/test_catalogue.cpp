// The catalogue against the protocol's tables: ids, names, sizes and directions, and records
// built by the agent's builders compared with bytes laid out by hand from the field offsets.
#include "ByteLayout.h"
#include "KvServiceMessages.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace
{

constexpr std::uint64_t k444 = 0x407BC00000000000ull; // 444.0 as IEEE bytes
constexpr std::size_t npos = std::string::npos;

#define EXPECT_SAME_BYTES(want, got)                                                                         \
    EXPECT_EQ(npos, FirstDifference((want), (got))) << "first difference at this offset"

// One row per id, as the protocol's table gives it: sizes in each direction (0 = never that way).
struct Row
{
    std::uint32_t id;
    const char* name;
    std::uint32_t toAgent;
    std::uint32_t toService;
};

const Row kTable[] = {
    {4400, "MSG_TYPE_VERSION", 40, 40},
    {40000, "MSG_TYPE_TRAYICON_INIT", 16212, 16212},
    {40001, "MSG_TYPE_TRAYICON_EXIT", 1072, 1072},
    {40002, "MSG_TYPE_TRAYICON_CONNECT_COUNT", 1592, 0},
    {40003, "MSG_TYPE_TRAYICON_SETTINGS", 4752, 0},
    {40004, nullptr, 0, 1076},
    {40007, "MSG_TYPE_TRAYICON_SETTINGS_UPDATE", 4752, 0},
    {40008, "MSG_TYPE_TRAYICON_CONNECT_NOTIFY", 1592, 0},
    {40009, "MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY", 1592, 0},
    {50000, "MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION", 1068, 1068},
    {50001, "MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL", 8204, 8204},
    {50005, nullptr, 0, 8},
    {50006, nullptr, 0, 4},
    {50007, nullptr, 0, 8},
    {50008, "MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE", 4, 0},
    {50009, "MSG_TYPE_TRAYICON_DESKTOP_EFFECTS", 8, 0},
    {50010, nullptr, 0, 16},
    {67001, "MSG_TYPE_TRAYICON_SFT_DROP_CLIENT", 2120, 0},
    {67002, "MSG_TYPE_TRAYICON_SFT_INIT_TEMP", 1572, 0},
    {67003, "MSG_TYPE_TRAYICON_SFT_DELETE_TEMP", 8, 0},
    {70020, "MSG_TYPE_TRAYICON_SETTINGS_DIALOG", 12, 0},
    {70030, "MSG_TYPE_TRAYICON_SERVER_RECONFIGURE", 528, 0},
    {70040, "MSG_TYPE_TRAYICON_IP_ADDRESSES", 7960, 4},
    {70050, "MSG_TYPE_TRAYICON_PERMISSION", 12, 0},
    {70060, nullptr, 0, 1080},
    {70070, "MSG_TYPE_REVERSE_CONNECTION", 41164, 41164},
    {75000, "MSG_TYPE_TRAYICON_CHAT_OPEN", 524, 0},
    {75001, "MSG_TYPE_CHAT_MESSAGE", 528, 528},
    {75002, "MSG_TYPE_TRAYICON_CHAT_CLOSE", 4, 0},
    {100000, "MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE", 4, 4},
};

std::u16string Units(std::size_t n, char16_t c)
{
    return std::u16string(n, c);
}

} // namespace

TEST(CatalogueTable, EveryIdHasItsNameSizeAndDirection)
{
    ASSERT_EQ(sizeof(kTable) / sizeof(kTable[0]), KV_MESSAGE_COUNT) << "an id too many or too few";
    for (const Row& row : kTable)
    {
        SCOPED_TRACE(row.id);
        const KvMessageInfo* info = KvFindMessage(row.id);
        ASSERT_NE(nullptr, info);
        if (row.name != nullptr)
        {
            EXPECT_STREQ(row.name, info->pszName);
        }
        EXPECT_EQ(row.toAgent, KvRecordSize(row.id, KvDirection::ToAgent));
        EXPECT_EQ(row.toService, KvRecordSize(row.id, KvDirection::ToService));
        EXPECT_EQ(row.id == 75001, info->bChatBody);
        // Every fixed record fits the agent's one receive buffer.
        EXPECT_LE(row.toAgent, 47520u);
    }
}

TEST(CatalogueTable, IdsOutsideTheTableAreUnknown)
{
    for (std::uint32_t id : {0u, 4401u, 40005u, 40006u, 50002u, 70006u, 75003u, 99999u, 0xFFFFFFFFu})
    {
        EXPECT_EQ(nullptr, KvFindMessage(id)) << id;
        EXPECT_EQ(0u, KvRecordSize(id, KvDirection::ToAgent)) << id;
        EXPECT_EQ(nullptr, KvMessageName(id)) << id;
    }
}

// ---- Records the agent builds, against hand-made bytes.

TEST(AgentRecordBytes, VersionAnswerKeepsReservedBytesAndSays444)
{
    ByteLayout in(40);
    in.U32(0, 4400)
        .U32(4, 0x11223344)
        .U64(8, 0x3FF8000000000000ull)
        .U64(16, 0x4004000000000000ull)
        .Fill(24, 12, 0xAB)
        .U32(36, 9);
    MSG_VERSION rec;
    ASSERT_TRUE(KvRecordFromBytes(rec, in.Data(), in.Size()));
    KvBuildVersionAnswer(rec, 7);

    ByteLayout want(40);
    want.U32(0, 4400).U32(4, 0x11223344).U64(8, k444).U64(16, k444).Fill(24, 12, 0xAB).U32(36, 7);
    EXPECT_SAME_BYTES(want.Bytes(), BytesOf(rec));
}

TEST(AgentRecordBytes, InitAnswerOverwritesOnlyIdSessionAndDesktopState)
{
    ByteLayout in(16212);
    in.U32(0, 40000).U32(4, 0xEEEE).U32(8, 0xDDDD).U32(12, 0x3F).U32(16, 1).Str(20, Units(8096, u'x'));
    auto rec = std::make_unique<MSG_TRAYICON_INIT>();
    ASSERT_TRUE(KvRecordFromBytes(*rec, in.Data(), in.Size()));
    KvBuildInitAnswer(*rec, 3, 8);

    ByteLayout want = in;
    want.U32(4, 3).U32(8, 8);
    EXPECT_SAME_BYTES(want.Bytes(), BytesOf(*rec));
}

TEST(AgentRecordBytes, DesktopUserInformationAndTheRecordsThatEmbedIt)
{
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvBuildDesktopUserInformation(info, 50000, u"alice", u"Default", 0x14);
    ByteLayout answer(1068);
    answer.U32(0, 50000).Str(4, u"alice").Str(524, u"Default").U32(1044, 0x14);
    EXPECT_SAME_BYTES(answer.Bytes(), BytesOf(info));

    MSG_TRAYICON_USER_REQUEST request;
    KvBuildUserRequest(request, info);
    ByteLayout wantRequest(1076);
    wantRequest.U32(0, 40004).Str(12, u"alice").Str(532, u"Default").U32(1052, 0x14);
    EXPECT_SAME_BYTES(wantRequest.Bytes(), BytesOf(request));

    MSG_TRAYICON_LANGUAGE language;
    KvBuildLanguage(language, u"fr", info);
    ByteLayout wantLanguage(1080);
    wantLanguage.U32(0, 70060).Str(4, u"fr").Str(16, u"alice").Str(536, u"Default").U32(1056, 0x14);
    EXPECT_SAME_BYTES(wantLanguage.Bytes(), BytesOf(language));

    // The exit request's own layout: the block right behind the type id.
    MSG_TRAYICON_EXIT exitRequest;
    KvBuildExit(exitRequest, info);
    ByteLayout wantExit(1072);
    wantExit.U32(0, 40001).Str(8, u"alice").Str(528, u"Default").U32(1048, 0x14);
    EXPECT_SAME_BYTES(wantExit.Bytes(), BytesOf(exitRequest));
}

TEST(AgentRecordBytes, LanguageCodeLongerThanTwoLettersIsCut)
{
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvBuildDesktopUserInformation(info, 0, u"", u"", 0x04);
    MSG_TRAYICON_LANGUAGE language;
    KvBuildLanguage(language, u"deu", info);
    ByteLayout want(1080);
    want.U32(0, 70060).Str(4, u"de").U32(1056, 0x04);
    EXPECT_SAME_BYTES(want.Bytes(), BytesOf(language));
}

TEST(AgentRecordBytes, SmallRecords)
{
    EXPECT_SAME_BYTES(ByteLayout(8).U32(0, 50005).U32(4, 0x2A).Bytes(),
                      BytesOf(KvBuildDesktopEffectsAck(0x2A)));
    EXPECT_SAME_BYTES(ByteLayout(8).U32(0, 50007).U32(4, 8).Bytes(), BytesOf(KvBuildDesktopState(8)));
    EXPECT_SAME_BYTES(ByteLayout(16).U32(0, 50010).U32(4, 5).I32(12, -56).Bytes(),
                      BytesOf(KvBuildSessionEnd(5)));
    EXPECT_SAME_BYTES(ByteLayout(4).U32(0, 50006).Bytes(), BytesOf(KvBuildTypeOnly(50006)));
    EXPECT_SAME_BYTES(ByteLayout(4).U32(0, 100000).Bytes(), BytesOf(KvBuildTypeOnly(100000)));
    EXPECT_SAME_BYTES(ByteLayout(12).U32(0, 701).U32(4, 721).Bytes(), BytesOf(KvBuildUdpHeader(721)));

    auto all = std::make_unique<MSG_TRAYICON_NOTIFY_ALL>();
    KvBuildNotifyAllRequest(*all);
    EXPECT_SAME_BYTES(ByteLayout(8204).U32(0, 50001).Bytes(), BytesOf(*all));

    MSG_PORT_QUERY query;
    KvBuildPortQuery(query);
    EXPECT_SAME_BYTES(ByteLayout(80).U32(0, 703).Bytes(), BytesOf(query));
}

TEST(AgentRecordBytes, ReverseConnectionRequestJoinAndCancel)
{
    auto rec = std::make_unique<MSG_REVERSE_CONNECTION>();
    KvReverseConnectionFields<char16_t> f;
    f.uConnectOption = 1;
    f.host = u"viewer.example";
    f.dwPort = 6130;
    f.bUseProxy = true;
    f.proxyHost = u"proxy";
    f.dwProxyPort = 6127;
    f.proxySecret = u"s3cret";
    KvBuildReverseConnectionRequest(*rec, f);
    ByteLayout want(41164);
    want.U32(0, 70070)
        .U32(12, 1)
        .Str(36508, u"viewer.example")
        .U32(38560, 6130)
        .U32(38564, 1)
        .Str(38568, u"proxy")
        .U32(40620, 6127)
        .Str(40628, u"s3cret");
    EXPECT_SAME_BYTES(want.Bytes(), BytesOf(*rec));

    // Without a proxy the proxy fields stay empty whatever the caller had in them.
    f.bUseProxy = false;
    KvBuildReverseConnectionRequest(*rec, f);
    ByteLayout noProxy(41164);
    noProxy.U32(0, 70070).U32(12, 1).Str(36508, u"viewer.example").U32(38560, 6130);
    EXPECT_SAME_BYTES(noProxy.Bytes(), BytesOf(*rec));

    KvBuildJoinSessionRequest(*rec, 0, u"123-456");
    EXPECT_SAME_BYTES(ByteLayout(41164).U32(0, 70070).U32(4116, 1).Str(4124, u"123-456").Bytes(),
                      BytesOf(*rec));

    KvBuildReverseConnectionCancel(*rec);
    EXPECT_SAME_BYTES(ByteLayout(41164).U32(0, 70070).U32(4, 103).Bytes(), BytesOf(*rec));
}

TEST(AgentRecordBytes, ChatMessageHeadAndBody)
{
    const std::u16string text = u"hi \u00e9";
    const std::vector<std::uint8_t> msg = KvBuildChatMessage(u"bob", text.data(), text.size());
    ByteLayout want(528 + 8);
    want.U32(0, 75001).Str(4, u"bob").U32(524, 8).Str(528, text);
    EXPECT_SAME_BYTES(want.Bytes(), msg);

    const std::vector<std::uint8_t> empty = KvBuildChatMessage(u"bob", u"", 0);
    EXPECT_SAME_BYTES(ByteLayout(528).U32(0, 75001).Str(4, u"bob").Bytes(), empty);
}

TEST(AgentRecordBytes, PermissionQueryAndAnswer)
{
    auto rec = std::make_unique<MSG_PERMISSION_RECORD>();
    KvBuildPermissionQuery(*rec);
    EXPECT_SAME_BYTES(ByteLayout(8740).U32(0, 70006).Bytes(), BytesOf(*rec));

    // The service's request comes in over the same buffer; the answer changes only its fields.
    ByteLayout request(8740);
    request.U32(0, 70050).Str(4, u"Viewer X wants in").U32(8196, 1).U32(8200, 1).U32(8204, 1).U32(8208, 77);
    ASSERT_TRUE(KvRecordFromBytes(*rec, request.Data(), request.Size()));
    KvSetPermissionAnswer(*rec, 2222, true, u"HOST\\alice");
    ByteLayout want = request;
    want.U32(8212, 1).U32(8216, 2222).Str(8220, u"HOST\\alice");
    EXPECT_SAME_BYTES(want.Bytes(), BytesOf(*rec));
}

TEST(AgentRecordBytes, InvitationRequest)
{
    auto rec = std::make_unique<MSG_INVITATION_REQUEST>();
    KvInvitationFields<char16_t> f;
    f.name = u"Support";
    f.bRightA = f.bRightB = f.bRightE = true;
    f.dwExpiry = 11;
    f.password = u"pw";
    f.proxyHost = u"proxy.example";
    f.dwProxyPort = 6127;
    f.proxySecret = u"k";
    KvBuildInvitationRequest(*rec, f);
    ByteLayout want(5716);
    want.U32(0, 720)
        .Str(2056, u"Support")
        .U32(2580, 1)
        .U32(2584, 11)
        .U32(2588, 1)
        .Str(2592, u"pw")
        .U32(3116, 1)
        .U32(3124, 1)
        .U32(3128, 1)
        .Str(3132, u"proxy.example")
        .U32(5184, 6127)
        .U32(5188, 1)
        .Str(5192, u"k");
    EXPECT_SAME_BYTES(want.Bytes(), BytesOf(*rec));
}

// ---- Records the service sends, read through the structs from hand-made bytes.

TEST(ServiceRecordFields, FixedOffsetsReadTheRightBytes)
{
    ByteLayout settings(4752);
    settings.U32(0, 40003).U32(32, 1).U32(36, 15).U32(48, 2).U32(52, 0).U32(56, 1).Str(4744, u"de");
    auto s = std::make_unique<MSG_TRAYICON_SETTINGS>();
    ASSERT_TRUE(KvRecordFromBytes(*s, settings.Data(), settings.Size()));
    EXPECT_EQ(1u, s->bQuietWhenIdleIcon);
    EXPECT_EQ(15u, s->dwNotifyDisplayTime);
    EXPECT_EQ(2u, s->dwIdleTrayIcon);
    EXPECT_EQ(0u, s->bMachineProfile);
    EXPECT_EQ(1u, s->bKeepNotifyOpen);
    EXPECT_EQ(u"de", KvReadString(s->szLanguage));

    ByteLayout connect(1592);
    connect.U32(0, 40008)
        .Str(4, u"carol")
        .Str(524, u"two")
        .Str(1044, u"three")
        .U32(1568, 2)
        .U32(1572, 3)
        .U32(1580, 1)
        .U32(1588, 42);
    MSG_TRAYICON_CONNECT_INFO c;
    ASSERT_TRUE(KvRecordFromBytes(c, connect.Data(), connect.Size()));
    EXPECT_EQ(u"carol", KvReadString(c.szUsername));
    EXPECT_EQ(u"two", KvReadString(c.szSecondLine));
    EXPECT_EQ(u"three", KvReadString(c.szThirdLine));
    EXPECT_EQ(2u, c.dwTrayIcon);
    EXPECT_EQ(3u, c.dwConnections);
    EXPECT_EQ(1u, c.bDisconnectButton);
    EXPECT_EQ(42u, c.dwViewerId);

    ByteLayout reverse(41164);
    reverse.U32(0, 70070)
        .U32(4, 100)
        .U32(8, 10061)
        .Str(16, u"refused")
        .U32(4116, 1)
        .U32(4120, 1)
        .Str(4124, u"short")
        .Str(36508, u"host")
        .U32(38560, 5500);
    auto r = std::make_unique<MSG_REVERSE_CONNECTION>();
    ASSERT_TRUE(KvRecordFromBytes(*r, reverse.Data(), reverse.Size()));
    EXPECT_EQ(100u, r->dwStatus);
    EXPECT_EQ(10061u, r->dwError);
    EXPECT_EQ(u"refused", KvReadString(r->szError));
    EXPECT_EQ(1u, r->bShortReport);
    EXPECT_EQ(1u, r->bSuppressReport);
    EXPECT_EQ(u"short", KvReadString(r->szShortText));
    EXPECT_EQ(u"host", KvReadString(r->szHost));
    EXPECT_EQ(5500u, r->dwPort);

    ByteLayout sft(1572);
    sft.U32(0, 67002).Str(4, u"Global\\ev").Str(526, u"C:\\t.ini").Str(1048, u"C:\\t.dat");
    MSG_TRAYICON_SFT_INIT_TEMP t;
    ASSERT_TRUE(KvRecordFromBytes(t, sft.Data(), sft.Size()));
    EXPECT_EQ(u"Global\\ev", KvReadString(t.szEventName));
    EXPECT_EQ(u"C:\\t.ini", KvReadString(t.szTempIniPath));
    EXPECT_EQ(u"C:\\t.dat", KvReadString(t.szDataPath));

    ByteLayout drop(2120);
    drop.U32(0, 67001).U32(4, 42).U32(8, 5).U32(12, 1).U64(16, 0x1111).U64(24, 0x2222);
    auto d = std::make_unique<MSG_TRAYICON_SFT_DROP_CLIENT>();
    ASSERT_TRUE(KvRecordFromBytes(*d, drop.Data(), drop.Size()));
    EXPECT_EQ(42u, d->dwViewerId);
    EXPECT_EQ(1u, d->dwPosition);
    EXPECT_EQ(0x1111u, d->hDropWnd);
    EXPECT_EQ(0x2222u, d->hTrayWnd);

    ByteLayout small(12);
    small.U32(0, 70050).U32(4, 50123).U32(8, 23);
    MSG_TRAYICON_PERMISSION p;
    ASSERT_TRUE(KvRecordFromBytes(p, small.Data(), small.Size()));
    EXPECT_EQ(50123u, p.nPort);
    EXPECT_EQ(23u, p.nAfType);

    ByteLayout all(8204);
    all.U32(0, 50001).Str(4, u"a\r\nb").U32(8200, 2);
    auto n = std::make_unique<MSG_TRAYICON_NOTIFY_ALL>();
    ASSERT_TRUE(KvRecordFromBytes(*n, all.Data(), all.Size()));
    EXPECT_EQ(u"a\r\nb", KvReadString(n->szText));
    EXPECT_EQ(2u, n->dwCount);

    ByteLayout reply(5716);
    reply.U32(4, 5).Str(8, u"no").U32(5712, 77);
    auto ir = std::make_unique<MSG_INVITATION_REPLY>();
    ASSERT_TRUE(KvRecordFromBytes(*ir, reply.Data(), reply.Size()));
    EXPECT_EQ(5u, ir->dwError);
    EXPECT_EQ(u"no", KvReadString(ir->szMessage));
    EXPECT_EQ(77u, ir->dwTextLength);

    ByteLayout answer(80);
    answer.U32(0, 703).U32(8, 6200);
    MSG_PORT_QUERY pa;
    ASSERT_TRUE(KvRecordFromBytes(pa, answer.Data(), answer.Size()));
    EXPECT_EQ(6200u, pa.dwPort);
}

TEST(ServiceRecordFields, ShortBufferIsRefusedAndLeavesTheRecordZeroed)
{
    ByteLayout bytes(1591);
    bytes.U32(0, 40008).U32(1572, 3);
    MSG_TRAYICON_CONNECT_INFO c;
    c.dwConnections = 99;
    EXPECT_FALSE(KvRecordFromBytes(c, bytes.Data(), bytes.Size()));
    EXPECT_EQ(0u, c.dwType);
    EXPECT_EQ(0u, c.dwConnections);
}

// ---- Bounded strings.

TEST(BoundedStrings, CopyTruncatesTerminatesAndClearsTheTail)
{
    char16_t dst[6];
    for (char16_t& c : dst)
        c = u'#';
    EXPECT_EQ(5u, KvCopyString(dst, u"abcdefgh"));
    EXPECT_EQ(u"abcde", std::u16string(dst));

    EXPECT_EQ(2u, KvCopyString(dst, u"xy"));
    for (std::size_t i = 2; i < 6; ++i)
        EXPECT_EQ(0, dst[i]) << i; // nothing of the longer text survives

    EXPECT_EQ(0u, KvCopyString(dst, static_cast<const char16_t*>(nullptr)));
    EXPECT_EQ(0, dst[0]);

    // A bounded source stops at its length or at an earlier NUL.
    const char16_t noTerminator[3] = {u'p', u'q', u'r'};
    EXPECT_EQ(3u, KvCopyString(dst, noTerminator, 3));
    EXPECT_EQ(u"pqr", std::u16string(dst));
    const char16_t early[4] = {u'p', 0, u'r', u's'};
    EXPECT_EQ(1u, KvCopyString(dst, early, 4));
    EXPECT_EQ(1u, KvCopyString(dst, std::u16string_view(u"z")));
}

TEST(BoundedStrings, UnterminatedArrayIsReadToItsEndAndNoFurther)
{
    // In a heap block of exactly its size, so a read past the end shows under ASan.
    auto block = std::make_unique<char16_t[][4]>(1);
    char16_t(&s)[4] = block[0];
    s[0] = u'a';
    s[1] = u'b';
    s[2] = u'c';
    s[3] = u'd';
    EXPECT_EQ(4u, KvStringLength(s));
    EXPECT_FALSE(KvIsTerminated(s));
    EXPECT_EQ(u"abcd", KvReadString(s));
    s[3] = 0;
    EXPECT_TRUE(KvIsTerminated(s));
    EXPECT_EQ(u"abc", KvReadString(s));
}

TEST(BoundedStrings, FullOneTimeTextIsKeptAs8095UnitsAndANul)
{
    auto rec = std::make_unique<MSG_TRAYICON_INIT>();
    KvZero(*rec);
    for (char16_t& c : rec->szOneTimeSession)
        c = u'q';
    auto kept = std::make_unique<char16_t[][8096]>(1);
    EXPECT_EQ(8095u, KvCopyString(kept[0], rec->szOneTimeSession, 8096));
    EXPECT_EQ(0, kept[0][8095]);
    EXPECT_EQ(8095u, KvStringLength(kept[0]));
}
