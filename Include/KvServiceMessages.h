// The records exchanged with the service: type ids, layouts, sizes, and builders for the
// records the agent sends. Portable, so the simulator and the host tests use this same header.
//
// Every field sits on a boundary of its own width, so the natural layout of these structs is
// the wire layout; a packing pragma would only forbid binding references to the string members.
// The asserts after each struct fix its size and its offsets, and prove there is no hidden
// padding. Strings are fixed arrays of UTF-16 units (char16_t here, so Linux and Windows compile
// one definition; Windows code reaches them as wchar_t through KvWide).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#if defined(__BYTE_ORDER__) && defined(__ORDER_LITTLE_ENDIAN__)
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are little-endian, never swapped");
#endif

// ---------------------------------------------------------------------------------------------
// Type ids of the TCP link.

constexpr std::uint32_t MSG_TYPE_VERSION = 4400;
constexpr std::uint32_t MSG_TYPE_TRAYICON_INIT = 40000;
constexpr std::uint32_t MSG_TYPE_TRAYICON_EXIT = 40001;
constexpr std::uint32_t MSG_TYPE_TRAYICON_CONNECT_COUNT = 40002;
constexpr std::uint32_t MSG_TYPE_TRAYICON_SETTINGS = 40003;
constexpr std::uint32_t MSG_TYPE_TRAYICON_USER_REQUEST = 40004; // no log name
constexpr std::uint32_t MSG_TYPE_TRAYICON_SETTINGS_UPDATE = 40007;
constexpr std::uint32_t MSG_TYPE_TRAYICON_CONNECT_NOTIFY = 40008;
constexpr std::uint32_t MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY = 40009;
constexpr std::uint32_t MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION = 50000;
constexpr std::uint32_t MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL = 50001;
constexpr std::uint32_t MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK = 50005; // no log name
constexpr std::uint32_t MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK = 50006;  // no log name
constexpr std::uint32_t MSG_TYPE_TRAYICON_DESKTOP_STATE = 50007;       // no log name
constexpr std::uint32_t MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE = 50008;
constexpr std::uint32_t MSG_TYPE_TRAYICON_DESKTOP_EFFECTS = 50009;
constexpr std::uint32_t MSG_TYPE_TRAYICON_SESSION_END = 50010; // no log name
constexpr std::uint32_t MSG_TYPE_TRAYICON_SFT_DROP_CLIENT = 67001;
constexpr std::uint32_t MSG_TYPE_TRAYICON_SFT_INIT_TEMP = 67002;
constexpr std::uint32_t MSG_TYPE_TRAYICON_SFT_DELETE_TEMP = 67003;
constexpr std::uint32_t MSG_TYPE_TRAYICON_SETTINGS_DIALOG = 70020;
constexpr std::uint32_t MSG_TYPE_TRAYICON_SERVER_RECONFIGURE = 70030;
constexpr std::uint32_t MSG_TYPE_TRAYICON_IP_ADDRESSES = 70040;
constexpr std::uint32_t MSG_TYPE_TRAYICON_PERMISSION = 70050;
constexpr std::uint32_t MSG_TYPE_TRAYICON_LANGUAGE = 70060; // no log name
constexpr std::uint32_t MSG_TYPE_REVERSE_CONNECTION = 70070;
constexpr std::uint32_t MSG_TYPE_TRAYICON_CHAT_OPEN = 75000;
constexpr std::uint32_t MSG_TYPE_CHAT_MESSAGE = 75001;
constexpr std::uint32_t MSG_TYPE_TRAYICON_CHAT_CLOSE = 75002;
constexpr std::uint32_t MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE = 100000;

// Datagram exchanges (not on the TCP link).
constexpr std::uint32_t KV_UDP_TAG = 701;                   // first word of every datagram header
constexpr std::uint32_t KV_UDP_PORT_QUERY = 703;            // command: which TCP port?
constexpr std::uint32_t KV_UDP_INVITATION_CREATE = 720;     // command: make an invitation
constexpr std::uint32_t KV_UDP_INVITATION_DELETE_ALL = 721; // command: drop all invitations
constexpr std::uint32_t KV_PERMISSION_QUERY_TYPE = 70006;   // type of the permission child's first send

// ---------------------------------------------------------------------------------------------
// Values the records carry.

constexpr std::uint32_t KV_DEFAULT_SERVICE_PORT = 6129;
constexpr std::uint32_t KV_RECEIVE_BUFFER_BYTES = 47520; // the connection thread's one buffer
constexpr double KV_AGENT_PROTOCOL_VERSION = 444.0;
constexpr std::uint32_t KV_DESKTOP_STATE_NORMAL = 7;
constexpr std::uint32_t KV_DESKTOP_STATE_SCREEN_SAVER = 8;
constexpr std::uint32_t KV_DESKTOP_NOT_OPENED = 0x02; // state bits of the user information
constexpr std::uint32_t KV_DESKTOP_OPENED = 0x04;
constexpr std::uint32_t KV_DESKTOP_SCREEN_SAVER = 0x10;
constexpr std::int32_t KV_EXIT_CODE_ENDED = -56;
constexpr std::uint32_t KV_REVERSE_DONE = 100; // reverse-connection status codes
constexpr std::uint32_t KV_REVERSE_STARTED = 101;
constexpr std::uint32_t KV_REVERSE_ENDED = 102;
constexpr std::uint32_t KV_REVERSE_CANCEL = 103; // sent by the agent
constexpr std::uint32_t KV_PERMISSION_ALLOWED = 1111;
constexpr std::uint32_t KV_PERMISSION_DENIED = 2222;
constexpr std::uint32_t KV_PERMISSION_TIMEOUT = 3333;
constexpr std::uint32_t KV_PERMISSION_WITHDRAWN = 4444;
constexpr std::uint32_t KV_PERMISSION_NOBODY = 6666;
constexpr std::uint32_t KV_INVITATION_DELETE_NONE = 170; // delete status that selects string 63
constexpr std::uint32_t KV_INVITATION_EXPIRY_CHOICES = 12;

// Largest chat body either side accepts. The length comes from the peer; anything near this is
// already far beyond what a chat window produces.
constexpr std::uint32_t KV_MAX_CHAT_BODY_BYTES = 1u << 20;
// Larger chat bodies, up to this, the agent reads and drops so that the stream still frames; a
// longer one ends the link, since reading it to stay in step would take minutes.
constexpr std::uint32_t KV_MAX_CHAT_SKIP_BYTES = 64u << 20;

// ---------------------------------------------------------------------------------------------
// TCP records, service to agent and agent to service.

struct MSG_TRAYICON_TYPE_ONLY
{
    std::uint32_t dwType;
};

