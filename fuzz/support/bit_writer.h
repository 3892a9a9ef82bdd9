#ifndef TALVEK_FUZZ_SUPPORT_BIT_WRITER_H
#define TALVEK_FUZZ_SUPPORT_BIT_WRITER_H

#include <stdint.h>

#include <bit>
#include <utility>
#include <vector>

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// Builds bits from the bytes, so that Exp-Golomb codes have any value. Each step takes one byte,
// whose value modulo 4 decides:
//
//   0   single bits: the next byte's low bits, as many as the step's upper bits say
//   1   an Exp-Golomb code (H.264, clause 9.1) of a number of one byte
//   2   an Exp-Golomb code of a number of four bytes
//   3   bytes unchanged, as many as the step's upper bits say
class BitWriter {
  public:
    void Build(Input &in, size_t most) {
        while (!in.empty() && bytes_.size() < most) {
            const uint8_t step = in.U8();
            switch (step % 4) {
                case 0:
                    Put(in.U8(), step >> 5);
                    break;
                case 1:
                    PutCode(in.U8());
                    break;
                case 2:
                    PutCode(in.U32() & 0x7FFFFFFF);
                    break;
                case 3:
                    PutBytes(in.Take(step >> 2));
                    break;
            }
        }
    }
    // The low bits of a value, at most 32.
    void Put(uint32_t value, int count) {
        bits_ = bits_ << count | (value & ((uint64_t{1} << count) - 1));
        for (waiting_ += count; waiting_ >= 8;) {
            waiting_ -= 8;
            bytes_.push_back(static_cast<uint8_t>(bits_ >> waiting_));
        }
    }
    void PutCode(uint32_t number) {
        const int width = static_cast<int>(std::bit_width(number + 1));
        Put(0, width - 1);
        Put(number + 1, width);
    }
    void PutBytes(Bytes bytes) {
        for (const uint8_t byte : bytes) {
            Put(byte, 8);
        }
    }
    // `size` bytes, zeros after what was put.
    std::vector<uint8_t> Finish(size_t size) {
        Put(0, 7);
        bytes_.resize(size);
        return std::move(bytes_);
    }

  private:
    std::vector<uint8_t> bytes_;
    uint64_t bits_ = 0;  // the last `waiting_` of them are not in bytes_ yet
    int waiting_ = 0;
};

// `size` bytes, zeros after what the input has. With the low bit of the first byte the rest is
// taken unchanged; without it `lead` bytes are, and what follows builds the bits after them.
inline std::vector<uint8_t> BytesOrBits(Input &in, size_t size, size_t lead = 0) {
    BitWriter writer;
    if ((in.U8() & 1) != 0) {
        lead = size;
    }
    writer.PutBytes(in.Take(lead));
    writer.Build(in, size);
    return writer.Finish(size);
}

}  // namespace talvek::fuzz

#endif
