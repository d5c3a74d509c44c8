#include "ChatTranscript.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

// A variable-height list box keeps an item's height in a byte.
constexpr int KV_MAX_ITEM_HEIGHT = 255;
// Enough text to fill that height at any width a screen offers; DrawTextW never sees more, so a
// huge message costs no more to measure or paint than a long one.
constexpr std::size_t KV_SHOWN_UNITS = 16384;
constexpr std::size_t KV_DIRECTION_PROBE_UNITS = 256;

// Item data: the kind in the low bits, whether the text was cut, the author's length above.
constexpr LPARAM KV_KIND_MASK = 0x3;
constexpr LPARAM KV_SHORTENED = 0x4;
constexpr int KV_AUTHOR_SHIFT = 8;

LPARAM Pack(CChatTranscript::Kind kind, bool bShortened, std::size_t cchAuthor)
{
    return static_cast<LPARAM>(kind) | (bShortened ? KV_SHORTENED : 0) |
           static_cast<LPARAM>(cchAuthor) << KV_AUTHOR_SHIFT;
}

CChatTranscript::Kind KindOf(LPARAM data)
{
    return static_cast<CChatTranscript::Kind>(data & KV_KIND_MASK);
}

std::size_t AuthorUnits(LPARAM data)
{
    return static_cast<std::size_t>(data >> KV_AUTHOR_SHIFT);
}

struct ItemParts
{
    std::wstring_view author;
    std::wstring_view stamp; // " (10:42)", after the author
    std::wstring_view text;
};

ItemParts Split(std::wstring_view item, CChatTranscript::Kind kind, std::size_t cchAuthor)
{
    if (kind == CChatTranscript::Kind::Notice)
        return {{}, {}, item};
    const std::size_t cchName = std::min(cchAuthor, item.size());
    const std::size_t lineEnd = std::min(item.find(L"\r\n", cchName), item.size());
    const std::size_t textStart = std::min(lineEnd + 2, item.size());
    return {item.substr(0, cchName), item.substr(cchName, lineEnd - cchName), item.substr(textStart)};
}

std::wstring_view Shown(std::wstring_view text)
{
    if (text.size() <= KV_SHOWN_UNITS)
        return text;
    const std::size_t n = IS_HIGH_SURROGATE(text[KV_SHOWN_UNITS - 1]) ? KV_SHOWN_UNITS - 1 : KV_SHOWN_UNITS;
    return text.substr(0, n);
}

// Whether the first letter with a direction reads right to left, as the system classes it.
bool StartsRightToLeft(std::wstring_view text)
{
    WORD types[KV_DIRECTION_PROBE_UNITS] = {};
    const int cch = static_cast<int>(std::min(text.size(), KV_DIRECTION_PROBE_UNITS));
    if (cch == 0 || !GetStringTypeW(CT_CTYPE2, text.data(), cch, types))
        return false;
    for (int i = 0; i < cch; ++i)
    {
        if (types[i] == C2_LEFTTORIGHT)
            return false;
        if (types[i] == C2_RIGHTTOLEFT)
            return true;
    }
    return false;
}

UINT TextFormat(std::wstring_view text)
{
    // DT_EDITCONTROL breaks a word longer than the line and leaves out a cut last line.
    const UINT uFormat = DT_WORDBREAK | DT_EDITCONTROL | DT_NOPREFIX | DT_EXPANDTABS;
    return StartsRightToLeft(text) ? uFormat | DT_RTLREADING | DT_RIGHT : uFormat;
}

int Draw(HDC hdc, std::wstring_view text, RECT& rc, UINT uFormat)
{
    return DrawTextW(hdc, text.data(), static_cast<int>(text.size()), &rc, uFormat);
}

} // namespace

CChatTranscript::CChatTranscript(HWND hList, std::wstring shortenedNote)
    : m_hList(hList), m_shortenedNote(std::move(shortenedNote))
{
}

void CChatTranscript::SetFont(HFONT hFont)
{
    m_hFont = hFont;
    LOGFONTW lf = {};
    GetObjectW(hFont, sizeof lf, &lf);
    lf.lfWeight = FW_BOLD;
    m_boldFont.Reset(CreateFontIndirectW(&lf));
    lf.lfWeight = FW_NORMAL;
    lf.lfItalic = TRUE;
    m_italicFont.Reset(CreateFontIndirectW(&lf));

    HDC hdc = GetDC(m_hList);
    TEXTMETRICW tm = {};
    const HGDIOBJ hOld = SelectObject(hdc, m_hFont);
    GetTextMetricsW(hdc, &tm);
    m_cyLine = tm.tmHeight;
    m_cxPad = tm.tmAveCharWidth;
    SelectObject(hdc, m_boldFont.Get());
    GetTextMetricsW(hdc, &tm);
    m_cyHeader = tm.tmHeight;
    SelectObject(hdc, hOld);
    ReleaseDC(m_hList, hdc);
    m_cyPad = std::max(2, m_cyLine / 4);
    MeasureAll();
}