struct MSG_VERSION // 4400, 40 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwReserved4; // echoed
    double dVersion;
    double dVersion2;
    std::uint8_t reserved24[12]; // echoed
    std::uint32_t dwSessionId;
};

struct MSG_TRAYICON_INIT // 40000, 16,212 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwSessionId;    // agent's answer: its session
    std::uint32_t dwDesktopState; // agent's answer: 7 or 8
    std::uint32_t dwDesktopEffects;
    std::uint32_t dwOneTimeSession;  // kept process-wide for the tray window
    char16_t szOneTimeSession[8096]; // likewise
};

// The settings block. The Parts fix 32, 36, 48, 52, 56 and 4744; the other fields are placed
// here once: the tray window's service-block members keep their declaration order around the
// fixed words, then the flags and texts the tray, notification and About code read.
struct MSG_TRAYICON_SETTINGS // 40003 and 40007, 4,752 bytes
{
    std::uint32_t dwType;
    std::uint32_t bNotifyDlg;          // notify on connect
    std::uint32_t bNotifyMode2;        // notify on connect in mode 2
    std::uint32_t bNotifyDisconnect;   // notify on disconnect
    std::uint32_t bAllowSettings;      // menu 40008
    std::uint32_t bAllowDisconnect;    // menu 40005 in attended mode
    std::uint32_t bTrayIcon;           // tray-icon policy 0, 1, 2+
    std::uint32_t uOptions;            // 0x10: invitations
    std::uint32_t bQuietWhenIdleIcon;  // 32: no sound when set and the idle selector is 1
    std::uint32_t dwNotifyDisplayTime; // 36: seconds; 0 keeps the notice open
    std::uint32_t bPermissionRequired;
    std::uint32_t bLockSettingsA;  // read-only settings, exit disabled
    std::uint32_t dwIdleTrayIcon;  // 48: icon selector while nobody is connected
    std::uint32_t bMachineProfile; // 52: 0 points the profile store at the user's hive
    std::uint32_t bKeepNotifyOpen; // 56: keep the notice while viewers are connected
    std::uint32_t bLockSettingsB;
    std::uint32_t bAllowInvitations;     // menu 40002
    std::uint32_t bAllowConnectToClient; // menu 40006
    std::uint32_t uConnectOption;        // copied into every reverse-connection request
    std::uint32_t bTooltipNote;          // tooltip starts with string 89
    std::uint32_t bCustomIdleIcon;       // idle tray icon is the custom one
    std::uint32_t bInviteRightB;         // four consecutive invitation capabilities:
    std::uint32_t bInviteRightC;         //   check boxes 1015, 1016, 1017, 1010
    std::uint32_t bInviteRightE;
    std::uint32_t bInviteRightD;
    std::uint32_t uAboutOptionA; // About box lines 116 and 121
    std::uint32_t uAboutOptionB;
    std::uint32_t uAboutFlagC;     // About box line 89
    char16_t szCaption[260];       // tooltip text
    char16_t szNotifyTitle[260];   // notification window caption
    char16_t szNotifyHeading[260]; // notification control 1002
    char16_t szConnectHeader[260]; // first line of a connect notice
    char16_t szAboutText[9][128];  // About box text values 1 to 9
    std::uint8_t reserved4496[248];
    char16_t szLanguage[3]; // 4744: two-letter code
    std::uint16_t wReserved4750;
};

struct MSG_TRAYICON_CONNECT_INFO // 40002, 40008, 40009: 1,592 bytes
{
    std::uint32_t dwType;
    char16_t szUsername[260];   // the viewer's user
    char16_t szSecondLine[260]; // second text of the notice (optional)
    char16_t szThirdLine[260];  // third text of the notice
    std::uint32_t dwReserved1564;
    std::uint32_t dwTrayIcon; // icon selector while a viewer is connected
    std::uint32_t dwConnections;
    std::uint32_t dwReserved1576;
    std::uint32_t bDisconnectButton;
    std::uint32_t dwReserved1584;
    std::uint32_t dwViewerId; // key of the viewer's drop window
};

struct MSG_TRAYICON_DESKTOP_USER_INFORMATION // 50000, 1,068 bytes; also embedded, type 0
{
    std::uint32_t dwType;
    char16_t szUserName[260];
    char16_t szDesktopName[260];
    std::uint32_t dwState; // KV_DESKTOP_* bits
    std::uint8_t reserved1048[20];
};

// The list of connected viewers the notification window shows: one viewer a line, CR LF
// between lines, and their number.
struct MSG_TRAYICON_NOTIFY_ALL // 50001, 8,204 bytes
{
    std::uint32_t dwType;
    char16_t szText[4098];
    std::uint32_t dwCount;
};

struct MSG_TRAYICON_DESKTOP_EFFECTS // 50009 in, 50005 out: 8 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwMask;
};

struct MSG_TRAYICON_DESKTOP_STATE // 50007, 8 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwDesktopState;
};

struct MSG_TRAYICON_SESSION_END // 50010, 16 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwSessionId;
    std::uint32_t dwReserved8;
    std::int32_t nExitCode;
};

struct MSG_TRAYICON_USER_REQUEST // 40004, 1,076 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwReserved4;
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info; // its type word 0
};

struct MSG_TRAYICON_LANGUAGE // 70060, 1,080 bytes
{
    std::uint32_t dwType;
    char16_t szLanguage[3];
    std::uint16_t wReserved10;
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info; // its type word 0
};

// The exit request carries the user information right behind its type, as the user request
// and the language choice do further on.
struct MSG_TRAYICON_EXIT // 40001, 1,072 bytes
{
    std::uint32_t dwType;
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info; // its type word 0
};

// From offset 32 on the record belongs to the drop window: whom the files go to, the event that
// tells the service they are listed, and the settings file they are listed in (its format is in
// SFT_DropFiles.h); with no settings file they go to the clipboard as "KVNXS_Files".
struct MSG_TRAYICON_SFT_DROP_CLIENT // 67001, 2,120 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwViewerId;
    std::uint32_t dwService8;
    std::uint32_t dwPosition;       // written by the agent
    std::uint64_t hDropWnd;         // written by the agent
    std::uint64_t hTrayWnd;         // written by the agent
    char16_t szViewerName[261];     // shown on the window
    char16_t szEventName[261];      // set once the files are listed
    char16_t szFileListPath[261];   // the transfer's temporary settings file, or empty
    std::uint8_t reserved1598[522]; // zero
};

struct MSG_TRAYICON_SFT_INIT_TEMP // 67002, 1,572 bytes
{
    std::uint32_t dwType;
    char16_t szEventName[261];
    char16_t szTempIniPath[261];
    char16_t szDataPath[262];
};

struct MSG_TRAYICON_SFT_DELETE_TEMP // 67003, 8 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwTempFile; // 1 the settings file, 2 the data file
};

