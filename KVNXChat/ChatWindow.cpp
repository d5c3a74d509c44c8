#include "ChatWindow.h"

#include "DialogKeys.h"
#include "KVNXChat.h"
#include "ServiceText.h"
#include "resource.h"

#include <commctrl.h>
#include <lmcons.h>
#include <windowsx.h>

#include <algorithm>
#include <cstdint>
#include <cwctype>
#include <memory>

namespace
{

constexpr wchar_t KV_CHAT_WINDOW_PROP[] = L"KVNXChat.Window";
constexpr UINT_PTR KV_INPUT_SUBCLASS = 1;
// Items are measured again once a resize has paused, not on every step of a drag.
constexpr UINT_PTR KV_MEASURE_TIMER = 1;
constexpr UINT KV_MEASURE_DELAY_MS = 150;
constexpr UINT KV_OWNER_ANSWER_MS = 2000;
constexpr UINT KV_MENU_COPY = 1;
constexpr UINT KV_MENU_SELECT_ALL = 2;

// The layout in dialog units, as in the template.
constexpr int KV_MARGIN = 7;
constexpr int KV_LABEL_CY = 8;
constexpr int KV_LABEL_GAP = 2;
constexpr int KV_SECTION_GAP = 6;
constexpr int KV_INPUT_CY = 40;
constexpr int KV_BUTTON_CX = 50;
constexpr int KV_BUTTON_CY = 14;
constexpr int KV_BUTTON_GAP = 4;
constexpr int KV_MIN_CX = 160;
constexpr int KV_MIN_CY = 120;

std::wstring Wide(const std::u16string& text)
{
    return std::wstring(reinterpret_cast<const wchar_t*>(text.data()), text.size());
}

std::wstring WindowText(HWND hWnd)
{
    std::wstring text(static_cast<std::size_t>(std::max(GetWindowTextLengthW(hWnd), 0)), L'\0');
    const int cch = GetWindowTextW(hWnd, text.data(), static_cast<int>(text.size() + 1));
    text.resize(static_cast<std::size_t>(std::max(cch, 0)));
    return text;
}

bool IsBlank(std::wstring_view text)
{
    return std::all_of(text.begin(), text.end(), [](wchar_t c) { return std::iswspace(c) != 0; });
}

// A translation's format with its one %ls; no printf, so a wrong placeholder cannot read memory.
std::wstring WithName(std::wstring format, std::wstring_view name)
{
    const std::size_t at = format.find(L"%ls");
    if (at != std::wstring::npos)
        format.replace(at, 3, name);
    return format;
}

bool IsLineBreakChord()
{
    return GetKeyState(VK_SHIFT) < 0 || GetKeyState(VK_CONTROL) < 0;
}

} // namespace

CChatWindow::CChatWindow(HWND hOwner, HINSTANCE hRes, KvModule resources)
    : m_hOwner(hOwner), m_hRes(hRes), m_resources(std::move(resources))
{
}

HWND CChatWindow::Create(HWND hOwner, HINSTANCE hRes, KvModule resources)
{
    std::unique_ptr<CChatWindow> window(new CChatWindow(hOwner, hRes, std::move(resources)));
    const HWND hDlg = CreateDialogParamW(hRes, MAKEINTRESOURCEW(IDD_CHAT), hOwner, DialogProc,
                                         reinterpret_cast<LPARAM>(&window));
    if (hDlg != nullptr)
        ShowWindow(hDlg, SW_SHOWNOACTIVATE);
    return hDlg;
}

CChatWindow* CChatWindow::FromHandle(HWND hWnd)
{
    DWORD dwProcess = 0;
    if (hWnd == nullptr || GetWindowThreadProcessId(hWnd, &dwProcess) == 0 ||
        dwProcess != GetCurrentProcessId())
        return nullptr;
    return static_cast<CChatWindow*>(GetPropW(hWnd, KV_CHAT_WINDOW_PROP));
}

