#include "CreateInvitationDialog.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "KvSocket.h"
#include "ResourceText.h"
#include "ReverseConnectLists.h"
#include "UtilTimedMessageBox.h"
#include "resource.h"

#include <commdlg.h>
#include <shlobj.h>

#include <cstring>
#include <cwchar>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::CreateInvitationDialog));

namespace
{

constexpr int kNameUnits = 260;
constexpr int kSecretUnits = 260;
constexpr int kProxyHostUnits = 1025;
constexpr int kPortUnits = 64;
constexpr int kTextUnits = 10240;
constexpr int kMessageUnits = 1025;
constexpr DWORD kProxyPort = 6127;
constexpr DWORD kUdpTimeoutMs = 5000;
constexpr DWORD kDeleteReportMs = 30000;
constexpr int kNumberedNames = 20;
constexpr UINT kSecretFontHeight = 14;
constexpr wchar_t kFontProp[] = L"KvSecretFont";

const KvProxyBoxes kProxyBoxes = {IDC_USE_PROXY, IDC_INVITATION_PROXY_HOST, IDC_INVITATION_PROXY_PORT,
                                  IDC_USE_PROXY_SECRET, IDC_PROXY_SECRET};

bool Checked(HWND hDlg, int nId)
{
    return IsDlgButtonChecked(hDlg, nId) == BST_CHECKED;
}

void Enable(HWND hDlg, int nId, bool bEnable)
{
    EnableWindow(GetDlgItem(hDlg, nId), bEnable ? TRUE : FALSE);
}

std::wstring Caption()
{
    return KvLoadText(IDS_APP_CAPTION);
}

std::wstring ItemText(HWND hDlg, int nId, int cchMax)
{
    std::wstring text(static_cast<std::size_t>(cchMax), L'\0');
    text.resize(static_cast<std::size_t>(GetDlgItemTextW(hDlg, nId, &text[0], cchMax)));
    return text;
}

std::wstring InvitationText(HWND hDlg)
{
    return ItemText(hDlg, IDC_INVITATION_TEXT, kTextUnits);
}

// The name the user gave, else a neutral one.
std::wstring BaseName(HWND hDlg)
{
    const std::wstring name = ItemText(hDlg, IDC_INVITATION_NAME, kNameUnits);
    return name.empty() ? L"Invitation" : name;
}

// Documents, else the temporary folder, with a closing backslash; empty when neither is known.
std::wstring FileFolder()
{
    wchar_t szFolder[MAX_PATH + 1] = {};
    if (!GetFolderPath(szFolder, MAX_PATH) && GetTempPathW(MAX_PATH, szFolder) == 0)
        return std::wstring();
    std::wstring folder = szFolder;
    if (!folder.empty() && folder.back() != L'\\')
        folder += L'\\';
    return folder;
}

// Only a file that did not exist is ever written: an invitation never replaces a user's file.
HANDLE CreateNewFile(const std::wstring& path)
{
    return CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// UTF-16LE as the viewers read it: no byte-order mark, no terminator.
bool WriteText(HANDLE hFile, const std::wstring& text)
{
    const DWORD cb = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    DWORD cbWritten = 0;
    const bool bWritten = WriteFile(hFile, text.data(), cb, &cbWritten, nullptr) && cbWritten == cb;
    if (!bWritten)
        LOG4CXX_WARN(logger, L"Writing the invitation file failed. Error = " << GetLastError());
    CloseHandle(hFile);
    return bWritten;
}

bool PutOnClipboard(HWND hDlg, UINT uFormat, HGLOBAL hData)
{
    if (!OpenClipboard(hDlg))
    {
        LOG4CXX_WARN(logger, L"The clipboard cannot be opened. Error = " << GetLastError());
        GlobalFree(hData);
        return false;
    }
    EmptyClipboard();
    const bool bSet = SetClipboardData(uFormat, hData) != nullptr;
    if (!bSet)
        GlobalFree(hData);
    CloseClipboard();
    return bSet;
}

// "System Error: n\r\nSystem Message: ..." from the system's texts or the network messages.
std::wstring SystemErrorText(DWORD dwCode)
{
    wchar_t szMessage[kMessageUnits] = {};
    DWORD cch = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, dwCode, 0,
                               szMessage, kMessageUnits - 1, nullptr);
    if (cch == 0)
    {
        HMODULE hNetMsg = LoadLibraryExW(L"netmsg.dll", nullptr, LOAD_LIBRARY_AS_DATAFILE);
        if (hNetMsg != nullptr)
        {
            cch = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, hNetMsg, dwCode,
                                 0, szMessage, kMessageUnits - 1, nullptr);
            FreeLibrary(hNetMsg);
        }
    }
    while (cch > 0 && (szMessage[cch - 1] == L'\r' || szMessage[cch - 1] == L'\n'))
        szMessage[--cch] = L'\0';
    wchar_t szText[kMessageUnits] = {};
    _snwprintf_s(szText, _TRUNCATE, L"System Error: %d\r\nSystem Message: %ls", static_cast<int>(dwCode),
                 cch > 0 ? szMessage : L"Unknow");
    return szText;
}