struct MSG_TRAYICON_SETTINGS_DIALOG // 70020, 12 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwIgnored[2];
};

struct MSG_TRAYICON_SERVER_RECONFIGURE // 70030, 528 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwState;
    char16_t szText[260];
};

// The service's local addresses: their number and one address a line, CR LF between lines.
struct MSG_TRAYICON_IP_ADDRESSES // 70040 in, 7,960 bytes (the request out is the id alone)
{
    std::uint32_t dwType;
    std::uint32_t dwCount;
    char16_t szAddresses[3976];
};

struct MSG_TRAYICON_PERMISSION // 70050, 12 bytes
{
    std::uint32_t dwType;
    std::uint32_t nPort;
    std::uint32_t nAfType;
};

struct MSG_REVERSE_CONNECTION // 70070, 41,164 bytes
{
    std::uint32_t dwType;
    std::uint32_t dwStatus; // 100-102 from the service, 103 from the agent
    std::uint32_t dwError;
    std::uint32_t uConnectOption; // 12: proxy capability; 0 disables the proxy options
    char16_t szError[2048];       // "NOERROR" when there was none
    std::uint32_t dwReserved4112;
    std::uint32_t bShortReport;    // 4116: also "join requested" in a join request
    std::uint32_t bSuppressReport; // 4120
    char16_t szShortText[8096];    // 4124: short-report text, or the session code
    std::uint8_t reserved20316[16192];
    char16_t szHost[1026];      // 36508
    std::uint32_t dwPort;       // 38560
    std::uint32_t bUseProxy;    // 38564
    char16_t szProxyHost[1026]; // 38568
    std::uint32_t dwProxyPort;  // 40620
    std::uint32_t dwReserved40624;
    char16_t szProxySecret[260]; // 40628
    std::uint8_t reserved41148[16];
};

struct MSG_TRAYICON_CHAT_OPEN // 75000, 524 bytes
{
    std::uint32_t dwType;
    char16_t szUsername[260];
};

struct MSG_CHAT_MESSAGE // 75001: this head, then dwMessageLength bytes of UTF-16LE text
{
    std::uint32_t dwType;
    char16_t szUsername[260];
    std::uint32_t dwMessageLength;
};

// ---------------------------------------------------------------------------------------------
// Datagram records.

struct MSG_UDP_HEADER // 12 bytes, sent before every command
{
    std::uint32_t dwTag; // KV_UDP_TAG
    std::uint32_t dwCommand;
    std::uint32_t dwReserved;
};

// The port query's body and the service's answer share one 80-byte shape.
struct MSG_PORT_QUERY
{
    std::uint32_t dwCommand; // 703
    std::uint32_t dwReserved4;
    std::uint32_t dwPort; // 0 in the query, the TCP port in the answer
    std::uint8_t unused12[68];
};

struct MSG_PERMISSION_RECORD // 8,740 bytes both ways
{
    std::uint32_t dwType; // 70006 in the first send; the reply keeps the request's
    char16_t szRequest[4096];
    std::uint32_t bKeepPosition; // 8196
    std::uint32_t bDenyDefault;  // 8200
    std::uint32_t dwTextVariant; // 8204
    std::uint32_t dwReserved8208;
    std::uint32_t bAnsweredLocally; // 8212
    std::uint32_t dwResult;         // 8216
    char16_t szConsoleAccount[260]; // 8220
};

struct MSG_INVITATION_REQUEST // 720, 5,716 bytes
{
    std::uint32_t dwCommand;
    std::uint8_t reserved4[2052];
    char16_t szName[260];       // 2056
    std::uint32_t bRightD;      // 2576
    std::uint32_t bRightA;      // 2580
    std::uint32_t dwExpiry;     // 2584: 0 to 11
    std::uint32_t bUsePassword; // 2588
    char16_t szPassword[260];   // 2592
    std::uint32_t dwReserved3112;
    std::uint32_t bRightB;         // 3116
    std::uint32_t bRightC;         // 3120
    std::uint32_t bRightE;         // 3124
    std::uint32_t bUseProxy;       // 3128
    char16_t szProxyHost[1026];    // 3132
    std::uint32_t dwProxyPort;     // 5184
    std::uint32_t bUseProxySecret; // 5188
    char16_t szProxySecret[260];   // 5192
    std::uint32_t dwReserved5712;
};

struct MSG_INVITATION_REPLY // 5,716 bytes; an ANSI text of dwTextLength bytes follows alone
{
    std::uint32_t dwCommand; // not examined
    std::uint32_t dwError;   // 0 = success
    char16_t szMessage[1024];
    std::uint8_t reserved2056[3656];
    std::uint32_t dwTextLength; // 5712
};

struct MSG_INVITATION_DELETE_REPLY // 12 bytes
{
    std::uint32_t dwCommand; // echo, 721
    std::uint32_t dwStatus;
    std::uint32_t dwCount;
};

// ---------------------------------------------------------------------------------------------
// Layout checks: sizes, and every offset the protocol fixes.

