#include "SimSocket.h"

#include <algorithm>
#include <cstring>

#if defined(_WIN32)
#include <mswsock.h>
#else
#include <arpa/inet.h>
#include <cerrno>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <unistd.h>
#endif

namespace kvsim
{

namespace
{

#if defined(_WIN32)
using IoLen = int;
#else
using IoLen = std::size_t;
#endif

#if defined(MSG_NOSIGNAL)
constexpr int kSendFlags = MSG_NOSIGNAL; // a vanished agent must not kill the simulator
#else
constexpr int kSendFlags = 0;
#endif

void CloseHandle(SocketHandle h)
{
#if defined(_WIN32)
    closesocket(h);
#else
    close(h);
#endif
}

} // namespace

bool SocketStartup()
{
#if defined(_WIN32)
    static const bool ok = []
    {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    return ok;
#else
    return true;
#endif
}

int LastSocketError()
{
#if defined(_WIN32)
    return WSAGetLastError();
#else
    return errno;
#endif
}

std::string SocketErrorText(int code)
{
#if defined(_WIN32)
    return "socket error " + std::to_string(code);
#else
    return std::string(std::strerror(code)) + " (" + std::to_string(code) + ")";
#endif
}

Socket& Socket::operator=(Socket&& other) noexcept
{
    if (this != &other)
    {
        Close();
        m_h = other.m_h;
        other.m_h = kInvalidSocket;
    }
    return *this;
}

void Socket::Close()
{
    if (m_h != kInvalidSocket)
        CloseHandle(m_h);
    m_h = kInvalidSocket;
}

std::string PeerAddress::Text() const
{
    char host[64] = "?";
    unsigned port = 0;
    if (addr.ss_family == AF_INET)
    {
        const auto* a = reinterpret_cast<const sockaddr_in*>(&addr);
        inet_ntop(AF_INET, const_cast<in_addr*>(&a->sin_addr), host, sizeof host);
        port = ntohs(a->sin_port);
        return std::string(host) + ":" + std::to_string(port);
    }
    if (addr.ss_family == AF_INET6)
    {
        const auto* a = reinterpret_cast<const sockaddr_in6*>(&addr);
        inet_ntop(AF_INET6, const_cast<in6_addr*>(&a->sin6_addr), host, sizeof host);
        port = ntohs(a->sin6_port);
    }
    return "[" + std::string(host) + "]:" + std::to_string(port);
}

bool OpenLoopback(Socket& s, bool stream, bool v6, std::uint16_t port, std::string& error)
{
    s = Socket(socket(v6 ? AF_INET6 : AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0));
    if (!s.Valid())
    {
        error = "socket: " + SocketErrorText(LastSocketError());
        return false;
    }
    int one = 1;
#if !defined(_WIN32)
    // A restarted simulator takes its port back at once. (On Windows this option would let two
    // processes share the port, so it stays off there.)
    if (stream)
        setsockopt(s.Get(), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof one);
#endif
    sockaddr_storage ss{};
    socklen_t len;
    if (v6)
    {
        setsockopt(s.Get(), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&one), sizeof one);
        auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
        a->sin6_family = AF_INET6;
        a->sin6_addr = in6addr_loopback;
        a->sin6_port = htons(port);
        len = sizeof(sockaddr_in6);
    }
    else
    {
        auto* a = reinterpret_cast<sockaddr_in*>(&ss);
        a->sin_family = AF_INET;
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a->sin_port = htons(port);
        len = sizeof(sockaddr_in);
    }
    if (bind(s.Get(), reinterpret_cast<sockaddr*>(&ss), len) != 0)
    {
        error = std::string("bind to ") + (v6 ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port) + ": " +
                SocketErrorText(LastSocketError());
        s.Close();
        return false;
    }
    if (stream && listen(s.Get(), 4) != 0)
    {
        error = "listen: " + SocketErrorText(LastSocketError());
        s.Close();
        return false;
    }
#if defined(_WIN32)
    if (!stream)
    {
        // A datagram to a vanished peer must not turn the next receive into an error.
        BOOL off = FALSE;
        DWORD bytes = 0;
        WSAIoctl(s.Get(), SIO_UDP_CONNRESET, &off, sizeof off, nullptr, 0, &bytes, nullptr, nullptr);
    }
#endif
    return true;
}

std::uint16_t LocalPort(const Socket& s)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getsockname(s.Get(), reinterpret_cast<sockaddr*>(&ss), &len) != 0)
        return 0;
    if (ss.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

bool ConnectLoopback(Socket& s, bool stream, std::uint16_t port, std::string& error)
{
    s = Socket(socket(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0));
    if (!s.Valid())
    {
        error = "socket: " + SocketErrorText(LastSocketError());
        return false;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (connect(s.Get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
    {
        error = "connect: " + SocketErrorText(LastSocketError());
        s.Close();
        return false;
    }
    if (stream)
        SetNoDelay(s);
    return true;
}

Socket Accept(const Socket& listener)
{
    return Socket(accept(listener.Get(), nullptr, nullptr));
}

void SetNoDelay(const Socket& s)
{
    int one = 1;
    setsockopt(s.Get(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

bool SendAll(const Socket& s, const std::uint8_t* data, std::size_t size)
{
    // Pieces of at most 1 MiB: Winsock takes an int length.
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    while (size > 0)
    {
        const auto n = send(s.Get(), reinterpret_cast<const char*>(data),
                            static_cast<IoLen>(std::min(size, kPiece)), kSendFlags);
#if !defined(_WIN32)
        if (n < 0 && errno == EINTR)
            continue;
#endif
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

long RecvSome(const Socket& s, std::uint8_t* buf, std::size_t size)
{
    return static_cast<long>(recv(s.Get(), reinterpret_cast<char*>(buf), static_cast<IoLen>(size), 0));
}

long RecvFrom(const Socket& s, std::uint8_t* buf, std::size_t size, PeerAddress& from)
{
    from.len = sizeof from.addr;
    return static_cast<long>(recvfrom(s.Get(), reinterpret_cast<char*>(buf), static_cast<IoLen>(size), 0,
                                      reinterpret_cast<sockaddr*>(&from.addr), &from.len));
}

bool SendTo(const Socket& s, const std::uint8_t* data, std::size_t size, const PeerAddress& to)
{
    const auto n = sendto(s.Get(), reinterpret_cast<const char*>(data), static_cast<IoLen>(size), kSendFlags,
                          reinterpret_cast<const sockaddr*>(&to.addr), to.len);
    return n >= 0 && static_cast<std::size_t>(n) == size;
}

namespace
{

void SetTimeout(const Socket& s, int option, unsigned ms)
{
#if defined(_WIN32)
    DWORD v = ms;
#else
    timeval v{};
    v.tv_sec = static_cast<time_t>(ms / 1000);
    v.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
#endif
    setsockopt(s.Get(), SOL_SOCKET, option, reinterpret_cast<const char*>(&v), sizeof v);
}

} // namespace

void SetReceiveTimeout(const Socket& s, unsigned ms)
{
    SetTimeout(s, SO_RCVTIMEO, ms);
}

void SetSendTimeout(const Socket& s, unsigned ms)
{
    SetTimeout(s, SO_SNDTIMEO, ms);
}

void ShutdownSend(const Socket& s)
{
#if defined(_WIN32)
    shutdown(s.Get(), SD_SEND);
#else
    shutdown(s.Get(), SHUT_WR);
#endif
}

bool WaitReadable(const std::vector<SocketHandle>& sockets, unsigned timeoutMs, std::vector<bool>& ready)
{
    ready.assign(sockets.size(), false);
    fd_set set;
    FD_ZERO(&set);
    SocketHandle maxFd = 0;
    for (SocketHandle h : sockets)
    {
        FD_SET(h, &set);
        if (h > maxFd)
            maxFd = h;
    }
    timeval tv{};
    tv.tv_sec = static_cast<long>(timeoutMs / 1000);
    tv.tv_usec = static_cast<long>((timeoutMs % 1000) * 1000);
    const int n = select(static_cast<int>(maxFd + 1), &set, nullptr, nullptr, &tv);
    if (n <= 0)
        return false;
    for (std::size_t i = 0; i < sockets.size(); ++i)
        ready[i] = FD_ISSET(sockets[i], &set) != 0;
    return true;
}

} // namespace kvsim
