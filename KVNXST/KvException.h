// The agent's own exception: a text for the log and the system error behind it. It stays inside
// the agent's units; nothing throws across the service link or a window procedure.
#pragma once

#include <windows.h>

#include <exception>
#include <string>

namespace kvUtil
{

class kvException : public std::exception
{
public:
    kvException(std::wstring text, DWORD dwError) : m_text(std::move(text)), m_dwError(dwError) {}

    const std::wstring& Text() const noexcept { return m_text; }
    DWORD Error() const noexcept { return m_dwError; }
    const char* what() const noexcept override { return "kvUtil::kvException"; }

private:
    std::wstring m_text;
    DWORD m_dwError;
};

} // namespace kvUtil
