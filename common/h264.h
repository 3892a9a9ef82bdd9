#ifndef TALVEK_COMMON_H264_H
#define TALVEK_COMMON_H264_H

/* Reads headers of an H.264 stream (ITU-T H.264, clauses 7.3 and 9.1): sequence parameter sets, and
 * the class of a slice. For inspection, not for decoding.
 *
 * The parsers get bytes without a size. Whatever the bytes are, they read at most
 * COM_H264_SPS_REACH and COM_H264_SLICE_REACH bytes: a buffer of that size is safe, with any bytes
 * after the unit. Both limits are exact, since some bytes make the parser read all of them; a
 * smaller buffer is safe only for the bytes of a known encoder. A common parameter set has 10 to 20
 * bytes, and the parser reads up to four bytes after the last one that it needs. */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_H264_SPS_REACH = 5873, /* bytes that COM_H264ParseSps reads at most */
    COM_H264_SLICE_REACH = 41, /* bytes that COM_H264ParseSliceHeader reads at most */

    COM_H264_LIST_4X4_SIZE = 16, /* values of a scaling list */
    COM_H264_LIST_8X8_SIZE = 64,
    COM_H264_LISTS = 6, /* scaling lists of either size */
};

/* Results of COM_H264ParseSps, beside -1. */
enum {
    COM_H264_SPS_OK = 0,
    COM_H264_SPS_POC_LSB = 1,   /* log2_max_pic_order_cnt_lsb_minus4 is above 12 */
    COM_H264_SPS_POC_CYCLE = 2, /* num_ref_frames_in_pic_order_cnt_cycle is 256 or more */
};

/* Class of a slice. */
enum {
    COM_H264_SLICE_NONE = 0,
    COM_H264_SLICE_I = 1, /* I and SI */
    COM_H264_SLICE_P = 2, /* P and SP */
    COM_H264_SLICE_B = 3,
};

/* Reads bits, most significant first, and removes emulation-prevention bytes (clause 7.4.1). */
typedef struct tH264BitReader {
    const uint8_t *pStart;
    const uint8_t *pPos;   /* next byte for the cache */
    const uint8_t *pEnd;   /* start + 32; informative, the reads do not use it */
    const uint8_t *pLimit; /* end of the buffer: bytes from here on are not read and count as 0 */
    uint32_t cache;        /* the next four bytes */
    uint32_t consumed;     /* bits of the cache that have been consumed, 0 to 7 */
} tH264BitReader;

/* Contents of a sequence parameter set (clause 7.4.2.1.1); fields that it does not have are 0. */
typedef struct tH264SpsInfo {
    uint32_t profile_idc;
    uint32_t level_idc;
    uint32_t sps_id; /* seq_parameter_set_id */
    uint32_t max_num_ref_frames;
    uint32_t width_in_mbs_minus1;
    uint32_t height_in_map_units_minus1;
    uint32_t chroma_format_idc; /* this to use_default_8x8: profiles 100, 110, 122, 144 only */
    uint32_t bit_depth_luma_minus8;
    uint32_t bit_depth_chroma_minus8;
    uint32_t qpprime_y_zero_transform_bypass;
    uint32_t scaling_matrix_present;
    uint32_t scaling_list_4x4[COM_H264_LISTS][COM_H264_LIST_4X4_SIZE]; /* in raster order */
    uint32_t scaling_list_8x8[COM_H264_LISTS][COM_H264_LIST_8X8_SIZE];
    uint32_t use_default_4x4[COM_H264_LISTS]; /* 1 if the default list applies */
    uint32_t use_default_8x8[COM_H264_LISTS];
    uint32_t max_frame_num; /* 2 to the power of log2_max_frame_num; 0 if that is above 31 */
} tH264SpsInfo;

/* Contents of a slice header (clause 7.4.3). */
typedef struct tH264SliceInfo {
    uint32_t first_mb_in_slice;
    uint32_t slice_type;
    uint32_t pic_parameter_set_id;
    uint32_t frame_num;
    uint32_t offset; /* byte at which the header was found, 0 to 7 */
} tH264SliceInfo;

/* Starts reading at the first of `size` bytes and loads four of them. After the last byte, zero
 * bits are read. A NULL buffer has no bytes. */
void COM_H264InitBitReader(tH264BitReader *pReader, const uint8_t *pBuf, size_t size);

/* Skips `count` bits. */
void COM_H264SkipBits(tH264BitReader *pReader, uint32_t count);

/* Reads an unsigned or a signed Exp-Golomb code (clause 9.1) of up to 23 leading zero bits. If the
 * next 24 bits are all zero, the code is read with 18 leading zeros. */
uint32_t COM_H264ReadUe(tH264BitReader *pReader);
int32_t COM_H264ReadSe(tH264BitReader *pReader);

/* Reads a scaling list (clause 7.3.2.1.1.1) into raster order.
 *
 *   pList        `size` values
 *   size         COM_H264_LIST_4X4_SIZE or COM_H264_LIST_8X8_SIZE; with any other size nothing is
 *                read
 *   pUseDefault  receives 1 if the default list applies, else 0 */
void COM_H264ParseScalingList(uint32_t *pList, int size, uint32_t *pUseDefault,
                              tH264BitReader *pReader);

/* Reads a sequence parameter set.
 *
 *   pSps   the bytes from profile_idc on, that is after the NAL header byte; COM_H264_SPS_REACH
 *          bytes may be read
 *   pInfo  is overwritten; after a refusal it has the fields before the refused one
 *
 * Streams of 4:4:4 with separate_colour_plane_flag are not supported. High profiles with other
 * numbers than 100, 110, 122 and 144 are read like Main profile.
 *
 * Returns COM_H264_SPS_OK; COM_H264_SPS_POC_LSB or COM_H264_SPS_POC_CYCLE when it refuses the set
 * (logged); -1 for NULL. */
int COM_H264ParseSps(const uint8_t *pSps, tH264SpsInfo *pInfo);

/* Finds a slice header in the first bytes and classifies the slice.
 *
 *   pSlice      the bytes after the NAL header byte; COM_H264_SLICE_REACH bytes may be read
 *   pSps        the active parameter set; its sps_id and max_frame_num are used
 *   pSliceInfo  receives the header at the first of the offsets 0 to 7 where pic_parameter_set_id
 *               equals sps_id, as single-stream encoders emit them, and where this or an earlier
 *               offset had a valid slice_type (0 to 9); unchanged without such a header
 *
 * The search ends at that header. Returns the class (COM_H264_SLICE_...) of the last valid
 * slice_type on the way, that of the header included; COM_H264_SLICE_NONE if there was none, and
 * for NULL. */
int COM_H264ParseSliceHeader(const uint8_t *pSlice, const tH264SpsInfo *pSps,
                             tH264SliceInfo *pSliceInfo);

#ifdef __cplusplus
}
#endif

#endif
