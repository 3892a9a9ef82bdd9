#ifndef TALVEK_TESTS_COMMON_H264_BITS_H
#define TALVEK_TESTS_COMMON_H264_BITS_H

// H.264 headers as texts of bits ("00101"), and their bytes.

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/canary.h"

namespace talvek::test::h264 {

inline std::string Fixed(uint32_t value, uint32_t count) {
    std::string bits;
    for (uint32_t i = count; i > 0; --i) {
        bits += static_cast<char>('0' + (value >> (i - 1) & 1));
    }
    return bits;
}

// Exp-Golomb: value + 1 in binary, preceded by one zero less than it has bits.
inline std::string Ue(uint32_t value) {
    uint32_t zeros = 0;
    while ((uint64_t{value} + 1) >> (zeros + 1) != 0) {
        ++zeros;
    }
    return std::string(zeros, '0') + "1" + Fixed(value + 1 - (uint32_t{1} << zeros), zeros);
}

// Table 9-3: 0, 1, -1, 2, -2 and so on.
inline std::string Se(int32_t value) {
    return Ue(value > 0 ? static_cast<uint32_t>(2 * value - 1) : static_cast<uint32_t>(-2 * value));
}

// The bytes of these bits; the last byte is padded with zeros.
inline Bytes Pack(const std::string &bits) {
    Bytes bytes((bits.size() + 7) / 8);
    for (size_t i = 0; i < bits.size(); ++i) {
        bytes[i / 8] = static_cast<uint8_t>(bytes[i / 8] | (bits[i] - '0') << (7 - i % 8));
    }
    return bytes;
}

// Clause 7.4.1: no three bytes may read 00 00 00 to 00 00 03.
inline Bytes Escape(const Bytes &payload) {
    Bytes raw;
    size_t zeros = 0;
    for (const uint8_t byte : payload) {
        if (zeros == 2 && byte <= 3) {
            raw.push_back(3);
            zeros = 0;
        }
        raw.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return raw;
}

// Bytes followed by memory that cannot be read.
class Guarded {
  public:
    explicit Guarded(const Bytes &bytes) : copy_(bytes.data(), bytes.size()) {}
    [[nodiscard]] const uint8_t *get() const { return copy_.bytes(); }
    [[nodiscard]] size_t size() const { return copy_.size(); }

  private:
    GuardedCopy copy_;
};

inline Bytes Padded(Bytes bytes, size_t size, uint8_t fill = 0xFF) {
    bytes.resize(size, fill);
    return bytes;
}

// Figure 8-8: along the diagonals, alternately up and down; the first step goes right.
inline std::vector<size_t> Zigzag(size_t width) {
    std::vector<size_t> order;
    for (size_t sum = 0; sum < 2 * width - 1; ++sum) {
        for (size_t i = 0; i <= sum; ++i) {
            const size_t row = sum % 2 == 1 ? i : sum - i;
            const size_t column = sum - row;
            if (row < width && column < width) {
                order.push_back(row * width + column);
            }
        }
    }
    return order;
}

// The differences that encode a list (clause 7.3.2.1.1.1).
inline std::string Deltas(const std::vector<uint32_t> &values) {
    std::string bits;
    int32_t last = 8;
    for (const uint32_t value : values) {
        int32_t delta = static_cast<int32_t>(value) - last;
        delta = delta > 127 ? delta - 256 : delta < -128 ? delta + 256 : delta;
        bits += Se(delta);
        last = static_cast<int32_t>(value);
    }
    return bits;
}

// Bits of a set, field by field (clause 7.3.2.1.1).
struct Sps {
    uint32_t profile = 66;
    uint32_t constraints = 0xC0;
    uint32_t level = 30;
    uint32_t id = 0;
    bool high = false;  // whether the fields of the High profiles are written
    uint32_t chroma = 1;
    uint32_t lumaDepth = 0;
    uint32_t chromaDepth = 0;
    uint32_t bypass = 0;
    std::vector<std::string> lists;  // empty: no matrix; else flag and list of each
    uint32_t log2MaxFrameNum = 0;
    std::string pictureOrder = Ue(0) + Ue(2);
    uint32_t refs = 1;
    uint32_t gaps = 0;
    uint32_t width = 3;
    uint32_t height = 2;

    [[nodiscard]] std::string Bits() const {
        std::string bits = Fixed(profile, 8) + Fixed(constraints, 8) + Fixed(level, 8) + Ue(id);
        if (high) {
            bits += Ue(chroma) + Ue(lumaDepth) + Ue(chromaDepth) + Fixed(bypass, 1) +
                    (lists.empty() ? "0" : "1");
            for (const std::string &list : lists) {
                bits += list;
            }
        }
        bits +=
            Ue(log2MaxFrameNum) + pictureOrder + Ue(refs) + Fixed(gaps, 1) + Ue(width) + Ue(height);
        return bits + "11001";  // whole frames, direct 8x8, no cropping, no VUI, stop bit
    }
};

}  // namespace talvek::test::h264

#endif
