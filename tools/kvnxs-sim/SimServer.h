// The simulator on the network: TCP listener for the agent, the service's UDP port, the
// permission port, and the script loop with its waits and expectations.
#pragma once

#include "SimEngine.h"
#include "SimSocket.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace kvsim
{

// Script lines from wherever they come (a file read up front, standard input read by another
// thread); the server takes them one by one while it keeps serving the sockets.
class LineQueue
{
public:
    void Push(std::string line);
    void Close();
    // A line if one is there; eof is set once the queue is closed and empty.
    bool TryPop(std::string& line, bool& eof);

private:
    std::mutex m_mutex;
    std::deque<std::string> m_lines;
    bool m_bClosed = false;
};

struct ServerOptions
{
    std::uint16_t tcpPort = KV_DEFAULT_SERVICE_PORT; // 0: any free port
    std::uint16_t udpPort = KV_DEFAULT_SERVICE_PORT; // 0: any free port
    bool udp = true;
    unsigned acceptTimeoutMs = 0; // 0: wait for the agent for ever
    unsigned handshakeTimeoutMs = 30000;
    unsigned expectTimeoutMs = 5000; // default of expect steps
    bool stay = false;               // after the script, serve until the agent leaves
    // Closes the link once this many bytes went to the agent, the first of them included (from the
    // version record on); what the agent sends then and the rest of the script are dropped.
    std::uint64_t cutAfterBytes = UINT64_MAX;
    EngineOptions engine;
};

class Server
{
public:
    Server(const ServerOptions& options, std::ostream& trace, std::ostream& errors);

    // Binds the sockets. False with a message on stderr-style error text.
    bool Open(std::string& error);
    std::uint16_t TcpPort() const { return m_tcpPort; }
    std::uint16_t UdpPort() const { return m_udpPort; }

    // Waits for the agent, plays the handshake, then runs the script. Returns the exit code:
    // 0 all well, 1 protocol errors or failed expectations.
    int Run(LineQueue& script);

    // From another thread: end the run at the next turn.
    void RequestStop() { m_bStop = true; }

    const Reporter& GetReporter() const { return m_reporter; }

private:
    enum class Until
    {
        Time,       // just serve until the deadline
        Connected,  // an agent connected
        Handshake,  // the handshake is done
        Received,   // a record of m_wantType arrived
        Chat,       // a chat message arrived
        Permission, // a permission answer arrived
        Invitation, // an invitation exchange of m_wantInvite happened
        SftFiles,   // the drop event of viewer m_wantSftViewer was set
        Reverse,    // a reverse-connection request arrived
        Closed,     // the agent closed the connection
        Line,       // a script line is available
    };

    // Serves every socket until the condition holds or timeoutMs passes (0: no limit).
    bool Pump(Until until, unsigned timeoutMs, LineQueue* lines = nullptr, std::string* line = nullptr,
              bool* eof = nullptr);
    bool ConditionMet(Until until);
    void Flush();
    void ServeDatagram(Socket& s, bool permission);
    bool RunCommand(const Command& cmd);
    bool RunSoak(const Command& cmd, const std::string& where);
    void DrainAgent();

    ServerOptions m_options;
    Reporter m_reporter;
    Engine m_engine;
    std::vector<Socket> m_listeners;
    std::vector<Socket> m_udp;
    Socket m_agent;
    Socket m_permission;
    PeerAddress m_permissionPeer;
    bool m_bPermissionPeerKnown = false;
    std::uint16_t m_tcpPort = 0;
    std::uint16_t m_udpPort = 0;
    std::atomic<bool> m_bStop{false};
    std::uint64_t m_nSent = 0;
    bool m_bCut = false;

    std::uint32_t m_wantType = 0;
    std::string m_wantInvite;
    std::uint32_t m_wantSftViewer = 0;
    std::uint32_t m_gotPermission = 0;
};

} // namespace kvsim
