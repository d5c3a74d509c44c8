// CKvSocket: the agent's one socket class, for the service connection (stream) and the permission,
// port-query and invitation exchanges (datagrams). No buffering, no framing, no threads: callers
// read and write whole fixed-size records.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <atomic>

// The resolver functions. They are looked up at run time in the system folder's "ws2_32", then
// "wship6", so the agent itself imports only Winsock 1.1. A test installs its own table to make a
// name resolve or fail the way it needs; the entries are never null.
struct KvResolverApi
{
    int(WSAAPI* pfnGetAddrInfo)(PCSTR pNodeName, PCSTR pServiceName, const ADDRINFOA* pHints,
                                PADDRINFOA* ppResult);
    void(WSAAPI* pfnFreeAddrInfo)(PADDRINFOA pAddrInfo);
};

// The system's resolver; when neither library exports it, entries that fail with WSANO_RECOVERY.
const KvResolverApi& KvDefaultResolverApi();

// Installs api (nullptr: the system's) and returns the previous table. For tests; the table must
// outlive the sockets that resolved through it.
const KvResolverApi* KvSetResolverApi(const KvResolverApi* api);

class CKvSocket
{
public:
    CKvSocket();
    virtual ~CKvSocket();

    CKvSocket(const CKvSocket&) = delete;
    CKvSocket& operator=(const CKvSocket&) = delete;

    // Resolves host and connects to the first address that accepts. nSocketType is SOCK_STREAM or
    // SOCK_DGRAM, nFamilyHint 0 (any) or AF_INET6. 1 on success, 0 with the socket error set.
    int Connect(const wchar_t* szHost, unsigned int uPort, int nSocketType, int nFamilyHint);
    int Connect(const char* szHost, unsigned int uPort, int nSocketType, int nFamilyHint);

    // 1 once all nLength bytes have arrived (at once for nLength < 1); 0 when the peer closes or
    // an error other than WSAEWOULDBLOCK comes back, whatever part of the record was read.
    int ReadExact(void* pBuffer, int nLength);
    // 1 only when a single recv returned exactly nLength bytes: one whole datagram.
    int ReadOnce(void* pBuffer, int nLength);
    // 1 only when a single send took all nLength bytes; a partial send is a failure.
    int Send(const void* pBuffer, int nLength);
    // Receive and send time-outs in milliseconds (0: none). 0 without a socket or when either fails.
    int SetTimeouts(unsigned int uMilliseconds);
    // Shuts both directions down, keeping the handle.
    int Shutdown();
    // Shuts down and closes; safe from another thread to unblock a reader, and safe to repeat.
    int Close();

    SOCKET GetHandle() const { return m_socket.load(); }

private:
    int Resolve(const wchar_t* szHost, const ADDRINFOA& hints, const char* szPort);
    void FreeAddressList();

    int m_bWsaStarted;
    std::atomic<SOCKET> m_socket;
    int m_nSocketType;
    ADDRINFOA* m_pAddressList;
    // The free function of the table that made m_pAddressList.
    void(WSAAPI* m_pfnFreeAddrInfo)(PADDRINFOA pAddrInfo);
};
