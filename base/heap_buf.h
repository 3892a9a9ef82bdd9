#ifndef TALVEK_BASE_HEAP_BUF_H
#define TALVEK_BASE_HEAP_BUF_H

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include <utility>

namespace talvek {

// Owns a block that malloc, calloc or realloc returned.
template <typename T>
class HeapBuf {
  public:
    HeapBuf() = default;
    explicit HeapBuf(T *block) : block_(block) {}
    HeapBuf(HeapBuf &&other) : block_(other.Release()) {}
    HeapBuf &operator=(HeapBuf &&other) {
        Reset(other.Release());
        return *this;
    }
    HeapBuf(const HeapBuf &) = delete;
    HeapBuf &operator=(const HeapBuf &) = delete;
    ~HeapBuf() { free(block_); }

    // A zeroed block of `count` elements; empty when there is no memory.
    static HeapBuf Zeroed(size_t count) {
        return HeapBuf{static_cast<T *>(calloc(count, sizeof(T)))};
    }

    // Resizes the block to `count` elements, at least one, and keeps those that fit; new ones are
    // not initialised. False, with errno ENOMEM and the block unchanged, when there is no memory.
    [[nodiscard]] bool Resize(size_t count) {
        if (count > SIZE_MAX / sizeof(T)) {
            errno = ENOMEM;
            return false;
        }
        T *block = static_cast<T *>(realloc(block_, (count > 0 ? count : 1) * sizeof(T)));
        if (block == nullptr) {
            return false;
        }
        block_ = block;
        return true;
    }

    [[nodiscard]] T *get() const { return block_; }
    T &operator[](size_t index) const { return block_[index]; }
    explicit operator bool() const { return block_ != nullptr; }
    [[nodiscard]] T *Release() { return std::exchange(block_, nullptr); }
    void Reset(T *block = nullptr) { free(std::exchange(block_, block)); }

  private:
    T *block_ = nullptr;
};

}  // namespace talvek

#endif
