#include "UiDriver.h"

#include <ole2.h>
#include <shlobj.h>
#include <tlhelp32.h>

#include <cstring>
#include <cwchar>

namespace kvui
{

namespace
{

constexpr DWORD kPollMs = 20;
constexpr int kTextUnits = 8096;

bool SameClass(const wchar_t* a, const std::wstring& b)
{
    // Class names are not case-sensitive.
    return b.empty() || _wcsicmp(a, b.c_str()) == 0;
}

// A message the other side must answer within the timeout; false when it did not or is hung.
bool Ask(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam, LRESULT* pResult = nullptr)
{
    DWORD_PTR result = 0;
    if (SendMessageTimeoutW(hWnd, uMsg, wParam, lParam, SMTO_ABORTIFHUNG | SMTO_BLOCK, kMessageTimeoutMs,
                            &result) == 0)
        return false;
    if (pResult != nullptr)
        *pResult = static_cast<LRESULT>(result);
    return true;
}

bool IsEnabledAndShown(HWND hWnd)
{
    return IsShown(hWnd) && IsWindowEnabled(hWnd);
}

int CheckState(HWND hWnd, const wchar_t* szClass, LONG style)
{
    if (_wcsicmp(szClass, L"Button") != 0)
        return -1;
    switch (style & BS_TYPEMASK)
    {
    case BS_CHECKBOX:
    case BS_AUTOCHECKBOX:
    case BS_3STATE:
    case BS_AUTO3STATE:
    case BS_RADIOBUTTON:
    case BS_AUTORADIOBUTTON:
    {
        LRESULT state = 0;
        return Ask(hWnd, BM_GETCHECK, 0, 0, &state) ? static_cast<int>(state) : -1;
    }
    default:
        return -1;
    }
}

Control Describe(HWND hWnd)
{
    Control c;
    c.hWnd = hWnd;
    c.id = GetDlgCtrlID(hWnd);
    wchar_t szClass[256] = {};
    GetClassNameW(hWnd, szClass, 256);
    c.className = szClass;
    c.style = GetWindowLongW(hWnd, GWL_STYLE);
    c.text = ReadText(hWnd).value_or(std::wstring());
    c.shown = IsShown(hWnd);
    c.enabled = IsWindowEnabled(hWnd) != FALSE;
    c.checked = CheckState(hWnd, szClass, c.style);
    return c;
}

HWND ControlById(HWND hParent, int id)
{
    HWND hDirect = GetDlgItem(hParent, id);
    if (hDirect != nullptr)
        return hDirect;
    struct Search
    {
        int id;
        HWND found;
    } search{id, nullptr};
    EnumChildWindows(
        hParent,
        [](HWND hWnd, LPARAM lParam) -> BOOL
        {
            auto& s = *reinterpret_cast<Search*>(lParam);
            if (GetDlgCtrlID(hWnd) != s.id)
                return TRUE;
            s.found = hWnd;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

// Tells the control's parent, as the control itself would.
bool Notify(HWND hControl, WORD wCode)
{
    HWND hParent = GetParent(hControl);
    return hParent != nullptr && PostMessageW(hParent, WM_COMMAND, MAKEWPARAM(GetDlgCtrlID(hControl), wCode),
                                              reinterpret_cast<LPARAM>(hControl)) != FALSE;
}

void PostKey(HWND hWnd, UINT vk)
{
    const LPARAM scan = static_cast<LPARAM>(MapVirtualKeyW(vk, MAPVK_VK_TO_VSC)) << 16;
    PostMessageW(hWnd, WM_KEYDOWN, vk, scan | 1);
    PostMessageW(hWnd, WM_KEYUP, vk, scan | 1 | (static_cast<LPARAM>(3) << 30));
}

struct MenuTarget
{
    bool found = false;
    bool greyed = false;
    int position = 0; // among the items the keyboard stops at
    int stops = 0;    // how many such items there are
};

// Where the command sits in the menu, counting what the arrow keys stop at: everything but separators.
MenuTarget Locate(HMENU hMenu, UINT commandId, bool bKnowsState)
{
    MenuTarget target;
    const int count = GetMenuItemCount(hMenu);
    for (int i = 0; i < count; ++i)
    {
        const UINT state = GetMenuState(hMenu, static_cast<UINT>(i), MF_BYPOSITION);
        if (state != static_cast<UINT>(-1) && (state & MF_SEPARATOR) != 0 && (state & MF_POPUP) == 0)
            continue;
        if (!target.found && GetMenuItemID(hMenu, i) == commandId)
        {
            target.found = true;
            target.position = target.stops;
            target.greyed = bKnowsState && (state & (MF_GRAYED | MF_DISABLED)) != 0;
        }
        ++target.stops;
    }
    return target;
}

HMENU ShownMenu(HWND hMenuWindow)
{
    LRESULT menu = 0;
    return Ask(hMenuWindow, MN_GETHMENU, 0, 0, &menu) ? reinterpret_cast<HMENU>(menu) : nullptr;
}

} // namespace

std::vector<HWND> FindWindows(const WindowQuery& query)
{
    struct Search
    {
        const WindowQuery& query;
        std::vector<HWND> found;
    } search{query, {}};
    HDESK hDesk = query.desktop.empty() ? GetThreadDesktop(GetCurrentThreadId())
                                        : OpenDesktopW(query.desktop.c_str(), 0, FALSE,
                                                       DESKTOP_READOBJECTS | DESKTOP_ENUMERATE);
    if (hDesk == nullptr)
        return search.found;
    EnumDesktopWindows(
        hDesk,
        [](HWND hWnd, LPARAM lParam) -> BOOL
        {
            auto& s = *reinterpret_cast<Search*>(lParam);
            wchar_t szClass[256] = {}, szTitle[512] = {};
            GetClassNameW(hWnd, szClass, 256);
            GetWindowTextW(hWnd, szTitle, 512);
            DWORD dwProcess = 0;
            GetWindowThreadProcessId(hWnd, &dwProcess);
            if (SameClass(szClass, s.query.className) &&
                (s.query.title.empty() || s.query.title == szTitle) &&
                (s.query.processId == 0 || s.query.processId == dwProcess) &&
                (!s.query.shownOnly || IsShown(hWnd)))
                s.found.push_back(hWnd);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&search));
    if (!query.desktop.empty())
        CloseDesktop(hDesk);
    return search.found;
}

HWND WaitForWindow(const WindowQuery& query, DWORD waitMs)
{
    const ULONGLONG end = GetTickCount64() + waitMs;
    for (;;)
    {
        const std::vector<HWND> found = FindWindows(query);
        if (!found.empty())
            return found.front();
        if (GetTickCount64() >= end)
            return nullptr;
        Sleep(kPollMs);
    }
}

bool IsShown(HWND hWnd)
{
    return IsWindow(hWnd) && (GetWindowLongW(hWnd, GWL_STYLE) & WS_VISIBLE) != 0;
}

bool WaitUntilGone(HWND hWnd, DWORD waitMs)
{
    const ULONGLONG end = GetTickCount64() + waitMs;
    while (IsShown(hWnd))
    {
        if (GetTickCount64() >= end)
            return false;
        Sleep(kPollMs);
    }
    return true;
}

std::vector<Control> ListControls(HWND hParent)
{
    std::vector<HWND> children;
    if (IsWindow(hParent))
        EnumChildWindows(
            hParent,
            [](HWND hWnd, LPARAM lParam) -> BOOL
            {
                reinterpret_cast<std::vector<HWND>*>(lParam)->push_back(hWnd);
                return TRUE;
            },
            reinterpret_cast<LPARAM>(&children));
    std::vector<Control> controls;
    controls.reserve(children.size());
    for (HWND hWnd : children)
        controls.push_back(Describe(hWnd));
    return controls;
}

std::optional<Control> ReadControl(HWND hParent, int id)
{
    HWND hWnd = ControlById(hParent, id);
    if (hWnd == nullptr)
        return std::nullopt;
    return Describe(hWnd);
}

// A list box's items, a line each.
std::optional<std::wstring> ReadListItems(HWND hWnd)
{
    LRESULT nCount = 0;
    if (!Ask(hWnd, LB_GETCOUNT, 0, 0, &nCount) || nCount < 0)
        return std::nullopt;
    std::wstring text;
    for (LRESULT i = 0; i < nCount; ++i)
    {
        LRESULT cch = 0;
        if (!Ask(hWnd, LB_GETTEXTLEN, static_cast<WPARAM>(i), 0, &cch) || cch < 0)
            return std::nullopt;
        std::wstring item(static_cast<size_t>(cch) + 1, L'\0');
        if (!Ask(hWnd, LB_GETTEXT, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(item.data()), &cch) || cch < 0)
            return std::nullopt;
        item.resize(wcsnlen(item.c_str(), static_cast<size_t>(cch)));
        text += (i == 0 ? L"" : L"\r\n") + item;
    }
    return text;
}

std::optional<std::wstring> ReadText(HWND hWnd)
{
    if (!IsWindow(hWnd))
        return std::nullopt;
    wchar_t szClass[64] = {};
    GetClassNameW(hWnd, szClass, 64);
    if (_wcsicmp(szClass, L"ListBox") == 0)
        return ReadListItems(hWnd);
    // GetWindowText does not ask another process's control; WM_GETTEXT is carried across.
    wchar_t szText[kTextUnits] = {};
    LRESULT cch = 0;
    if (!Ask(hWnd, WM_GETTEXT, kTextUnits, reinterpret_cast<LPARAM>(szText), &cch))
        return std::nullopt;
    szText[kTextUnits - 1] = L'\0';
    return std::wstring(szText, wcsnlen(szText, static_cast<size_t>(cch < 0 ? 0 : cch)));
}

bool ClickButton(HWND hParent, int id)
{
    HWND hButton = ControlById(hParent, id);
    if (hButton == nullptr || !IsEnabledAndShown(hButton))
        return false;
    // Posted: the click may open a modal window that would hold a sent message up.
    return PostMessageW(hButton, BM_CLICK, 0, 0) != FALSE;
}

bool TypeText(HWND hParent, int id, const std::wstring& text)
{
    HWND hEdit = ControlById(hParent, id);
    if (hEdit == nullptr || !IsEnabledAndShown(hEdit) ||
        (GetWindowLongW(hEdit, GWL_STYLE) & ES_READONLY) != 0)
        return false;
    // A replaced selection goes the way typed text goes: EN_CHANGE follows, multi-line edits too
    // (WM_SETTEXT skips it there).
    if (!Ask(hEdit, EM_SETSEL, 0, -1) ||
        !Ask(hEdit, EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(text.c_str())))
        return false;
    return ReadText(hEdit) == text;
}

bool PressKey(HWND hParent, int id, UINT vk)
{
    HWND hControl = ControlById(hParent, id);
    if (hControl == nullptr || !IsEnabledAndShown(hControl))
        return false;
    const UINT uScan = MapVirtualKeyW(vk, MAPVK_VK_TO_VSC);
    const LPARAM lDown = 1 | static_cast<LPARAM>(uScan) << 16;
    const LPARAM lUp = lDown | 1 << 30 | static_cast<LPARAM>(1u << 31);
    const UINT uChar = MapVirtualKeyW(vk, MAPVK_VK_TO_CHAR);
    if (!PostMessageW(hControl, WM_KEYDOWN, vk, lDown) ||
        (uChar != 0 && !PostMessageW(hControl, WM_CHAR, uChar, lDown)) ||
        !PostMessageW(hControl, WM_KEYUP, vk, lUp))
        return false;
    // Posted messages are taken before a sent one is answered.
    return Ask(hControl, WM_NULL, 0, 0);
}

bool SelectComboIndex(HWND hParent, int id, int index)
{
    HWND hCombo = ControlById(hParent, id);
    LRESULT selected = CB_ERR;
    if (hCombo == nullptr || index < 0 || !IsEnabledAndShown(hCombo) ||
        !Ask(hCombo, CB_SETCURSEL, static_cast<WPARAM>(index), 0, &selected) || selected != index)
        return false;
    // CB_SETCURSEL itself tells nobody.
    return Notify(hCombo, CBN_SELCHANGE);
}

bool SelectComboText(HWND hParent, int id, const std::wstring& text)
{
    HWND hCombo = ControlById(hParent, id);
    LRESULT index = CB_ERR;
    if (hCombo == nullptr ||
        !Ask(hCombo, CB_FINDSTRINGEXACT, static_cast<WPARAM>(-1), reinterpret_cast<LPARAM>(text.c_str()),
             &index) ||
        index == CB_ERR)
        return false;
    return SelectComboIndex(hParent, id, static_cast<int>(index));
}

bool CloseWindow(HWND hWnd)
{
    return IsWindow(hWnd) && PostMessageW(hWnd, WM_CLOSE, 0, 0) != FALSE;
}

HWND OpenTrayMenu(const TrayIcon& icon, DWORD waitMs)
{
    const ULONGLONG end = GetTickCount64() + waitMs;
    HWND hOwner = WaitForWindow(icon.owner, waitMs);
    if (hOwner == nullptr)
        return nullptr;
    DWORD dwProcess = 0;
    GetWindowThreadProcessId(hOwner, &dwProcess);
    if (!PostMessageW(hOwner, icon.callbackMessage, icon.iconId, WM_RBUTTONUP))
        return nullptr;
    WindowQuery menu;
    menu.className = L"#32768";
    menu.processId = dwProcess;
    menu.desktop = icon.owner.desktop;
    menu.shownOnly = true;
    const ULONGLONG now = GetTickCount64();
    return WaitForWindow(menu, now < end ? static_cast<DWORD>(end - now) : 0);
}

bool PickMenuItem(HWND hMenuWindow, UINT commandId, HMENU layout, DWORD waitMs)
{
    if (!IsShown(hMenuWindow))
        return false;
    const MenuTarget target = MenuReadable(hMenuWindow) ? Locate(ShownMenu(hMenuWindow), commandId, true)
                              : layout != nullptr       ? Locate(layout, commandId, false)
                                                        : MenuTarget();
    if (!target.found || target.greyed)
    {
        EscapeMenu(hMenuWindow, waitMs);
        return false;
    }
    // Nothing is selected yet: the first Down stops at the first item, the first Up at the last.
    const bool bDown = target.position < target.stops - target.position;
    const int presses = bDown ? target.position + 1 : target.stops - target.position;
    for (int i = 0; i < presses; ++i)
        PostKey(hMenuWindow, bDown ? VK_DOWN : VK_UP);
    PostKey(hMenuWindow, VK_RETURN);
    if (WaitUntilGone(hMenuWindow, waitMs))
        return true;
    // An item that would not run (greyed, unknown to the layout) leaves the menu open.
    EscapeMenu(hMenuWindow, waitMs);
    return false;
}

bool MenuReadable(HWND hMenuWindow)
{
    // Another process's menu reads as empty where its items live in that process.
    HMENU hMenu = ShownMenu(hMenuWindow);
    return hMenu != nullptr && GetMenuItemCount(hMenu) > 0;
}

bool EscapeMenu(HWND hMenuWindow, DWORD waitMs)
{
    if (!IsShown(hMenuWindow))
        return false;
    PostKey(hMenuWindow, VK_ESCAPE);
    return WaitUntilGone(hMenuWindow, waitMs);
}

HMENU LoadMenuLayout(const std::wstring& module, UINT menuId, int subMenu)
{
    HMODULE hModule =
        LoadLibraryExW(module.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (hModule == nullptr)
        return nullptr;
    HMENU hMenu = LoadMenuW(hModule, MAKEINTRESOURCEW(menuId));
    FreeLibrary(hModule);
    if (hMenu == nullptr || subMenu < 0)
        return hMenu;
    // The popup goes on alone: taken out of its bar, which is destroyed without it.
    HMENU hPopup = GetSubMenu(hMenu, subMenu);
    if (hPopup != nullptr)
        RemoveMenu(hMenu, static_cast<UINT>(subMenu), MF_BYPOSITION);
    DestroyMenu(hMenu);
    return hPopup;
}

std::optional<std::wstring> ClipboardText()
{
    // Another program may hold the clipboard for a moment.
    bool bOpen = false;
    for (int i = 0; i < 50 && !(bOpen = OpenClipboard(nullptr) != FALSE); ++i)
        Sleep(kPollMs);
    if (!bOpen)
        return std::nullopt;
    std::optional<std::wstring> text;
    HANDLE hData = GetClipboardData(CF_UNICODETEXT);
    const auto* pText = hData != nullptr ? static_cast<const wchar_t*>(GlobalLock(hData)) : nullptr;
    if (pText != nullptr)
    {
        size_t cchMax = GlobalSize(hData) / sizeof(wchar_t);
        if (cchMax > kTextUnits - 1)
            cchMax = kTextUnits - 1;
        text = std::wstring(pText, wcsnlen(pText, cchMax));
        GlobalUnlock(hData);
    }
    CloseClipboard();
    return text;
}

namespace
{

// IUnknown for an object of one interface, freed with its last reference.
template <typename Interface, const IID* pIid> class OneInterface : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
            return E_POINTER;
        *ppv = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, *pIid) ? this : nullptr;
        if (*ppv == nullptr)
            return E_NOINTERFACE;
        this->AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&m_cRef)); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG cRef = InterlockedDecrement(&m_cRef);
        if (cRef == 0)
            delete this;
        return static_cast<ULONG>(cRef);
    }

protected:
    virtual ~OneInterface() = default;

private:
    LONG m_cRef = 1;
};

// One format of data, handed out as a fresh HGLOBAL copy each time it is asked for.
class OneFormatData final : public OneInterface<IDataObject, &IID_IDataObject>
{
public:
    OneFormatData(CLIPFORMAT format, std::vector<std::uint8_t> bytes)
        : m_format(format), m_bytes(std::move(bytes))
    {
    }

    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* pFormat, STGMEDIUM* pMedium) override
    {
        if (pFormat == nullptr || pMedium == nullptr)
            return E_INVALIDARG;
        if (QueryGetData(pFormat) != S_OK)
            return DV_E_FORMATETC;
        HGLOBAL hCopy = GlobalAlloc(GMEM_MOVEABLE, m_bytes.size());
        void* pCopy = hCopy != nullptr ? GlobalLock(hCopy) : nullptr;
        if (pCopy == nullptr)
        {
            if (hCopy != nullptr)
                GlobalFree(hCopy);
            return E_OUTOFMEMORY;
        }
        std::memcpy(pCopy, m_bytes.data(), m_bytes.size());
        GlobalUnlock(hCopy);
        pMedium->tymed = TYMED_HGLOBAL;
        pMedium->hGlobal = hCopy;
        pMedium->pUnkForRelease = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC*, STGMEDIUM*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* pFormat) override
    {
        if (pFormat == nullptr)
            return E_INVALIDARG;
        return pFormat->cfFormat == m_format && (pFormat->tymed & TYMED_HGLOBAL) != 0 ? S_OK : DV_E_FORMATETC;
    }
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC*, FORMATETC* pOut) override
    {
        if (pOut != nullptr)
            pOut->ptd = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC*, STGMEDIUM*, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD dwDirection, IEnumFORMATETC** ppEnum) override
    {
        if (dwDirection != DATADIR_GET)
            return E_NOTIMPL;
        FORMATETC format = {m_format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
        return SHCreateStdEnumFmtEtc(1, &format, ppEnum);
    }
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) override
    {
        return OLE_E_ADVISENOTSUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) override { return OLE_E_ADVISENOTSUPPORTED; }
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) override { return OLE_E_ADVISENOTSUPPORTED; }

