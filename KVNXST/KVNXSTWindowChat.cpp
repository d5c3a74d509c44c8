#include "KVNXSTWindowChat.h"

#include "KvLogging.h"
#include "UtilFile.h"
#include "UtilLog.h"

#include <cstring>
#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindowChat));

namespace
{

constexpr wchar_t KV_CHAT_LIBRARY[] = L"KVNXChat.dll";

template <typename Pfn> bool LookUp(HMODULE hLibrary, const char* szName, Pfn& pfn)
{
    pfn = reinterpret_cast<Pfn>(reinterpret_cast<void*>(GetProcAddress(hLibrary, szName)));
    if (pfn != nullptr)
        return true;
    const DWORD dwError = GetLastError();
    LOG4CXX_ERROR(logger, L"Failed to GetProcAddress for "
                              << std::wstring(szName, szName + std::strlen(szName)) << L" from KVNXChat.dll. "
                              << KvErrorText(dwError));
    return false;
}

} // namespace

CChatWindow::~CChatWindow()
{
    // The window runs the library's code: it goes before the library does.
    CloseChatWindow();
}

int CChatWindow::InitChatWindow()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::InitChatWindow");
    if (m_pfnCreateChatWindow != nullptr)
        return 1;
    m_pfnAppendChatMessage = nullptr;
    m_pfnCloseChatWindow = nullptr;

    // From the agent's folder only: a library of that name in the current folder or on the path
    // would run inside the user's session with the agent's trust.
    if (!m_hChatLibrary)
        m_hChatLibrary = KvModule(Vexa_LoadLibrary(KV_CHAT_LIBRARY));
    if (!m_hChatLibrary)
    {
        const DWORD dwError = GetLastError();
        LOG4CXX_ERROR(logger, L"Failed to load KVNXChat.dll. " << KvErrorText(dwError));
        return 0;
    }
    PFN_KVNX_CreateChatWindow pfnCreate = nullptr;
    if (!LookUp(m_hChatLibrary.Get(), KVNX_CREATE_CHAT_WINDOW, pfnCreate) ||
        !LookUp(m_hChatLibrary.Get(), KVNX_APPEND_CHAT_MESSAGE, m_pfnAppendChatMessage) ||
        !LookUp(m_hChatLibrary.Get(), KVNX_CLOSE_CHAT_WINDOW, m_pfnCloseChatWindow))
    {
        m_pfnAppendChatMessage = nullptr;
        m_pfnCloseChatWindow = nullptr;
        return 0;
    }
    // Set last: it is what says the library is ready.
    m_pfnCreateChatWindow = pfnCreate;
    return 1;
}

void CChatWindow::OpenChatWindow(HWND hOwner)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OpenChatWindow");
    if (m_hChatWnd != nullptr && IsWindow(m_hChatWnd))
    {
        // In front, but the user's typing elsewhere keeps the focus.
        SetWindowPos(m_hChatWnd, HWND_TOP, 0, 0, 0, 0,
                     SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE | SWP_SHOWWINDOW);
        return;
    }
    m_hChatWnd = nullptr;
    if (!InitChatWindow())
        return;
    m_hChatWnd = m_pfnCreateChatWindow(hOwner);
    if (m_hChatWnd == nullptr)
        LOG4CXX_ERROR(logger, L"KVNX_CreateChatWindow made no window.");
    else
        LOG4CXX_INFO(logger, L"Chat window opened.");
}

void CChatWindow::ShowChatMessage(HWND hOwner, const MSG_CHAT_MESSAGE* pMessage)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::ShowChatMessage");
    OpenChatWindow(hOwner);
    if (m_hChatWnd == nullptr)
    {
        LOG4CXX_WARN(logger, L"No chat window: the message is not shown.");
        return;
    }
    m_pfnAppendChatMessage(m_hChatWnd, pMessage);
}

void CChatWindow::CloseChatWindow()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::CloseChatWindow");
    const HWND hChat = m_hChatWnd;
    m_hChatWnd = nullptr;
    if (hChat != nullptr && IsWindow(hChat))
        DestroyWindow(hChat);
}
