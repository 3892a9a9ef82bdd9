// Slice headers: the parameter set's id (1 byte) and largest frame number (4 bytes), then the bytes
// of the slice (support/bit_writer.h).

#include "common/h264.h"
#include "fuzz/support/bit_writer.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

FUZZ_TARGET(h264_slice) {
    tH264SpsInfo sps = {};
    sps.sps_id = in.U8();
    sps.max_frame_num = in.U32();
    const std::vector<uint8_t> bytes = talvek::fuzz::BytesOrBits(in, COM_H264_SLICE_REACH);
    const talvek::fuzz::Block slice{bytes};
    talvek::fuzz::Out out{sizeof(tH264SliceInfo)};
    auto *info = reinterpret_cast<tH264SliceInfo *>(out.bytes());
    const int result = COM_H264ParseSliceHeader(slice.data(), &sps, info);
    REQUIRE(result >= COM_H264_SLICE_NONE && result <= COM_H264_SLICE_B);
    if (!out.Untouched()) {
        REQUIRE(result != COM_H264_SLICE_NONE && info->offset < 8);
        REQUIRE(info->pic_parameter_set_id == sps.sps_id);
        REQUIRE(info->frame_num == 0 || info->frame_num < sps.max_frame_num);
    }
}
