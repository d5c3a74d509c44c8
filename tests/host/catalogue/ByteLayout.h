// Records written out byte by byte from the protocol's tables, independent of the structs in
// KvServiceMessages.h, so a wrong struct cannot agree with itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class ByteLayout
{
public:
    explicit ByteLayout(std::size_t size) : m_bytes(size, 0) {}

    // Little-endian; doubles go in as their IEEE bits (444.0 is 0x407BC00000000000).
    ByteLayout& Int(std::size_t offset, std::uint64_t v, int width = 4)
    {
        for (int i = 0; i < width; ++i)
            m_bytes.at(offset + i) = static_cast<std::uint8_t>(v >> (8 * i));
        return *this;
    }

    // UTF-16LE units, no terminator written (the rest is zero already).
    ByteLayout& Str(std::size_t offset, const std::u16string& s)
    {
        for (std::size_t i = 0; i < s.size(); ++i)
            Int(offset + 2 * i, s[i], 2);
        return *this;
    }

    ByteLayout& Fill(std::size_t offset, std::size_t count, std::uint8_t v)
    {
        for (std::size_t i = 0; i < count; ++i)
            m_bytes.at(offset + i) = v;
        return *this;
    }

    const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
};
