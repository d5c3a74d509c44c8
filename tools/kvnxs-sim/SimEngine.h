// The service's side of the conversation without any sockets: bytes from the agent go in, bytes
// for the agent come out, and every step is traced and checked. The server (SimServer) only
// moves bytes between this and the network, so the host tests drive the whole protocol here.
#pragma once

#include "KvRecordCodec.h"
#include "KvServiceMessages.h"
#include "SimRecords.h"
#include "SimScript.h"
#include "SimSftFiles.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kvsim
{

// Where the trace and the errors go. Errors of both kinds are counted; any makes a run fail.
class Reporter
{
public:
    Reporter(std::ostream& trace, std::ostream& errors) : m_trace(trace), m_errors(errors) {}

    void Trace(const std::string& line);
    void Note(const std::string& line);
    void Error(const std::string& line);
    // A bad script line or a command that cannot run: counted like a protocol error, named apart.
    void ScriptError(const std::string& line);

    std::size_t ErrorCount() const { return m_list.size(); }
    const std::vector<std::string>& Errors() const { return m_list; }

private:
    std::ostream& m_trace;
    std::ostream& m_errors;
    std::vector<std::string> m_list;
};

// The agent's session id is not checked against a known value (only for consistency).
constexpr std::uint32_t kAnySession = 0xFFFFFFFF;

struct EngineOptions
{
    std::uint32_t dwServiceSession = 0;         // session id in the service's version record
    std::uint32_t dwAgentSession = kAnySession; // what the agent must answer as its own session
    std::uint32_t dwInitEffects = 0;            // desktop-effects mask of the initialisation record
    std::uint32_t dwOneTime = 0;                // one-time session flag and text of the initialisation
    std::u16string oneTimeText;
    std::uint32_t dwTcpPort = KV_DEFAULT_SERVICE_PORT; // what the port query answers
};

class Engine
{
public:
    // Handshake stages, in the order the service drives them.
    enum class Stage
    {
        Idle,          // nobody connected yet
        AwaitVersion,  // version sent, waiting for its echo
        AwaitInitAck,  // initialisation sent, waiting for {50005, 0}
        AwaitInitEcho, // waiting for the initialisation echo
        AwaitUserInfo, // settings sent, waiting for the desktop user information
        Running,       // handshake done: the script runs
    };

    Engine(const EngineOptions& options, Reporter& reporter);
    ~Engine();

    // ---- TCP link.
    void Start(); // an agent connected: the version record goes out
    void OnAgentBytes(const std::uint8_t* data, std::size_t size);
    void OnAgentClosed();
    // The service side closed the link (hang-up); whatever the agent still sends is lost.
    void OnServiceClosed();
    bool AgentClosed() const { return m_bClosed; }
    Stage GetStage() const { return m_stage; }
    static const char* StageName(Stage stage);
    bool HandshakeDone() const { return m_stage == Stage::Running; }
    Bytes TakeOutgoing(); // what is to be sent to the agent, in order
    // What is to be sent holds a chat body beyond the agent's bound: the agent may end the link
    // before it has taken it all.
    bool OutgoingMayEndLink() const { return m_bOutgoingMayEndLink; }

    // ---- Script commands that only build records (everything but waits, expectations and the
    // permission socket). False when the command could not be carried out (reported).
    bool Execute(const Command& cmd);
    // A record of the soak, traced by its summary, and the read-unblocking echo behind it.
    void SendSoak(const Bytes& rec, const std::string& summary);

    // Expectations: each takes the first matching event and forgets it.
    bool TakeReceived(std::uint32_t dwType);
    bool TakeInvitationEvent(const std::string& kind);
    // The last invitation request against name= rights=ABCDE (digits) expiry= password=
    // proxy-host= proxy-port= secret=, byte for byte; true when no field is named.
    bool CompareInvitation(const Command& cmd) const;
    bool TakePermissionAnswer(std::uint32_t& code);
    // The agent's chat messages, oldest first. Once one is waiting, TakeChat compares the oldest
    // with the text of an expect-chat line, reports a difference and forgets it.
    bool ChatWaiting() const { return !m_chats.empty(); }
    bool TakeChat(const Command& cmd);
    // The event of the viewer's last drop-client record was set; TakeSftFiles then compares the
    // listed files with an expect-sft-files line.
    bool SftFilesWaiting(std::uint32_t dwViewerId);
    // The agent's reverse-connection requests (70070), oldest first; TakeReverse compares the
    // oldest with the fields named on an expect-reverse line, reports each difference and forgets it.
    bool ReverseWaiting() const { return !m_reverseRequests.empty(); }
    bool TakeReverse(const Command& cmd);
    bool TakeSftFiles(const Command& cmd);

    // ---- Datagrams to the service's UDP port (port query, invitations); returns the replies.
    void SetAnswerPort(std::uint32_t dwTcpPort) { m_options.dwTcpPort = dwTcpPort; }
    std::vector<Bytes> OnServiceDatagram(const std::string& peer, const std::uint8_t* data, std::size_t size);

    // ---- Permission exchange on its own UDP port.
    void StartPermission(std::uint32_t dwPort, const Command& cmd); // queues 70050
    std::vector<Bytes> OnPermissionDatagram(const std::uint8_t* data, std::size_t size);
    Bytes WithdrawPermission(); // the datagram to send; empty (and an error) when none is open
    bool PermissionOpen() const;

private:
    void Send(const std::uint8_t* data, std::size_t size);
    template <typename T> void Send(const T& rec) { Send(KvBytes(rec), sizeof(T)); }
    void SendSettings(std::uint32_t dwType);
    void HandleAgentRecord(const std::vector<std::uint8_t>& rec);
    void ProtocolError(const std::string& what);
    // A record built by hand (raw) still asks for the answers its id asks for.
    void NoteAnswersAskedBy(const Bytes& rec);
    bool ApplySettings(const Command& cmd);
    void SendChat(const Command& cmd);

    EngineOptions m_options;
    Reporter& m_reporter;
    KvRecordDecoder m_decoder{KvDirection::ToService};
    Stage m_stage = Stage::Idle;
    bool m_bClosed = false;
    bool m_bStreamBroken = false;
    bool m_bExitRequested = false;
    Bytes m_outgoing;
    bool m_bOutgoingMayEndLink = false;
    std::uint32_t m_lastAgentType = 0;

    std::uint32_t m_agentSession = 0; // from the version echo
    std::unique_ptr<MSG_VERSION> m_version;
    std::unique_ptr<MSG_TRAYICON_INIT> m_init;
    std::unique_ptr<MSG_TRAYICON_SETTINGS> m_settings;
    std::deque<std::uint32_t> m_effectsAcks; // masks the agent still has to acknowledge
    bool m_bInitAckPending = false;
    unsigned m_nUserInfoPending = 0;
    unsigned m_nUnblockPending = 0;
    unsigned m_nVersionEchoPending = 0; // versions and initialisations sent after the handshake
    unsigned m_nInitEchoPending = 0;
    std::deque<std::uint32_t> m_received;

    // Viewers by name, in connection order.
    std::vector<std::pair<std::string, std::uint32_t>> m_viewers;
    std::uint32_t m_nextViewerId = 1;

    // Chat: the viewer the service chats for, whether that viewer has left since, and the texts
    // the agent sent.
    std::string m_chatViewer;
    bool m_bChatViewerGone = false;
    std::deque<std::u16string> m_chats;
    // Per viewer: the event and settings file of its last drop-client record.
    struct SftDrop
    {
        std::string listPath;
        std::unique_ptr<SftDropEvent> event;
        bool bSet = false;
    };
    std::map<std::uint32_t, SftDrop> m_sftDrops;
    std::deque<std::unique_ptr<MSG_REVERSE_CONNECTION>> m_reverseRequests;

    // Invitations.
    std::map<std::string, std::uint32_t> m_udpPending; // peer -> command announced by its header
    std::string m_inviteText = "VEXA-INVITATION:SIMULATED";
    std::uint32_t m_cbInviteAnnounced = static_cast<std::uint32_t>(m_inviteText.size());
    std::uint32_t m_dwInviteError = 0;
    std::u16string m_inviteErrorText;
    std::uint32_t m_dwDeleteStatus = 0;
    std::uint32_t m_dwDeleteCount = 0;
    std::deque<std::string> m_inviteEvents;
    std::unique_ptr<MSG_INVITATION_REQUEST> m_lastInvitation;
    bool m_bInviteSilent = false;

    // Permission.
    enum class PermStage
    {
        None,
        AwaitQuery,
        AwaitAnswer,
        Done
    };
    PermStage m_permStage = PermStage::None;
    bool m_bPermWithdrawn = false;
    std::unique_ptr<MSG_PERMISSION_RECORD> m_permRequest;
    std::deque<std::uint32_t> m_permAnswers;
};

} // namespace kvsim
