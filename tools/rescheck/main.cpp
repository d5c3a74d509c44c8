// rescheck: the resource libraries of a build's languages, English (KVNXSTRES.dll in the folder
// given) and Localization\<code>\KVNXSTRES.dll for French, German and any other folder there.
//   rescheck compare FOLDER  lists every difference by language, resource and id
//   rescheck layout FOLDER   creates every dialog of every language at 96 and 144 DPI and prints a
//                            table of dialog by language and DPI, then each text cut or overlap
// Both exit 1 on any finding. The layout runs this program as its probe ("probe DPI CODE=LIBRARY..."),
// once a DPI: a process reads the screen's DPI once as it starts.
#include "ResourceTemplates.h"
#include "UiDriver.h"

#include <windows.h>
#include <commctrl.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using Libraries = std::vector<std::pair<std::wstring, std::wstring>>; // code, path

Libraries Find(std::wstring folder)
{
    if (!folder.empty() && folder.back() != L'\\' && folder.back() != L'/')
        folder += L'\\';
    Libraries libraries = {{L"en", folder + L"KVNXSTRES.dll"}};
    std::vector<std::wstring> codes = {L"fr", L"de"};
    WIN32_FIND_DATAW found;
    const HANDLE hFind = FindFirstFileW((folder + L"Localization\\*").c_str(), &found);
    for (BOOL b = hFind != INVALID_HANDLE_VALUE; b; b = FindNextFileW(hFind, &found))
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && found.cFileName[0] != L'.' &&
            std::find(codes.begin(), codes.end(), found.cFileName) == codes.end())
            codes.push_back(found.cFileName);
    if (hFind != INVALID_HANDLE_VALUE)
        FindClose(hFind);
    for (const std::wstring& code : codes)
        libraries.emplace_back(code, folder + L"Localization\\" + code + L"\\KVNXSTRES.dll");
    return libraries;
}

std::string TypeName(UINT type)
{
    const std::map<UINT, std::string> names = {{2, "bitmap"},   {3, "icon image"}, {4, "menu"},
                                               {5, "dialog"},   {14, "icon"},      {16, "version"},
                                               {24, "manifest"}};
    return names.count(type) ? names.at(type) : "resource type " + std::to_string(type);
}

// What every language must have alike, by place ("string 16", "dialog 115 control 3"...): the kind
// (which control or menu entry) and the text whose placeholders must match.
struct Entry
{
    std::string kind;
    std::wstring text;
};
using Places = std::map<std::string, Entry>;

// A library's places; what cannot be read and access keys used twice in a dialog or a menu's level
// go to problems.
bool Read(const std::wstring& code, const std::wstring& path, Places& places,
          std::vector<std::string>& problems)
{
    const std::string lang = kvui::Utf8(code) + ": ";
    HMODULE h =
        LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (h == nullptr)
    {
        problems.push_back(lang + "no library " + kvui::Utf8(path) + " (error " +
                           std::to_string(GetLastError()) + ")");
        return false;
    }
    std::map<std::string, std::map<wchar_t, std::string>> keys; // by dialog or menu level
    auto key = [&](const std::string& group, const std::string& place, const std::wstring& text)
    {
        const wchar_t c = kvui::Mnemonic(text);
        const auto [it, bFirst] = keys[group].emplace(c, place);
        if (c != 0 && !bFirst)
            problems.push_back(lang + place + ": access key " + kvui::Utf8(std::wstring(1, c)) + " also on " +
                               it->second);
    };
    for (UINT type : kvui::ResourceTypes(h))
        for (UINT id : type == 6 ? std::vector<UINT>() : kvui::ResourceIds(h, MAKEINTRESOURCEW(type)))
            places[TypeName(type) + " " + std::to_string(id)] = {};
    for (const auto& [id, text] : kvui::StringTable(h))
        places["string " + std::to_string(id)] = {"", text};
    for (UINT id : kvui::ResourceIds(h, RT_DIALOG))
    {
        const std::string d = "dialog " + std::to_string(id);
        kvui::DialogTemplate dialog;
        if (!kvui::ReadDialog(h, id, dialog))
            problems.push_back(lang + d + ": not an extended dialog template");
        places[d + " caption"] = {"", dialog.caption};
        for (size_t i = 0; i < dialog.controls.size(); ++i)
        {
            const kvui::DialogControl& c = dialog.controls[i];
            const bool bButton = c.windowClass == L"Button", bStatic = c.windowClass == L"Static";
            const std::string place = d + " control " + (i < 9 ? " " : "") + std::to_string(i + 1);
            places[place] = {"id " + std::to_string(static_cast<short>(c.id)) + " " +
                                 kvui::Utf8(c.windowClass) +
                                 (bButton || bStatic ? " type " + std::to_string(c.style & SS_TYPEMASK) : ""),
                             c.text};
            if (bButton || (bStatic && !(c.style & SS_NOPREFIX)))
                key(d, place, c.text);
        }
    }
    for (UINT id : kvui::ResourceIds(h, RT_MENU))
    {
        const std::string m = "menu " + std::to_string(id);
        std::vector<kvui::MenuEntry> entries;
        if (!kvui::ReadMenu(h, id, entries))
            problems.push_back(lang + m + ": not a menu template");
        for (size_t i = 0; i < entries.size(); ++i)
        {
            const kvui::MenuEntry& e = entries[i];
            const std::string place = m + " item " + (i < 9 ? " " : "") + std::to_string(i + 1);
            const std::string under = " under item " + std::to_string(e.parent + 1);
            places[place] = {(e.popup ? "popup"
                              : e.id  ? "command " + std::to_string(e.id)
                                      : "separator") +
                                 under,
                             e.text};
            key(m + under, place, e.text);
        }
    }
    FreeLibrary(h);
    return true;
}

