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
        for (size_t i = 0; i < kMargin; ++i) {
            REQUIRE(block_[i] == kCanary && bytes()[size_ + i] == kCanary);
        }
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
        for (size_t i = offset; i < size_; ++i) {
            if (bytes()[i] != fill) {
                return false;
            }
        }
        return true;
    }

  private:
    static constexpr size_t kMargin = 16;
    static constexpr uint8_t kCanary = 0x5C;

    size_t size_;
    uint8_t *block_;
};

}  // namespace talvek::fuzz

#endif
