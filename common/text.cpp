// Scraping of single values out of texts, and replacement in a heap text.

#include "common/text.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "base/cancel_guard.h"
#include "common/internal/case_search.h"
#include "common/internal/module_log.h"

namespace talvek {
namespace {

constexpr size_t kMaxPattern = 256;  // "</tag>" with its NUL

// Bytes from one position to a later one. One less than an int can hold stands for all that is
// longer, so that the NUL can still be counted.
int Distance(const char *from, const char *to) {
    return to - from < INT_MAX ? static_cast<int>(to - from) : INT_MAX - 1;
}

// The value's characters are known to be there, so its length need not be taken again.
void CopyText(char *pDst, const char *pSrc, int length) {
    memcpy(pDst, pSrc, static_cast<size_t>(length));
    pDst[length] = '\0';
}

// The position just behind the key, or null.
const char *FindBehind(const char *pSrc, const char *pKey) {
    if (pSrc == nullptr || pKey == nullptr) {
        return nullptr;
    }
    const size_t keySize = strlen(pKey);
    const char *found = FindIgnoringCase(pSrc, pKey, keySize);
    return found != nullptr ? found + keySize : nullptr;
}

const char *FindLineEnd(const char *pText) {
    return strpbrk(pText, "\r\n");
}

const char *GetQuoted(const char *pEntry, char quote, const char *pSrc, const char *pKey,
                      char *pDst, int size) {
    const char *after = FindBehind(pSrc, pKey);
    const char *opening = after != nullptr ? strchr(after, quote) : nullptr;
    const char *closing = opening != nullptr ? strchr(opening + 1, quote) : nullptr;
    if (closing == nullptr || pDst == nullptr) {
        return nullptr;
    }
    int length = Distance(opening + 1, closing);
    if (length >= size) {
        LOG_AS(pEntry, "Warning! overflow (len, size) = (%d, %d)\n", length, size);
        length = size;
    }
    if (length >= 0) {
        CopyText(pDst, opening + 1, length);
    }
    return length < 1 ? nullptr : after;
}

// Copies [from, to) with its NUL into `size` bytes and returns the bytes it took, NUL included;
// 0 or less when there was room for nothing.
int CopyRange(const char *pEntry, const char *from, const char *to, char *pDst, int size) {
    int needed = Distance(from, to) + 1;
    if (needed > size) {
        LOG_AS(pEntry, "Warning! overflow (len, size) = (%d, %d)\n", needed, size);
        needed = size;
    }
    if (needed > 0) {
        CopyText(pDst, from, needed - 1);
    }
    return needed;
}

struct Pattern {
    char text[kMaxPattern];
    bool fits;
};

Pattern MakePattern(const char *pBefore, const char *pTag, const char *pBehind) {
    Pattern pattern;
    const int length =
        snprintf(pattern.text, sizeof pattern.text, "%s%s%s", pBefore, pTag, pBehind);
    pattern.fits = length >= 0 && static_cast<size_t>(length) < sizeof pattern.text;
    return pattern;
}

// A decimal number read one digit at a time, held at the limits of 32 bits.
class NumberRun {
  public:
    // Whether the character belongs to the number.
    bool Take(char c) {
        if (c >= '0' && c <= '9') {
            magnitude_ = magnitude_ * 10 + (c - '0');
            if (magnitude_ > kMax) {
                magnitude_ = kMax;
            }
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
        return value > INT32_MAX ? INT32_MAX : static_cast<int>(value);
    }

  private:
    static constexpr int64_t kMax = -static_cast<int64_t>(INT32_MIN);
    int64_t magnitude_ = 0;
    bool negative_ = false;
    bool empty_ = true;
};

void Store(int *pNumber, const NumberRun &run) {
    if (pNumber != nullptr) {
        *pNumber = run.value();
    }
}

// A heap text while it is rewritten from left to right: what is done stands at the start, what is
// still to be searched at the end of the block, and room to grow between them. Each byte moves once
// a block, and blocks grow by half, so the cost is linear in the text and in what is put in.
class Rewrite {
  public:
    explicit Rewrite(char *pBlock) : block_(pBlock), end_(strlen(pBlock) + 1) {}

    // The next place of a text in what is still to be searched, or null.
    [[nodiscard]] const char *Find(const char *pOld, size_t oldSize) const {
        return static_cast<const char *>(memmem(block_ + rest_, end_ - 1 - rest_, pOld, oldSize));
    }

    // Replaces `oldSize` characters at `hit`. What is still to be searched begins with the
    // replacement.
    void Replace(const char *hit, size_t oldSize, const char *pNew, size_t newSize) {
        Keep(static_cast<size_t>(hit - (block_ + rest_)));
        if (done_ + newSize > rest_ + oldSize) {
            Grow(oldSize, newSize);
        }
        rest_ = rest_ + oldSize - newSize;
        memcpy(block_ + rest_, pNew, newSize);
    }

