#ifndef TALVEK_FUZZ_SUPPORT_BIT_WRITER_H
#define TALVEK_FUZZ_SUPPORT_BIT_WRITER_H

#include <stdint.h>

#include <bit>
#include <vector>

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// Builds bits from the bytes, so that Exp-Golomb codes have any value. Each step takes one byte,
// whose value modulo 4 decides:
//
//   0   single bits: the next byte's low bits, as many as the step's upper bits say
//   1   an Exp-Golomb code (H.264, clause 9.1) of a number of one byte
//   2   an Exp-Golomb code of a number of four bytes
//   3   bytes as they are, as many as the step's upper bits say
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
                    for (const uint8_t byte : in.Take(step >> 2)) {
                        Put(byte, 8);
                    }
                    break;
            }
        }
    }
    void Put(uint32_t value, int count) {
        for (int i = count - 1; i >= 0; --i) {
            if (bits_ % 8 == 0) {
                bytes_.push_back(0);
            }
            bytes_.back() =
                static_cast<uint8_t>(bytes_.back() | (value >> i & 1) << (7 - bits_ % 8));
            ++bits_;
        }
    }
    void PutCode(uint32_t number) {
        const int width = static_cast<int>(std::bit_width(number + 1));
        Put(0, width - 1);
        Put(number + 1, width);
    }
    [[nodiscard]] std::vector<uint8_t> &bytes() { return bytes_; }

  private:
    std::vector<uint8_t> bytes_;
    size_t bits_ = 0;
};

// `size` bytes, zeros after what the input has. The low bit of the first byte takes the rest as it
// is; without it the rest builds the bits after `lead` bytes that are taken as they are.
inline std::vector<uint8_t> BytesOrBits(Input &in, size_t size, size_t lead = 0) {
    BitWriter writer;
    if ((in.U8() & 1) != 0) {
        lead = size;
    }
    for (const uint8_t byte : in.Take(lead)) {
        writer.Put(byte, 8);
    }
    writer.Build(in, size);
    writer.bytes().resize(size);
    return writer.bytes();
}

}  // namespace talvek::fuzz

#endif
