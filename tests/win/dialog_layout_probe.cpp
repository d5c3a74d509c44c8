// Creates every dialog of the given resource libraries at the screen's DPI, as the agent would (its
// manifest is ours), and prints a line "CODE<Tab>DIALOG<Tab>ok" or "CODE<Tab>DIALOG<Tab>what is
// wrong" for each. The DPI is read once as a process starts, so the test runs this once a DPI.
//   dialog_layout_probe DPI CODE=LIBRARY...
#include "ResourceTemplates.h"

#include <windows.h>
#include <commctrl.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

namespace
{

INT_PTR CALLBACK Quiet(HWND, UINT, WPARAM, LPARAM)
{
    return FALSE;
}

void Print(const std::wstring& code, UINT dialog, const std::wstring& what)
{
    const std::wstring line = code + L"\t" + std::to_wstring(dialog) + L"\t" + what + L"\n";
    char utf8[4096];
    const int cb = WideCharToMultiByte(CP_UTF8, 0, line.c_str(), -1, utf8, sizeof utf8, nullptr, nullptr);
    fwrite(utf8, 1, cb > 0 ? cb - 1 : 0, stdout);
}

std::wstring Text(HWND hWnd)
{
    std::wstring text(static_cast<size_t>(GetWindowTextLengthW(hWnd)) + 1, L'\0');
    text.resize(static_cast<size_t>(GetWindowTextW(hWnd, &text[0], static_cast<int>(text.size()))));
    // A link shows its text without the markup.
    for (size_t open; (open = text.find(L'<')) != std::wstring::npos;)
        text.erase(open, text.find(L'>', open) - open + 1);
    return text;
}

std::wstring Size(const RECT& rc)
{
    return std::to_wstring(rc.right - rc.left) + L"x" + std::to_wstring(rc.bottom - rc.top);
}

struct Shown
{
    RECT rc;
    bool bGroup;
    std::wstring name;
};

// Statics that draw a picture, a frame or their owner's drawing show no text.
bool ShowsText(const std::wstring& kind, DWORD style)
{
    const DWORD type = style & SS_TYPEMASK;
    return kind == L"button" || kind == L"link" ||
           (kind == L"static" && (type <= SS_RIGHT || type == SS_SIMPLE || type == SS_LEFTNOWORDWRAP));
}

// How a text does not fit the room its control draws it in; empty when it fits.
std::wstring Cut(HWND hControl, const std::wstring& kind, DWORD style, const std::wstring& text, UINT dpi)
{
    RECT client;
    GetClientRect(hControl, &client);
    LONG cx = client.right, cy = client.bottom;
    UINT flags = DT_CALCRECT | DT_EXPANDTABS;
    const DWORD type = style & BS_TYPEMASK;
    if (kind == L"button")
    {
        flags |= style & BS_MULTILINE ? DT_WORDBREAK : DT_SINGLELINE;
        if (type == BS_GROUPBOX) // the frame's ends on either side of the caption
            cx -= MulDiv(14, dpi, 96), cy = MAXLONG;
        else if (type == BS_CHECKBOX || type == BS_AUTOCHECKBOX || type == BS_3STATE ||
                 type == BS_AUTO3STATE || type == BS_RADIOBUTTON || type == BS_AUTORADIOBUTTON)
            cx -= MulDiv(16, dpi, 96); // the box and the gap after it
        else                           // the button's edges and the focus rectangle
            cx -= MulDiv(6, dpi, 96), cy -= MulDiv(4, dpi, 96);
    }
    else if (kind == L"link")
        flags |= DT_WORDBREAK | DT_NOPREFIX;
    else
        flags |=
            (style & SS_NOPREFIX ? DT_NOPREFIX : 0) |
            ((style & SS_CENTERIMAGE) || (style & SS_TYPEMASK) >= SS_SIMPLE ? DT_SINGLELINE : DT_WORDBREAK);
    HDC hdc = GetDC(hControl);
    HGDIOBJ hOld = SelectObject(hdc, reinterpret_cast<HFONT>(SendMessageW(hControl, WM_GETFONT, 0, 0)));
    RECT need = {0, 0, cx, 0};
    DrawTextW(hdc, text.c_str(), -1, &need, flags);
    SelectObject(hdc, hOld);
    ReleaseDC(hControl, hdc);
    if (need.right <= cx && need.bottom <= cy)
        return L"";
    return L"needs " + Size(need) + L", has " + Size(RECT{0, 0, cx, cy});
}

// What does not fit in one dialog created from its template.
std::vector<std::wstring> Check(HWND hDlg, UINT dpi)
{
    std::vector<std::wstring> problems;
    std::vector<Shown> shown;
    RECT inside;
    GetClientRect(hDlg, &inside);
    for (HWND h = GetWindow(hDlg, GW_CHILD); h != nullptr; h = GetWindow(h, GW_HWNDNEXT))
    {
        const DWORD style = static_cast<DWORD>(GetWindowLongW(h, GWL_STYLE));
        if (!(style & WS_VISIBLE))
            continue; // stacked: shown in turn by the program
        wchar_t cls[64] = {};
        GetClassNameW(h, cls, 64);
        const std::wstring kind = !_wcsicmp(cls, L"Button")   ? L"button"
                                  : !_wcsicmp(cls, L"Static") ? L"static"
                                  : !_wcsicmp(cls, WC_LINK)   ? L"link"
                                                              : L"";
        Shown s{{}, kind == L"button" && (style & BS_TYPEMASK) == BS_GROUPBOX, L""};
        GetWindowRect(h, &s.rc);
        MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&s.rc), 2);
        const std::wstring text = ShowsText(kind, style) ? Text(h) : L"";
        std::wstring shortText = text.substr(0, 40);
        for (wchar_t& c : shortText)
            c = c < L' ' ? L' ' : c; // one line of output a problem
        s.name = std::wstring(cls) + L" " + std::to_wstring(static_cast<short>(GetDlgCtrlID(h))) +
                 (text.empty() ? L"" : L" \"" + shortText + L"\"");
        // Texts the program sets (empty here) are not known yet.
        const std::wstring cut = text.empty() ? L"" : Cut(h, kind, style, text, dpi);
        RECT within;
        if (!cut.empty())
            problems.push_back(s.name + L": text cut, " + cut);
        else if (!text.empty() && (!IntersectRect(&within, &s.rc, &inside) || !EqualRect(&within, &s.rc)))
            problems.push_back(s.name + L": past the dialog's edge");
        for (const Shown& other : shown)
        {
            RECT both, joint;
            if (!IntersectRect(&both, &s.rc, &other.rc))
                continue;
            // A group box may hold what lies wholly inside it.
            const Shown* group = s.bGroup ? &s : other.bGroup ? &other : nullptr;
            const Shown* held = group == &s ? &other : &s;
            if (group == nullptr || !UnionRect(&joint, &group->rc, &held->rc) ||
                !EqualRect(&joint, &group->rc))
                problems.push_back(s.name + L" overlaps " + other.name);
        }
        shown.push_back(s);
    }
    return problems;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    INITCOMMONCONTROLSEX controls = {sizeof controls,
                                     ICC_STANDARD_CLASSES | ICC_LINK_CLASS | ICC_PROGRESS_CLASS};
    InitCommonControlsEx(&controls);
    const UINT dpi = argc > 1 ? static_cast<UINT>(_wtoi(argv[1])) : 0;
    std::vector<std::pair<std::wstring, HMODULE>> libraries;
    std::set<UINT> dialogs;
    for (int i = 2; i < argc; ++i)
    {
        const std::wstring arg = argv[i], code = arg.substr(0, arg.find(L'='));
        HMODULE hModule = LoadLibraryExW(arg.substr(code.size() + 1).c_str(), nullptr,
                                         LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
        if (hModule == nullptr)
        {
            Print(code, 0,
                  L"no library " + arg.substr(code.size() + 1) + L" (error " +
                      std::to_wstring(GetLastError()) + L")");
            continue;
        }
        for (UINT id : kvui::ResourceIds(hModule, RT_DIALOG))
            dialogs.insert(id);
        libraries.emplace_back(code, hModule);
    }
    HDC hdc = GetDC(nullptr);
    const UINT screen = static_cast<UINT>(GetDeviceCaps(hdc, LOGPIXELSY));
    ReleaseDC(nullptr, hdc);
    if (screen != dpi)
        Print(L"all", 0,
              L"the screen is at " + std::to_wstring(screen) + L" DPI, not " + std::to_wstring(dpi));
    for (const auto& [code, hModule] : libraries)
        for (UINT id : dialogs)
        {
            if (FindResourceW(hModule, MAKEINTRESOURCEW(id), RT_DIALOG) == nullptr)
            {
                Print(code, id, L"missing");
                continue;
            }
            HWND hDlg = CreateDialogParamW(hModule, MAKEINTRESOURCEW(id), nullptr, Quiet, 0);
            if (hDlg == nullptr)
            {
                Print(code, id, L"not created (error " + std::to_wstring(GetLastError()) + L")");
                continue;
            }
            const std::vector<std::wstring> problems = Check(hDlg, dpi);
            for (const std::wstring& problem : problems)
                Print(code, id, problem);
            if (problems.empty())
                Print(code, id, L"ok");
            DestroyWindow(hDlg);
        }
    return 0;
}
