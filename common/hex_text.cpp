// Data that the kernel publishes as hexadecimal text.

#include "common/hex_text.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/heap_buf.h"
#include "common/internal/module_log.h"

namespace talvek {
namespace {

constexpr size_t kFirstSize = 4096;
constexpr size_t kMaxFile = size_t{1} << 20;

bool IsSpace(char character) {
    return strchr(" \t\n\v\f\r", character) != nullptr && character != '\0';
}

// A text that grows as it is read.
class HexText {
  public:
    // Makes room for more; false without memory.
    bool Grow();
    // Reads once; the count of bytes before white space was taken out, 0 at the end, -1 for a
    // failure, one of which is a file beyond the limit.
    ssize_t ReadFrom(int fd);

    [[nodiscard]] bool IsFull() const { return length_ + 1 >= size_; }
    [[nodiscard]] size_t length() const { return length_; }
    [[nodiscard]] char *Close() {
        text_[length_] = '\0';
        return text_.Release();
    }

  private:
    HeapBuf<char> text_;
    size_t size_ = 0;
    size_t length_ = 0;
    size_t taken_ = 0;  // bytes of the file, white space counted
};

bool HexText::Grow() {
    const size_t size = size_ == 0 ? kFirstSize : size_ * 2;
    char *pGrown = static_cast<char *>(realloc(text_.get(), size));
    if (pGrown == nullptr) {
        return false;
    }
    static_cast<void>(text_.Release());
    text_.Reset(pGrown);
    size_ = size;
    return true;
}

ssize_t HexText::ReadFrom(int fd) {
    char *pNew = text_.get() + length_;
    const ssize_t count = read(fd, pNew, size_ - length_ - 1);
    for (ssize_t i = 0; i < count; ++i) {
        if (!IsSpace(pNew[i])) {
            text_[length_++] = pNew[i];
        }
    }
    if (count > 0) {
        taken_ += static_cast<size_t>(count);
    }
    // What has no end, a device or a pipe, must not take all memory or keep the caller for ever.
    if (taken_ > kMaxFile) {
        errno = EFBIG;
        return -1;
    }
    return count;
}

}  // namespace
}  // namespace talvek

char *COM_ReadHexDataInStrFormat(int fd, int *pLength) {
    talvek::HexText text;
    for (;;) {
        if (text.IsFull() && !text.Grow()) {
            LOG_ERRNO("REALLOC() failed : %s\n");
            return nullptr;
        }
        const ssize_t count = text.ReadFrom(fd);
        if (count < 0) {
            LOG_ERRNO("read(%d) error : %s\n", fd);
            return nullptr;
        }
        if (count == 0) {
            break;
        }
    }
    if (pLength != nullptr) {
        *pLength = static_cast<int>(text.length());
    }
    return text.Close();
}
