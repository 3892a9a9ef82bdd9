#ifndef TALVEK_FUZZ_SUPPORT_ORACLE_H
#define TALVEK_FUZZ_SUPPORT_ORACLE_H

#include <sanitizer/asan_interface.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// Ends the process with a message on descriptor 2.
[[noreturn]] void Fail(const char *pFile, int line, const char *pWhat);

// What must hold after a call. Unlike assert it is never compiled out.
#define REQUIRE(condition)                                        \
    do {                                                          \
        if (!(condition)) {                                       \
            ::talvek::fuzz::Fail(__FILE__, __LINE__, #condition); \
        }                                                         \
    } while (false)

// Whether all bytes of a block have the same value.
inline bool IsFilled(const void *pBlock, size_t size, uint8_t fill) {
    const auto *bytes = static_cast<const uint8_t *>(pBlock);
    return size == 0 || (bytes[0] == fill && memcmp(bytes, bytes + 1, size - 1) == 0);
}

// A caller's output buffer of exactly `size` bytes, between canaries. With AddressSanitizer the
// canaries cannot be touched at all; without it their content is checked at the end.
class Out {
  public:
    explicit Out(size_t size, uint8_t fill = 0xA5)
        : size_(size), block_(static_cast<uint8_t *>(malloc(kMargin + size + kMargin))) {
        REQUIRE(block_ != nullptr);
        memset(block_, kCanary, kMargin + size + kMargin);
        memset(bytes(), fill, size);
        ASAN_POISON_MEMORY_REGION(block_, kMargin);
        ASAN_POISON_MEMORY_REGION(bytes() + size, kMargin);
    }
    ~Out() {
        ASAN_UNPOISON_MEMORY_REGION(block_, kMargin + size_ + kMargin);
        REQUIRE(IsFilled(block_, kMargin, kCanary));
        REQUIRE(IsFilled(bytes() + size_, kMargin, kCanary));
        free(block_);
    }
    Out(const Out &) = delete;
    Out &operator=(const Out &) = delete;

    [[nodiscard]] uint8_t *bytes() const { return block_ + kMargin; }
    [[nodiscard]] char *text() const { return reinterpret_cast<char *>(bytes()); }
    [[nodiscard]] size_t size() const { return size_; }
    [[nodiscard]] Bytes all() const { return {bytes(), size_}; }
    // Whether there is a NUL in the buffer.
    [[nodiscard]] bool IsText() const { return memchr(bytes(), 0, size_) != nullptr; }
    // Whether no byte from `offset` on was written.
    [[nodiscard]] bool Untouched(uint8_t fill = 0xA5, size_t offset = 0) const {
        return offset >= size_ || IsFilled(bytes() + offset, size_ - offset, fill);
    }

  private:
    static constexpr size_t kMargin = 16;
    static constexpr uint8_t kCanary = 0x5C;

    size_t size_;
    uint8_t *block_;
};

}  // namespace talvek::fuzz

#endif