// The service's datagram port, with both time-outs set; false, logged, when it cannot be reached.
bool OpenService(CKvSocket& sock, std::uint32_t dwCommand)
{
    if (sock.Connect(L"localhost", KV_INVITATION_UDP_PORT, SOCK_DGRAM, 0) != 1 ||
        sock.SetTimeouts(kUdpTimeoutMs) != 1)
    {
        LOG4CXX_WARN(logger, L"The service's datagram port cannot be reached. Error = " << WSAGetLastError());
        return false;
    }
    MSG_UDP_HEADER header = {};
    header.dwTag = KV_UDP_TAG;
    header.dwCommand = dwCommand;
    if (sock.Send(&header, sizeof header) != 1)
    {
        LOG4CXX_WARN(logger, L"Sending the header failed. Error = " << WSAGetLastError());
        return false;
    }
    return true;
}

HFONT SecretFont(HWND hDlg)
{
    HDC hdc = GetDC(hDlg);
    const int nDpi = hdc != nullptr ? GetDeviceCaps(hdc, LOGPIXELSY) : 96;
    if (hdc != nullptr)
        ReleaseDC(hDlg, hdc);
    return CreateFontW(MulDiv(kSecretFontHeight, nDpi, 96), 0, 0, 0, FW_BOLD, FALSE, FALSE, FALSE,
                       DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY,
                       FIXED_PITCH | FF_MODERN, L"Microsoft Sans Serif");
}

void OnInitDialog(HWND hDlg, const CTaskBarWindow* pWindow)
{
    // One font for both hidden-text boxes; freed once, on WM_DESTROY.
    HFONT hFont = SecretFont(hDlg);
    SetPropW(hDlg, kFontProp, hFont);
    for (int nId : {IDC_INVITATION_PASSWORD, IDC_PROXY_SECRET})
        SendDlgItemMessageW(hDlg, nId, WM_SETFONT, reinterpret_cast<WPARAM>(hFont), FALSE);
    SendDlgItemMessageW(hDlg, IDC_INVITATION_NAME, EM_LIMITTEXT, kNameUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_INVITATION_PASSWORD, EM_LIMITTEXT, kSecretUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_PROXY_SECRET, EM_LIMITTEXT, kSecretUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_INVITATION_PROXY_HOST, CB_LIMITTEXT, kProxyHostUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_INVITATION_PROXY_PORT, EM_LIMITTEXT, kPortUnits - 1, 0);
    SetDlgItemTextW(hDlg, IDC_INVITATION_PROXY_PORT, L"6127");
    CheckDlgButton(hDlg, IDC_INVITATION_RIGHT_A, BST_CHECKED);
    CheckDlgButton(hDlg, IDC_INVITATION_USE_PASSWORD, BST_UNCHECKED);
    CheckDlgButton(hDlg, IDC_INVITATION_RIGHT_D, BST_UNCHECKED);
    Enable(hDlg, IDC_INVITATION_PASSWORD, false);
    for (UINT uId = IDS_EXPIRY_FIRST; uId < IDS_EXPIRY_FIRST + KV_INVITATION_EXPIRY_CHOICES; ++uId)
        SendDlgItemMessageW(hDlg, IDC_INVITATION_EXPIRY, CB_ADDSTRING, 0,
                            reinterpret_cast<LPARAM>(KvLoadText(uId).c_str()));
    SendDlgItemMessageW(hDlg, IDC_INVITATION_EXPIRY, CB_SETCURSEL, 1, 0);
    EnableCreateWindows(hDlg, FALSE);
    if (pWindow != nullptr)
    {
        // The service decides which rights this user may hand on.
        const MSG_TRAYICON_SETTINGS& s = pWindow->Settings();
        const std::pair<std::uint32_t, int> rights[] = {{s.bInviteRightB, IDC_INVITATION_RIGHT_B},
                                                        {s.bInviteRightC, IDC_INVITATION_RIGHT_C},
                                                        {s.bInviteRightE, IDC_INVITATION_RIGHT_E},
                                                        {s.bInviteRightD, IDC_INVITATION_RIGHT_D}};
        for (const auto& [bAllowed, nId] : rights)
            if (bAllowed == 0)
            {
                CheckDlgButton(hDlg, nId, BST_UNCHECKED);
                Enable(hDlg, nId, false);
            }
    }
    else
        LOG4CXX_WARN(logger, L"No tray window; every right is offered.");
    LoadInvitationProxyList(GetDlgItem(hDlg, IDC_INVITATION_PROXY_HOST), hDlg);
}

