#include "KvLogText.h"

#include <cwchar>

const wchar_t KV_EVENT_PRODUCT_NAME[] = L"Kestrova Vexa Remote Control";

namespace
{

constexpr std::uint32_t KV_ERROR_IO_PENDING = 997;

// Appends into a fixed buffer and silently drops what does not fit; the buffer stays terminated.
class BoundedText
{
public:
    BoundedText(wchar_t* buf, std::size_t cch) : m_buf(buf), m_cch(cch), m_len(0)
    {
        if (m_cch > 0)
            m_buf[0] = L'\0';
    }

    void Append(const wchar_t* text)
    {
        if (text == nullptr || m_cch == 0)
            return;
        while (*text != L'\0' && m_len + 1 < m_cch)
            m_buf[m_len++] = *text++;
        m_buf[m_len] = L'\0';
    }

    std::size_t Length() const { return m_len; }

private:
    wchar_t* m_buf;
    std::size_t m_cch;
    std::size_t m_len;
};

} // namespace

std::uint32_t KvEventErrorCode(std::uint32_t dwGiven, std::uint32_t dwLastError)
{
    std::uint32_t dwCode = dwGiven != 0 ? dwGiven : dwLastError;
    return dwCode == KV_ERROR_IO_PENDING ? 0 : dwCode;
}

std::uint16_t KvEventTypeForCode(std::uint32_t dwCode)
{
    return dwCode != 0 ? KV_EVENT_TYPE_ERROR : KV_EVENT_TYPE_INFORMATION;
}

std::size_t KvFormatErrorEventText(wchar_t* buf, std::size_t cch, std::uint32_t dwCode, const wchar_t* msg)
{
    BoundedText text(buf, cch);
    text.Append(L"\r\n");
    text.Append(KV_EVENT_PRODUCT_NAME);
    text.Append(L"\r\nSystem Error: ");
    // Printed the way "%d" prints a DWORD: HRESULT-style codes come out negative.
    wchar_t szCode[16];
    std::swprintf(szCode, sizeof szCode / sizeof szCode[0], L"%d", static_cast<int>(dwCode));
    text.Append(szCode);
    text.Append(L"\r\n");
    text.Append(msg);
    return text.Length();
}

std::size_t KvFormatInformationEventText(wchar_t* buf, std::size_t cch, const wchar_t* msg)
{
    BoundedText text(buf, cch);
    text.Append(L"\r\n");
    text.Append(KV_EVENT_PRODUCT_NAME);
    text.Append(L"\r\n");
    text.Append(msg);
    return text.Length();
}

std::wstring KvWidenName(const char* name)
{
    std::wstring wide;
    if (name == nullptr)
        return wide;
    for (; *name != '\0'; ++name)
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*name)));
    return wide;
}

std::wstring KvThreadNameValue(const wchar_t* name, std::uint32_t dwThreadId)
{
    std::wstring value = name != nullptr ? name : L"";
    value += L'@';
    value += std::to_wstring(dwThreadId);
    return value;
}

bool KvPathBesideModule(wchar_t* buf, std::size_t cch, const wchar_t* modulePath, const wchar_t* fileName)
{
    if (cch == 0)
        return false;
    buf[0] = L'\0';
    if (modulePath == nullptr || fileName == nullptr)
        return false;

    std::size_t folderLen = 0;
    for (std::size_t i = 0; modulePath[i] != L'\0'; ++i)
    {
        if (modulePath[i] == L'\\')
            folderLen = i + 1;
    }
    std::size_t nameLen = 0;
    while (fileName[nameLen] != L'\0')
        ++nameLen;
    // A cut-off path would name some other file; better no configuration than the wrong one.
    if (folderLen + nameLen + 1 > cch)
        return false;

    for (std::size_t i = 0; i < folderLen; ++i)
        buf[i] = modulePath[i];
    for (std::size_t i = 0; i < nameLen; ++i)
        buf[folderLen + i] = fileName[i];
    buf[folderLen + nameLen] = L'\0';
    return true;
}
