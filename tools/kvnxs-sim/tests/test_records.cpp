// Records through the simulator's side: what the agent's builders make decodes unchanged and
// passes the checks, and each check catches the fault it is there for.
#include "KvRecordCodec.h"
#include "SimRecords.h"

#include <gtest/gtest.h>

#include <memory>

using kvsim::Bytes;
using kvsim::ToBytes;

namespace
{

MSG_TRAYICON_DESKTOP_USER_INFORMATION Info(std::uint32_t state = KV_DESKTOP_OPENED)
{
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
    KvBuildDesktopUserInformation(info, MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, u"alice", u"Default",
                                  state);
    return info;
}

// A record built in a heap block (some are too big for the stack), as bytes.
template <typename T, typename Build> Bytes Make(Build build)
{
    auto rec = std::make_unique<T>();
    build(*rec);
    return ToBytes(*rec);
}

// A record with one fault put in.
template <typename T, typename Change> Bytes With(const T& rec, Change change)
{
    return Make<T>([&](T& r) { r = rec, change(r); });
}

MSG_PERMISSION_RECORD PermissionRequest()
{
    MSG_PERMISSION_RECORD rec;
    kvsim::BuildPermissionRequest(rec, KV_PERMISSION_QUERY_TYPE, u"Viewer wants in", 0, 1, 0);
    return rec;
}

MSG_INVITATION_REQUEST Invitation()
{
    MSG_INVITATION_REQUEST rec;
    KvBuildInvitationRequest(rec, KvInvitationFields<char16_t>{u"Support", true, false, false, true});
    return rec;
}

std::vector<std::string> CheckAnswer(const std::uint8_t* data, std::size_t size)
{
    return kvsim::CheckPermissionAnswer(data, size, PermissionRequest());
}

} // namespace