INT_PTR CALLBACK CChatWindow::DialogProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    // Nothing may unwind through the system's frames.
    try
    {
        if (uMsg == WM_INITDIALOG)
        {
            // From here on the window owns its object.
            CChatWindow* pWindow = reinterpret_cast<std::unique_ptr<CChatWindow>*>(lParam)->release();
            SetWindowLongPtrW(hDlg, DWLP_USER, reinterpret_cast<LONG_PTR>(pWindow));
            pWindow->OnInit(hDlg);
            SetPropW(hDlg, KV_CHAT_WINDOW_PROP, pWindow);
            KvAttachDialogKeys(hDlg);
            return FALSE; // the focus goes to the input box on first activation, not now
        }
        auto* pWindow = reinterpret_cast<CChatWindow*>(GetWindowLongPtrW(hDlg, DWLP_USER));
        if (pWindow == nullptr)
            return FALSE;
        if (uMsg == WM_DESTROY)
            RemovePropW(hDlg, KV_CHAT_WINDOW_PROP); // the exports leave a window on its way out alone
        if (uMsg == WM_NCDESTROY)
        {
            KvDetachDialogKeys(hDlg);
            SetWindowLongPtrW(hDlg, DWLP_USER, 0);
            delete pWindow;
            return FALSE;
        }
        return pWindow->OnMessage(uMsg, wParam, lParam);
    }
    catch (const std::exception&)
    {
        return FALSE;
    }
}

void CChatWindow::OnInit(HWND hDlg)
{
    m_hDlg = hDlg;
    m_hList = GetDlgItem(hDlg, IDC_CHAT_TRANSCRIPT);
    m_hInput = GetDlgItem(hDlg, IDC_CHAT_INPUT);
    m_hSend = GetDlgItem(hDlg, IDC_CHAT_SEND);
    m_dpi = GetDpiForWindow(hDlg);
    m_transcript.emplace(m_hList, Text(IDS_CHAT_SHORTENED));
    SetWindowSubclass(m_hInput, InputProc, KV_INPUT_SUBCLASS, reinterpret_cast<DWORD_PTR>(this));
    UseFont(reinterpret_cast<HFONT>(SendMessageW(hDlg, WM_GETFONT, 0, 0)));
    Layout();
    m_transcript->SetFont(m_hFont);
    UpdateSendButton();
    PlaceOnScreen();
}

