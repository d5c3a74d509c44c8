// Entry point of the tray agent.
#include "KVNXST.h"

#include "KvLogText.h"
#include "KvLogging.h"
#include "UtilFile.h"

#include <windows.h>

#include <log4cxx/xml/domconfigurator.h>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXST));

namespace
{

// The configuration sits beside the executable, so each installation carries its own. When it
// cannot be read, log4cxx stays unconfigured and events are dropped.
void ConfigureLogging()
{
    wchar_t szModule[MAX_PATH] = {};
    if (!GetAgentPath(szModule, MAX_PATH))
        return;
    wchar_t szConfig[MAX_PATH];
    if (!KvPathBesideModule(szConfig, MAX_PATH, szModule, L"KVNXST.Logging.xml"))
        return;
    log4cxx::xml::DOMConfigurator::configure(std::wstring(szConfig));
}

} // namespace

int WINAPI wWinMain(HINSTANCE hInstance, HINSTANCE /*hPrevInstance*/, LPWSTR lpCmdLine, int /*nCmdShow*/)
{
    ConfigureLogging();
    KvSetThreadName(L"main");

    KvLogBlock logBlock(logger, L"wWinMain");
    LOG4CXX_INFO(logger, L"lpCmdLine=" << (lpCmdLine != nullptr ? lpCmdLine : L""));

    const int nExitCode = AgentMain(hInstance, lpCmdLine);
    LOG4CXX_INFO(logger, L"nExitCode=" << nExitCode);
    return nExitCode;
}
