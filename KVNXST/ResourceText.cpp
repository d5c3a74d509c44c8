#include "ResourceText.h"

#include "KVNXST.h"
#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXST));

HINSTANCE KvResourceModule()
{
    return g_hResInstance != nullptr ? g_hResInstance : GetModuleHandleW(nullptr);
}

std::wstring KvLoadText(UINT uId)
{
    const wchar_t* p = nullptr;
    const int cch = LoadStringW(KvResourceModule(), uId, reinterpret_cast<LPWSTR>(&p), 0);
    if (cch <= 0 || p == nullptr)
    {
        LOG4CXX_WARN(logger, L"String " << uId << L" not found in the resource library.");
        return std::wstring();
    }
    return std::wstring(p, static_cast<std::size_t>(cch));
}