#define KV_RECORD_SIZE(T, n)                                                                                 \
    static_assert(sizeof(T) == (n), #T " size");                                                             \
    static_assert(std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T>, #T " POD")
#define KV_OFFSET(T, f, n) static_assert(offsetof(T, f) == (n), #T "." #f " offset")
// No padding bits: the bytes of the struct are exactly its fields.
#define KV_NO_PADDING(T) static_assert(std::has_unique_object_representations_v<T>, #T " padding")

KV_RECORD_SIZE(MSG_TRAYICON_TYPE_ONLY, 4);

KV_RECORD_SIZE(MSG_VERSION, 40);
KV_OFFSET(MSG_VERSION, dwReserved4, 4);
KV_OFFSET(MSG_VERSION, dVersion, 8);
KV_OFFSET(MSG_VERSION, dVersion2, 16);
KV_OFFSET(MSG_VERSION, reserved24, 24);
KV_OFFSET(MSG_VERSION, dwSessionId, 36);
static_assert(sizeof(double) == 8, "version values are IEEE doubles");

KV_RECORD_SIZE(MSG_TRAYICON_INIT, 16212);
KV_NO_PADDING(MSG_TRAYICON_INIT);
KV_OFFSET(MSG_TRAYICON_INIT, dwSessionId, 4);
KV_OFFSET(MSG_TRAYICON_INIT, dwDesktopState, 8);
KV_OFFSET(MSG_TRAYICON_INIT, dwDesktopEffects, 12);
KV_OFFSET(MSG_TRAYICON_INIT, dwOneTimeSession, 16);
KV_OFFSET(MSG_TRAYICON_INIT, szOneTimeSession, 20);

KV_RECORD_SIZE(MSG_TRAYICON_SETTINGS, 4752);
KV_NO_PADDING(MSG_TRAYICON_SETTINGS);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bQuietWhenIdleIcon, 32);
KV_OFFSET(MSG_TRAYICON_SETTINGS, dwNotifyDisplayTime, 36);
KV_OFFSET(MSG_TRAYICON_SETTINGS, dwIdleTrayIcon, 48);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bMachineProfile, 52);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bKeepNotifyOpen, 56);
KV_OFFSET(MSG_TRAYICON_SETTINGS, szLanguage, 4744);
// Offsets defined here (see the struct); the simulator and the tray window agree through these.
KV_OFFSET(MSG_TRAYICON_SETTINGS, bNotifyDlg, 4);
KV_OFFSET(MSG_TRAYICON_SETTINGS, uOptions, 28);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bPermissionRequired, 40);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bLockSettingsA, 44);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bLockSettingsB, 60);
KV_OFFSET(MSG_TRAYICON_SETTINGS, uConnectOption, 72);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bInviteRightB, 84);
KV_OFFSET(MSG_TRAYICON_SETTINGS, bInviteRightD, 96);
KV_OFFSET(MSG_TRAYICON_SETTINGS, uAboutFlagC, 108);
KV_OFFSET(MSG_TRAYICON_SETTINGS, szCaption, 112);
KV_OFFSET(MSG_TRAYICON_SETTINGS, szNotifyTitle, 632);
KV_OFFSET(MSG_TRAYICON_SETTINGS, szNotifyHeading, 1152);
KV_OFFSET(MSG_TRAYICON_SETTINGS, szConnectHeader, 1672);
KV_OFFSET(MSG_TRAYICON_SETTINGS, szAboutText, 2192);
KV_OFFSET(MSG_TRAYICON_SETTINGS, reserved4496, 4496);

KV_RECORD_SIZE(MSG_TRAYICON_CONNECT_INFO, 1592);
KV_NO_PADDING(MSG_TRAYICON_CONNECT_INFO);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, szUsername, 4);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, szSecondLine, 524);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, szThirdLine, 1044);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, dwTrayIcon, 1568);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, dwConnections, 1572);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, bDisconnectButton, 1580);
KV_OFFSET(MSG_TRAYICON_CONNECT_INFO, dwViewerId, 1588);

KV_RECORD_SIZE(MSG_TRAYICON_DESKTOP_USER_INFORMATION, 1068);
KV_NO_PADDING(MSG_TRAYICON_DESKTOP_USER_INFORMATION);
KV_OFFSET(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szUserName, 4);
KV_OFFSET(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szDesktopName, 524);
KV_OFFSET(MSG_TRAYICON_DESKTOP_USER_INFORMATION, dwState, 1044);
KV_OFFSET(MSG_TRAYICON_DESKTOP_USER_INFORMATION, reserved1048, 1048);

KV_RECORD_SIZE(MSG_TRAYICON_NOTIFY_ALL, 8204);
KV_NO_PADDING(MSG_TRAYICON_NOTIFY_ALL);
KV_OFFSET(MSG_TRAYICON_NOTIFY_ALL, szText, 4);
KV_OFFSET(MSG_TRAYICON_NOTIFY_ALL, dwCount, 8200);

KV_RECORD_SIZE(MSG_TRAYICON_DESKTOP_EFFECTS, 8);
KV_OFFSET(MSG_TRAYICON_DESKTOP_EFFECTS, dwMask, 4);
KV_RECORD_SIZE(MSG_TRAYICON_DESKTOP_STATE, 8);
KV_OFFSET(MSG_TRAYICON_DESKTOP_STATE, dwDesktopState, 4);

KV_RECORD_SIZE(MSG_TRAYICON_SESSION_END, 16);
KV_OFFSET(MSG_TRAYICON_SESSION_END, dwSessionId, 4);
KV_OFFSET(MSG_TRAYICON_SESSION_END, dwReserved8, 8);
KV_OFFSET(MSG_TRAYICON_SESSION_END, nExitCode, 12);

KV_RECORD_SIZE(MSG_TRAYICON_USER_REQUEST, 1076);
KV_NO_PADDING(MSG_TRAYICON_USER_REQUEST);
KV_OFFSET(MSG_TRAYICON_USER_REQUEST, dwReserved4, 4);
KV_OFFSET(MSG_TRAYICON_USER_REQUEST, info, 8);
static_assert(offsetof(MSG_TRAYICON_USER_REQUEST, info) +
                          offsetof(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szUserName) ==
                      12 &&
                  offsetof(MSG_TRAYICON_USER_REQUEST, info) +
                          offsetof(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szDesktopName) ==
                      532 &&
                  offsetof(MSG_TRAYICON_USER_REQUEST, info) +
                          offsetof(MSG_TRAYICON_DESKTOP_USER_INFORMATION, dwState) ==
                      1052,
              "user request's embedded block");

KV_RECORD_SIZE(MSG_TRAYICON_LANGUAGE, 1080);
KV_NO_PADDING(MSG_TRAYICON_LANGUAGE);
KV_OFFSET(MSG_TRAYICON_LANGUAGE, szLanguage, 4);
KV_OFFSET(MSG_TRAYICON_LANGUAGE, wReserved10, 10);
KV_OFFSET(MSG_TRAYICON_LANGUAGE, info, 12);
static_assert(offsetof(MSG_TRAYICON_LANGUAGE, info) +
                          offsetof(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szUserName) ==
                      16 &&
                  offsetof(MSG_TRAYICON_LANGUAGE, info) +
                          offsetof(MSG_TRAYICON_DESKTOP_USER_INFORMATION, szDesktopName) ==
                      536 &&
                  offsetof(MSG_TRAYICON_LANGUAGE, info) +
                          offsetof(MSG_TRAYICON_DESKTOP_USER_INFORMATION, dwState) ==
                      1056,
              "language choice's embedded block");

KV_RECORD_SIZE(MSG_TRAYICON_EXIT, 1072);
KV_NO_PADDING(MSG_TRAYICON_EXIT);
KV_OFFSET(MSG_TRAYICON_EXIT, info, 4);

KV_RECORD_SIZE(MSG_TRAYICON_SFT_DROP_CLIENT, 2120);
KV_NO_PADDING(MSG_TRAYICON_SFT_DROP_CLIENT);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, dwViewerId, 4);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, dwService8, 8);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, dwPosition, 12);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, hDropWnd, 16);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, hTrayWnd, 24);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, szViewerName, 32);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, szEventName, 554);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, szFileListPath, 1076);
KV_OFFSET(MSG_TRAYICON_SFT_DROP_CLIENT, reserved1598, 1598);

