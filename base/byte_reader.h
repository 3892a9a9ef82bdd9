#ifndef TALVEK_BASE_BYTE_READER_H
#define TALVEK_BASE_BYTE_READER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>

#include "base/endian.h"

namespace talvek {

// Reads fields at byte offsets of a buffer that holds bytes from outside. A field that does not lie
// wholly inside the buffer reads as 0 and sets failed().
template <Endian kEndian>
class ByteReader {
  public:
    ByteReader(const void *pBytes, size_t size)
        : bytes_(static_cast<const uint8_t *>(pBytes), pBytes != nullptr ? size : 0) {}
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    [[nodiscard]] size_t size() const { return bytes_.size(); }
    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] bool Has(size_t offset, size_t count) const {
        return offset <= bytes_.size() && count <= bytes_.size() - offset;
    }

    uint8_t U8(size_t offset) { return static_cast<uint8_t>(Take<1>(offset)); }
    uint16_t U16(size_t offset) { return static_cast<uint16_t>(Take<2>(offset)); }
    uint32_t U24(size_t offset) { return static_cast<uint32_t>(Take<3>(offset)); }
    uint32_t U32(size_t offset) { return static_cast<uint32_t>(Take<4>(offset)); }

    // Copies `count` bytes. Returns false and zeroes the destination when the buffer has fewer.
    bool Copy(size_t offset, void *pDst, size_t count) {
        if (!Has(offset, count)) {
            failed_ = true;
            memset(pDst, 0, count);
            return false;
        }
        if (count > 0) {
            memcpy(pDst, bytes_.data() + offset, count);
        }
        return true;
    }

    // The bytes from `offset` on, at most `count` of them and none beyond the end.
    [[nodiscard]] std::span<const uint8_t> Sub(size_t offset, size_t count) const {
        if (offset >= bytes_.size()) {
            return {};
        }
        const size_t left = bytes_.size() - offset;
        return bytes_.subspan(offset, count < left ? count : left);
    }

  private:
    template <size_t kCount>
    uint64_t Take(size_t offset) {
        if (!Has(offset, kCount)) {
            failed_ = true;
            return 0;
        }
        uint64_t value = 0;
        for (size_t i = 0; i < kCount; ++i) {
            const size_t at = kEndian == Endian::kBig ? i : kCount - 1 - i;
            value = value << 8 | bytes_[offset + at];
        }
        return value;
    }

    std::span<const uint8_t> bytes_;
    bool failed_ = false;
};

using BigEndianReader = ByteReader<Endian::kBig>;
using LittleEndianReader = ByteReader<Endian::kLittle>;

}  // namespace talvek

#endif