private:
    CLIPFORMAT m_format;
    std::vector<std::uint8_t> m_bytes;
};

// Holds the drag over the target for a few of OLE's checks and at least 300 ms (so it sees the files
// hover), then drops.
class HoverThenDrop final : public OneInterface<IDropSource, &IID_IDropSource>
{
public:
    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL bEscape, DWORD) override
    {
        if (bEscape)
            return DRAGDROP_S_CANCEL;
        return --m_nChecksLeft > 0 || GetTickCount64() < m_ullDropAt ? S_OK : DRAGDROP_S_DROP;
    }
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD) override { return DRAGDROP_S_USEDEFAULTCURSORS; }

private:
    int m_nChecksLeft = 6;
    ULONGLONG m_ullDropAt = GetTickCount64() + 300;
};

std::vector<std::uint8_t> FileDropBlock(const std::vector<std::wstring>& paths)
{
    DROPFILES head = {};
    head.pFiles = sizeof head;
    head.fWide = TRUE;
    std::vector<std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(&head),
                                    reinterpret_cast<const std::uint8_t*>(&head) + sizeof head);
    for (const std::wstring& path : paths)
    {
        const auto* p = reinterpret_cast<const std::uint8_t*>(path.c_str());
        bytes.insert(bytes.end(), p, p + (path.size() + 1) * sizeof(wchar_t));
    }
    bytes.insert(bytes.end(), sizeof(wchar_t), 0);
    return bytes;
}

