#include "KvSocket.h"

#include "KvLogging.h"

#include <cstdio>
#include <cwchar>

// The socket serves the connection thread and logs under its name.
static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectionInfo));

namespace
{

// Host names as the resolver takes them: at most 1,024 bytes and the NUL.
constexpr int KV_HOST_BYTES = 1025;
// A narrow host widened for the wide Connect.
constexpr int KV_HOST_UNITS = 2050;
// GetComputerNameW's answer for the last resolve attempt.
constexpr DWORD KV_COMPUTER_NAME_UNITS = 1025;

int WSAAPI MissingGetAddrInfo(PCSTR, PCSTR, const ADDRINFOA*, PADDRINFOA* ppResult)
{
    if (ppResult != nullptr)
        *ppResult = nullptr;
    return WSANO_RECOVERY;
}

void WSAAPI MissingFreeAddrInfo(PADDRINFOA) {}

template <typename Fn> Fn FindFunction(HMODULE hModule, const char* szName)
{
    // Through the generic function type, which the compilers accept without a warning.
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(hModule, szName)));
}

// Looked up once; the library that exports the pair stays loaded for the life of the process.
KvResolverApi LookUpSystemResolver()
{
    wchar_t szSystem[MAX_PATH] = {};
    const UINT cchSystem = GetSystemDirectoryW(szSystem, MAX_PATH);
    if (cchSystem != 0 && cchSystem < MAX_PATH)
    {
        for (const wchar_t* szLibrary : {L"\\ws2_32", L"\\wship6"})
        {
            wchar_t szPath[MAX_PATH];
            if (std::swprintf(szPath, MAX_PATH, L"%ls%ls", szSystem, szLibrary) < 0)
                continue;
            HMODULE hModule = LoadLibraryW(szPath);
            if (hModule == nullptr)
                continue;
            KvResolverApi api = {
                FindFunction<decltype(KvResolverApi::pfnGetAddrInfo)>(hModule, "getaddrinfo"),
                FindFunction<decltype(KvResolverApi::pfnFreeAddrInfo)>(hModule, "freeaddrinfo")};
            if (api.pfnGetAddrInfo != nullptr && api.pfnFreeAddrInfo != nullptr)
                return api;
            FreeLibrary(hModule);
        }
    }
    LOG4CXX_WARN(logger, L"getaddrinfo not found; names cannot be resolved");
    return KvResolverApi{MissingGetAddrInfo, MissingFreeAddrInfo};
}

std::atomic<const KvResolverApi*> g_pResolverApi{nullptr};

const KvResolverApi& ResolverApi()
{
    const KvResolverApi* api = g_pResolverApi.load();
    return api != nullptr ? *api : KvDefaultResolverApi();
}

bool ToAnsiHost(const wchar_t* szHost, char* szAnsi)
{
    return WideCharToMultiByte(CP_ACP, 0, szHost, -1, szAnsi, KV_HOST_BYTES, nullptr, nullptr) > 0;
}

} // namespace

const KvResolverApi& KvDefaultResolverApi()
{
    static const KvResolverApi api = LookUpSystemResolver();
    return api;
}

const KvResolverApi* KvSetResolverApi(const KvResolverApi* api)
{
    const KvResolverApi* previous = g_pResolverApi.exchange(api);
    return previous != nullptr ? previous : &KvDefaultResolverApi();
}

CKvSocket::CKvSocket()
    : m_bWsaStarted(0), m_socket(INVALID_SOCKET), m_nSocketType(SOCK_STREAM), m_pAddressList(nullptr),
      m_pfnFreeAddrInfo(nullptr)
{
    KvLogBlock logBlock(logger, L"CKvSocket::CKvSocket");
    WSADATA wsaData;
    m_bWsaStarted = WSAStartup(MAKEWORD(2, 0), &wsaData) == 0 ? 1 : 0;
}

CKvSocket::~CKvSocket()
{
    KvLogBlock logBlock(logger, L"CKvSocket::~CKvSocket");
    Close();
    FreeAddressList();
    if (m_bWsaStarted)
        WSACleanup();
}

void CKvSocket::FreeAddressList()
{
    if (m_pAddressList != nullptr)
        m_pfnFreeAddrInfo(m_pAddressList);
    m_pAddressList = nullptr;
    m_pfnFreeAddrInfo = nullptr;
}

