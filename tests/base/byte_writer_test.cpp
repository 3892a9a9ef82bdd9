#include "base/byte_writer.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include "support/canary.h"

namespace {

using talvek::BigEndianWriter;
using talvek::LittleEndianWriter;
using namespace talvek::test;

TEST(ByteWriter, WritesBothByteOrders) {
    uint8_t bytes[7] = {};
    BigEndianWriter big{bytes, sizeof bytes};
    big.U8(0, 0x81);
    big.U16(1, 0x0203);
    big.U32(3, 0x84050607);
    EXPECT_EQ(0, memcmp(bytes, "\x81\x02\x03\x84\x05\x06\x07", 7));
    LittleEndianWriter little{bytes, sizeof bytes};
    little.U16(1, 0x0203);
    little.U32(3, 0x84050607);
    EXPECT_EQ(0, memcmp(bytes, "\x81\x03\x02\x07\x06\x05\x84", 7));
    little.Copy(5, "xy", 2);
    little.Copy(4, "w", 1);
    EXPECT_EQ(0, memcmp(bytes + 4, "wxy", 3));
    EXPECT_FALSE(big.failed() || little.failed());
}

TEST(ByteWriter, WritesNoFieldThatDoesNotFit) {
    for (size_t size = 0; size < 4; ++size) {
        const CanaryBuf buf{size};
        const auto fails = [&](auto write) {
            BigEndianWriter writer{buf.bytes(), size};
            write(writer);
            return writer.failed();
        };
        EXPECT_TRUE(fails([](auto &writer) { writer.U32(0, 1); }));
        EXPECT_TRUE(fails([](auto &writer) { writer.Copy(0, "four", 4); }));
        EXPECT_TRUE(fails([](auto &writer) { writer.U16(SIZE_MAX, 1); }));
        EXPECT_TRUE(fails([&](auto &writer) { writer.U8(size, 1); }));
        EXPECT_FALSE(fails([&](auto &writer) { writer.Copy(size, nullptr, 0); }));
        EXPECT_TRUE(buf.UntouchedFrom(0) && buf.Intact());
    }
}

TEST(ByteWriter, HasNoRoomWithoutBytes) {
    BigEndianWriter writer{nullptr, 4};
    writer.U8(0, 1);
    EXPECT_TRUE(writer.failed());
}

}  // namespace