void Refuse(HWND hDlg, UINT uText, int nFocus)
{
    MessageBoxW(hDlg, KvLoadText(uText).c_str(), Caption().c_str(), MB_OK | MB_ICONINFORMATION);
    SendMessageW(hDlg, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(GetDlgItem(hDlg, nFocus)), TRUE);
}

// The leading digits, 0 when there are none.
DWORD LeadingNumber(const wchar_t* sz)
{
    DWORD dw = 0;
    for (; *sz >= L'0' && *sz <= L'9'; ++sz)
        dw = dw * 10 + static_cast<DWORD>(*sz - L'0');
    return dw;
}

// Checks the boxes in the order the user reads them; false, with the user told and the box to fix
// focused, at the first that is missing.
bool FillRequest(HWND hDlg, MSG_INVITATION_REQUEST& request)
{
    KvZero(request);
    if (GetDlgItemTextW(hDlg, IDC_INVITATION_NAME, KvWide(request.szName), kNameUnits) == 0)
    {
        Refuse(hDlg, IDS_INVITATION_NAME_EMPTY, IDC_INVITATION_NAME);
        return false;
    }
    request.bRightA = Checked(hDlg, IDC_INVITATION_RIGHT_A);
    request.bRightD = Checked(hDlg, IDC_INVITATION_RIGHT_D);
    if (Checked(hDlg, IDC_INVITATION_USE_PASSWORD))
    {
        request.bUsePassword = 1;
        if (GetDlgItemTextW(hDlg, IDC_INVITATION_PASSWORD, KvWide(request.szPassword), kSecretUnits) == 0)
        {
            // The focus goes to the control numbered like the string, not the password box; kept so.
            Refuse(hDlg, IDS_INVITATION_PASSWORD_EMPTY, IDS_INVITATION_PASSWORD_EMPTY);
            return false;
        }
    }
    const LRESULT nExpiry = SendDlgItemMessageW(hDlg, IDC_INVITATION_EXPIRY, CB_GETCURSEL, 0, 0);
    request.dwExpiry = nExpiry == CB_ERR ? 0 : static_cast<std::uint32_t>(nExpiry);
    request.bRightB = Checked(hDlg, IDC_INVITATION_RIGHT_B);
    request.bRightC = Checked(hDlg, IDC_INVITATION_RIGHT_C);
    request.bRightE = Checked(hDlg, IDC_INVITATION_RIGHT_E);
    if (!request.bRightB && !request.bRightC && !request.bRightE && !request.bRightD)
    {
        Refuse(hDlg, IDS_INVITATION_NO_RIGHTS, IDC_INVITATION_RIGHT_B);
        return false;
    }
    if (Checked(hDlg, IDC_USE_PROXY))
    {
        request.bUseProxy = 1;
        if (GetDlgItemTextW(hDlg, IDC_INVITATION_PROXY_HOST, KvWide(request.szProxyHost), kProxyHostUnits) ==
            0)
        {
            Refuse(hDlg, IDS_PROXY_HOST_EMPTY, IDC_INVITATION_PROXY_HOST);
            return false;
        }
        wchar_t szPort[kPortUnits] = {};
        if (GetDlgItemTextW(hDlg, IDC_INVITATION_PROXY_PORT, szPort, kPortUnits) == 0)
        {
            Refuse(hDlg, IDS_PROXY_PORT_EMPTY, IDC_INVITATION_PROXY_PORT);
            return false;
        }
        request.dwProxyPort = LeadingNumber(szPort);
    }
    // Asked for also without a proxy: the service may pass it on.
    if (Checked(hDlg, IDC_USE_PROXY_SECRET))
    {
        request.bUseProxySecret = 1;
        if (GetDlgItemTextW(hDlg, IDC_PROXY_SECRET, KvWide(request.szProxySecret), kSecretUnits) == 0)
        {
            Refuse(hDlg, IDS_PROXY_SECRET_EMPTY, IDC_PROXY_SECRET);
            return false;
        }
    }
    return true;
}

