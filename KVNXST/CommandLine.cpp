#include "CommandLine.h"

#include <climits>
#include <cwchar>

namespace
{

bool Contains(const wchar_t* szCmdLine, const wchar_t* szOption)
{
    return std::wcsstr(szCmdLine, szOption) != nullptr;
}

bool Equals(const wchar_t* szCmdLine, const wchar_t* szOption)
{
    return std::wcscmp(szCmdLine, szOption) == 0;
}

// The C runtime's blanks; locale-independent, so the host and the agent agree.
bool IsBlank(wchar_t ch)
{
    return ch == L' ' || ch == L'\t' || ch == L'\n' || ch == L'\v' || ch == L'\f' || ch == L'\r';
}

// Full-width and other non-ASCII digits are not digits here: a port comes from the service as ASCII.
bool IsDigit(wchar_t ch)
{
    return ch >= L'0' && ch <= L'9';
}

const wchar_t* SkipBlanks(const wchar_t* p)
{
    while (IsBlank(*p))
        ++p;
    return p;
}

wchar_t AsciiLower(wchar_t ch)
{
    return (ch >= L'A' && ch <= L'Z') ? static_cast<wchar_t>(ch - L'A' + L'a') : ch;
}

bool EqualsIgnoringAsciiCase(const wchar_t* a, const wchar_t* b)
{
    for (; *a != L'\0' && *b != L'\0'; ++a, ++b)
        if (AsciiLower(*a) != AsciiLower(*b))
            return false;
    return *a == *b;
}

} // namespace

namespace
{

// In the order they are tried; the first match decides. "contains" finds the option anywhere in
// the line, otherwise the whole line must be the option. The first row of an option names it.
struct KvOptionRow
{
    const wchar_t* szText;
    bool bContains;
    KvCommandOption option;
};

constexpr KvOptionRow kOptionTable[] = {
    {L"-onetimesession", true, KvCommandOption::OneTimeSession},
    {L"-Permission", true, KvCommandOption::Permission},
    {L"-Invitation", true, KvCommandOption::Permission},
    {L"-SettingsAsApplication", false, KvCommandOption::SettingsAsApplication},
    {L"-Settings", false, KvCommandOption::Settings},
    {L"-ValidateCert", true, KvCommandOption::ValidateCert},
    {L"-ConsoleLock", false, KvCommandOption::ConsoleLock},
    {L"-Logoff", false, KvCommandOption::Logoff},
    {L"-LogoffForce", false, KvCommandOption::LogoffForce},
    {L"-LockWorkstation", false, KvCommandOption::LockWorkstation},
};

} // namespace

KvCommandOption KvFindCommandOption(const wchar_t* szCmdLine)
{
    const wchar_t* sz = szCmdLine != nullptr ? szCmdLine : L"";
    for (const KvOptionRow& row : kOptionTable)
        if (row.bContains ? Contains(sz, row.szText) : Equals(sz, row.szText))
            return row.option;
    return KvCommandOption::Resident;
}

const wchar_t* KvCommandOptionName(KvCommandOption option)
{
    for (const KvOptionRow& row : kOptionTable)
        if (row.option == option)
            return row.szText;
    return L"resident";
}

namespace
{

// Blanks, an optional sign and ASCII digits, as the C runtime's conversions read them. The
// magnitude saturates just above 32 bits, which keeps every comparison with a 32-bit limit right.
struct KvDecimal
{
    bool bNegative;
    unsigned long long ullMagnitude;
};

KvDecimal ReadDecimal(const wchar_t* sz)
{
    constexpr unsigned long long kSaturated = 0x100000000ULL;
    const wchar_t* p = SkipBlanks(sz);
    KvDecimal result = {*p == L'-', 0};
    if (*p == L'-' || *p == L'+')
        ++p;
    for (; IsDigit(*p) && result.ullMagnitude < kSaturated; ++p)
        result.ullMagnitude = result.ullMagnitude * 10 + static_cast<unsigned long long>(*p - L'0');
    if (result.ullMagnitude > kSaturated)
        result.ullMagnitude = kSaturated;
    return result;
}

} // namespace

int KvWtoi(const wchar_t* sz)
{
    if (sz == nullptr)
        return 0;
    const KvDecimal value = ReadDecimal(sz);
    // A magnitude, which holds INT_MIN's as well.
    const unsigned long long ullLimit =
        value.bNegative ? 1ULL + INT_MAX : static_cast<unsigned long long>(INT_MAX);
    if (value.ullMagnitude > ullLimit)
        return value.bNegative ? INT_MIN : INT_MAX;
    if (value.bNegative)
        return value.ullMagnitude == ullLimit ? INT_MIN : -static_cast<int>(value.ullMagnitude);
    return static_cast<int>(value.ullMagnitude);
}

