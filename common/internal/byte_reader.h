#ifndef TALVEK_COMMON_INTERNAL_BYTE_READER_H
#define TALVEK_COMMON_INTERNAL_BYTE_READER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>

namespace talvek {

enum class Endian { kBig, kLittle };

// Takes bytes from outside apart by position and never touches one beyond them: a field that does
// not lie wholly inside reads as zero and sets failed().
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

    // Copies `count` bytes; false, with the destination zeroed, when they are not all there.
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

// Puts fields together by position, never beyond the buffer: a field that does not fit wholly is
// left out and sets failed().
template <Endian kEndian>
class ByteWriter {
  public:
    ByteWriter(void *pBytes, size_t size)
        : bytes_(static_cast<uint8_t *>(pBytes), pBytes != nullptr ? size : 0) {}

    [[nodiscard]] bool failed() const { return failed_; }

    bool U8(size_t offset, uint8_t value) { return Put<1>(offset, value); }
    bool U16(size_t offset, uint16_t value) { return Put<2>(offset, value); }
    bool U32(size_t offset, uint32_t value) { return Put<4>(offset, value); }
    bool Copy(size_t offset, const void *pSrc, size_t count) {
        if (!Room(offset, count)) {
            return false;
        }
        if (count > 0) {
            memcpy(bytes_.data() + offset, pSrc, count);
        }
        return true;
    }

  private:
    bool Room(size_t offset, size_t count) {
        if (offset <= bytes_.size() && count <= bytes_.size() - offset) {
            return true;
        }
        failed_ = true;
        return false;
    }
    template <size_t kCount>
    bool Put(size_t offset, uint64_t value) {
        if (!Room(offset, kCount)) {
            return false;
        }
        for (size_t i = 0; i < kCount; ++i) {
            const size_t at = kEndian == Endian::kBig ? kCount - 1 - i : i;
            bytes_[offset + at] = static_cast<uint8_t>(value >> (8 * i));
        }
        return true;
    }

    std::span<uint8_t> bytes_;
    bool failed_ = false;
};

using BigEndianWriter = ByteWriter<Endian::kBig>;
using LittleEndianWriter = ByteWriter<Endian::kLittle>;

}  // namespace talvek

#endif
