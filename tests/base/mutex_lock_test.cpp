#include "base/mutex_lock.h"

#include <gtest/gtest.h>

namespace {

using talvek::Mutex;
using talvek::MutexLock;

TEST(MutexLock, LocksForItsScope) {
    Mutex mutex;
    {
        const MutexLock lock{mutex};
        EXPECT_FALSE(mutex.TryLock());
    }
    ASSERT_TRUE(mutex.TryLock());
    mutex.Unlock();
}

TEST(Mutex, IsUnlockedByReset) {
    Mutex mutex;
    mutex.Lock();
    EXPECT_FALSE(mutex.TryLock());
    mutex.Reset();
    ASSERT_TRUE(mutex.TryLock());
    mutex.Unlock();
}

}  // namespace
