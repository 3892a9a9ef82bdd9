#include "common/h264.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "h264_bits.h"
#include "support/canary.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;
using namespace talvek::test::h264;

// ---- The bit reader ----

// The first `count` payload bytes as the reader gives them.
Bytes Payload(const Bytes &raw, size_t count) {
    const Guarded guarded{raw};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, guarded.get(), guarded.size());
    Bytes payload;
    for (size_t i = 0; i < count; ++i) {
        payload.push_back(static_cast<uint8_t>(reader.cache >> 24));
        COM_H264SkipBits(&reader, 8);
    }
    return payload;
}

TEST(H264BitReader, LoadsFourBytesAndRecordsItsPosition) {
    const Guarded bytes{{0x12, 0x34, 0x56, 0x78, 0x9A}};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
    EXPECT_EQ(bytes.get(), reader.pStart);
    EXPECT_EQ(bytes.get() + 4, reader.pPos);
    EXPECT_EQ(bytes.get() + 32, reader.pEnd);
    EXPECT_EQ(0x12345678U, reader.cache);
    EXPECT_EQ(0U, reader.consumed);
}

TEST(H264BitReader, LoadsAByteForEveryEightBits) {
    const Guarded bytes{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
    for (uint32_t i = 1; i < 8; ++i) {
        COM_H264SkipBits(&reader, 1);
        EXPECT_EQ(i, reader.consumed);
        EXPECT_EQ(0x12345678U, reader.cache);
    }
    COM_H264SkipBits(&reader, 0);
    EXPECT_EQ(7U, reader.consumed);
    COM_H264SkipBits(&reader, 1);
    EXPECT_EQ(0U, reader.consumed);
    EXPECT_EQ(0x3456789AU, reader.cache);
    COM_H264SkipBits(&reader, 13);
    EXPECT_EQ(5U, reader.consumed);
    EXPECT_EQ(0x56789ABCU, reader.cache);
    COM_H264SkipBits(&reader, 3);
    EXPECT_EQ(0U, reader.consumed);
    EXPECT_EQ(0x789ABCDEU, reader.cache);
}

TEST(H264BitReader, RemovesEmulationPreventionBytes) {
    struct Case {
        Bytes raw;
        Bytes payload;
    };
    const Case cases[] = {
        {{0, 0, 3, 1}, {0, 0, 1}},
        {{0, 0, 3, 1, 9}, {0, 0, 1, 9}},
        {{0, 0, 3, 0, 0, 3, 1, 9}, {0, 0, 0, 0, 1, 9}},
        {{0, 0, 3, 0, 3, 9}, {0, 0, 0, 3, 9}},  // only one zero precedes the second 3
        {{0, 0, 3, 3, 9}, {0, 0, 3, 9}},        // the replacement is not examined
        {{0, 0, 3, 0, 0, 3, 3, 9}, {0, 0, 0, 0, 3, 9}},
        {{0, 0, 0, 3, 9}, {0, 0, 0, 9}},
        {{0, 3, 0, 0, 2, 3}, {0, 3, 0, 0, 2, 3}},
        {{3, 0, 0, 1, 3}, {3, 0, 0, 1, 3}},
        {{1, 0, 0, 3, 9}, {1, 0, 0, 9}},
        {{1, 2, 0, 0, 3, 9}, {1, 2, 0, 0, 9}},
        {{1, 2, 3, 0, 0, 3, 9}, {1, 2, 3, 0, 0, 9}},
        {{1, 2, 3, 4, 0, 0, 3, 9}, {1, 2, 3, 4, 0, 0, 9}},
        {{1, 2, 3, 4, 5, 0, 0, 3, 9}, {1, 2, 3, 4, 5, 0, 0, 9}},
        {{0, 0, 3}, {0, 0}},
        {{0, 0}, {0, 0}},
        {{3}, {3}},
        {{0, 3}, {0, 3}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.payload, Payload(c.raw, c.payload.size())) << ::testing::PrintToString(c.raw);
    }
}

// Bytes before the first one are not examined: 00 00 before it do not count.
TEST(H264BitReader, IgnoresBytesBeforeItsFirst) {
    const Bytes bytes = {0, 0, 3, 1, 0x80};
    for (size_t i = 0; i < 3; ++i) {
        tH264BitReader reader;
        COM_H264InitBitReader(&reader, bytes.data() + i, bytes.size() - i);
        EXPECT_EQ(i == 0 ? 0x00000180U : i == 1 ? 0x00030180U : 0x03018000U, reader.cache) << i;
    }
}

TEST(H264BitReader, ReadsZerosAfterItsSizeAndTouchesNothingThere) {
    for (size_t size = 0; size <= 9; ++size) {
        Bytes expected(size, 0xEE);
        expected.resize(12);
        EXPECT_EQ(expected, Payload(Bytes(size, 0xEE), 12)) << size;
    }
    // Nothing replaces an emulation-prevention byte at the end.
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0}), Payload({0, 0, 3}, 6));
    EXPECT_EQ((Bytes{7, 7, 7, 0, 0, 0}), Payload({7, 7, 7, 0, 0, 3}, 6));

    const Guarded none{{}};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, none.get(), 0);
    COM_H264SkipBits(&reader, 1000003);
    EXPECT_EQ(0U, reader.cache);
    EXPECT_EQ(3U, reader.consumed);
    EXPECT_EQ((uint32_t{1} << 18) - 1, COM_H264ReadUe(&reader));
}

TEST(H264BitReader, AcceptsNull) {
    COM_H264InitBitReader(nullptr, nullptr, 5);
    COM_H264SkipBits(nullptr, 5);
    EXPECT_EQ(0U, COM_H264ReadUe(nullptr));
    EXPECT_EQ(0, COM_H264ReadSe(nullptr));
    tH264BitReader reader;
    memset(&reader, 0xA5, sizeof reader);
    COM_H264InitBitReader(&reader, nullptr, 5);
    COM_H264SkipBits(&reader, 50);
    EXPECT_EQ(0U, reader.cache);
    uint32_t list[16];
    uint32_t useDefault = 7;
    COM_H264ParseScalingList(nullptr, 16, &useDefault, &reader);
    COM_H264ParseScalingList(list, 16, nullptr, &reader);
    COM_H264ParseScalingList(list, 16, &useDefault, nullptr);
    EXPECT_EQ(7U, useDefault);
}

// ---- Exp-Golomb codes ----

