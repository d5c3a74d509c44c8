// The stand-in shell of fake_shell.h for an agent that runs as a process of its own: a thread of
// the test sits on the agent's desktop and serves the shell window there, and the test reads what
// the shell holds through that thread while the agent goes on. Also tells the tray pictures apart
// and finds the agent's windows on that desktop.
#pragma once

#include "desktop_windows.h"
#include "fake_shell.h"
#include "test_logging_support.h"

#include <windows.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kvtest
{

// Which of the resource library's tray icons some icon bits are: the shell receives bits, not
// handles, so they are compared with the library's icons loaded at the usual sizes.
class TrayPictures
{
public:
    explicit TrayPictures(const std::wstring& resourceLibrary)
    {
        HMODULE hRes = LoadLibraryExW(resourceLibrary.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
        if (hRes == nullptr)
            return;
        const std::pair<int, const char*> icons[] = {
            {7, "idle"}, {130, "connected"}, {107, "pending"}, {131, "extra"}};
        for (const auto& [nId, szName] : icons)
            for (int nSize : {16, 20, 24, 32, 48})
            {
                HICON hIcon = static_cast<HICON>(
                    LoadImageW(hRes, MAKEINTRESOURCEW(nId), IMAGE_ICON, nSize, nSize, LR_DEFAULTCOLOR));
                if (hIcon == nullptr)
                    continue;
                m_known.emplace_back(FakeShell::IconBits(hIcon), szName);
                DestroyIcon(hIcon);
            }
        FreeLibrary(hRes);
    }

    bool Loaded() const { return !m_known.empty(); }
    // "idle", "connected", "pending", "extra"; "none" without bits; "other" for a stranger.
    std::string Name(const std::vector<std::uint8_t>& bits) const
    {
        if (bits.empty())
            return "none";
        for (const auto& [known, szName] : m_known)
            if (known == bits)
                return szName;
        return "other";
    }

private:
    std::vector<std::pair<std::vector<std::uint8_t>, const char*>> m_known;
};

class DesktopShell
{
public:
    // What the shell holds for the agent's icon, read in one go.
    struct View
    {
        bool bHeld = false;
        std::wstring tip;
        UINT uCallbackMessage = 0;
        std::string picture;                // TrayPictures::Name of the held icon
        std::vector<FakeShell::Call> calls; // every call so far
    };

    DesktopShell(const std::wstring& desktop, const std::wstring& resourceLibrary, UINT uIconId)
        : m_pictures(resourceLibrary), m_uIconId(uIconId)
    {
        m_thread = std::thread([this, desktop] { Serve(desktop); });
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait(lock, [this] { return m_bStarted; });
    }
    ~DesktopShell()
    {
        PostThreadMessageW(m_dwThreadId, WM_QUIT, 0, 0);
        m_thread.join();
    }
    DesktopShell(const DesktopShell&) = delete;
    DesktopShell& operator=(const DesktopShell&) = delete;

    // The shell window is up and the one Shell_NotifyIconW reaches on that desktop.
    bool Ready() const { return m_bReady && m_pictures.Loaded(); }

    // Runs fn on the shell's thread, which sits on the desktop and owns the shell.
    void Run(const std::function<void(FakeShell&)>& fn)
    {
        Job job{fn, CreateEventW(nullptr, TRUE, FALSE, nullptr)};
        if (PostThreadMessageW(m_dwThreadId, WM_APP, 0, reinterpret_cast<LPARAM>(&job)))
            WaitForSingleObject(job.hDone, INFINITE);
        CloseHandle(job.hDone);
    }

    View Read()
    {
        View view;
        Run(
            [&](FakeShell& shell)
            {
                auto it = shell.icons.find(m_uIconId);
                view.bHeld = it != shell.icons.end();
                if (view.bHeld)
                {
                    view.tip = it->second.tip;
                    view.uCallbackMessage = it->second.uCallbackMessage;
                    view.picture = m_pictures.Name(it->second.iconBits);
                }
                view.calls = shell.calls;
            });
        return view;
    }

    // Polls until pred holds for what the shell holds, at most ms; the last view read.
    View WaitFor(const std::function<bool(const View&)>& pred, DWORD ms)
    {
        const ULONGLONG end = GetTickCount64() + ms;
        View view = Read();
        while (!pred(view) && GetTickCount64() < end)
        {
            Sleep(20);
            view = Read();
        }
        return view;
    }

    // Whether the held icon shows this picture, within ms.
    bool WaitForPicture(const std::string& picture, DWORD ms)
    {
        return WaitFor([&](const View& v) { return v.bHeld && v.picture == picture; }, ms).picture == picture;
    }


private:
    struct Job
    {
        const std::function<void(FakeShell&)>& fn;
        HANDLE hDone;
    };

    void Serve(const std::wstring& desktop)
    {
        m_dwThreadId = GetCurrentThreadId();
        MSG msg;
        PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE); // the thread's queue, for PostThreadMessage
        HDESK hDesk = OpenDesktopW(desktop.c_str(), 0, FALSE, GENERIC_ALL);
        std::unique_ptr<FakeShell> shell;
        if (hDesk != nullptr && SetThreadDesktop(hDesk))
        {
            GetDesktopWindow(); // the desktop's own shell window comes first, the stand-in in front of it
            shell = std::make_unique<FakeShell>();
            m_bReady = shell->InFront();
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bStarted = true;
        }
        m_cv.notify_all();
        while (GetMessageW(&msg, nullptr, 0, 0) > 0)
        {
            if (msg.hwnd == nullptr && msg.message == WM_APP)
            {
                Job* job = reinterpret_cast<Job*>(msg.lParam);
                if (shell)
                    job->fn(*shell);
                SetEvent(job->hDone);
                continue;
            }
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
        shell.reset();
        if (hDesk != nullptr)
            CloseDesktop(hDesk);
    }

    TrayPictures m_pictures;
    UINT m_uIconId;
    std::thread m_thread;
    DWORD m_dwThreadId = 0;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_bStarted = false;
    bool m_bReady = false;
};

} // namespace kvtest
