#include "base/unique_stream.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <utility>

namespace {

using talvek::UniqueFile;
using talvek::UniquePipe;

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueStream, ClosesAtItsEnd) {
    int fileFd = -1;
    int pipeFd = -1;
    {
        UniqueFile first{fopen("/dev/null", "re")};
        UniqueFile file;
        EXPECT_FALSE(file);
        file = std::move(first);
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what a move leaves
        const UniquePipe pipe{popen("true", "re")};
        fileFd = fileno(file.get());
        pipeFd = fileno(pipe.get());
        EXPECT_TRUE(IsOpen(fileFd) && IsOpen(pipeFd));
    }
    EXPECT_FALSE(IsOpen(fileFd) || IsOpen(pipeFd));
}

TEST(UniqueStream, KeepsErrno) {
    {
        const UniqueFile file{fopen("/dev/null", "re")};
        const UniquePipe pipe{popen("exit 3", "re")};
        ASSERT_TRUE(file && pipe);
        close(fileno(file.get()));  // fclose fails
        errno = EXDEV;
    }
    EXPECT_EQ(EXDEV, errno);
}

TEST(UniquePipe, ClosesOnceAndReturnsTheStatus) {
    UniquePipe pipe{popen("exit 3", "re")};
    EXPECT_EQ(3 << 8, pipe.Close());
    EXPECT_EQ(-1, pipe.Close());
    EXPECT_FALSE(pipe);
}

}  // namespace