void OnCreate(HWND hDlg)
{
    EnableCreateWindows(hDlg, FALSE);
    auto request = std::make_unique<MSG_INVITATION_REQUEST>();
    if (!FillRequest(hDlg, *request))
        return;
    SaveInvitationProxyList(GetDlgItem(hDlg, IDC_INVITATION_PROXY_HOST), hDlg, KvWide(request->szProxyHost),
                            request->dwProxyPort);
    if (CreateInvitationViaUDP(hDlg, request.get()))
        EnableCreateWindows(hDlg, TRUE);
}

void OnDeleteAll(HWND hDlg)
{
    if (MessageBoxW(hDlg, KvLoadText(IDS_INVITATION_DELETE_ALL_ASK).c_str(), Caption().c_str(),
                    MB_YESNO | MB_ICONQUESTION | MB_DEFBUTTON2) == IDYES)
        DeleteAllInvitations(hDlg);
}

void OnCommand(HWND hDlg, int nId)
{
    switch (nId)
    {
    case IDC_INVITATION_USE_PASSWORD:
        Enable(hDlg, IDC_INVITATION_PASSWORD, Checked(hDlg, IDC_INVITATION_USE_PASSWORD));
        break;
    case IDC_USE_PROXY:
        Enable(hDlg, IDC_INVITATION_PROXY_HOST, Checked(hDlg, IDC_USE_PROXY));
        Enable(hDlg, IDC_INVITATION_PROXY_PORT, Checked(hDlg, IDC_USE_PROXY));
        break;
    case IDC_USE_PROXY_SECRET:
        Enable(hDlg, IDC_PROXY_SECRET, Checked(hDlg, IDC_USE_PROXY_SECRET));
        break;
    case IDC_INVITATION_CREATE:
        OnCreate(hDlg);
        break;
    case IDC_INVITATION_SAVE_AS_FILE:
        SaveAsFile(hDlg);
        break;
    case IDC_INVITATION_COPY_AS_TEXT:
        CopyAsBlob(hDlg);
        break;
    case IDC_INVITATION_COPY_AS_FILE:
        CopyAsFile(hDlg);
        break;
    case IDC_INVITATION_DELETE_ALL:
        OnDeleteAll(hDlg);
        break;
    case IDOK:
    case IDCANCEL:
        EndDialog(hDlg, 0);
        break;
    default:
        break;
    }
}

} // namespace

