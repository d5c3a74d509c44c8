// The few socket calls the simulator needs, over POSIX sockets or Winsock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#endif

namespace kvsim
{

#if defined(_WIN32)
using SocketHandle = SOCKET;
constexpr SocketHandle kInvalidSocket = INVALID_SOCKET;
#else
using SocketHandle = int;
constexpr SocketHandle kInvalidSocket = -1;
#endif

// Winsock wants starting once per process; a no-op elsewhere.
bool SocketStartup();

int LastSocketError();
std::string SocketErrorText(int code);

// Owns one socket handle.
class Socket
{
public:
    Socket() = default;
    explicit Socket(SocketHandle h) : m_h(h) {}
    ~Socket() { Close(); }
    Socket(Socket&& other) noexcept : m_h(other.m_h) { other.m_h = kInvalidSocket; }
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    SocketHandle Get() const { return m_h; }
    bool Valid() const { return m_h != kInvalidSocket; }
    void Close();

private:
    SocketHandle m_h = kInvalidSocket;
};

struct PeerAddress
{
    sockaddr_storage addr{};
    socklen_t len = 0;
    std::string Text() const;
};

// A socket bound to the loopback address of one family (stream sockets also listen). Port 0
// picks a free one.
bool OpenLoopback(Socket& s, bool stream, bool v6, std::uint16_t port, std::string& error);
std::uint16_t LocalPort(const Socket& s);

// A stream connection to the IPv4 loopback (the tests' fake agent).
bool ConnectLoopback(Socket& s, bool stream, std::uint16_t port, std::string& error);

Socket Accept(const Socket& listener);
void SetNoDelay(const Socket& s);

// Sends everything (looping over partial sends); false when the peer is gone.
bool SendAll(const Socket& s, const std::uint8_t* data, std::size_t size);
// One recv: bytes read, 0 at the peer's close, negative on error.
long RecvSome(const Socket& s, std::uint8_t* buf, std::size_t size);
long RecvFrom(const Socket& s, std::uint8_t* buf, std::size_t size, PeerAddress& from);
bool SendTo(const Socket& s, const std::uint8_t* data, std::size_t size, const PeerAddress& to);
void SetReceiveTimeout(const Socket& s, unsigned ms);
void SetSendTimeout(const Socket& s, unsigned ms);
// Ends the sending direction (the peer reads what was sent, then the end); receiving goes on.
void ShutdownSend(const Socket& s);

// Waits until one of the sockets is readable; ready[i] tells which. Returns false on a timeout
// or an error.
bool WaitReadable(const std::vector<SocketHandle>& sockets, unsigned timeoutMs, std::vector<bool>& ready);

} // namespace kvsim
