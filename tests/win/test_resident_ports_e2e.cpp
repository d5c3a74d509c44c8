// How the resident agent finds the service: the default port for a port of 0, and the service's
// port query when the given port is dead. Both use the service's own port 6129 of this machine.
#include "resident_agent.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace kvtest;

namespace
{

// A loopback port nobody listens on: bound for a moment, then let go.
std::uint16_t DeadPort()
{
    kvsim::Socket s;
    std::string error;
    return kvsim::OpenLoopback(s, true, false, 0, error) ? kvsim::LocalPort(s) : 0;
}

// The agent that went through the handshake runs on another desktop than ours.
bool MetStranger(const Resident& r)
{
    const std::string trace = r.sim.Trace();
    const size_t at = trace.find("<< MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION");
    if (at == std::string::npos)
        return false;
    const std::string line = trace.substr(at, trace.find('\n', at) - at);
    return line.find("desktop=\"" + Narrow(r.desktop.Name()) + "\"") == std::string::npos;
}

// An agent started with commandLine(r) that has gone through the handshake with a simulator on
// the service's port. Test runs elsewhere on this machine may hold that port for a while or send
// an agent of theirs to it (theirs ask that port too): both are waited out, never taken for a
// fault of this agent.
std::unique_ptr<Resident> HandshakeOnServicePort(const kvsim::ServerOptions& options,
                                                 const std::function<std::wstring(Resident&)>& commandLine)
{
    std::unique_ptr<Resident> r;
    for (int nTry = 0; nTry < 60; ++nTry)
    {
        r = std::make_unique<Resident>(options);
        if (!r->sim.Opened())
        {
            Sleep(1000);
            continue;
        }
        if (!r->Ready() || !r->Start(commandLine(*r)) ||
            (r->sim.Handshaken(2 * kE2eWait) && !MetStranger(*r)) || !MetStranger(*r))
            break;
    }
    return r;
}

} // namespace

TEST(ResidentAgentPorts, PortZeroMeansTheServicesDefaultPort)
{
    kvsim::ServerOptions options = SimThread::Options(OwnSession());
    options.tcpPort = KV_DEFAULT_SERVICE_PORT;
    const std::unique_ptr<Resident> resident =
        HandshakeOnServicePort(options, [](Resident&) { return L"0"; });
    Resident& r = *resident;
    ASSERT_TRUE(r.Ready());
    ASSERT_TRUE(r.sim.Handshaken(0)) << r.Story();
    EXPECT_TRUE(r.WaitForLog("INFO", "ConnectionInfo", "Connecting to the service on port 6129", 0))
        << r.Story();
    EXPECT_TRUE(r.ExitsOnRequest());
}

TEST(ResidentAgentPorts, DeadPortLeadsToThePortQueryAndThePortItNames)
{
    kvsim::ServerOptions options = SimThread::Options(OwnSession());
    options.udp = true;
    options.udpPort = KV_DEFAULT_SERVICE_PORT;
    // Two attempts three seconds apart come first.
    const std::unique_ptr<Resident> resident =
        HandshakeOnServicePort(options, [](Resident&) { return std::to_wstring(DeadPort()); });
    Resident& r = *resident;
    ASSERT_TRUE(r.Ready());
    ASSERT_TRUE(r.sim.Handshaken(0)) << r.Story();
    const std::string port = std::to_string(r.sim.Port());
    EXPECT_TRUE(r.sim.WaitTrace(" port answer port=" + port, 0)) << r.Story();
    EXPECT_TRUE(
        r.WaitForLog("INFO", "ConnectionInfo", "Connecting to the service on its announced port " + port))
        << r.Story();
    EXPECT_TRUE(r.ExitsOnRequest());
}