bool CreateInvitationViaUDP(HWND hDlg, MSG_INVITATION_REQUEST* pRequest)
{
    KvLogBlock logBlock(logger, L"CreateInvitationViaUDP");
    CKvSocket sock;
    if (!OpenService(sock, KV_UDP_INVITATION_CREATE))
        return false;
    pRequest->dwCommand = KV_UDP_INVITATION_CREATE;
    auto reply = std::make_unique<MSG_INVITATION_REPLY>();
    if (sock.Send(pRequest, sizeof *pRequest) != 1 || sock.ReadOnce(reply.get(), sizeof *reply) != 1)
    {
        LOG4CXX_WARN(logger, L"No whole reply from the service. Error = " << WSAGetLastError());
        return false;
    }
    if (reply->dwError != 0)
    {
        LOG4CXX_WARN(logger, L"The service refused the invitation. Error = " << reply->dwError);
        reply->szMessage[std::size(reply->szMessage) - 1] = 0;
        std::wstring text =
            std::wstring(KvWide(reply->szMessage)) + L"\r\n" + SystemErrorText(reply->dwError);
        text.resize(std::min<std::size_t>(text.size(), kMessageUnits - 1));
        MessageBoxW(hDlg, text.c_str(), Caption().c_str(), MB_OK | MB_ICONERROR);
        return false;
    }
    // The length comes from the wire: an empty or oversized one is not trusted with an allocation.
    const DWORD cbText = reply->dwTextLength;
    if (cbText == 0 || cbText > KV_INVITATION_TEXT_MAX)
    {
        LOG4CXX_WARN(logger, L"The service announced an invitation of "
                                 << cbText << L" bytes; at least 1 and at most " << KV_INVITATION_TEXT_MAX
                                 << L" are taken.");
        return false;
    }
    std::vector<char> text(cbText + 64, '\0');
    if (sock.ReadOnce(text.data(), static_cast<int>(cbText)) != 1)
    {
        LOG4CXX_WARN(logger, L"The invitation of " << cbText << L" bytes did not come whole. Error = "
                                                   << WSAGetLastError());
        return false;
    }
    std::vector<wchar_t> wide(cbText + 32, L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(cbText), wide.data(),
                        static_cast<int>(wide.size()) - 1);
    SetDlgItemTextW(hDlg, IDC_INVITATION_TEXT, wide.data());
    LOG4CXX_INFO(logger, L"Invitation of " << cbText << L" bytes received.");
    return true;
}

bool DeleteAllInvitations(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"DeleteAllInvitations");
    CKvSocket sock;
    if (!OpenService(sock, KV_UDP_INVITATION_DELETE_ALL))
        return false;
    MSG_INVITATION_DELETE_REPLY reply = {};
    if (sock.ReadOnce(&reply, sizeof reply) != 1 || reply.dwCommand != KV_UDP_INVITATION_DELETE_ALL)
    {
        LOG4CXX_WARN(logger, L"No delete reply from the service (echo " << reply.dwCommand << L", error "
                                                                        << WSAGetLastError() << L").");
        return false;
    }
    wchar_t szText[260] = {};
    const std::wstring format = KvLoadText(
        reply.dwStatus == KV_INVITATION_DELETE_NONE ? IDS_INVITATION_IN_USE_FMT : IDS_INVITATION_DELETED_FMT);
    _snwprintf_s(szText, _TRUNCATE, format.c_str(), static_cast<int>(reply.dwCount));
    LOG4CXX_INFO(logger, L"Delete answered: status " << reply.dwStatus << L", count " << reply.dwCount);
    TimedMessageBox(hDlg, szText, Caption().c_str(), MB_OK | MB_ICONINFORMATION, kDeleteReportMs);
    return true;
}

bool CopyAsBlob(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"CopyAsBlob");
    const std::wstring text = InvitationText(hDlg);
    if (!OpenClipboard(hDlg))
    {
        LOG4CXX_WARN(logger, L"The clipboard cannot be opened. Error = " << GetLastError());
        return false;
    }
    EmptyClipboard();
    // The zeroed tail ends the text. A failed allocation leaves the clipboard open, as it always has.
    HGLOBAL hData = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, text.size() + 2);
    if (hData == nullptr)
        return false;
    char* pText = static_cast<char*>(GlobalLock(hData));
    WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), pText,
                        static_cast<int>(text.size()), nullptr, nullptr);
    GlobalUnlock(hData);
    const bool bSet = SetClipboardData(CF_TEXT, hData) != nullptr;
    if (!bSet)
        GlobalFree(hData);
    CloseClipboard();
    return bSet;
}

