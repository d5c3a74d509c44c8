#include "SimultanousSessionMutex.h"

#include "KvHandles.h"
#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::SimultanousSessionMutex));

CSimultanousSessionMutex::CSimultanousSessionMutex(bool bOtiSession) : m_hMutex(nullptr)
{
    KvLogBlock logBlock(logger, L"CSimultanousSessionMutex::CSimultanousSessionMutex");
    LOG4CXX_DEBUG(logger, L"Session starting...");

    // A null DACL, so the service and every user's agent can open it, whoever created it.
    PSECURITY_DESCRIPTOR pSD =
        static_cast<PSECURITY_DESCRIPTOR>(LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH));
    if (pSD == nullptr)
    {
        LOG4CXX_WARN(logger, L"LocalAlloc failed. Error = " << GetLastError());
        return;
    }
    if (!InitializeSecurityDescriptor(pSD, SECURITY_DESCRIPTOR_REVISION))
    {
        LOG4CXX_WARN(logger, L"InitializeSecurityDescriptor failed. Error = " << GetLastError());
    }
    else if (!SetSecurityDescriptorDacl(pSD, TRUE, nullptr, FALSE))
    {
        LOG4CXX_WARN(logger, L"SetSecurityDescriptorDacl failed. Error = " << GetLastError());
    }
    else
    {
        SECURITY_ATTRIBUTES sa = {};
        sa.nLength = sizeof(sa);
        sa.lpSecurityDescriptor = pSD;
        sa.bInheritHandle = FALSE;
        m_hMutex = CreateMutexW(&sa, FALSE, bOtiSession ? KV_OTI_SESSION_MUTEX : KV_LOCAL_SESSION_MUTEX);
        if (m_hMutex == nullptr)
            LOG4CXX_WARN(logger, L"Failed to create session mutex. Error = " << GetLastError());
    }
    LocalFree(pSD);
}

CSimultanousSessionMutex::~CSimultanousSessionMutex()
{
    KvLogBlock logBlock(logger, L"CSimultanousSessionMutex::~CSimultanousSessionMutex");
    LOG4CXX_DEBUG(logger, L"Session terminated...");
    if (m_hMutex != nullptr)
    {
        CloseHandle(m_hMutex);
        m_hMutex = nullptr;
    }
}

bool CSimultanousSessionMutex::IsSession(const wchar_t* szMutexName)
{
    KvLogBlock logBlock(logger, L"CSimultanousSessionMutex::IsSession");
    bool bExist = true;
    const KvKernelHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, szMutexName));
    if (!mutex)
        // Any answer but "not found" (access denied, above all) counts as a running session.
        bExist = GetLastError() != ERROR_FILE_NOT_FOUND;
    LOG4CXX_DEBUG(logger, L"Session existence checked, exist = " << bExist);
    return bExist;
}

bool IsOtiSessionInProgress()
{
    KvLogBlock logBlock(logger, L"IsOtiSessionInProgress");
    return CSimultanousSessionMutex::IsSession(KV_OTI_SESSION_MUTEX);
}

bool IsLocalSessionInProgress()
{
    KvLogBlock logBlock(logger, L"IsLocalSessionInProgress");
    return CSimultanousSessionMutex::IsSession(KV_LOCAL_SESSION_MUTEX);
}
