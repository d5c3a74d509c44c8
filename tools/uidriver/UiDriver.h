// Drives the windows of other processes the way a user would, by class, title and control id, for
// end-to-end tests and the demo. Works on desktops that are not the input desktop: nothing here
// needs the mouse, the foreground or a visible screen. Every wait is bounded; failures come back as
// null, false or an empty optional.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvui
{

// How long one message to another process may take before it counts as hung.
constexpr UINT kMessageTimeoutMs = 2000;

// Which top-level windows: empty strings and a zero process id match anything.
struct WindowQuery
{
    std::wstring className;
    std::wstring title;
    DWORD processId = 0;
    std::wstring desktop; // empty: the calling thread's desktop
    bool shownOnly = false;
};

// Matching top-level windows in z-order; empty when the desktop cannot be opened.
std::vector<HWND> FindWindows(const WindowQuery& query);
// The first match, polling for up to waitMs; null when none came.
HWND WaitForWindow(const WindowQuery& query, DWORD waitMs = 0);
// Shown by its owner. IsWindowVisible also asks the desktop, and only the input desktop is visible.
bool IsShown(HWND hWnd);
// Polls until the window is gone or hidden, at most waitMs.
bool WaitUntilGone(HWND hWnd, DWORD waitMs);

// A control as a user sees it. checked is -1 for anything but a check box or radio button.
struct Control
{
    HWND hWnd = nullptr;
    int id = 0;
    std::wstring className;
    std::wstring text;
    LONG style = 0;
    bool shown = false;
    bool enabled = false;
    int checked = -1;
};

// The window's descendants in z-order, nested ones included.
std::vector<Control> ListControls(HWND hParent);
// The descendant with this id (the first one, as GetDlgItem would for a direct child).
std::optional<Control> ReadControl(HWND hParent, int id);
// The window's current text, asked of its owner (cross-process safe); at most 8095 units.
std::optional<std::wstring> ReadText(HWND hWnd);

// Clicks an enabled, shown button: BN_CLICKED reaches its parent as from a real click.
bool ClickButton(HWND hParent, int id);
// Replaces an enabled edit control's text as typing would, with EN_CHANGE to its parent.
bool TypeText(HWND hParent, int id, const std::wstring& text);
// Presses and releases a key on a control as its window receives a typed key (WM_KEYDOWN, the
// character if the key makes one, WM_KEYUP), with no modifier held; true once the control's thread
// has taken them.
bool PressKey(HWND hParent, int id, UINT vk);
// Selects a combo box item and tells the parent with CBN_SELCHANGE, as a user's pick does.
bool SelectComboIndex(HWND hParent, int id, int index);
bool SelectComboText(HWND hParent, int id, const std::wstring& text);
// The text in UTF-8, as the tools print it.
std::string Utf8(const std::wstring& text);

// Asks the window to close (WM_CLOSE), as its caption button does.
bool CloseWindow(HWND hWnd);

// The processes still running that the given one started, also after it has ended. Ids are reused:
// a process that names the id as its parent but began before the given one is another's child.
struct ChildProcess
{
    DWORD id;
    std::wstring exe;
};
std::vector<ChildProcess> ChildProcesses(HANDLE hParent);
// A program run to its end (at most waitMs): its exit code (0xDEADBEEF when it did not end) and its
// standard output.
std::pair<DWORD, std::string> RunProgram(const std::wstring& exe, const std::vector<std::wstring>& args,
                                         DWORD waitMs);

// The screen's logical DPI for the processes started meanwhile (each reads it once as it starts),
// back to the default when the object goes.
class ScreenDpi
{
public:
    explicit ScreenDpi(DWORD dwDpi) { Set(dwDpi); }
    ~ScreenDpi() { RegDeleteKeyValueW(HKEY_CURRENT_USER, kDesktop, L"LogPixels"); }
    ScreenDpi(const ScreenDpi&) = delete;
    ScreenDpi& operator=(const ScreenDpi&) = delete;

    bool Set(DWORD dwDpi) const
    {
        return !RegSetKeyValueW(HKEY_CURRENT_USER, kDesktop, L"LogPixels", REG_DWORD, &dwDpi, sizeof dwDpi);
    }

private:
    static constexpr const wchar_t* kDesktop = L"Control Panel\\Desktop";
};

// A tray icon, reached through the window that owns it.
struct TrayIcon
{
    WindowQuery owner;
    UINT callbackMessage = WM_USER + 1;
    UINT iconId = 1;
};

// Right-clicks the icon and waits for its popup menu (class "#32768") on the owner's desktop; the
// menu window, or null.
HWND OpenTrayMenu(const TrayIcon& icon, DWORD waitMs);
// Picks the item with this command id with the keyboard, so the owner gets WM_COMMAND as from a
// user. The open menu's items are read from the menu itself where the system allows that (Wine
// keeps a menu's items in its own process); otherwise layout must be a menu with the same items.
// False, with the menu closed, when the item is not there, greyed, or the pick did not end the menu.
bool PickMenuItem(HWND hMenuWindow, UINT commandId, HMENU layout, DWORD waitMs);
// Whether this process can read the open menu's items; Wine keeps another process's menu to itself.
bool MenuReadable(HWND hMenuWindow);
// Closes the menu with Escape, without a command.
bool EscapeMenu(HWND hMenuWindow, DWORD waitMs);
// A menu resource of a module loaded as data (its popup subMenu, or the menu itself for -1), for
// PickMenuItem's layout; the caller destroys it.
HMENU LoadMenuLayout(const std::wstring& module, UINT menuId, int subMenu = 0);

// Drags a list of files from this process onto the window with OLE, as a drag from a file manager
// does: the cursor stands over the window's centre while the target is asked a few times, then the
// files are dropped there. With asText the same names travel as CF_UNICODETEXT instead, which a
// file drop target must refuse. Call on a thread of the window's desktop. The effect the target
// chose (DROPEFFECT_NONE when it refused); empty optional when the drag could not start.
std::optional<DWORD> DragFiles(HWND hTarget, const std::vector<std::wstring>& paths, bool asText = false);

// The clipboard's CF_UNICODETEXT, at most 8095 units; empty optional when there is none.
std::optional<std::wstring> ClipboardText();

} // namespace kvui