INT_PTR CChatWindow::OnMessage(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    switch (uMsg)
    {
    case WM_COMMAND:
        return OnCommand(LOWORD(wParam), HIWORD(wParam));
    case WM_MEASUREITEM:
        m_transcript->OnMeasureItem(*reinterpret_cast<MEASUREITEMSTRUCT*>(lParam));
        return TRUE;
    case WM_DRAWITEM:
        m_transcript->OnDrawItem(*reinterpret_cast<const DRAWITEMSTRUCT*>(lParam));
        return TRUE;
    // The list's keys come here (LBS_WANTKEYBOARDINPUT) rather than through a subclass, which
    // would cost every list message a property lookup. Both answers are returned as they are.
    case WM_VKEYTOITEM:
        return m_transcript->OnKey(LOWORD(wParam)) ? -2 : -1;
    case WM_CHARTOITEM:
        // No search by typed letters: every item starts with its author.
        return -2;
    case WM_CONTEXTMENU:
        if (reinterpret_cast<HWND>(wParam) != m_hList)
            return FALSE;
        ShowTranscriptMenu(lParam);
        return TRUE;
    case WM_ACTIVATE:
        if (LOWORD(wParam) == WA_INACTIVE)
            return FALSE;
        m_bFlashing = false;
        // Created without the focus; the first time the user comes to the window, it is for typing.
        if (m_bFocusPlaced)
            return FALSE;
        m_bFocusPlaced = true;
        SetFocus(m_hInput);
        return TRUE;
    case WM_SIZE:
        if (wParam != SIZE_MINIMIZED)
        {
            // Whoever was reading the newest message still sees it afterwards.
            const bool bFollow = m_transcript->ShowsLastItem();
            Layout();
            if (bFollow)
                m_transcript->ShowLastItem();
            if (m_transcript->WidthChanged())
                SetTimer(m_hDlg, KV_MEASURE_TIMER, KV_MEASURE_DELAY_MS, nullptr);
        }
        return FALSE;
    case WM_TIMER:
        if (wParam != KV_MEASURE_TIMER)
            return FALSE;
        KillTimer(m_hDlg, KV_MEASURE_TIMER);
        m_transcript->MeasureAll();
        return TRUE;
    case WM_GETMINMAXINFO:
        OnGetMinMaxInfo(*reinterpret_cast<MINMAXINFO*>(lParam));
        return TRUE;
    case WM_DPICHANGED:
        OnDpiChanged(HIWORD(wParam), *reinterpret_cast<const RECT*>(lParam));
        SetWindowLongPtrW(m_hDlg, DWLP_MSGRESULT, 0);
        return TRUE;
    case WM_CLOSE:
        // The title bar's close button and Alt+F4 close at once; Esc goes through IDCANCEL.
        DestroyWindow(m_hDlg);
        return TRUE;
    case WM_DESTROY:
        if (m_hOwner != nullptr && IsWindow(m_hOwner))
            SendMessageW(m_hOwner, WM_KV_CHAT_WINDOW_GONE, reinterpret_cast<WPARAM>(m_hDlg), 0);
        return FALSE;
    default:
        return FALSE;
    }
}

bool CChatWindow::OnCommand(WORD wId, WORD wCode)
{
    switch (wId)
    {
    case IDC_CHAT_INPUT:
        if (wCode == EN_CHANGE)
            UpdateSendButton();
        return true;
    case IDC_CHAT_SEND:
        if (wCode == BN_CLICKED)
            Send();
        return true;
    case IDCANCEL:
        CloseIfEmpty();
        return true;
    default:
        return false;
    }
}

LRESULT CALLBACK CChatWindow::InputProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam,
                                        UINT_PTR uIdSubclass, DWORD_PTR dwRefData)
{
    if (uMsg == WM_NCDESTROY)
        RemoveWindowSubclass(hWnd, InputProc, uIdSubclass);
    try
    {
        return reinterpret_cast<CChatWindow*>(dwRefData)->OnInputMessage(uMsg, wParam, lParam);
    }
    catch (const std::exception&)
    {
        return 0;
    }
}

// The keys come through IsDialogMessage (the hook) or straight from a message posted to the box;
// both ways end here.
LRESULT CChatWindow::OnInputMessage(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    switch (uMsg)
    {
    case WM_GETDLGCODE:
    {
        // A multi-line edit asks for every key; Tab and Esc belong to the dialog, Enter to us.
        LRESULT code = DefSubclassProc(m_hInput, uMsg, wParam, lParam) & ~DLGC_WANTALLKEYS;
        const MSG* pMsg = reinterpret_cast<const MSG*>(lParam);
        if (pMsg != nullptr && (pMsg->message == WM_KEYDOWN || pMsg->message == WM_CHAR) &&
            pMsg->wParam == VK_RETURN)
            code |= DLGC_WANTMESSAGE;
        return code;
    }
    case WM_KEYDOWN:
        if (wParam == VK_RETURN)
        {
            m_bLineBreakKey = IsLineBreakChord();
            if (m_bLineBreakKey)
                break;
            Send();
            return 0;
        }
        if (wParam == VK_ESCAPE)
        {
            // The edit itself would post WM_CLOSE to the dialog and lose the text.
            CloseIfEmpty();
            return 0;
        }
        break;
    case WM_CHAR:
        // Every carriage return but the one of a line-break chord: a sending Enter can come with
        // one from TranslateMessage and one posted by another process.
        if (wParam == L'\r')
        {
            if (!m_bLineBreakKey)
                return 0;
            m_bLineBreakKey = false;
        }
        break;
    case WM_SETTEXT:
    {
        // A multi-line edit sends no EN_CHANGE for it.
        const LRESULT result = DefSubclassProc(m_hInput, uMsg, wParam, lParam);
        UpdateSendButton();
        return result;
    }
    default:
        break;
    }
    return DefSubclassProc(m_hInput, uMsg, wParam, lParam);
}

