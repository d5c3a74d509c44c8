// The entry point's work after logging is set up: process-wide values, resource library, command
// line, one-shot options, the resident mode and the desktop-state checks.
#include "KVNXST.h"

#include "KVNXSTWindow.h"

#include "ClientPermissionDialog.h"
#include "DesktopOptions.h"
#include "KvLogging.h"
#include "UtilFile.h"
#include "KvSystemApi.h"
#include "ProfileReg.h"
#include "UtilScreenSaver.h"
#include "UtilService.h"
#include "UtilSettings.h"
#include "UtilVersion.h"
#include "UtilWTS.h"
#include "ValidateCertDialog.h"

#include <commctrl.h>

#include <cwchar>
#include <new>
#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXST));

HINSTANCE g_hInstance = nullptr;
HINSTANCE g_hResInstance = nullptr;
wchar_t g_szDesktopName[MAX_PATH] = {};
wchar_t g_szUserName[MAX_PATH] = {};
int g_bOneTimeSession = 0;
HANDLE g_hStopEvent = nullptr;
HANDLE g_hInstanceMapping = nullptr;
int g_nExitCode = 0;
int g_nDesktopState = KV_DESKTOP_STATE_UNUSABLE;

namespace
{

constexpr wchar_t KV_RESOURCE_LIBRARY[] = L"KVNXSTRES.dll";

// --- The tray window ----------------------------------------------------------------------------
// The resident agent's window object is made and destroyed here and nowhere else.

CTaskBarWindow* CreateTaskBarWindow(unsigned int uiPort)
{
    auto* pWindow = new (std::nothrow) CTaskBarWindow(uiPort);
    if (pWindow != nullptr && pWindow->Window() != nullptr)
        return pWindow;
    LOG4CXX_ERROR(logger, L"Cannot create the tray window.");
    delete pWindow;
    return nullptr;
}

// -------------------------------------------------------------------------------------------------

// The name of the calling thread's desktop into szName (MAX_PATH units); false, with szName empty,
// when it cannot be read. The handle of the thread's own desktop is not closed: it is not ours, and
// the system refuses to close it anyway.
bool ReadThreadDesktopName(wchar_t* szName)
{
    szName[0] = L'\0';
    HDESK hDesk = GetThreadDesktop(GetCurrentThreadId());
    DWORD cbNeeded = 0;
    if (hDesk == nullptr ||
        !GetUserObjectInformationW(hDesk, UOI_NAME, szName, MAX_PATH * sizeof(wchar_t), &cbNeeded))
    {
        szName[0] = L'\0';
        return false;
    }
    szName[MAX_PATH - 1] = L'\0';
    return true;
}

// The folder of the running program, with its trailing backslash; empty when it cannot be read.
std::wstring ProgramFolder()
{
    wchar_t szFolder[MAX_PATH] = {};
    return GetAgentFolder(szFolder, MAX_PATH) ? std::wstring(szFolder) : std::wstring();
}

HMODULE LoadResourceFile(const std::wstring& path)
{
    if (path.size() >= MAX_PATH)
        return nullptr;
    HMODULE hModule =
        LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    const DWORD dwError = GetLastError();
    if (hModule != nullptr)
        LOG4CXX_INFO(logger, L"Resource library " << path);
    else if (dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_PATH_NOT_FOUND ||
             dwError == ERROR_MOD_NOT_FOUND)
        LOG4CXX_DEBUG(logger, L"No resource library at " << path << L" Error = " << dwError);
    else
        LOG4CXX_WARN(logger, L"The resource library " << path << L" cannot be loaded. Error = " << dwError);
    return hModule;
}

// The desktop-bound options act on the desktop the user sees.
void EnterInputDesktop(HDESK hInputDesktop)
{
    if (hInputDesktop != nullptr && !SetThreadDesktop(hInputDesktop))
        LOG4CXX_WARN(logger, L"SetThreadDesktop failed. Error = " << GetLastError());
}

// Section "Desktop", key "Desktop" of the console-lock record file: where the console was when the
// service asked.
void RecordInputDesktop(const wchar_t* szInputDesktop)
{
    wchar_t szPath[MAX_PATH];
    if (!KvConsoleLockDataPath(L"", szPath, MAX_PATH))
        return;
    // The file's folder may not exist yet; a profile write does not make it.
    std::wstring folder(szPath);
    folder.resize(folder.find_last_of(L'\\'));
    if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
        LOG4CXX_WARN(logger, L"Cannot create " << folder << L". Error = " << GetLastError());
    if (WritePrivateProfileStringW(L"Desktop", L"Desktop", szInputDesktop, szPath))
        LOG4CXX_INFO(logger, L"Input desktop " << szInputDesktop << L" recorded in " << szPath);
    else
        LOG4CXX_WARN(logger, L"Cannot write " << szPath << L". Error = " << GetLastError());
}

// The process-wide handles are plain globals that other units read; closed and cleared here.
void CloseGlobalHandle(HANDLE& h)
{
    if (h != nullptr)
    {
        CloseHandle(h);
        h = nullptr;
    }
}

void CloseStopEvent()
{
    CloseGlobalHandle(g_hStopEvent);
}

// The modeless dialogs' keys (Tab, Enter, Esc, mnemonics) work as in any dialog.
bool IsModelessDialogKey(MSG& msg)
{
    if (msg.message < WM_KEYFIRST || msg.message > WM_KEYLAST || msg.hwnd == nullptr)
        return false;
    HWND hRoot = GetAncestor(msg.hwnd, GA_ROOT);
    wchar_t szClass[8] = {};
    return hRoot != nullptr && GetClassNameW(hRoot, szClass, 8) != 0 && wcscmp(szClass, L"#32770") == 0 &&
           IsDialogMessageW(hRoot, &msg);
}

void RunMessageLoop()
{
    KvLogBlock logBlock(logger, L"RunMessageLoop");
    MSG msg;
    for (;;)
    {
        const BOOL bResult = GetMessageW(&msg, nullptr, 0, 0);
        if (bResult == 0)
            break;
        if (bResult == -1 || IsModelessDialogKey(msg))
            continue;
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

} // namespace

int AgentMain(HINSTANCE hInstance, const wchar_t* lpCmdLine)
{
    KvLogBlock logBlock(logger, L"AgentMain");
    const wchar_t* szCmdLine = lpCmdLine != nullptr ? lpCmdLine : L"";

    g_ProfileReg.SetRootKey(HKEY_CURRENT_USER);
    g_hInstance = hInstance;
    // The join dialog's link and the connecting dialog's marquee are common controls of their own.
    INITCOMMONCONTROLSEX controls = {sizeof controls,
                                     ICC_STANDARD_CLASSES | ICC_LINK_CLASS | ICC_PROGRESS_CLASS};
    if (!InitCommonControlsEx(&controls))
        InitCommonControls();

    // Kept for the desktop-bound options; only "-ConsoleLock" closes it, the others leave the
    // thread on it until the process ends.
    HDESK hInputDesktop = OpenInputDesktop(0, FALSE, DESKTOP_READOBJECTS);
    if (hInputDesktop == nullptr)
        LOG4CXX_WARN(logger, L"OpenInputDesktop failed. Error = " << GetLastError());
    ReadThreadDesktopName(g_szDesktopName);
    DWORD cchUserName = MAX_PATH;
    if (!GetUserNameW(g_szUserName, &cchUserName))
    {
        g_szUserName[0] = L'\0';
        LOG4CXX_WARN(logger, L"GetUserNameW failed. Error = " << GetLastError());
    }
    LOG4CXX_INFO(logger, L"g_szDesktopName=" << g_szDesktopName << L" g_szUserName=" << g_szUserName);

    SetLastError(0);
    {
        KvCProfileRegStorage language(&g_ProfileReg);
        g_hResInstance = LoadResourceLibrary(&language);
    }

    unsigned int uiPort = 0;
    if (!ParseServicePort(szCmdLine, &uiPort))
        return 1;

    if (g_hResInstance == nullptr)
        g_hResInstance = g_hInstance;
    g_nSessionId = GetSessionID();
    LOG4CXX_INFO(logger, L"SessionID is " << g_nSessionId);

    const KvCommandOption option = KvFindCommandOption(szCmdLine);
    if (option != KvCommandOption::OneTimeSession && option != KvCommandOption::Resident)
        return RunCommandOption(option, szCmdLine, hInputDesktop);
    return RunResidentMode(uiPort);
}

int ParseServicePort(const wchar_t* lpCmdLine, unsigned int* puiPort)
{
    KvLogBlock logBlock(logger, L"ParseServicePort");
    std::uint32_t uiPort = 0;
    if (KvFindCommandOption(lpCmdLine) == KvCommandOption::OneTimeSession)
    {
        switch (KvParseOneTimePort(lpCmdLine, &uiPort))
        {
        case KvOneTimePortResult::NoBlank:
            LOG4CXX_ERROR(logger, L"-onetimesession needs to followed by port parameter.");
            return 0;
        case KvOneTimePortResult::NotANumber:
            LOG4CXX_ERROR(logger, L"Error converting one-time KVNXST port parameter.");
            return 0;
        case KvOneTimePortResult::Ok:
            break;
        }
        g_bOneTimeSession = 1;
        LOG4CXX_INFO(logger, L"Starting one-time KVNXSt on port: " << uiPort);
    }
    else
    {
        g_bOneTimeSession = 0;
        uiPort = GetServicePort(KvCommandLinePort(lpCmdLine));
    }
    *puiPort = uiPort;
    return 1;
}

int RunCommandOption(KvCommandOption option, const wchar_t* lpCmdLine, HDESK hInputDesktop)
{
    KvLogBlock logBlock(logger, L"RunCommandOption");
    LOG4CXX_INFO(logger, L"Running " << KvCommandOptionName(option));
    switch (option)
    {
    case KvCommandOption::Permission:
    {
        int nPort = 0;
        int nAfType = 0;
        if (!KvParsePermissionArguments(lpCmdLine, &nPort, &nAfType))
        {
            LOG4CXX_WARN(logger, L"-Permission needs a port and an address family.");
            return 0;
        }
        return CreatePermissionDialog(nPort, nAfType) != 0 ? 1 : 0;
    }
    case KvCommandOption::SettingsAsApplication:
        return DisplaySettingsDialog(nullptr, 0) != 0 ? 1 : 0;
    case KvCommandOption::Settings:
    {
        // The editor is shown with the resource library of the stored language.
        KvCProfileRegStorage language(&g_ProfileReg);
        HMODULE hReloaded = LoadResourceLibrary(&language);
        if (hReloaded != nullptr)
        {
            if (g_hResInstance != nullptr && g_hResInstance != g_hInstance)
                FreeLibrary(g_hResInstance);
            g_hResInstance = hReloaded;
        }
        return DisplaySettingsDialog(nullptr, 1) != 0 ? 1 : 0;
    }
    case KvCommandOption::ValidateCert:
        LOG4CXX_INFO(logger, L"Displaying ValidateCert dialog");
        return ValidateCertDialog() ? 0 : 1;
    case KvCommandOption::ConsoleLock:
    {
        EnterInputDesktop(hInputDesktop);
        const int nResult = CheckDesktopStateCommandLine();
        if (hInputDesktop != nullptr)
            CloseDesktop(hInputDesktop);
        return nResult;
    }
    case KvCommandOption::Logoff:
        EnterInputDesktop(hInputDesktop);
        return Logoff(0);
    case KvCommandOption::LogoffForce:
        EnterInputDesktop(hInputDesktop);
        return Logoff(1);
    case KvCommandOption::LockWorkstation:
        EnterInputDesktop(hInputDesktop);
        return LockWorkstation();
    case KvCommandOption::OneTimeSession:
    case KvCommandOption::Resident:
        break;
    }
    LOG4CXX_ERROR(logger, L"Not a one-shot option: " << KvCommandOptionName(option));
    return 1;
}

int RunResidentMode(unsigned int uiPort)
{
    KvLogBlock logBlock(logger, L"RunResidentMode");
    if (KvIsSystemAccount(g_szUserName))
    {
        LOG4CXX_ERROR(logger, L"Not running as the system account: " << g_szUserName);
        return KV_EXIT_CONSOLE_LOCKED;
    }
    // The mapping stays open on this way out too: the process ends at once and lets go of it then.
    if (!g_bOneTimeSession && !CheckInstance())
    {
        LOG4CXX_WARN(logger, L"Another KVNXST already runs on desktop " << g_szDesktopName);
        return KV_EXIT_ALREADY_RUNNING;
    }

    g_hStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (g_hStopEvent == nullptr)
        LOG4CXX_WARN(logger, L"CreateEventW failed. Error = " << GetLastError());

    // Kept as given: the connection to the service then fails and says so.
    if (!KvIsTcpPort(uiPort))
        LOG4CXX_WARN(logger, L"uiPort=" << uiPort << L" is not a TCP port");
    CTaskBarWindow* pWindow = CreateTaskBarWindow(uiPort);
    if (pWindow == nullptr)
    {
        CloseInstanceMapping();
        CloseStopEvent();
        return KV_EXIT_NO_TRAY_WINDOW;
    }

    RunMessageLoop();

    // Worker threads see the stop event before the window they report to goes away.
    if (g_hStopEvent != nullptr)
        SetEvent(g_hStopEvent);
    Sleep(0);
    Sleep(500);
    Sleep(0);
    delete pWindow;
    CloseInstanceMapping();
    CloseStopEvent();
    LOG4CXX_INFO(logger, L"g_nExitCode=" << g_nExitCode);
    return g_nExitCode;
}

int CheckInstance()
{
    KvLogBlock logBlock(logger, L"CheckInstance");
    wchar_t szDesktop[MAX_PATH];
    const bool bNamed = ReadThreadDesktopName(szDesktop);
    const std::wstring name = KvInstanceObjectName(bNamed ? szDesktop : nullptr);

    SetLastError(0);
    HANDLE hMapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 4, name.c_str());
    const DWORD dwError = GetLastError();
    // A handle from an earlier call goes only after the new one is held, so it can never make the
    // name look free.
    CloseInstanceMapping();
    g_hInstanceMapping = hMapping;

    const int bFirst = hMapping != nullptr && dwError != ERROR_ALREADY_EXISTS ? 1 : 0;
    LOG4CXX_INFO(logger, L"CheckInstance name=" << name << L" bFirst=" << bFirst << L" Error = " << dwError);
    return bFirst;
}

void CloseInstanceMapping()
{
    CloseGlobalHandle(g_hInstanceMapping);
}

int CheckDesktopStateCommandLine()
{
    KvLogBlock logBlock(logger, L"CheckDesktopStateCommandLine");
    const KvSystemApi& api = KvGetSystemApi();

    BOOL bRunning = FALSE;
    if (api.pfnGetScreenSaverRunning(&bRunning) && bRunning)
    {
        LOG4CXX_INFO(logger, L"Screen saver running, stopping it");
        KillScreenSaver();
        Sleep(0);
        Sleep(500);
        Sleep(0);
        bRunning = FALSE;
        if (api.pfnGetScreenSaverRunning(&bRunning) && bRunning)
        {
            LOG4CXX_WARN(logger, L"The screen saver could not be stopped.");
            return KV_EXIT_SCREEN_SAVER_RUNNING;
        }
    }

    wchar_t szInput[MAX_PATH];
    if (!api.pfnGetInputDesktopName(szInput, MAX_PATH))
    {
        LOG4CXX_WARN(logger, L"Cannot read the input desktop. Error = " << GetLastError());
        return KV_EXIT_CONSOLE_LOCKED;
    }
    LOG4CXX_INFO(logger, L"Input desktop " << szInput);
    if (KvIsWinlogonDesktop(szInput))
        return KV_EXIT_CONSOLE_LOCKED;
    if (KvIsScreenSaverDesktop(szInput))
        return KV_EXIT_CONSOLE_USABLE;

    if (std::wcscmp(szInput, g_szDesktopName) != 0)
    {
        g_nDesktopState = KV_DESKTOP_STATE_UNUSABLE;
        RecordInputDesktop(szInput);
    }

    if (IsWindows10OrGreater())
        return isDesktopLockedWindows10() ? KV_EXIT_CONSOLE_LOCKED : KV_EXIT_CONSOLE_USABLE;
    return IsSessionActive() == 1 ? KV_EXIT_CONSOLE_USABLE : KV_EXIT_CONSOLE_LOCKED;
}

int CheckDesktopState()
{
    KvLogBlock logBlock(logger, L"CheckDesktopState");
    wchar_t szInput[MAX_PATH];
    int nResult = KV_EXIT_CONSOLE_LOCKED;
    if (KvGetSystemApi().pfnGetInputDesktopName(szInput, MAX_PATH))
    {
        // The session query can take a second; it is asked only when the desktop is the agent's.
        if (!KvIsWinlogonDesktop(szInput) &&
            (KvIsScreenSaverDesktop(szInput) ||
             (std::wcscmp(szInput, g_szDesktopName) == 0 && IsSessionActive() != 0)))
            nResult = KV_EXIT_CONSOLE_USABLE;
        LOG4CXX_INFO(logger, L"Input desktop " << szInput << L" nResult=" << nResult);
    }
    else
    {
        LOG4CXX_WARN(logger, L"Cannot read the input desktop. Error = " << GetLastError());
    }
    g_nDesktopState = nResult == KV_EXIT_CONSOLE_USABLE ? KV_DESKTOP_STATE_USABLE : KV_DESKTOP_STATE_UNUSABLE;
    return nResult;
}

HMODULE LoadResourceLibrary(ILanguageSettingsStorage* pLanguage)
{
    KvLogBlock logBlock(logger, L"LoadResourceLibrary");
    const std::wstring language = pLanguage != nullptr ? pLanguage->GetLanguage() : std::wstring();
    return LoadResourceLibraryFrom(ProgramFolder().c_str(), language.c_str());
}

// The first string, dialog or menu of the English library that the translation lacks; empty when
// it has them all. A translation from another build may be older than the agent.
static std::wstring MissingResource(HMODULE hTranslation, HMODULE hEnglish)
{
    struct Walk
    {
        HMODULE hTranslation;
        std::wstring missing;
    } walk{hTranslation, std::wstring()};
    const auto check = [](HMODULE hEnglishLib, LPCWSTR type, LPWSTR name, LONG_PTR param) -> BOOL
    {
        auto& w = *reinterpret_cast<Walk*>(param);
        const UINT uName = static_cast<UINT>(reinterpret_cast<ULONG_PTR>(name));
        if (!IS_INTRESOURCE(name))
            w.missing = std::wstring(L"resource ") + name;
        else if (type != RT_STRING && FindResourceW(w.hTranslation, name, type) == nullptr)
            w.missing = (type == RT_DIALOG ? L"dialog " : L"menu ") + std::to_wstring(uName);
        // A string block holds ids (name - 1) * 16 to (name - 1) * 16 + 15.
        for (UINT uId = (uName - 1) * 16; type == RT_STRING && w.missing.empty() && uId < uName * 16; ++uId)
        {
            const wchar_t* p = nullptr;
            if (LoadStringW(hEnglishLib, uId, reinterpret_cast<LPWSTR>(&p), 0) > 0 &&
                LoadStringW(w.hTranslation, uId, reinterpret_cast<LPWSTR>(&p), 0) <= 0)
                w.missing = L"string " + std::to_wstring(uId);
        }
        return w.missing.empty();
    };
    for (LPCWSTR type : {RT_STRING, RT_DIALOG, RT_MENU})
        if (walk.missing.empty())
            EnumResourceNamesW(hEnglish, type, check, reinterpret_cast<LONG_PTR>(&walk));
    return walk.missing;
}

HMODULE LoadResourceLibraryFrom(const wchar_t* szAgentFolder, const wchar_t* szLanguage)
{
    KvLogBlock logBlock(logger, L"LoadResourceLibraryFrom");
    const std::wstring folder(szAgentFolder != nullptr ? szAgentFolder : L"");
    if (folder.empty())
        return nullptr;
    if (szLanguage != nullptr && *szLanguage != L'\0')
    {
        if (KvIsLanguageCode(szLanguage))
        {
            const std::wstring path = folder + L"Localization\\" + szLanguage + L"\\" + KV_RESOURCE_LIBRARY;
            HMODULE hTranslation = LoadResourceFile(path);
            // Compared with the English library, which stays the fallback.
            const std::wstring english = folder + KV_RESOURCE_LIBRARY;
            HMODULE hEnglish =
                hTranslation == nullptr || english.size() >= MAX_PATH
                    ? nullptr
                    : LoadLibraryExW(english.c_str(), nullptr,
                                     LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
            const std::wstring missing = hEnglish != nullptr ? MissingResource(hTranslation, hEnglish) : L"";
            if (hEnglish != nullptr)
                FreeLibrary(hEnglish);
            if (hTranslation != nullptr && missing.empty())
                return hTranslation;
            if (hTranslation != nullptr)
            {
                LOG4CXX_WARN(logger, path << L" lacks " << missing << L"; the English library applies.");
                FreeLibrary(hTranslation);
            }
        }
        else
        {
            LOG4CXX_WARN(logger, L"Language code ignored: " << szLanguage);
        }
    }
    HMODULE hModule = LoadResourceFile(folder + KV_RESOURCE_LIBRARY);
    if (hModule == nullptr)
        LOG4CXX_INFO(logger, L"No resource library; the agent's own resources apply");
    return hModule;
}
