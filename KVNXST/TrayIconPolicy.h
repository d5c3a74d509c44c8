// The tray window's decisions about its notification-area icon, kept free of the Windows headers
// so the host tests run them as they are: whether the icon is shown, how often a failed add is
// retried, which picture it shows, its tooltip, and which menu items are greyed.
#pragma once

#include <cstddef>
#include <cstdint>

// --- Whether the icon is shown.

enum class KvTrayAction
{
    ModifyOrAdd, // modify the icon when the shell holds it, else add it
    Delete,      // remove it (and do nothing more)
};

// bTrayIcon: the service's tray-icon policy (0 no icon, 1 always, 2 and above while viewed);
// bConnections: viewers are connected; nMode: 1 in attended mode; bOneTime: the one-time agent.
KvTrayAction KvTrayIconAction(std::uint32_t bTrayIcon, bool bConnections, int nMode, bool bOneTime);

// --- Retrying a failed add: every second for a minute after start-up, then once a minute.

constexpr unsigned int KV_TRAY_RETRY_FAST_MS = 1000;
constexpr unsigned int KV_TRAY_RETRY_SLOW_MS = 60000;
constexpr int KV_TRAY_RETRY_FAST_COUNT = 60;

// The period of timer 1006 after nFailures failed adds in a row (counting the one just failed).
unsigned int KvTrayRetryPeriod(int nFailures);

// --- The picture. Resource ids of the tray icons.

constexpr int KV_ICON_IDLE = 7;
constexpr int KV_ICON_PENDING = 107;
constexpr int KV_ICON_CONNECTED = 130;
constexpr int KV_ICON_CUSTOM_IDLE = 131;

// Values of the service's icon selector (connection block while viewers are connected, the
// settings' idle field otherwise, 1 again once the last viewer has left).
constexpr std::uint32_t KV_TRAY_SELECTOR_NORMAL = 1;
constexpr std::uint32_t KV_TRAY_SELECTOR_VIEWED_ONLY = 2;

// The resource id of the picture:
//   a viewer is connected            -> 130, whatever the selector;
//   idle, selector 2                 -> 107: the icon is meant to show only for a session, so an
//                                       idle icon means one is being set up;
//   idle, settings' custom idle icon -> 131;
//   idle otherwise (selector 0, 1 or unknown) -> 7.
int KvTrayIconResource(bool bActive, std::uint32_t uSelector, bool bCustomIdleIcon);

// --- The tooltip.

// Units of the tooltip field with and without the shell's balloons (NOTIFYICONDATAW layouts).
constexpr std::size_t KV_TOOLTIP_UNITS_BALLOONS = 128;
constexpr std::size_t KV_TOOLTIP_UNITS_PLAIN = 64;
// The composed text before it is cut to the field.
constexpr std::size_t KV_TOOLTIP_COMPOSE_UNITS = 756;

namespace KvTrayDetail
{
template <typename CharT> std::size_t Append(CharT* out, std::size_t cap, std::size_t n, const CharT* s)
{
    if (s != nullptr)
        while (n + 1 < cap && *s != 0)
            out[n++] = *s++;
    out[n] = 0;
    return n;
}
} // namespace KvTrayDetail