void CChatTranscript::AppendMessage(Kind kind, std::wstring_view author, std::wstring_view text)
{
    wchar_t szTime[64] = {};
    const int cchTime = GetTimeFormatEx(LOCALE_NAME_USER_DEFAULT, TIME_NOSECONDS, nullptr, nullptr, szTime,
                                        ARRAYSIZE(szTime));
    std::wstring item;
    item.reserve(author.size() + text.size() + 16);
    item.append(author).append(L" (");
    item.append(szTime, cchTime > 0 ? cchTime - 1 : 0);
    item.append(L")\r\n").append(text);
    Append(item, kind, author.size());
}

void CChatTranscript::AppendNotice(std::wstring_view text)
{
    Append(text, Kind::Notice, 0);
}

void CChatTranscript::Append(std::wstring_view item, Kind kind, std::size_t cchAuthor)
{
    // Decided before the item goes in: was the reader at the end?
    const bool bFollow = kind != Kind::Incoming || ShowsLastItem();
    HoldRedraw();
    HDC hdc = GetDC(m_hList);
    const Fit fit = Measure(hdc, item, Pack(kind, false, cchAuthor));
    ReleaseDC(m_hList, hdc);
    m_uNextHeight = fit.uHeight;
    const std::wstring text(item);
    const LRESULT index = SendMessageW(m_hList, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(text.c_str()));
    if (index < 0)
        return;
    SendMessageW(m_hList, LB_SETITEMDATA, static_cast<WPARAM>(index), Pack(kind, fit.bShortened, cchAuthor));
    if (bFollow)
        ShowLastItem();
}

// Every visible change to the list (its scroll bar above all) costs a round trip to the display.
// From the first change on, the list is not redrawn until the thread has nothing else to do, so
// a burst of messages costs one repaint, not one for each.
void CChatTranscript::HoldRedraw()
{
    if (m_bRedrawHeld)
        return;
    m_bRedrawHeld = true;
    m_bFollowWhenIdle = false;
    SendMessageW(m_hList, WM_SETREDRAW, FALSE, 0);
    // Timer messages come only when the queue is empty; the id is this object, unique on the list.
    SetTimer(m_hList, reinterpret_cast<UINT_PTR>(this), USER_TIMER_MINIMUM, &CChatTranscript::OnIdle);
}

void CALLBACK CChatTranscript::OnIdle(HWND hList, UINT, UINT_PTR idEvent, DWORD)
{
    KillTimer(hList, idEvent);
    auto* pTranscript = reinterpret_cast<CChatTranscript*>(idEvent);
    pTranscript->m_bRedrawHeld = false;
    SendMessageW(hList, WM_SETREDRAW, TRUE, 0);
    if (pTranscript->m_bFollowWhenIdle)
        pTranscript->ShowLastItem();
    InvalidateRect(hList, nullptr, TRUE);
}

CChatTranscript::Fit CChatTranscript::Measure(HDC hdc, std::wstring_view item, LPARAM data) const
{
    const ItemParts parts = Split(item, KindOf(data), AuthorUnits(data));
    const std::wstring_view shown = Shown(parts.text);
    RECT rc = {0, 0, std::max(1, ClientWidth() - 2 * m_cxPad), 0};
    const HGDIOBJ hOld = SelectObject(hdc, m_hFont);
    const int cyText = shown.empty() ? m_cyLine : Draw(hdc, shown, rc, TextFormat(shown) | DT_CALCRECT);
    SelectObject(hdc, hOld);
    const int cyHeader = KindOf(data) == Kind::Notice ? 0 : m_cyHeader + m_cyPad / 2;
    const int cy = m_cyPad + cyHeader + std::max(cyText, m_cyLine) + m_cyPad;
    if (cy <= KV_MAX_ITEM_HEIGHT)
        return {static_cast<UINT>(cy), false};
    return {static_cast<UINT>(KV_MAX_ITEM_HEIGHT), true};
}

bool CChatTranscript::WidthChanged() const
{
    return ClientWidth() != m_cxMeasured;
}

