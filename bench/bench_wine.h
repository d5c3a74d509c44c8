// What the system keeps for a process, where Wine leaves the usual calls unanswered
// (GetGuiResources and GetProcessHandleCount answer 0 there).
#pragma once

#include <windows.h>
#include <winternl.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Only under Wine: its GDI handle table is the process's own, where on Windows it is shared by the
// session.
inline bool UnderWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

template <typename F> inline F NtFunction(const char* szName)
{
    return reinterpret_cast<F>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), szName)));
}

// GDI handles in use: entries of the process's handle table with a type.
inline DWORD WineGdiObjects(DWORD dwPid)
{
    struct Entry // the table's row, 24 bytes
    {
        std::uint64_t object;
        std::uint32_t owner;
        std::uint16_t unique;
        std::uint8_t type;
        std::uint8_t flags;
        std::uint64_t user;
    };
    static_assert(sizeof(Entry) == 24, "GDI handle table row");
    constexpr std::size_t kEntries = 0x10000;
    constexpr std::size_t kPebGdiTable = 0xF8; // PEB field of the 64-bit layout

    using QueryProcess = LONG(WINAPI*)(HANDLE, PROCESSINFOCLASS, void*, ULONG, ULONG*);
    const auto pfnQuery = NtFunction<QueryProcess>("NtQueryInformationProcess");
    HANDLE h = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, dwPid);
    if (pfnQuery == nullptr || h == nullptr)
        return 0;
    DWORD n = 0;
    PROCESS_BASIC_INFORMATION pbi = {};
    std::uint64_t table = 0;
    std::vector<Entry> entries(kEntries);
    SIZE_T cbRead = 0;
    if (pfnQuery(h, ProcessBasicInformation, &pbi, sizeof pbi, nullptr) == 0 &&
        ReadProcessMemory(h, reinterpret_cast<BYTE*>(pbi.PebBaseAddress) + kPebGdiTable, &table, sizeof table,
                          nullptr) &&
        table != 0 &&
        ReadProcessMemory(h, reinterpret_cast<void*>(table), entries.data(), kEntries * sizeof(Entry),
                          &cbRead))
        for (std::size_t i = 0; i < cbRead / sizeof(Entry); ++i)
            n += entries[i].type != 0;
    CloseHandle(h);
    return n;
}
