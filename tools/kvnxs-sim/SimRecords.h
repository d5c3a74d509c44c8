// The service's side of the records: building what the service sends, checking what the agent
// sends, and one readable line per record for the trace. Pure, so the host tests reach it.
#pragma once

#include "KvServiceMessages.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvsim
{

using Bytes = std::vector<std::uint8_t>;

template <typename T> Bytes ToBytes(const T& rec)
{
    return Bytes(KvBytes(rec), KvBytes(rec) + sizeof(T));
}

// ---- Settings fields by script name.

struct SettingsField
{
    const char* name;
    std::size_t offset;
    std::size_t units; // 0: uint32; else a string of that many units
};

const std::vector<SettingsField>& SettingsFields();
const SettingsField* FindSettingsField(std::string_view name);
// Value: a number for a uint32 field, UTF-8 text for a string field (cut to fit).
bool SetSettingsField(MSG_TRAYICON_SETTINGS& rec, std::string_view name, std::string_view value,
                      std::string& error);
// A plausible service configuration: notices on, everything allowed, English.
void DefaultSettings(MSG_TRAYICON_SETTINGS& rec);

// ---- What the service sends (TCP).

// Service version record; its reserved bytes carry a pattern the agent must echo.
void BuildVersion(MSG_VERSION& rec, std::uint32_t dwSessionId);
void BuildInit(MSG_TRAYICON_INIT& rec, std::uint32_t dwEffects, std::uint32_t dwOneTime,
               std::u16string_view text);
void BuildConnectInfo(MSG_TRAYICON_CONNECT_INFO& rec, std::uint32_t dwType, std::u16string_view user,
                      std::u16string_view line2, std::u16string_view line3, std::uint32_t dwIcon,
                      std::uint32_t dwConnections, std::uint32_t bButton, std::uint32_t dwViewerId);
void BuildNotifyAll(MSG_TRAYICON_NOTIFY_ALL& rec, std::u16string_view text, std::uint32_t dwCount);
void BuildReconfigure(MSG_TRAYICON_SERVER_RECONFIGURE& rec, std::uint32_t dwState, std::u16string_view text);
void BuildAddresses(MSG_TRAYICON_IP_ADDRESSES& rec, const std::vector<std::u16string>& list);
void BuildReverseResult(MSG_REVERSE_CONNECTION& rec, std::uint32_t dwStatus, std::uint32_t dwError,
                        std::u16string_view error, std::uint32_t bShort, std::uint32_t bSuppress,
                        std::u16string_view shortText, std::u16string_view host, std::uint32_t dwPort);
void BuildSftDrop(MSG_TRAYICON_SFT_DROP_CLIENT& rec, std::uint32_t dwViewerId, std::uint32_t dwValue,
                  std::u16string_view viewerName, std::u16string_view eventName,
                  std::u16string_view listPath);
void BuildSftInit(MSG_TRAYICON_SFT_INIT_TEMP& rec, std::u16string_view eventName, std::u16string_view iniPath,
                  std::u16string_view dataPath);
void BuildChatOpen(MSG_TRAYICON_CHAT_OPEN& rec, std::u16string_view user);
// A whole chat message whose body is the text repeated until it is cbBody bytes long (odd counts
// too). bFillUser fills all 260 units of the name with the name repeated, leaving no terminator.
Bytes BuildChat(std::u16string_view user, bool bFillUser, std::u16string_view text, std::size_t cbBody);
// The body of a chat message as far as the record holds it (an odd last byte left out), at most
// maxUnits units.
std::u16string ChatBody(const std::uint8_t* data, std::size_t size, std::size_t maxUnits = SIZE_MAX);

// ---- What the service sends (datagrams).

void BuildPortAnswer(MSG_PORT_QUERY& rec, std::uint32_t dwTcpPort);
void BuildPermissionRequest(MSG_PERMISSION_RECORD& rec, std::uint32_t dwType, std::u16string_view text,
                            std::uint32_t bKeep, std::uint32_t bDenyDefault, std::uint32_t dwVariant);
void BuildInvitationReply(MSG_INVITATION_REPLY& rec, std::uint32_t dwError, std::u16string_view message,
                          std::uint32_t cbText);

// ---- Checks of what the agent sends. Each returns the problems found; none means the record
// is as the protocol wants it. They judge one record alone; the engine adds what depends on the
// conversation (echoes, acknowledgements, answers nobody asked for).

std::vector<std::string> CheckAgentRecord(const std::uint8_t* data, std::size_t size);
std::vector<std::string> CheckUdpHeader(const std::uint8_t* data, std::size_t size);
std::vector<std::string> CheckPortQuery(const std::uint8_t* data, std::size_t size);
std::vector<std::string> CheckInvitationRequest(const std::uint8_t* data, std::size_t size);
// The permission child's first send: type 70006, everything else zero.
std::vector<std::string> CheckPermissionQuery(const std::uint8_t* data, std::size_t size);
// The answer: the request as sent, with the answer fields filled.
std::vector<std::string> CheckPermissionAnswer(const std::uint8_t* data, std::size_t size,
                                               const MSG_PERMISSION_RECORD& request);

// ---- Trace.

// "MSG_TYPE_... (N bytes) key=value ..." for one TCP record travelling in dir.
std::string DescribeRecord(const std::uint8_t* data, std::size_t size, KvDirection dir);
std::string PermissionAnswerName(std::uint32_t code);

} // namespace kvsim
