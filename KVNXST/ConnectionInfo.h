// The connection thread: the agent's one reader of the service link. It connects, answers the
// handshake, then reads one record after another and turns each into an action on the tray
// window. The link is never re-made: when it ends, the agent ends.
#pragma once

#include <cstddef>
#include <cstdint>

// What the service's initialisation record carries for the one-time session (its words at 16 and
// 20). Written by the connection thread, read by the tray window.
constexpr std::size_t KV_ONE_TIME_SESSION_UNITS = 8096;
extern std::uint32_t g_dwOneTimeSession;
extern wchar_t g_szOneTimeSession[KV_ONE_TIME_SESSION_UNITS]; // always terminated

// Thread entry, started with _beginthreadex; pTrayWindow is the tray window's IKvTrayLink. Ends through
// _endthreadex(0), after posting WM_KV_QUIT to the tray window unless it is already closing.
unsigned int __stdcall ConnectionInfo(void* pTrayWindow);

// Asks the service on "localhost" (UDP 6129) which TCP port it listens on for the tray agent.
// 1 with *puiPort set when an answer of exactly the expected size came within the time-out.
int GetPortNumberViaUDP(unsigned int* puiPort);
