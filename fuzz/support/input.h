#ifndef TALVEK_FUZZ_SUPPORT_INPUT_H
#define TALVEK_FUZZ_SUPPORT_INPUT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <span>
#include <string>

namespace talvek::fuzz {

using Bytes = std::span<const uint8_t>;

// The bytes of one execution, taken from the front. After the end every number is 0 and every
// piece is empty. Numbers of several bytes are little-endian.
class Input {
  public:
    explicit Input(Bytes bytes) : rest_(bytes) {}

    [[nodiscard]] bool empty() const { return rest_.empty(); }

    Bytes Take(size_t count) {
        const Bytes taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    Bytes Rest() { return Take(rest_.size()); }
    // A piece after its length of two bytes.
    Bytes Piece() { return Take(U16()); }
    // The bytes up to the next newline, which is skipped.
    Bytes Line() {
        const Bytes line = Take(static_cast<size_t>(
            std::distance(rest_.begin(), std::find(rest_.begin(), rest_.end(), '\n'))));
        Take(1);
        return line;
    }

    uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
    uint32_t U32() { return Number(4); }

  private:
    uint32_t Number(size_t size) {
        uint32_t number = 0;
        int shift = 0;
        for (const uint8_t byte : Take(size)) {
            number |= static_cast<uint32_t>(byte) << shift;
            shift += 8;
        }
        return number;
    }

    Bytes rest_;
};

// Bytes in a heap block of exactly their size: AddressSanitizer reports every read beyond them.
class Block {
  public:
    explicit Block(Bytes bytes) : size_(bytes.size()), data_(new uint8_t[size_]) {
        std::copy(bytes.begin(), bytes.end(), data_.get());
    }
    [[nodiscard]] uint8_t *data() const { return data_.get(); }
    [[nodiscard]] size_t size() const { return size_; }

  private:
    size_t size_;
    std::unique_ptr<uint8_t[]> data_;
};

// The same as a NUL-terminated text, up to the first NUL in the bytes.
class Text {
  public:
    explicit Text(Bytes bytes)
        : length_(static_cast<size_t>(
              std::distance(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0)))),
          text_(new char[length_ + 1]) {
        std::copy_n(bytes.begin(), length_, text_.get());
        text_[length_] = '\0';
    }
    [[nodiscard]] char *get() const { return text_.get(); }
    [[nodiscard]] size_t length() const { return length_; }
    [[nodiscard]] std::string str() const { return {text_.get(), length_}; }

  private:
    size_t length_;
    std::unique_ptr<char[]> text_;
};

}  // namespace talvek::fuzz

#endif