void CChatWindow::ShowIncoming(const MSG_CHAT_MESSAGE& message)
{
    const std::wstring name = KvShowableFieldW(message.szUsername);
    // The body ends with its length (an odd last byte is left out) or at a NUL, whichever is first.
    const std::size_t cchText = std::min(message.dwMessageLength, KV_MAX_CHAT_BODY_BYTES) / 2;
    const auto* pText =
        reinterpret_cast<const char16_t*>(reinterpret_cast<const std::uint8_t*>(&message) + sizeof message);
    m_transcript->AppendMessage(CChatTranscript::Kind::Incoming,
                                name.empty() ? Text(IDS_CHAT_REMOTE_USER) : name,
                                Wide(KvShowableText(pText, cchText, true)));
    if (!m_bNamed && !name.empty())
    {
        m_bNamed = true;
        SetWindowTextW(m_hDlg, WithName(Text(IDS_CHAT_CAPTION_FMT), name).c_str());
    }
    if (!m_bFlashing && GetForegroundWindow() != m_hDlg)
    {
        // The taskbar button and caption flash until the user comes to the window; once is
        // enough for a run of messages (and each call is a trip to the display).
        FLASHWINFO flash = {sizeof flash, m_hDlg, FLASHW_ALL | FLASHW_TIMERNOFG, 0, 0};
        FlashWindowEx(&flash);
        m_bFlashing = true;
    }
}

void CChatWindow::Send()
{
    const std::wstring text = WindowText(m_hInput);
    if (IsBlank(text))
        return;
    const HWND hDlg = m_hDlg;
    const bool bDelivered = DeliverToOwner(text);
    // The owner may have closed the window while it had the message.
    if (FromHandle(hDlg) != this)
        return;
    if (!bDelivered)
    {
        m_transcript->AppendNotice(Text(IDS_CHAT_NOT_SENT));
        return;
    }
    const std::u16string shown =
        KvShowableText(reinterpret_cast<const char16_t*>(text.data()), text.size(), true);
    m_transcript->AppendMessage(CChatTranscript::Kind::Own, Text(IDS_CHAT_YOU), Wide(shown));
    // Back to the box after a click on Send; a window without the focus keeps it that way.
    if (GetFocus() == m_hSend)
        SendMessageW(m_hDlg, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(m_hInput), TRUE);
    SetWindowTextW(m_hInput, L"");
}

bool CChatWindow::DeliverToOwner(std::wstring_view text) const
{
    DWORD_PTR alive = 0;
    if (m_hOwner == nullptr ||
        !SendMessageTimeoutW(m_hOwner, WM_KV_CHAT_OWNER_ALIVE, 0, 0, SMTO_ABORTIFHUNG, KV_OWNER_ANSWER_MS,
                             &alive) ||
        alive != 1)
        return false;
    wchar_t szUser[UNLEN + 1] = {};
    DWORD cchUser = UNLEN + 1;
    if (!GetUserNameW(szUser, &cchUser))
        szUser[0] = L'\0';
    const std::vector<std::uint8_t> record = KvBuildChatMessage(szUser, text.data(), text.size());
    SendMessageW(m_hOwner, WM_RC_CHAT_MESSAGE_SENT, reinterpret_cast<WPARAM>(record.data()),
                 static_cast<LPARAM>(record.size()));
    return true;
}