void CChatTranscript::MeasureAll()
{
    m_cxMeasured = ClientWidth();
    const int count = static_cast<int>(SendMessageW(m_hList, LB_GETCOUNT, 0, 0));
    if (count <= 0)
        return;
    const bool bFollow = ShowsLastItem();
    HoldRedraw();
    HDC hdc = GetDC(m_hList);
    for (int i = 0; i < count; ++i)
    {
        const LPARAM data = SendMessageW(m_hList, LB_GETITEMDATA, static_cast<WPARAM>(i), 0);
        const Fit fit = Measure(hdc, ItemText(i), data);
        SendMessageW(m_hList, LB_SETITEMHEIGHT, static_cast<WPARAM>(i), MAKELPARAM(fit.uHeight, 0));
        SendMessageW(m_hList, LB_SETITEMDATA, static_cast<WPARAM>(i),
                     Pack(KindOf(data), fit.bShortened, AuthorUnits(data)));
    }
    ReleaseDC(m_hList, hdc);
    if (bFollow)
        ShowLastItem();
}

void CChatTranscript::OnMeasureItem(MEASUREITEMSTRUCT& mis) const
{
    mis.itemHeight = m_uNextHeight;
}

void CChatTranscript::OnDrawItem(const DRAWITEMSTRUCT& dis) const
{
    const bool bFocus = (dis.itemState & ODS_FOCUS) != 0 && (dis.itemState & ODS_NOFOCUSRECT) == 0;
    if (dis.itemID == static_cast<UINT>(-1))
    {
        if (bFocus)
            DrawFocusRect(dis.hDC, &dis.rcItem);
        return;
    }
    const std::wstring item = ItemText(static_cast<int>(dis.itemID));
    const LPARAM data = static_cast<LPARAM>(dis.itemData);
    const Kind kind = KindOf(data);
    const ItemParts parts = Split(item, kind, AuthorUnits(data));

    // Own lines sit on the button face, so they stand apart in any colour scheme.
    const bool bSelected = (dis.itemState & ODS_SELECTED) != 0;
    const int background = bSelected ? COLOR_HIGHLIGHT : kind == Kind::Own ? COLOR_BTNFACE : COLOR_WINDOW;
    const int foreground = bSelected           ? COLOR_HIGHLIGHTTEXT
                           : kind == Kind::Own ? COLOR_BTNTEXT
                                               : COLOR_WINDOWTEXT;
    const COLORREF text = GetSysColor(foreground);
    const COLORREF quiet = bSelected ? text : GetSysColor(COLOR_GRAYTEXT);
    // The viewer's name in the selection colour, which every scheme makes stand out on a window.
    const COLORREF author = bSelected || kind == Kind::Own ? text : GetSysColor(COLOR_HIGHLIGHT);

    HDC hdc = dis.hDC;
    const int saved = SaveDC(hdc);
    FillRect(hdc, &dis.rcItem, GetSysColorBrush(background));
    SetBkMode(hdc, TRANSPARENT);
    RECT rc = dis.rcItem;
    InflateRect(&rc, -m_cxPad, -m_cyPad);

    if (kind != Kind::Notice)
    {
        // The author in bold, ellipsis when too long, then the time; never over each other.
        SelectObject(hdc, m_hFont);
        SIZE stamp = {};
        GetTextExtentPoint32W(hdc, parts.stamp.data(), static_cast<int>(parts.stamp.size()), &stamp);
        RECT rcAuthor = {rc.left, rc.top, std::max(rc.left, rc.right - stamp.cx), rc.top + m_cyHeader};
        RECT rcNeeded = rcAuthor;
        SelectObject(hdc, m_boldFont.Get());
        SetTextColor(hdc, author);
        const UINT uLine = DT_SINGLELINE | DT_NOPREFIX | DT_BOTTOM;
        Draw(hdc, parts.author, rcNeeded, uLine | DT_CALCRECT);
        Draw(hdc, parts.author, rcAuthor, uLine | DT_END_ELLIPSIS);
        RECT rcStamp = {std::min(rcNeeded.right, rcAuthor.right), rc.top, rc.right, rc.top + m_cyHeader};
        SelectObject(hdc, m_hFont);
        SetTextColor(hdc, quiet);
        Draw(hdc, parts.stamp, rcStamp, uLine);
        rc.top += m_cyHeader + m_cyPad / 2;
    }
    SelectObject(hdc, m_hFont);
    if ((data & KV_SHORTENED) != 0)
    {
        RECT rcNote = {rc.left, rc.bottom - m_cyLine, rc.right, rc.bottom};
        rc.bottom = rcNote.top;
        SetTextColor(hdc, quiet);
        Draw(hdc, m_shortenedNote, rcNote, DT_SINGLELINE | DT_NOPREFIX | DT_END_ELLIPSIS);
    }
    const std::wstring_view shown = Shown(parts.text);
    if (kind == Kind::Notice)
        SelectObject(hdc, m_italicFont.Get());
    SetTextColor(hdc, text);
    Draw(hdc, shown, rc, TextFormat(shown));
    RestoreDC(hdc, saved);
    if (bFocus)
        DrawFocusRect(hdc, &dis.rcItem);
}

