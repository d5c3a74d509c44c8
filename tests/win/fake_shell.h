// A stand-in for the shell's notification area, in the test's own thread. Under Wine,
// Shell_NotifyIconW finds the top-level "Shell_TrayWnd" window of the caller's desktop, sends it
// the icon record as WM_COPYDATA (dwData: the operation) and returns what that window returns.
// This window keeps the icons as a shell would, can refuse every call, and records each call.
//
// The record is Wine's own transfer layout (declared below), so this fits Wine only. Make it on a
// desktop of the test's own (test_agent_support.h, TestDesktop), where no other shell window sits
// in front of it, after the desktop's own shell window exists.
#pragma once

#include <windows.h>
#include <shellapi.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace kvtest
{

class FakeShell
{
public:
    // What one Shell_NotifyIconW call carried.
    struct Call
    {
        DWORD dwMessage = 0;
        HWND hWnd = nullptr;
        UINT uID = 0, uFlags = 0, uCallbackMessage = 0;
        std::wstring tip, info, infoTitle;
        DWORD dwInfoFlags = 0;
        std::vector<std::uint8_t> iconBits; // mask bits, then colour bits; empty without an icon
        BOOL bAnswer = FALSE;
        bool bFromOtherThread = false; // the caller was not the shell window's thread
    };
    // What the shell holds for one icon, merged over the calls that added and modified it.
    struct Icon
    {
        UINT uCallbackMessage = 0;
        std::wstring tip;
        std::vector<std::uint8_t> iconBits;
    };

    FakeShell()
    {
        WNDCLASSEXW wc = {};
        wc.cbSize = sizeof wc;
        wc.lpfnWndProc = Proc;
        wc.hInstance = GetModuleHandleW(nullptr);
        wc.lpszClassName = L"Shell_TrayWnd";
        RegisterClassExW(&wc);
        m_hWnd = CreateWindowExW(0, L"Shell_TrayWnd", L"", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr,
                                 wc.hInstance, nullptr);
        SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    }
    ~FakeShell()
    {
        if (m_hWnd != nullptr)
            DestroyWindow(m_hWnd);
    }
    FakeShell(const FakeShell&) = delete;
    FakeShell& operator=(const FakeShell&) = delete;

    // True when Shell_NotifyIconW would reach this window.
    bool InFront() const
    {
        return m_hWnd != nullptr && FindWindowExW(nullptr, nullptr, L"Shell_TrayWnd", nullptr) == m_hWnd;
    }

    bool bRefuse = false;
    std::vector<Call> calls;
    std::map<UINT, Icon> icons; // by identifier

    // A shell that starts again knows no icons.
    void Restart() { icons.clear(); }

    // The bits the shell receives for an icon handle, to tell pictures apart.
    static std::vector<std::uint8_t> IconBits(HICON hIcon)
    {
        std::vector<std::uint8_t> bits;
        ICONINFO ii = {};
        if (hIcon == nullptr || !GetIconInfo(hIcon, &ii))
            return bits;
        for (HBITMAP hbm : {ii.hbmMask, ii.hbmColor})
        {
            BITMAP bm = {};
            if (hbm == nullptr || !GetObjectW(hbm, sizeof bm, &bm))
                continue;
            const LONG cb = (bm.bmPlanes * bm.bmWidth * bm.bmHeight * bm.bmBitsPixel + 15) / 16 * 2;
            const size_t at = bits.size();
            bits.resize(at + static_cast<size_t>(cb));
            GetBitmapBits(hbm, cb, bits.data() + at);
            DeleteObject(hbm);
        }
        return bits;
    }

private:
    // Wine's transfer layout of the icon record.
    struct Record
    {
        LONG hWnd;
        UINT uID, uFlags, uCallbackMessage;
        WCHAR szTip[128];
        DWORD dwState, dwStateMask;
        WCHAR szInfo[256];
        UINT uTimeout;
        WCHAR szInfoTitle[64];
        DWORD dwInfoFlags;
        GUID guidItem;
        UINT width, height, planes, bpp;
    };

    static std::wstring Text(const WCHAR* s, size_t n) { return std::wstring(s, wcsnlen(s, n)); }

    BOOL OnCopyData(const COPYDATASTRUCT& cds)
    {
        Call call;
        call.dwMessage = static_cast<DWORD>(cds.dwData);
        call.bFromOtherThread = InSendMessage() != FALSE;
        if (cds.cbData < sizeof(Record))
            return FALSE;
        const auto& r = *static_cast<const Record*>(cds.lpData);
        call.hWnd = reinterpret_cast<HWND>(static_cast<LONG_PTR>(r.hWnd));
        call.uID = r.uID;
        call.uFlags = r.uFlags;
        call.uCallbackMessage = r.uCallbackMessage;
        call.tip = Text(r.szTip, 128);
        call.info = Text(r.szInfo, 256);
        call.infoTitle = Text(r.szInfoTitle, 64);
        call.dwInfoFlags = r.dwInfoFlags;
        const auto* bits = static_cast<const std::uint8_t*>(cds.lpData) + sizeof(Record);
        call.iconBits.assign(bits, bits + (cds.cbData - sizeof(Record)));

        BOOL bAnswer = FALSE;
        if (!bRefuse)
        {
            const bool bHeld = icons.count(r.uID) != 0;
            switch (call.dwMessage)
            {
            case NIM_ADD:
                bAnswer = !bHeld;
                break;
            case NIM_MODIFY:
                bAnswer = bHeld;
                break;
            case NIM_DELETE:
                bAnswer = icons.erase(r.uID) != 0;
                break;
            default:
                break;
            }
            if (bAnswer && call.dwMessage != NIM_DELETE)
            {
                Icon& icon = icons[r.uID];
                if (r.uFlags & NIF_MESSAGE)
                    icon.uCallbackMessage = r.uCallbackMessage;
                if (r.uFlags & NIF_TIP)
                    icon.tip = call.tip;
                if (r.uFlags & NIF_ICON)
                    icon.iconBits = call.iconBits;
            }
        }
        call.bAnswer = bAnswer;
        calls.push_back(call);
        return bAnswer;
    }

    static LRESULT CALLBACK Proc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
    {
        auto* self = reinterpret_cast<FakeShell*>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
        if (uMsg == WM_COPYDATA && self != nullptr)
            return self->OnCopyData(*reinterpret_cast<const COPYDATASTRUCT*>(lParam));
        return DefWindowProcW(hWnd, uMsg, wParam, lParam);
    }

    HWND m_hWnd = nullptr;
};

} // namespace kvtest