const char kFirstCodes[] =
    "1"
    "010"
    "011"
    "00100"
    "00101"
    "00110"
    "00111"
    "0001000";

TEST(H264ReadUe, DecodesTheFirstCodesOfTheStandard) {
    const Guarded bytes{Pack(kFirstCodes)};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
    for (uint32_t value = 0; value < 8; ++value) {
        EXPECT_EQ(value, COM_H264ReadUe(&reader));
    }
}

TEST(H264ReadSe, DecodesTheFirstCodesOfTheStandard) {
    const Guarded bytes{Pack(kFirstCodes)};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
    for (const int32_t value : {0, 1, -1, 2, -2, 3, -3, 4}) {
        EXPECT_EQ(value, COM_H264ReadSe(&reader));
    }
}

// The smallest and the largest value of each length, and some between them.
std::vector<uint32_t> Values() {
    std::vector<uint32_t> values;
    for (uint32_t zeros = 0; zeros <= 23; ++zeros) {
        const uint32_t first = (uint32_t{1} << zeros) - 1;
        const uint32_t last = 2 * first;
        for (const uint32_t value : {first, first + 1, first + first / 3, last - 1, last}) {
            if (value >= first && value <= last) {
                values.push_back(value);
            }
        }
    }
    return values;
}

// Every length of code at every place in a byte, at addresses of every alignment, with the
// emulation-prevention bytes that the standard requires. The code of 5 after it shows that the
// right number of bits was consumed.
TEST(H264ReadUe, DecodesCodesWithUpTo23LeadingZerosAnywhere) {
    for (const uint32_t value : Values()) {
        for (uint32_t before = 0; before < 16; ++before) {
            for (const char fill : {'0', '1'}) {
                const std::string bits = std::string(before, fill) + Ue(value) + Ue(5);
                const Guarded bytes{Escape(Pack(bits))};
                tH264BitReader reader;
                COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
                COM_H264SkipBits(&reader, before);
                ASSERT_EQ(value, COM_H264ReadUe(&reader)) << "after " << before;
                ASSERT_EQ(5U, COM_H264ReadUe(&reader)) << value << " after " << before;
            }
        }
    }
}

TEST(H264ReadSe, DecodesCodesWithUpTo23LeadingZerosAnywhere) {
    for (const uint32_t code : Values()) {
        // Table 9-3: an odd code is the positive value.
        const int32_t half = static_cast<int32_t>((code + 1) / 2);
        const int32_t value = code % 2 == 1 ? half : -half;
        ASSERT_EQ(Ue(code), Se(value));
        for (uint32_t before = 0; before < 8; ++before) {
            const Guarded bytes{Escape(Pack(std::string(before, '1') + Ue(code) + Ue(5)))};
            tH264BitReader reader;
            COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
            COM_H264SkipBits(&reader, before);
            ASSERT_EQ(value, COM_H264ReadSe(&reader)) << "after " << before;
            ASSERT_EQ(5U, COM_H264ReadUe(&reader)) << value << " after " << before;
        }
    }
}

// With 24 or more leading zeros, 19 bits are skipped and the next 18 are the value.
TEST(H264ReadUe, ReadsTwentyFourZerosAsACodeOfEighteen) {
    for (uint32_t before = 0; before < 8; ++before) {
        for (const uint32_t low : {0U, 1U, 0x1FFFU, 0x1555U}) {  // the 13 bits after the zeros
            const Guarded bytes{Escape(
                Pack(std::string(before, '1') + std::string(24, '0') + Fixed(low, 13) + Ue(5)))};
            tH264BitReader reader;
            COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
            COM_H264SkipBits(&reader, before);
            EXPECT_EQ(low + (1U << 18) - 1, COM_H264ReadUe(&reader)) << before;
            EXPECT_EQ(5U, COM_H264ReadUe(&reader)) << before;

            COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
            COM_H264SkipBits(&reader, before);
            const int32_t code = static_cast<int32_t>(low + (1U << 18));
            EXPECT_EQ(code % 2 == 0 ? code / 2 : -(code / 2), COM_H264ReadSe(&reader)) << before;
        }
    }
}

TEST(H264ReadUe, ReadsFromAnyAddress) {
    const Bytes bytes = Escape(Pack(Ue(70000) + Ue(3) + Ue(0) + Ue(900)));
    alignas(8) uint8_t room[32] = {};
    for (size_t shift = 0; shift < 8; ++shift) {
        memcpy(room + shift, bytes.data(), bytes.size());
        tH264BitReader reader;
        COM_H264InitBitReader(&reader, room + shift, bytes.size());
        for (const uint32_t value : {70000U, 3U, 0U, 900U}) {
            EXPECT_EQ(value, COM_H264ReadUe(&reader)) << shift;
        }
    }
}

// ---- Scaling lists ----

struct List {
    std::vector<uint32_t> values;
    uint32_t useDefault = 7;
    uint32_t next = 0;  // value of the code after the list
};

List ReadList(const std::string &bits, int size) {
    const Guarded bytes{Escape(Pack(bits + Ue(42)))};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
    List list;
    const CanaryBuf out{static_cast<size_t>(size) * sizeof(uint32_t)};
    COM_H264ParseScalingList(reinterpret_cast<uint32_t *>(out.bytes()), size, &list.useDefault,
                             &reader);
    list.values.resize(static_cast<size_t>(size));
    memcpy(list.values.data(), out.bytes(), out.size());
    list.next = COM_H264ReadUe(&reader);
    return list;
}

TEST(H264ParseScalingList, StoresTheValuesThroughTheZigzagScan) {
    EXPECT_EQ((std::vector<size_t>{0, 1, 4, 8, 5, 2, 3, 6, 9, 12, 13, 10, 7, 11, 14, 15}),
              Zigzag(4));
    for (const size_t width : {4, 8}) {
        const std::vector<size_t> order = Zigzag(width);
        ASSERT_EQ(width * width, order.size());
        std::vector<uint32_t> sent;
        for (size_t i = 0; i < order.size(); ++i) {
            sent.push_back(static_cast<uint32_t>(i * 3 + 1));
        }
        const List list = ReadList(Deltas(sent), static_cast<int>(order.size()));
        EXPECT_EQ(0U, list.useDefault);
        EXPECT_EQ(42U, list.next);
        for (size_t i = 0; i < order.size(); ++i) {
            EXPECT_EQ(sent[i], list.values[order[i]]) << width << ", " << i;
        }
    }
}

