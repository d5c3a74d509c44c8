// Records written out byte by byte from the protocol's tables, independent of the structs in
// KvServiceMessages.h, so a wrong struct cannot agree with itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

// A value at an offset: a little-endian integer of `width` bytes (a double as its IEEE bits,
// 444.0 is 0x407BC00000000000), or UTF-16LE text without a terminator.
struct At
{
    At(std::size_t offset, std::uint64_t value, int width = 4) : offset(offset), value(value), width(width) {}
    At(std::size_t offset, std::u16string text) : offset(offset), text(std::move(text)) {}
    std::size_t offset;
    std::uint64_t value = 0;
    int width = 0;
    std::u16string text;
};

inline Bytes Layout(Bytes bytes, std::initializer_list<At> fields)
{
    for (const At& f : fields)
    {
        for (int i = 0; i < f.width; ++i)
            bytes.at(f.offset + i) = static_cast<std::uint8_t>(f.value >> (8 * i));
        for (std::size_t i = 0; i < f.text.size(); ++i)
        {
            bytes.at(f.offset + 2 * i) = static_cast<std::uint8_t>(f.text[i] & 0xFF);
            bytes.at(f.offset + 2 * i + 1) = static_cast<std::uint8_t>(f.text[i] >> 8);
        }
    }
    return bytes;
}

inline Bytes Layout(std::size_t size, std::initializer_list<At> fields)
{
    return Layout(Bytes(size, 0), fields);
}