void CChatWindow::CloseIfEmpty()
{
    if (GetWindowTextLengthW(m_hInput) == 0)
        DestroyWindow(m_hDlg);
}

void CChatWindow::UpdateSendButton()
{
    EnableWindow(m_hSend, !IsBlank(WindowText(m_hInput)));
}

void CChatWindow::ShowTranscriptMenu(LPARAM lParam)
{
    POINT pt = {GET_X_LPARAM(lParam), GET_Y_LPARAM(lParam)};
    if (pt.x == -1 && pt.y == -1) // from the keyboard
        pt = m_transcript->MenuAnchor();
    const HMENU hMenu = CreatePopupMenu();
    if (hMenu == nullptr)
        return;
    AppendMenuW(hMenu, MF_STRING | (m_transcript->HasSelection() ? MF_ENABLED : MF_GRAYED), KV_MENU_COPY,
                Text(IDS_CHAT_MENU_COPY).c_str());
    AppendMenuW(hMenu, MF_STRING, KV_MENU_SELECT_ALL, Text(IDS_CHAT_MENU_SELECT_ALL).c_str());
    const UINT uCommand = static_cast<UINT>(TrackPopupMenu(
        hMenu, TPM_RETURNCMD | TPM_RIGHTBUTTON | TPM_NONOTIFY, pt.x, pt.y, 0, m_hDlg, nullptr));
    DestroyMenu(hMenu);
    if (uCommand == KV_MENU_COPY)
        m_transcript->CopySelection();
    else if (uCommand == KV_MENU_SELECT_ALL)
        m_transcript->SelectAll();
}

// The controls' font, and the dialog units the layout is counted in.
void CChatWindow::UseFont(HFONT hFont)
{
    m_hFont = hFont;
    for (HWND hChild = GetWindow(m_hDlg, GW_CHILD); hChild != nullptr;
         hChild = GetWindow(hChild, GW_HWNDNEXT))
        SendMessageW(hChild, WM_SETFONT, reinterpret_cast<WPARAM>(hFont), TRUE);
    // The dialog manager's own rule, so the first layout is the template's.
    static constexpr wchar_t KV_ALPHABET[] = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    HDC hdc = GetDC(m_hDlg);
    const HGDIOBJ hOld = SelectObject(hdc, hFont);
    TEXTMETRICW tm = {};
    GetTextMetricsW(hdc, &tm);
    SIZE alphabet = {};
    GetTextExtentPoint32W(hdc, KV_ALPHABET, ARRAYSIZE(KV_ALPHABET) - 1, &alphabet);
    SelectObject(hdc, hOld);
    ReleaseDC(m_hDlg, hdc);
    m_units = {(alphabet.cx / 26 + 1) / 2, tm.tmHeight};
}

void CChatWindow::OnDpiChanged(UINT dpi, const RECT& suggested)
{
    KvGdiObject font;
    LOGFONTW lf = {};
    if (dpi != 0 && m_dpi != 0 && GetObjectW(m_hFont, sizeof lf, &lf) != 0)
    {
        lf.lfHeight = MulDiv(lf.lfHeight, static_cast<int>(dpi), static_cast<int>(m_dpi));
        font.Reset(CreateFontIndirectW(&lf));
    }
    if (font)
    {
        m_dpi = dpi;
        UseFont(static_cast<HFONT>(font.Get()));
    }
    SetWindowPos(m_hDlg, nullptr, suggested.left, suggested.top, suggested.right - suggested.left,
                 suggested.bottom - suggested.top, SWP_NOZORDER | SWP_NOACTIVATE);
    Layout(); // also when the suggested size is the old one
    if (font)
    {
        m_transcript->SetFont(m_hFont);
        // Only now: the previous font stayed selected in the controls until here.
        m_scaledFont = std::move(font);
    }
}