KV_RECORD_SIZE(MSG_TRAYICON_SFT_INIT_TEMP, 1572);
KV_NO_PADDING(MSG_TRAYICON_SFT_INIT_TEMP);
KV_OFFSET(MSG_TRAYICON_SFT_INIT_TEMP, szEventName, 4);
KV_OFFSET(MSG_TRAYICON_SFT_INIT_TEMP, szTempIniPath, 526);
KV_OFFSET(MSG_TRAYICON_SFT_INIT_TEMP, szDataPath, 1048);

KV_RECORD_SIZE(MSG_TRAYICON_SFT_DELETE_TEMP, 8);
KV_OFFSET(MSG_TRAYICON_SFT_DELETE_TEMP, dwTempFile, 4);
KV_RECORD_SIZE(MSG_TRAYICON_SETTINGS_DIALOG, 12);

KV_RECORD_SIZE(MSG_TRAYICON_SERVER_RECONFIGURE, 528);
KV_NO_PADDING(MSG_TRAYICON_SERVER_RECONFIGURE);
KV_OFFSET(MSG_TRAYICON_SERVER_RECONFIGURE, dwState, 4);
KV_OFFSET(MSG_TRAYICON_SERVER_RECONFIGURE, szText, 8);

KV_RECORD_SIZE(MSG_TRAYICON_IP_ADDRESSES, 7960);
KV_NO_PADDING(MSG_TRAYICON_IP_ADDRESSES);
KV_OFFSET(MSG_TRAYICON_IP_ADDRESSES, dwCount, 4);
KV_OFFSET(MSG_TRAYICON_IP_ADDRESSES, szAddresses, 8);

KV_RECORD_SIZE(MSG_TRAYICON_PERMISSION, 12);
KV_OFFSET(MSG_TRAYICON_PERMISSION, nPort, 4);
KV_OFFSET(MSG_TRAYICON_PERMISSION, nAfType, 8);

KV_RECORD_SIZE(MSG_REVERSE_CONNECTION, 41164);
KV_NO_PADDING(MSG_REVERSE_CONNECTION);
KV_OFFSET(MSG_REVERSE_CONNECTION, dwStatus, 4);
KV_OFFSET(MSG_REVERSE_CONNECTION, dwError, 8);
KV_OFFSET(MSG_REVERSE_CONNECTION, uConnectOption, 12);
KV_OFFSET(MSG_REVERSE_CONNECTION, szError, 16);
KV_OFFSET(MSG_REVERSE_CONNECTION, bShortReport, 4116);
KV_OFFSET(MSG_REVERSE_CONNECTION, bSuppressReport, 4120);
KV_OFFSET(MSG_REVERSE_CONNECTION, szShortText, 4124);
KV_OFFSET(MSG_REVERSE_CONNECTION, szHost, 36508);
KV_OFFSET(MSG_REVERSE_CONNECTION, dwPort, 38560);
KV_OFFSET(MSG_REVERSE_CONNECTION, bUseProxy, 38564);
KV_OFFSET(MSG_REVERSE_CONNECTION, szProxyHost, 38568);
KV_OFFSET(MSG_REVERSE_CONNECTION, dwProxyPort, 40620);
KV_OFFSET(MSG_REVERSE_CONNECTION, szProxySecret, 40628);

KV_RECORD_SIZE(MSG_TRAYICON_CHAT_OPEN, 524);
KV_OFFSET(MSG_TRAYICON_CHAT_OPEN, szUsername, 4);
KV_RECORD_SIZE(MSG_CHAT_MESSAGE, 528);
KV_NO_PADDING(MSG_CHAT_MESSAGE);
KV_OFFSET(MSG_CHAT_MESSAGE, szUsername, 4);
KV_OFFSET(MSG_CHAT_MESSAGE, dwMessageLength, 524);

KV_RECORD_SIZE(MSG_UDP_HEADER, 12);
KV_OFFSET(MSG_UDP_HEADER, dwCommand, 4);
KV_RECORD_SIZE(MSG_PORT_QUERY, 80);
KV_OFFSET(MSG_PORT_QUERY, dwPort, 8);

KV_RECORD_SIZE(MSG_PERMISSION_RECORD, 8740);
KV_NO_PADDING(MSG_PERMISSION_RECORD);
KV_OFFSET(MSG_PERMISSION_RECORD, szRequest, 4);
KV_OFFSET(MSG_PERMISSION_RECORD, bKeepPosition, 8196);
KV_OFFSET(MSG_PERMISSION_RECORD, bDenyDefault, 8200);
KV_OFFSET(MSG_PERMISSION_RECORD, dwTextVariant, 8204);
KV_OFFSET(MSG_PERMISSION_RECORD, bAnsweredLocally, 8212);
KV_OFFSET(MSG_PERMISSION_RECORD, dwResult, 8216);
KV_OFFSET(MSG_PERMISSION_RECORD, szConsoleAccount, 8220);

KV_RECORD_SIZE(MSG_INVITATION_REQUEST, 5716);
KV_NO_PADDING(MSG_INVITATION_REQUEST);
KV_OFFSET(MSG_INVITATION_REQUEST, reserved4, 4);
KV_OFFSET(MSG_INVITATION_REQUEST, szName, 2056);
KV_OFFSET(MSG_INVITATION_REQUEST, bRightD, 2576);
KV_OFFSET(MSG_INVITATION_REQUEST, bRightA, 2580);
KV_OFFSET(MSG_INVITATION_REQUEST, dwExpiry, 2584);
KV_OFFSET(MSG_INVITATION_REQUEST, bUsePassword, 2588);
KV_OFFSET(MSG_INVITATION_REQUEST, szPassword, 2592);
KV_OFFSET(MSG_INVITATION_REQUEST, dwReserved3112, 3112);
KV_OFFSET(MSG_INVITATION_REQUEST, bRightB, 3116);
KV_OFFSET(MSG_INVITATION_REQUEST, bRightC, 3120);
KV_OFFSET(MSG_INVITATION_REQUEST, bRightE, 3124);
KV_OFFSET(MSG_INVITATION_REQUEST, bUseProxy, 3128);
KV_OFFSET(MSG_INVITATION_REQUEST, szProxyHost, 3132);
KV_OFFSET(MSG_INVITATION_REQUEST, dwProxyPort, 5184);
KV_OFFSET(MSG_INVITATION_REQUEST, bUseProxySecret, 5188);
KV_OFFSET(MSG_INVITATION_REQUEST, szProxySecret, 5192);
KV_OFFSET(MSG_INVITATION_REQUEST, dwReserved5712, 5712);

