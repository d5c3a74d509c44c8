#include "SimServer.h"

#include "SimSoak.h"
#include "SimText.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <ostream>

namespace kvsim
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr unsigned kSliceMs = 50; // how often the stop flag and the line queue are looked at
constexpr std::size_t kReceiveBytes = 65536;
// A soak record whose echo takes longer has hung the agent; pop-ups on a loaded machine do not.
constexpr unsigned kSoakAnswerMs = 15000;
constexpr unsigned kAgentSendTimeoutMs = 10000;
constexpr unsigned kCutDrainMs = 30000;

} // namespace

void LineQueue::Push(std::string line)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(std::move(line));
}

void LineQueue::Close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bClosed = true;
}

bool LineQueue::TryPop(std::string& line, bool& eof)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    eof = false;
    if (!m_lines.empty())
    {
        line = std::move(m_lines.front());
        m_lines.pop_front();
        return true;
    }
    eof = m_bClosed;
    return false;
}

// ---------------------------------------------------------------------------------------------

Server::Server(const ServerOptions& options, std::ostream& trace, std::ostream& errors)
    : m_options(options), m_reporter(trace, errors), m_engine(options.engine, m_reporter)
{
}

bool Server::Open(std::string& error)
{
    if (!SocketStartup())
    {
        error = "the socket library did not start";
        return false;
    }
    // IPv4 first: it settles the port when any port will do, and IPv6 then takes the same one
    // (the agent resolves "localhost" and may land on either).
    Socket v4;
    if (!OpenLoopback(v4, true, false, m_options.tcpPort, error))
        return false;
    m_tcpPort = LocalPort(v4);
    m_listeners.push_back(std::move(v4));
    Socket v6;
    std::string ignored;
    if (OpenLoopback(v6, true, true, m_tcpPort, ignored))
        m_listeners.push_back(std::move(v6));

    if (m_options.udp)
    {
        Socket u4;
        if (!OpenLoopback(u4, false, false, m_options.udpPort, error))
            return false;
        m_udpPort = LocalPort(u4);
        m_udp.push_back(std::move(u4));
        Socket u6;
        if (OpenLoopback(u6, false, true, m_udpPort, ignored))
            m_udp.push_back(std::move(u6));
    }
    m_engine.SetAnswerPort(m_tcpPort);
    return true;
}

void Server::Flush()
{
    const bool bMayEnd = m_engine.OutgoingMayEndLink();
    const Bytes out = m_engine.TakeOutgoing();
    if (m_bCut || out.empty())
        return;
    if (!m_agent.Valid())
    {
        m_reporter.Error("cannot send " + std::to_string(out.size()) + " bytes: the agent is gone");
        return;
    }
    const bool bCut = m_options.cutAfterBytes - m_nSent <= out.size();
    const std::size_t size = bCut ? static_cast<std::size_t>(m_options.cutAfterBytes - m_nSent) : out.size();
    const bool bSent = size == 0 || SendAll(m_agent, out.data(), size);
    m_nSent += size;
    if (bCut)
    {
        // An end, not a reset: closing with the agent's answers unread would reset the link, and
        // the agent would lose bytes it had not read yet. What it still sends is drained in Run.
        m_reporter.Note("link cut after byte " + std::to_string(m_nSent));
        m_bCut = true;
        ShutdownSend(m_agent);
        m_engine.OnServiceClosed();
    }
    if (bSent)
        return;
    const std::string why = SocketErrorText(LastSocketError());
    // Whether the agent was right to end the link the script's next expectation tells.
    if (bMayEnd)
        m_reporter.Note("the agent ended the link during a chat body beyond what it skips: " + why);
    else
        m_reporter.Error("send to the agent failed: " + why);
}

void Server::ServeDatagram(Socket& s, bool permission)
{
    std::vector<std::uint8_t> buf(kReceiveBytes);
    PeerAddress from;
    const long n = RecvFrom(s, buf.data(), buf.size(), from);
    if (n < 0)
        return; // an ICMP echo of an earlier datagram; nothing arrived
    const std::size_t size = static_cast<std::size_t>(n);
    std::vector<Bytes> replies;
    if (permission)
    {
        m_permissionPeer = from;
        m_bPermissionPeerKnown = true;
        replies = m_engine.OnPermissionDatagram(buf.data(), size);
    }
    else
        replies = m_engine.OnServiceDatagram(from.Text(), buf.data(), size);
    for (const Bytes& reply : replies)
        if (!SendTo(s, reply.data(), reply.size(), from))
            m_reporter.Error("datagram to " + from.Text() + " failed: " + SocketErrorText(LastSocketError()));
}

