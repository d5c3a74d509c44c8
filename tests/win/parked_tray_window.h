// The tray window object in this process, parked: its start message is taken away, so it stays
// without its threads and its link unless a test starts them.
#pragma once

#include "test_logging_support.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"

#include <windows.h>

#include <functional>
#include <memory>

namespace kvtest
{

class ParkedTrayWindow
{
public:
    explicit ParkedTrayWindow(unsigned int uiPort = 1)
    {
        g_hInstance = GetModuleHandleW(nullptr);
        g_hResInstance = LoadResourceLibraryFrom(ModuleFolder().c_str(), nullptr);
        window = std::make_unique<CTaskBarWindow>(uiPort);
        while (Take(WM_KV_START) != kNone)
        {
        }
    }
    ~ParkedTrayWindow()
    {
        if (IsWindow(window->Window()))
            DestroyWindow(window->Window());
        window.reset();
        Pump(0);
        FreeLibrary(g_hResInstance);
        g_hResInstance = nullptr;
    }
    ParkedTrayWindow(const ParkedTrayWindow&) = delete;
    ParkedTrayWindow& operator=(const ParkedTrayWindow&) = delete;

    bool Ready() const { return g_hResInstance != nullptr && window->Window() != nullptr; }

    static constexpr WPARAM kNone = static_cast<WPARAM>(-1);
    // Takes a posted uMsg from the window's queue: its wParam, or kNone.
    WPARAM Take(UINT uMsg) const
    {
        MSG msg;
        return PeekMessageW(&msg, window->Window(), uMsg, uMsg, PM_REMOVE) ? msg.wParam : kNone;
    }

    // Runs this thread's messages for ms, or until done holds.
    static void Pump(
        DWORD ms, const std::function<bool()>& done = [] { return false; })
    {
        MSG msg;
        for (const ULONGLONG end = GetTickCount64() + ms; !done(); Sleep(10))
        {
            while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
                DispatchMessageW(&msg);
            if (GetTickCount64() >= end)
                return;
        }
    }

    std::unique_ptr<CTaskBarWindow> window;
};

} // namespace kvtest