    char *Finish() {
        Keep(end_ - rest_);
        if (spare_) {
            char *trimmed = static_cast<char *>(realloc(block_, done_));
            return trimmed != nullptr ? trimmed : block_;
        }
        return block_;
    }

  private:
    void Keep(size_t count) {
        if (done_ != rest_) {
            memmove(block_ + done_, block_ + rest_, count);
        }
        done_ += count;
        rest_ += count;
    }

    void Grow(size_t oldSize, size_t newSize) {
        const size_t tail = end_ - rest_ - oldSize;
        const size_t needed = done_ + newSize + tail;
        const size_t size = Reallocate(needed);
        memmove(block_ + size - tail, block_ + end_ - tail, tail);
        rest_ = size - tail - oldSize;
        end_ = size;
    }

    // A short text gets what it needs and no more; a long one gets half as much on top where that
    // is to be had. Returns the size of the new block.
    size_t Reallocate(size_t needed) {
        constexpr size_t kShort = 256;
        const size_t roomy = needed + needed / 2;  // less than needed where 32 bits do not hold it
        if (needed > kShort && roomy > needed && TryReallocate(roomy)) {
            spare_ = true;
            return roomy;
        }
        if (TryReallocate(needed)) {
            return needed;
        }
        // The text is never left half replaced: the block is asked for until it is there.
        // Held by ReplaceStrFault.TriesAgainUntilTheBlockGrows.
        const CancelGuard guard;
        do {
            LOG_AS("COM_ReplaceStr", "REALLOC(%d) failed\n", static_cast<int>(needed));
            // A shortage ends when someone else releases memory; until then neither the processor
            // nor the log is flooded.
            const struct timespec pause = {0, 10'000'000};
            nanosleep(&pause, nullptr);
        } while (!TryReallocate(needed));
        return needed;
    }

    bool TryReallocate(size_t size) {
        char *grown = static_cast<char *>(realloc(block_, size));
        if (grown == nullptr) {
            return false;
        }
        block_ = grown;
        return true;
    }

