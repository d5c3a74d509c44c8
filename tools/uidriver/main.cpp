// uidriver: the UI driver library for scripts. One value per line on stdout, UTF-8; exit code 0 on
// success, 1 when the action failed, 2 on bad usage.
#include "UiDriver.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cwchar>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace
{

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

const char kUsageText[] =
    "usage: uidriver COMMAND [ARGS]\n"
    "  find [--class C] [--title T] [--pid N] [--desktop D] [--wait MS] [--shown]\n"
    "                                  the first matching top-level window, as 0x...\n"
    "  controls HWND                   one line per control: id class shown enabled checked style text\n"
    "                                  (tab-separated; \\ \\t \\r \\n escaped in the text; checked -1: no "
    "check)\n"
    "  text HWND [ID]                  the window's or its control's text\n"
    "  click HWND ID                   clicks a button\n"
    "  type HWND ID TEXT               replaces an edit control's text\n"
    "  key HWND ID (enter|escape|VK)      presses a key on a control, no modifier held\n"
    "  select HWND ID (INDEX|TEXT)     selects a combo box item by index or exact text\n"
    "  traymenu [--class C] [--title T] [--pid N] [--desktop D] [--callback MSG] [--icon ID]\n"
    "           [--layout MODULE,MENUID[,SUBMENU]] [--wait MS] (--pick CMDID | --escape | --open)\n"
    "                                  opens a tray icon's menu through its owner window; --open prints\n"
    "                                  the menu window and leaves it open. Where the menu's items cannot\n"
    "                                  be read (Wine), --layout names a menu resource with the same items\n"
    "  clipboard                       the clipboard's text\n"
    "  close HWND                      asks the window to close\n"
    "  drag-files HWND PATH...         drags the files onto the window from here and drops them;\n"
    "                                  prints the effect the window chose (0: refused)\n"
    "Numbers may be decimal or 0x hex.\n";

void Print(const std::wstring& text)
{
    std::string utf8 = kvui::Utf8(text) + '\n';
    fwrite(utf8.data(), 1, utf8.size(), stdout);
}

std::wstring Hex(ULONG_PTR value)
{
    wchar_t sz[32] = {};
    swprintf(sz, 32, L"0x%llx", static_cast<unsigned long long>(value));
    return sz;
}

std::optional<unsigned long long> Number(const std::wstring& text)
{
    if (text.empty())
        return std::nullopt;
    wchar_t* pEnd = nullptr;
    const unsigned long long value = wcstoull(text.c_str(), &pEnd, 0);
    if (pEnd == nullptr || *pEnd != L'\0' || text[0] == L'-')
        return std::nullopt;
    return value;
}

std::optional<HWND> Window(const std::wstring& text)
{
    const auto value = Number(text);
    if (!value)
        return std::nullopt;
    return reinterpret_cast<HWND>(static_cast<ULONG_PTR>(*value));
}

std::wstring Escaped(const std::wstring& text)
{
    std::wstring out;
    for (wchar_t ch : text)
        switch (ch)
        {
        case L'\\':
            out += L"\\\\";
            break;
        case L'\t':
            out += L"\\t";
            break;
        case L'\r':
            out += L"\\r";
            break;
        case L'\n':
            out += L"\\n";
            break;
        default:
            out += ch;
        }
    return out;
}

// --name value options and --flag switches after the sub-command; anything else is positional.
struct Arguments
{
    std::map<std::wstring, std::wstring> options;
    std::vector<std::wstring> positional;
    bool bad = false;

    Arguments(int argc, wchar_t** argv, std::initializer_list<const wchar_t*> flags)
    {
        for (int i = 2; i < argc; ++i)
        {
            const std::wstring arg = argv[i];
            if (arg.rfind(L"--", 0) != 0)
            {
                positional.push_back(arg);
                continue;
            }
            bool isFlag = false;
            for (const wchar_t* flag : flags)
                isFlag = isFlag || arg == flag;
            if (isFlag)
                options[arg] = L"1";
            else if (i + 1 < argc)
                options[arg] = argv[++i];
            else
                bad = true;
        }
    }
    bool Has(const wchar_t* name) const { return options.count(name) != 0; }
    std::wstring Text(const wchar_t* name) const
    {
        auto it = options.find(name);
        return it != options.end() ? it->second : std::wstring();
    }
    // The option's number, the default when absent; nullopt when it is not a number.
    std::optional<unsigned long long> Value(const wchar_t* name, unsigned long long def) const
    {
        return Has(name) ? Number(Text(name)) : std::optional<unsigned long long>(def);
    }
};

bool Query(const Arguments& args, kvui::WindowQuery& query)
{
    const auto pid = args.Value(L"--pid", 0);
    if (!pid)
        return false;
    query.className = args.Text(L"--class");
    query.title = args.Text(L"--title");
    query.desktop = args.Text(L"--desktop");
    query.processId = static_cast<DWORD>(*pid);
    query.shownOnly = args.Has(L"--shown");
    return true;
}

int Find(const Arguments& args)
{
    kvui::WindowQuery query;
    const auto wait = args.Value(L"--wait", 0);
    if (!Query(args, query) || !wait || !args.positional.empty())
        return kUsage;
    HWND hWnd = kvui::WaitForWindow(query, static_cast<DWORD>(*wait));
    if (hWnd == nullptr)
        return kFailed;
    Print(Hex(reinterpret_cast<ULONG_PTR>(hWnd)));
    return kOk;
}

int Controls(HWND hWnd)
{
    if (!IsWindow(hWnd))
        return kFailed;
    for (const kvui::Control& c : kvui::ListControls(hWnd))
        Print(std::to_wstring(c.id) + L"\t" + c.className + L"\t" + (c.shown ? L"1" : L"0") + L"\t" +
              (c.enabled ? L"1" : L"0") + L"\t" + std::to_wstring(c.checked) + L"\t" +
              Hex(static_cast<DWORD>(c.style)) + L"\t" + Escaped(c.text));
    return kOk;
}

int Text(HWND hWnd, const std::vector<std::wstring>& positional)
{
    HWND hTarget = hWnd;
    if (positional.size() == 2)
    {
        const auto id = Number(positional[1]);
        if (!id)
            return kUsage;
        const auto control = kvui::ReadControl(hWnd, static_cast<int>(*id));
        hTarget = control ? control->hWnd : nullptr;
    }
    const auto text = kvui::ReadText(hTarget);
    if (!text)
        return kFailed;
    Print(*text);
    return kOk;
}

int TrayMenu(const Arguments& args)
{
    kvui::TrayIcon icon;
    const auto callback = args.Value(L"--callback", icon.callbackMessage);
    const auto iconId = args.Value(L"--icon", icon.iconId);
    const auto wait = args.Value(L"--wait", 5000);
    const auto pick = args.Value(L"--pick", 0);
    const int actions =
        (args.Has(L"--pick") ? 1 : 0) + (args.Has(L"--escape") ? 1 : 0) + (args.Has(L"--open") ? 1 : 0);
    if (!Query(args, icon.owner) || !callback || !iconId || !wait || !pick || actions != 1 ||
        !args.positional.empty())
        return kUsage;
    icon.callbackMessage = static_cast<UINT>(*callback);
    icon.iconId = static_cast<UINT>(*iconId);

    HMENU layout = nullptr;
    if (args.Has(L"--layout"))
    {
        // MODULE,MENUID[,SUBMENU]
        std::wstring layoutText = args.Text(L"--layout");
        std::vector<std::wstring> parts;
        for (size_t at; (at = layoutText.find(L',')) != std::wstring::npos; layoutText.erase(0, at + 1))
            parts.push_back(layoutText.substr(0, at));
        parts.push_back(layoutText);
        const auto menuId = parts.size() >= 2 ? Number(parts[1]) : std::nullopt;
        const auto subMenu = parts.size() == 3 ? Number(parts[2]) : std::optional<unsigned long long>(0);
        if (parts.size() > 3 || !menuId || !subMenu)
            return kUsage;
        layout = kvui::LoadMenuLayout(parts[0], static_cast<UINT>(*menuId), static_cast<int>(*subMenu));
        if (layout == nullptr)
        {
            fputs("uidriver: cannot load that menu\n", stderr);
            return kFailed;
        }
    }

    int result = kFailed;
    HWND hMenu = kvui::OpenTrayMenu(icon, static_cast<DWORD>(*wait));
    if (hMenu == nullptr)
        fputs("uidriver: no menu came\n", stderr);
    else if (args.Has(L"--open"))
    {
        Print(Hex(reinterpret_cast<ULONG_PTR>(hMenu)));
        result = kOk;
    }
    else if (args.Has(L"--escape"))
        result = kvui::EscapeMenu(hMenu, static_cast<DWORD>(*wait)) ? kOk : kFailed;
    else if (layout == nullptr && !kvui::MenuReadable(hMenu))
    {
        kvui::EscapeMenu(hMenu, static_cast<DWORD>(*wait));
        fputs("uidriver: the menu's items cannot be read from here: give --layout\n", stderr);
    }
    else
        result = kvui::PickMenuItem(hMenu, static_cast<UINT>(*pick), layout, static_cast<DWORD>(*wait))
                     ? kOk
                     : kFailed;
    if (layout != nullptr)
        DestroyMenu(layout);
    return result;
}

int ClipboardText()
{
    const auto text = kvui::ClipboardText();
    if (!text)
        return kFailed;
    Print(*text);
    return kOk;
}

int DragFiles(HWND hWnd, const std::vector<std::wstring>& paths)
{
    const auto effect = kvui::DragFiles(hWnd, paths);
    if (!effect)
        return kFailed;
    Print(std::to_wstring(*effect));
    return kOk;
}

int Run(int argc, wchar_t** argv)
{
    if (argc < 2)
        return kUsage;
    const std::wstring command = argv[1];
    const Arguments args(argc, argv, {L"--shown", L"--escape", L"--open"});
    if (args.bad)
        return kUsage;
    if (command == L"find")
        return Find(args);
    if (command == L"traymenu")
        return TrayMenu(args);
    if (command == L"clipboard")
        return args.positional.empty() && args.options.empty() ? ClipboardText() : kUsage;

    // The rest name a window first, then positional arguments only.
    const std::vector<std::wstring>& p = args.positional;
    const auto hWnd = p.empty() ? std::nullopt : Window(p[0]);
    if (!hWnd || !args.options.empty())
        return kUsage;
    const auto id = p.size() >= 2 ? Number(p[1]) : std::nullopt;
    if (command == L"controls" && p.size() == 1)
        return Controls(*hWnd);
    if (command == L"text" && (p.size() == 1 || p.size() == 2))
        return Text(*hWnd, p);
    if (command == L"close" && p.size() == 1)
        return kvui::CloseWindow(*hWnd) ? kOk : kFailed;
    if (command == L"drag-files" && p.size() >= 2)
        return DragFiles(*hWnd, std::vector<std::wstring>(p.begin() + 1, p.end()));
    if (!id)
        return kUsage;
    const int nId = static_cast<int>(*id);
    if (command == L"click" && p.size() == 2)
        return kvui::ClickButton(*hWnd, nId) ? kOk : kFailed;
    if (command == L"type" && p.size() == 3)
        return kvui::TypeText(*hWnd, nId, p[2]) ? kOk : kFailed;
    if (command == L"key" && p.size() == 3)
    {
        const auto vk = p[2] == L"enter"    ? std::optional<unsigned long long>(VK_RETURN)
                        : p[2] == L"escape" ? std::optional<unsigned long long>(VK_ESCAPE)
                                            : Number(p[2]);
        return vk && kvui::PressKey(*hWnd, nId, static_cast<UINT>(*vk)) ? kOk : kFailed;
    }
    if (command == L"select" && p.size() == 3)
    {
        const auto index = Number(p[2]);
        const bool bDone = index ? kvui::SelectComboIndex(*hWnd, nId, static_cast<int>(*index))
                                 : kvui::SelectComboText(*hWnd, nId, p[2]);
        return bDone ? kOk : kFailed;
    }
    return kUsage;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    // "\n", not "\r\n": bash reads the lines.
    _setmode(_fileno(stdout), _O_BINARY);
    const int result = Run(argc, argv);
    if (result == kUsage)
        fputs(kUsageText, stderr);
    return result;
}
