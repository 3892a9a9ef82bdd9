// Scraping of single values out of texts, and replacement in a heap text.

#include "common/text.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/heap_buf.h"
#include "common/internal/case_search.h"
#include "common/internal/module_log.h"

namespace {

constexpr size_t kMaxPattern = 256;  // "</tag>" with its NUL

// The position right after the key, or NULL.
const char *FindAfter(const char *pSrc, const char *pKey) {
    if (pSrc == nullptr || pKey == nullptr) {
        return nullptr;
    }
    const size_t keySize = strlen(pKey);
    const char *found = talvek::FindIgnoringCase(pSrc, pKey, keySize);
    return found != nullptr ? found + keySize : nullptr;
}

const char *FindLineEnd(const char *pText) {
    return strpbrk(pText, "\r\n");
}

// Bytes from one position to a later one. Saturates at INT_MAX - 1, leaving room to count the NUL.
int Distance(const char *from, const char *to) {
    return static_cast<int>(std::min<ptrdiff_t>(to - from, INT_MAX - 1));
}

void CopyWithNul(char *pDst, const char *pSrc, int length) {
    memmove(pDst, pSrc, static_cast<size_t>(length));  // pDst may be part of the text
    pDst[length] = '\0';
}

const char *GetQuoted(const char *pFunction, char quote, const char *pSrc, const char *pKey,
                      char *pDst, int size) {
    const char *after = FindAfter(pSrc, pKey);
    const char *opening = after != nullptr ? strchr(after, quote) : nullptr;
    const char *closing = opening != nullptr ? strchr(opening + 1, quote) : nullptr;
    if (closing == nullptr || pDst == nullptr) {
        return nullptr;
    }
    int length = Distance(opening + 1, closing);
    if (length >= size) {
        LOG_AS(pFunction, "Warning! overflow (len, size) = (%d, %d)\n", length, size);
        length = size;
    }
    if (length >= 0) {
        CopyWithNul(pDst, opening + 1, length);
    }
    return length < 1 ? nullptr : after;
}

// Copies [from, to) and a NUL into `size` bytes. Returns the bytes written; 0 or less when `size`
// has no room for the NUL.
int CopyRange(const char *pFunction, const char *from, const char *to, char *pDst, int size) {
    int needed = Distance(from, to) + 1;
    if (needed > size) {
        LOG_AS(pFunction, "Warning! overflow (len, size) = (%d, %d)\n", needed, size);
        needed = size;
    }
    if (needed > 0) {
        CopyWithNul(pDst, from, needed - 1);
    }
    return needed;
}

struct Pattern {
    char text[kMaxPattern];
    bool fits;
};

Pattern MakePattern(const char *pBefore, const char *pTag, const char *pAfter) {
    Pattern pattern;
    const int length = snprintf(pattern.text, sizeof pattern.text, "%s%s%s", pBefore, pTag, pAfter);
    pattern.fits = length >= 0 && static_cast<size_t>(length) < sizeof pattern.text;
    return pattern;
}

// A decimal number read one character at a time, clamped to 32 bits.
class NumberRun {
  public:
    // False when the character does not belong to the number.
    bool Append(char c) {
        if (talvek::IsDigit(c)) {
            magnitude_ = std::min(magnitude_ * 10 + (c - '0'), kMaxMagnitude);
        } else if (empty_ && (c == '+' || c == '-')) {
            negative_ = c == '-';
        } else {
            return false;
        }
        empty_ = false;
        return true;
    }
    [[nodiscard]] bool empty() const { return empty_; }
    [[nodiscard]] int value() const {
        const int64_t value = negative_ ? -magnitude_ : magnitude_;
        return static_cast<int>(std::min<int64_t>(value, INT32_MAX));
    }

  private:
    static constexpr int64_t kMaxMagnitude = -int64_t{INT32_MIN};
    int64_t magnitude_ = 0;
    bool negative_ = false;
    bool empty_ = true;
};

void StoreIfWanted(int *pNumber, const NumberRun &run) {
    if (pNumber != nullptr) {
        *pNumber = run.value();
    }
}

// A heap text that is rewritten from left to right. The finished part is at the start of the block,
// the part still to be searched at its end, and free room lies between them. A byte moves once per
// growth, which adds half the size, so the time is linear in the text and in what is inserted.
class Rewrite {
  public:
    explicit Rewrite(char *pBlock) : block_(pBlock), end_(strlen(pBlock) + 1) {}

    // The next match in the part still to be searched, or NULL.
    [[nodiscard]] const char *Find(const char *pOld, size_t oldSize) const {
        return static_cast<const char *>(
            memmem(block_.get() + rest_, end_ - 1 - rest_, pOld, oldSize));
    }

