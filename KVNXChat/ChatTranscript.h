// The chat window's transcript: an owner-drawn list box with one item per message, painted with
// DrawTextW (never an edit control: the texts come from the service). Each item keeps its text
// once, as the list box's own string, so other processes read it with LB_GETTEXT and Ctrl+C copies
// it:
//   a message:  "<author> (<local time, no seconds>)\r\n<text>"  (the text's line breaks as CR LF)
//   a notice:   "<notice>"
// The item data says which of the two an item is, whose message it is, and where the author ends;
// heights are measured once per item, again only when the width or the font changes.
#pragma once

#include "KvHandles.h"

#include <windows.h>

#include <cstddef>
#include <string>
#include <string_view>

class CChatTranscript
{
public:
    enum class Kind : unsigned
    {
        Incoming, // a viewer's message
        Own,      // the local user's message
        Notice,   // a line of the window's own, without author or time
    };

    // hList is the list box; shortenedNote ends an item that a message does not fit into.
    CChatTranscript(HWND hList, std::wstring shortenedNote);

    // The font of the texts (not owned); every item is measured again.
    void SetFont(HFONT hFont);
    // A message, stamped with the local time. The newest item is scrolled into view unless the
    // reader has scrolled up to older ones; the local user's own lines always are.
    void AppendMessage(Kind kind, std::wstring_view author, std::wstring_view text);
    void AppendNotice(std::wstring_view text);

    // Whether the newest item is in view (or will be once the list is redrawn), and putting it there.
    bool ShowsLastItem() const;
    void ShowLastItem();
    // The list box's width differs from the one the items were measured for.
    bool WidthChanged() const;
    void MeasureAll();

    void OnMeasureItem(MEASUREITEMSTRUCT& mis) const;
    void OnDrawItem(const DRAWITEMSTRUCT& dis) const;
    // A key down in the list (WM_VKEYTOITEM): Ctrl+C (and Ctrl+Insert) copies, Ctrl+A selects
    // all. False for the keys the list box handles itself.
    bool OnKey(UINT vk);

    bool HasSelection() const;
    // The selected items' strings, CR LF between them, as Unicode text on the clipboard.
    void CopySelection() const;
    void SelectAll();
    // Where a context menu opened from the keyboard goes, in screen coordinates.
    POINT MenuAnchor() const;

private:
    struct Fit
    {
        UINT uHeight;
        bool bShortened;
    };

    void Append(std::wstring_view item, Kind kind, std::size_t cchAuthor);
    void HoldRedraw();
    static void CALLBACK OnIdle(HWND hList, UINT uMsg, UINT_PTR idEvent, DWORD dwTime);
    Fit Measure(HDC hdc, std::wstring_view item, LPARAM data) const;
    std::wstring ItemText(int index) const;
    int ClientWidth() const;

    HWND m_hList;
    std::wstring m_shortenedNote;
    HFONT m_hFont = nullptr;
    KvGdiObject m_boldFont;   // authors
    KvGdiObject m_italicFont; // notices
    int m_cyLine = 0;         // one line of the text font
    int m_cyHeader = 0;       // one line of the author's font
    int m_cxPad = 0;
    int m_cyPad = 0;
    int m_cxMeasured = -1;
    UINT m_uNextHeight = 0; // for the WM_MEASUREITEM that LB_ADDSTRING sends
    bool m_bRedrawHeld = false;
    bool m_bFollowWhenIdle = false; // show the newest item when the list is redrawn
};
