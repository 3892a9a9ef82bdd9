// HTML in memory turned into text, or cut to one element.

#include "common/html.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "base/characters.h"
#include "common/file.h"
#include "common/internal/module_log.h"

namespace talvek {
namespace {

// The result of stripping while it grows. A short one takes byte after byte, so that it needs what
// it holds and no more; a longer one at least doubles where that is to be had, which keeps the cost
// in proportion to the text, and goes on byte by byte where it is not.
class StrippedText {
  public:
    explicit StrippedText(char **ppBlock) : block_(*ppBlock) {}

    [[nodiscard]] bool empty() const { return used_ == 0; }

    // False when memory has ended; what fitted is kept.
    bool Append(const char *pText, size_t count) {
        while (count > 0) {
            if (used_ == capacity_ && !Reserve(count)) {
                if (!AppendByte(*pText, used_)) {
                    return false;
                }
                ++pText;
                --count;
                continue;
            }
            const size_t room = capacity_ - used_;
            const size_t taken = count < room ? count : room;
            memcpy(block_ + used_, pText, taken);
            used_ += taken;
            pText += taken;
            count -= taken;
        }
        return true;
    }

    // Puts the NUL behind the text and returns the bytes of both. Where there is no memory for it,
    // it takes the place of the last character, so that the caller never gets an open text.
    int Finish() {
        if (used_ < capacity_) {
            block_[used_++] = '\0';
            char *trimmed = static_cast<char *>(realloc(block_, used_));
            block_ = trimmed != nullptr ? trimmed : block_;
        } else if (!AppendByte('\0', used_ + 1)) {
            block_[used_ - 1] = '\0';
        }
        return static_cast<int>(used_);
    }

  private:
    bool AppendByte(char byte, size_t shown) {
        void *block = block_;
        if (COM_ReallocAndCopyBuf(used_ + 1, &block, used_, &byte, 1) == nullptr) {
            LOG_AS("COM_StripHtmlCode", "COM_ReallocAndCopyBuf(%d) error\n",
                   static_cast<int>(shown));
            return false;
        }
        block_ = static_cast<char *>(block);
        capacity_ = ++used_;
        return true;
    }

    // Makes room for `count` characters and the NUL.
    bool Reserve(size_t count) {
        constexpr size_t kShort = 64;
        if (used_ < kShort) {
            return false;
        }
        const size_t size = used_ + (count > used_ ? count : used_) + 1;
        char *grown = static_cast<char *>(realloc(block_, size));
        if (grown == nullptr) {
            return false;
        }
        block_ = grown;
        capacity_ = size;
        return true;
    }

    char *&block_;  // the caller's pointer, which holds the block at any time
    size_t used_ = 0;
    size_t capacity_ = 0;
};

// Whether a tag's name begins at `at`: the name, then a blank, a tab or the tag's end. A name that
// only begins with it is another one. Held by ExtractHtmlTag.PassesOverLongerNames.
bool HasName(const char *at, const char *pTag, size_t tagSize) {
    return BeginsIgnoringCase(at, pTag, tagSize) &&
           (at[tagSize] == ' ' || at[tagSize] == '\t' || at[tagSize] == '>');
}

struct Extent {
    const char *start = nullptr;
    size_t length = 0;
};

// The first element of the name; empty when there is none.
Extent FindElement(const char *pTag, const char *pHtml, bool keepTags) {
    const size_t tagSize = strlen(pTag);
    ptrdiff_t depth = -1;  // 0 inside the element, more inside elements that it holds
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
}  // namespace talvek

int COM_StripHtmlCode(char *pSrc, char **ppResult) {
    if (pSrc == nullptr || ppResult == nullptr) {
        return -1;
    }
    talvek::StrippedText result{ppResult};
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
            // Held by StripHtmlCode.LeavesTheNewlinesInTheSource.
            *close = '\n';
            if (!result.Append(close, 1)) {
                break;
            }
        }
        at = close + 1;
    }
    return result.empty() ? -1 : result.Finish();
}

int COM_ExtractHtmlTag(const char *pTag, const char *pHtml, char **ppResult, int keepTags) {
    if (pTag == nullptr || pHtml == nullptr || ppResult == nullptr) {
        return -1;
    }
    const talvek::Extent element = talvek::FindElement(pTag, pHtml, keepTags != 0);
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