TEST(AgentRecords, EachCheckCatchesItsFault)
{
    const auto agent = kvsim::CheckAgentRecord;
    const auto invite = kvsim::CheckInvitationRequest;
    Bytes oddChat = KvBuildChatMessage(u"a", u"x", 1);
    oddChat[524] = 1;
    oddChat.pop_back();
    MSG_VERSION version;
    KvZero(version);
    KvBuildVersionAnswer(version, 1);
    MSG_REVERSE_CONNECTION reverse;
    KvBuildReverseConnectionCancel(reverse);
    MSG_PERMISSION_RECORD query;
    KvBuildPermissionQuery(query);
    MSG_TRAYICON_USER_REQUEST request;
    KvBuildUserRequest(request, Info());
    const auto chat = [](std::u16string_view text, const char16_t* user = u"bob")
    { return KvBuildChatMessage(user, text.data(), text.size()); };
    Bytes unnamedChat = chat(u"x");
    std::fill_n(unnamedChat.begin() + 4, 520, 'u');
    Bytes shortChat = chat(u"xy");
    shortChat.resize(530);
    const auto answered = [](std::uint32_t result, const char16_t* account)
    { return With(PermissionRequest(), [&](auto& r) { KvSetPermissionAnswer(r, result, true, account); }); };

    const struct
    {
        std::vector<std::string> (*check)(const std::uint8_t*, std::size_t);
        Bytes bytes;
        const char* mention; // "" for a record that must pass
    } cases[] = {
        // clang-format off
        {agent, ToBytes(KvBuildTypeOnly(4242)), "unknown type id 4242"},
        {agent, ToBytes(KvBuildTypeOnly(MSG_TYPE_TRAYICON_CHAT_CLOSE)), "never sent by the agent"},
        {agent, Bytes{0x55, 0xC3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "of 12 bytes, must be 8"},
        {agent, oddChat, "no UTF-16 text"},
        {agent, chat(u"Grüße ✓ שלום\r\n\U0001D11E"), ""},
        {agent, chat(std::u16string{u'a', 0xDC00, u'b'}), "unpaired surrogate 0xdc00 at unit 1"},
        {agent, chat(std::u16string{u'a', u'b', 0xD83D}), "unpaired surrogate 0xd83d at unit 2"},
        {agent, chat(std::u16string(u"ab\0c", 4)), "chat body: NUL at unit 2"},
        {agent, unnamedChat, "chat user name: no terminating NUL"},
        {agent, chat(u"x", u""), "chat user name is empty"},
        {agent, shortChat, "of 530 bytes, must be 532"},
        {agent, With(version, [](auto& r) { r.dVersion2 = 443.0; }), "444.0"},
        {agent, ToBytes(KvBuildDesktopState(9)), "must be 7 or 8"},
        {agent, With(KvBuildSessionEnd(1), [](auto& r) { r.nExitCode = 0; }), "must be -56"},
        {agent, ToBytes(Info(KV_DESKTOP_OPENED | KV_DESKTOP_NOT_OPENED)), "exactly one of 0x2 and 0x4"},
        {agent, With(Info(), [](auto& r) { std::fill_n(r.szUserName, std::size(r.szUserName), u'u'); }),
         "user name: no terminating NUL"},
        {agent, With(Info(), [](auto& r) { r.szDesktopName[200] = u'?'; }),
         "desktop name: bytes behind the terminator"},
        {agent, With(request, [](auto& r) { r.info.dwType = 9; }),
         "user block type"},
        {agent, Make<MSG_TRAYICON_LANGUAGE>([](auto& r) { KvBuildLanguage(r, u"EN", Info()); }),
         "two-letter"},
        {agent, With(reverse, [](auto& r) { r.dwStatus = 100; }), "0 (request) or 103"},
        {agent, With(reverse, [](auto& r) { r.dwStatus = 0, r.dwProxyPort = 1; }), "no proxy is used"},
        {kvsim::CheckPortQuery, ToBytes(KvBuildUdpHeader(703)), "must be 80"},
        {kvsim::CheckUdpHeader, ToBytes(KvBuildUdpHeader(704)), "none of 703, 720, 721"},
        {kvsim::CheckUdpHeader, Bytes(8, 0), "must be 12"},
        {invite, ToBytes(Invitation()), ""},
        {invite, With(Invitation(), [](auto& r) { r.bRightD = 0; }), "all clear"},
        {invite, With(Invitation(), [](auto& r) { r.reserved4[0] = 1; }), "bytes 4-2055"},
        {kvsim::CheckPermissionQuery, With(query, [](auto& r) { r.szConsoleAccount[0] = 1; }),
         "must be zero"},
        {CheckAnswer, answered(1111, u"H\\a"), ""},
        {CheckAnswer, answered(4444, u"H\\a"), "answered locally"},
        {CheckAnswer, answered(5555, u""), "none of 1111"},
        {CheckAnswer, answered(2222, u"alice"), "DOMAIN\\user"},
        {CheckAnswer, answered(2222, u"\\alice"), "DOMAIN\\user"},
        {CheckAnswer, With(PermissionRequest(), [](auto& r) {
             KvSetPermissionAnswer(r, 2222, true, u"H\\a");
             r.dwReserved8208 = 1;
         }), "unchanged"},
        // clang-format on
    };
    for (const auto& c : cases)
    {
        std::string all;
        for (const std::string& p : c.check(c.bytes.data(), c.bytes.size()))
            all += p + "\n";
        EXPECT_EQ(*c.mention == '\0', all.empty()) << all;
        EXPECT_NE(std::string::npos, all.find(c.mention)) << c.mention << " not in:\n" << all;
    }
}

// The end-to-end tests set most fields and see the agent follow; none may overlap another.
TEST(SettingsFields, NoTwoOverlapAndAllFitTheRecord)
{
    const auto& fields = kvsim::SettingsFields();
    const auto end = [](const kvsim::SettingsField& f)
    { return f.offset + (f.units == 0 ? 4 : 2 * f.units); };
    for (std::size_t i = 0; i < fields.size(); ++i)
    {
        EXPECT_LE(end(fields[i]), sizeof(MSG_TRAYICON_SETTINGS)) << fields[i].name;
        for (std::size_t j = i + 1; j < fields.size(); ++j)
            EXPECT_TRUE(end(fields[i]) <= fields[j].offset || end(fields[j]) <= fields[i].offset)
                << fields[i].name << " overlaps " << fields[j].name;
    }
}