// The findings under their count; the exit code.
int Report(const std::vector<std::string>& findings, const char* what)
{
    if (!findings.empty())
        std::cout << findings.size() << " " << what << ":\n";
    for (const std::string& line : findings)
        std::cout << line << "\n";
    return findings.empty() ? 0 : 1;
}

int Compare(const Libraries& libraries)
{
    std::vector<std::string> problems;
    std::map<std::wstring, Places> read; // the libraries that could be read
    for (const auto& [code, path] : libraries)
        if (!Read(code, path, read[code], problems))
            read.erase(code);
    const auto en = read.find(L"en");
    for (const auto& [code, path] : libraries)
    {
        const auto it = read.find(code);
        if (en == read.end() || it == read.end() || it == en)
            continue; // reported above
        const std::string lang = kvui::Utf8(code) + ": ";
        const Places &english = en->second, &other = it->second;
        for (const auto& [place, entry] : english)
        {
            const auto found = other.find(place);
            if (found == other.end())
                problems.push_back(lang + place + " missing");
            else if (found->second.kind != entry.kind)
                problems.push_back(lang + place + " is " + found->second.kind + ", in English " + entry.kind);
            else if (kvui::Conversions(found->second.text) != kvui::Conversions(entry.text))
                problems.push_back(lang + place + " has placeholders \"" +
                                   kvui::Conversions(found->second.text) + "\", in English \"" +
                                   kvui::Conversions(entry.text) + "\"");
        }
        for (const auto& [place, entry] : other)
            if (!english.count(place))
                problems.push_back(lang + place + " is not in English");
    }
    return Report(problems, "differences");
}

// The probe creates each dialog of each language, a process a DPI; the table shows every cell.
int Layout(const Libraries& libraries)
{
    std::vector<std::string> columns, failures;
    std::map<std::string, std::map<std::string, int>> table; // dialog, column: failures
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    for (DWORD dpi : {96, 144})
    {
        std::vector<std::wstring> args = {L"probe", std::to_wstring(dpi)};
        for (const auto& [code, path] : libraries)
        {
            args.push_back(code + L"=" + path);
            columns.push_back(kvui::Utf8(code) + " " + std::to_string(dpi));
        }
        std::pair<DWORD, std::string> run;
        {
            // A DPI that could not be set is what the probe reports first.
            const kvui::ScreenDpi screen(dpi);
            run = kvui::RunProgram(self, args, 60000);
        }
        if (run.first != 0)
            failures.push_back("probe at " + std::to_string(dpi) + " DPI: exit code " +
                               std::to_string(run.first));
        std::istringstream lines(run.second);
        for (std::string line; std::getline(lines, line);)
        {
            line.erase(line.find_last_not_of('\r') + 1);
            const size_t tab = line.find('\t'), tab2 = line.find('\t', tab + 1);
            const std::string dialog = line.substr(tab + 1, tab2 - tab - 1), what = line.substr(tab2 + 1);
            const std::string column = line.substr(0, tab) + " " + std::to_string(dpi);
            int& n = table[dialog][column];
            if (what != "ok")
                ++n, failures.push_back(column + " DPI, dialog " + dialog + ": " + what);
        }
    }
    std::string shown = "dialog";
    for (const std::string& column : columns)
        shown += "\t" + column;
    // Row 0: what the probe could not do at all (no library, another DPI).
    const auto row0 = table.find("0");
    const std::map<std::string, int> whole =
        row0 != table.end() ? row0->second : std::map<std::string, int>();
    for (auto& [dialog, cells] : table)
    {
        shown += "\n" + (dialog == "0" ? "library" : dialog);
        for (const std::string& column : columns)
        {
            if (!cells.count(column) && dialog != "0" && !whole.count(column))
                failures.push_back(column + " DPI, dialog " + dialog + ": not checked");
            shown += "\t" + (!cells.count(column) ? std::string("-")
                             : cells[column]      ? std::to_string(cells[column]) + " bad"
                                                  : "ok");
        }
    }
    std::cout << shown << "\n";
    if (table.empty())
        failures.push_back("no dialog checked");
    return Report(failures, "failures");
}

INT_PTR CALLBACK Quiet(HWND, UINT, WPARAM, LPARAM)
{
    return FALSE;
}

void Print(const std::wstring& code, UINT dialog, const std::wstring& what)
{
    std::cout << kvui::Utf8(code + L"\t" + std::to_wstring(dialog) + L"\t" + what + L"\n");
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

// "probe DPI CODE=LIBRARY...", counted from the DPI's place as 1.
int Probe(int argc, wchar_t** argv)
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

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring mode = argc > 1 ? argv[1] : L"";
    if (mode == L"probe")
        return Probe(argc - 1, argv + 1);
    if (argc != 3 || (mode != L"compare" && mode != L"layout"))
    {
        std::cout << "rescheck compare|layout FOLDER\n";
        return 2;
    }
    return mode == L"compare" ? Compare(Find(argv[2])) : Layout(Find(argv[2]));
}
