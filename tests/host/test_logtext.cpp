#include "KvLogText.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace
{

const std::wstring kProductLine = std::wstring(L"\r\n") + KV_EVENT_PRODUCT_NAME + L"\r\n";

// Formats into a heap buffer of exactly cch characters, so ASan sees any write past its end.
std::wstring ErrorText(std::size_t cch, std::uint32_t code, const wchar_t* msg, std::size_t* pLen = nullptr)
{
    std::unique_ptr<wchar_t[]> buf(new wchar_t[cch]);
    std::size_t len = KvFormatErrorEventText(buf.get(), cch, code, msg);
    if (pLen != nullptr)
        *pLen = len;
    return std::wstring(buf.get());
}

std::wstring InformationText(std::size_t cch, const wchar_t* msg)
{
    std::unique_ptr<wchar_t[]> buf(new wchar_t[cch]);
    KvFormatInformationEventText(buf.get(), cch, msg);
    return std::wstring(buf.get());
}

} // namespace

TEST(EventCode, GivenCodeWinsOverLastErrorAndPendingIoIsNoError)
{
    EXPECT_EQ(5u, KvEventErrorCode(5, 2));
    EXPECT_EQ(2u, KvEventErrorCode(0, 2));
    EXPECT_EQ(0u, KvEventErrorCode(0, 0));
    EXPECT_EQ(0u, KvEventErrorCode(0, 997));
    EXPECT_EQ(0u, KvEventErrorCode(997, 5));
    EXPECT_EQ(998u, KvEventErrorCode(998, 0));

    EXPECT_EQ(KV_EVENT_TYPE_INFORMATION, KvEventTypeForCode(0));
    EXPECT_EQ(KV_EVENT_TYPE_ERROR, KvEventTypeForCode(5));
    EXPECT_EQ(KV_EVENT_TYPE_ERROR, KvEventTypeForCode(0x80004005u));
    EXPECT_EQ(1, KV_EVENT_TYPE_ERROR);
    EXPECT_EQ(4, KV_EVENT_TYPE_INFORMATION);
}

TEST(EventText, ProductNameCodeAndMessageEachAfterCrLf)
{
    EXPECT_EQ(L"\r\nKestrova Vexa Remote Control\r\nSystem Error: 5\r\nOpen failed",
              ErrorText(KV_EVENT_TEXT_CHARS, 5, L"Open failed"));
    EXPECT_EQ(kProductLine + L"System Error: 0\r\nfine", ErrorText(KV_EVENT_TEXT_CHARS, 0, L"fine"));
    EXPECT_EQ(kProductLine + L"System Error: 4294967\r\nx", ErrorText(KV_EVENT_TEXT_CHARS, 4294967, L"x"));
    // "%d" semantics: a code with the top bit set prints negative, the extreme one included.
    EXPECT_EQ(kProductLine + L"System Error: -2147467259\r\nx",
              ErrorText(KV_EVENT_TEXT_CHARS, 0x80004005u, L"x"));
    EXPECT_EQ(kProductLine + L"System Error: -2147483648\r\nx",
              ErrorText(KV_EVENT_TEXT_CHARS, 0x80000000u, L"x"));
    EXPECT_EQ(kProductLine + L"System Error: 7\r\n", ErrorText(KV_EVENT_TEXT_CHARS, 7, nullptr));

    EXPECT_EQ(L"\r\nKestrova Vexa Remote Control\r\nService started",
              InformationText(KV_EVENT_TEXT_CHARS, L"Service started"));
    EXPECT_EQ(kProductLine, InformationText(KV_EVENT_TEXT_CHARS, nullptr));
}

