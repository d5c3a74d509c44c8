// One chat window: the transcript, the local user's input box and the Send button, from the
// resource library's IDD_CHAT template. Its state lives in the object held by the window and goes
// with the window (WM_NCDESTROY), whoever destroys it.
//
// Keys in the input box: Enter sends; Shift+Enter (or Ctrl+Enter) starts a new line; Esc closes
// the window only while the box is empty, so typed text is never lost. A message reaches the
// owner only after the owner has said it is still there; otherwise the text stays in the box and
// the transcript says why.
#pragma once

#include "ChatTranscript.h"
#include "KvHandles.h"
#include "KvServiceMessages.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

class CChatWindow
{
public:
    // A new window from hRes's template, owned by hOwner (which may be null), shown without taking
    // the focus; null when it cannot be made. resources is the library hRes belongs to when the
    // window had to load it itself: it stays loaded while the window lives.
    static HWND Create(HWND hOwner, HINSTANCE hRes, KvModule resources);
    // The window behind hWnd when hWnd is a chat window of this process, else null.
    static CChatWindow* FromHandle(HWND hWnd);

    // A viewer's message: the whole record, dwMessageLength bytes of text behind the head.
    void ShowIncoming(const MSG_CHAT_MESSAGE& message);

    CChatWindow(const CChatWindow&) = delete;
    CChatWindow& operator=(const CChatWindow&) = delete;
    ~CChatWindow() = default;

private:
    CChatWindow(HWND hOwner, HINSTANCE hRes, KvModule resources);

    static INT_PTR CALLBACK DialogProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
    static LRESULT CALLBACK InputProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam,
                                      UINT_PTR uIdSubclass, DWORD_PTR dwRefData);
    void OnInit(HWND hDlg);
    INT_PTR OnMessage(UINT uMsg, WPARAM wParam, LPARAM lParam);
    bool OnCommand(WORD wId, WORD wCode);
    LRESULT OnInputMessage(UINT uMsg, WPARAM wParam, LPARAM lParam);

    void Send();
    bool DeliverToOwner(std::wstring_view text) const;
    void CloseIfEmpty();
    void UpdateSendButton();
    void ShowTranscriptMenu(LPARAM lParam);

    void UseFont(HFONT hFont);
    void OnDpiChanged(UINT dpi, const RECT& suggested);
    void Layout();
    void PlaceOnScreen();
    void OnGetMinMaxInfo(MINMAXINFO& info) const;
    int X(int dlu) const;
    int Y(int dlu) const;

    std::wstring Text(UINT uId) const;

    HWND m_hOwner;
    HINSTANCE m_hRes;
    KvModule m_resources;
    HWND m_hDlg = nullptr;
    HWND m_hList = nullptr;
    HWND m_hInput = nullptr;
    HWND m_hSend = nullptr;
    std::optional<CChatTranscript> m_transcript;
    HFONT m_hFont = nullptr;  // the template's, until the DPI changes
    KvGdiObject m_scaledFont; // the font for a later DPI
    UINT m_dpi = USER_DEFAULT_SCREEN_DPI;
    SIZE m_units = {}; // dialog base units of m_hFont
    bool m_bFocusPlaced = false;
    bool m_bNamed = false;        // the caption names the viewer
    bool m_bFlashing = false;     // since the last time the user came to the window
    bool m_bLineBreakKey = false; // the Enter key down was one that starts a new line
};
