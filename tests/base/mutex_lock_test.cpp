#include "base/mutex_lock.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

namespace {

using talvek::MutexLock;

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

}  // namespace
