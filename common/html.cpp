// Turns HTML in memory into text, or cuts one element out of it.

#include "common/html.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "base/characters.h"
#include "base/heap_buf.h"
#include "common/file.h"
#include "common/internal/module_log.h"

namespace {

// The text while it is stripped.
class StrippedText {
  public:
    explicit StrippedText(char *pBlock) : block_(pBlock) {}

    [[nodiscard]] bool empty() const { return used_ == 0; }

    // False when memory has run out; the text so far is kept.
    bool Append(const char *pText, size_t count) {
        while (count > 0) {
            if (used_ == size_ && !Grow(count)) {
                return false;
            }
            const size_t taken = std::min(count, size_ - used_);
            memcpy(block_.get() + used_, pText, taken);
            used_ += taken;
            pText += taken;
            count -= taken;
        }
        return true;
    }

    // Appends the NUL and trims the block. Without memory for the NUL, it replaces the last
    // character, so that the result is always terminated.
    void Finish() {
        if (used_ == size_ && !GrowByOne(used_ + 1)) {
            --used_;
        }
        block_[used_++] = '\0';
        if (used_ < size_) {
            static_cast<void>(block_.Resize(used_));  // a block that stays larger does no harm
        }
    }

    // Size of the finished text, with its NUL.
    [[nodiscard]] size_t size() const { return used_; }
    [[nodiscard]] char *Release() { return block_.Release(); }

  private:
    // A short text grows byte by byte to exactly what it needs. A longer one at least doubles, so
    // that the time is linear in the text. After a refusal, all later steps are at most half as
    // large: then few requests are refused, and the text can still use the last free byte.
    // Tested by StripHtmlCode.UsesAllMemoryWithFewRefusedRequests.
    bool Grow(size_t count) {
        constexpr size_t kShort = 64;
        if (used_ >= kShort) {
            for (size_t step = std::min(std::max(count, used_), largestStep_); step > 1;
                 step /= 2) {
                const size_t size = used_ + step + 1;  // with the NUL
                if (block_.Resize(size)) {
                    size_ = size;
                    return true;
                }
                largestStep_ = step / 2;
            }
        }
        return GrowByOne(used_);
    }

    bool GrowByOne(size_t logged) {
        void *block = block_.Release();
        const bool grown = COM_ReallocAndCopyBuf(used_ + 1, &block, used_, nullptr, 0) != nullptr;
        block_.Reset(static_cast<char *>(block));
        if (!grown) {
            LOG_AS("COM_StripHtmlCode", "COM_ReallocAndCopyBuf(%d) error\n",
                   static_cast<int>(logged));
            return false;
        }
        size_ = used_ + 1;
        return true;
    }

    talvek::HeapBuf<char> block_;
    size_t used_ = 0;
    size_t size_ = 0;  // writable bytes of the block; 0 for the caller's old block
    size_t largestStep_ = SIZE_MAX;
};

// Whether the tag's name is at `at`: the name, then a blank, a tab or the end of the tag. A longer
// name does not match. Tested by ExtractHtmlTag.SkipsLongerNames.
bool HasName(const char *at, const char *pTag, size_t tagSize) {
    return talvek::BeginsIgnoringCase(at, pTag, tagSize) &&
           (at[tagSize] == ' ' || at[tagSize] == '\t' || at[tagSize] == '>');
}

struct Extent {
    const char *start = nullptr;
    size_t length = 0;
};

// The first element of the name; empty when there is none.
Extent FindElement(const char *pTag, const char *pHtml, bool keepTags) {
    const size_t tagSize = strlen(pTag);
    ptrdiff_t depth = -1;  // 0 inside the element, more inside nested elements of its name
    const char *start = nullptr;
    const char *close = nullptr;
    for (const char *open = strchr(pHtml, '<'); open != nullptr; open = strchr(close + 1, '<')) {
        close = strchr(open, '>');
        if (close == nullptr) {
            break;
        }
        if (HasName(open + 1, pTag, tagSize)) {
            if (++depth == 0) {
                start = keepTags ? open : close + 1;
            }
        } else if (open[1] == '/' && HasName(open + 2, pTag, tagSize)) {
            if (--depth == -1 && start != nullptr) {
                const char *end = keepTags ? close + 1 : open;
                return {start, static_cast<size_t>(end - start)};
            }
        }
    }
    return {};
}

}  // namespace

int COM_StripHtmlCode(char *pSrc, char **ppResult) {
    if (pSrc == nullptr || ppResult == nullptr) {
        return -1;
    }
    StrippedText result{*ppResult};
    for (char *at = pSrc; *at != '\0';) {
        char *open = strchrnul(at, '<');
        if (!result.Append(at, static_cast<size_t>(open - at)) || *open == '\0') {
            break;
        }
        char *close = strchr(open, '>');
        if (close == nullptr) {
            break;
        }
        if (talvek::BeginsIgnoringCase(open + 1, "BR", 2)) {
            // Callers find the newline in the source too.
            // Tested by StripHtmlCode.WritesTheNewlinesIntoTheSource.
            *close = '\n';
            if (!result.Append(close, 1)) {
                break;
            }
        }
        at = close + 1;
    }
    const bool empty = result.empty();
    if (!empty) {
        result.Finish();
    }
    *ppResult = result.Release();
    return empty ? -1 : static_cast<int>(result.size());
}

int COM_ExtractHtmlTag(const char *pTag, const char *pHtml, char **ppResult, int keepTags) {
    if (pTag == nullptr || pHtml == nullptr || ppResult == nullptr) {
        return -1;
    }
    const Extent element = FindElement(pTag, pHtml, keepTags != COM_HTML_CONTENT);
    if (element.length < 1) {
        return -1;
    }
    const size_t size = element.length + 1;
    *ppResult = static_cast<char *>(calloc(1, size));
    if (*ppResult == nullptr) {
        LOG_ERRNO("CALLOC(%d) fail : %s\n", static_cast<int>(size));
        return -1;
    }
    memcpy(*ppResult, element.start, element.length);
    return static_cast<int>(size);
}
