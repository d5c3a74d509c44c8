#include "SimText.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace kvsim
{

namespace
{

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf16(std::u16string& out, char32_t cp)
{
    if (cp < 0x10000)
    {
        out.push_back(static_cast<char16_t>(cp));
        return;
    }
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
}

void AppendUtf8(std::string& out, char32_t cp)
{
    if (cp < 0x80)
        out.push_back(static_cast<char>(cp));
    else if (cp < 0x800)
    {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
    else if (cp < 0x10000)
    {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
    else
    {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

} // namespace

std::u16string Utf8ToUtf16(std::string_view s)
{
    std::u16string out;
    out.reserve(s.size());
    std::size_t i = 0;
    while (i < s.size())
    {
        const auto b0 = static_cast<unsigned char>(s[i]);
        std::size_t len = b0 < 0x80 ? 1 : (b0 >> 5) == 6 ? 2 : (b0 >> 4) == 14 ? 3 : (b0 >> 3) == 30 ? 4 : 0;
        if (len == 0 || i + len > s.size())
        {
            AppendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        char32_t cp = len == 1 ? b0 : b0 & (0x7F >> len);
        bool ok = true;
        for (std::size_t k = 1; k < len; ++k)
        {
            const auto b = static_cast<unsigned char>(s[i + k]);
            if ((b & 0xC0) != 0x80)
            {
                ok = false;
                break;
            }
            cp = (cp << 6) | (b & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not characters.
        static const char32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (!ok || cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        {
            AppendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        AppendUtf16(out, cp);
        i += len;
    }
    return out;
}

bool Utf8ToWindows1252(std::string_view s, std::string& out)
{
    // Bytes 0x80 to 0x9F; the rest of the page is Latin-1. Zero marks the five unused bytes.
    static const char16_t kHigh[32] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                       0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
                                       0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                       0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
    out.clear();
    for (char16_t c : Utf8ToUtf16(s))
    {
        if (c < 0x80 || (c >= 0xA0 && c <= 0xFF))
        {
            out.push_back(static_cast<char>(c));
            continue;
        }
        const char16_t* found = std::find(std::begin(kHigh), std::end(kHigh), c);
        if (found == std::end(kHigh))
            return false;
        out.push_back(static_cast<char>(0x80 + (found - kHigh)));
    }
    return true;
}

std::string Utf16ToUtf8(std::u16string_view s)
{
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); ++i)
    {
        char32_t cp = s[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF)
        {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        }
        else if (cp >= 0xD800 && cp <= 0xDFFF)
            cp = kReplacement;
        AppendUtf8(out, cp);
    }
    return out;
}

std::string QuoteForTrace(std::u16string_view s, std::size_t maxChars)
{
    const bool cut = s.size() > maxChars;
    std::string body = Utf16ToUtf8(cut ? s.substr(0, maxChars) : s);
    std::string out = "\"";
    for (char c : body)
    {
        switch (c)
        {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20)
            {
                char hex[8];
                std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned>(c));
                out += hex;
            }
            else
                out.push_back(c);
        }
    }
    out += cut ? "\"..." : "\"";
    return out;
}

bool ParseU32(std::string_view s, std::uint32_t& out)
{
    unsigned base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
    {
        base = 16;
        s.remove_prefix(2);
    }
    if (s.empty())
        return false;
    std::uint64_t v = 0;
    for (char c : s)
    {
        unsigned d;
        if (c >= '0' && c <= '9')
            d = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = static_cast<unsigned>(c - 'A' + 10);
        else
            return false;
        v = v * base + d;
        if (v > 0xFFFFFFFFu)
            return false;
    }
    out = static_cast<std::uint32_t>(v);
    return true;
}

bool ParseI32(std::string_view s, std::int32_t& out)
{
    const bool negative = !s.empty() && s[0] == '-';
    if (negative)
        s.remove_prefix(1);
    std::uint32_t v;
    if (!ParseU32(s, v) || v > (negative ? 0x80000000u : 0x7FFFFFFFu))
        return false;
    out = negative ? static_cast<std::int32_t>(0u - v) : static_cast<std::int32_t>(v);
    return true;
}

std::string ToLower(std::string_view s)
{
    std::string out(s);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return out;
}

} // namespace kvsim