bool CChatTranscript::OnKey(UINT vk)
{
    if (GetKeyState(VK_CONTROL) >= 0)
        return false;
    if (vk == 'C' || vk == VK_INSERT)
        CopySelection();
    else if (vk == 'A')
        SelectAll();
    else
        return false;
    return true;
}

bool CChatTranscript::HasSelection() const
{
    return SendMessageW(m_hList, LB_GETSELCOUNT, 0, 0) > 0;
}

void CChatTranscript::CopySelection() const
{
    const LRESULT cSelected = SendMessageW(m_hList, LB_GETSELCOUNT, 0, 0);
    if (cSelected <= 0)
        return;
    std::vector<int> selected(static_cast<std::size_t>(cSelected));
    const LRESULT cGot = SendMessageW(m_hList, LB_GETSELITEMS, static_cast<WPARAM>(cSelected),
                                      reinterpret_cast<LPARAM>(selected.data()));
    std::wstring all;
    for (LRESULT i = 0; i < cGot; ++i)
    {
        if (i > 0)
            all += L"\r\n";
        all += ItemText(selected[static_cast<std::size_t>(i)]);
    }
    if (!OpenClipboard(m_hList))
        return;
    EmptyClipboard();
    const SIZE_T cb = (all.size() + 1) * sizeof(wchar_t);
    HGLOBAL hText = GlobalAlloc(GMEM_MOVEABLE, cb);
    void* pText = hText != nullptr ? GlobalLock(hText) : nullptr;
    if (pText != nullptr)
    {
        std::memcpy(pText, all.c_str(), cb);
        GlobalUnlock(hText);
        if (SetClipboardData(CF_UNICODETEXT, hText) != nullptr)
            hText = nullptr; // the clipboard's now
    }
    if (hText != nullptr)
        GlobalFree(hText);
    CloseClipboard();
}

void CChatTranscript::SelectAll()
{
    SendMessageW(m_hList, LB_SETSEL, TRUE, -1);
}

POINT CChatTranscript::MenuAnchor() const
{
    RECT rcClient = {};
    GetClientRect(m_hList, &rcClient);
    POINT pt = {rcClient.left, rcClient.top};
    const LRESULT caret = SendMessageW(m_hList, LB_GETCARETINDEX, 0, 0);
    RECT rcItem = {};
    if (caret >= 0 &&
        SendMessageW(m_hList, LB_GETITEMRECT, static_cast<WPARAM>(caret),
                     reinterpret_cast<LPARAM>(&rcItem)) != LB_ERR &&
        rcItem.bottom > rcClient.top && rcItem.top < rcClient.bottom)
        pt = {rcItem.left + m_cxPad, std::min(rcItem.bottom, rcClient.bottom)};
    ClientToScreen(m_hList, &pt);
    return pt;
}

std::wstring CChatTranscript::ItemText(int index) const
{
    const LRESULT cch = SendMessageW(m_hList, LB_GETTEXTLEN, static_cast<WPARAM>(index), 0);
    if (cch <= 0)
        return std::wstring();
    std::wstring text(static_cast<std::size_t>(cch), L'\0');
    const LRESULT cchGot =
        SendMessageW(m_hList, LB_GETTEXT, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(text.data()));
    text.resize(cchGot > 0 ? static_cast<std::size_t>(std::min(cchGot, cch)) : 0);
    return text;
}

// The list box's own rule: the top index as far down as the last items still fit from it.
bool CChatTranscript::ShowsLastItem() const
{
    if (m_bRedrawHeld)
        return m_bFollowWhenIdle;
    const int count = static_cast<int>(SendMessageW(m_hList, LB_GETCOUNT, 0, 0));
    if (count <= 0)
        return true;
    RECT rc = {};
    GetClientRect(m_hList, &rc);
    auto height = [this](int i)
    { return static_cast<int>(SendMessageW(m_hList, LB_GETITEMHEIGHT, static_cast<WPARAM>(i), 0)); };
    int maxTop = count - 1;
    int cyUsed = height(maxTop);
    while (maxTop > 0 && cyUsed + height(maxTop - 1) <= rc.bottom)
        cyUsed += height(--maxTop);
    return SendMessageW(m_hList, LB_GETTOPINDEX, 0, 0) >= maxTop;
}

void CChatTranscript::ShowLastItem()
{
    if (m_bRedrawHeld)
    {
        m_bFollowWhenIdle = true;
        return;
    }
    const LRESULT count = SendMessageW(m_hList, LB_GETCOUNT, 0, 0);
    if (count > 0)
        SendMessageW(m_hList, LB_SETTOPINDEX, static_cast<WPARAM>(count - 1), 0);
}

int CChatTranscript::ClientWidth() const
{
    RECT rc = {};
    GetClientRect(m_hList, &rc);
    return rc.right;
}
