// Data that the kernel publishes as hexadecimal text.

#include "common/hex_text.h"

#include <errno.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/heap_buf.h"
#include "common/internal/module_log.h"

namespace {

constexpr size_t kFirstSize = 4096;

// A text that grows while it is read.
class HexText {
  public:
    // Makes room for more; false without memory.
    bool Grow() {
        const size_t size = size_ == 0 ? kFirstSize : size_ * 2;
        if (!text_.Resize(size)) {
            return false;
        }
        size_ = size;
        return true;
    }

    // Reads once. Returns the number of bytes read, including white space, 0 at the end of the
    // file, or -1 after a failure, such as a file beyond the limit.
    ssize_t ReadFrom(int fd) {
        char *pNew = text_.get() + length_;
        const ssize_t count = read(fd, pNew, size_ - length_ - 1);
        for (ssize_t i = 0; i < count; ++i) {
            if (!talvek::IsSpace(pNew[i])) {
                text_[length_++] = pNew[i];
            }
        }
        if (count > 0) {
            bytesRead_ += static_cast<size_t>(count);
        }
        // A device or a pipe without an end must not use up all memory or block the caller for
        // ever.
        if (bytesRead_ > COM_HEX_TEXT_MAX_FILE) {
            errno = EFBIG;
            return -1;
        }
        return count;
    }

    [[nodiscard]] bool IsFull() const { return length_ + 1 >= size_; }
    [[nodiscard]] size_t length() const { return length_; }
    [[nodiscard]] char *Finish() {
        text_[length_] = '\0';
        return text_.Release();
    }

  private:
    talvek::HeapBuf<char> text_;
    size_t size_ = 0;
    size_t length_ = 0;
    size_t bytesRead_ = 0;
};

}  // namespace

char *COM_ReadHexDataInStrFormat(int fd, int *pLength) {
    const talvek::CancelGuard guard;
    HexText text;
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
    return text.Finish();
}
