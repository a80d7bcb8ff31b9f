// The lock rules of store_access.h, as builds with VRIX_DEBUG_LOCKS check them.
#include "core/flags.h"
#include "core/messages.h"
#include "core/pacing.h"
#include "core/store_access.h"
#include "support/queues.h"

#include <cerrno>

namespace {

#if VRIX_DEBUG_LOCKS

struct Mutex {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
};

TEST(LockRulesDeathTest, BrokenRulesAbortNamingTheRule) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Mutex a, b;
    EXPECT_DEATH(
        {
            vrix::SqlLock one(&a.m);
            vrix::SqlLock two(&b.m);
        },
        "vrix lock rule : at most one database mutex at a time");
    EXPECT_DEATH(
        {
            vrix::SqlLock one(&a.m);
            vrix::poll_pause();
        },
        "no database mutex held across a wait \\(poll pause\\)");
    EXPECT_DEATH(
        {
            vrix::SqlLock one(&a.m);
            vrix::pace_sleep_us(1);
        },
        "\\(paced sleep\\)");
    EXPECT_DEATH(
        {
            vrix::SqlLock one(&a.m);
            NotifyMessage msg{};
            vrix::send_message(-1, msg);
        },
        "\\(queue send\\)");
}

TEST(LockRules, GuardsOneAfterAnotherAndWaitsOutsideThemPass) {
    Mutex a, b;
    for (int i = 0; i < 3; ++i) {
        { vrix::SqlLock one(&a.m); }
        { vrix::SqlLock two(&b.m); }
        vrix::SqlLock none(nullptr); // repair's handles take no mutex
        vrix::poll_pause();
    }
}

TEST(LockRules, TheDatabaseMutexesAreErrorChecking) {
    vrix::test::start_library();
    ASSERT_NE(g_pDateSqlMutex, nullptr);
    ASSERT_EQ(pthread_mutex_lock(g_pDateSqlMutex), 0);
    EXPECT_EQ(pthread_mutex_lock(g_pDateSqlMutex), EDEADLK);
    EXPECT_EQ(pthread_mutex_unlock(g_pDateSqlMutex), 0);
}

#else

TEST(LockRules, CheckedOnlyWithDebugLocks) {
    GTEST_SKIP() << "built without VRIX_DEBUG_LOCKS: the lock rules are not checked";
}

#endif

} // namespace