    // Replaces the match. The part still to be searched then begins with the replacement.
    void Replace(const char *match, size_t oldSize, const char *pNew, size_t newSize) {
        Keep(static_cast<size_t>(match - (block_.get() + rest_)));
        if (done_ + newSize > rest_ + oldSize) {
            Grow(oldSize, newSize);
        }
        rest_ = rest_ + oldSize - newSize;
        memcpy(block_.get() + rest_, pNew, newSize);
    }

    [[nodiscard]] char *Finish() {
        Keep(end_ - rest_);
        if (spare_) {
            static_cast<void>(block_.Resize(done_));  // a block that stays larger does no harm
        }
        return block_.Release();
    }

  private:
    // Moves `count` characters from the part to be searched to the finished part.
    void Keep(size_t count) {
        if (done_ != rest_) {
            memmove(block_.get() + done_, block_.get() + rest_, count);
        }
        done_ += count;
        rest_ += count;
    }

    void Grow(size_t oldSize, size_t newSize) {
        const size_t tail = end_ - rest_ - oldSize;
        const size_t size = ResizeFor(done_ + newSize + tail);
        memmove(block_.get() + size - tail, block_.get() + end_ - tail, tail);
        rest_ = size - tail - oldSize;
        end_ = size;
    }

    // A short text gets exactly what it needs. A long one gets half as much again if memory allows.
    // Returns the size of the new block.
    size_t ResizeFor(size_t needed) {
        constexpr size_t kShort = 256;
        const size_t roomy = needed + needed / 2;  // less than `needed` when it wraps around
        if (needed > kShort && roomy > needed && block_.Resize(roomy)) {
            spare_ = true;
            return roomy;
        }
        // The text is never returned half replaced, so this waits until there is memory.
        // Tested by ReplaceStrFault.RetriesUntilTheBlockGrows.
        while (!block_.Resize(needed)) {
            LOG_AS("COM_ReplaceStr", "REALLOC(%d) failed\n", static_cast<int>(needed));
            // The pause keeps the processor and the log free until another thread or process
            // releases memory.
            const struct timespec pause = {0, 10'000'000};
            nanosleep(&pause, nullptr);
        }
        return needed;
    }

    talvek::HeapBuf<char> block_;
    size_t end_;       // after the NUL
    size_t done_ = 0;  // size of the finished part
    size_t rest_ = 0;  // start of the part still to be searched
    bool spare_ = false;
};

}  // namespace

const char *COM_StrCaseStr(const char *pSrc, const char *pKey) {
    if (pSrc == nullptr || pKey == nullptr) {
        return nullptr;
    }
    return talvek::FindIgnoringCase(pSrc, pKey, strlen(pKey));
}

const char *COM_GetStrInDoubleQuotes(const char *pSrc, const char *pKey, char *pDst, int size) {
    return GetQuoted(__func__, '"', pSrc, pKey, pDst, size);
}

const char *COM_GetStrInSingleQuotes(const char *pSrc, const char *pKey, char *pDst, int size) {
    return GetQuoted(__func__, '\'', pSrc, pKey, pDst, size);
}

const char *COM_GetStrBeforeSpace(const char *pSrc, const char *pKey, char *pDst, int size) {
    const char *after = FindAfter(pSrc, pKey);
    const char *blank = after != nullptr ? strchr(after, ' ') : nullptr;
    if (blank == nullptr || pDst == nullptr) {
        return nullptr;
    }
    // Unlike an empty quoted value, an empty value before a blank is a success.
    // Tested by GetStrBeforeSpace.AcceptsAnEmptyValue.
    return CopyRange(__func__, after, blank, pDst, size) < 1 ? nullptr : after;
}

const char *COM_GetStrBeforeEOL(const char *pSrc, const char *pKey, char *pDst, int size) {
    constexpr int kShown = 20;
    const char *after = FindAfter(pSrc, pKey);
    const char *end = after != nullptr ? FindLineEnd(after) : nullptr;
    if (end == nullptr || pDst == nullptr) {
        return nullptr;
    }
    const int needed = Distance(after, end) + 1;
    if (needed <= size) {
        CopyWithNul(pDst, after, needed - 1);
        return after;
    }
    // With a size of 0 or less the precision is negative, and printf shows all text after the key.
    const int shown = size > kShown + 1 ? kShown : size > 0 ? size - 1 : -1;
    LOG_PLAIN("Warning! overflow (len, size) = (%d, %d)[%s][%.*s]\n", needed, size, pKey, shown,
              after);
    if (size <= 0) {
        return nullptr;
    }
    CopyWithNul(pDst, after, size - 1);
    return after;
}