TEST(H264ParseScalingList, FlagsTheDefaultListWhenTheFirstValueIsZero) {
    for (const int size : {16, 64}) {
        for (const int32_t delta : {-8, 248, -264}) {
            const List list = ReadList(Se(delta), size);
            EXPECT_EQ(1U, list.useDefault);
            EXPECT_EQ(std::vector<uint32_t>(static_cast<size_t>(size), 8), list.values);
            EXPECT_EQ(42U, list.next);
        }
    }
}

TEST(H264ParseScalingList, RepeatsTheLastValueAfterAZero) {
    for (const int size : {16, 64}) {
        const std::vector<size_t> order = Zigzag(size == 16 ? 4 : 8);
        for (size_t count = 1; count < order.size(); ++count) {
            std::vector<uint32_t> sent(count, 20);
            sent.back() = 33;
            sent.push_back(0);
            const List list = ReadList(Deltas(sent), size);
            EXPECT_EQ(0U, list.useDefault);
            EXPECT_EQ(42U, list.next) << count;
            for (size_t i = 0; i < order.size(); ++i) {
                EXPECT_EQ(i + 1 < count ? 20U : 33U, list.values[order[i]]) << count << ", " << i;
            }
        }
    }
}

TEST(H264ParseScalingList, CountsModulo256) {
    // 8 - 9 = 255, + 2 = 1, + 127 = 128, + 127 = 255, + 300 = 43, - 300 = 255
    const List list =
        ReadList(Se(-9) + Se(2) + Se(127) + Se(127) + Se(300) + Se(-300) + Se(-255), 16);
    const std::vector<size_t> order = Zigzag(4);
    const uint32_t expected[] = {255, 1, 128, 255, 43, 255};
    for (size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(expected[std::min<size_t>(i, 5)], list.values[order[i]]) << i;
    }
    EXPECT_EQ(0U, list.useDefault);
}

TEST(H264ParseScalingList, ReadsNothingForOtherSizes) {
    const Guarded bytes{Pack(Ue(9) + Ue(8))};
    for (const int size : {-1, 0, 15, 17, 63, 65}) {
        tH264BitReader reader;
        COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
        uint32_t list[65] = {};
        uint32_t useDefault = 7;
        COM_H264ParseScalingList(list, size, &useDefault, &reader);
        EXPECT_EQ(7U, useDefault);
        EXPECT_EQ(9U, COM_H264ReadUe(&reader));
    }
}

// ---- Sequence parameter sets ----

int Parse(const std::string &bits, tH264SpsInfo &info) {
    const Guarded bytes{Padded(Escape(Pack(bits)), COM_H264_SPS_REACH)};
    memset(&info, 0xA5, sizeof info);
    int result = 0;
    EXPECT_EQ(Lines{}, CaptureLog([&] { result = COM_H264ParseSps(bytes.get(), &info); }));
    return result;
}

tH264SpsInfo Accepted(const Sps &sps) {
    tH264SpsInfo info;
    EXPECT_EQ(0, Parse(sps.Bits(), info));
    return info;
}

bool IsZero(const void *pBytes, size_t size) {
    const uint8_t *pByte = static_cast<const uint8_t *>(pBytes);
    return std::all_of(pByte, pByte + size, [](uint8_t byte) { return byte == 0; });
}

TEST(H264ParseSps, ReadsABaselineSet) {
    Sps sps;
    sps.id = 3;
    sps.log2MaxFrameNum = 5;
    sps.refs = 4;
    sps.gaps = 1;
    sps.width = 44;
    sps.height = 35;
    const tH264SpsInfo info = Accepted(sps);
    EXPECT_EQ(66U, info.profile_idc);
    EXPECT_EQ(30U, info.level_idc);
    EXPECT_EQ(3U, info.sps_id);
    EXPECT_EQ(512U, info.max_frame_num);
    EXPECT_EQ(4U, info.max_num_ref_frames);
    EXPECT_EQ(44U, info.width_in_mbs_minus1);
    EXPECT_EQ(35U, info.height_in_map_units_minus1);
    EXPECT_EQ(0U, info.chroma_format_idc);
    EXPECT_EQ(0U, info.bit_depth_luma_minus8);
    EXPECT_EQ(0U, info.bit_depth_chroma_minus8);
    EXPECT_EQ(0U, info.qpprime_y_zero_transform_bypass);
    EXPECT_EQ(0U, info.scaling_matrix_present);
    EXPECT_TRUE(IsZero(info.scaling_list_4x4, sizeof info.scaling_list_4x4));
    EXPECT_TRUE(IsZero(info.scaling_list_8x8, sizeof info.scaling_list_8x8));
    EXPECT_TRUE(IsZero(info.use_default_4x4, sizeof info.use_default_4x4));
    EXPECT_TRUE(IsZero(info.use_default_8x8, sizeof info.use_default_8x8));
}

TEST(H264ParseSps, ReadsTheHighFieldsOfFourProfilesOnly) {
    for (uint32_t profile = 0; profile < 256; ++profile) {
        Sps sps;
        sps.profile = profile;
        sps.high = profile == 100 || profile == 110 || profile == 122 || profile == 144;
        sps.chroma = 2;
        sps.lumaDepth = 3;
        sps.chromaDepth = 4;
        sps.bypass = 1;
        sps.width = 119;
        const tH264SpsInfo info = Accepted(sps);
        EXPECT_EQ(profile, info.profile_idc);
        EXPECT_EQ(sps.high ? 2U : 0U, info.chroma_format_idc) << profile;
        EXPECT_EQ(sps.high ? 3U : 0U, info.bit_depth_luma_minus8) << profile;
        EXPECT_EQ(sps.high ? 4U : 0U, info.bit_depth_chroma_minus8) << profile;
        EXPECT_EQ(sps.high ? 1U : 0U, info.qpprime_y_zero_transform_bypass) << profile;
        EXPECT_EQ(0U, info.scaling_matrix_present) << profile;
        EXPECT_EQ(119U, info.width_in_mbs_minus1) << profile;
        EXPECT_EQ(2U, info.height_in_map_units_minus1) << profile;
    }
}