bool Server::ConditionMet(Until until)
{
    switch (until)
    {
    case Until::Time:
        return false;
    case Until::Connected:
        return m_engine.GetStage() != Engine::Stage::Idle;
    case Until::Handshake:
        return m_engine.HandshakeDone();
    case Until::Received:
        return m_engine.TakeReceived(m_wantType);
    case Until::Chat:
        return m_engine.ChatWaiting();
    case Until::Permission:
        return m_engine.TakePermissionAnswer(m_gotPermission);
    case Until::Invitation:
        return m_engine.TakeInvitationEvent(m_wantInvite);
    case Until::Reverse:
        return m_engine.ReverseWaiting();
    case Until::SftFiles:
        return m_engine.SftFilesWaiting(m_wantSftViewer);
    case Until::Closed:
        return m_engine.AgentClosed();
    case Until::Line:
        return false;
    }
    return false;
}

bool Server::Pump(Until until, unsigned timeoutMs, LineQueue* lines, std::string* line, bool* eof)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::vector<std::uint8_t> buf(kReceiveBytes);
    for (;;)
    {
        if (m_bStop)
            return false;
        if (ConditionMet(until))
            return true;
        if (until == Until::Line && lines->TryPop(*line, *eof))
            return true;
        if (until == Until::Line && *eof)
            return true;
        // A record or the handshake can no longer come once the agent has gone.
        if ((until == Until::Received || until == Until::Chat || until == Until::Reverse ||
             until == Until::Handshake) &&
            m_engine.AgentClosed())
            return false;
        unsigned slice = kSliceMs;
        if (timeoutMs != 0)
        {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0)
                return false;
            slice = std::min<unsigned>(slice, static_cast<unsigned>(left));
        }

        std::vector<SocketHandle> handles;
        for (const Socket& s : m_listeners)
            handles.push_back(s.Get());
        for (const Socket& s : m_udp)
            handles.push_back(s.Get());
        if (m_agent.Valid())
            handles.push_back(m_agent.Get());
        if (m_permission.Valid())
            handles.push_back(m_permission.Get());
        std::vector<bool> ready;
        if (!WaitReadable(handles, slice, ready))
            continue;

        std::size_t i = 0;
        for (const Socket& listener : m_listeners)
        {
            if (!ready[i++])
                continue;
            Socket s = Accept(listener);
            if (!s.Valid())
                continue;
            if (m_engine.GetStage() != Engine::Stage::Idle)
            {
                m_reporter.Note("a second connection was closed: this simulator serves one agent");
                continue;
            }
            SetNoDelay(s);
            // A send to an agent that stopped reading fails in the end instead of holding the
            // script: under Wine a send blocked on a full buffer is not woken when the peer resets.
            SetSendTimeout(s, kAgentSendTimeoutMs);
            m_agent = std::move(s);
            m_reporter.Note("agent connected");
            m_engine.Start();
            Flush();
        }
        for (Socket& s : m_udp)
            if (ready[i++])
                ServeDatagram(s, false);
        if (m_agent.Valid() && ready[i++])
        {
            const long n = RecvSome(m_agent, buf.data(), buf.size());
            if (n > 0)
            {
                m_engine.OnAgentBytes(buf.data(), static_cast<std::size_t>(n));
                Flush();
            }
            else
            {
                if (n < 0)
                    m_reporter.Note("receive from the agent failed: " + SocketErrorText(LastSocketError()));
                m_engine.OnAgentClosed();
                m_agent.Close();
            }
        }
        if (m_permission.Valid() && ready[i++])
            ServeDatagram(m_permission, true);
    }
}

