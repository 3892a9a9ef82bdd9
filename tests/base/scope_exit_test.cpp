#include "base/scope_exit.h"

#include <errno.h>
#include <gtest/gtest.h>

namespace {

using talvek::ErrnoKeeper;
using talvek::ScopeExit;

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

}  // namespace
