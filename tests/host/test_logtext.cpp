#include "KvLogText.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <memory>
#include <string>

namespace
{

const std::wstring kHead = L"\r\nKestrova Vexa Remote Control\r\n";

// Formats into a heap buffer of exactly cch characters, so ASan sees any write past its end.
std::wstring EventText(std::size_t cch, std::uint32_t code, const wchar_t* msg, bool bError = true)
{
    std::unique_ptr<wchar_t[]> buf(new wchar_t[cch]);
    const std::size_t len = bError ? KvFormatErrorEventText(buf.get(), cch, code, msg)
                                   : KvFormatInformationEventText(buf.get(), cch, msg);
    EXPECT_EQ(len, std::wcslen(buf.get()));
    return buf.get();
}

} // namespace

TEST(LogText, EventCodeTypeAndTextFollowTheGivenCodeOrTheLastError)
{
    EXPECT_EQ(5u, KvEventErrorCode(5, 2));
    EXPECT_EQ(2u, KvEventErrorCode(0, 2));
    EXPECT_EQ(0u, KvEventErrorCode(0, 997)); // an I/O still pending is no error
    EXPECT_EQ(0u, KvEventErrorCode(997, 5));
    EXPECT_EQ(4, KvEventTypeForCode(0));
    EXPECT_EQ(1, KvEventTypeForCode(5));
    EXPECT_EQ(1, KvEventTypeForCode(0x80004005u));

    const std::size_t cch = KV_EVENT_TEXT_CHARS;
    EXPECT_EQ(kHead + L"System Error: 5\r\nOpen failed", EventText(cch, 5, L"Open failed"));
    EXPECT_EQ(kHead + L"System Error: 0\r\nfine", EventText(cch, 0, L"fine"));
    EXPECT_EQ(kHead + L"System Error: -2147483648\r\nx", EventText(cch, 0x80000000u, L"x")); // "%d"
    EXPECT_EQ(kHead + L"System Error: 7\r\n", EventText(cch, 7, nullptr));
    EXPECT_EQ(kHead + L"Service started", EventText(cch, 0, L"Service started", false));
    EXPECT_EQ(kHead, EventText(cch, 0, nullptr, false));
}

TEST(LogText, EventTextIsCutToTheBufferAndStaysTerminated)
{
    const std::wstring head = kHead + L"System Error: 5\r\n";
    EXPECT_EQ(1299u, EventText(1300, 0, std::wstring(3000, L'm').c_str(), false).size());
    const std::wstring fits(1299 - head.size(), L'f');
    EXPECT_EQ(head + fits, EventText(1300, 5, fits.c_str()));
    EXPECT_EQ(head + fits, EventText(1300, 5, (fits + L"X").c_str()));

    // Buffers too small for the head: cut inside the head or the code.
    EXPECT_EQ(L"", EventText(1, 5, L"x"));
    EXPECT_EQ(L"\r\nKes", EventText(6, 5, L"x"));
    EXPECT_EQ(kHead + L"System Error: -21", EventText(kHead.size() + 18, 0x80000000u, L"x"));
    EXPECT_EQ(0u, KvFormatErrorEventText(nullptr, 0, 5, L"x"));
    EXPECT_EQ(0u, KvFormatInformationEventText(nullptr, 0, L"x"));
}

TEST(LogText, NamesWidenByteForByteThreadNamesCarryTheIdAndTheConfigurationSitsBesideTheModule)
{
    EXPECT_EQ(L"", KvWidenName(nullptr));
    EXPECT_EQ(L"Add\u00E9", KvWidenName("Add\xE9")); // each byte one character, never a negative one
    EXPECT_EQ(L"@0", KvThreadNameValue(nullptr, 0)); // named ones in every trace line

    wchar_t buf[260];
    ASSERT_TRUE(KvPathBesideModule(buf, 260, L"\\\\server\\share\\KVNXST.exe", L"a.xml"));
    EXPECT_EQ(L"\\\\server\\share\\a.xml", std::wstring(buf));
    ASSERT_TRUE(KvPathBesideModule(buf, 260, L"KVNXST.exe", L"a.xml"));
    EXPECT_EQ(L"a.xml", std::wstring(buf));
    // A path that does not fit is refused, not cut.
    std::unique_ptr<wchar_t[]> exact(new wchar_t[11]);
    ASSERT_TRUE(KvPathBesideModule(exact.get(), 11, L"C:\\d\\KVNXST.exe", L"a.xml"));
    EXPECT_EQ(L"C:\\d\\a.xml", std::wstring(exact.get()));
    EXPECT_FALSE(KvPathBesideModule(exact.get(), 10, L"C:\\d\\KVNXST.exe", L"a.xml"));
    EXPECT_EQ(L'\0', exact[0]);
    EXPECT_FALSE(KvPathBesideModule(buf, 260, nullptr, L"a.xml"));
}
