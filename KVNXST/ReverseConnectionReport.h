// The text of the message box that tells the user how a reverse connection ended. Pure and
// portable (UTF-16 in and out), so the host build tests it natively; the connection thread loads
// the resource strings and the system message and hands them in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The tray window's report buffers, terminator included.
constexpr std::size_t KV_REPORT_TEXT_UNITS = 4096;

struct KvReverseReportInput
{
    bool bSuppress = false;     // the service asks for no report at all
    bool bShort = false;        // short report: shortFormat with shortText
    std::u16string shortFormat; // one string conversion
    std::u16string longFormat;  // one string conversion; host and port follow
    std::u16string errorText;   // the record's error text, "NOERROR" when there was none
    std::u16string systemText;  // the system's message for the record's error code
    std::u16string shortText;   // the record's text for the short report
    std::u16string host;        // what was dialled
    std::uint32_t dwPort = 0;
};

struct KvReverseReport
{
    bool bBuilt = false; // false: suppressed, the report members stay as they were
    bool bPost = false;  // the text is to be shown
    std::u16string text; // at most KV_REPORT_TEXT_UNITS - 1 units
};

KvReverseReport KvComposeReverseReport(const KvReverseReportInput& in);

// format with its first string conversion (%s, %ls, %S) replaced by arg; "%%" gives "%". Further
// string conversions become empty and anything else stays as written, so a translated resource
// can never make this read what was not given.
std::u16string KvFormatWithString(std::u16string_view format, std::u16string_view arg);

// text cut to cchMax units; a surrogate pair is never split.
std::u16string KvCutText(std::u16string text, std::size_t cchMax);
