// Records written out byte by byte from the protocol's tables, independent of the structs in
// KvServiceMessages.h, so a wrong struct cannot agree with itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

class ByteLayout
{
public:
    explicit ByteLayout(std::size_t size) : m_bytes(size, 0) {}

    ByteLayout& U32(std::size_t offset, std::uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            m_bytes.at(offset + i) = static_cast<std::uint8_t>(v >> (8 * i));
        return *this;
    }

    ByteLayout& I32(std::size_t offset, std::int32_t v) { return U32(offset, static_cast<std::uint32_t>(v)); }

    // Little-endian IEEE bytes given literally (444.0 is 0x407BC00000000000).
    ByteLayout& U64(std::size_t offset, std::uint64_t v)
    {
        for (int i = 0; i < 8; ++i)
            m_bytes.at(offset + i) = static_cast<std::uint8_t>(v >> (8 * i));
        return *this;
    }

    // UTF-16LE units, no terminator written (the rest is zero already).
    ByteLayout& Str(std::size_t offset, const std::u16string& s)
    {
        for (std::size_t i = 0; i < s.size(); ++i)
        {
            m_bytes.at(offset + 2 * i) = static_cast<std::uint8_t>(s[i] & 0xFF);
            m_bytes.at(offset + 2 * i + 1) = static_cast<std::uint8_t>(s[i] >> 8);
        }
        return *this;
    }

    ByteLayout& Fill(std::size_t offset, std::size_t count, std::uint8_t v)
    {
        for (std::size_t i = 0; i < count; ++i)
            m_bytes.at(offset + i) = v;
        return *this;
    }

    const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }
    std::size_t Size() const { return m_bytes.size(); }
    const std::uint8_t* Data() const { return m_bytes.data(); }

private:
    std::vector<std::uint8_t> m_bytes;
};

template <typename T> std::vector<std::uint8_t> BytesOf(const T& rec)
{
    const auto* p = reinterpret_cast<const std::uint8_t*>(&rec);
    return std::vector<std::uint8_t>(p, p + sizeof(T));
}

// First differing offset, for readable failures; npos when equal.
inline std::size_t FirstDifference(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b)
{
    const std::size_t n = a.size() < b.size() ? a.size() : b.size();
    for (std::size_t i = 0; i < n; ++i)
        if (a[i] != b[i])
            return i;
    return a.size() == b.size() ? std::string::npos : n;
}
