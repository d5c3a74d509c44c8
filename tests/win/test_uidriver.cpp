// The uidriver program against a form that a thread of this test serves on a desktop of its own:
// every action crosses processes and lands on a desktop that is not the input desktop, and the form
// records the notifications its parent would get from a user.
#include "test_agent_support.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace kvtest;

namespace
{

constexpr wchar_t kFormClass[] = L"KvUiDriverTestForm";
constexpr int kEdit = 101, kCombo = 102, kButton = 103, kCheck = 104, kDisabled = 105;

class Form
{
public:
    explicit Form(const TestDesktop& desktop)
    {
        m_thread = std::thread([this, &desktop] { Serve(desktop); });
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait(lock, [this] { return m_bStarted; });
    }
    ~Form()
    {
        PostThreadMessageW(m_dwThread, WM_QUIT, 0, 0);
        m_thread.join();
    }

    HWND Window() const { return m_hWnd; }
    // Waits up to 5 s for the (control id, notification code) to have come.
    bool Notified(int id, WORD wCode)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(5),
                             [&]
                             {
                                 for (const auto& n : m_notes)
                                     if (n.first == id && n.second == wCode)
                                         return true;
                                 return false;
                             });
    }

private:
    static LRESULT CALLBACK Proc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
    {
        if (uMsg == WM_COMMAND && lParam != 0)
        {
            auto* form = reinterpret_cast<Form*>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
            {
                std::lock_guard<std::mutex> lock(form->m_mutex);
                form->m_notes.emplace_back(LOWORD(wParam), HIWORD(wParam));
            }
            form->m_cv.notify_all();
        }
        return DefWindowProcW(hWnd, uMsg, wParam, lParam);
    }

    void Serve(const TestDesktop& desktop)
    {
        m_dwThread = GetCurrentThreadId();
        MSG msg;
        PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);
        if (desktop.SetOnThisThread())
        {
            WNDCLASSW wc = {};
            wc.lpfnWndProc = Proc;
            wc.hInstance = GetModuleHandleW(nullptr);
            wc.lpszClassName = kFormClass;
            RegisterClassW(&wc);
            m_hWnd = CreateWindowExW(0, kFormClass, L"Form", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 400, 300,
                                     nullptr, nullptr, wc.hInstance, nullptr);
            SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
            const auto child = [&](const wchar_t* szClass, const wchar_t* szText, DWORD style, int id)
            {
                return CreateWindowExW(0, szClass, szText, WS_CHILD | WS_VISIBLE | style, 0, 30 * (id - 100),
                                       200, 24, m_hWnd, reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)),
                                       wc.hInstance, nullptr);
            };
            child(L"Edit", L"", ES_AUTOHSCROLL, kEdit);
            HWND hCombo = child(L"ComboBox", L"", CBS_DROPDOWNLIST, kCombo);
            for (const wchar_t* sz : {L"alpha", L"beta", L"gamma"})
                SendMessageW(hCombo, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(sz));
            child(L"Button", L"&Go", BS_PUSHBUTTON, kButton);
            child(L"Button", L"Check", BS_AUTOCHECKBOX, kCheck);
            child(L"Button", L"Off", BS_PUSHBUTTON | WS_DISABLED, kDisabled);
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bStarted = true;
        }
        m_cv.notify_all();
        while (GetMessageW(&msg, nullptr, 0, 0) > 0)
            DispatchMessageW(&msg);
        if (m_hWnd != nullptr)
            DestroyWindow(m_hWnd);
    }

    std::thread m_thread;
    DWORD m_dwThread = 0;
    HWND m_hWnd = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_bStarted = false;
    std::vector<std::pair<int, WORD>> m_notes;
};

struct DriverRun
{
    DWORD dwExitCode = 0xDEADBEEF;
    std::string out;
};

