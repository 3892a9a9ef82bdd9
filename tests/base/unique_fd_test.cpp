#include "base/unique_fd.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <utility>

namespace {

using talvek::UniqueFd;

int OpenNull() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFd, ClosesAtItsEnd) {
    const int fd = OpenNull();
    {
        const UniqueFd owner{fd};
        EXPECT_TRUE(owner);
        EXPECT_EQ(fd, owner.get());
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(UniqueFd{});
    EXPECT_FALSE(UniqueFd{-1});
}

TEST(UniqueFd, OwnsNothingAfterAReset) {
    const int fd = OpenNull();
    UniqueFd owner{fd};
    owner.Reset();
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(-1, owner.get());
}

TEST(UniqueFd, OwnsDescriptorZero) {
    const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    {
        const UniqueFd owner{STDIN_FILENO};
        EXPECT_TRUE(owner);
    }
    EXPECT_FALSE(IsOpen(STDIN_FILENO));
    UniqueFd other{dup(saved)};
    EXPECT_EQ(STDIN_FILENO, other.get());
    EXPECT_EQ(0, other.Close());
    EXPECT_FALSE(IsOpen(STDIN_FILENO));
    EXPECT_EQ(STDIN_FILENO, dup(saved));
    close(saved);
}

TEST(UniqueFd, MovesItsDescriptor) {
    const int fd = OpenNull();
    const int other = OpenNull();
    {
        UniqueFd first{fd};
        UniqueFd second{std::move(first)};
        EXPECT_EQ(fd, second.get());
        UniqueFd third{other};
        third = std::move(second);
        EXPECT_EQ(fd, third.get());
        EXPECT_FALSE(IsOpen(other)) << "what was held before is closed";
        EXPECT_EQ(fd, third.Release());
        EXPECT_FALSE(third);
    }
    EXPECT_TRUE(IsOpen(fd)) << "a released descriptor stays open";
    close(fd);
}

TEST(UniqueFd, ClosesOnceAndReturnsTheResult) {
    const int fd = OpenNull();
    UniqueFd owner{fd};
    EXPECT_EQ(0, owner.Close());
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(-1, owner.Close());
    UniqueFd broken{OpenNull()};
    close(broken.get());
    EXPECT_EQ(-1, broken.Close());
    EXPECT_EQ(EBADF, errno);
}

TEST(UniqueFd, KeepsErrno) {
    errno = EXDEV;
    {
        const UniqueFd owner{1'000'000};  // close fails
    }
    EXPECT_EQ(EXDEV, errno);
}

}  // namespace