KV_RECORD_SIZE(MSG_INVITATION_REPLY, 5716);
KV_OFFSET(MSG_INVITATION_REPLY, dwError, 4);
KV_OFFSET(MSG_INVITATION_REPLY, szMessage, 8);
KV_OFFSET(MSG_INVITATION_REPLY, dwTextLength, 5712);
KV_RECORD_SIZE(MSG_INVITATION_DELETE_REPLY, 12);
KV_OFFSET(MSG_INVITATION_DELETE_REPLY, dwStatus, 4);
KV_OFFSET(MSG_INVITATION_DELETE_REPLY, dwCount, 8);

#undef KV_RECORD_SIZE
#undef KV_OFFSET
#undef KV_NO_PADDING

// ---------------------------------------------------------------------------------------------
// The catalogue: what each id is, which way it travels and how big it is.

enum class KvDirection
{
    ToAgent,   // service to agent ("in")
    ToService, // agent to service ("out")
};

struct KvMessageInfo
{
    std::uint32_t dwType;
    const char* pszName;
    std::uint32_t cbToAgent;   // record size service to agent; 0 = never sent that way
    std::uint32_t cbToService; // record size agent to service; 0 = never sent that way
    bool bChatBody;            // the size is a head; dwMessageLength bytes follow
};

inline constexpr KvMessageInfo KV_MESSAGE_CATALOGUE[] = {
    {MSG_TYPE_VERSION, "MSG_TYPE_VERSION", 40, 40, false},
    {MSG_TYPE_TRAYICON_INIT, "MSG_TYPE_TRAYICON_INIT", 16212, 16212, false},
    {MSG_TYPE_TRAYICON_EXIT, "MSG_TYPE_TRAYICON_EXIT", 1072, 1072, false},
    {MSG_TYPE_TRAYICON_CONNECT_COUNT, "MSG_TYPE_TRAYICON_CONNECT_COUNT", 1592, 0, false},
    {MSG_TYPE_TRAYICON_SETTINGS, "MSG_TYPE_TRAYICON_SETTINGS", 4752, 0, false},
    {MSG_TYPE_TRAYICON_USER_REQUEST, "MSG_TYPE_TRAYICON_USER_REQUEST", 0, 1076, false},
    {MSG_TYPE_TRAYICON_SETTINGS_UPDATE, "MSG_TYPE_TRAYICON_SETTINGS_UPDATE", 4752, 0, false},
    {MSG_TYPE_TRAYICON_CONNECT_NOTIFY, "MSG_TYPE_TRAYICON_CONNECT_NOTIFY", 1592, 0, false},
    {MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY, "MSG_TYPE_TRAYICON_DISCONNECT_NOTIFY", 1592, 0, false},
    {MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION, "MSG_TYPE_TRAYICON_DESKTOP_USER_INFORMATION", 1068, 1068,
     false},
    {MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL, "MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL", 8204, 8204, false},
    {MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK, "MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK", 0, 8, false},
    {MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK, "MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ACK", 0, 4, false},
    {MSG_TYPE_TRAYICON_DESKTOP_STATE, "MSG_TYPE_TRAYICON_DESKTOP_STATE", 0, 8, false},
    {MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE, "MSG_TYPE_TRAYICON_POSIBLE_LOCK_STATE_CHANGE", 4, 0, false},
    {MSG_TYPE_TRAYICON_DESKTOP_EFFECTS, "MSG_TYPE_TRAYICON_DESKTOP_EFFECTS", 8, 0, false},
    {MSG_TYPE_TRAYICON_SESSION_END, "MSG_TYPE_TRAYICON_SESSION_END", 0, 16, false},
    {MSG_TYPE_TRAYICON_SFT_DROP_CLIENT, "MSG_TYPE_TRAYICON_SFT_DROP_CLIENT", 2120, 0, false},
    {MSG_TYPE_TRAYICON_SFT_INIT_TEMP, "MSG_TYPE_TRAYICON_SFT_INIT_TEMP", 1572, 0, false},
    {MSG_TYPE_TRAYICON_SFT_DELETE_TEMP, "MSG_TYPE_TRAYICON_SFT_DELETE_TEMP", 8, 0, false},
    {MSG_TYPE_TRAYICON_SETTINGS_DIALOG, "MSG_TYPE_TRAYICON_SETTINGS_DIALOG", 12, 0, false},
    {MSG_TYPE_TRAYICON_SERVER_RECONFIGURE, "MSG_TYPE_TRAYICON_SERVER_RECONFIGURE", 528, 0, false},
    {MSG_TYPE_TRAYICON_IP_ADDRESSES, "MSG_TYPE_TRAYICON_IP_ADDRESSES", 7960, 4, false},
    {MSG_TYPE_TRAYICON_PERMISSION, "MSG_TYPE_TRAYICON_PERMISSION", 12, 0, false},
    {MSG_TYPE_TRAYICON_LANGUAGE, "MSG_TYPE_TRAYICON_LANGUAGE", 0, 1080, false},
    {MSG_TYPE_REVERSE_CONNECTION, "MSG_TYPE_REVERSE_CONNECTION", 41164, 41164, false},
    {MSG_TYPE_TRAYICON_CHAT_OPEN, "MSG_TYPE_TRAYICON_CHAT_OPEN", 524, 0, false},
    {MSG_TYPE_CHAT_MESSAGE, "MSG_TYPE_CHAT_MESSAGE", 528, 528, true},
    {MSG_TYPE_TRAYICON_CHAT_CLOSE, "MSG_TYPE_TRAYICON_CHAT_CLOSE", 4, 0, false},
    {MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE, "MSG_TYPE_EXIT_READ_FIX_BLOCKINGMODE", 4, 4, false},
};

constexpr std::size_t KV_MESSAGE_COUNT = sizeof(KV_MESSAGE_CATALOGUE) / sizeof(KV_MESSAGE_CATALOGUE[0]);

// The entry of an id, or nullptr for an id the link does not know.
inline const KvMessageInfo* KvFindMessage(std::uint32_t dwType) noexcept
{
    for (const KvMessageInfo& info : KV_MESSAGE_CATALOGUE)
        if (info.dwType == dwType)
            return &info;
    return nullptr;
}

// Size of the record of that id in that direction (the head for a chat message); 0 when the id
// does not travel that way.
inline std::uint32_t KvRecordSize(std::uint32_t dwType, KvDirection dir) noexcept
{
    const KvMessageInfo* info = KvFindMessage(dwType);
    if (info == nullptr)
        return 0;
    return dir == KvDirection::ToAgent ? info->cbToAgent : info->cbToService;
}

// The catalogue's name of an id, or nullptr.
inline const char* KvMessageName(std::uint32_t dwType) noexcept
{
    const KvMessageInfo* info = KvFindMessage(dwType);
    return info != nullptr ? info->pszName : nullptr;
}

// ---------------------------------------------------------------------------------------------
// Bounded strings in fixed arrays.

