// Resource ids of the tray agent. One header for the agent's code, KVNXSTRES.rc and KVNXST.rc,
// so plain #defines only (windres and rc read it too). The translated libraries in the
// Localization folder carry the same numbers: never renumber.
#ifndef KVNXST_RESOURCE_H
#define KVNXST_RESOURCE_H

// clang-format off

// ---- Icons --------------------------------------------------------------------------------------
#define IDI_TRAY_IDLE                   7     // no viewer connected; also the dialogs' and the exe's icon
#define IDI_TRAY_PENDING                107   // pending state
#define IDI_TRAY_CONNECTED              130   // at least one viewer connected
#define IDI_TRAY_EXTRA                  131   // custom idle icon chosen by the service settings

// ---- Bitmaps ------------------------------------------------------------------------------------
#define IDB_BITMAP_INTERNET_SESSION_BANNER 137 // banner for scaled displays (join / certificate dialogs)
#define IDB_BANNER                      138   // the same banner at 96 DPI, for the dialog templates

// ---- Dialog templates ---------------------------------------------------------------------------
#define IDD_NOTIFY                      102   // connect/disconnect notice beside the taskbar
#define IDD_ABOUT                       106   // About box
#define IDD_PERMISSION                  107   // may this viewer connect? (child process, countdown)
#define IDD_SFT_DROP                    110   // per-viewer file drop window
#define IDD_CREATE_INVITATION           115   // create / save / copy / delete invitations
#define IDD_CONNECT_TO_CLIENT           132   // reverse connection to a listening viewer
#define IDD_JOIN_ATTENDED_SESSION       134   // enter the session code of an internet session
#define IDD_CONNECT_IN_PROGRESS         136   // marquee while the agent connects out
#define IDD_VALIDATE_CERT               137   // trust this certificate?
#define IDD_CHAT                        141   // chat with the viewers (KVNXChat.dll), resizable

// ---- Menus and their commands -------------------------------------------------------------------
#define IDR_TRAY_MENU                   104   // tray menu of the resident agent
#define IDR_TRAY_MENU_ONETIME           105   // tray menu of the one-time agent

#define IDM_LANGUAGE_EN                 1044  // language items: 1044 + index into the language table
#define IDM_LANGUAGE_FR                 1045
#define IDM_LANGUAGE_DE                 1046
#define IDM_INVITATIONS                 40002 // open the invitation dialog
#define IDM_NOTIFY_ALL                  40003 // ask the service for the list of connected viewers
#define IDM_DISCONNECT                  40005 // disconnect every viewer (after a question)
#define IDM_CONNECT_TO_CLIENT           40006 // reverse connection dialog
#define IDM_EXIT                        40007 // stop the service and the agent (after a question)
#define IDM_SETTINGS                    40008 // settings editor
#define IDM_ABOUT                       40009 // About box
#define IDM_JOIN_INTERNET_SESSION       40011 // join an attended internet session

