// The hosts and proxies a user connected through, remembered under a key of the user's hive and
// offered again in a combo box whose items carry their ports as data. The connect-to-client
// dialog keeps a host list and a proxy list; the invitation dialog keeps a proxy list of its own
// under another key, through the same routines.
#pragma once

#include <windows.h>

// How one list is named in the registry. The entry names are "%d" formats (n = 0 to 50).
struct KvRememberedList
{
    const wchar_t* szSection;   // key under "Software\Kestrova Development\Vexa Remote Control"
    const wchar_t* szItemRead;  // the n-th entry as read
    const wchar_t* szItemWrite; // the n-th entry as written; may differ from the read name
    const wchar_t* szItemPort;  // the n-th entry's port
    const wchar_t* szLast;      // entry of the last request
    const wchar_t* szLastPort;  // port of the last request
    DWORD dwItemPortRead;       // an entry without a port value
    DWORD dwItemPortWrite;      // an item without a port
    DWORD dwLastPort;           // no last port value
    DWORD cbItemMax;            // an entry of more bytes (or not a string) ends the list
};

// A dialog's proxy boxes: the use-proxy check box enables the host and port, the secret check
// box enables the secret.
struct KvProxyBoxes
{
    int nUseProxy;
    int nHost;
    int nPort;
    int nUseSecret;
    int nSecret;
};

// The connect-to-client dialog's lists, under "Reverse Connection". Proxies are written as
// "Proxy Host %d" but read as "Proxy %d", so only the last proxy comes back; kept so on purpose.
extern const KvRememberedList kvReverseHosts;
extern const KvRememberedList kvReverseProxies;
// The invitation dialog's proxies, under "Invitations", with the same names; entries of 260 units.
extern const KvRememberedList kvInvitationProxies;

// Fills hCombo with the list's entries (empty ones skipped), puts the last port into hPort and
// selects the last entry, adding it when the list lacks it. True when the key was opened.
bool KvLoadRememberedList(const KvRememberedList& list, HWND hCombo, HWND hPort);
// Adds szText with dwPort unless hCombo has it (any case), then writes the first 51 items and the
// last entry and port. True when the key was created or opened.
bool KvSaveRememberedList(const KvRememberedList& list, HWND hCombo, const wchar_t* szText, DWORD dwPort);

// The same for a proxy list, with the dialog's check boxes: loading checks and enables what
// "Use Proxy" and "Use Proxy Secret" say; saving stores the boxes' states.
bool KvLoadProxyList(const KvRememberedList& list, HWND hDlg, const KvProxyBoxes& boxes);
bool KvSaveProxyList(const KvRememberedList& list, HWND hDlg, const KvProxyBoxes& boxes,
                     const wchar_t* szText, DWORD dwPort);
