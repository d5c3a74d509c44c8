// Shared by the logging tests: temporary folders, files, and a log4cxx configuration that writes
// one line per event in a form the tests can pick apart.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace kvtest
{

// One event per line: level|logger|threadName|file:line|message
inline const char kTestPattern[] = "%p|%c|%X{threadName}|%f:%L|%m%n";

inline std::string Narrow(const std::wstring& w)
{
    if (w.empty())
        return std::string();
    int n =
        WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), &s[0], n, nullptr, nullptr);
    return s;
}

inline std::wstring ModuleFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring s(path);
    return s.substr(0, s.find_last_of(L'\\') + 1);
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
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

inline size_t CountContaining(const std::vector<std::string>& lines, const std::string& part)
{
    size_t n = 0;
    for (const std::string& line : lines)
        n += line.find(part) != std::string::npos ? 1 : 0;
    return n;
}

// A fresh folder under the temporary folder, removed with its files at the end.
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
    ~TempFolder() { Remove(m_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return m_path; }

private:
    static void Remove(const std::wstring& folder)
    {
        WIN32_FIND_DATAW fd;
        HANDLE h = FindFirstFileW((folder + L"*").c_str(), &fd);
        if (h != INVALID_HANDLE_VALUE)
        {
            do
            {
                std::wstring name = fd.cFileName;
                if (name == L"." || name == L"..")
                    continue;
                if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                    Remove(folder + name + L"\\");
                else
                    DeleteFileW((folder + name).c_str());
            } while (FindNextFileW(h, &fd));
            FindClose(h);
        }
        RemoveDirectoryW(folder.c_str());
    }

    std::wstring m_path;
};

// A configuration with one file appender (truncated at start) and the root at rootLevel.
inline std::string LogConfigXml(const std::wstring& logFile, const char* rootLevel)
{
    std::string xml;
    xml += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    xml += "<log4j:configuration xmlns:log4j=\"http://jakarta.apache.org/log4j/\">\n";
    xml += "  <appender name=\"File\" class=\"org.apache.log4j.FileAppender\">\n";
    xml += "    <param name=\"File\" value=\"" + Narrow(logFile) + "\"/>\n";
    xml += "    <param name=\"Append\" value=\"false\"/>\n";
    xml += "    <param name=\"Encoding\" value=\"UTF-8\"/>\n";
    xml += "    <layout class=\"org.apache.log4j.PatternLayout\">\n";
    xml += std::string("      <param name=\"ConversionPattern\" value=\"") + kTestPattern + "\"/>\n";
    xml += "    </layout>\n";
    xml += "  </appender>\n";
    xml += std::string("  <root><level value=\"") + rootLevel + "\"/>";
    xml += "<appender-ref ref=\"File\"/></root>\n";
    xml += "</log4j:configuration>\n";
    return xml;
}

} // namespace kvtest