// ---- Strings ------------------------------------------------------------------------------------
// Placeholders are written %ls (a wide string with both the Microsoft and the C99 wide printf)
// and %d; the comment names them where a string is a format.
#define IDS_ABOUT_VERSION_FMT           6     // About version line: %ls file version, %ls ", 64 bit"
#define IDS_SETTINGS_NO_WRITE_ACCESS    7     // settings cannot be saved here; open them anyway? (Yes/No)
#define IDS_JOIN_CODE_EMPTY             8     // join dialog: OK with an empty session code
#define IDS_NOTIFY_LINE_SELECTOR_0      9     // notice line when the connected-icon selector is 0
#define IDS_JOIN_LINK_URL               10    // join dialog: page opened by the link
#define IDS_NOTIFY_LABEL_FIELD1         11    // notice label before the viewer's user name
#define IDS_REVERSE_REPORT_SHORT_FMT    12    // reverse-connection report: %ls text from the service
#define IDS_NOTIFY_LABEL_FIELD2         13    // notice label before the record's second text
#define IDS_NOTIFY_LABEL_FIELD3         14    // notice label before the record's third text
#define IDS_NOTIFY_ALL_HEADING_FMT      15    // list of viewers, heading: %d viewers connected
#define IDS_CONFIRM_DISCONNECT_FMT      16    // disconnect question: %d viewers connected
#define IDS_APP_CAPTION                 17    // caption of questions and reverse-connection reports
#define IDS_CONFIRM_EXIT_FMT            18    // exit question: %d viewers connected
#define IDS_CONFIRM_SIMULTANEOUS        19    // another session is in progress; join anyway?
#define IDS_NOTIFY_DISCONNECTED         20    // first line of a disconnect notice
#define IDS_PERMISSION_COUNTDOWN_FMT    21    // permission dialog: %d seconds left
#define IDS_NOTIFY_ALL_EMPTY            22    // list of viewers when the service sent no text
#define IDS_REVERSE_REPORT_LONG_FMT     23    // reverse-connection failure: %ls error text (host, port follow)
#define IDS_EVENT_CONNECT_FAILED        25    // event log: service link failed (system message follows)
#define IDS_EVENT_SERVICE_NOT_RUNNING   26    // event log: service installed but not running
#define IDS_EVENT_SERVICE_NOT_INSTALLED 27    // event log: service not installed
#define IDS_NOTIFY_LINE_SELECTOR_2      33    // notice line when the connected-icon selector is 2
#define IDS_EXPIRY_FIRST                34    // invitation expiry choices 34..45, combo index 0..11
#define IDS_EXPIRY_LAST                 45
#define IDS_INVITATION_PASSWORD_EMPTY   47    // password box checked but empty
#define IDS_INVITATION_NAME_EMPTY       48    // invitation name empty
#define IDS_INVITATION_DELETE_ALL_ASK   49    // delete every invitation? (Yes/No)
#define IDS_INVITATION_DELETED_FMT      50    // %d invitations deleted
#define IDS_ABOUT_LABEL_VALUE6          53    // About information block labels (values 6..9)
#define IDS_ABOUT_LABEL_VALUE7          54
#define IDS_ABOUT_LABEL_VALUE1          55    // first line of the information block
#define IDS_ABOUT_LABEL_VALUE2          56
#define IDS_ABOUT_LABEL_VALUE3          57    // multi-line value: a line break follows when it is set
#define IDS_ABOUT_LABEL_VALUE4          58    // multi-line value, as 57
#define IDS_ABOUT_LABEL_VALUE8          59
#define IDS_ABOUT_LABEL_VALUE5          60
#define IDS_ABOUT_LABEL_VALUE9          61
#define IDS_ABOUT_VALUE5_NONE           62    // shown for value 5 when the service sent none
#define IDS_INVITATION_IN_USE_FMT       63    // delete answered "busy": %d invitations concerned
#define IDS_PROXY_PORT_EMPTY            65    // use proxy with an empty proxy port
#define IDS_PROXY_SECRET_EMPTY          66    // use proxy secret with an empty secret
#define IDS_PROXY_HOST_EMPTY            67    // invitation: use proxy with an empty proxy host
#define IDS_INVITATION_NO_RIGHTS        68    // invitation: every right cleared
#define IDS_ONETIME_BALLOON             69    // balloon when the one-time agent's icon appears
#define IDS_REVERSE_PORT_EMPTY          70    // connect to client: empty port
#define IDS_REVERSE_HOST_EMPTY          71    // connect to client: empty host
#define IDS_PERMISSION_TEXT_0           72    // permission dialog, text variant 0 (argument of control 1002)
#define IDS_PERMISSION_TEXT_1           74    // permission dialog, text variant 1
#define IDS_TOOLTIP_ONETIME             75    // tooltip head in one-time mode
#define IDS_CERT_LINK_URL               76    // certificate dialog: page opened by the link
#define IDS_SERVICE_FLAG_NOTE           89    // tooltip and About line while the service's flag is set
#define IDS_ABOUT_OPTION_A_LABEL        116   // About: label before the option A value
#define IDS_ABOUT_OPTION_A_SET          117   // option A non-zero
#define IDS_ABOUT_OPTION_A_CLEAR        118   // option A 0
#define IDS_ABOUT_OPTION_B_SET          119   // option B non-zero
#define IDS_ABOUT_OPTION_B_CLEAR        120   // option B 0
#define IDS_ABOUT_OPTION_B_LABEL        121   // label before the option B value (only with option A 0)

// Chat (KVNXChat.dll)
#define IDS_CHAT_CAPTION_FMT            140   // caption once a viewer has written: %ls the viewer's name
#define IDS_CHAT_YOU                    141   // author of the local user's own messages
#define IDS_CHAT_REMOTE_USER            142   // author of a viewer's message that names nobody
#define IDS_CHAT_NOT_SENT               143   // notice when the agent cannot take a message any more
#define IDS_CHAT_MENU_COPY              144   // transcript menu: copy the selected messages
#define IDS_CHAT_MENU_SELECT_ALL        145   // transcript menu: select every message
#define IDS_CHAT_SHORTENED              146   // last line of a message too long for its place

// File drop window (IDD_SFT_DROP)
#define IDS_SFT_SEND_TO_FMT             150   // whom the files go to: %ls the viewer's name
#define IDS_SFT_SEND_TO_VIEWER          151   // the same when the service names nobody
#define IDS_SFT_NOTHING_SENT            152   // a drop or choice that held no file (folders only)
#define IDS_SFT_TOO_MANY                153   // more files chosen than the open-file dialog can return
#define IDS_SFT_CHOOSE_TITLE            154   // caption of the open-file dialog

// Certificate (IDD_VALIDATE_CERT)
#define IDS_CERT_ISSUER_FMT             160   // details: %ls the issuer's display name
#define IDS_CERT_VALIDITY_FMT           161   // details: %ls valid from, %ls valid until (local date and time)
#define IDS_CERT_FINGERPRINT_FMT        162   // details: %ls the SHA-256 fingerprint, two lines
#define IDS_CERT_EXPIRED_FMT            163   // warning: %ls the end of the validity period
#define IDS_CERT_NOT_YET_VALID_FMT      164   // warning: %ls the start of the validity period
#define IDS_CERT_NONE                   165   // warning when no certificate could be read
#define IDS_CERT_VIEW_ERROR             166   // View without a certificate: message box text
#define IDS_CERT_VIEW_ERROR_CAPTION     167   // and its caption