int CKvSocket::Connect(const char* szHost, unsigned int uPort, int nSocketType, int nFamilyHint)
{
    KvLogBlock logBlock(logger, L"CKvSocket::Connect");
    wchar_t szWide[KV_HOST_UNITS];
    if (szHost == nullptr || MultiByteToWideChar(CP_ACP, 0, szHost, -1, szWide, KV_HOST_UNITS) == 0)
    {
        WSASetLastError(WSAHOST_NOT_FOUND);
        return 0;
    }
    return Connect(szWide, uPort, nSocketType, nFamilyHint);
}

int CKvSocket::Connect(const wchar_t* szHost, unsigned int uPort, int nSocketType, int nFamilyHint)
{
    KvLogBlock logBlock(logger, L"CKvSocket::Connect");
    LOG4CXX_INFO(logger, L"szHost=" << (szHost != nullptr ? szHost : L"") << L" uPort=" << uPort
                                    << L" nSocketType=" << nSocketType << L" nFamilyHint=" << nFamilyHint);

    char szPort[16];
    std::snprintf(szPort, sizeof szPort, "%u", uPort);

    m_nSocketType = nSocketType;
    ADDRINFOA hints = {};
    hints.ai_flags = 0;
    hints.ai_family = nFamilyHint;
    hints.ai_socktype = nSocketType;
    hints.ai_protocol = 0;
    if (!Resolve(szHost, hints, szPort))
        return 0;

    int nError = WSAHOST_NOT_FOUND;
    for (const ADDRINFOA* pEntry = m_pAddressList; pEntry != nullptr; pEntry = pEntry->ai_next)
    {
        const SOCKET hOld = m_socket.exchange(INVALID_SOCKET);
        if (hOld != INVALID_SOCKET)
            closesocket(hOld);

        const SOCKET hSocket = socket(pEntry->ai_family, pEntry->ai_socktype, 0);
        if (hSocket == INVALID_SOCKET)
        {
            nError = WSAGetLastError();
            continue;
        }
        m_socket.store(hSocket);
        if (m_nSocketType == SOCK_STREAM)
        {
            // Records are small and each goes out in one send; waiting to coalesce them only
            // delays the service.
            const BOOL bNoDelay = TRUE;
            setsockopt(hSocket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&bNoDelay),
                       sizeof bNoDelay);
        }
        if (connect(hSocket, pEntry->ai_addr, static_cast<int>(pEntry->ai_addrlen)) == 0)
            return 1;
        nError = WSAGetLastError();
    }

    // No address took the connection: leave no half-made socket behind, but keep its error.
    const SOCKET hLast = m_socket.exchange(INVALID_SOCKET);
    if (hLast != INVALID_SOCKET)
        closesocket(hLast);
    WSASetLastError(nError);
    return 0;
}

int CKvSocket::Resolve(const wchar_t* szHost, const ADDRINFOA& hints, const char* szPort)
{
    KvLogBlock logBlock(logger, L"CKvSocket::Resolve");
    FreeAddressList();
    const KvResolverApi& api = ResolverApi();
    m_pfnFreeAddrInfo = api.pfnFreeAddrInfo;

    char szAnsi[KV_HOST_BYTES];
    if (szHost == nullptr || !ToAnsiHost(szHost, szAnsi))
    {
        WSASetLastError(WSAHOST_NOT_FOUND);
        return 0;
    }

    const int nFirstError = api.pfnGetAddrInfo(szAnsi, szPort, &hints, &m_pAddressList);
    WSASetLastError(nFirstError);
    if (nFirstError == 0)
        return 1;

    // Some systems cannot resolve "localhost" itself; the loopback address always works. A
    // temporary failure (WSATRY_AGAIN) is not such a case.
    const bool bRetry =
        nFirstError == WSAHOST_NOT_FOUND || nFirstError == WSANO_RECOVERY || nFirstError == WSANO_DATA;
    if (!bRetry || CompareStringOrdinal(szHost, -1, L"localhost", -1, TRUE) != CSTR_EQUAL)
    {
        WSASetLastError(nFirstError);
        return 0;
    }

    LOG4CXX_DEBUG(logger,
                  L"localhost not resolved, error=" << nFirstError << L"; trying the loopback address");
    const char* szLoopback = hints.ai_family == AF_INET6 ? "::1" : "127.0.0.1";
    if (api.pfnGetAddrInfo(szLoopback, szPort, &hints, &m_pAddressList) == 0)
        return 1;

    wchar_t szComputer[KV_COMPUTER_NAME_UNITS] = {};
    DWORD cchComputer = KV_COMPUTER_NAME_UNITS;
    if (GetComputerNameW(szComputer, &cchComputer) && ToAnsiHost(szComputer, szAnsi))
    {
        LOG4CXX_DEBUG(logger, L"trying the computer name " << szComputer);
        if (api.pfnGetAddrInfo(szAnsi, szPort, &hints, &m_pAddressList) == 0)
            return 1;
    }

    WSASetLastError(nFirstError);
    return 0;
}