bool CopyAsFile(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"CopyAsFile");
    const std::wstring folder = FileFolder();
    if (folder.empty())
        return false;
    const std::wstring name = folder + BaseName(hDlg);
    std::wstring path = name + L".inv";
    HANDLE hFile = CreateNewFile(path);
    for (int n = 1; hFile == INVALID_HANDLE_VALUE && n <= kNumberedNames; ++n)
        hFile = CreateNewFile(path = name + std::to_wstring(n) + L".inv");
    if (hFile == INVALID_HANDLE_VALUE)
    {
        LOG4CXX_WARN(logger, L"No free file name beside \"" << name << L".inv\".");
        return false;
    }
    if (!WriteText(hFile, InvitationText(hDlg)))
        return false;

    // A drop list of one wide name: the header, the path, and the zeros that end the list.
    constexpr SIZE_T cbDrop = 542;
    constexpr SIZE_T cbHeader = sizeof(DROPFILES);
    if (cbHeader + (path.size() + 2) * sizeof(wchar_t) > cbDrop)
    {
        LOG4CXX_WARN(logger, L"\"" << path << L"\" is too long for the clipboard.");
        return false;
    }
    HGLOBAL hDrop = GlobalAlloc(GMEM_MOVEABLE | GMEM_DDESHARE | GMEM_ZEROINIT, cbDrop);
    if (hDrop == nullptr)
        return false;
    auto* pDrop = static_cast<DROPFILES*>(GlobalLock(hDrop));
    pDrop->pFiles = cbHeader;
    pDrop->fWide = TRUE;
    std::memcpy(reinterpret_cast<BYTE*>(pDrop) + cbHeader, path.c_str(), path.size() * sizeof(wchar_t));
    GlobalUnlock(hDrop);
    return PutOnClipboard(hDlg, CF_HDROP, hDrop);
}

bool FileSaveAs(HWND hDlg, const wchar_t* szDefaultName, wchar_t* szPath, DWORD cchPath, DWORD* pnFilterIndex)
{
    KvLogBlock logBlock(logger, L"FileSaveAs");
    wchar_t szFile[MAX_PATH] = {};
    wcsncpy_s(szFile, szDefaultName, _TRUNCATE);
    OPENFILENAMEW ofn = {};
    ofn.lStructSize = sizeof ofn;
    ofn.hwndOwner = hDlg;
    ofn.lpstrFilter = L"Invitation Files (*.inv)\0*.inv\0All Files (*.*)\0*.*\0";
    ofn.nFilterIndex = *pnFilterIndex;
    ofn.lpstrFile = szFile;
    ofn.nMaxFile = MAX_PATH;
    ofn.lpstrInitialDir = szPath;
    ofn.lpstrTitle = L"Save Invitation As";
    ofn.lpstrDefExt = L"*.inv";
    // No overwrite prompt: the file is created only when it is new.
    ofn.Flags = OFN_EXPLORER | OFN_HIDEREADONLY;
    if (!GetSaveFileNameW(&ofn))
    {
        LOG4CXX_DEBUG(logger, L"Save dialog closed without a file. Error = " << CommDlgExtendedError());
        return false;
    }
    *pnFilterIndex = ofn.nFilterIndex;
    wcsncpy_s(szPath, cchPath, szFile, _TRUNCATE);
    return true;
}

bool SaveAsFile(HWND hDlg)
{
    KvLogBlock logBlock(logger, L"SaveAsFile");
    const std::wstring defaultName = BaseName(hDlg) + L".inv";
    const std::wstring folder = FileFolder();
    if (folder.empty())
        return false;
    wchar_t szPath[MAX_PATH] = {};
    wcsncpy_s(szPath, folder.c_str(), _TRUNCATE);
    DWORD nFilterIndex = 1;
    if (!FileSaveAs(hDlg, defaultName.c_str(), szPath, MAX_PATH, &nFilterIndex))
        return false;
    HANDLE hFile = CreateNewFile(szPath);
    if (hFile == INVALID_HANDLE_VALUE)
    {
        LOG4CXX_INFO(logger, L"\"" << szPath << L"\" exists or cannot be created; nothing saved. Error = "
                                   << GetLastError());
        return false;
    }
    return WriteText(hFile, InvitationText(hDlg));
}

