#include "ServiceText.h"

namespace
{

bool IsHighSurrogate(char16_t c)
{
    return c >= 0xD800 && c <= 0xDBFF;
}

bool IsLowSurrogate(char16_t c)
{
    return c >= 0xDC00 && c <= 0xDFFF;
}

bool IsLeftOut(char16_t c)
{
    const bool bControl = (c < 0x20 && c != u'\t' && c != u'\r' && c != u'\n') || (c >= 0x7F && c <= 0x9F);
    const bool bDirection = (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
    return bControl || bDirection;
}

bool IsNonCharacter(char16_t c)
{
    return c == 0xFFFE || c == 0xFFFF || (c >= 0xFDD0 && c <= 0xFDEF);
}

} // namespace

std::u16string KvShowableText(const char16_t* pText, std::size_t cchMax, bool bMultiLine)
{
    std::u16string out;
    if (pText == nullptr)
        return out;
    std::size_t n = 0;
    while (n < cchMax && pText[n] != u'\0')
        ++n;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i)
    {
        const char16_t c = pText[i];
        if (IsHighSurrogate(c) && i + 1 < n && IsLowSurrogate(pText[i + 1]))
        {
            out += c;
            out += pText[++i];
        }
        else if (IsHighSurrogate(c) || IsLowSurrogate(c) || IsNonCharacter(c))
            out += u'\xFFFD';
        else if (c == u'\r' || c == u'\n')
        {
            if (c == u'\r' && i + 1 < n && pText[i + 1] == u'\n')
                ++i;
            out += bMultiLine ? u"\r\n" : u" ";
        }
        else if (c == u'\t')
            out += bMultiLine ? u'\t' : u' ';
        else if (!IsLeftOut(c))
            out += c;
    }
    return out;
}