#if defined(_WIN32)
static_assert(sizeof(wchar_t) == sizeof(char16_t), "Windows wide characters are UTF-16 units");
// The Windows API's view of a record string.
template <std::size_t N> inline wchar_t* KvWide(char16_t (&s)[N]) noexcept
{
    return reinterpret_cast<wchar_t*>(s);
}
template <std::size_t N> inline const wchar_t* KvWide(const char16_t (&s)[N]) noexcept
{
    return reinterpret_cast<const wchar_t*>(s);
}
#endif

// Units before the first NUL, or N when the array holds none; never reads past the array.
template <std::size_t N> inline std::size_t KvStringLength(const char16_t (&s)[N]) noexcept
{
    std::size_t n = 0;
    while (n < N && s[n] != 0)
        ++n;
    return n;
}

// Whether the array holds its terminating NUL.
template <std::size_t N> inline bool KvIsTerminated(const char16_t (&s)[N]) noexcept
{
    return KvStringLength(s) < N;
}

// The text of a fixed array, stopping at its NUL or at its end.
template <std::size_t N> inline std::u16string KvReadString(const char16_t (&s)[N])
{
    return std::u16string(s, KvStringLength(s));
}

#if defined(_WIN32)
// The text of a fixed array as a Windows string, stopping at its NUL or at its end.
template <std::size_t N> inline std::wstring KvReadWideString(const char16_t (&s)[N])
{
    return std::wstring(KvWide(s), KvStringLength(s));
}
#endif

// Copies at most srcUnits units of src (stopping early at a NUL) into dst, truncated to N - 1
// units; the terminator follows and the rest of dst is zeroed. Returns the units copied. CharT is
// any 16-bit unit type (char16_t, or wchar_t on Windows).
template <std::size_t N, typename CharT>
inline std::size_t KvCopyString(char16_t (&dst)[N], const CharT* src, std::size_t srcUnits) noexcept
{
    static_assert(N > 0, "no room for the terminator");
    static_assert(sizeof(CharT) == 2 && std::is_integral_v<CharT>, "16-bit units only");
    std::size_t n = 0;
    if (src != nullptr)
        while (n < N - 1 && n < srcUnits && src[n] != 0)
        {
            dst[n] = static_cast<char16_t>(src[n]);
            ++n;
        }
    for (std::size_t i = n; i < N; ++i)
        dst[i] = 0;
    return n;
}

// Same, from a NUL-terminated source (nullptr copies the empty string).
template <std::size_t N, typename CharT>
inline std::size_t KvCopyString(char16_t (&dst)[N], const CharT* src) noexcept
{
    return KvCopyString(dst, src, static_cast<std::size_t>(-1));
}

template <std::size_t N> inline std::size_t KvCopyString(char16_t (&dst)[N], std::u16string_view src) noexcept
{
    return KvCopyString(dst, src.data(), src.size());
}

// ---------------------------------------------------------------------------------------------
// Raw views.

template <typename T> inline const std::uint8_t* KvBytes(const T& rec) noexcept
{
    static_assert(std::is_trivially_copyable_v<T>, "records only");
    return reinterpret_cast<const std::uint8_t*>(&rec);
}

// Copies the first sizeof(T) bytes of a buffer into a record (any alignment). False when the
// buffer is shorter; the record is then left zeroed.
template <typename T> inline bool KvRecordFromBytes(T& out, const void* data, std::size_t size) noexcept
{
    static_assert(std::is_trivially_copyable_v<T>, "records only");
    std::memset(&out, 0, sizeof(T));
    if (data == nullptr || size < sizeof(T))
        return false;
    std::memcpy(&out, data, sizeof(T));
    return true;
}

// The little-endian type id at the head of a buffer of at least 4 bytes.
inline std::uint32_t KvReadU32(const void* data) noexcept
{
    const auto* p = static_cast<const std::uint8_t*>(data);
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

template <typename T> inline void KvZero(T& rec) noexcept
{
    static_assert(std::is_trivially_copyable_v<T>, "records only");
    std::memset(&rec, 0, sizeof(T));
}

// ---------------------------------------------------------------------------------------------
// Builders for what the agent sends. Each starts from a zeroed record, so reserved bytes are 0,
// except the echoes, which keep what the service sent.

// The version answer: the received record with our id, both versions 444.0 and our session.
inline void KvBuildVersionAnswer(MSG_VERSION& rec, std::uint32_t dwSessionId) noexcept
{
    rec.dwType = MSG_TYPE_VERSION;
    rec.dVersion = KV_AGENT_PROTOCOL_VERSION;
    rec.dVersion2 = KV_AGENT_PROTOCOL_VERSION;
    rec.dwSessionId = dwSessionId;
}

// The initialisation echo, written over the received record.
inline void KvBuildInitAnswer(MSG_TRAYICON_INIT& rec, std::uint32_t dwSessionId,
                              std::uint32_t dwDesktopState) noexcept
{
    rec.dwType = MSG_TYPE_TRAYICON_INIT;
    rec.dwSessionId = dwSessionId;
    rec.dwDesktopState = dwDesktopState;
}

inline MSG_TRAYICON_DESKTOP_EFFECTS KvBuildDesktopEffectsAck(std::uint32_t dwMask) noexcept
{
    return MSG_TRAYICON_DESKTOP_EFFECTS{MSG_TYPE_TRAYICON_DESKTOP_EFFECTS_ACK, dwMask};
}

inline MSG_TRAYICON_DESKTOP_STATE KvBuildDesktopState(std::uint32_t dwDesktopState) noexcept
{
    return MSG_TRAYICON_DESKTOP_STATE{MSG_TYPE_TRAYICON_DESKTOP_STATE, dwDesktopState};
}

inline MSG_TRAYICON_SESSION_END KvBuildSessionEnd(std::uint32_t dwSessionId) noexcept
{
    return MSG_TRAYICON_SESSION_END{MSG_TYPE_TRAYICON_SESSION_END, dwSessionId, 0, KV_EXIT_CODE_ENDED};
}

// The records that are their type id alone: 50006, the 70040 request, the 100000 echo.
inline MSG_TRAYICON_TYPE_ONLY KvBuildTypeOnly(std::uint32_t dwType) noexcept
{
    return MSG_TRAYICON_TYPE_ONLY{dwType};
}

// The user information block; dwType is 50000 for the answer, 0 inside other records.
template <typename CharT>
inline void KvBuildDesktopUserInformation(MSG_TRAYICON_DESKTOP_USER_INFORMATION& rec, std::uint32_t dwType,
                                          const CharT* userName, const CharT* desktopName,
                                          std::uint32_t dwState) noexcept
{
    KvZero(rec);
    rec.dwType = dwType;
    KvCopyString(rec.szUserName, userName);
    KvCopyString(rec.szDesktopName, desktopName);
    rec.dwState = dwState;
}

inline void KvBuildUserRequest(MSG_TRAYICON_USER_REQUEST& rec,
                               const MSG_TRAYICON_DESKTOP_USER_INFORMATION& info) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_USER_REQUEST;
    rec.info = info;
    rec.info.dwType = 0;
}