int CKvSocket::ReadExact(void* pBuffer, int nLength)
{
    KvLogBlock logBlock(logger, L"CKvSocket::ReadExact");
    if (nLength < 1)
        return 1;
    const SOCKET hSocket = m_socket.load();
    if (hSocket == INVALID_SOCKET)
    {
        WSASetLastError(WSAENOTSOCK);
        return 0;
    }

    char* pNext = static_cast<char*>(pBuffer);
    int nRemaining = nLength;
    for (;;)
    {
        const int nRead = recv(hSocket, pNext, nRemaining, 0);
        if (nRead > 0)
        {
            pNext += nRead;
            nRemaining -= nRead;
            if (nRemaining == 0)
                return 1;
        }
        else if (nRead == 0)
        {
            return 0; // the peer closed
        }
        else if (WSAGetLastError() != WSAEWOULDBLOCK)
        {
            return 0;
        }
        // A non-blocking socket with nothing yet: ask again at once.
    }
}

int CKvSocket::ReadOnce(void* pBuffer, int nLength)
{
    KvLogBlock logBlock(logger, L"CKvSocket::ReadOnce");
    const SOCKET hSocket = m_socket.load();
    if (hSocket == INVALID_SOCKET)
    {
        WSASetLastError(WSAENOTSOCK);
        return 0;
    }
    return recv(hSocket, static_cast<char*>(pBuffer), nLength, 0) == nLength ? 1 : 0;
}

int CKvSocket::Send(const void* pBuffer, int nLength)
{
    KvLogBlock logBlock(logger, L"CKvSocket::Send");
    const SOCKET hSocket = m_socket.load();
    if (hSocket == INVALID_SOCKET)
    {
        WSASetLastError(WSAENOTSOCK);
        return 0;
    }
    // One call per record, so records from two threads never interleave.
    return send(hSocket, static_cast<const char*>(pBuffer), nLength, 0) == nLength ? 1 : 0;
}

int CKvSocket::SetTimeouts(unsigned int uMilliseconds)
{
    KvLogBlock logBlock(logger, L"CKvSocket::SetTimeouts");
    const SOCKET hSocket = m_socket.load();
    if (hSocket == INVALID_SOCKET)
    {
        WSASetLastError(WSAENOTSOCK);
        return 0;
    }
    const DWORD dwTimeout = uMilliseconds;
    const char* pValue = reinterpret_cast<const char*>(&dwTimeout);
    if (setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, pValue, sizeof dwTimeout) != 0)
        return 0;
    if (setsockopt(hSocket, SOL_SOCKET, SO_SNDTIMEO, pValue, sizeof dwTimeout) != 0)
        return 0;
    return 1;
}

int CKvSocket::Shutdown()
{
    KvLogBlock logBlock(logger, L"CKvSocket::Shutdown");
    const SOCKET hSocket = m_socket.load();
    if (hSocket != INVALID_SOCKET)
        shutdown(hSocket, SD_BOTH);
    return 1;
}

int CKvSocket::Close()
{
    KvLogBlock logBlock(logger, L"CKvSocket::Close");
    // Taken out first, so a second Close (another thread, or the destructor) finds nothing.
    const SOCKET hSocket = m_socket.exchange(INVALID_SOCKET);
    if (hSocket != INVALID_SOCKET)
    {
        shutdown(hSocket, SD_BOTH);
        closesocket(hSocket);
    }
    return 1;
}
