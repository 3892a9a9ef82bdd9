// H.264 headers: bit reader, Exp-Golomb codes, sequence parameter sets, slice classes.

#include "common/h264.h"

#include <string.h>

#include <algorithm>
#include <bit>

#include "common/internal/module_log.h"

namespace {

constexpr uint32_t kRecordedSize = 32;

// Clause 8.5.6: raster position of each value in the order of the stream.
constexpr uint8_t kZigzag4x4[COM_H264_LIST_4X4_SIZE] = {0, 1,  4,  8,  5, 2,  3,  6,
                                                        9, 12, 13, 10, 7, 11, 14, 15};
constexpr uint8_t kZigzag8x8[COM_H264_LIST_8X8_SIZE] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

constexpr uint8_t kHighProfiles[] = {100, 110, 122, 144};

constexpr uint32_t kMaxPocLsb = 12;
constexpr uint32_t kMaxPocCycle = 255;
constexpr uint32_t kMaxSliceType = 9;
constexpr uint32_t kSliceOffsets = 8;

constexpr uint32_t kCachedBits = 24;  // always in the cache, whatever has been consumed
// A code with 24 or more leading zeros is read as if it had this many.
constexpr uint32_t kZerosOfLongCode = 18;

// Class of each slice_type (table 7-6).
constexpr uint8_t kSliceClasses[kMaxSliceType + 1] = {
    COM_H264_SLICE_P, COM_H264_SLICE_B, COM_H264_SLICE_I, COM_H264_SLICE_P, COM_H264_SLICE_I,
    COM_H264_SLICE_P, COM_H264_SLICE_B, COM_H264_SLICE_I, COM_H264_SLICE_P, COM_H264_SLICE_I};

uint8_t RawByte(tH264BitReader &reader) {
    return reader.pPos < reader.pLimit ? *reader.pPos++ : uint8_t{0};
}

// The next byte of the payload. In 00 00 03 the third byte only prevents a start code in the
// payload and is replaced by the byte after it.
uint8_t NextByte(tH264BitReader &reader) {
    const uint8_t *pBefore = reader.pPos;
    const uint8_t byte = RawByte(reader);
    const bool prevention =
        byte == 3 && pBefore - reader.pStart >= 2 && pBefore[-1] == 0 && pBefore[-2] == 0;
    return prevention ? RawByte(reader) : byte;
}

// The next bits, at least 25, from the most significant bit down.
uint32_t NextBits(const tH264BitReader &reader) {
    return reader.cache << reader.consumed;
}

// Reads up to 31 bits, in two pieces if the cache may have fewer.
uint32_t ReadBits(tH264BitReader &reader, uint32_t count) {
    uint32_t value = 0;
    while (count > 0) {
        const uint32_t piece = std::min(count, kCachedBits);
        value = value << piece | NextBits(reader) >> (32 - piece);
        COM_H264SkipBits(&reader, piece);
        count -= piece;
    }
    return value;
}

// Reads a code and returns v + 2^z: z is the number of leading zeros, v the value of the z bits
// after the one.
uint32_t ReadCode(tH264BitReader &reader) {
    uint32_t zeros = static_cast<uint32_t>(std::countl_zero(NextBits(reader)));
    if (zeros >= kCachedBits) {
        zeros = kZerosOfLongCode;
    }
    COM_H264SkipBits(&reader, zeros + 1);
    return ReadBits(reader, zeros) + (uint32_t{1} << zeros);
}

bool IsHighProfile(uint32_t profile) {
    for (const uint8_t high : kHighProfiles) {
        if (profile == high) {
            return true;
        }
    }
    return false;
}

void ParseHighFields(tH264BitReader &reader, tH264SpsInfo &sps) {
    sps.chroma_format_idc = COM_H264ReadUe(&reader);
    sps.bit_depth_luma_minus8 = COM_H264ReadUe(&reader);
    sps.bit_depth_chroma_minus8 = COM_H264ReadUe(&reader);
    sps.qpprime_y_zero_transform_bypass = ReadBits(reader, 1);
    sps.scaling_matrix_present = ReadBits(reader, 1);
    if (sps.scaling_matrix_present == 0) {
        return;
    }
    for (uint32_t i = 0; i < COM_H264_LISTS; ++i) {
        if (ReadBits(reader, 1) != 0) {
            COM_H264ParseScalingList(sps.scaling_list_4x4[i], COM_H264_LIST_4X4_SIZE,
                                     &sps.use_default_4x4[i], &reader);
        }
    }
    const uint32_t lists8x8 = sps.chroma_format_idc == 3 ? COM_H264_LISTS : 2;
    for (uint32_t i = 0; i < lists8x8; ++i) {
        if (ReadBits(reader, 1) != 0) {
            COM_H264ParseScalingList(sps.scaling_list_8x8[i], COM_H264_LIST_8X8_SIZE,
                                     &sps.use_default_8x8[i], &reader);
        }
    }
}

// Skips the fields of pic_order_cnt_type. Returns COM_H264_SPS_OK or the reason of a refusal.
int SkipPictureOrder(tH264BitReader &reader) {
    const uint32_t type = COM_H264ReadUe(&reader);
    if (type == 0) {
        return COM_H264ReadUe(&reader) > kMaxPocLsb ? COM_H264_SPS_POC_LSB : COM_H264_SPS_OK;
    }
    if (type == 1) {
        COM_H264SkipBits(&reader, 1);
        COM_H264ReadSe(&reader);
        COM_H264ReadSe(&reader);
        const uint32_t cycle = COM_H264ReadUe(&reader);
        if (cycle > kMaxPocCycle) {
            return COM_H264_SPS_POC_CYCLE;
        }
        for (uint32_t i = 0; i < cycle; ++i) {
            COM_H264ReadSe(&reader);
        }
    }
    return COM_H264_SPS_OK;
}

}  // namespace