TEST(H264ParseSps, ReadsEightListsAndTwelveOf444) {
    for (const uint32_t chroma : {0U, 1U, 2U, 3U, 4U}) {
        const size_t count = chroma == 3 ? 12 : 8;
        // All lists but one; its flag is 0.
        for (size_t without = 0; without < count; ++without) {
            Sps sps;
            sps.profile = 100;
            sps.high = true;
            sps.chroma = chroma;
            for (size_t i = 0; i < count; ++i) {
                const std::vector<uint32_t> values(i < 6 ? 16 : 64, static_cast<uint32_t>(i) + 30);
                sps.lists.push_back(i == without ? "0" : "1" + Deltas(values));
            }
            const tH264SpsInfo info = Accepted(sps);
            EXPECT_EQ(1U, info.scaling_matrix_present);
            EXPECT_EQ(3U, info.width_in_mbs_minus1);
            for (size_t i = 0; i < 12; ++i) {
                const uint32_t *pList =
                    i < 6 ? info.scaling_list_4x4[i] : info.scaling_list_8x8[i - 6];
                const uint32_t expected =
                    i == without || i >= count ? 0 : static_cast<uint32_t>(i) + 30;
                EXPECT_EQ(expected, pList[0]) << i;
                EXPECT_EQ(expected, pList[i < 6 ? 15 : 63]) << i;
                EXPECT_EQ(0U, i < 6 ? info.use_default_4x4[i] : info.use_default_8x8[i - 6]) << i;
            }
        }
    }
}

TEST(H264ParseSps, FlagsEachListThatIsTheDefaultOne) {
    for (size_t which = 0; which < 12; ++which) {
        Sps sps;
        sps.profile = 122;
        sps.high = true;
        sps.chroma = 3;
        for (size_t i = 0; i < 12; ++i) {
            sps.lists.push_back(i == which ? "1" + Se(-8) : "0");
        }
        const tH264SpsInfo info = Accepted(sps);
        for (size_t i = 0; i < 12; ++i) {
            EXPECT_EQ(i == which ? 1U : 0U,
                      i < 6 ? info.use_default_4x4[i] : info.use_default_8x8[i - 6]);
        }
        EXPECT_EQ(2U, info.height_in_map_units_minus1);
    }
}

TEST(H264ParseSps, ReturnsMaxFrameNumAsAPowerOfTwo) {
    for (uint32_t log2 = 0; log2 <= 27; ++log2) {
        Sps sps;
        sps.log2MaxFrameNum = log2;
        EXPECT_EQ(uint32_t{16} << log2, Accepted(sps).max_frame_num) << log2;
    }
    // 2^32 and more are too large for the field.
    for (const uint32_t log2 : {28U, 29U, 60U, 0xFFFFFEU}) {
        Sps sps;
        sps.log2MaxFrameNum = log2;
        EXPECT_EQ(0U, Accepted(sps).max_frame_num) << log2;
        EXPECT_EQ(3U, Accepted(sps).width_in_mbs_minus1) << log2;
    }
}

TEST(H264ParseSps, RefusesPictureOrderCountsOfMoreThan16Bits) {
    for (uint32_t lsb = 0; lsb <= 20; ++lsb) {
        Sps sps;
        sps.profile = 77;
        sps.level = 0x1F;
        sps.id = 6;
        sps.log2MaxFrameNum = 3;
        sps.pictureOrder = Ue(0) + Ue(lsb);
        const Guarded bytes{Padded(Escape(Pack(sps.Bits())), COM_H264_SPS_REACH)};
        tH264SpsInfo info;
        memset(&info, 0xA5, sizeof info);
        int result = -1;
        const Lines log = CaptureLog([&] { result = COM_H264ParseSps(bytes.get(), &info); });
        if (lsb <= 12) {
            EXPECT_EQ(0, result) << lsb;
            EXPECT_EQ(Lines{}, log);
            continue;
        }
        EXPECT_EQ(1, result) << lsb;
        EXPECT_EQ(int{COM_H264_SPS_POC_LSB}, result);
        EXPECT_EQ((Lines{"COMMON:COM_H264ParseSps(): Err : (profile_idc, level_idc, result) = "
                         "(0x4D, 0x1F, 1)"}),
                  log);
        // The fields before the refused one.
        EXPECT_EQ(77U, info.profile_idc);
        EXPECT_EQ(31U, info.level_idc);
        EXPECT_EQ(6U, info.sps_id);
        EXPECT_EQ(128U, info.max_frame_num);
        EXPECT_EQ(0U, info.max_num_ref_frames);
        EXPECT_EQ(0U, info.width_in_mbs_minus1);
        EXPECT_EQ(0U, info.height_in_map_units_minus1);
    }
}

TEST(H264ParseSps, RefusesPictureOrderCyclesOf256AndMore) {
    for (const uint32_t cycle : {0U, 1U, 2U, 254U, 255U, 256U, 257U, 0xFFFFFEU}) {
        Sps sps;
        sps.profile = 100;
        sps.high = true;
        sps.level = 0xA;
        sps.pictureOrder = Ue(1) + "1" + Se(-70000) + Se(123) + Ue(cycle);
        for (uint32_t i = 0; i < cycle && cycle < 256; ++i) {
            sps.pictureOrder += Se(static_cast<int32_t>(i * i) - 5000);
        }
        const Guarded bytes{Padded(Escape(Pack(sps.Bits())), COM_H264_SPS_REACH)};
        tH264SpsInfo info;
        int result = -1;
        const Lines log = CaptureLog([&] { result = COM_H264ParseSps(bytes.get(), &info); });
        if (cycle <= 255) {
            EXPECT_EQ(0, result) << cycle;
            EXPECT_EQ(Lines{}, log);
            EXPECT_EQ(3U, info.width_in_mbs_minus1) << cycle;
            EXPECT_EQ(2U, info.height_in_map_units_minus1) << cycle;
        } else {
            EXPECT_EQ(2, result) << cycle;
            EXPECT_EQ(int{COM_H264_SPS_POC_CYCLE}, result);
            EXPECT_EQ((Lines{"COMMON:COM_H264ParseSps(): Err : (profile_idc, level_idc, result) = "
                             "(0x64, 0xA, 2)"}),
                      log);
        }
    }
}

TEST(H264ParseSps, ReadsNothingMoreForOtherPictureOrderTypes) {
    for (const uint32_t type : {2U, 3U, 4U, 255U, 0xFFFFFEU}) {
        Sps sps;
        sps.pictureOrder = Ue(type);
        sps.refs = 7;
        EXPECT_EQ(7U, Accepted(sps).max_num_ref_frames) << type;
        EXPECT_EQ(3U, Accepted(sps).width_in_mbs_minus1) << type;
    }
}