// ---- Dialog controls ----------------------------------------------------------------------------
// Buttons with the standard ids (IDOK, IDCANCEL, IDYES, IDNO) are left to windows.h.

// Notice (IDD_NOTIFY)
#define IDC_NOTIFY_BODY                 1001  // body text, hidden; painted by the dialog for kinds 1 and 2
#define IDC_NOTIFY_LIST                 1003  // list of viewers (kind 3)
#define IDC_NOTIFY_HEADING              1002  // heading line
#define IDC_NOTIFY_DISCONNECT           1036  // list of viewers: disconnect button

// About box (IDD_ABOUT)
#define IDC_ABOUT_ICON                  1000  // where icon 7 is drawn
#define IDC_ABOUT_INFO                  1005  // service information block, a line an item
#define IDC_ABOUT_VERSION               1011  // version line
#define IDC_ABOUT_COPY                  1013  // copy the information block

// Permission (IDD_PERMISSION)
#define IDC_PERMISSION_REQUEST          1001  // who asks, from where
#define IDC_PERMISSION_QUESTION         1002  // template text with one %ls, filled with string 72 or 74
#define IDC_PERMISSION_ICON             1003  // where icon 7 is drawn
#define IDC_PERMISSION_COUNTDOWN        1014  // countdown line, painted by the dialog

// Invitation (IDD_CREATE_INVITATION)
#define IDC_INVITATION_CREATE           4     // push buttons
#define IDC_INVITATION_SAVE_AS_FILE     5
#define IDC_INVITATION_COPY_AS_TEXT     8
#define IDC_INVITATION_COPY_AS_FILE     10
#define IDC_INVITATION_DELETE_ALL       12
#define IDC_INVITATION_RIGHT_A          1006  // right flags A..E
#define IDC_INVITATION_EXPIRY           1007  // drop list of strings 34..45
#define IDC_INVITATION_TEXT             1008  // the invitation received from the service
#define IDC_INVITATION_USE_PASSWORD     1009
#define IDC_INVITATION_RIGHT_D          1010
#define IDC_INVITATION_PASSWORD         1011
#define IDC_INVITATION_NAME             1012
#define IDC_INVITATION_RIGHT_B          1015
#define IDC_INVITATION_RIGHT_C          1016
#define IDC_INVITATION_RIGHT_E          1017
#define IDC_INVITATION_PROXY_HOST       1023  // combo with the remembered proxies
#define IDC_INVITATION_PROXY_PORT       1024

// Proxy options shared by the connect-to-client and invitation dialogs
#define IDC_USE_PROXY                   1018
#define IDC_USE_PROXY_SECRET            1019
#define IDC_PROXY_SECRET                1022

// Connect to client (IDD_CONNECT_TO_CLIENT)
#define IDC_REVERSE_HOST                1025  // combo with the remembered hosts
#define IDC_REVERSE_PORT                1026
#define IDC_REVERSE_DEFAULTS            1027  // default ports, clear the proxy check boxes
#define IDC_REVERSE_PROXY_HOST          1029  // combo with the remembered proxies
#define IDC_REVERSE_PROXY_PORT          1030

// Join attended session (IDD_JOIN_ATTENDED_SESSION) and certificate (IDD_VALIDATE_CERT)
#define IDC_JOIN_CODE                   1033  // session code
#define IDC_LINK                        1035  // link control; opens string 10 or 76
#define IDC_JOIN_NOTE                   1037  // note in grey text
#define IDC_BANNER                      1039  // banner picture, swapped for bitmap 137 when scaled

// Connect in progress (IDD_CONNECT_IN_PROGRESS)
#define IDC_CONNECT_PROGRESS            1038  // marquee

// Certificate (IDD_VALIDATE_CERT); accept and reject are IDYES and IDNO
#define IDC_CERT_VIEW                   3     // open the system's certificate viewer
#define IDC_CERT_REMEMBER               1041
#define IDC_CERT_NAME                   1042
#define IDC_CERT_DETAILS                1043  // validity period, fingerprint
#define IDC_CERT_WARNING                1047  // expired, not yet valid, or no certificate
#define IDC_CERT_ISSUER                 1048

// Chat (IDD_CHAT)
#define IDC_CHAT_TRANSCRIPT             1101  // owner-drawn list, a message an item
#define IDC_CHAT_INPUT                  1102  // the local user's text
#define IDC_CHAT_SEND                   1103
#define IDC_CHAT_TRANSCRIPT_LABEL       1104
#define IDC_CHAT_INPUT_LABEL            1105

// File drop window (IDD_SFT_DROP)
#define IDC_SFT_VIEWER                  1111  // whom the files go to
#define IDC_SFT_DROP_AREA               1112  // highlighted while files hover over the window
#define IDC_SFT_STATUS                  1113  // why nothing was sent
#define IDC_SFT_CHOOSE                  1114  // the open-file dialog, for those who cannot drag
// clang-format on

#endif // KVNXST_RESOURCE_H
