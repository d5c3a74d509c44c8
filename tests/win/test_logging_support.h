// Shared by the tests that read logs: temporary folders, files, and a log4cxx configuration that
// writes one "level|logger|threadName|file:line|message" line per event.
#pragma once

#include <windows.h>
#include <shellapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace kvtest
{

inline std::string Narrow(const std::wstring& w)
{
    const int n =
        WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), s.data(), n, nullptr, nullptr);
    return s;
}

inline std::wstring ModuleFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring s(path);
    return s.substr(0, s.find_last_of(L'\\') + 1);
}

// A string of a resource module, whole.
inline std::wstring ResourceText(HMODULE hModule, UINT uId)
{
    const wchar_t* p = nullptr;
    const int cch = LoadStringW(hModule, uId, reinterpret_cast<LPWSTR>(&p), 0);
    return cch > 0 ? std::wstring(p, static_cast<size_t>(cch)) : std::wstring();
}

inline void WriteTextFile(const std::wstring& path, const std::string& text)
{
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.good()) << Narrow(path);
}

inline std::string ReadTextFile(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(!line.empty() && line.back() == '\r' ? line.substr(0, line.size() - 1) : line);
    return lines;
}

inline size_t CountContaining(const std::vector<std::string>& lines, const std::string& part)
{
    return std::count_if(lines.begin(), lines.end(),
                         [&](auto& line) { return line.find(part) != line.npos; });
}

// Lines of that level and logger whose message is exactly text.
inline size_t CountMessage(const std::vector<std::string>& lines, const std::string& level,
                           const std::string& logger, const std::string& text)
{
    const std::string head = level + "|" + logger + "|", tail = "|" + text;
    size_t n = 0;
    for (const std::string& line : lines)
        n += line.rfind(head, 0) == 0 && line.size() >= head.size() + tail.size() &&
             line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
    return n;
}

// A fresh folder under the temporary folder, removed with everything in it at the end.
class TempFolder
{
public:
    TempFolder()
    {
        static LONG counter = 0;
        wchar_t temp[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temp);
        m_path = std::wstring(temp) + L"kvlog-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(InterlockedIncrement(&counter)) + L"\\";
        CreateDirectoryW(m_path.c_str(), nullptr);
    }
    ~TempFolder()
    {
        // The shell wants the folder without its backslash, twice terminated.
        const std::wstring from = m_path.substr(0, m_path.size() - 1) + L'\0';
        SHFILEOPSTRUCTW op = {};
        op.wFunc = FO_DELETE;
        op.pFrom = from.c_str();
        op.fFlags = FOF_NO_UI;
        SHFileOperationW(&op);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return m_path; }

private:
    std::wstring m_path;
};

// One file appender (truncated at start) and the root at rootLevel.
inline std::string LogConfigXml(const std::wstring& logFile, const char* rootLevel)
{
    return "<log4j:configuration xmlns:log4j='http://jakarta.apache.org/log4j/'>"
           "<appender name='File' class='org.apache.log4j.FileAppender'><param name='File' value='" +
           Narrow(logFile) +
           "'/><param name='Append' value='false'/><param name='Encoding' value='UTF-8'/>"
           "<layout class='org.apache.log4j.PatternLayout'>"
           "<param name='ConversionPattern' value='%p|%c|%X{threadName}|%f:%L|%m%n'/></layout></appender>"
           "<root><level value='" +
           std::string(rootLevel) + "'/><appender-ref ref='File'/></root></log4j:configuration>";
}

} // namespace kvtest