void COM_H264InitBitReader(tH264BitReader *pReader, const uint8_t *pBuf, size_t size) {
    if (pReader == nullptr) {
        return;
    }
    if (pBuf == nullptr) {
        *pReader = {};
        return;
    }
    *pReader = {pBuf, pBuf, pBuf + kRecordedSize, pBuf + size, 0, 0};
    for (int i = 0; i < 4; ++i) {
        pReader->cache = pReader->cache << 8 | NextByte(*pReader);
    }
}

void COM_H264SkipBits(tH264BitReader *pReader, uint32_t count) {
    if (pReader == nullptr) {
        return;
    }
    uint64_t consumed = uint64_t{pReader->consumed} + count;
    for (; consumed >= 8; consumed -= 8) {
        pReader->cache = pReader->cache << 8 | NextByte(*pReader);
    }
    pReader->consumed = static_cast<uint32_t>(consumed);
}

uint32_t COM_H264ReadUe(tH264BitReader *pReader) {
    return pReader != nullptr ? ReadCode(*pReader) - 1 : 0;
}

int32_t COM_H264ReadSe(tH264BitReader *pReader) {
    if (pReader == nullptr) {
        return 0;
    }
    const int32_t code = static_cast<int32_t>(ReadCode(*pReader));
    return code % 2 == 0 ? code / 2 : -(code / 2);
}

void COM_H264ParseScalingList(uint32_t *pList, int size, uint32_t *pUseDefault,
                              tH264BitReader *pReader) {
    if (pList == nullptr || pUseDefault == nullptr || pReader == nullptr ||
        (size != COM_H264_LIST_4X4_SIZE && size != COM_H264_LIST_8X8_SIZE)) {
        return;
    }
    const uint8_t *pScan = size == COM_H264_LIST_4X4_SIZE ? kZigzag4x4 : kZigzag8x8;
    uint32_t last = 8;
    uint32_t next = 8;
    *pUseDefault = 0;
    for (int i = 0; i < size; ++i) {
        if (next != 0) {
            next = (last + static_cast<uint32_t>(COM_H264ReadSe(pReader))) % 256;
            if (i == 0 && next == 0) {
                *pUseDefault = 1;
            }
        }
        last = next == 0 ? last : next;
        pList[pScan[i]] = last;
    }
}

int COM_H264ParseSps(const uint8_t *pSps, tH264SpsInfo *pInfo) {
    if (pSps == nullptr || pInfo == nullptr) {
        return -1;
    }
    memset(pInfo, 0, sizeof *pInfo);
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, pSps, COM_H264_SPS_REACH);
    pInfo->profile_idc = pSps[0];
    pInfo->level_idc = pSps[2];
    COM_H264SkipBits(&reader, 24);
    pInfo->sps_id = COM_H264ReadUe(&reader);
    if (IsHighProfile(pInfo->profile_idc)) {
        ParseHighFields(reader, *pInfo);
    }
    const uint32_t log2MaxFrameNum = COM_H264ReadUe(&reader) + 4;
    pInfo->max_frame_num = log2MaxFrameNum < 32 ? uint32_t{1} << log2MaxFrameNum : 0;
    const int refusal = SkipPictureOrder(reader);
    if (refusal != COM_H264_SPS_OK) {
        LOG("Err : (profile_idc, level_idc, result) = (0x%X, 0x%X, %d)\n", pInfo->profile_idc,
            pInfo->level_idc, refusal);
        return refusal;
    }
    pInfo->max_num_ref_frames = COM_H264ReadUe(&reader);
    COM_H264SkipBits(&reader, 1);
    pInfo->width_in_mbs_minus1 = COM_H264ReadUe(&reader);
    pInfo->height_in_map_units_minus1 = COM_H264ReadUe(&reader);
    return COM_H264_SPS_OK;
}

int COM_H264ParseSliceHeader(const uint8_t *pSlice, const tH264SpsInfo *pSps,
                             tH264SliceInfo *pSliceInfo) {
    if (pSlice == nullptr || pSps == nullptr || pSliceInfo == nullptr) {
        return COM_H264_SLICE_NONE;
    }
    int sliceClass = COM_H264_SLICE_NONE;
    for (uint32_t offset = 0; offset < kSliceOffsets; ++offset) {
        tH264BitReader reader;
        COM_H264InitBitReader(&reader, pSlice + offset, COM_H264_SLICE_REACH - offset);
        const uint32_t firstMb = COM_H264ReadUe(&reader);
        const uint32_t type = COM_H264ReadUe(&reader);
        const uint32_t pps = COM_H264ReadUe(&reader);
        if (type <= kMaxSliceType) {
            sliceClass = kSliceClasses[type];
        }
        // Assumes pic_parameter_set_id == seq_parameter_set_id, as single-stream encoders emit.
        if (sliceClass == COM_H264_SLICE_NONE || pps != pSps->sps_id) {
            continue;
        }
        // frame_num has log2(max_frame_num) bits; none if that is 0.
        const uint32_t max = pSps->max_frame_num;
        const uint32_t bits = max > 1 ? static_cast<uint32_t>(std::bit_width(max)) - 1 : 0;
        const uint32_t frameNum = ReadBits(reader, bits);
        *pSliceInfo = {firstMb, type, pps, frameNum, offset};
        break;
    }
    return sliceClass;
}
