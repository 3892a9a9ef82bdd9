#include "base/unique_dir.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <utility>

namespace {

using talvek::UniqueDir;

TEST(UniqueDir, ClosesAtItsEnd) {
    int fd = -1;
    {
        UniqueDir opened{opendir("/")};
        const UniqueDir dir{std::move(opened)};
        EXPECT_FALSE(opened);  // NOLINT(bugprone-use-after-move): what a move leaves
        ASSERT_TRUE(dir);
        fd = dirfd(dir.get());
    }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST(UniqueDir, ClosesOnceAndReturnsTheResult) {
    UniqueDir dir{opendir("/")};
    EXPECT_EQ(0, dir.Close());
    EXPECT_FALSE(dir);
    EXPECT_EQ(-1, dir.Close());
}

TEST(UniqueDir, KeepsErrno) {
    {
        const UniqueDir dir{opendir("/")};
        ASSERT_TRUE(dir);
        close(dirfd(dir.get()));  // closedir fails
        errno = EXDEV;
    }
    EXPECT_EQ(EXDEV, errno);
}

}  // namespace
