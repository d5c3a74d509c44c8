// The catalogue against the protocol's tables: ids, names, sizes and directions; the records
// the agent builds against bytes laid out by hand (the header's asserts fix the offsets of what the
// service sends; builders nothing calls yet, the reverse-connection and invitation requests, wait
// for their callers).
#include "ByteLayout.h"
#include "KvServiceMessages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace
{

constexpr std::uint64_t k444 = 0x407BC00000000000ull; // 444.0 as IEEE bits

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

// The record's bytes after a build that starts from garbage, so bytes a builder forgets show,
// or, for an echo, from the service's bytes.
template <typename T, typename Build> Bytes Built(Build build, const Bytes& from = {})
{
    auto rec = std::make_unique<T>();
    std::memset(rec.get(), 0xEE, sizeof(T));
    EXPECT_TRUE(from.empty() || KvRecordFromBytes(*rec, from.data(), from.size()));
    build(*rec);
    return Bytes(KvBytes(*rec), KvBytes(*rec) + sizeof(T));
}

template <typename T> Bytes Plain(const T& rec)
{
    return Bytes(KvBytes(rec), KvBytes(rec) + sizeof(T));
}

} // namespace

TEST(CatalogueTable, IdsNamesSizesAndDirections)
{
    ASSERT_EQ(sizeof(kTable) / sizeof(kTable[0]), KV_MESSAGE_COUNT) << "an id too many or too few";
    for (const Row& row : kTable)
    {
        SCOPED_TRACE(row.id);
        const KvMessageInfo* info = KvFindMessage(row.id);
        ASSERT_NE(nullptr, info);
        EXPECT_STREQ(row.name != nullptr ? row.name : info->pszName, info->pszName);
        EXPECT_EQ(row.toAgent, KvRecordSize(row.id, KvDirection::ToAgent));
        EXPECT_EQ(row.toService, KvRecordSize(row.id, KvDirection::ToService));
        EXPECT_EQ(row.id == 75001, info->bChatBody);
        EXPECT_LE(row.toAgent, 47520u) << "must fit the agent's one receive buffer";
    }
}