TEST(H264ParseSps, ReadsProfileAndLevelFromTheirBytes) {
    // 00 00 03: level_idc is byte 2, even if that is an emulation-prevention byte.
    const Guarded bytes{Padded({0, 0, 3, 0xFF}, COM_H264_SPS_REACH, 0xFF)};
    tH264SpsInfo info;
    EXPECT_EQ(0, COM_H264ParseSps(bytes.get(), &info));
    EXPECT_EQ(0U, info.profile_idc);
    EXPECT_EQ(3U, info.level_idc);
}

TEST(H264ParseSps, FailsForNull) {
    tH264SpsInfo info;
    const Bytes bytes(COM_H264_SPS_REACH);
    EXPECT_EQ(-1, COM_H264ParseSps(nullptr, &info));
    EXPECT_EQ(-1, COM_H264ParseSps(bytes.data(), nullptr));
}

TEST(H264ParseSps, ReadsFromAnyAddress) {
    Sps sps;
    sps.width = 1919;
    const Bytes bytes = Padded(Escape(Pack(sps.Bits())), COM_H264_SPS_REACH);
    Bytes room(COM_H264_SPS_REACH + 8);
    for (size_t shift = 0; shift < 8; ++shift) {
        std::copy(bytes.begin(), bytes.end(), room.begin() + static_cast<ptrdiff_t>(shift));
        tH264SpsInfo info;
        EXPECT_EQ(0, COM_H264ParseSps(room.data() + shift, &info));
        EXPECT_EQ(1919U, info.width_in_mbs_minus1);
    }
}

// ---- Slice headers ----

struct Probe {
    int sliceClass;
    tH264SliceInfo info;
    bool filled;
};

Probe ProbeSlice(const Bytes &bytes, uint32_t spsId, uint32_t maxFrameNum, uint8_t fill = 0xFF) {
    const Guarded guarded{Padded(bytes, COM_H264_SLICE_REACH, fill)};
    tH264SpsInfo sps = {};
    sps.sps_id = spsId;
    sps.max_frame_num = maxFrameNum;
    tH264SliceInfo before;
    memset(&before, 0xA5, sizeof before);
    Probe probe = {0, before, false};
    probe.sliceClass = COM_H264ParseSliceHeader(guarded.get(), &sps, &probe.info);
    probe.filled = memcmp(&before, &probe.info, sizeof before) != 0;
    return probe;
}

constexpr int kClasses[10] = {2, 3, 1, 2, 1, 2, 3, 1, 2, 1};  // of table 7-6, by slice_type

TEST(H264ParseSliceHeader, ClassifiesEverySliceType) {
    for (uint32_t type = 0; type <= 9; ++type) {
        const Probe probe = ProbeSlice(Pack(Ue(99) + Ue(type) + Ue(4) + Fixed(11, 4)), 4, 16);
        EXPECT_EQ(kClasses[type], probe.sliceClass) << type;
        ASSERT_TRUE(probe.filled);
        EXPECT_EQ(99U, probe.info.first_mb_in_slice);
        EXPECT_EQ(type, probe.info.slice_type);
        EXPECT_EQ(4U, probe.info.pic_parameter_set_id);
        EXPECT_EQ(11U, probe.info.frame_num);
        EXPECT_EQ(0U, probe.info.offset);
    }
    EXPECT_EQ(1, int{COM_H264_SLICE_I});
    EXPECT_EQ(2, int{COM_H264_SLICE_P});
    EXPECT_EQ(3, int{COM_H264_SLICE_B});
}

// A byte FC reads as first_mb 0, slice_type 0 and picture parameter set 0: it gives a class, but
// its set is not the active one.
TEST(H264ParseSliceHeader, FindsTheHeaderAtOffsetsUpToSeven) {
    const Bytes header = Pack(Ue(5) + Ue(1) + Ue(9) + Fixed(7, 4));
    for (size_t offset = 0; offset <= 9; ++offset) {
        Bytes bytes(offset, 0xFC);
        bytes.insert(bytes.end(), header.begin(), header.end());
        const Probe probe = ProbeSlice(bytes, 9, 16);
        if (offset <= 7) {
            EXPECT_EQ(3, probe.sliceClass) << offset;
            ASSERT_TRUE(probe.filled) << offset;
            EXPECT_EQ(offset, probe.info.offset);
            EXPECT_EQ(5U, probe.info.first_mb_in_slice);
            EXPECT_EQ(1U, probe.info.slice_type);
            EXPECT_EQ(9U, probe.info.pic_parameter_set_id);
            EXPECT_EQ(7U, probe.info.frame_num);
        } else {
            EXPECT_EQ(2, probe.sliceClass) << offset;
            EXPECT_FALSE(probe.filled) << offset;
        }
    }
}

// The 03 of 00 00 03 is an emulation-prevention byte for a reader that starts at the first zero,
// but not for one that starts later.
TEST(H264ParseSliceHeader, StartsANewReaderAtEachOffset) {
    const Bytes header = Escape(Pack(Ue(70000) + Ue(2) + Ue(0) + Fixed(5, 8)));
    ASSERT_EQ(0, header[0]);
    ASSERT_EQ(0, header[1]);
    const Probe probe = ProbeSlice(header, 0, 256);
    EXPECT_EQ(1, probe.sliceClass);
    EXPECT_EQ(70000U, probe.info.first_mb_in_slice);
    EXPECT_EQ(5U, probe.info.frame_num);
    EXPECT_EQ(0U, probe.info.offset);
}

TEST(H264ParseSliceHeader, ReturnsTheLastClassWhenNoHeaderHasTheSet) {
    // Codes of 18 leading zeros only: no class at any offset.
    EXPECT_EQ(0, ProbeSlice(Bytes(COM_H264_SLICE_REACH, 0x00), 0, 16).sliceClass);
    EXPECT_FALSE(ProbeSlice(Bytes(COM_H264_SLICE_REACH, 0x00), 0, 16).filled);

    const uint8_t asI = 0xB8;  // 1 011 1 000: first_mb 0, slice_type 2, set 0
    const uint8_t asB = 0xA8;  // 1 010 1 000: first_mb 0, slice_type 1, set 0
    for (size_t last = 0; last < 8; ++last) {
        Bytes bytes(8, asI);
        bytes[last] = asB;
        const Probe probe = ProbeSlice(bytes, 77, 16, 0xFF);
        // The 0xFF after them reads as first_mb 0, slice_type 0, set 0.
        EXPECT_EQ(last == 7 ? 3 : 1, probe.sliceClass) << last;
        EXPECT_FALSE(probe.filled);
    }
}