bool GetFolderPath(wchar_t* szPath, DWORD cchPath)
{
    KvLogBlock logBlock(logger, L"GetFolderPath");
    HMODULE hShell = LoadLibraryW(L"shell32.dll");
    if (hShell == nullptr)
        return false;
    using KnownFolderPath = HRESULT(WINAPI*)(REFKNOWNFOLDERID, DWORD, HANDLE, PWSTR*);
    using FolderPath = HRESULT(WINAPI*)(HWND, int, HANDLE, DWORD, LPWSTR);
    HRESULT hr = E_FAIL;
    if (auto pfnKnown = reinterpret_cast<KnownFolderPath>(
            reinterpret_cast<void*>(GetProcAddress(hShell, "SHGetKnownFolderPath"))))
    {
        static const GUID kDocuments = {
            0xFDD39AD0, 0x238F, 0x46AF, {0xAD, 0xB4, 0x6C, 0x85, 0x48, 0x03, 0x69, 0xC7}};
        PWSTR pszFolder = nullptr;
        hr = pfnKnown(kDocuments, KF_FLAG_CREATE, nullptr, &pszFolder);
        if (SUCCEEDED(hr))
            wcsncpy_s(szPath, cchPath, pszFolder, _TRUNCATE);
        CoTaskMemFree(pszFolder);
    }
    else if (auto pfnFolder = reinterpret_cast<FolderPath>(
                 reinterpret_cast<void*>(GetProcAddress(hShell, "SHGetFolderPathW"))))
    {
        wchar_t szFolder[MAX_PATH] = {};
        hr = pfnFolder(nullptr, CSIDL_PERSONAL | CSIDL_FLAG_CREATE, nullptr, 0, szFolder);
        if (SUCCEEDED(hr))
            wcsncpy_s(szPath, cchPath, szFolder, _TRUNCATE);
    }
    FreeLibrary(hShell);
    return SUCCEEDED(hr);
}

void EnableCreateWindows(HWND hDlg, BOOL bEnable)
{
    KvLogBlock logBlock(logger, L"EnableCreateWindows");
    LOG4CXX_DEBUG(logger, L"bEnable=" << bEnable);
    for (int nId : {IDC_INVITATION_TEXT, IDC_INVITATION_SAVE_AS_FILE, IDC_INVITATION_COPY_AS_FILE,
                    IDC_INVITATION_COPY_AS_TEXT})
        Enable(hDlg, nId, bEnable != FALSE);
}

bool LoadInvitationProxyList(HWND /*hCombo*/, HWND hDlg)
{
    KvLogBlock logBlock(logger, L"LoadInvitationProxyList");
    return KvLoadProxyList(kvInvitationProxies, hDlg, kProxyBoxes);
}

bool SaveInvitationProxyList(HWND /*hCombo*/, HWND hDlg, const wchar_t* szProxyHost, DWORD dwProxyPort)
{
    KvLogBlock logBlock(logger, L"SaveInvitationProxyList");
    return KvSaveProxyList(kvInvitationProxies, hDlg, kProxyBoxes, szProxyHost, dwProxyPort);
}

INT_PTR CALLBACK CreateInvitationWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    KvLogBlock logBlock(logger, L"CreateInvitationWndProc");
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        OnInitDialog(hDlg, reinterpret_cast<const CTaskBarWindow*>(lParam));
        return TRUE;
    case WM_COMMAND:
        OnCommand(hDlg, LOWORD(wParam));
        return TRUE;
    case WM_CLOSE:
        EndDialog(hDlg, 0);
        return TRUE;
    case WM_DESTROY:
        if (HFONT hFont = static_cast<HFONT>(RemovePropW(hDlg, kFontProp)))
            DeleteObject(hFont);
        return TRUE;
    default:
        return FALSE;
    }
}