// uidriver.exe with these arguments, its standard output caught.
DriverRun Driver(const std::vector<std::wstring>& args)
{
    DriverRun run;
    std::wstring line = L"uidriver.exe";
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
    const std::wstring exe = ModuleFolder() + L"uidriver.exe";
    const BOOL bStarted =
        CreateProcessW(exe.c_str(), &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    CloseHandle(hWrite);
    if (bStarted)
    {
        char buf[4096];
        DWORD cb = 0;
        while (ReadFile(hRead, buf, sizeof buf, &cb, nullptr) && cb != 0)
            run.out.append(buf, cb);
        if (WaitForSingleObject(pi.hProcess, 20000) == WAIT_OBJECT_0)
            GetExitCodeProcess(pi.hProcess, &run.dwExitCode);
        CloseHandle(pi.hProcess);
        CloseHandle(pi.hThread);
    }
    CloseHandle(hRead);
    return run;
}

std::wstring Hex(HWND hWnd)
{
    wchar_t sz[32] = {};
    swprintf(sz, 32, L"0x%llx", static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(hWnd)));
    return sz;
}

} // namespace

TEST(UiDriverProgram, DrivesTheControlsOfAnotherProcessOnADesktopOfItsOwn)
{
    TestDesktop desktop;
    ASSERT_TRUE(desktop.Created());
    Form form(desktop);
    ASSERT_NE(nullptr, form.Window());
    const std::wstring hForm = Hex(form.Window());

    const DriverRun found =
        Driver({L"find", L"--class", kFormClass, L"--desktop", desktop.Name(), L"--shown"});
    EXPECT_EQ(0u, found.dwExitCode);
    EXPECT_EQ(Narrow(hForm) + "\n", found.out);

    // One control a line: id, class, shown, enabled, checked (-1: none), style, text.
    const std::vector<std::string> controls = Lines(Driver({L"controls", hForm}).out);
    ASSERT_EQ(5u, controls.size());
    EXPECT_EQ(0u, controls[2].find("103\tButton\t1\t1\t-1\t0x"));
    EXPECT_EQ("\t&Go", controls[2].substr(controls[2].rfind('\t')));
    EXPECT_EQ(0u, controls[3].find("104\tButton\t1\t1\t0\t0x"));
    EXPECT_EQ(0u, controls[4].find("105\tButton\t1\t0\t-1\t"));

    // Each action reaches the form as the notification a user's action sends.
    const struct
    {
        std::vector<std::wstring> args;
        int id;
        WORD wCode;
    } actions[] = {
        {{L"type", hForm, L"101", L"h\u00e9llo w\u00f6rld"}, kEdit, EN_CHANGE},
        {{L"select", hForm, L"102", L"gamma"}, kCombo, CBN_SELCHANGE},
        {{L"click", hForm, L"0x67"}, kButton, BN_CLICKED},
        {{L"click", hForm, L"104"}, kCheck, BN_CLICKED},
    };
    for (const auto& action : actions)
    {
        EXPECT_EQ(0u, Driver(action.args).dwExitCode) << Narrow(action.args[0]);
        EXPECT_TRUE(form.Notified(action.id, action.wCode)) << Narrow(action.args[0]);
    }
    EXPECT_EQ("h\xc3\xa9llo w\xc3\xb6rld\n", Driver({L"text", hForm, L"101"}).out);
    EXPECT_EQ(2, SendMessageW(GetDlgItem(form.Window(), kCombo), CB_GETCURSEL, 0, 0));
    EXPECT_EQ(BST_CHECKED, SendMessageW(GetDlgItem(form.Window(), kCheck), BM_GETCHECK, 0, 0));

    // Failures and bad usage, told apart by the exit code.
    const std::pair<std::vector<std::wstring>, DWORD> refusals[] = {
        {{L"click", hForm, L"105"}, 1u},            // disabled
        {{L"select", hForm, L"102", L"delta"}, 1u}, // no such item
        {{L"find", L"--class", L"KvNoSuchClass", L"--wait", L"100"}, 1u},
        {{L"click", hForm}, 2u},
        {{L"frobnicate"}, 2u},
    };
    for (const auto& [args, dwCode] : refusals)
        EXPECT_EQ(dwCode, Driver(args).dwExitCode) << Narrow(args[0]);
}