    char *block_;
    size_t end_;       // behind the NUL
    size_t done_ = 0;  // characters at the start that are finished
    size_t rest_ = 0;  // where the text still to be searched begins
    bool spare_ = false;
};

}  // namespace
}  // namespace talvek

const char *COM_StrCaseStr(const char *pSrc, const char *pKey) {
    if (pSrc == nullptr || pKey == nullptr) {
        return nullptr;
    }
    return talvek::FindIgnoringCase(pSrc, pKey, strlen(pKey));
}

const char *COM_GetStrInDoubleQuotes(const char *pSrc, const char *pKey, char *pDst, int size) {
    return talvek::GetQuoted(__func__, '"', pSrc, pKey, pDst, size);
}

const char *COM_GetStrInSingleQuotes(const char *pSrc, const char *pKey, char *pDst, int size) {
    return talvek::GetQuoted(__func__, '\'', pSrc, pKey, pDst, size);
}

const char *COM_GetStrBeforeSpace(const char *pSrc, const char *pKey, char *pDst, int size) {
    const char *after = talvek::FindBehind(pSrc, pKey);
    const char *blank = after != nullptr ? strchr(after, ' ') : nullptr;
    if (blank == nullptr || pDst == nullptr) {
        return nullptr;
    }
    // Unlike an empty quoted value, an empty value before a blank is a value.
    // Held by GetStrBeforeSpace.TakesAnEmptyValueForAValue.
    return talvek::CopyRange(__func__, after, blank, pDst, size) < 1 ? nullptr : after;
}

const char *COM_GetStrBeforeEOL(const char *pSrc, const char *pKey, char *pDst, int size) {
    constexpr int kShown = 20;
    const char *after = talvek::FindBehind(pSrc, pKey);
    const char *end = after != nullptr ? talvek::FindLineEnd(after) : nullptr;
    if (end == nullptr || pDst == nullptr) {
        return nullptr;
    }
    const int needed = talvek::Distance(after, end) + 1;
    if (needed <= size) {
        talvek::CopyText(pDst, after, needed - 1);
        return after;
    }
    // Without any room the precision is negative, and printf shows all that follows the key.
    const int shown = size > kShown + 1 ? kShown : size > 0 ? size - 1 : -1;
    LOG_PLAIN("Warning! overflow (len, size) = (%d, %d)[%s][%.*s]\n", needed, size, pKey, shown,
              after);
    if (size <= 0) {
        return nullptr;
    }
    talvek::CopyText(pDst, after, size - 1);
    return after;
}

const char *COM_GetLineAfterKey(const char *pSrc, const char *pKey, char **ppOut) {
    const char *after = talvek::FindBehind(pSrc, pKey);
    if (after == nullptr || ppOut == nullptr) {
        return nullptr;
    }
    const char *end = talvek::FindLineEnd(after);
    if (end != nullptr && end > after) {
        const int needed = talvek::Distance(after, end) + 1;
        *ppOut = static_cast<char *>(calloc(1, static_cast<size_t>(needed)));
        if (*ppOut == nullptr) {
            LOG_ERRNO("CALLOC(1, %d) error:%s\n", needed);
            return nullptr;
        }
        talvek::CopyText(*ppOut, after, needed - 1);
    }
    // Where nothing was allocated, what the caller's pointer held decides.
    // Held by GetLineAfterKey.GoesByThePointerWhereNothingIsAllocated.
    return *ppOut != nullptr ? after : nullptr;
}

char *COM_CutLineAfterKey(char *pSrc, const char *pKey) {
    const char *after = talvek::FindBehind(pSrc, pKey);
    const char *end = after != nullptr ? talvek::FindLineEnd(after) : nullptr;
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
    const talvek::Pattern opening = talvek::MakePattern("<", pTag, ">");
    const char *head = opening.fits ? talvek::FindBehind(pSrc, opening.text) : nullptr;
    if (head == nullptr) {
        LOG("[%s] not found in [%s]\n", pTag, pSrc);
        return nullptr;
    }
    const talvek::Pattern closing = talvek::MakePattern("</", pTag, ">");
    // The search begins at the start of the text: a closing tag before the opening one is found
    // first and is a failure. Held by GetXMLData.RefusesAClosingTagBeforeTheOpeningOne.
    const char *tail = closing.fits ? COM_StrCaseStr(pSrc, closing.text) : nullptr;
    if (tail == nullptr) {
        LOG("No xml tail found!\n");
        return nullptr;
    }
    // The destination may hold anything yet; its end bounds what is shown of it.
    const int shown = size > 0 ? size : 0;
    if (tail < head) {
        const ptrdiff_t length = tail - head + 1;
        LOG("[%s] = [%.*s] (%d bytes)\n", pTag, shown, pDst,
            length > INT_MIN ? static_cast<int>(length) : INT_MIN);
        return nullptr;
    }
    LOG("(pHead, pTail, pStr, len) = (%p, %p, %p, %d/%d)\n", static_cast<const void *>(head),
        static_cast<const void *>(tail), static_cast<const void *>(pDst),
        talvek::Distance(head, tail) + 1, size);
    const int taken = talvek::CopyRange(__func__, head, tail, pDst, size);
    LOG("[%s] = [%.*s] (%d bytes)\n", pTag, shown, pDst, taken);
    return taken > 0 ? head : nullptr;
}

const char *COM_GetXMLAttribute(const char *pSrc, const char *pTag, char *pDst, int size) {
    if (pSrc == nullptr || pTag == nullptr || pDst == nullptr) {
        return nullptr;
    }
    const talvek::Pattern opening = talvek::MakePattern("<", pTag, "");
    const char *start = opening.fits ? talvek::FindBehind(pSrc, opening.text) : nullptr;
    const char *end = start != nullptr ? strchr(start, '>') : nullptr;
    if (end == nullptr) {
        return nullptr;
    }
    return talvek::CopyRange(__func__, start, end, pDst, size) < 1 ? nullptr : end + 1;
}

int COM_GetTwoNumbers(const char *pBuf, int len, int *pFirst, int *pSecond) {
    if (pBuf == nullptr || len < 1) {
        return 0;
    }
    bool haveFirst = false;
    talvek::NumberRun run;
    for (int i = 0; i < len; ++i) {
        if (run.Take(pBuf[i]) || run.empty()) {
            continue;
        }
        if (haveFirst) {
            talvek::Store(pSecond, run);
            return 2;
        }
        talvek::Store(pFirst, run);
        haveFirst = true;
        run = talvek::NumberRun{};
    }
    // A first number needs a character behind it: callers hand in the terminator too.
    // Held by GetTwoNumbers.DoesNotReportASingleNumberAtTheEnd.
    if (!haveFirst) {
        return 0;
    }
    if (run.empty()) {
        return 1;
    }
    talvek::Store(pSecond, run);
    return 2;
}

char *COM_ReplaceStr(char *pBuf, const char *pOld, const char *pNew) {
    if (pBuf == nullptr || pOld == nullptr || pNew == nullptr || *pOld == '\0') {
        return pBuf;
    }
    const size_t oldSize = strlen(pOld);
    const size_t newSize = strlen(pNew);
    talvek::Rewrite text{pBuf};
    // The search goes on at the start of what was put in, so that a match may begin in it.
    // Held by ReplaceStr.FindsMatchesThatBeginInTheReplacement.
    while (const char *hit = text.Find(pOld, oldSize)) {
        text.Replace(hit, oldSize, pNew, newSize);
    }
    return text.Finish();
}
