// Text from the service made fit to show. The service's records are not trusted: a field may lack
// its terminator, carry control characters, unpaired surrogates, or direction overrides that would
// make a viewer's name read as something else in a dialog that asks the user to trust it.
//
// Never hand the result to an edit control: under Wine its layout positions combining marks with
// the font's tables and reads before the first glyph when a line's run starts with a glyph the
// font classes as a mark (U+0EC8 alone, U+02D7 alone, a Hebrew point after a Latin letter in a
// Hebrew line), which kills the process. Static controls, list boxes, DrawTextW, tooltips and
// balloons do not take that path; the agent shows service text only through those.
#pragma once

#include <cstddef>
#include <string>

#ifdef _WIN32
#include <cwchar>
#endif

// At most cchMax units of pText, up to its terminator, with:
//   - C0 and C1 controls other than tab, CR and LF left out;
//   - U+202A..U+202E and U+2066..U+2069 (embeddings, overrides, isolates) left out;
//   - unpaired surrogates and the noncharacters U+FFFE, U+FFFF, U+FDD0..U+FDEF as U+FFFD;
//   - every line break (CR, LF, CR LF) as CR LF when bMultiLine, else as one blank; a tab as a
//     blank unless bMultiLine.
std::u16string KvShowableText(const char16_t* pText, std::size_t cchMax, bool bMultiLine);

// The same for a fixed array of a record.
template <std::size_t N> std::u16string KvShowableField(const char16_t (&field)[N], bool bMultiLine = false)
{
    return KvShowableText(field, N, bMultiLine);
}

#ifdef _WIN32
static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 wchar_t");

template <std::size_t N> std::wstring KvShowableFieldW(const char16_t (&field)[N], bool bMultiLine = false)
{
    const std::u16string text = KvShowableField(field, bMultiLine);
    return std::wstring(reinterpret_cast<const wchar_t*>(text.data()), text.size());
}
#endif
