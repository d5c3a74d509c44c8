// Text conversions for the simulator: script lines are UTF-8, records carry UTF-16.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kvsim
{

// Invalid input becomes U+FFFD; nothing is dropped silently.
std::u16string Utf8ToUtf16(std::string_view s);
std::string Utf16ToUtf8(std::u16string_view s);
// The Western Windows code page (1252), the agent's ANSI code page under a Western locale. False
// when a character has no place in it.
bool Utf8ToWindows1252(std::string_view s, std::string& out);

// A record string for a trace line: quoted, control characters escaped, cut after maxChars.
std::string QuoteForTrace(std::u16string_view s, std::size_t maxChars = 64);

// Strict decimal or 0x-hex number that fits 32 bits.
bool ParseU32(std::string_view s, std::uint32_t& out);
bool ParseI32(std::string_view s, std::int32_t& out);

std::string ToLower(std::string_view s);

} // namespace kvsim