TEST(CatalogueTable, AgentRecordsMatchHandLaidBytes)
{
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvBuildDesktopUserInformation(info, 50000, u"alice", u"Default", 0x14);
    const std::u16string text = u"hi \u00e9";
    const Bytes versionIn =
        Layout(40, {{0, 4400}, {4, 0x11223344}, {8, 1, 8}, {16, 2, 8}, {24, ~0ull, 8}, {32, ~0u}, {36, 9}});
    const Bytes initIn =
        Layout(16212, {{0, 40000}, {4, 0xEEEE}, {8, 0xDDDD}, {12, 0x3F}, {20, std::u16string(8096, u'x')}});
    const Bytes permissionIn =
        Layout(8740, {{0, 70050}, {4, u"Viewer X wants in"}, {8196, 1}, {8200, 1}, {8204, 1}, {8208, 77}});
    const Bytes infoBytes = Layout(1068, {{0, 50000}, {4, u"alice"}, {524, u"Default"}, {1044, 0x14}});
    // Records that embed the block keep its fields and zero its type id.
    const auto withInfoAt = [&](std::size_t size, std::uint32_t id, std::size_t infoOffset)
    {
        Bytes b = Layout(size, {{0, id}});
        std::copy(infoBytes.begin() + 4, infoBytes.end(),
                  b.begin() + static_cast<std::ptrdiff_t>(infoOffset));
        return b;
    };

    const struct
    {
        const char* what;
        Bytes got;
        Bytes want;
    } cases[] = {
        // clang-format off
        // Echoes keep what the service sent except the fields they answer.
        {"version answer", Built<MSG_VERSION>([](auto& r) { KvBuildVersionAnswer(r, 7); }, versionIn),
         Layout(versionIn, {{8, k444, 8}, {16, k444, 8}, {36, 7}})},
        {"init answer", Built<MSG_TRAYICON_INIT>([](auto& r) { KvBuildInitAnswer(r, 3, 8); }, initIn),
         Layout(initIn, {{4, 3}, {8, 8}})},
        {"permission answer",
         Built<MSG_PERMISSION_RECORD>([](auto& r) { KvSetPermissionAnswer(r, 22, 1, u"H"); }, permissionIn),
         Layout(permissionIn, {{8212, 1}, {8216, 22}, {8220, u"H"}})},
        {"user information", Plain(info), infoBytes},
        {"user request", Built<MSG_TRAYICON_USER_REQUEST>([&](auto& r) { KvBuildUserRequest(r, info); }),
         withInfoAt(1076, 40004, 12)},
        {"exit", Built<MSG_TRAYICON_EXIT>([&](auto& r) { KvBuildExit(r, info); }),
         withInfoAt(1072, 40001, 8)},
        {"language, cut to two letters",
         Built<MSG_TRAYICON_LANGUAGE>([&](auto& r) { KvBuildLanguage(r, u"fra", info); }),
         Layout(withInfoAt(1080, 70060, 16), {{4, u"fr"}})},
        {"effects ack", Plain(KvBuildDesktopEffectsAck(0x2A)), Layout(8, {{0, 50005}, {4, 0x2A}})},
        {"desktop state", Plain(KvBuildDesktopState(8)), Layout(8, {{0, 50007}, {4, 8}})},
        {"session end", Plain(KvBuildSessionEnd(5)), Layout(16, {{0, 50010}, {4, 5}, {12, 0xFFFFFFC8}})},
        {"type only", Plain(KvBuildTypeOnly(100000)), Layout(4, {{0, 100000}})},
        {"udp header", Plain(KvBuildUdpHeader(721)), Layout(12, {{0, 701}, {4, 721}})},
        {"port query", Built<MSG_PORT_QUERY>([](auto& r) { KvBuildPortQuery(r); }), Layout(80, {{0, 703}})},
        {"notify-all request", Built<MSG_TRAYICON_NOTIFY_ALL>([](auto& r) { KvBuildNotifyAllRequest(r); }),
         Layout(8204, {{0, 50001}})},
        {"permission query", Built<MSG_PERMISSION_RECORD>([](auto& r) { KvBuildPermissionQuery(r); }),
         Layout(8740, {{0, 70006}})},
        {"join session",
         Built<MSG_REVERSE_CONNECTION>([](auto& r) { KvBuildJoinSessionRequest(r, 0, u"123-456"); }),
         Layout(41164, {{0, 70070}, {4116, 1}, {4124, u"123-456"}})},
        {"reverse cancel", Built<MSG_REVERSE_CONNECTION>([](auto& r) { KvBuildReverseConnectionCancel(r); }),
         Layout(41164, {{0, 70070}, {4, 103}})},
        {"chat message", KvBuildChatMessage(u"bob", text.data(), text.size()),
         Layout(528 + 8, {{0, 75001}, {4, u"bob"}, {524, 8}, {528, text}})},
        {"empty chat message", KvBuildChatMessage(u"bob", u"", 0), Layout(528, {{0, 75001}, {4, u"bob"}})},
        // clang-format on
    };
    for (const auto& c : cases)
    {
        ASSERT_EQ(c.want.size(), c.got.size()) << c.what;
        const auto diff = std::mismatch(c.want.begin(), c.want.end(), c.got.begin());
        EXPECT_EQ(c.want.end(), diff.first)
            << c.what << ": first difference at offset " << (diff.first - c.want.begin());
    }
}

TEST(BoundedStrings, CopyTruncatesAndClearsTheTailReadStopsAtTheArrayEnd)
{
    char16_t dst[6];
    EXPECT_EQ(5u, KvCopyString(dst, u"abcdefgh"));
    EXPECT_EQ(2u, KvCopyString(dst, u"xy"));
    EXPECT_EQ(0, std::memcmp(dst, u"xy\0\0\0", sizeof dst)) << "nothing of the longer text survives";
    EXPECT_EQ(1u, KvCopyString(dst, u"p\0rs", 4)); // a bounded source stops at an earlier NUL

    // An unterminated array in a heap block of exactly its size: ASan shows any read past it.
    auto block = std::make_unique<char16_t[][4]>(1);
    std::memcpy(block[0], u"abcd", sizeof block[0]);
    EXPECT_FALSE(KvIsTerminated(block[0]));
    EXPECT_EQ(u"abcd", KvReadString(block[0]));
}
