// Sequence parameter sets (support/bit_writer.h).

#include "common/h264.h"
#include "fuzz/support/bit_writer.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

FUZZ_TARGET(h264_sps) {
    // Profile and level are the first three bytes.
    const std::vector<uint8_t> bytes = talvek::fuzz::BytesOrBits(in, COM_H264_SPS_REACH, 3);
    const talvek::fuzz::Block sps{bytes};
    talvek::fuzz::Out out{sizeof(tH264SpsInfo)};
    auto *info = reinterpret_cast<tH264SpsInfo *>(out.bytes());
    const int result = COM_H264ParseSps(sps.data(), info);
    REQUIRE(result >= COM_H264_SPS_OK && result <= COM_H264_SPS_POC_CYCLE);
    REQUIRE(info->profile_idc == bytes[0] && info->level_idc == bytes[2]);
    REQUIRE((info->max_frame_num & (info->max_frame_num - 1)) == 0);
    REQUIRE(info->scaling_matrix_present <= 1 && info->qpprime_y_zero_transform_bypass <= 1);
    for (int list = 0; list < COM_H264_LISTS; ++list) {
        REQUIRE(info->use_default_4x4[list] <= 1 && info->use_default_8x8[list] <= 1);
        for (const uint32_t value : info->scaling_list_4x4[list]) {
            REQUIRE(value < 256);
        }
        for (const uint32_t value : info->scaling_list_8x8[list]) {
            REQUIRE(value < 256);
        }
    }
}