// Composes the tooltip into out (cchOut units, the tooltip field) and returns its length. In
// one-time mode szOneTime comes first; with bNote, szNote and CR LF; then the caption. The text is
// cut to cchOut - 5 units so that "..." and the terminator still fit; "..." marks a text that was
// cut and is left off a whole one. Null strings count as empty. CharT: any 16-bit unit type.
template <typename CharT>
std::size_t KvComposeTrayTooltip(CharT* out, std::size_t cchOut, bool bOneTime, const CharT* szOneTime,
                                 bool bNote, const CharT* szNote, const CharT* szCaption)
{
    if (out == nullptr || cchOut == 0)
        return 0;
    CharT text[KV_TOOLTIP_COMPOSE_UNITS];
    const CharT crlf[] = {CharT('\r'), CharT('\n'), 0};
    std::size_t n = 0;
    // Each head on a line of its own, so neither runs into the caption.
    if (bOneTime)
    {
        n = KvTrayDetail::Append(text, KV_TOOLTIP_COMPOSE_UNITS, n, szOneTime);
        n = KvTrayDetail::Append(text, KV_TOOLTIP_COMPOSE_UNITS, n, crlf);
    }
    if (bNote)
    {
        n = KvTrayDetail::Append(text, KV_TOOLTIP_COMPOSE_UNITS, n, szNote);
        n = KvTrayDetail::Append(text, KV_TOOLTIP_COMPOSE_UNITS, n, crlf);
    }
    n = KvTrayDetail::Append(text, KV_TOOLTIP_COMPOSE_UNITS, n, szCaption);

    const std::size_t keep = cchOut > 5 ? cchOut - 5 : 0;
    if (n <= keep || cchOut <= 5)
        return KvTrayDetail::Append(out, cchOut, 0, text);
    text[keep] = 0;
    const CharT dots[] = {CharT('.'), CharT('.'), CharT('.'), 0};
    return KvTrayDetail::Append(out, cchOut, KvTrayDetail::Append(out, cchOut, 0, text), dots);
}

// --- The tray menu.

// The menu items whose state depends on the service's settings.
constexpr unsigned int KV_MENU_INVITATIONS = 40002;
constexpr unsigned int KV_MENU_DISCONNECT = 40005;
constexpr unsigned int KV_MENU_CONNECT_TO_CLIENT = 40006;
constexpr unsigned int KV_MENU_EXIT = 40007;
constexpr unsigned int KV_MENU_SETTINGS = 40008;
constexpr unsigned int KV_MENU_JOIN_SESSION = 40011;
constexpr unsigned int KV_MENU_LANGUAGE_FIRST = 1044;

struct KvTrayMenuFlags
{
    int nConnections = 0;
    int nMode = 0; // 1: attended
    bool bAllowSettings = false;
    bool bAllowDisconnect = false;
    bool bAllowInvitations = false;
    bool bAllowConnectToClient = false;
    bool bReverseConnectActive = false;
    bool bLockSettings = false; // either of the two lock flags
    std::uint32_t uOptions = 0; // 0x10: invitations
};

constexpr std::uint32_t KV_OPTION_INVITATIONS = 0x10;

// The greyed items, each once, in the order of KV_MENU_* above.
struct KvGreyedItems
{
    unsigned int ids[6] = {};
    int count = 0;

    bool Contains(unsigned int id) const
    {
        for (int i = 0; i < count; ++i)
            if (ids[i] == id)
                return true;
        return false;
    }
};

KvGreyedItems KvTrayMenuGreyed(const KvTrayMenuFlags& flags);

// The language item to check: 1044 + the index of the table entry equal to szLanguage (ASCII,
// case-insensitive, at most 3 units read); 0 when none is. CharT: any character type.
template <typename CharT, typename TableT>
unsigned int KvLanguageMenuItem(const CharT* szLanguage, const TableT* const* table, int nEntries)
{
    if (szLanguage == nullptr || table == nullptr)
        return 0;
    const auto lower = [](unsigned long c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
    for (int i = 0; i < nEntries; ++i)
    {
        const TableT* code = table[i];
        if (code == nullptr)
            continue;
        bool bSame = true;
        for (int k = 0; k < 3 && bSame; ++k)
        {
            const unsigned long a = lower(static_cast<unsigned long>(szLanguage[k]));
            const unsigned long b = lower(static_cast<unsigned long>(code[k]));
            bSame = a == b;
            if (a == 0)
                break;
        }
        if (bSame)
            return KV_MENU_LANGUAGE_FIRST + static_cast<unsigned int>(i);
    }
    return 0;
}
