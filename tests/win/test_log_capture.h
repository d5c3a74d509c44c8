// Captures what the agent logs during a test: log4cxx writes every event, TRACE and up, to a file
// of a temporary folder, one "level|logger|thread|place|message" line each.
#pragma once

#include "test_logging_support.h"

#include <log4cxx/logmanager.h>
#include <log4cxx/xml/domconfigurator.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kvtest
{

class LogCapture
{
public:
    LogCapture()
    {
        m_log = m_dir.Path() + L"capture.log";
        const std::wstring xml = m_dir.Path() + L"capture.xml";
        WriteTextFile(xml, LogConfigXml(m_log, "TRACE"));
        m_bConfigured =
            log4cxx::xml::DOMConfigurator::configure(xml) == log4cxx::spi::ConfigurationStatus::Configured;
    }
    ~LogCapture() { log4cxx::LogManager::resetConfiguration(); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool Configured() const { return m_bConfigured; }

    std::vector<std::string> Lines() const { return kvtest::Lines(ReadTextFile(m_log)); }

    // The lines of one level and logger whose message is exactly text.
    size_t Count(const std::string& level, const std::string& loggerName, const std::string& text) const
    {
        const std::vector<std::string> lines = Lines();
        return static_cast<size_t>(std::count_if(
            lines.begin(), lines.end(),
            [&](const std::string& line)
            { return line.rfind(level + "|" + loggerName + "|", 0) == 0 && Message(line) == text; }));
    }

    // The message part of a captured line.
    static std::string Message(const std::string& line)
    {
        size_t pos = 0;
        for (int field = 0; field < 4 && pos != std::string::npos; ++field)
            pos = line.find('|', pos == 0 ? 0 : pos + 1);
        return pos == std::string::npos ? std::string() : line.substr(pos + 1);
    }

private:
    TempFolder m_dir;
    std::wstring m_log;
    bool m_bConfigured = false;
};

} // namespace kvtest
