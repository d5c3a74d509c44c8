// The About box's block of service information, composed without the Windows headers so the host
// tests run it as it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// Room for the block: a 4,096-byte buffer of UTF-16 units, terminator included.
constexpr std::size_t KV_ABOUT_INFO_UNITS = 4096 / sizeof(char16_t);

struct KvAboutFacts
{
    std::wstring values[9]; // the service's text values 1 to 9
    std::uint32_t uOptionA; // 0 selects the "clear" texts
    std::uint32_t uOptionB;
    std::uint32_t uFlagC; // nonzero adds the service's note line
    bool bOneTime;        // the one-time agent leaves the option lines out
};

// One labelled line per value, lines joined with CR LF, cut at cchMax - 1 units. The labels are
// the resource library's strings, fetched by id through label.
std::wstring KvComposeAboutInfo(const KvAboutFacts& facts, const std::function<std::wstring(int)>& label,
                                std::size_t cchMax);