// A slice_type above 9 is accepted if an earlier offset gave a class.
TEST(H264ParseSliceHeader, AcceptsAnUnknownTypeWithTheClassOfAnEarlierOffset) {
    const Bytes header = Pack(Ue(6) + Ue(12) + Ue(200) + Fixed(9, 4));
    // There is no class before offset 0, and no later offset has the set.
    EXPECT_FALSE(ProbeSlice(header, 200, 16).filled);

    Bytes after = {0xB8};  // an I slice of set 0
    after.insert(after.end(), header.begin(), header.end());
    const Probe probe = ProbeSlice(after, 200, 16);
    EXPECT_EQ(1, probe.sliceClass);
    ASSERT_TRUE(probe.filled);
    EXPECT_EQ(1U, probe.info.offset);
    EXPECT_EQ(6U, probe.info.first_mb_in_slice);
    EXPECT_EQ(12U, probe.info.slice_type);
    EXPECT_EQ(200U, probe.info.pic_parameter_set_id);
    EXPECT_EQ(9U, probe.info.frame_num);

    // With another set it is skipped.
    EXPECT_FALSE(ProbeSlice(after, 1234, 16).filled);
}

TEST(H264ParseSliceHeader, ReadsAsManyBitsOfFrameNumAsMaxFrameNumHas) {
    struct Case {
        uint32_t maxFrameNum;
        uint32_t bits;
    };
    std::vector<Case> cases = {{0, 0}, {1, 0}, {2, 1}, {3, 1}, {24, 4}, {0xFFFFFFFF, 31}};
    for (uint32_t log2 = 0; log2 <= 31; ++log2) {
        cases.push_back({uint32_t{1} << log2, log2});
    }
    for (const Case &c : cases) {
        for (uint32_t before = 0; before < 8; ++before) {
            // first_mb of 2^n - 1 has 2n + 1 bits.
            for (const uint32_t pattern : {0xFFFFFFFFU, 0xA5C35A3DU, 0U}) {
                const uint32_t value = c.bits == 0 ? 0 : pattern >> (32 - c.bits);
                const uint32_t firstMb = (uint32_t{1} << before) - 1;
                const Bytes bytes =
                    Escape(Pack(Ue(firstMb) + Ue(0) + Ue(2) + Fixed(value, c.bits)));
                const Probe probe = ProbeSlice(bytes, 2, c.maxFrameNum);
                ASSERT_EQ(2, probe.sliceClass) << c.maxFrameNum;
                ASSERT_EQ(value, probe.info.frame_num) << c.maxFrameNum;
                ASSERT_EQ(firstMb, probe.info.first_mb_in_slice);
            }
        }
    }
}

TEST(H264ParseSliceHeader, ReturnsNoneForNull) {
    const Bytes bytes(COM_H264_SLICE_REACH, 0xFF);
    tH264SpsInfo sps = {};
    tH264SliceInfo info;
    EXPECT_EQ(0, COM_H264ParseSliceHeader(nullptr, &sps, &info));
    EXPECT_EQ(0, COM_H264ParseSliceHeader(bytes.data(), nullptr, &info));
    EXPECT_EQ(0, COM_H264ParseSliceHeader(bytes.data(), &sps, nullptr));
}

// ---- Any bytes ----

// The rules in their plainest form: first the payload, then bit by bit.
class Plain {
  public:
    Plain(const Bytes &raw, size_t start) {
        for (size_t i = start; i < raw.size(); ++i) {
            if (i >= start + 2 && raw[i] == 3 && raw[i - 1] == 0 && raw[i - 2] == 0) {
                if (++i == raw.size()) {
                    break;
                }
            }
            payload_.push_back(raw[i]);
        }
    }
    [[nodiscard]] uint32_t Bit(size_t at) const {
        return at / 8 < payload_.size() ? payload_[at / 8] >> (7 - at % 8) & 1U : 0;
    }
    uint32_t Take(size_t count) {
        uint32_t value = 0;
        for (; count > 0; --count) {
            value = value << 1 | Bit(at_++);
        }
        return value;
    }
    uint32_t Code() {
        size_t zeros = 0;
        while (zeros < 24 && Bit(at_ + zeros) == 0) {
            ++zeros;
        }
        zeros = zeros == 24 ? 18 : zeros;
        at_ += zeros + 1;
        return Take(zeros) + (uint32_t{1} << zeros);
    }
    uint32_t ReadUe() { return Code() - 1; }
    int32_t ReadSe() {
        const int32_t code = static_cast<int32_t>(Code());
        return code % 2 == 0 ? code / 2 : -(code / 2);
    }
    void List(uint32_t *pList, size_t width, uint32_t &useDefault) {
        const std::vector<size_t> order = Zigzag(width);
        int32_t last = 8;
        int32_t next = 8;
        for (size_t i = 0; i < order.size(); ++i) {
            if (next != 0) {
                next = ((last + ReadSe()) % 256 + 256) % 256;
                useDefault = i == 0 && next == 0 ? 1 : useDefault;
            }
            last = next == 0 ? last : next;
            pList[order[i]] = static_cast<uint32_t>(last);
        }
    }

  private:
    Bytes payload_;
    size_t at_ = 0;
};

int PlainSps(const Bytes &raw, tH264SpsInfo &info) {
    info = {};
    Plain plain{raw, 0};
    info.profile_idc = raw[0];
    info.level_idc = raw[2];
    plain.Take(24);
    info.sps_id = plain.ReadUe();
    if (raw[0] == 100 || raw[0] == 110 || raw[0] == 122 || raw[0] == 144) {
        info.chroma_format_idc = plain.ReadUe();
        info.bit_depth_luma_minus8 = plain.ReadUe();
        info.bit_depth_chroma_minus8 = plain.ReadUe();
        info.qpprime_y_zero_transform_bypass = plain.Take(1);
        info.scaling_matrix_present = plain.Take(1);
        const size_t lists = info.scaling_matrix_present == 0 ? 0
                             : info.chroma_format_idc == 3    ? 12
                                                              : 8;
        for (size_t i = 0; i < lists; ++i) {
            if (plain.Take(1) == 1) {
                i < 6 ? plain.List(info.scaling_list_4x4[i], 4, info.use_default_4x4[i])
                      : plain.List(info.scaling_list_8x8[i - 6], 8, info.use_default_8x8[i - 6]);
            }
        }
    }
    const uint32_t log2 = plain.ReadUe() + 4;
    info.max_frame_num = log2 > 31 ? 0 : uint32_t{1} << log2;
    const uint32_t type = plain.ReadUe();
    if (type == 0 && plain.ReadUe() > 12) {
        return 1;
    }
    if (type == 1) {
        plain.Take(1);
        plain.ReadSe();
        plain.ReadSe();
        const uint32_t cycle = plain.ReadUe();
        if (cycle >= 256) {
            return 2;
        }
        for (uint32_t i = 0; i < cycle; ++i) {
            plain.ReadSe();
        }
    }
    info.max_num_ref_frames = plain.ReadUe();
    plain.Take(1);
    info.width_in_mbs_minus1 = plain.ReadUe();
    info.height_in_map_units_minus1 = plain.ReadUe();
    return 0;
}

