// The tray window object in this process, parked: its start message is taken away, so it stays
// without its threads and its link unless a test starts them.
#pragma once

#include "test_logging_support.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"

#include <windows.h>

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
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
        {
        }
        FreeLibrary(g_hResInstance);
        g_hResInstance = nullptr;
    }
    ParkedTrayWindow(const ParkedTrayWindow&) = delete;
    ParkedTrayWindow& operator=(const ParkedTrayWindow&) = delete;

    bool Ready() const { return g_hResInstance != nullptr && window->Window() != nullptr; }

    static constexpr WPARAM kNone = static_cast<WPARAM>(-1);
    // Takes a posted uMsg from the window's queue, waiting up to ms: its wParam, or kNone.
    WPARAM Take(UINT uMsg, DWORD ms = 0) const
    {
        MSG msg;
        for (const ULONGLONG end = GetTickCount64() + ms;; Sleep(20))
        {
            if (PeekMessageW(&msg, window->Window(), uMsg, uMsg, PM_REMOVE))
                return msg.wParam;
            if (GetTickCount64() >= end)
                return kNone;
        }
    }

    // Runs the window's messages for ms, or until done holds.
    template <typename Done> static void Pump(DWORD ms, Done done)
    {
        MSG msg;
        for (const ULONGLONG end = GetTickCount64() + ms; !done() && GetTickCount64() < end; Sleep(10))
            while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
                DispatchMessageW(&msg);
    }
    static void Pump(DWORD ms)
    {
        Pump(ms, [] { return false; });
    }

    std::unique_ptr<CTaskBarWindow> window;
};

} // namespace kvtest
