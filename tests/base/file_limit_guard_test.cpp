#include "base/file_limit_guard.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>

namespace {

using talvek::FileLimitGuard;

bool IsPending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGXFSZ) == 1;
}

bool IsBlocked() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGXFSZ) == 1;
}

// The default action of the signal would end the test program.
TEST(FileLimitGuard, TakesTheSignalOfItsScope) {
    {
        const FileLimitGuard guard;
        EXPECT_TRUE(IsBlocked());
        EXPECT_EQ(0, pthread_kill(pthread_self(), SIGXFSZ));
        EXPECT_TRUE(IsPending());
        errno = EFBIG;
    }
    EXPECT_EQ(EFBIG, errno);
    EXPECT_FALSE(IsPending());
    EXPECT_FALSE(IsBlocked());
}

TEST(FileLimitGuard, LeavesTheSignalBlockedIfItWas) {
    sigset_t signal;
    sigset_t before;
    sigemptyset(&signal);
    sigaddset(&signal, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signal, &before);
    {
        const FileLimitGuard guard;
        pthread_kill(pthread_self(), SIGXFSZ);
    }
    EXPECT_TRUE(IsBlocked());
    EXPECT_FALSE(IsPending());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
