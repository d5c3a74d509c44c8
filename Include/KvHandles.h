// Owners for the system's handles, so that every way out of a function closes what it opened.
// Closing keeps the thread's last error: callers read GetLastError after the owner has gone.
#pragma once

#include <winsock2.h>
#include <windows.h>

template <typename Traits>
class KvHandle
{
public:
    using Type = typename Traits::Type;

    KvHandle() noexcept : m_h(Traits::Invalid()) {}
    explicit KvHandle(Type h) noexcept : m_h(h) {}
    ~KvHandle() { Reset(); }

    KvHandle(const KvHandle&) = delete;
    KvHandle& operator=(const KvHandle&) = delete;
    KvHandle(KvHandle&& other) noexcept : m_h(other.Release()) {}
    KvHandle& operator=(KvHandle&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    Type Get() const noexcept { return m_h; }
    bool IsValid() const noexcept { return m_h != Traits::Invalid(); }
    explicit operator bool() const noexcept { return IsValid(); }

    // For functions that return the handle through a pointer; closes what was held first.
    Type* Put() noexcept
    {
        Reset();
        return &m_h;
    }

    Type Release() noexcept
    {
        Type h = m_h;
        m_h = Traits::Invalid();
        return h;
    }

    void Reset(Type h = Traits::Invalid()) noexcept
    {
        if (IsValid())
        {
            const DWORD dwError = GetLastError();
            Traits::Close(m_h);
            SetLastError(dwError);
        }
        m_h = h;
    }

private:
    Type m_h;
};

namespace KvHandleTraits
{
struct Kernel
{
    using Type = HANDLE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { CloseHandle(h); }
};
struct Key
{
    using Type = HKEY;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { RegCloseKey(h); }
};
struct Desktop
{
    using Type = HDESK;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { CloseDesktop(h); }
};
struct Module
{
    using Type = HMODULE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { FreeLibrary(h); }
};
struct Icon
{
    using Type = HICON;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { DestroyIcon(h); }
};
struct GdiObject
{
    using Type = HGDIOBJ;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { DeleteObject(h); }
};
struct Service
{
    using Type = SC_HANDLE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { CloseServiceHandle(h); }
};
struct Socket
{
    using Type = SOCKET;
    static Type Invalid() { return INVALID_SOCKET; }
    static void Close(Type h) { closesocket(h); }
};
} // namespace KvHandleTraits

using KvKernelHandle = KvHandle<KvHandleTraits::Kernel>; // events, mutexes, mappings, processes
using KvRegKey = KvHandle<KvHandleTraits::Key>;
using KvDesktop = KvHandle<KvHandleTraits::Desktop>;
using KvModule = KvHandle<KvHandleTraits::Module>;
using KvIcon = KvHandle<KvHandleTraits::Icon>;
using KvGdiObject = KvHandle<KvHandleTraits::GdiObject>;
using KvServiceHandle = KvHandle<KvHandleTraits::Service>;
using KvSocketHandle = KvHandle<KvHandleTraits::Socket>;