int PlainSlice(const Bytes &raw, const tH264SpsInfo &sps, tH264SliceInfo &info) {
    int found = 0;
    for (uint32_t offset = 0; offset < 8; ++offset) {
        Plain plain{raw, offset};
        const uint32_t firstMb = plain.ReadUe();
        const uint32_t type = plain.ReadUe();
        const uint32_t set = plain.ReadUe();
        found = type <= 9 ? kClasses[type] : found;
        if (found != 0 && set == sps.sps_id) {
            size_t bits = 0;
            while (sps.max_frame_num >> bits > 1) {
                ++bits;
            }
            info = {firstMb, type, set, plain.Take(bits), offset};
            return found;
        }
    }
    return found;
}

// Random bytes of four kinds: any bytes, many zeros, zeros mixed with threes, and single bits, so
// that long codes and emulation-prevention bytes occur.
Bytes Noise(std::mt19937 &random, size_t size, unsigned kind) {
    Bytes bytes(size);
    for (uint8_t &byte : bytes) {
        const uint32_t dice = static_cast<uint32_t>(random());
        const uint32_t any = dice >> 8 & 0xFF;
        uint32_t value = 0;
        switch (kind % 4) {
            case 0:
                value = any;
                break;
            case 1:
                value = dice % 4 == 0 ? any : 0;
                break;
            case 2:
                value = dice % 3 == 0 ? 3 : dice % 3 == 1 ? 0 : any & 7;
                break;
            default:
                value = dice % 8 == 0 ? 1U << (any & 7) : 0;
        }
        byte = static_cast<uint8_t>(value);
    }
    return bytes;
}

// The plain reader is given more bytes than the parser may touch: it never needs them.
TEST(H264ParseSps, ReadsWhatTheRuleReads) {
    std::mt19937 random{1};
    int accepted = 0;
    for (unsigned i = 0; i < 400; ++i) {
        Bytes bytes = Noise(random, COM_H264_SPS_REACH + 100, i);
        if (i % 3 != 0) {
            bytes[0] = std::array<uint8_t, 4>{100, 110, 122, 144}[random() % 4];
        }
        if (i % 3 == 1) {
            // A set of 4:4:4 with lists.
            const Bytes start = Pack(Fixed(bytes[0], 8) + Fixed(0, 16) + Ue(0) + Ue(3) + Ue(0) +
                                     Ue(0) + "11" + "11");
            std::copy(start.begin(), start.end(), bytes.begin());
        }
        tH264SpsInfo expected;
        const int result = PlainSps(bytes, expected);
        accepted += result == 0;
        bytes.resize(COM_H264_SPS_REACH);
        const Guarded guarded{bytes};
        tH264SpsInfo info;
        memset(&info, 0xA5, sizeof info);
        CaptureLog([&] { EXPECT_EQ(result, COM_H264ParseSps(guarded.get(), &info)); });
        ASSERT_EQ(0, memcmp(&expected, &info, sizeof info)) << "run " << i;
    }
    EXPECT_LT(100, accepted);
}

TEST(H264ParseSliceHeader, ReadsWhatTheRuleReads) {
    std::mt19937 random{2};
    int found = 0;
    for (unsigned i = 0; i < 3000; ++i) {
        const Bytes bytes = Noise(random, COM_H264_SLICE_REACH + 20, i);
        tH264SpsInfo sps = {};
        sps.sps_id = static_cast<uint32_t>(random() % 4);
        sps.max_frame_num = uint32_t{1} << random() % 32;
        tH264SliceInfo expected;
        memset(&expected, 0xA5, sizeof expected);
        tH264SliceInfo info = expected;
        const int result = PlainSlice(bytes, sps, expected);
        const Guarded guarded{Padded(bytes, COM_H264_SLICE_REACH)};
        ASSERT_EQ(result, COM_H264ParseSliceHeader(guarded.get(), &sps, &info)) << "run " << i;
        ASSERT_EQ(0, memcmp(&expected, &info, sizeof info)) << "run " << i;
        found += info.offset <= 7;
    }
    EXPECT_LT(500, found);
}

// After a truncated header, the bytes that follow it are read.
TEST(H264ParseSps, ReadsASetTruncatedAtAnyLength) {
    Sps sps;
    sps.profile = 110;
    sps.high = true;
    sps.chroma = 3;
    for (size_t i = 0; i < 12; ++i) {
        sps.lists.push_back("1" + Deltas(std::vector<uint32_t>(i < 6 ? 16 : 64, 77)));
    }
    sps.pictureOrder = Ue(1) + "0" + Se(-30000) + Se(70000) + Ue(20) + std::string(20, '1');
    const Bytes whole = Escape(Pack(sps.Bits()));
    for (size_t size = 0; size <= whole.size(); ++size) {
        for (const uint8_t fill : Bytes{0x00, 0x03, 0xFF}) {
            Bytes bytes = whole;
            bytes.resize(size);
            bytes = Padded(bytes, COM_H264_SPS_REACH + 100, fill);
            tH264SpsInfo expected;
            const int result = PlainSps(bytes, expected);
            bytes.resize(COM_H264_SPS_REACH);
            const Guarded guarded{bytes};
            tH264SpsInfo info;
            CaptureLog([&] { EXPECT_EQ(result, COM_H264ParseSps(guarded.get(), &info)); });
            ASSERT_EQ(0, memcmp(&expected, &info, sizeof info)) << size;
        }
    }
}

// ---- Bytes that a parser touches at most ----

