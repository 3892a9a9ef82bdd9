#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "base/heap_buf.h"
#include "base/unique_dir.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"

namespace {

using talvek::HeapBuf;
using talvek::UniqueDir;
using talvek::UniqueFd;
using talvek::UniqueFile;
using talvek::UniquePipe;

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

TEST(UniqueOwners, KeepErrno) {
    errno = EXDEV;
    {
        const UniqueFd owner{1'000'000};  // close fails
        const UniqueFile file{fopen("/dev/null", "re")};
        const UniqueDir dir{opendir("/")};
        const UniquePipe pipe{popen("exit 3", "re")};
        ASSERT_TRUE(file && dir && pipe);
        close(fileno(file.get()));
        close(dirfd(dir.get()));
        errno = EXDEV;
    }
    EXPECT_EQ(EXDEV, errno);
}

TEST(UniqueOwners, CloseTheirStreams) {
    int fileFd = -1;
    int dirFd = -1;
    int pipeFd = -1;
    {
        UniqueFile first{fopen("/dev/null", "re")};
        UniqueFile file;
        EXPECT_FALSE(file);
        file = std::move(first);
        EXPECT_FALSE(first);
        UniqueDir opened{opendir("/")};
        const UniqueDir dir{std::move(opened)};
        const UniquePipe pipe{popen("true", "re")};
        fileFd = fileno(file.get());
        dirFd = dirfd(dir.get());
        pipeFd = fileno(pipe.get());
        EXPECT_TRUE(IsOpen(fileFd) && IsOpen(dirFd) && IsOpen(pipeFd));
    }
    EXPECT_FALSE(IsOpen(fileFd) || IsOpen(dirFd) || IsOpen(pipeFd));
}

TEST(UniquePipe, ClosesOnceAndTellsTheStatus) {
    UniquePipe pipe{popen("exit 3", "re")};
    EXPECT_EQ(3 << 8, pipe.Close());
    EXPECT_EQ(-1, pipe.Close());
    EXPECT_FALSE(pipe);
}

TEST(HeapBuf, OwnsOneBlock) {
    HeapBuf<uint32_t> buf = HeapBuf<uint32_t>::Zeroed(3);
    ASSERT_TRUE(buf);
    EXPECT_EQ(0U, buf[0] | buf[1] | buf[2]);
    uint32_t *pBlock = buf.get();
    HeapBuf<uint32_t> moved{std::move(buf)};
    EXPECT_FALSE(buf);
    EXPECT_EQ(pBlock, moved.get());
    moved = HeapBuf<uint32_t>::Zeroed(1);
    EXPECT_TRUE(moved);
    uint32_t *pReleased = moved.Release();
    EXPECT_FALSE(moved);
    moved.Reset(pReleased);
    EXPECT_EQ(pReleased, moved.get());
    moved.Reset();
    EXPECT_FALSE(moved);
}

TEST(HeapBuf, ResizesAndKeepsWhatFits) {
    HeapBuf<uint32_t> buf;
    ASSERT_TRUE(buf.Resize(2));
    buf[0] = 1;
    buf[1] = 2;
    ASSERT_TRUE(buf.Resize(1000));
    EXPECT_TRUE(buf[0] == 1 && buf[1] == 2);
    ASSERT_TRUE(buf.Resize(0)) << "a block of one element";
    EXPECT_EQ(1U, buf[0]);
    const uint32_t *pBlock = buf.get();
    errno = 0;
    EXPECT_FALSE(buf.Resize(SIZE_MAX / 4 + 1)) << "the size in bytes overflows";
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(pBlock, buf.get());
    EXPECT_EQ(1U, buf[0]);
}

}  // namespace
