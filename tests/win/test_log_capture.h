// Captures what the agent logs during a test: every event, TRACE and up unless told, into a
// temporary file.
#pragma once

#include "test_logging_support.h"

#include <log4cxx/logmanager.h>
#include <log4cxx/xml/domconfigurator.h>

namespace kvtest
{

class LogCapture
{
public:
    explicit LogCapture(const char* rootLevel = "TRACE")
    {
        const std::wstring xml = m_dir.Path() + L"capture.xml";
        WriteTextFile(xml, LogConfigXml(m_log, rootLevel));
        m_bConfigured =
            log4cxx::xml::DOMConfigurator::configure(xml) == log4cxx::spi::ConfigurationStatus::Configured;
    }
    ~LogCapture() { log4cxx::LogManager::resetConfiguration(); }

    bool Configured() const { return m_bConfigured; }
    std::vector<std::string> Lines() const { return kvtest::Lines(ReadTextFile(m_log)); }
    size_t Count(const std::string& level, const std::string& logger, const std::string& text) const
    {
        return CountMessage(Lines(), level, logger, text);
    }

private:
    TempFolder m_dir;
    const std::wstring m_log = m_dir.Path() + L"capture.log";
    bool m_bConfigured = false;
};

} // namespace kvtest
