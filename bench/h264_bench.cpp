// Nanoseconds for one sequence parameter set and one slice header as x264 writes them, for a set
// that carries all its scaling lists, and for a slice header that is found at the last offset only.

#include <benchmark/benchmark.h>
#include <stdint.h>

#include <initializer_list>
#include <vector>

#include "common/h264.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Padded(std::initializer_list<uint8_t> head, size_t size) {
    Bytes bytes(head);
    bytes.resize(size);
    return bytes;
}

void Set(benchmark::State &state, const Bytes &bytes) {
    tH264SpsInfo info = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(bytes.data());
        benchmark::DoNotOptimize(COM_H264ParseSps(bytes.data(), &info));
        benchmark::DoNotOptimize(info);
    }
    if (info.width_in_mbs_minus1 != 119 || info.height_in_map_units_minus1 != 67) {
        state.SkipWithError("not a set of 1920 by 1088");
    }
}

// High profile, level 4.0, 1920 by 1088, three references.
const Bytes &HighSet() {
    static const Bytes bytes =
        Padded({0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5}, COM_H264_SPS_REACH);
    return bytes;
}

// Constrained Baseline, the same size.
const Bytes &BaselineSet() {
    static const Bytes bytes =
        Padded({0x42, 0xC0, 0x28, 0xD9, 0x00, 0x78, 0x02, 0x27, 0xE5}, COM_H264_SPS_REACH);
    return bytes;
}

// A set of the High profile whose eight lists are sent in full: 224 differences of 0.
Bytes SetWithLists() {
    // profile, constraints, level; sps_id 0, chroma 1, depths 0, no bypass, a matrix: 1 010 1 1 0 1
    Bytes bytes = {0x64, 0x00, 0x28, 0xAD};
    size_t bit = 32;
    const auto put = [&](const char *pBits) {
        for (; *pBits != 0; ++pBits, ++bit) {
            if (bit % 8 == 0) {
                bytes.push_back(0);
            }
            bytes.back() = static_cast<uint8_t>(bytes.back() | (*pBits - '0') << (7 - bit % 8));
        }
    };
    for (int list = 0; list < 8; ++list) {
        put("1");
        for (int i = 0; i < (list < 6 ? 16 : 64); ++i) {
            put("1");
        }
    }
    // max_frame_num 16, picture order by 6 bits, 3 references, no gaps, 120 by 68 macroblocks
    put("1"
        "1"
        "011"
        "00100"
        "0"
        "0000001111000"
        "0000001000100");
    bytes.resize(COM_H264_SPS_REACH);
    return bytes;
}

void SpsHigh(benchmark::State &state) {
    Set(state, HighSet());
}
BENCHMARK(SpsHigh);

void SpsBaseline(benchmark::State &state) {
    Set(state, BaselineSet());
}
BENCHMARK(SpsBaseline);

void SpsWithScalingLists(benchmark::State &state) {
    Set(state, SetWithLists());
}
BENCHMARK(SpsWithScalingLists);

void Slice(benchmark::State &state, const Bytes &bytes, uint32_t offset) {
    tH264SpsInfo sps = {};
    sps.max_frame_num = 16;
    tH264SliceInfo info = {};
    int found = COM_H264_SLICE_NONE;
    for (auto _ : state) {
        benchmark::DoNotOptimize(bytes.data());
        found = COM_H264ParseSliceHeader(bytes.data(), &sps, &info);
        benchmark::DoNotOptimize(info);
    }
    if (found != COM_H264_SLICE_P || info.offset != offset || info.frame_num != 1) {
        state.SkipWithError("not the slice that was meant");
    }
}

// first_mb 0, slice_type 5, set 0, frame_num 1.
void SliceHeader(benchmark::State &state) {
    Slice(state, Padded({0x9A, 0x21, 0x6C, 0x42}, COM_H264_SLICE_REACH), 0);
}
BENCHMARK(SliceHeader);

// After seven bytes that read as slices of set 1.
void SliceHeaderAtTheLastOffset(benchmark::State &state) {
    Slice(
        state,
        Padded({0xD0, 0xD0, 0xD0, 0xD0, 0xD0, 0xD0, 0xD0, 0x9A, 0x21, 0x6C}, COM_H264_SLICE_REACH),
        7);
}
BENCHMARK(SliceHeaderAtTheLastOffset);

}  // namespace