const char *COM_GetLineAfterKey(const char *pSrc, const char *pKey, char **ppOut) {
    const char *after = FindAfter(pSrc, pKey);
    if (after == nullptr || ppOut == nullptr) {
        return nullptr;
    }
    const char *end = FindLineEnd(after);
    if (end != nullptr && end > after) {
        const int needed = Distance(after, end) + 1;
        *ppOut = static_cast<char *>(calloc(1, static_cast<size_t>(needed)));
        if (*ppOut == nullptr) {
            LOG_ERRNO("CALLOC(1, %d) error:%s\n", needed);
            return nullptr;
        }
        CopyWithNul(*ppOut, after, needed - 1);
    }
    // If nothing was allocated, the old value of the caller's pointer decides.
    // Tested by GetLineAfterKey.DependsOnTheOldPointerWhenNothingIsAllocated.
    return *ppOut != nullptr ? after : nullptr;
}

char *COM_CutLineAfterKey(char *pSrc, const char *pKey) {
    const char *after = FindAfter(pSrc, pKey);
    const char *end = after != nullptr ? FindLineEnd(after) : nullptr;
    if (end == nullptr || end == after) {
        return nullptr;
    }
    pSrc[end - pSrc] = '\0';
    return pSrc + (after - pSrc);
}

const char *COM_GetXMLData(const char *pSrc, const char *pTag, char *pDst, int size) {
    if (pSrc == nullptr || pTag == nullptr || pDst == nullptr) {
        return nullptr;
    }
    const Pattern opening = MakePattern("<", pTag, ">");
    const char *head = opening.fits ? FindAfter(pSrc, opening.text) : nullptr;
    if (head == nullptr) {
        LOG("[%s] not found in [%s]\n", pTag, pSrc);
        return nullptr;
    }
    const Pattern closing = MakePattern("</", pTag, ">");
    // The search begins at the start of the text, so a closing tag before the opening one is found
    // first. Tested by GetXMLData.RefusesAClosingTagBeforeTheOpeningOne.
    const char *tail = closing.fits ? COM_StrCaseStr(pSrc, closing.text) : nullptr;
    if (tail == nullptr) {
        LOG("No xml tail found!\n");
        return nullptr;
    }
    // The destination may not be terminated yet, so its size bounds what is shown of it.
    const int shown = size > 0 ? size : 0;
    if (tail < head) {
        const ptrdiff_t length = tail - head + 1;
        LOG("[%s] = [%.*s] (%d bytes)\n", pTag, shown, pDst,
            static_cast<int>(std::max<ptrdiff_t>(length, INT_MIN)));
        return nullptr;
    }
    LOG("(pHead, pTail, pStr, len) = (%p, %p, %p, %d/%d)\n", static_cast<const void *>(head),
        static_cast<const void *>(tail), static_cast<const void *>(pDst), Distance(head, tail) + 1,
        size);
    const int taken = CopyRange(__func__, head, tail, pDst, size);
    LOG("[%s] = [%.*s] (%d bytes)\n", pTag, shown, pDst, taken);
    return taken > 0 ? head : nullptr;
}

const char *COM_GetXMLAttribute(const char *pSrc, const char *pTag, char *pDst, int size) {
    if (pSrc == nullptr || pTag == nullptr || pDst == nullptr) {
        return nullptr;
    }
    const Pattern opening = MakePattern("<", pTag, "");
    const char *start = opening.fits ? FindAfter(pSrc, opening.text) : nullptr;
    const char *end = start != nullptr ? strchr(start, '>') : nullptr;
    if (end == nullptr) {
        return nullptr;
    }
    return CopyRange(__func__, start, end, pDst, size) < 1 ? nullptr : end + 1;
}

int COM_GetTwoNumbers(const char *pBuf, int size, int *pFirst, int *pSecond) {
    if (pBuf == nullptr || size < 1) {
        return 0;
    }
    bool haveFirst = false;
    NumberRun run;
    for (int i = 0; i < size; ++i) {
        if (run.Append(pBuf[i]) || run.empty()) {
            continue;
        }
        if (haveFirst) {
            StoreIfWanted(pSecond, run);
            return 2;
        }
        StoreIfWanted(pFirst, run);
        haveFirst = true;
        run = NumberRun{};
    }
    // A first number needs a character after it: callers include the terminator.
    // Tested by GetTwoNumbers.DoesNotReportASingleNumberAtTheEnd.
    if (!haveFirst) {
        return 0;
    }
    if (run.empty()) {
        return 1;
    }
    StoreIfWanted(pSecond, run);
    return 2;
}

char *COM_ReplaceStr(char *pBuf, const char *pOld, const char *pNew) {
    if (pBuf == nullptr || pOld == nullptr || pNew == nullptr || *pOld == '\0') {
        return pBuf;
    }
    const size_t oldSize = strlen(pOld);
    const size_t newSize = strlen(pNew);
    const talvek::CancelGuard guard;
    Rewrite text{pBuf};
    // The search resumes at the start of the inserted text, so a match may begin in it.
    // Tested by ReplaceStr.FindsMatchesThatBeginInTheReplacement.
    while (const char *match = text.Find(pOld, oldSize)) {
        text.Replace(match, oldSize, pNew, newSize);
    }
    return text.Finish();
}
