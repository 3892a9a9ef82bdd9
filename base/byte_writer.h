#ifndef TALVEK_BASE_BYTE_WRITER_H
#define TALVEK_BASE_BYTE_WRITER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>

#include "base/endian.h"

namespace talvek {

// Writes fields at byte offsets of a buffer, never beyond it: a field that does not fit wholly is
// not written and sets failed().
template <Endian kEndian>
class ByteWriter {
  public:
    ByteWriter(void *pBytes, size_t size)
        : bytes_(static_cast<uint8_t *>(pBytes), pBytes != nullptr ? size : 0) {}

    [[nodiscard]] bool failed() const { return failed_; }

    void U8(size_t offset, uint8_t value) { Put<1>(offset, value); }
    void U16(size_t offset, uint16_t value) { Put<2>(offset, value); }
    void U32(size_t offset, uint32_t value) { Put<4>(offset, value); }
    void Copy(size_t offset, const void *pSrc, size_t count) {
        if (Room(offset, count) && count > 0) {
            memcpy(bytes_.data() + offset, pSrc, count);
        }
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
    void Put(size_t offset, uint64_t value) {
        if (!Room(offset, kCount)) {
            return;
        }
        for (size_t i = 0; i < kCount; ++i) {
            const size_t at = kEndian == Endian::kBig ? kCount - 1 - i : i;
            bytes_[offset + at] = static_cast<uint8_t>(value >> (8 * i));
        }
    }

    std::span<uint8_t> bytes_;
    bool failed_ = false;
};

using BigEndianWriter = ByteWriter<Endian::kBig>;
using LittleEndianWriter = ByteWriter<Endian::kLittle>;

}  // namespace talvek

#endif