std::uint32_t KvWcstoul10(const wchar_t* sz)
{
    if (sz == nullptr)
        return 0;
    const KvDecimal value = ReadDecimal(sz);
    if (value.ullMagnitude > 0xFFFFFFFFULL)
        return 0xFFFFFFFFU;
    const std::uint32_t uiValue = static_cast<std::uint32_t>(value.ullMagnitude);
    return value.bNegative ? static_cast<std::uint32_t>(0U - uiValue) : uiValue;
}

std::uint32_t KvCommandLinePort(const wchar_t* szCmdLine)
{
    if (szCmdLine == nullptr || *szCmdLine == L'\0')
        return KV_PORT_NONE;
    return static_cast<std::uint32_t>(KvWtoi(szCmdLine));
}

KvOneTimePortResult KvParseOneTimePort(const wchar_t* szCmdLine, std::uint32_t* puiPort)
{
    const wchar_t* pBlank = szCmdLine != nullptr ? std::wcschr(szCmdLine, L' ') : nullptr;
    if (pBlank == nullptr)
        return KvOneTimePortResult::NoBlank;
    const wchar_t* pToken = pBlank;
    while (*pToken == L' ')
        ++pToken;
    // The token ends at the next blank; the conversion stops at the first non-digit anyway.
    std::wstring token(pToken);
    const std::wstring::size_type end = token.find(L' ');
    if (end != std::wstring::npos)
        token.resize(end);
    const std::uint32_t uiPort = KvWcstoul10(token.c_str());
    if (uiPort == 0)
        return KvOneTimePortResult::NotANumber;
    *puiPort = uiPort;
    return KvOneTimePortResult::Ok;
}

bool KvParsePermissionArguments(const wchar_t* szCmdLine, int* pnPort, int* pnAfType)
{
    const wchar_t* pBlank = szCmdLine != nullptr ? std::wcschr(szCmdLine, L' ') : nullptr;
    if (pBlank == nullptr)
        return false;
    const wchar_t* pPort = pBlank;
    while (*pPort == L' ')
        ++pPort;
    const wchar_t* pAfType = std::wcschr(pPort, L' ');
    *pnPort = KvWtoi(pPort);
    *pnAfType = pAfType != nullptr ? KvWtoi(pAfType) : 0;
    return true;
}

bool KvIsTcpPort(std::uint32_t uiPort)
{
    return uiPort >= 1 && uiPort <= 65535;
}

bool KvIsSystemAccount(const wchar_t* szUserName)
{
    return szUserName != nullptr && EqualsIgnoringAsciiCase(szUserName, L"system");
}

bool KvIsWinlogonDesktop(const wchar_t* szDesktopName)
{
    return szDesktopName != nullptr && EqualsIgnoringAsciiCase(szDesktopName, L"Winlogon");
}

bool KvIsScreenSaverDesktop(const wchar_t* szDesktopName)
{
    return szDesktopName != nullptr && std::wcscmp(szDesktopName, L"Screen-saver") == 0;
}

std::wstring KvInstanceObjectName(const wchar_t* szDesktopName)
{
    if (szDesktopName == nullptr || *szDesktopName == L'\0')
        return L"Kestrova Brontal Utilities Vexa Remote Control Tray Icon";
    return std::wstring(szDesktopName) + L" Kestrova Vexa Remote Control Tray Icon";
}

bool KvConsoleLockDataPath(const wchar_t* szBase, wchar_t* buf, std::size_t cch)
{
    std::wstring path(szBase != nullptr ? szBase : L"");
    if (path.empty() || path.back() != L'\\')
        path += L'\\';
    path += L"kvnxs\\KVNXST.data";
    if (path.size() >= cch)
    {
        buf[0] = L'\0';
        return false;
    }
    path.copy(buf, path.size());
    buf[path.size()] = L'\0';
    return true;
}

bool KvIsLanguageCode(const wchar_t* szCode)
{
    if (szCode == nullptr)
        return false;
    std::size_t n = 0;
    for (const wchar_t* p = szCode; *p != L'\0'; ++p, ++n)
    {
        const wchar_t ch = AsciiLower(*p);
        const bool bAllowed = IsDigit(ch) || (ch >= L'a' && ch <= L'z') || ch == L'-' || ch == L'_';
        if (!bAllowed || n >= 16)
            return false;
    }
    return n > 0;
}