std::vector<std::uint8_t> TextBlock(const std::vector<std::wstring>& paths)
{
    std::wstring text;
    for (const std::wstring& path : paths)
        text += path + L"\r\n";
    const auto* p = reinterpret_cast<const std::uint8_t*>(text.c_str());
    return std::vector<std::uint8_t>(p, p + (text.size() + 1) * sizeof(wchar_t));
}

} // namespace

std::optional<DWORD> DragFiles(HWND hTarget, const std::vector<std::wstring>& paths, bool asText)
{
    RECT rc = {};
    if (!IsWindow(hTarget) || !GetWindowRect(hTarget, &rc) || FAILED(OleInitialize(nullptr)))
        return std::nullopt;
    // On a desktop that an X display shows, the pointer follows only once the display has moved it.
    const POINT target = {(rc.left + rc.right) / 2, (rc.top + rc.bottom) / 2};
    POINT cursor = {};
    for (int nTry = 0; nTry < 100 && !(GetCursorPos(&cursor) && cursor.x == target.x && cursor.y == target.y);
         ++nTry)
    {
        SetCursorPos(target.x, target.y);
        Sleep(20);
    }
    auto* pData = asText ? new OneFormatData(CF_UNICODETEXT, TextBlock(paths))
                         : new OneFormatData(CF_HDROP, FileDropBlock(paths));
    auto* pSource = new HoverThenDrop();
    DWORD dwEffect = DROPEFFECT_NONE;
    const HRESULT hr = DoDragDrop(pData, pSource, DROPEFFECT_COPY, &dwEffect);
    pSource->Release();
    pData->Release();
    OleUninitialize();
    if (hr != DRAGDROP_S_DROP && hr != DRAGDROP_S_CANCEL)
        return std::nullopt;
    return hr == DRAGDROP_S_DROP ? dwEffect : DROPEFFECT_NONE;
}

