// The session mutexes: held here, by another process, by nobody, and blocked by another object.
// The names are fixed, so these tests run one at a time (CMakeLists.txt).
#include "SimultanousSessionMutex.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

namespace
{

const char kLogger[] = "SimultanousSessionMutex";

TEST(SessionMutexTest, EachKindMarksOnlyItselfWhileHeld)
{
    kvtest::LogCapture log;
    for (bool bOti : {true, false})
    {
        {
            CSimultanousSessionMutex session(bOti);
            ASSERT_NE(nullptr, session.GetHandle());
            EXPECT_EQ(bOti, IsOtiSessionInProgress());
            EXPECT_EQ(!bOti, IsLocalSessionInProgress());
        }
        EXPECT_FALSE(IsOtiSessionInProgress()) << bOti;
        EXPECT_FALSE(IsLocalSessionInProgress()) << bOti;
    }
    EXPECT_EQ(2u, log.Count("DEBUG", kLogger, "Session existence checked, exist = 1"));
    EXPECT_EQ(6u, log.Count("DEBUG", kLogger, "Session existence checked, exist = 0"));
}

TEST(SessionMutexTest, MutexOfAnotherProcessCounts)
{
    // session_holder.exe holds the local mutex, then signals the inherited event.
    SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
    HANDLE hReady = CreateEventW(&sa, TRUE, FALSE, nullptr);
    std::wstring cmd = L"\"" + kvtest::ModuleFolder() + L"session_holder.exe\" " +
                       std::to_wstring(reinterpret_cast<UINT_PTR>(hReady));
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    ASSERT_TRUE(CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi));
    HANDLE wait[2] = {hReady, pi.hProcess};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, wait, FALSE, 30000));

    EXPECT_TRUE(IsLocalSessionInProgress());
    EXPECT_FALSE(IsOtiSessionInProgress());
    {
        // Ours opens the same object: both processes hold the marker at once.
        CSimultanousSessionMutex local(false);
        EXPECT_NE(nullptr, local.GetHandle());
    }
    EXPECT_TRUE(IsLocalSessionInProgress());
    TerminateProcess(pi.hProcess, 0);
    WaitForSingleObject(pi.hProcess, 30000);
    EXPECT_FALSE(IsLocalSessionInProgress());
    for (HANDLE h : {pi.hProcess, pi.hThread, hReady})
        CloseHandle(h);
}

TEST(SessionMutexTest, NameTakenByAnotherKindOfObject)
{
    // Only "not found" means no session: an event of that name stands in for another account's
    // mutex we may not open (Wine does not enforce a mutex's DACL).
    HANDLE hEvent = CreateEventW(nullptr, TRUE, FALSE, KV_LOCAL_SESSION_MUTEX);
    ASSERT_NE(nullptr, hEvent);
    kvtest::LogCapture log;
    {
        CSimultanousSessionMutex local(false);
        EXPECT_EQ(nullptr, local.GetHandle());
    }
    EXPECT_EQ(1u, log.Count("WARN", kLogger, "Failed to create session mutex. Error = 6"));
    EXPECT_TRUE(IsLocalSessionInProgress());
    // The failed object closed nothing of ours.
    EXPECT_TRUE(SetEvent(hEvent));
    CloseHandle(hEvent);
    EXPECT_FALSE(IsLocalSessionInProgress());
}

} // namespace
