// The session mutexes: held (the queries open them by name, as another process's would be), by
// nobody, and blocked by another object. The names are fixed, so these tests run one at a time
// (CMakeLists.txt).
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