template <typename CharT>
inline void KvBuildLanguage(MSG_TRAYICON_LANGUAGE& rec, const CharT* language,
                            const MSG_TRAYICON_DESKTOP_USER_INFORMATION& info) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_LANGUAGE;
    KvCopyString(rec.szLanguage, language);
    rec.info = info;
    rec.info.dwType = 0;
}

inline void KvBuildExit(MSG_TRAYICON_EXIT& rec, const MSG_TRAYICON_DESKTOP_USER_INFORMATION& info) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_EXIT;
    rec.info = info;
    rec.info.dwType = 0;
}

// Menu command 40003 asks for the viewer list with an empty record.
inline void KvBuildNotifyAllRequest(MSG_TRAYICON_NOTIFY_ALL& rec) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_TRAYICON_CONNECT_NOTIFY_ALL;
}

// What the connect-to-client dialog fills in, for KvBuildReverseConnectionRequest.
template <typename CharT> struct KvReverseConnectionFields
{
    std::uint32_t uConnectOption = 0;
    const CharT* host = nullptr;
    std::uint32_t dwPort = 0;
    bool bUseProxy = false;
    const CharT* proxyHost = nullptr;
    std::uint32_t dwProxyPort = 0;
    const CharT* proxySecret = nullptr; // nullptr or empty: no secret
};

template <typename CharT>
inline void KvBuildReverseConnectionRequest(MSG_REVERSE_CONNECTION& rec,
                                            const KvReverseConnectionFields<CharT>& f) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_REVERSE_CONNECTION;
    rec.uConnectOption = f.uConnectOption;
    KvCopyString(rec.szHost, f.host);
    rec.dwPort = f.dwPort;
    if (f.bUseProxy)
    {
        rec.bUseProxy = 1;
        KvCopyString(rec.szProxyHost, f.proxyHost);
        rec.dwProxyPort = f.dwProxyPort;
        KvCopyString(rec.szProxySecret, f.proxySecret);
    }
}

// The join-session request: join flag and the session code.
template <typename CharT>
inline void KvBuildJoinSessionRequest(MSG_REVERSE_CONNECTION& rec, std::uint32_t uConnectOption,
                                      const CharT* sessionCode) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_REVERSE_CONNECTION;
    rec.uConnectOption = uConnectOption;
    rec.bShortReport = 1;
    KvCopyString(rec.szShortText, sessionCode);
}

inline void KvBuildReverseConnectionCancel(MSG_REVERSE_CONNECTION& rec) noexcept
{
    KvZero(rec);
    rec.dwType = MSG_TYPE_REVERSE_CONNECTION;
    rec.dwStatus = KV_REVERSE_CANCEL;
}

// A whole chat message, head and body, as one buffer ready for one send.
template <typename CharT>
inline std::vector<std::uint8_t> KvBuildChatMessage(const CharT* userName, const CharT* text,
                                                    std::size_t textUnits)
{
    static_assert(sizeof(CharT) == 2, "16-bit units only");
    MSG_CHAT_MESSAGE head;
    KvZero(head);
    head.dwType = MSG_TYPE_CHAT_MESSAGE;
    KvCopyString(head.szUsername, userName);
    head.dwMessageLength = static_cast<std::uint32_t>(textUnits * 2);
    std::vector<std::uint8_t> out(KvBytes(head), KvBytes(head) + sizeof head);
    const auto* body = reinterpret_cast<const std::uint8_t*>(text);
    if (textUnits > 0)
        out.insert(out.end(), body, body + textUnits * 2);
    return out;
}

// The permission child's first send: an empty record of type 70006.
inline void KvBuildPermissionQuery(MSG_PERMISSION_RECORD& rec) noexcept
{
    KvZero(rec);
    rec.dwType = KV_PERMISSION_QUERY_TYPE;
}

// The answer is written into the request as it came (its type included).
template <typename CharT>
inline void KvSetPermissionAnswer(MSG_PERMISSION_RECORD& rec, std::uint32_t dwResult, bool bAnsweredLocally,
                                  const CharT* consoleAccount) noexcept
{
    rec.dwResult = dwResult;
    rec.bAnsweredLocally = bAnsweredLocally ? 1 : 0;
    KvCopyString(rec.szConsoleAccount, consoleAccount);
}

inline MSG_UDP_HEADER KvBuildUdpHeader(std::uint32_t dwCommand) noexcept
{
    return MSG_UDP_HEADER{KV_UDP_TAG, dwCommand, 0};
}

inline void KvBuildPortQuery(MSG_PORT_QUERY& rec) noexcept
{
    KvZero(rec);
    rec.dwCommand = KV_UDP_PORT_QUERY;
}

// What the invitation dialog fills in, for KvBuildInvitationRequest.
template <typename CharT> struct KvInvitationFields
{
    const CharT* name = nullptr;
    bool bRightA = false, bRightB = false, bRightC = false, bRightD = false, bRightE = false;
    std::uint32_t dwExpiry = 0;
    const CharT* password = nullptr;  // nullptr: no password
    const CharT* proxyHost = nullptr; // nullptr: no proxy
    std::uint32_t dwProxyPort = 0;
    const CharT* proxySecret = nullptr; // nullptr: no secret
};

template <typename CharT>
inline void KvBuildInvitationRequest(MSG_INVITATION_REQUEST& rec, const KvInvitationFields<CharT>& f) noexcept
{
    KvZero(rec);
    rec.dwCommand = KV_UDP_INVITATION_CREATE;
    KvCopyString(rec.szName, f.name);
    rec.bRightA = f.bRightA;
    rec.bRightB = f.bRightB;
    rec.bRightC = f.bRightC;
    rec.bRightD = f.bRightD;
    rec.bRightE = f.bRightE;
    rec.dwExpiry = f.dwExpiry;
    if (f.password != nullptr)
    {
        rec.bUsePassword = 1;
        KvCopyString(rec.szPassword, f.password);
    }
    if (f.proxyHost != nullptr)
    {
        rec.bUseProxy = 1;
        KvCopyString(rec.szProxyHost, f.proxyHost);
        rec.dwProxyPort = f.dwProxyPort;
    }
    if (f.proxySecret != nullptr)
    {
        rec.bUseProxySecret = 1;
        KvCopyString(rec.szProxySecret, f.proxySecret);
    }
}
