#include "base/heap_buf.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <utility>

namespace {

using talvek::HeapBuf;

TEST(HeapBuf, OwnsOneBlock) {
    HeapBuf<uint32_t> buf = HeapBuf<uint32_t>::Zeroed(3);
    ASSERT_TRUE(buf);
    EXPECT_EQ(0U, buf[0] | buf[1] | buf[2]);
    uint32_t *pBlock = buf.get();
    HeapBuf<uint32_t> moved{std::move(buf)};
    EXPECT_FALSE(buf);  // NOLINT(bugprone-use-after-move): what a move leaves
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
