#include "ReverseConnectionReport.h"

#include <utility>

namespace
{

const std::u16string_view KV_NO_ERROR = u"NOERROR";

std::u16string Decimal(std::uint32_t dwValue)
{
    std::u16string digits;
    do
    {
        digits.insert(digits.begin(), static_cast<char16_t>(u'0' + dwValue % 10));
        dwValue /= 10;
    } while (dwValue != 0);
    return digits;
}

} // namespace

std::u16string KvFormatWithString(std::u16string_view format, std::u16string_view arg)
{
    std::u16string out;
    out.reserve(format.size() + arg.size());
    bool bArgUsed = false;
    for (std::size_t i = 0; i < format.size(); ++i)
    {
        const char16_t c = format[i];
        const std::u16string_view rest = format.substr(i + 1);
        std::size_t cchConversion = 0;
        if (c == u'%' && !rest.empty() && (rest[0] == u's' || rest[0] == u'S'))
            cchConversion = 1;
        else if (c == u'%' && rest.size() >= 2 && rest[0] == u'l' && rest[1] == u's')
            cchConversion = 2;

        if (cchConversion != 0)
        {
            if (!bArgUsed)
                out.append(arg);
            bArgUsed = true;
            i += cchConversion;
        }
        else if (c == u'%' && !rest.empty() && rest[0] == u'%')
        {
            out.push_back(u'%');
            ++i;
        }
        else
        {
            out.push_back(c);
        }
    }
    return out;
}

std::u16string KvCutText(std::u16string text, std::size_t cchMax)
{
    if (text.size() <= cchMax)
        return text;
    std::size_t cch = cchMax;
    // A high surrogate without its partner would be a broken character at the end.
    if (cch > 0 && text[cch - 1] >= 0xD800 && text[cch - 1] <= 0xDBFF)
        --cch;
    text.resize(cch);
    return text;
}

KvReverseReport KvComposeReverseReport(const KvReverseReportInput& in)
{
    KvReverseReport report;
    if (in.bSuppress)
        return report;
    report.bBuilt = true;
    std::u16string text;
    if (in.bShort)
    {
        text = KvFormatWithString(in.shortFormat, in.shortText);
        report.bPost = in.errorText != KV_NO_ERROR;
    }
    else
    {
        const std::u16string& detail = in.errorText.empty() ? in.systemText : in.errorText;
        text = KvFormatWithString(in.longFormat, detail);
        text += u"\r\nHost: ";
        text += in.host;
        text += u"\r\nPort: ";
        text += Decimal(in.dwPort);
        report.bPost = true;
    }
    report.text = KvCutText(std::move(text), KV_REPORT_TEXT_UNITS - 1);
    return report;
}
