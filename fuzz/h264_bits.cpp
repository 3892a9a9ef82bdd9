// The bit reader: 1 byte with the number of steps, modulo 64; 1 byte for each step, which reads a
// code or a scaling list or skips bits; then the bytes that are read.

#include <vector>

#include "common/h264.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

namespace {

// One bit at a time, as clause 7.4.1 and 9.1 have it, without a cache.
class PlainReader {
  public:
    explicit PlainReader(talvek::fuzz::Bytes bytes) {
        payload_.reserve(bytes.size());
        for (size_t i = 0, zeros = 0; i < bytes.size(); ++i) {
            if (bytes[i] == 3 && zeros >= 2) {
                zeros = 0;
                if (++i == bytes.size()) {
                    break;
                }
                // The byte after a prevention byte is payload, whatever it is.
            }
            payload_.push_back(bytes[i]);
            zeros = bytes[i] == 0 ? zeros + 1 : 0;
        }
    }
    void Skip(size_t count) { at_ += count; }
    uint32_t Bit() {
        const uint32_t bit =
            at_ / 8 < payload_.size() ? payload_[at_ / 8] >> (7 - at_ % 8) & 1u : 0;
        ++at_;
        return bit;
    }
    // Codes of up to 23 leading zeros; false for a longer one.
    bool Code(uint32_t &code) {
        uint32_t zeros = 0;
        while (Bit() == 0) {
            if (++zeros == 24) {
                return false;
            }
        }
        code = 1;
        for (; zeros > 0; --zeros) {
            code = code << 1 | Bit();
        }
        return true;
    }

  private:
    std::vector<uint8_t> payload_;
    size_t at_ = 0;
};

}  // namespace

FUZZ_TARGET(h264_bits) {
    const talvek::fuzz::Bytes steps = in.Take(in.U8() % 64);
    const talvek::fuzz::Block bytes{in.Rest()};
    tH264BitReader reader;
    COM_H264InitBitReader(&reader, bytes.data(), bytes.size());
    PlainReader plain{{bytes.data(), bytes.size()}};
    bool same = true;  // as long as no code was longer than the bit reader reads
    for (const uint8_t step : steps) {
        uint32_t code = 0;
        if (step < 100) {
            const uint32_t number = COM_H264ReadUe(&reader);
            same = same && plain.Code(code);
            REQUIRE(!same || number == code - 1);
        } else if (step < 200) {
            const int32_t number = COM_H264ReadSe(&reader);
            same = same && plain.Code(code);
            const auto half = static_cast<int32_t>(code / 2);
            REQUIRE(!same || number == (code % 2 == 0 ? half : -half));
        } else if (step < 240) {
            COM_H264SkipBits(&reader, step - 200u);
            plain.Skip(step - 200u);
        } else {
            const int size = step % 2 == 0 ? COM_H264_LIST_4X4_SIZE : COM_H264_LIST_8X8_SIZE;
            talvek::fuzz::Out list{static_cast<size_t>(size) * sizeof(uint32_t)};
            auto *values = reinterpret_cast<uint32_t *>(list.bytes());
            uint32_t useDefault = 2;
            COM_H264ParseScalingList(values, size, &useDefault, &reader);
            REQUIRE(useDefault <= 1);
            for (int i = 0; i < size; ++i) {
                REQUIRE(values[i] < 256);
            }
            same = false;
        }
    }
}
