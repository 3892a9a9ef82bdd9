// H.264 headers: a bit reader, Exp-Golomb codes, sequence parameter sets, slice classes.

#include "common/h264.h"

#include <string.h>

#include "common/internal/module_log.h"

namespace talvek {
namespace {

constexpr uint32_t kNotedLength = 32;

// Leading zero bits of a 6-bit value; 0 has none to tell.
constexpr uint8_t kLeadingZeros[64] = {
    0, 5, 4, 4, 3, 3, 3, 3, 2, 2, 2, 2, 2, 2, 2, 2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

// Clause 8.5.6: raster position of each value in the order of the stream.
constexpr uint8_t kZigzag4x4[16] = {0, 1, 4, 8, 5, 2, 3, 6, 9, 12, 13, 10, 7, 11, 14, 15};
constexpr uint8_t kZigzag8x8[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
                                    12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
                                    35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
                                    58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

constexpr uint8_t kHighProfiles[] = {100, 110, 122, 144};

constexpr uint32_t kMaxPocLsb = 12;
constexpr uint32_t kMaxPocCycle = 255;
constexpr uint32_t kMaxSliceType = 9;
constexpr uint32_t kSliceOffsets = 8;

// Class of each slice_type (table 7-6).
constexpr uint8_t kSliceClasses[kMaxSliceType + 1] = {
    COM_H264_SLICE_P, COM_H264_SLICE_B, COM_H264_SLICE_I, COM_H264_SLICE_P, COM_H264_SLICE_I,
    COM_H264_SLICE_P, COM_H264_SLICE_B, COM_H264_SLICE_I, COM_H264_SLICE_P, COM_H264_SLICE_I};

uint8_t RawByte(tH264BitReader &reader) {
    return reader.pPos < reader.pLimit ? *reader.pPos++ : uint8_t{0};
}

// The next byte of the payload. The third byte of 00 00 03 only keeps the payload from looking like
// a start code; the byte behind it takes its place.
uint8_t NextByte(tH264BitReader &reader) {
    const uint8_t *pBefore = reader.pPos;
    const uint8_t byte = RawByte(reader);
    const bool prevention =
        byte == 3 && pBefore - reader.pStart >= 2 && pBefore[-1] == 0 && pBefore[-2] == 0;
    return prevention ? RawByte(reader) : byte;
}

// The bits ahead, at least 25 of them, the next one on top.
uint32_t Ahead(const tH264BitReader &reader) {
    return reader.cache << reader.consumed;
}

// Up to 31 bits, in two pieces where the cache may not hold as many.
uint32_t ReadBits(tH264BitReader &reader, uint32_t count) {
    uint32_t value = 0;
    while (count > 0) {
        const uint32_t piece = count < 24 ? count : 24;
        value = value << piece | Ahead(reader) >> (32 - piece);
        COM_H264SkipBits(&reader, piece);
        count -= piece;
    }
    return value;
}

uint32_t CountLeadingZeros(uint32_t ahead) {
    for (uint32_t group = 0; group < 3; ++group) {
        const uint32_t bits = ahead >> (26 - 6 * group) & 63;
        if (bits != 0) {
            return 6 * group + kLeadingZeros[bits];
        }
    }
    return 18 + kLeadingZeros[ahead >> 8 & 63];
}

// v + 2^z of a code with z leading zeros and the value bits v.
uint32_t ReadCode(tH264BitReader &reader) {
    const uint32_t zeros = CountLeadingZeros(Ahead(reader));
    COM_H264SkipBits(&reader, zeros + 1);
    return ReadBits(reader, zeros) + (uint32_t{1} << (zeros & 31));
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
    const uint32_t lists = sps.chroma_format_idc == 3 ? 12 : 8;
    for (uint32_t i = 0; i < lists; ++i) {
        if (ReadBits(reader, 1) == 0) {
            continue;
        }
        if (i < 6) {
            COM_H264ParseScalingList(sps.scaling_list_4x4[i], 16, &sps.use_default_4x4[i], &reader);
        } else {
            COM_H264ParseScalingList(sps.scaling_list_8x8[i - 6], 64, &sps.use_default_8x8[i - 6],
                                     &reader);
        }
    }
}

// Reads over the fields of pic_order_cnt_type; not 0 is the code of a refusal.
int SkipPictureOrder(tH264BitReader &reader) {
    const uint32_t type = COM_H264ReadUe(&reader);
    if (type == 0) {
        return COM_H264ReadUe(&reader) > kMaxPocLsb ? 1 : 0;
    }
    if (type == 1) {
        COM_H264SkipBits(&reader, 1);
        COM_H264ReadSe(&reader);
        COM_H264ReadSe(&reader);
        const uint32_t cycle = COM_H264ReadUe(&reader);
        if (cycle > kMaxPocCycle) {
            return 2;
        }
        for (uint32_t i = 0; i < cycle; ++i) {
            COM_H264ReadSe(&reader);
        }
    }
    return 0;
}

uint32_t FloorLog2(uint32_t value) {
    uint32_t log = 0;
    while (value > 1) {
        value >>= 1;
        ++log;
    }
    return log;
}

}  // namespace
}  // namespace talvek

void COM_H264InitBitReader(tH264BitReader *pReader, const uint8_t *pBuf, size_t length) {
    if (pReader == nullptr) {
        return;
    }
    if (pBuf == nullptr) {
        *pReader = {};
        return;
    }
    *pReader = {pBuf, pBuf, pBuf + talvek::kNotedLength, pBuf + length, 0, 0};
    for (int i = 0; i < 4; ++i) {
        pReader->cache = pReader->cache << 8 | talvek::NextByte(*pReader);
    }
}

void COM_H264SkipBits(tH264BitReader *pReader, uint32_t count) {
    if (pReader == nullptr) {
        return;
    }
    uint64_t consumed = uint64_t{pReader->consumed} + count;
    for (; consumed >= 8; consumed -= 8) {
        pReader->cache = pReader->cache << 8 | talvek::NextByte(*pReader);
    }
    pReader->consumed = static_cast<uint32_t>(consumed);
}

uint32_t COM_H264ReadUe(tH264BitReader *pReader) {
    return pReader != nullptr ? talvek::ReadCode(*pReader) - 1 : 0;
}

int32_t COM_H264ReadSe(tH264BitReader *pReader) {
    if (pReader == nullptr) {
        return 0;
    }
    const int32_t code = static_cast<int32_t>(talvek::ReadCode(*pReader));
    return code % 2 == 0 ? code / 2 : -(code / 2);
}

void COM_H264ParseScalingList(uint32_t *pList, int size, uint32_t *pUseDefault,
                              tH264BitReader *pReader) {
    if (pList == nullptr || pUseDefault == nullptr || pReader == nullptr ||
        (size != 16 && size != 64)) {
        return;
    }
    const uint8_t *pScan = size == 16 ? talvek::kZigzag4x4 : talvek::kZigzag8x8;
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
    if (talvek::IsHighProfile(pInfo->profile_idc)) {
        talvek::ParseHighFields(reader, *pInfo);
    }
    const uint32_t log2MaxFrameNum = COM_H264ReadUe(&reader) + 4;
    pInfo->max_frame_num = log2MaxFrameNum < 32 ? uint32_t{1} << log2MaxFrameNum : 0;
    const int refusal = talvek::SkipPictureOrder(reader);
    if (refusal != 0) {
        LOG("Err : (profile_idc, level_idc, result) = (0x%X, 0x%X, %d)\n", pInfo->profile_idc,
            pInfo->level_idc, refusal);
        return refusal;
    }
    pInfo->max_num_ref_frames = COM_H264ReadUe(&reader);
    COM_H264SkipBits(&reader, 1);
    pInfo->width_in_mbs_minus1 = COM_H264ReadUe(&reader);
    pInfo->height_in_map_units_minus1 = COM_H264ReadUe(&reader);
    return 0;
}

int COM_H264ParseSliceHeader(const uint8_t *pSlice, const tH264SpsInfo *pSps,
                             tH264SliceInfo *pSliceInfo) {
    if (pSlice == nullptr || pSps == nullptr || pSliceInfo == nullptr) {
        return COM_H264_SLICE_NONE;
    }
    int sliceClass = COM_H264_SLICE_NONE;
    for (uint32_t offset = 0; offset < talvek::kSliceOffsets; ++offset) {
        tH264BitReader reader;
        COM_H264InitBitReader(&reader, pSlice + offset, COM_H264_SLICE_REACH - offset);
        const uint32_t firstMb = COM_H264ReadUe(&reader);
        const uint32_t type = COM_H264ReadUe(&reader);
        const uint32_t pps = COM_H264ReadUe(&reader);
        if (type <= talvek::kMaxSliceType) {
            sliceClass = talvek::kSliceClasses[type];
        }
        // The picture parameter set is told by the number of the sequence parameter set: encoders
        // of one camera stream give both the same.
        if (sliceClass == COM_H264_SLICE_NONE || pps != pSps->sps_id) {
            continue;
        }
        const uint32_t frameNum = talvek::ReadBits(reader, talvek::FloorLog2(pSps->max_frame_num));
        *pSliceInfo = {firstMb, type, pps, frameNum, offset};
        break;
    }
    return sliceClass;
}
