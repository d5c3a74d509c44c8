#include "TrayIconPolicy.h"

KvTrayAction KvTrayIconAction(std::uint32_t bTrayIcon, bool bConnections, int nMode, bool bOneTime)
{
    if (bTrayIcon == 0)
        // No icon in attended mode, except for the one-time agent, which the user must see.
        return nMode == 1 && !bOneTime ? KvTrayAction::Delete : KvTrayAction::ModifyOrAdd;
    if (bTrayIcon == 2 && nMode == 1 && !bConnections)
        return KvTrayAction::Delete; // shown only while a viewer is connected
    return KvTrayAction::ModifyOrAdd;
}

unsigned int KvTrayRetryPeriod(int nFailures)
{
    return nFailures <= KV_TRAY_RETRY_FAST_COUNT ? KV_TRAY_RETRY_FAST_MS : KV_TRAY_RETRY_SLOW_MS;
}

int KvTrayIconResource(bool bActive, std::uint32_t uSelector, bool bCustomIdleIcon)
{
    if (bActive)
        return KV_ICON_CONNECTED;
    if (uSelector == KV_TRAY_SELECTOR_VIEWED_ONLY)
        return KV_ICON_PENDING;
    return bCustomIdleIcon ? KV_ICON_CUSTOM_IDLE : KV_ICON_IDLE;
}

KvGreyedItems KvTrayMenuGreyed(const KvTrayMenuFlags& f)
{
    const bool bViewed = f.nConnections > 0;
    const bool bAttended = f.nMode == 1;
    const struct
    {
        unsigned int id;
        bool bGrey;
    } rules[] = {
        {KV_MENU_INVITATIONS, !f.bAllowInvitations || (f.uOptions & KV_OPTION_INVITATIONS) == 0},
        {KV_MENU_DISCONNECT, !bViewed || (bAttended && !f.bAllowDisconnect)},
        {KV_MENU_CONNECT_TO_CLIENT, bViewed || !f.bAllowConnectToClient || f.bReverseConnectActive},
        {KV_MENU_EXIT, bAttended && f.bLockSettings},
        {KV_MENU_SETTINGS, !f.bAllowSettings},
        {KV_MENU_JOIN_SESSION, bViewed || f.bReverseConnectActive},
    };
    KvGreyedItems greyed;
    for (const auto& rule : rules)
        if (rule.bGrey)
            greyed.ids[greyed.count++] = rule.id;
    return greyed;
}
