#include "base/byte_reader.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <vector>

#include "support/canary.h"

namespace {

using talvek::BigEndianReader;
using talvek::LittleEndianReader;
using namespace talvek::test;

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

// Each field in buffers of 0 to 4 bytes, and at offsets whose end overflows.
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
    EXPECT_TRUE(reader.Copy(0, copied + 2, 1));
    EXPECT_EQ(1, copied[2]);
    EXPECT_TRUE(reader.Copy(3, copied, 0));
    EXPECT_FALSE(reader.failed());
    EXPECT_FALSE(reader.Copy(2, copied, 2));
    EXPECT_EQ((std::vector<uint8_t>{0, 0, 1}), std::vector<uint8_t>(copied, copied + 3));
    EXPECT_TRUE(reader.failed());
    BigEndianReader none{nullptr, 0};
    EXPECT_TRUE(none.Copy(0, copied, 0));
}

TEST(ByteReader, SubEndsAtTheEndOfTheBytes) {
    const uint8_t bytes[] = {1, 2, 3};
    const BigEndianReader reader{bytes};
    EXPECT_EQ(2U, reader.Sub(1, 2).size());
    EXPECT_EQ(bytes + 1, reader.Sub(1, 2).data());
    EXPECT_EQ(2U, reader.Sub(1, 3).size());
    EXPECT_EQ(0U, reader.Sub(3, 1).size());
    EXPECT_FALSE(reader.failed());
}

}  // namespace
