#ifndef TALVEK_TESTS_SUPPORT_CANARY_H
#define TALVEK_TESTS_SUPPORT_CANARY_H

#include <stddef.h>
#include <stdint.h>

namespace talvek::test {

// A buffer of exactly `size` bytes between canaries: 64 patterned bytes before it, and after its
// last byte a page that cannot be touched. Its bytes start as `fill`.
class CanaryBuf {
  public:
    explicit CanaryBuf(size_t size, uint8_t fill = 0xA5);
    ~CanaryBuf();
    CanaryBuf(const CanaryBuf &) = delete;
    CanaryBuf &operator=(const CanaryBuf &) = delete;

    [[nodiscard]] char *text() const { return reinterpret_cast<char *>(bytes_); }
    [[nodiscard]] uint8_t *bytes() const { return bytes_; }
    [[nodiscard]] size_t size() const { return size_; }

    // Whether the bytes before the buffer are unchanged; a write beyond it has already killed the
    // process.
    [[nodiscard]] bool Intact() const;

    // Whether the bytes from `offset` on are still the fill: nothing was written there.
    [[nodiscard]] bool UntouchedFrom(size_t offset) const;

  private:
    uint8_t *map_;
    size_t mapSize_;
    uint8_t *bytes_;
    size_t size_;
    uint8_t fill_;
};

// A copy of a text or of bytes whose last byte is followed by a page that cannot be read: a read
// beyond the end kills the process.
class GuardedCopy {
  public:
    GuardedCopy(const void *pBytes, size_t size);
    explicit GuardedCopy(const char *pText);  // the NUL is the last byte

    [[nodiscard]] char *text() const { return buf_.text(); }
    [[nodiscard]] uint8_t *bytes() const { return buf_.bytes(); }
    [[nodiscard]] size_t size() const { return buf_.size(); }

  private:
    CanaryBuf buf_;
};

}  // namespace talvek::test

#endif
