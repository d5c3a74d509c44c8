#include "ResourceTemplates.h"

#include <regex>

namespace kvui
{
namespace
{

// A resource's bytes, or an empty view.
struct Bytes
{
    const BYTE* p = nullptr;
    const BYTE* end = nullptr;
};

Bytes Find(HMODULE hModule, LPCWSTR type, UINT id)
{
    HRSRC hFound = FindResourceW(hModule, MAKEINTRESOURCEW(id), type);
    const auto* p = hFound ? static_cast<const BYTE*>(LockResource(LoadResource(hModule, hFound))) : nullptr;
    return p ? Bytes{p, p + SizeofResource(hModule, hFound)} : Bytes{};
}

// Reads the template's fields in order; any read past the end leaves it failed.
struct Reader
{
    Bytes b;
    bool bFailed = false;

    template <typename T> T Take()
    {
        T value{};
        if (b.end - b.p < static_cast<ptrdiff_t>(sizeof value))
            bFailed = true;
        else
            memcpy(&value, b.p, sizeof value);
        b.p += bFailed ? 0 : sizeof value;
        return value;
    }
    std::wstring Text()
    {
        std::wstring text;
        for (wchar_t c; !bFailed && (c = Take<wchar_t>()) != 0;)
            text += c;
        return text;
    }
    bool AtOrdinal() const { return b.end - b.p >= 2 && *reinterpret_cast<const WORD*>(b.p) == 0xFFFF; }
    // A name or an ordinal (0xFFFF, then the number), as "#number".
    std::wstring NameOrOrdinal()
    {
        if (AtOrdinal())
            return Take<WORD>(), L"#" + std::to_wstring(Take<WORD>());
        return Text();
    }
    void AlignTo(const BYTE* base, size_t n)
    {
        b.p = base + (b.p - base + n - 1) / n * n;
        bFailed |= b.p > b.end;
    }
};

BOOL CALLBACK AddName(HMODULE, LPCWSTR, LPWSTR name, LONG_PTR list)
{
    if (IS_INTRESOURCE(name))
        reinterpret_cast<std::vector<UINT>*>(list)->push_back(
            static_cast<UINT>(reinterpret_cast<ULONG_PTR>(name)));
    return TRUE;
}

BOOL CALLBACK AddType(HMODULE, LPWSTR type, LONG_PTR list)
{
    return AddName(nullptr, nullptr, type, list);
}

} // namespace

std::vector<UINT> ResourceIds(HMODULE hModule, LPCWSTR type)
{
    std::vector<UINT> ids;
    EnumResourceNamesW(hModule, type, AddName, reinterpret_cast<LONG_PTR>(&ids));
    return ids;
}

std::vector<UINT> ResourceTypes(HMODULE hModule)
{
    std::vector<UINT> types;
    EnumResourceTypesW(hModule, AddType, reinterpret_cast<LONG_PTR>(&types));
    return types;
}

std::map<UINT, std::wstring> StringTable(HMODULE hModule)
{
    std::map<UINT, std::wstring> strings;
    for (UINT block : ResourceIds(hModule, RT_STRING))
    {
        // Sixteen strings a block, each counted; block n holds ids (n - 1) * 16 onwards.
        Reader r{Find(hModule, RT_STRING, block)};
        for (UINT i = 0; i < 16 && !r.bFailed; ++i)
        {
            std::wstring text(r.Take<WORD>(), L'\0');
            for (wchar_t& c : text)
                c = r.Take<wchar_t>();
            if (!text.empty() && !r.bFailed)
                strings[(block - 1) * 16 + i] = text;
        }
    }
    return strings;
}

bool ReadDialog(HMODULE hModule, UINT id, DialogTemplate& dialog)
{
    static const wchar_t* const kClasses[] = {L"Button",  L"Edit",      L"Static",
                                              L"ListBox", L"ScrollBar", L"ComboBox"};
    Reader r{Find(hModule, RT_DIALOG, id)};
    const BYTE* base = r.b.p;
    if (r.Take<WORD>() != 1 || r.Take<WORD>() != 0xFFFF) // DLGTEMPLATEEX only
        return false;
    r.Take<DWORD>(); // help id
    r.Take<DWORD>(); // extended style
    const DWORD style = r.Take<DWORD>();
    const WORD count = r.Take<WORD>();
    r.b.p += 4 * sizeof(short); // position and size
    r.NameOrOrdinal();          // menu
    r.NameOrOrdinal();          // class
    dialog.caption = r.Text();
    if (style & (DS_SETFONT | DS_SHELLFONT))
    {
        r.b.p += 2 * sizeof(WORD) + 2; // point size, weight, italic, character set
        r.Text();
    }
    dialog.controls.clear();
    for (WORD i = 0; i < count && !r.bFailed; ++i)
    {
        r.AlignTo(base, 4);
        DialogControl control;
        r.Take<DWORD>(); // help id
        r.Take<DWORD>(); // extended style
        control.style = r.Take<DWORD>();
        r.b.p += 4 * sizeof(short);
        control.id = r.Take<DWORD>();
        control.windowClass = r.NameOrOrdinal();
        if (control.windowClass.size() == 4 && control.windowClass >= L"#128" &&
            control.windowClass <= L"#133")
            control.windowClass = kClasses[std::stoi(control.windowClass.substr(1)) - 128];
        const bool bResource = r.AtOrdinal();
        control.text = r.NameOrOrdinal();
        if (bResource)
            control.text.clear();
        r.b.p += r.Take<WORD>(); // creation data
        dialog.controls.push_back(control);
    }
    return !r.bFailed && r.b.p <= r.b.end;
}

bool ReadMenu(HMODULE hModule, UINT id, std::vector<MenuEntry>& entries)
{
    Reader r{Find(hModule, RT_MENU, id)};
    if (r.Take<WORD>() != 0) // a plain menu template, not an extended one
        return false;
    r.b.p += r.Take<WORD>();
    entries.clear();
    // The popups still open, innermost last; an entry flagged MF_END closes its level.
    std::vector<int> open{-1};
    while (!r.bFailed && !open.empty())
    {
        const WORD flags = r.Take<WORD>();
        MenuEntry entry;
        entry.parent = open.back();
        entry.popup = (flags & MF_POPUP) != 0;
        entry.id = entry.popup ? 0 : r.Take<WORD>();
        entry.text = r.Text();
        entries.push_back(entry);
        if (flags & MF_END)
            open.pop_back();
        if (entry.popup)
            open.push_back(static_cast<int>(entries.size()) - 1);
    }
    return !r.bFailed;
}

std::string Conversions(const std::wstring& text)
{
    std::string found;
    const std::wregex conversion(L"%(%|[-+ #0-9.*]*([hlLqjztwI]*.?))");
    for (std::wsregex_iterator it(text.begin(), text.end(), conversion), end; it != end; ++it)
        if (it->str(1) != L"%")
            found += (it->length(2) ? std::string((*it)[2].first, (*it)[2].second) : "%") + " ";
    return found;
}

wchar_t Mnemonic(const std::wstring& text)
{
    for (size_t i = text.find(L'&'); i != std::wstring::npos && i + 1 < text.size();
         i = text.find(L'&', i + 2))
        if (text[i + 1] != L'&')
            return static_cast<wchar_t>(reinterpret_cast<ULONG_PTR>(
                CharUpperW(reinterpret_cast<LPWSTR>(static_cast<ULONG_PTR>(text[i + 1])))));
    return 0;
}

} // namespace kvui
