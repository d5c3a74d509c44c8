// Text composition for the logging frame: event-log texts, thread names, the configuration path.
// Pure and portable, so the host build tests it natively.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Size of the event-log text buffer, in characters (including the terminating NUL).
constexpr std::size_t KV_EVENT_TEXT_CHARS = 1300;

// Event types as the event log defines them.
constexpr std::uint16_t KV_EVENT_TYPE_ERROR = 1;
constexpr std::uint16_t KV_EVENT_TYPE_INFORMATION = 4;

// The product name every event text starts with.
extern const wchar_t KV_EVENT_PRODUCT_NAME[];

// The code an error event reports: the given one, else the thread's last error. An I/O still
// pending is not an error.
std::uint32_t KvEventErrorCode(std::uint32_t dwGiven, std::uint32_t dwLastError);

// Error type for a non-zero code, information type for 0.
std::uint16_t KvEventTypeForCode(std::uint32_t dwCode);

// "\r\n<product>\r\nSystem Error: <code>\r\n<msg>" into buf; the code prints as a signed 32-bit
// number. Truncates to cch - 1 characters and always terminates (cch > 0). Returns the length.
std::size_t KvFormatErrorEventText(wchar_t* buf, std::size_t cch, std::uint32_t dwCode, const wchar_t* msg);

// "\r\n<product>\r\n<msg>", bounded like KvFormatErrorEventText.
std::size_t KvFormatInformationEventText(wchar_t* buf, std::size_t cch, const wchar_t* msg);

// Function names are ASCII identifiers; each byte becomes one character.
std::wstring KvWidenName(const char* name);

// The "threadName" context value: the given name, "@", the decimal thread id.
std::wstring KvThreadNameValue(const wchar_t* name, std::uint32_t dwThreadId);

// The path of fileName in the folder of modulePath (everything up to and including the last
// backslash). Returns false, with buf empty, when the result does not fit into cch characters.
bool KvPathBesideModule(wchar_t* buf, std::size_t cch, const wchar_t* modulePath, const wchar_t* fileName);
