// The least a process can do in the permission question's place: start, send one datagram to the
// loopback port on its command line, end.
#include <winsock2.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc < 2)
        return 1;
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<u_short>(std::atoi(argv[1])));
    const char byte = 1;
    const int n = sendto(s, &byte, 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    closesocket(s);
    WSACleanup();
    return n == 1 ? 0 : 1;
}
