// The resource libraries of the three languages as built: English beside this program, French and
// German in Localization\<code>\. Every difference is listed by language, resource and id.
#include "ResourceTemplates.h"
#include "test_agent_support.h"

#include <map>

using namespace kvtest;

namespace
{

const wchar_t* const kCodes[] = {L"en", L"fr", L"de"};

std::wstring LibraryPath(const std::wstring& code)
{
    return ModuleFolder() + (code == L"en" ? L"" : L"Localization\\" + code + L"\\") + L"KVNXSTRES.dll";
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
bool Read(const std::wstring& code, Places& places, std::vector<std::string>& problems)
{
    const std::string lang = Narrow(code) + ": ";
    HMODULE h = LoadLibraryExW(LibraryPath(code).c_str(), nullptr,
                               LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (h == nullptr)
    {
        problems.push_back(lang + "no library " + Narrow(LibraryPath(code)) + " (error " +
                           std::to_string(GetLastError()) + ")");
        return false;
    }
    std::map<std::string, std::map<wchar_t, std::string>> keys; // by dialog or menu level
    auto key = [&](const std::string& group, const std::string& place, const std::wstring& text)
    {
        const wchar_t c = kvui::Mnemonic(text);
        const auto [it, bFirst] = keys[group].emplace(c, place);
        if (c != 0 && !bFirst)
            problems.push_back(lang + place + ": access key " + Narrow(std::wstring(1, c)) + " also on " +
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
            places[place] = {"id " + std::to_string(static_cast<short>(c.id)) + " " + Narrow(c.windowClass) +
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

std::string Report(const std::vector<std::string>& lines)
{
    std::string report;
    for (const std::string& line : lines)
        report += line + "\n";
    return report;
}

} // namespace

TEST(Translations, EachLanguageHoldsEnglishsIdsControlsAndPlaceholdersWithDistinctAccessKeys)
{
    std::vector<std::string> problems;
    std::map<std::wstring, Places> libraries; // those that could be read
    for (const wchar_t* code : kCodes)
        if (!Read(code, libraries[code], problems))
            libraries.erase(code);
    ASSERT_TRUE(libraries.count(L"en")) << Report(problems);
    const Places& english = libraries[L"en"];
    for (const wchar_t* code : {L"fr", L"de"})
    {
        if (!libraries.count(code))
            continue; // reported above
        const std::string lang = Narrow(code) + ": ";
        const Places& other = libraries[code];
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
    EXPECT_TRUE(problems.empty()) << problems.size() << " differences:\n" << Report(problems);
}

// The probe creates each dialog of each language, a process a DPI; the table shows every cell.
TEST(Translations, EveryDialogShowsItsTextsWholeAndNoControlsOverlapAt96And144Dpi)
{
    std::vector<std::string> columns, failures;
    std::map<std::string, std::map<std::string, int>> table; // dialog, column: failures
    for (DWORD dpi : {96, 144})
    {
        std::vector<std::wstring> args = {std::to_wstring(dpi)};
        for (const wchar_t* code : kCodes)
        {
            args.push_back(std::wstring(code) + L"=" + LibraryPath(code));
            columns.push_back(Narrow(code) + " " + std::to_string(dpi));
        }
        std::pair<DWORD, std::string> run;
        {
            const ScreenDpi screen(dpi);
            ASSERT_TRUE(screen);
            run = RunProgram(L"dialog_layout_probe.exe", args, 60000);
        }
        EXPECT_EQ(0u, run.first) << "probe at " << dpi << " DPI";
        for (const std::string& line : Lines(run.second))
        {
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
    EXPECT_FALSE(table.empty()) << "no dialog checked";
    EXPECT_TRUE(failures.empty()) << failures.size() << " failures:\n" << Report(failures);
}
