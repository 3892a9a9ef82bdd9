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

#include "common/internal/byte_reader.h"
#include "common/internal/heap_buf.h"
#include "common/internal/mutex_lock.h"
#include "common/internal/scope_exit.h"
#include "common/internal/unique_fd.h"
#include "support/canary.h"

namespace {

using talvek::BigEndianReader;
using talvek::BigEndianWriter;
using talvek::HeapBuf;
using talvek::LittleEndianReader;
using talvek::LittleEndianWriter;
using talvek::MutexLock;
using talvek::ScopeExit;
using talvek::UniqueDir;
using talvek::UniqueFd;
using talvek::UniqueFile;
using talvek::UniquePipe;
using talvek::test::CanaryBuf;
using talvek::test::GuardedCopy;

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

TEST(UniqueFd, HandsItsDescriptorOn) {
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
    EXPECT_TRUE(IsOpen(fd)) << "nobody owns what was released";
    close(fd);
}

TEST(UniqueFd, ClosesOnceAndTellsTheResult) {
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

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
int g_order = 0;

void *SleepLocked(void *pAtExit) {
    const MutexLock lock{g_mutex};
    const ScopeExit note{[pAtExit] { *static_cast<int *>(pAtExit) = ++g_order; }};
    for (;;) {
        pause();
    }
}

TEST(Scopes, EndWhenTheirThreadIsCancelled) {
    pthread_t thread;
    int atExit = 0;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, SleepLocked, &atExit));
    while (pthread_mutex_trylock(&g_mutex) == 0) {
        pthread_mutex_unlock(&g_mutex);
        usleep(1000);
    }
    ASSERT_EQ(0, pthread_cancel(thread));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_EQ(1, atExit);
    EXPECT_EQ(0, pthread_mutex_trylock(&g_mutex));
    pthread_mutex_unlock(&g_mutex);
}

TEST(ByteReader, ReadsBothByteOrders) {
    const uint8_t bytes[] = {0x81, 0x02, 0xF3, 0x04, 0x85};
    BigEndianReader big{bytes};
    EXPECT_EQ(0x02, big.U8(1));
    EXPECT_EQ(0x8102, big.U16(0));
    EXPECT_EQ(0xF30485U, big.U24(2));
    EXPECT_EQ(0x8102F304U, big.U32(0));
    LittleEndianReader little{bytes};
    EXPECT_EQ(0x0281, little.U16(0));
    EXPECT_EQ(0x8504F3U, little.U24(2));
    EXPECT_EQ(0x8504F302U, little.U32(1));
    EXPECT_FALSE(big.failed() || little.failed());
}

// Each field at every length of the bytes below its own, and at offsets whose end overflows.
TEST(ByteReader, ReadsZeroWhereAFieldIsNotWhole) {
    const uint8_t bytes[4] = {1, 2, 3, 4};
    for (size_t length = 0; length <= sizeof bytes; ++length) {
        const GuardedCopy copy{bytes, length};
        const auto Try = [&](size_t width, auto read) {
            BigEndianReader reader{copy.bytes(), length};
            const uint32_t value = read(reader);
            EXPECT_EQ(length < width, reader.failed()) << length << " for " << width;
            EXPECT_EQ(length < width, value == 0);
        };
        Try(1, [](BigEndianReader &reader) { return uint32_t{reader.U8(0)}; });
        Try(2, [](BigEndianReader &reader) { return uint32_t{reader.U16(0)}; });
        Try(3, [](BigEndianReader &reader) { return reader.U24(0); });
        Try(4, [](BigEndianReader &reader) { return reader.U32(0); });
    }
    for (const size_t offset : {size_t{3}, size_t{4}, SIZE_MAX - 1, SIZE_MAX}) {
        BigEndianReader reader{bytes};
        EXPECT_EQ(0, reader.U16(offset));
        EXPECT_TRUE(reader.failed());
        EXPECT_EQ(offset == 3 ? 1U : 0U, reader.Sub(offset, SIZE_MAX).size());
    }
    BigEndianReader none{nullptr, 4};
    EXPECT_EQ(0U, none.size());
    EXPECT_EQ(0, none.U8(0));
}

TEST(ByteReader, CopiesAllOrZeros) {
    const uint8_t bytes[] = {1, 2, 3};
    BigEndianReader reader{bytes};
    uint8_t copied[3] = {9, 9, 9};
    EXPECT_TRUE(reader.Copy(1, copied, 2));
    EXPECT_EQ((std::vector<uint8_t>{2, 3, 9}), std::vector<uint8_t>(copied, copied + 3));
    EXPECT_TRUE(reader.Copy(3, copied, 0));
    EXPECT_FALSE(reader.failed());
    EXPECT_FALSE(reader.Copy(2, copied, 2));
    EXPECT_EQ((std::vector<uint8_t>{0, 0, 9}), std::vector<uint8_t>(copied, copied + 3));
    EXPECT_TRUE(reader.failed());
    BigEndianReader none{nullptr, 0};
    EXPECT_TRUE(none.Copy(0, copied, 0));
}

TEST(ByteReader, GivesTheBytesThatAreThere) {
    const uint8_t bytes[] = {1, 2, 3};
    const BigEndianReader reader{bytes};
    EXPECT_EQ(2U, reader.Sub(1, 2).size());
    EXPECT_EQ(bytes + 1, reader.Sub(1, 2).data());
    EXPECT_EQ(2U, reader.Sub(1, 3).size());
    EXPECT_EQ(0U, reader.Sub(3, 1).size());
    EXPECT_FALSE(reader.failed());
}

TEST(ByteWriter, WritesBothByteOrders) {
    uint8_t bytes[7] = {};
    BigEndianWriter big{bytes, sizeof bytes};
    EXPECT_TRUE(big.U8(0, 0x81) && big.U16(1, 0x0203) && big.U32(3, 0x84050607));
    EXPECT_EQ(0, memcmp(bytes, "\x81\x02\x03\x84\x05\x06\x07", 7));
    LittleEndianWriter little{bytes, sizeof bytes};
    EXPECT_TRUE(little.U16(1, 0x0203) && little.U32(3, 0x84050607));
    EXPECT_EQ(0, memcmp(bytes, "\x81\x03\x02\x07\x06\x05\x84", 7));
    EXPECT_TRUE(little.Copy(5, "xy", 2));
    EXPECT_EQ(0, memcmp(bytes + 5, "xy", 2));
    EXPECT_FALSE(big.failed() || little.failed());
}

TEST(ByteWriter, LeavesOutWhatDoesNotFit) {
    for (size_t size = 0; size < 4; ++size) {
        const CanaryBuf buf{size};
        BigEndianWriter writer{buf.bytes(), size};
        EXPECT_FALSE(writer.U32(0, 1));
        EXPECT_FALSE(writer.Copy(0, "four", 4));
        EXPECT_FALSE(writer.U16(SIZE_MAX, 1));
        EXPECT_FALSE(writer.U8(size, 1));
        EXPECT_TRUE(writer.failed());
        EXPECT_TRUE(buf.UntouchedFrom(0) && buf.Intact());
        EXPECT_TRUE(writer.Copy(size, nullptr, 0));
    }
}

}  // namespace