TEST(EventText, LongMessageIsCutAtTheBufferAndStaysTerminated)
{
    const std::wstring longMsg(3000, L'm');
    std::size_t len = 0;
    std::wstring text = ErrorText(KV_EVENT_TEXT_CHARS, 5, longMsg.c_str(), &len);
    EXPECT_EQ(KV_EVENT_TEXT_CHARS - 1, len);
    EXPECT_EQ(KV_EVENT_TEXT_CHARS - 1, text.size());
    EXPECT_EQ(0u, text.find(kProductLine + L"System Error: 5\r\nmmm"));

    EXPECT_EQ(KV_EVENT_TEXT_CHARS - 1, InformationText(KV_EVENT_TEXT_CHARS, longMsg.c_str()).size());

    // A message that just fits is kept whole; one more character is dropped.
    const std::size_t head = (kProductLine + L"System Error: 5\r\n").size();
    const std::wstring fits(KV_EVENT_TEXT_CHARS - 1 - head, L'f');
    EXPECT_EQ(fits, ErrorText(KV_EVENT_TEXT_CHARS, 5, fits.c_str()).substr(head));
    EXPECT_EQ(fits, ErrorText(KV_EVENT_TEXT_CHARS, 5, (fits + L"X").c_str()).substr(head));

    // Buffers too small for the head: cut inside the head, the code or the message.
    EXPECT_EQ(L"", ErrorText(1, 5, L"x"));
    EXPECT_EQ(L"\r\nKes", ErrorText(6, 5, L"x"));
    const std::size_t codeAt = (kProductLine + L"System Error: ").size();
    EXPECT_EQ(kProductLine + L"System Error: -21", ErrorText(codeAt + 4, 0x80000000u, L"x"));
    EXPECT_EQ(0u, KvFormatErrorEventText(nullptr, 0, 5, L"x"));
    EXPECT_EQ(0u, KvFormatInformationEventText(nullptr, 0, L"x"));
}

TEST(LogText, NamesWidenByteForByteAndThreadNamesCarryTheDecimalId)
{
    EXPECT_EQ(L"CTaskBarWindow::NotifyConnect", KvWidenName("CTaskBarWindow::NotifyConnect"));
    EXPECT_EQ(L"", KvWidenName(""));
    EXPECT_EQ(L"", KvWidenName(nullptr));
    // A byte above 127 must not turn into a negative character.
    EXPECT_EQ(std::wstring(1, static_cast<wchar_t>(0xE9)), KvWidenName("\xE9"));

    EXPECT_EQ(L"main@1234", KvThreadNameValue(L"main", 1234));
    EXPECT_EQ(L"ConnectionInfo@4294967295", KvThreadNameValue(L"ConnectionInfo", 0xFFFFFFFFu));
    EXPECT_EQ(L"@0", KvThreadNameValue(nullptr, 0));
}

TEST(LogText, ConfigurationPathIsTheModuleFolderPlusTheFileNameOrNothing)
{
    wchar_t buf[260];
    ASSERT_TRUE(KvPathBesideModule(buf, 260, L"\\\\server\\share\\KVNXST.exe", L"a.xml"));
    EXPECT_EQ(L"\\\\server\\share\\a.xml", std::wstring(buf));
    // No folder at all: the file name alone, i.e. the current directory.
    ASSERT_TRUE(KvPathBesideModule(buf, 260, L"KVNXST.exe", L"a.xml"));
    EXPECT_EQ(L"a.xml", std::wstring(buf));

    // A path that does not fit is refused, not cut.
    const std::wstring folder = L"C:\\" + std::wstring(250, L'd') + L"\\";
    const std::wstring module = folder + L"KVNXST.exe";
    const std::wstring file = L"KVNXST.Logging.xml";
    const std::size_t exact = folder.size() + file.size() + 1;

    std::unique_ptr<wchar_t[]> exactBuf(new wchar_t[exact]);
    ASSERT_TRUE(KvPathBesideModule(exactBuf.get(), exact, module.c_str(), file.c_str()));
    EXPECT_EQ(folder + file, std::wstring(exactBuf.get()));

    exactBuf[0] = L'?';
    EXPECT_FALSE(KvPathBesideModule(exactBuf.get(), exact - 1, module.c_str(), file.c_str()));
    EXPECT_EQ(L'\0', exactBuf[0]);
    EXPECT_FALSE(KvPathBesideModule(exactBuf.get(), exact, nullptr, file.c_str()));
    EXPECT_FALSE(KvPathBesideModule(nullptr, 0, module.c_str(), file.c_str()));
}
