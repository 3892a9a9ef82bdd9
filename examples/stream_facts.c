/* Shows what the headers of an H.264 byte stream (ITU-T H.264, annex B) report.
 *
 *   stream_facts camera.h264
 *
 * Reads the first 16 MiB. Exits with 1 when there is no sequence parameter set.
 */

#include <stdio.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

enum { MAX_BYTES = 16 << 20, NAL_SLICE = 1, NAL_IDR_SLICE = 5, NAL_SPS = 7 };

/* The offset after the next start code 00 00 01, which may have another 00 before it; `size` when
 * there is none. */
static int NextUnit(const uint8_t *pStream, int at, int size) {
    for (; at + 3 < size; ++at) {
        if (pStream[at] == 0 && pStream[at + 1] == 0 && pStream[at + 2] == 1) {
            return at + 3;
        }
    }
    return size;
}

int main(int argc, char *argv[]) {
    while (FactsOption(argc, argv, "", "<file>") != -1) {
    }
    if (argc != optind + 1) {
        FactsWrongUse();
    }

    FILE *pFile = fopen(argv[optind], "rb");
    if (pFile == NULL) {
        perror(argv[optind]);
        return 1;
    }
    /* The parsers get no size: room for what they may read follows the bytes of the file. */
    static uint8_t stream[MAX_BYTES + COM_H264_SPS_REACH];
    const int size = (int)fread(stream, 1, MAX_BYTES, pFile);
    fclose(pFile);

    tH264SpsInfo sps = {0};
    int found = 0, units = 0, slices[COM_H264_SLICE_B + 1] = {0};
    for (int at = NextUnit(stream, 0, size); at < size; at = NextUnit(stream, at, size)) {
        const int type = stream[at] & 31; /* nal_unit_type */
        const uint8_t *pBody = stream + at + 1;
        ++units;
        if (type == NAL_SPS && !found) {
            found = COM_H264ParseSps(pBody, &sps) == COM_H264_SPS_OK;
        } else if ((type == NAL_SLICE || type == NAL_IDR_SLICE) && found) {
            tH264SliceInfo slice;
            ++slices[COM_H264ParseSliceHeader(pBody, &sps, &slice)];
        }
    }
    if (!found) {
        fprintf(stderr, "%s: no sequence parameter set\n", argv[optind]);
        return 1;
    }

    FactsText("file", argv[optind]);
    FactsNumber("profile", sps.profile_idc, NULL);
    FactsNumber("level", sps.level_idc, "tenths");
    /* Macroblocks have 16 by 16 samples. Cropping is not taken off; the height is that of a field
     * where the stream may code fields. */
    FactsNumber("coded_width", ((int64_t)sps.width_in_mbs_minus1 + 1) * 16, "samples");
    FactsNumber("coded_height", ((int64_t)sps.height_in_map_units_minus1 + 1) * 16, "samples");
    FactsNumber("reference_frames", sps.max_num_ref_frames, NULL);
    FactsNumber("units", units, NULL);
    FactsNumber("slices_i", slices[COM_H264_SLICE_I], NULL);
    FactsNumber("slices_p", slices[COM_H264_SLICE_P], NULL);
    FactsNumber("slices_b", slices[COM_H264_SLICE_B], NULL);
    return FactsEnd(0);
}
