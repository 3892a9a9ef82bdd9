#include <errno.h>
#include <gtest/gtest.h>

#include "common/h264.h"
#include "support/bytes.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

// profile 66, level 30, sps_id 0, max_frame_num 16, pic_order_cnt_type 0, 4 bits of it, 1 frame, no
// gaps, 4 by 3 macroblocks: 1 1 1 1 010 0 00100 011 1.
Bytes Accepted() {
    Bytes bytes(COM_H264_SPS_REACH);
    const uint8_t head[] = {66, 0xC0, 30, 0xF4, 0x23, 0x80};
    std::copy(head, head + sizeof head, bytes.begin());
    return bytes;
}

TEST(H264Fault, ParsersMakeNoCallThatCanFail) {
    const Bytes bytes = Accepted();
    EXPECT_EQ(0, EveryCallFails(ENOMEM, [&] {
                  tH264SpsInfo sps;
                  tH264SliceInfo slice;
                  EXPECT_EQ(0, COM_H264ParseSps(bytes.data(), &sps));
                  EXPECT_EQ(1U, sps.max_num_ref_frames);
                  EXPECT_EQ(3U, sps.width_in_mbs_minus1);
                  EXPECT_EQ(2U, sps.height_in_map_units_minus1);
                  COM_H264ParseSliceHeader(bytes.data(), &sps, &slice);
              }));
}

// 0001110: log2_max_pic_order_cnt_lsb_minus4 of 13.
TEST(H264Fault, RefusesEvenWithoutALogLine) {
    Bytes bytes = Accepted();
    bytes[3] = 0xE3;
    bytes[4] = 0x80;
    EveryCallFails(ENOMEM, [&] {
        tH264SpsInfo sps;
        EXPECT_EQ(1, COM_H264ParseSps(bytes.data(), &sps));
    });
}

}  // namespace
