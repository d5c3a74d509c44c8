// The string tables, dialog and menu templates of a resource library read straight from its
// resources, for the checks that compare the libraries of the languages and lay their dialogs out.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace kvui
{

struct DialogControl
{
    DWORD id = 0;
    std::wstring windowClass; // the system classes by name: "Button", "Static"...
    DWORD style = 0;
    std::wstring text; // empty when the template names a resource (icons, bitmaps)
};

struct DialogTemplate
{
    std::wstring caption;
    std::vector<DialogControl> controls;
};

struct MenuEntry
{
    int parent = -1; // index of the popup holding it; -1 for the menu's top level
    bool popup = false;
    UINT id = 0; // 0 for popups and separators
    std::wstring text;
};

// The integer names of a module's resources of one type, and its integer resource types.
std::vector<UINT> ResourceIds(HMODULE hModule, LPCWSTR type);
std::vector<UINT> ResourceTypes(HMODULE hModule);

// Every string that is not empty, by id.
std::map<UINT, std::wstring> StringTable(HMODULE hModule);

// False when the resource is missing or not an extended dialog template or a plain menu template.
bool ReadDialog(HMODULE hModule, UINT id, DialogTemplate& dialog);
bool ReadMenu(HMODULE hModule, UINT id, std::vector<MenuEntry>& entries);

// The printf conversions of a text as length modifier plus conversion, each followed by a space:
// "ls d ". A lone "%" at the end comes back as "% ", so a stray percent sign counts too.
std::string Conversions(const std::wstring& text);

// The access key a text marks with "&" (upper case), or 0; "&&" is a plain ampersand.
wchar_t Mnemonic(const std::wstring& text);

} // namespace kvui
