// CKvSocket against loopback peers made with plain Winsock, and with a resolver that fails on cue.
#include "KvSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace
{

// The peer side: plain Winsock on 127.0.0.1, nothing of CKvSocket.
class Peer
{
public:
    explicit Peer(int nType = SOCK_STREAM)
    {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
        m_hListen = socket(AF_INET, nType, 0);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_hListen, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        if (nType == SOCK_STREAM)
            listen(m_hListen, 1);
        int cb = sizeof addr;
        getsockname(m_hListen, reinterpret_cast<sockaddr*>(&addr), &cb);
        m_uPort = ntohs(addr.sin_port);
    }
    ~Peer()
    {
        if (m_hConn != INVALID_SOCKET)
            closesocket(m_hConn);
        closesocket(m_hListen);
        WSACleanup();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    unsigned Port() const { return m_uPort; }

    SOCKET Accept()
    {
        m_hConn = accept(m_hListen, nullptr, nullptr);
        return m_hConn;
    }
    void SendRaw(const void* p, int n) { ASSERT_EQ(n, send(m_hConn, static_cast<const char*>(p), n, 0)); }
    void CloseConnection()
    {
        closesocket(m_hConn);
        m_hConn = INVALID_SOCKET;
    }
    // Datagrams: the agent's address is learnt from its first datagram.
    sockaddr_in ReceiveFrom(std::vector<char>& data)
    {
        sockaddr_in from = {};
        int cb = sizeof from;
        data.resize(9000);
        const int n = recvfrom(m_hListen, data.data(), 9000, 0, reinterpret_cast<sockaddr*>(&from), &cb);
        data.resize(n > 0 ? n : 0);
        return from;
    }
    void SendTo(const sockaddr_in& to, const void* p, int n)
    {
        sendto(m_hListen, static_cast<const char*>(p), n, 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
    }

private:
    SOCKET m_hListen = INVALID_SOCKET;
    SOCKET m_hConn = INVALID_SOCKET;
    unsigned m_uPort = 0;
};

std::vector<char> Pattern(int n)
{
    std::vector<char> v(n);
    for (int i = 0; i < n; ++i)
        v[i] = static_cast<char>(i * 7 + 1);
    return v;
}

TEST(KvSocketStream, PartialWritesAreAssembledIntoOneRecord)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0));
    peer.Accept();

    // A connect-notify sized record arriving in three uneven pieces.
    const std::vector<char> record = Pattern(1592);
    std::thread writer(
        [&]
        {
            peer.SendRaw(record.data(), 1);
            Sleep(50);
            peer.SendRaw(record.data() + 1, 700);
            Sleep(50);
            peer.SendRaw(record.data() + 701, 891);
        });
    std::vector<char> got(1592);
    EXPECT_EQ(1, sock.ReadExact(got.data(), 1592));
    writer.join();
    EXPECT_EQ(record, got);

    // A zero length succeeds without reading: the next bytes are still there.
    const char next[4] = {1, 2, 3, 4};
    peer.SendRaw(next, 4);
    EXPECT_EQ(1, sock.ReadExact(got.data(), 0));
    char four[4] = {};
    EXPECT_EQ(1, sock.ReadExact(four, 4));
    EXPECT_EQ(0, std::memcmp(next, four, 4));
}

TEST(KvSocketStream, NonBlockingSocketKeepsAskingUntilTheRecordIsComplete)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0));
    peer.Accept();
    u_long bNonBlocking = 1;
    ASSERT_EQ(0, ioctlsocket(sock.GetHandle(), FIONBIO, &bNonBlocking));

    const std::vector<char> record = Pattern(64);
    std::thread writer(
        [&]
        {
            Sleep(100);
            peer.SendRaw(record.data(), 10);
            Sleep(100);
            peer.SendRaw(record.data() + 10, 54);
        });
    std::vector<char> got(64);
    EXPECT_EQ(1, sock.ReadExact(got.data(), 64));
    writer.join();
    EXPECT_EQ(record, got);
}

TEST(KvSocketStream, PeerClosingMidRecordFailsTheRead)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0));
    peer.Accept();
    const std::vector<char> half = Pattern(100);
    peer.SendRaw(half.data(), 100);
    peer.CloseConnection();

    std::vector<char> got(200);
    EXPECT_EQ(0, sock.ReadExact(got.data(), 200));
    // The socket itself stays open for the owner to close.
    EXPECT_NE(INVALID_SOCKET, sock.GetHandle());
}

