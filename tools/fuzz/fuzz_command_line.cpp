// libFuzzer target over the agent's reading of its command line: which option decides, the ports
// and numbers it carries, and the names composed from the desktop's name. The input is taken as
// UTF-16 units, as Windows hands the line over, widened to the host's wchar_t.
#include "CommandLine.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::wstring line;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        line += static_cast<wchar_t>(data[i] | data[i + 1] << 8);
    // The system hands over a terminated line: whatever follows an embedded NUL is not seen.
    const wchar_t* sz = line.c_str();
    KvCommandOptionName(KvFindCommandOption(sz));
    KvCommandLinePort(sz);
    KvWtoi(sz);
    KvWcstoul10(sz);
    std::uint32_t uiPort = 0;
    if (KvParseOneTimePort(sz, &uiPort) == KvOneTimePortResult::Ok && uiPort == 0)
        __builtin_trap(); // a port of 0 is refused, never taken
    int nPort = 0, nAf = 0;
    KvParsePermissionArguments(sz, &nPort, &nAf);
    KvIsSystemAccount(sz);
    KvIsWinlogonDesktop(sz);
    KvIsScreenSaverDesktop(sz);
    KvInstanceObjectName(sz);
    return 0;
}