std::string Utf8(const std::wstring& text)
{
    const int cb = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                       nullptr, nullptr);
    std::string utf8(static_cast<size_t>(cb > 0 ? cb : 0), '\0');
    if (cb > 0)
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &utf8[0], cb, nullptr,
                            nullptr);
    return utf8;
}

namespace
{

// When the process began; zero when it cannot be asked, which counts as "before anything".
ULONGLONG StartTime(HANDLE hProcess)
{
    FILETIME ftStart = {}, ftExit, ftKernel, ftUser;
    if (hProcess == nullptr || !GetProcessTimes(hProcess, &ftStart, &ftExit, &ftKernel, &ftUser))
        return 0;
    return ULONGLONG(ftStart.dwHighDateTime) << 32 | ftStart.dwLowDateTime;
}

} // namespace

std::vector<ChildProcess> ChildProcesses(HANDLE hParent)
{
    std::vector<ChildProcess> children;
    const DWORD dwParent = GetProcessId(hParent);
    const ULONGLONG parentStart = StartTime(hParent);
    const HANDLE hSnap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (dwParent == 0 || hSnap == INVALID_HANDLE_VALUE)
        return children;
    PROCESSENTRY32W pe = {};
    pe.dwSize = sizeof pe;
    for (BOOL b = Process32FirstW(hSnap, &pe); b; b = Process32NextW(hSnap, &pe))
    {
        if (pe.th32ParentProcessID != dwParent)
            continue;
        // One that cannot be asked counts: better a false alarm than a missed leftover.
        const HANDLE hChild = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pe.th32ProcessID);
        const ULONGLONG childStart = hChild != nullptr ? StartTime(hChild) : parentStart;
        if (hChild != nullptr)
            CloseHandle(hChild);
        if (childStart >= parentStart)
            children.push_back({pe.th32ProcessID, pe.szExeFile});
    }
    CloseHandle(hSnap);
    return children;
}

std::pair<DWORD, std::string> RunProgram(const std::wstring& exe, const std::vector<std::wstring>& args,
                                         DWORD waitMs)
{
    std::pair<DWORD, std::string> run{0xDEADBEEF, ""};
    std::wstring line = L"\"" + exe + L"\"";
    for (const std::wstring& arg : args)
        line += L" \"" + arg + L"\"";
    SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
    HANDLE hRead = nullptr, hWrite = nullptr;
    if (!CreatePipe(&hRead, &hWrite, &sa, 0))
        return run;
    SetHandleInformation(hRead, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = hWrite;
    si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION pi = {};
    const BOOL bStarted =
        CreateProcessW(exe.c_str(), &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    CloseHandle(hWrite);
    if (bStarted)
    {
        char buf[4096];
        DWORD cb = 0;
        while (ReadFile(hRead, buf, sizeof buf, &cb, nullptr) && cb != 0)
            run.second.append(buf, cb);
        if (WaitForSingleObject(pi.hProcess, waitMs) == WAIT_OBJECT_0)
            GetExitCodeProcess(pi.hProcess, &run.first);
        CloseHandle(pi.hProcess);
        CloseHandle(pi.hThread);
    }
    CloseHandle(hRead);
    return run;
}

} // namespace kvui