TEST(KvSocketStream, SendGoesOutWholeAndStreamsHaveNoDelay)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0));
    const SOCKET hConn = peer.Accept();

    BOOL bNoDelay = FALSE;
    int cb = sizeof bNoDelay;
    ASSERT_EQ(
        0, getsockopt(sock.GetHandle(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&bNoDelay), &cb));
    EXPECT_TRUE(bNoDelay);

    const std::vector<char> record = Pattern(4100);
    ASSERT_EQ(1, sock.Send(record.data(), 4100));
    std::vector<char> got(4100);
    int nHave = 0;
    while (nHave < 4100)
    {
        const int n = recv(hConn, got.data() + nHave, 4100 - nHave, 0);
        ASSERT_GT(n, 0);
        nHave += n;
    }
    EXPECT_EQ(record, got);
}

TEST(KvSocketStream, WithoutAConnectionNothingReachesWinsock)
{
    CKvSocket sock;
    EXPECT_EQ(INVALID_SOCKET, sock.GetHandle());
    EXPECT_EQ(0, sock.SetTimeouts(1000));
    char buf[4] = {};
    EXPECT_EQ(0, sock.Send(buf, 4));
    EXPECT_EQ(0, sock.ReadExact(buf, 4));
    EXPECT_EQ(0, sock.ReadOnce(buf, 4));
    EXPECT_EQ(1, sock.Shutdown());
    EXPECT_EQ(1, sock.Close());
    EXPECT_EQ(INVALID_SOCKET, sock.GetHandle());
}

TEST(KvSocketStream, ReceiveTimeoutEndsAWaitingRead)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0));
    peer.Accept();
    ASSERT_EQ(1, sock.SetTimeouts(200));
    DWORD dwTimeout = 0;
    int cb = sizeof dwTimeout;
    getsockopt(sock.GetHandle(), SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<char*>(&dwTimeout), &cb);
    EXPECT_EQ(200u, dwTimeout);

    char buf[4];
    EXPECT_EQ(0, sock.ReadExact(buf, 4));
    EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
}

TEST(KvSocketStream, CloseFromAnotherThreadUnblocksTheReader)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0));
    peer.Accept();
    std::atomic<int> nResult{-1};
    std::thread reader(
        [&]
        {
            char buf[4];
            nResult = sock.ReadExact(buf, 4);
        });
    Sleep(200);
    EXPECT_EQ(-1, nResult.load());
    sock.Close();
    reader.join();
    EXPECT_EQ(0, nResult.load());
    EXPECT_EQ(INVALID_SOCKET, sock.GetHandle());
    EXPECT_EQ(1, sock.Close());
}

TEST(KvSocketStream, RefusedConnectionLeavesNoSocket)
{
    unsigned uPort;
    {
        Peer closed;
        uPort = closed.Port();
    }
    CKvSocket sock;
    EXPECT_EQ(0, sock.Connect(L"127.0.0.1", uPort, SOCK_STREAM, 0));
    EXPECT_EQ(WSAECONNREFUSED, WSAGetLastError());
    EXPECT_EQ(INVALID_SOCKET, sock.GetHandle());
}

TEST(KvSocketDatagram, ReadOnceWantsOneWholeDatagram)
{
    Peer peer(SOCK_DGRAM);
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect("127.0.0.1", peer.Port(), SOCK_DGRAM, 0));
    ASSERT_EQ(1, sock.SetTimeouts(2000));

    const std::vector<char> request = Pattern(80);
    ASSERT_EQ(1, sock.Send(request.data(), 80));
    std::vector<char> got;
    const sockaddr_in agent = peer.ReceiveFrom(got);
    EXPECT_EQ(request, got);

    // Two short ones in a row must not add up to one record.
    const std::vector<char> answer = Pattern(80);
    peer.SendTo(agent, answer.data(), 40);
    peer.SendTo(agent, answer.data() + 40, 40);
    std::vector<char> buf(80);
    EXPECT_EQ(0, sock.ReadOnce(buf.data(), 80));
    EXPECT_EQ(0, sock.ReadOnce(buf.data(), 80));

    peer.SendTo(agent, answer.data(), 80);
    EXPECT_EQ(1, sock.ReadOnce(buf.data(), 80));
    EXPECT_EQ(answer, buf);
}