// Finds the bits that make a parser touch the most bytes, one field of a header after the other.
// The state after a field is the place in the current byte, the number of zero bytes just before it
// (an emulation-prevention byte may follow two), and whether the current byte has a 1 yet. Zero
// bits touch at least as many bytes as others, so every value and every bit of free choice is 0.
class LongestHeader {
  public:
    void Add(const std::string &bits) { fields_.push_back({bits}); }
    void AddCode() {
        std::vector<std::string> codes;
        for (size_t zeros = 0; zeros <= 23; ++zeros) {
            codes.push_back(std::string(zeros, '0') + "1" + std::string(zeros, '0'));
        }
        codes.emplace_back(37, '0');  // 24 or more leading zeros: 19 bits and 18
        fields_.push_back(codes);
    }
    void AddCodes(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            AddCode();
        }
    }

    // The bits of each field.
    [[nodiscard]] std::vector<std::string> Search() const {
        struct Step {
            int bytes = -1;
            int from = 0;
            size_t choice = 0;
        };
        std::vector<std::array<Step, kStates>> steps(fields_.size() + 1);
        steps[0][0].bytes = 0;
        for (size_t f = 0; f < fields_.size(); ++f) {
            for (size_t choice = 0; choice < fields_[f].size(); ++choice) {
                for (int state = 0; state < kStates; ++state) {
                    if (steps[f][static_cast<size_t>(state)].bytes < 0) {
                        continue;
                    }
                    int bytes = steps[f][static_cast<size_t>(state)].bytes;
                    const int to = Walk(state, fields_[f][choice], bytes);
                    Step &step = steps[f + 1][static_cast<size_t>(to)];
                    if (bytes > step.bytes) {
                        step = {bytes, state, choice};
                    }
                }
            }
        }
        // After the last bit the reader has loaded four bytes from the current one on.
        int best = 0;
        int most = -1;
        for (int state = 0; state < kStates; ++state) {
            int bytes = steps.back()[static_cast<size_t>(state)].bytes;
            if (bytes >= 0) {
                Walk(state, std::string(static_cast<size_t>(32 - state % 8), '0'), bytes);
                if (bytes > most) {
                    most = bytes;
                    best = state;
                }
            }
        }
        std::vector<std::string> bits(fields_.size());
        for (size_t f = fields_.size(); f > 0; --f) {
            const Step &step = steps[f][static_cast<size_t>(best)];
            bits[f - 1] = fields_[f - 1][step.choice];
            best = step.from;
        }
        return bits;
    }

    // The bytes that a reader of these bits touches.
    static Bytes Touched(const std::vector<std::string> &fields) {
        std::string bits;
        for (const std::string &field : fields) {
            bits += field;
        }
        const size_t payload = bits.size() / 8 + 4;
        bits.resize(payload * 8, '0');
        Bytes raw;
        size_t zeros = 0;
        for (const uint8_t byte : Pack(bits)) {
            if (zeros == 2) {
                raw.push_back(3);
                zeros = 0;
            }
            raw.push_back(byte);
            zeros = byte == 0 ? zeros + 1 : 0;
        }
        return raw;
    }

  private:
    static constexpr int kStates = 8 * 3 * 2;  // place in the byte, zero bytes, byte has a 1

    // The state after these bits; adds the completed bytes to `bytes`.
    static int Walk(int state, const std::string &bits, int &bytes) {
        int place = state % 8;
        int zeros = state / 8 % 3;
        bool begun = state / 24 == 1;
        for (const char bit : bits) {
            if (place == 0 && zeros == 2) {
                ++bytes;
                zeros = 0;
            }
            begun = begun || bit == '1';
            if (++place == 8) {
                ++bytes;
                zeros = begun ? 0 : zeros + 1;
                place = 0;
                begun = false;
            }
        }
        return place + 8 * zeros + (begun ? 24 : 0);
    }

    std::vector<std::vector<std::string>> fields_;
};

void LeaveNoCore() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// A 4:4:4 set of a High profile with twelve lists and a picture order cycle of 255.
TEST(H264Reach, EqualsTheBytesOfTheLongestSet) {
    LongestHeader header;
    header.Add(Fixed(100, 8) + Fixed(0, 16));
    header.AddCode();    // sps_id
    header.Add(Ue(3));   // chroma_format_idc
    header.AddCodes(2);  // depths
    header.Add("01");    // bypass, matrix
    for (size_t i = 0; i < 12; ++i) {
        header.Add("1");
        header.AddCodes(i < 6 ? 16 : 64);
    }
    header.AddCode();         // log2_max_frame_num_minus4
    header.Add(Ue(1) + "0");  // pic_order_cnt_type and the flag after it
    header.AddCodes(2);       // offsets
    header.Add(Ue(255));      // cycle
    header.AddCodes(255);
    header.AddCode();  // max_num_ref_frames
    header.Add("0");
    header.AddCodes(2);  // size
    const Bytes longest = LongestHeader::Touched(header.Search());
    EXPECT_EQ(size_t{COM_H264_SPS_REACH}, longest.size());

    tH264SpsInfo info;
    const Guarded all{longest};
    EXPECT_EQ(0, COM_H264ParseSps(all.get(), &info));
    EXPECT_EQ(3U, info.chroma_format_idc);
    EXPECT_NE(0U, info.scaling_list_8x8[5][63]);
    // One byte less does not suffice.
    const Guarded less{Bytes(longest.begin(), longest.end() - 1)};
    EXPECT_DEATH(
        {
            LeaveNoCore();
            COM_H264ParseSps(less.get(), &info);
        },
        "");
}

// Seven skipped bytes, three codes and 31 bits of frame_num.
TEST(H264Reach, EqualsTheBytesOfTheLongestSliceHeader) {
    LongestHeader header;
    header.AddCodes(3);
    header.Add(std::string(31, '0'));
    const std::vector<std::string> fields = header.Search();
    Bytes longest(7, 0xFF);
    const Bytes touched = LongestHeader::Touched(fields);
    longest.insert(longest.end(), touched.begin(), touched.end());
    EXPECT_EQ(size_t{COM_H264_SLICE_REACH}, longest.size());

    tH264SpsInfo sps = {};
    sps.sps_id = Plain{Pack(fields[2]), 0}.ReadUe();
    sps.max_frame_num = uint32_t{1} << 31;
    tH264SliceInfo info;
    const Guarded all{longest};
    EXPECT_EQ(2, COM_H264ParseSliceHeader(all.get(), &sps, &info));
    EXPECT_EQ(7U, info.offset);
    const Guarded less{Bytes(longest.begin(), longest.end() - 1)};
    EXPECT_DEATH(
        {
            LeaveNoCore();
            COM_H264ParseSliceHeader(less.get(), &sps, &info);
        },
        "");
}

}  // namespace
