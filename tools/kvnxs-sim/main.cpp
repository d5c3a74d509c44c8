// kvnxs-sim: stands in for the service so that a developer, a test or a demo can meet the tray
// agent. See --help.
#include "SimScript.h"
#include "SimServer.h"
#include "SimText.h"

#include <fstream>
#include <random>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

namespace
{

const char kUsage[] =
    "usage: kvnxs-sim [options]\n"
    "Plays the service's side of the link with the tray agent: the version, initialisation and\n"
    "settings exchange, then a script of one command a line. Every record from the agent is\n"
    "checked; protocol errors (PROTOCOL ERROR), failed expectations and bad script lines\n"
    "(SCRIPT ERROR) make the exit code 1; a script file with bad lines is refused at once (2).\n"
    "\n"
    "options:\n"
    "  --port N               TCP port for the agent (default 6129; 0 = any, printed)\n"
    "  --udp-port N           UDP port for the port query and invitations (default 6129; 0 = any)\n"
    "  --no-udp               no UDP port\n"
    "  --script FILE          script to run ('-' or none: standard input)\n"
    "  --stay                 after the script, serve until the agent closes the connection\n"
    "  --accept-timeout MS    give up when no agent connects in time (default: wait for ever)\n"
    "  --handshake-timeout MS (default 30000)\n"
    "  --expect-timeout MS    default of expect steps (default 5000)\n"
    "  --session N            service session id in the version record (default 0)\n"
    "  --agent-session N      the session the agent must name as its own (default: not checked)\n"
    "  --init-effects MASK    desktop-effects mask of the initialisation record (default 0)\n"
    "  --one-time TEXT        one-time session flag set, with this text\n"
    "  --soak N               instead of a script: N seeded random records (see soak below), a last\n"
    "                         echo, then the exit request; the agent must survive and exit\n"
    "  --seed S               the soak's seed (default: a random one, printed)\n"
    "  --soak-skip ID         leave that id out of the soak (to look past a known fault)\n"
    "  --cut-after N          close the link once N bytes went to the agent (0: at once), then stop\n"
    "\n"
    "script commands:\n";

bool TakeNumber(int argc, char** argv, int& i, std::uint32_t& out)
{
    if (i + 1 >= argc || !kvsim::ParseU32(argv[i + 1], out))
    {
        std::cerr << "kvnxs-sim: " << argv[i] << " needs a number\n";
        return false;
    }
    ++i;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    kvsim::ServerOptions options;
    std::string scriptPath = "-";
    std::uint32_t soakCount = 0;
    std::uint32_t soakSeed = std::random_device{}();
    std::uint32_t soakSkip = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        std::uint32_t n = 0;
        if (arg == "--help" || arg == "-h")
        {
            std::cout << kUsage << kvsim::ScriptHelp();
            return 0;
        }
        if (arg == "--port" || arg == "--udp-port")
        {
            if (!TakeNumber(argc, argv, i, n) || n > 65535)
                return 2;
            (arg == "--port" ? options.tcpPort : options.udpPort) = static_cast<std::uint16_t>(n);
        }
        else if (arg == "--no-udp")
            options.udp = false;
        else if (arg == "--stay")
            options.stay = true;
        else if (arg == "--script" && i + 1 < argc)
            scriptPath = argv[++i];
        else if (arg == "--accept-timeout" && TakeNumber(argc, argv, i, n))
            options.acceptTimeoutMs = n;
        else if (arg == "--handshake-timeout" && TakeNumber(argc, argv, i, n))
            options.handshakeTimeoutMs = n;
        else if (arg == "--expect-timeout" && TakeNumber(argc, argv, i, n))
            options.expectTimeoutMs = n;
        else if (arg == "--session" && TakeNumber(argc, argv, i, n))
            options.engine.dwServiceSession = n;
        else if (arg == "--agent-session" && TakeNumber(argc, argv, i, n))
            options.engine.dwAgentSession = n;
        else if (arg == "--init-effects" && TakeNumber(argc, argv, i, n))
            options.engine.dwInitEffects = n;
        else if (arg == "--soak" && TakeNumber(argc, argv, i, n))
            soakCount = n;
        else if (arg == "--seed" && TakeNumber(argc, argv, i, n))
            soakSeed = n;
        else if (arg == "--soak-skip" && TakeNumber(argc, argv, i, n))
            soakSkip = n;
        else if (arg == "--cut-after" && TakeNumber(argc, argv, i, n))
            options.cutAfterBytes = n;
        else if (arg == "--one-time" && i + 1 < argc)
        {
            options.engine.dwOneTime = 1;
            options.engine.oneTimeText = kvsim::Utf8ToUtf16(argv[++i]);
        }
        else
        {
            std::cerr << "kvnxs-sim: bad argument '" << arg << "' (see --help)\n";
            return 2;
        }
    }

    // Shared with the standard-input reader, which may outlive main's scope.
    auto queue = std::make_shared<kvsim::LineQueue>();
    kvsim::LineQueue& lines = *queue;
    if (soakCount != 0)
    {
        std::cout << "kvnxs-sim: soak seed " << soakSeed << std::endl;
        for (const std::string& line :
             {"soak " + std::to_string(soakCount) + " " + std::to_string(soakSeed) + " skip=" + std::to_string(soakSkip),
              std::string("unblock"),
              std::string("expect 100000 15000"), std::string("exit"), std::string("expect-closed 15000")})
            lines.Push(line);
        lines.Close();
    }
    else if (scriptPath != "-")
    {
        std::ifstream file(scriptPath, std::ios::binary);
        if (!file)
        {
            std::cerr << "kvnxs-sim: cannot read " << scriptPath << "\n";
            return 2;
        }
        std::stringstream text;
        text << file.rdbuf();
        std::vector<kvsim::Command> commands;
        std::vector<std::string> errors;
        if (!kvsim::ParseScript(text.str(), commands, errors))
        {
            for (const std::string& e : errors)
                std::cerr << "kvnxs-sim: " << scriptPath << ": " << e << "\n";
            return 2;
        }
        std::string line;
        while (std::getline(text, line))
            lines.Push(line);
        lines.Close();
    }
    else
    {
        // A person types commands while the sockets are served; the reader may block on the
        // terminal for ever, so it is not joined.
        std::thread(
            [queue]
            {
                std::string line;
                while (std::getline(std::cin, line))
                    queue->Push(line);
                queue->Close();
            })
            .detach();
    }

    kvsim::Server server(options, std::cout, std::cerr);
    std::string error;
    if (!server.Open(error))
    {
        std::cerr << "kvnxs-sim: " << error << "\n";
        return 2;
    }
    std::cout << "kvnxs-sim listening: tcp=" << server.TcpPort() << " udp=" << server.UdpPort() << std::endl;
    const int rc = server.Run(lines);
    const std::size_t errors = server.GetReporter().ErrorCount();
    std::cout << "kvnxs-sim: " << (errors == 0 ? "no errors" : std::to_string(errors) + " error(s)")
              << std::endl;
    return rc;
}
