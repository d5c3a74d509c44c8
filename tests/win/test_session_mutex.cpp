// The session mutexes: created here, by another process, by nobody, and blocked by another object.
#include "SimultanousSessionMutex.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

#include <string>

using kvtest::LogCapture;

namespace
{

const char kLogger[] = "SimultanousSessionMutex";

std::wstring Unique(const wchar_t* szPrefix)
{
    return std::wstring(szPrefix) + std::to_wstring(GetCurrentProcessId());
}

// session_holder.exe, beside this program, holding a session mutex until released.
class SessionHolder
{
public:
    explicit SessionHolder(const wchar_t* szKind)
        : m_readyName(Unique(L"KvTestHolderReady-")), m_releaseName(Unique(L"KvTestHolderRelease-")),
          m_hReady(CreateEventW(nullptr, TRUE, FALSE, m_readyName.c_str())),
          m_hRelease(CreateEventW(nullptr, TRUE, FALSE, m_releaseName.c_str()))
    {
        std::wstring cmd = L"\"" + kvtest::ModuleFolder() + L"session_holder.exe\" " + szKind + L" " +
                           m_readyName + L" " + m_releaseName;
        STARTUPINFOW si = {};
        si.cb = sizeof(si);
        if (CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &m_pi))
            CloseHandle(m_pi.hThread);
    }

    ~SessionHolder()
    {
        Release();
        CloseHandle(m_hReady);
        CloseHandle(m_hRelease);
    }

    SessionHolder(const SessionHolder&) = delete;
    SessionHolder& operator=(const SessionHolder&) = delete;

    // True once the mutex is held.
    bool WaitReady()
    {
        if (m_pi.hProcess == nullptr)
            return false;
        HANDLE handles[2] = {m_hReady, m_pi.hProcess};
        return WaitForMultipleObjects(2, handles, FALSE, 30000) == WAIT_OBJECT_0;
    }

    // Lets the holder go and returns its exit code.
    DWORD Release()
    {
        DWORD dwExit = 0xFFFFFFFF;
        if (m_pi.hProcess == nullptr)
            return dwExit;
        SetEvent(m_hRelease);
        WaitForSingleObject(m_pi.hProcess, 30000);
        GetExitCodeProcess(m_pi.hProcess, &dwExit);
        CloseHandle(m_pi.hProcess);
        m_pi.hProcess = nullptr;
        return dwExit;
    }

private:
    std::wstring m_readyName;
    std::wstring m_releaseName;
    HANDLE m_hReady;
    HANDLE m_hRelease;
    PROCESS_INFORMATION m_pi = {};
};

TEST(SessionMutexTest, NoSessionWhenNoMutexExists)
{
    LogCapture log;
    EXPECT_FALSE(IsOtiSessionInProgress());
    EXPECT_FALSE(IsLocalSessionInProgress());
    EXPECT_EQ(2u, log.Count("DEBUG", kLogger, "Session existence checked, exist = 0"));
}

TEST(SessionMutexTest, OwnMutexMarksItsKindOnlyUntilDestroyed)
{
    LogCapture log;
    {
        CSimultanousSessionMutex oti(true);
        ASSERT_NE(nullptr, oti.GetHandle());
        EXPECT_TRUE(IsOtiSessionInProgress());
        EXPECT_FALSE(IsLocalSessionInProgress());
    }
    EXPECT_FALSE(IsOtiSessionInProgress());
    {
        CSimultanousSessionMutex local(false);
        ASSERT_NE(nullptr, local.GetHandle());
        EXPECT_TRUE(IsLocalSessionInProgress());
        EXPECT_FALSE(IsOtiSessionInProgress());
    }
    EXPECT_FALSE(IsLocalSessionInProgress());

    EXPECT_EQ(2u, log.Count("DEBUG", kLogger, "Session starting..."));
    EXPECT_EQ(2u, log.Count("DEBUG", kLogger, "Session terminated..."));
    EXPECT_EQ(2u, log.Count("DEBUG", kLogger, "Session existence checked, exist = 1"));
    EXPECT_EQ(4u, log.Count("DEBUG", kLogger, "Session existence checked, exist = 0"));
}

TEST(SessionMutexTest, MutexOfAnotherProcessCounts)
{
    SessionHolder holder(L"local");
    ASSERT_TRUE(holder.WaitReady());
    EXPECT_TRUE(IsLocalSessionInProgress());
    EXPECT_FALSE(IsOtiSessionInProgress());
    // Ours opens the same object: both processes can hold the marker at once.
    {
        CSimultanousSessionMutex local(false);
        EXPECT_NE(nullptr, local.GetHandle());
    }
    EXPECT_TRUE(IsLocalSessionInProgress());
    EXPECT_EQ(0u, holder.Release());
    EXPECT_FALSE(IsLocalSessionInProgress());
}

TEST(SessionMutexTest, NameTakenByAnotherKindOfObject)
{
    // An event of the same name: creation fails, nothing is held, and the name still reads as a
    // session, since only "not found" means none (as for another account's mutex that we may not
    // open; Wine does not enforce a mutex's DACL, so this stands in for that case).
    HANDLE hEvent = CreateEventW(nullptr, TRUE, FALSE, KV_LOCAL_SESSION_MUTEX);
    ASSERT_NE(nullptr, hEvent);
    LogCapture log;
    {
        CSimultanousSessionMutex local(false);
        EXPECT_EQ(nullptr, local.GetHandle());
    }
    EXPECT_EQ(1u, log.Count("WARN", kLogger, "Failed to create session mutex. Error = 6"));
    EXPECT_EQ(1u, log.Count("DEBUG", kLogger, "Session terminated..."));
    EXPECT_TRUE(IsLocalSessionInProgress());
    // The failed object closed nothing: the event is still ours and alive.
    EXPECT_TRUE(SetEvent(hEvent));
    CloseHandle(hEvent);
    EXPECT_FALSE(IsLocalSessionInProgress());
}

} // namespace