bool Server::RunCommand(const Command& cmd)
{
    const std::string& v = cmd.verb;
    const std::string where = "line " + std::to_string(cmd.line) + ": ";
    if (v == "wait")
    {
        Pump(Until::Time, std::max(1u, cmd.U32(0)));
        return true;
    }
    if (v == "expect")
    {
        m_wantType = cmd.U32(0);
        const unsigned timeout = cmd.U32(1, m_options.expectTimeoutMs);
        if (Pump(Until::Received, timeout))
            return true;
        if (!m_bStop)
            m_reporter.Error(where + "expected " + KvMessageName(m_wantType) + " from the agent within " +
                             std::to_string(timeout) + " ms" +
                             (m_engine.AgentClosed() ? "; the agent has closed the connection" : ""));
        return false;
    }
    if (v == "expect-chat")
    {
        const unsigned timeout = cmd.OptionU32("timeout", m_options.expectTimeoutMs);
        if (Pump(Until::Chat, timeout))
            return m_engine.TakeChat(cmd);
        if (!m_bStop)
            m_reporter.Error(where + "no chat message from the agent within " + std::to_string(timeout) +
                             " ms" + (m_engine.AgentClosed() ? "; the agent has closed the connection" : ""));
        return false;
    }
    if (v == "expect-reverse")
    {
        const unsigned timeout = cmd.OptionU32("timeout", m_options.expectTimeoutMs);
        if (Pump(Until::Reverse, timeout))
            return m_engine.TakeReverse(cmd);
        if (!m_bStop)
            m_reporter.Error(where + "no reverse-connection request from the agent within " +
                             std::to_string(timeout) + " ms");
        return false;
    }
    if (v == "expect-sft-files")
    {
        m_wantSftViewer = cmd.U32(0);
        const unsigned timeout = cmd.OptionU32("timeout", m_options.expectTimeoutMs);
        if (Pump(Until::SftFiles, timeout))
            return m_engine.TakeSftFiles(cmd);
        if (!m_bStop)
            m_reporter.Error(where + "the drop event of viewer " + std::to_string(m_wantSftViewer) +
                             " was not set within " + std::to_string(timeout) + " ms");
        return false;
    }
    if (v == "expect-closed")
    {
        const unsigned timeout = cmd.U32(0, m_options.expectTimeoutMs);
        if (Pump(Until::Closed, timeout))
            return true;
        if (!m_bStop)
            m_reporter.Error(where + "the agent did not close the connection within " +
                             std::to_string(timeout) + " ms");
        return false;
    }
    if (v == "expect-permission")
    {
        std::uint32_t want = 0;
        ResolvePermissionAnswer(cmd.Arg(0), want);
        const unsigned timeout = cmd.U32(1, m_options.expectTimeoutMs);
        if (!Pump(Until::Permission, timeout))
        {
            if (!m_bStop)
                m_reporter.Error(where + "no permission answer within " + std::to_string(timeout) + " ms");
            return false;
        }
        if (want != 0 && m_gotPermission != want)
        {
            m_reporter.Error(where + "permission answer " + PermissionAnswerName(m_gotPermission) +
                             ", expected " + PermissionAnswerName(want));
            return false;
        }
        return true;
    }
    if (v == "expect-invite")
    {
        m_wantInvite = cmd.Arg(0);
        const unsigned timeout = cmd.OptionU32("timeout", m_options.expectTimeoutMs);
        if (Pump(Until::Invitation, timeout))
            return m_wantInvite != "create" || m_engine.CompareInvitation(cmd);
        if (!m_bStop)
            m_reporter.Error(where + "no invitation " + m_wantInvite + " exchange within " +
                             std::to_string(timeout) + " ms");
        return false;
    }
    if (v == "permission")
    {
        // Address family 23 is the agent's platform value for IPv6.
        const bool v6 = cmd.OptionU32("af", 2) == 23;
        std::string error;
        if (!OpenLoopback(m_permission, false, v6, 0, error))
        {
            m_reporter.ScriptError(where + "permission port: " + error);
            return false;
        }
        m_bPermissionPeerKnown = false;
        m_engine.StartPermission(LocalPort(m_permission), cmd);
        Flush();
        return true;
    }
    if (v == "hang-up")
    {
        Flush();
        m_agent.Close();
        m_engine.OnServiceClosed();
        return true;
    }
    if (v == "soak")
        return RunSoak(cmd, where);
    if (v == "permission-withdraw")
    {
        const Bytes datagram = m_engine.WithdrawPermission();
        if (datagram.empty())
            return false;
        if (!m_bPermissionPeerKnown ||
            !SendTo(m_permission, datagram.data(), datagram.size(), m_permissionPeer))
        {
            m_reporter.Error(where + "the withdrawal could not be sent");
            return false;
        }
        return true;
    }
    const bool ok = m_engine.Execute(cmd);
    Flush();
    return ok;
}

