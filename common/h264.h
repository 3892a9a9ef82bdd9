#ifndef TALVEK_COMMON_H264_H
#define TALVEK_COMMON_H264_H

/* A quick look into an H.264 stream (ITU-T H.264, clauses 7.3 and 9.1): sequence parameter sets and
 * the class of a slice. For inspection, not for decoding.
 *
 * Parameter sets and slices come without a length. However their bytes may read, the parsers touch
 * no more than COM_H264_SPS_REACH and COM_H264_SLICE_REACH bytes from the start: a caller whose
 * buffer has that many, whatever stands in those behind the unit, is safe. Both are exact: there
 * are bytes that make the parser touch all of them, so a smaller buffer is safe only where the
 * bytes are known to be those of an encoder. A common set takes some 10 to 20 bytes, and four more
 * are touched behind the last bit read. */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_H264_SPS_REACH = 5873, /* bytes that COM_H264ParseSps touches at the most */
    COM_H264_SLICE_REACH = 41, /* bytes that COM_H264ParseSliceHeader touches at the most */
};

/* Class of a slice. */
enum {
    COM_H264_SLICE_NONE = 0,
    COM_H264_SLICE_I = 1, /* I and SI */
    COM_H264_SLICE_P = 2, /* P and SP */
    COM_H264_SLICE_B = 3,
};

/* Reads bits, most significant first, without the emulation-prevention bytes (clause 7.4.1). */
typedef struct tH264BitReader {
    const uint8_t *pStart;
    const uint8_t *pPos;   /* next byte to go into the cache */
    const uint8_t *pEnd;   /* start + 32; for the caller's information */
    const uint8_t *pLimit; /* start + length: what lies behind it is not touched and reads as 0 */
    uint32_t cache;        /* the next four bytes */
    uint32_t consumed;     /* bits of the cache that are used up, 0 to 7 */
} tH264BitReader;

/* What a sequence parameter set says (clause 7.4.2.1.1). What a set does not carry is 0. */
typedef struct tH264SpsInfo {
    uint32_t profile_idc;
    uint32_t level_idc;
    uint32_t sps_id; /* seq_parameter_set_id */
    uint32_t max_num_ref_frames;
    uint32_t width_in_mbs_minus1;
    uint32_t height_in_map_units_minus1;
    uint32_t chroma_format_idc; /* this and the following: profiles 100, 110, 122 and 144 only */
    uint32_t bit_depth_luma_minus8;
    uint32_t bit_depth_chroma_minus8;
    uint32_t qpprime_y_zero_transform_bypass;
    uint32_t scaling_matrix_present;
    uint32_t scaling_list_4x4[6][16]; /* in raster order */
    uint32_t scaling_list_8x8[6][64];
    uint32_t use_default_4x4[6]; /* 1 where the default list is to be taken */
    uint32_t use_default_8x8[6];
    uint32_t max_frame_num; /* 2 to the power of log2_max_frame_num; 0 where that is over 31 */
} tH264SpsInfo;

/* What a slice header says (clause 7.4.3). */
typedef struct tH264SliceInfo {
    uint32_t first_mb_in_slice;
    uint32_t slice_type;
    uint32_t pic_parameter_set_id;
    uint32_t frame_num;
    uint32_t offset; /* byte at which the header was found, 0 to 7 */
} tH264SliceInfo;

/* Starts to read at the first of `length` bytes and takes in four of them. What lies behind them
 * reads as zero bits. */
void COM_H264InitBitReader(tH264BitReader *pReader, const uint8_t *pBuf, size_t length);

/* Goes on by `count` bits. */
void COM_H264SkipBits(tH264BitReader *pReader, uint32_t count);

/* Reads an unsigned or a signed Exp-Golomb code (clause 9.1).
 *
 * Codes with up to 23 leading zero bits are supported; where the next 24 bits are all zero, the
 * code is read as one of 18 leading zeros. */
uint32_t COM_H264ReadUe(tH264BitReader *pReader);
int32_t COM_H264ReadSe(tH264BitReader *pReader);

/* Reads a scaling list (clause 7.3.2.1.1.1) into raster order.
 *
 *   pList        `size` values
 *   size         16 or 64; any other size reads nothing
 *   pUseDefault  receives 1 when the default list is to be taken, else 0 */
void COM_H264ParseScalingList(uint32_t *pList, int size, uint32_t *pUseDefault,
                              tH264BitReader *pReader);

/* Reads a sequence parameter set.
 *
 *   pSps   the bytes from profile_idc on, that is behind the NAL header byte; see
 *          COM_H264_SPS_REACH
 *   pInfo  filled anew; after a refusal it holds what stood before the refused value
 *
 * Streams of 4:4:4 with separate_colour_plane_flag are not supported, and High profiles of other
 * numbers than 100, 110, 122 and 144 are read like Main profile.
 *
 * Returns 0 when the set is accepted; 1 when log2_max_pic_order_cnt_lsb_minus4 is above 12; 2 when
 * num_ref_frames_in_pic_order_cnt_cycle is 256 or more; -1 for a NULL argument. */
int COM_H264ParseSps(const uint8_t *pSps, tH264SpsInfo *pInfo);

/* Finds a slice header in the first bytes and classifies the slice.
 *
 *   pSlice      the bytes behind the NAL header byte; see COM_H264_SLICE_REACH
 *   pSps        the parameter set in force: sps_id and max_frame_num are used
 *   pSliceInfo  filled when a header whose picture parameter set has the number of the sequence
 *               parameter set is found at one of the offsets 0 to 7; else as it was
 *
 * Returns the class of that slice; without such a header the class that the last plausible offset
 * gave, 0 when there was none or an argument is NULL. */
int COM_H264ParseSliceHeader(const uint8_t *pSlice, const tH264SpsInfo *pSps,
                             tH264SliceInfo *pSliceInfo);

#ifdef __cplusplus
}
#endif

#endif