// --- Resolving: a table that records every name asked and fails the ones a test lists.

struct FakeResolver
{
    static std::vector<std::string> asked;
    static std::vector<std::pair<std::string, int>> failures;

    static int WSAAPI GetAddrInfo(PCSTR node, PCSTR service, const ADDRINFOA* hints, PADDRINFOA* result)
    {
        asked.push_back(node != nullptr ? node : "");
        for (const auto& f : failures)
        {
            if (f.first == "*" || f.first == asked.back())
            {
                *result = nullptr;
                return f.second;
            }
        }
        return KvDefaultResolverApi().pfnGetAddrInfo(node, service, hints, result);
    }
    static void WSAAPI FreeAddrInfo(PADDRINFOA p) { KvDefaultResolverApi().pfnFreeAddrInfo(p); }
};
std::vector<std::string> FakeResolver::asked;
std::vector<std::pair<std::string, int>> FakeResolver::failures;

class KvSocketResolve : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FakeResolver::asked.clear();
        FakeResolver::failures.clear();
        m_pPrevious = KvSetResolverApi(&m_api);
    }
    void TearDown() override { KvSetResolverApi(m_pPrevious); }

    std::string ComputerName()
    {
        wchar_t sz[1025] = {};
        DWORD cch = 1025;
        GetComputerNameW(sz, &cch);
        char a[1025] = {};
        WideCharToMultiByte(CP_ACP, 0, sz, -1, a, 1025, nullptr, nullptr);
        return a;
    }

    KvResolverApi m_api = {FakeResolver::GetAddrInfo, FakeResolver::FreeAddrInfo};
    const KvResolverApi* m_pPrevious = nullptr;
};

TEST_F(KvSocketResolve, LocalhostThatDoesNotResolveFallsBackToTheLoopbackAddress)
{
    Peer peer;
    FakeResolver::failures = {{"LOCALHOST", WSAHOST_NOT_FOUND}};
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"LOCALHOST", peer.Port(), SOCK_STREAM, 0));
    EXPECT_EQ((std::vector<std::string>{"LOCALHOST", "127.0.0.1"}), FakeResolver::asked);

    // The other two "no answer" errors fall back too, an IPv6 hint asks for "::1", and the last
    // try is the computer's own name.
    for (int nError : {WSANO_RECOVERY, WSANO_DATA})
    {
        FakeResolver::asked.clear();
        FakeResolver::failures = {{"localhost", nError}, {"::1", WSANO_DATA}, {ComputerName(), WSANO_DATA}};
        CKvSocket v6;
        EXPECT_EQ(0, v6.Connect(L"localhost", peer.Port(), SOCK_STREAM, AF_INET6));
        EXPECT_EQ((std::vector<std::string>{"localhost", "::1", ComputerName()}), FakeResolver::asked);
        EXPECT_EQ(nError, WSAGetLastError()) << "the first error is the one reported";
    }
}

TEST_F(KvSocketResolve, OtherNamesAndTemporaryFailuresFailAtOnceWithTheFirstError)
{
    FakeResolver::failures = {{"localhost", WSATRY_AGAIN}, {"*", WSAHOST_NOT_FOUND}};
    CKvSocket sock;
    EXPECT_EQ(0, sock.Connect(L"localhost", 6129, SOCK_STREAM, 0));
    EXPECT_EQ(WSATRY_AGAIN, WSAGetLastError());
    EXPECT_EQ(1u, FakeResolver::asked.size());

    FakeResolver::asked.clear();
    FakeResolver::failures = {{"*", WSANO_DATA}};
    EXPECT_EQ(0, sock.Connect("service.example", 6129, SOCK_STREAM, 0));
    EXPECT_EQ(WSANO_DATA, WSAGetLastError());
    EXPECT_EQ((std::vector<std::string>{"service.example"}), FakeResolver::asked);
    EXPECT_EQ(INVALID_SOCKET, sock.GetHandle());
}

TEST(KvSocketSystemResolver, LocalhostInAnyCaseReachesALoopbackPeer)
{
    Peer peer;
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"LocalHost", peer.Port(), SOCK_STREAM, AF_INET));
    peer.Accept();
    const char ping[4] = {'p', 'i', 'n', 'g'};
    EXPECT_EQ(1, sock.Send(ping, 4));
}

} // namespace