// One record at a time, each answered before the next goes, so that a crash or a hang is pinned
// to the record before it and the agent's answers never pile up behind a blocked send.
bool Server::RunSoak(const Command& cmd, const std::string& where)
{
    const std::uint32_t count = cmd.U32(0);
    const std::uint32_t seed = cmd.U32(1);
    const std::uint32_t skip = cmd.OptionU32("skip", 0);
    m_reporter.Note("soak of " + std::to_string(count) + " records, seed " + std::to_string(seed) +
                    (skip != 0 ? ", without " + std::to_string(skip) : std::string()));
    SoakRecords records(seed, skip);
    std::map<std::uint32_t, std::pair<unsigned, std::size_t>> sent; // id -> records, bytes
    for (std::uint32_t i = 1; i <= count; ++i)
    {
        std::string summary;
        const Bytes rec = records.Next(summary);
        auto& tally = sent[KvReadU32(rec.data())];
        ++tally.first;
        tally.second += rec.size();
        summary = "soak " + std::to_string(i) + "/" + std::to_string(count) + ": " + summary;
        m_engine.SendSoak(rec, summary);
        Flush();
        m_wantType = MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE;
        if (Pump(Until::Received, kSoakAnswerMs))
            continue;
        // A fault on the window's thread shows only at the next record that waits for it: the
        // trace's previous records hold the cause.
        if (!m_bStop)
            m_reporter.Error(where +
                             (m_engine.AgentClosed()
                                  ? std::string("the agent closed the connection")
                                  : "no echo within " + std::to_string(kSoakAnswerMs) + " ms") +
                             " after " + summary + " (seed " + std::to_string(seed) + ")");
        return false;
    }
    m_reporter.Note("soak done: " + std::to_string(count) + " records answered");
    char row[128];
    std::snprintf(row, sizeof row, "%-44s %8s %12s", "record", "answered", "bytes");
    m_reporter.Note(row);
    for (const auto& entry : sent)
    {
        std::snprintf(row, sizeof row, "%-44s %8u %12zu", KvMessageName(entry.first), entry.second.first,
                      entry.second.second);
        m_reporter.Note(row);
    }
    return true;
}

// After a cut: reads and drops what the agent sends until it closes its end, at most kCutDrainMs.
void Server::DrainAgent()
{
    std::vector<std::uint8_t> buf(kReceiveBytes);
    std::vector<bool> ready;
    for (const Clock::time_point end = Clock::now() + std::chrono::milliseconds(kCutDrainMs);
         m_agent.Valid() && !m_bStop && Clock::now() < end;)
        if (WaitReadable({m_agent.Get()}, kSliceMs, ready) && RecvSome(m_agent, buf.data(), buf.size()) <= 0)
            m_agent.Close();
}

int Server::Run(LineQueue& script)
{
    m_reporter.Note("waiting for the agent on TCP port " + std::to_string(m_tcpPort) +
                    (m_options.udp ? ", UDP port " + std::to_string(m_udpPort) : std::string()));
    if (!Pump(Until::Connected, m_options.acceptTimeoutMs))
    {
        if (!m_bStop)
            m_reporter.Error("no agent connected within " + std::to_string(m_options.acceptTimeoutMs) +
                             " ms");
        return m_reporter.ErrorCount() == 0 ? 0 : 1;
    }
    if (!Pump(Until::Handshake, m_options.handshakeTimeoutMs))
    {
        if (!m_bStop && !m_engine.AgentClosed())
            m_reporter.Error(std::string("handshake stalled: ") + Engine::StageName(m_engine.GetStage()));
        if (m_bCut)
            DrainAgent();
        return m_reporter.ErrorCount() == 0 ? 0 : 1;
    }

    int lineNo = 0;
    while (!m_bCut)
    {
        std::string line;
        bool eof = false;
        if (!Pump(Until::Line, 0, &script, &line, &eof) || eof)
            break;
        ++lineNo;
        Command cmd;
        std::string error;
        if (!ParseCommand(line, lineNo, cmd, error))
        {
            m_reporter.ScriptError("line " + std::to_string(lineNo) + ": " + error);
            continue;
        }
        if (cmd.verb.empty())
            continue;
        const std::size_t start = line.find_first_not_of(" \t");
        const std::size_t end = line.find_last_not_of(" \t\r\n");
        m_reporter.Trace("## " + line.substr(start, end - start + 1));
        RunCommand(cmd);
    }
    if (m_options.stay && !m_bStop)
        Pump(Until::Closed, 0);
    if (m_bCut)
        DrainAgent();
    return m_reporter.ErrorCount() == 0 ? 0 : 1;
}

} // namespace kvsim