void CChatWindow::Layout()
{
    RECT rc = {};
    GetClientRect(m_hDlg, &rc);
    const int left = X(KV_MARGIN);
    const int right = std::max(left, static_cast<int>(rc.right) - X(KV_MARGIN));
    const int bottom = rc.bottom - Y(KV_MARGIN);
    const int inputTop = bottom - Y(KV_INPUT_CY);
    const int inputLabelTop = inputTop - Y(KV_LABEL_GAP) - Y(KV_LABEL_CY);
    const int listTop = Y(KV_MARGIN) + Y(KV_LABEL_CY) + Y(KV_LABEL_GAP);
    const int listBottom = std::max(listTop, inputLabelTop - Y(KV_SECTION_GAP));
    const int buttonLeft = std::max(left, right - X(KV_BUTTON_CX));
    const int inputRight = std::max(left, buttonLeft - X(KV_BUTTON_GAP));

    HDWP hdwp = BeginDeferWindowPos(5);
    auto place = [&](int id, int x, int y, int cx, int cy)
    {
        if (hdwp != nullptr)
            hdwp = DeferWindowPos(hdwp, GetDlgItem(m_hDlg, id), nullptr, x, y, cx, cy,
                                  SWP_NOZORDER | SWP_NOACTIVATE | SWP_NOCOPYBITS);
    };
    place(IDC_CHAT_TRANSCRIPT_LABEL, left, Y(KV_MARGIN), right - left, Y(KV_LABEL_CY));
    place(IDC_CHAT_TRANSCRIPT, left, listTop, right - left, listBottom - listTop);
    place(IDC_CHAT_INPUT_LABEL, left, inputLabelTop, right - left, Y(KV_LABEL_CY));
    place(IDC_CHAT_INPUT, left, inputTop, inputRight - left, Y(KV_INPUT_CY));
    place(IDC_CHAT_SEND, buttonLeft, bottom - Y(KV_BUTTON_CY), right - buttonLeft, Y(KV_BUTTON_CY));
    if (hdwp != nullptr)
        EndDeferWindowPos(hdwp);
}

// Above the notification area's corner of the primary monitor, where the agent's icon is.
void CChatWindow::PlaceOnScreen()
{
    RECT rcWindow = {};
    MONITORINFO monitor = {};
    monitor.cbSize = sizeof monitor;
    if (!GetWindowRect(m_hDlg, &rcWindow) ||
        !GetMonitorInfoW(MonitorFromPoint(POINT{0, 0}, MONITOR_DEFAULTTOPRIMARY), &monitor))
        return;
    const RECT& work = monitor.rcWork;
    const int x = std::max(work.left, work.right - (rcWindow.right - rcWindow.left) - X(KV_MARGIN));
    const int y = std::max(work.top, work.bottom - (rcWindow.bottom - rcWindow.top) - Y(KV_MARGIN));
    SetWindowPos(m_hDlg, nullptr, x, y, 0, 0, SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void CChatWindow::OnGetMinMaxInfo(MINMAXINFO& info) const
{
    RECT rc = {0, 0, X(KV_MIN_CX), Y(KV_MIN_CY)};
    AdjustWindowRectExForDpi(&rc, static_cast<DWORD>(GetWindowLongPtrW(m_hDlg, GWL_STYLE)), FALSE,
                             static_cast<DWORD>(GetWindowLongPtrW(m_hDlg, GWL_EXSTYLE)), m_dpi);
    info.ptMinTrackSize = {rc.right - rc.left, rc.bottom - rc.top};
}

int CChatWindow::X(int dlu) const
{
    return MulDiv(dlu, m_units.cx, 4);
}

int CChatWindow::Y(int dlu) const
{
    return MulDiv(dlu, m_units.cy, 8);
}

std::wstring CChatWindow::Text(UINT uId) const
{
    const wchar_t* p = nullptr;
    const int cch = LoadStringW(m_hRes, uId, reinterpret_cast<LPWSTR>(&p), 0);
    return cch > 0 && p != nullptr ? std::wstring(p, static_cast<std::size_t>(cch)) : std::wstring();
}
