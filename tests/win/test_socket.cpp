// CKvSocket against loopback peers made with plain Winsock, and with a resolver that fails on cue.
#include "KvSocket.h"
#include "SimSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace
{

const bool g_bWinsock = kvsim::SocketStartup();

// The peer side on 127.0.0.1, made with the simulator's socket calls: nothing of CKvSocket.
struct Peer
{
    Peer()
    {
        std::string error;
        EXPECT_TRUE(kvsim::OpenLoopback(listener, true, false, 0, error)) << error;
    }
    unsigned Port() const { return kvsim::LocalPort(listener); }

    kvsim::Socket listener, conn;
};

// A CKvSocket connected to a stream peer.
struct Connected : Peer
{
    Connected()
    {
        EXPECT_EQ(1, sock.Connect(L"127.0.0.1", Port(), SOCK_STREAM, 0));
        conn = kvsim::Accept(listener);
    }
    CKvSocket sock;
};

std::vector<char> Pattern(int n)
{
    std::vector<char> v(n);
    for (int i = 0; i < n; ++i)
        v[i] = static_cast<char>(i * 7 + 1);
    return v;
}

TEST(KvSocketStream, ReadExactAssemblesARecordFromPieces)
{
    // Non-blocking, the read must ask again on WSAEWOULDBLOCK until the record is complete.
    for (u_long bNonBlocking : {0, 1})
    {
        Connected c;
        ASSERT_EQ(0, ioctlsocket(c.sock.GetHandle(), FIONBIO, &bNonBlocking));
        const std::vector<char> record = Pattern(1592);
        std::thread writer(
            [&]
            {
                const int cuts[] = {0, 1, 701, 1592};
                for (int i = 0; i < 3; ++i, Sleep(100))
                    send(c.conn.Get(), &record[cuts[i]], cuts[i + 1] - cuts[i], 0);
            });
        std::vector<char> got(1592);
        EXPECT_EQ(1, c.sock.ReadExact(got.data(), 1592)) << bNonBlocking;
        writer.join();
        EXPECT_EQ(record, got);
        EXPECT_EQ(1, c.sock.ReadExact(got.data(), 0)) << "nothing to wait for";
    }
}

// A peer that closes mid-record ends the built agent (test_resident_e2e.cpp).
TEST(KvSocketStream, ReadFailsWhenTheOwnerClosesFromAnotherThread)
{
    Connected c;
    std::atomic<int> nResult{-1};
    std::thread reader(
        [&]
        {
            char buf[4];
            nResult = c.sock.ReadExact(buf, 4);
        });
    Sleep(200);
    EXPECT_EQ(-1, nResult.load());
    EXPECT_EQ(1, c.sock.Close());
    reader.join();
    EXPECT_EQ(0, nResult.load());
    EXPECT_EQ(INVALID_SOCKET, c.sock.GetHandle());
    EXPECT_EQ(1, c.sock.Close()) << "twice is harmless";
}

// Whole datagrams only, and the receive time-out, are proved by the permission question's short
// request and silent service (test_permission.cpp).
TEST(KvSocketStream, NothingWithoutASocket)
{
    CKvSocket none;
    char buf[4] = {};
    EXPECT_EQ(0, none.SetTimeouts(1000));
    EXPECT_EQ(0, none.Send(buf, 4));
    EXPECT_EQ(0, none.ReadExact(buf, 4));
    EXPECT_EQ(1, none.Close());
}

// --- Resolving, through a resolver that records every name asked and fails the ones listed.

std::vector<std::string> g_asked;
std::vector<std::pair<std::string, int>> g_failures; // "*": every name

int WSAAPI FakeGetAddrInfo(PCSTR node, PCSTR service, const ADDRINFOA* hints, PADDRINFOA* result)
{
    g_asked.push_back(node != nullptr ? node : "");
    for (const auto& f : g_failures)
        if (f.first == "*" || f.first == g_asked.back())
            return *result = nullptr, f.second;
    return KvDefaultResolverApi().pfnGetAddrInfo(node, service, hints, result);
}

class KvSocketResolve : public ::testing::Test
{
protected:
    KvSocketResolve() { g_asked.clear(); }
    ~KvSocketResolve() override { KvSetResolverApi(m_pPrevious); }

    const KvResolverApi m_api = {FakeGetAddrInfo, KvDefaultResolverApi().pfnFreeAddrInfo};
    const KvResolverApi* m_pPrevious = KvSetResolverApi(&m_api);
};

TEST_F(KvSocketResolve, LocalhostThatDoesNotResolveFallsBack)
{
    Peer peer;
    g_failures = {{"LOCALHOST", WSAHOST_NOT_FOUND}};
    CKvSocket sock;
    ASSERT_EQ(1, sock.Connect(L"LOCALHOST", peer.Port(), SOCK_STREAM, 0));
    EXPECT_EQ((std::vector<std::string>{"LOCALHOST", "127.0.0.1"}), g_asked);

    // Another "no answer" error falls back too, an IPv6 hint asks for "::1", and the last try is
    // the computer's own name.
    char szComputer[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = sizeof szComputer;
    GetComputerNameA(szComputer, &cch);
    g_asked.clear();
    g_failures = {{"localhost", WSANO_RECOVERY}, {"::1", WSANO_DATA}, {szComputer, WSANO_DATA}};
    EXPECT_EQ(0, sock.Connect(L"localhost", peer.Port(), SOCK_STREAM, AF_INET6));
    EXPECT_EQ((std::vector<std::string>{"localhost", "::1", szComputer}), g_asked);
    EXPECT_EQ(WSANO_RECOVERY, WSAGetLastError()) << "the first error is the one reported";
}

TEST_F(KvSocketResolve, OtherNamesTemporaryFailuresAndRefusalsFailAtOnce)
{
    CKvSocket sock;
    g_failures = {{"localhost", WSATRY_AGAIN}, {"*", WSAHOST_NOT_FOUND}};
    EXPECT_EQ(0, sock.Connect(L"localhost", 6129, SOCK_STREAM, 0));
    EXPECT_EQ(WSATRY_AGAIN, WSAGetLastError());
    EXPECT_EQ(1u, g_asked.size());

    g_asked.clear();
    g_failures = {{"*", WSANO_DATA}};
    EXPECT_EQ(0, sock.Connect("service.example", 6129, SOCK_STREAM, 0));
    EXPECT_EQ(WSANO_DATA, WSAGetLastError());
    EXPECT_EQ((std::vector<std::string>{"service.example"}), g_asked);

    unsigned uClosedPort = Peer().Port();
    g_failures.clear();
    EXPECT_EQ(0, sock.Connect(L"127.0.0.1", uClosedPort, SOCK_STREAM, 0));
    EXPECT_EQ(WSAECONNREFUSED, WSAGetLastError());
    EXPECT_EQ(INVALID_SOCKET, sock.GetHandle());
}

} // namespace
