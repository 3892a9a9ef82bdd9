#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/mutex_lock.h"
#include "base/scope_exit.h"
#include "support/cancellation.h"

namespace {

using talvek::CancelGuard;
using talvek::ErrnoKeeper;
using talvek::MutexLock;
using talvek::ScopeExit;
using namespace talvek::test;

TEST(ScopeExit, RunsAtTheEndOfTheScope) {
    int count = 0;
    {
        const ScopeExit add{[&count] { ++count; }};
        EXPECT_EQ(0, count);
    }
    EXPECT_EQ(1, count);
}

TEST(ErrnoKeeper, RestoresErrno) {
    errno = EXDEV;
    {
        const ErrnoKeeper keep;
        errno = 0;
    }
    EXPECT_EQ(EXDEV, errno);
}

TEST(MutexLock, LocksForItsScope) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        const MutexLock lock{mutex};
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex));
    }
    EXPECT_EQ(0, pthread_mutex_trylock(&mutex));
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
}

TEST(CancelGuard, HoldsCancellationOffUntilTheOutermostEnds) {
    EXPECT_FALSE(OutlastsCancellation([] { pthread_testcancel(); })) << "without a guard";
    EXPECT_TRUE(OutlastsCancellation([] {
        const CancelGuard outer;
        {
            const CancelGuard inner;
            pthread_testcancel();
        }
        pthread_testcancel();
    }));
}

}  // namespace
