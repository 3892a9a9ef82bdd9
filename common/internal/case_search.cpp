// Search for a key ignoring ASCII case (docs/decisions/key-search.md). memchr looks for the rarest
// byte of the key. If that byte turns out to be frequent in the text, the search continues with the
// two-way algorithm (Crochemore and Perrin, "Two-way string-matching", 1991), which needs no memory
// and at most two comparisons per byte.

#include "common/internal/case_search.h"

#include <stdint.h>
#include <string.h>

#include <array>

#include "base/characters.h"

namespace talvek {
namespace {

using ByteTable = std::array<uint8_t, 256>;

constexpr ByteTable MakeFold() {
    ByteTable fold{};
    for (size_t i = 0; i < fold.size(); ++i) {
        fold[i] = static_cast<uint8_t>(LowerCase(static_cast<char>(i)));
    }
    return fold;
}
constexpr ByteTable kFold = MakeFold();

// How frequent a byte is in headers, XML and settings: later in the list means more frequent. Bytes
// that are not listed are the rarest.
constexpr ByteTable MakeFrequency() {
    constexpr char kByFrequency[] =
        "QZXJK~^`{}$!@%#&*+[]()?;'VYW98765432GBPUFMDHCLS:_-,.\nROINA01T\"E</>= ";
    ByteTable frequency{};
    uint8_t rank = 1;
    for (const char c : kByFrequency) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte != 0) {
            frequency[byte] = frequency[kFold[byte]] = rank++;
        }
    }
    return frequency;
}
constexpr ByteTable kFrequency = MakeFrequency();

uint8_t Folded(const char *pAt) {
    return kFold[static_cast<uint8_t>(*pAt)];
}

// The part of a NUL-terminated text that is known to hold no NUL. It grows with the search, so that
// an early match does not cost a strlen of the whole text.
class KnownText {
  public:
    explicit KnownText(const char *pText) : end_(pText) {}

    // Whether the text has `count` characters from `at` on; `at` lies in the known part.
    bool Has(const char *at, size_t count) {
        if (Left(at) < count) {
            const size_t missing = count - Left(at);
            end_ += strnlen(end_, missing > kStep ? missing : kStep);
        }
        return Left(at) >= count;
    }
    [[nodiscard]] size_t Left(const char *at) const { return static_cast<size_t>(end_ - at); }

  private:
    static constexpr size_t kStep = 2048;
    const char *end_;
};

struct Key {
    const char *text;
    size_t size;

    [[nodiscard]] uint8_t At(size_t i) const { return Folded(text + i); }
    // Characters that agree from `from` on, up to the key's end.
    [[nodiscard]] size_t MatchEnd(const char *at, size_t from) const {
        while (from < size && At(from) == Folded(at + from)) {
            ++from;
        }
        return from;
    }
};

// Start and period of the key's greatest suffix in alphabetical order, or in reverse order.
size_t MaximalSuffix(const Key &key, bool reverse, size_t &period) {
    size_t start = 0;
    size_t candidate = 1;
    size_t offset = 0;
    period = 1;
    while (candidate + offset < key.size) {
        const uint8_t a = key.At(candidate + offset);
        const uint8_t b = key.At(start + offset);
        if (a == b) {
            if (++offset == period) {
                candidate += period;
                offset = 0;
            }
        } else if (reverse ? a > b : a < b) {
            candidate += offset + 1;
            offset = 0;
            period = candidate - start;
        } else {
            start = candidate++;
            offset = 0;
            period = 1;
        }
    }
    return start;
}

class TwoWaySearch {
  public:
    explicit TwoWaySearch(const Key &key) : key_(key) {
        size_t period = 0;
        size_t reversePeriod = 0;
        const size_t start = MaximalSuffix(key, false, period);
        const size_t reverseStart = MaximalSuffix(key, true, reversePeriod);
        cut_ = start > reverseStart ? start : reverseStart;
        period_ = start > reverseStart ? period : reversePeriod;
        periodic_ = cut_ + period_ <= key.size && RepeatsUpToTheCut();
        if (!periodic_) {
            // After a partial match no other match begins within this distance.
            period_ = (cut_ > key.size - cut_ ? cut_ : key.size - cut_) + 1;
        }
    }

    const char *Find(KnownText &text, const char *at) const {
        size_t known = 0;  // leading characters that are known to match after a shift by the period
        while (text.Has(at, key_.size)) {
            if (known == 0 && !SkipToTheCut(text, at)) {
                continue;
            }
            const size_t right = key_.MatchEnd(at, cut_ > known ? cut_ : known);
            if (right < key_.size) {
                at += right - cut_ + 1;
                known = 0;
                continue;
            }
            if (LeftPartMatches(at, known)) {
                return at;
            }
            at += period_;
            known = periodic_ ? key_.size - period_ : 0;
        }
        return nullptr;
    }

  private:
    [[nodiscard]] bool RepeatsUpToTheCut() const {
        for (size_t i = 0; i < cut_; ++i) {
            if (key_.At(i) != key_.At(i + period_)) {
                return false;
            }
        }
        return true;
    }
    // Most places fail at the first compared character; this loop skips them. Returns false at the
    // end of the known text.
    bool SkipToTheCut(const KnownText &text, const char *&at) const {
        const uint8_t first = key_.At(cut_);
        const char *compared = at + cut_;
        const char *end = compared + (text.Left(at) - key_.size + 1);
        while (compared != end && Folded(compared) != first) {
            ++compared;
        }
        at = compared - cut_;
        return compared != end;
    }
    [[nodiscard]] bool LeftPartMatches(const char *at, size_t known) const {
        size_t i = cut_;
        while (i > known && key_.At(i - 1) == Folded(at + i - 1)) {
            --i;
        }
        return i <= known;
    }

    const Key &key_;
    size_t cut_ = 0;
    size_t period_ = 1;
    bool periodic_ = false;
};

size_t RarestByte(const Key &key) {
    size_t rarest = 0;
    for (size_t i = 1; i < key.size; ++i) {
        if (kFrequency[key.At(i)] < kFrequency[key.At(rarest)]) {
            rarest = i;
        }
    }
    return rarest;
}

// Finds a letter in either case. It keeps the next place of each case until that place is taken, so
// that memchr reads no byte twice for the same case.
class LetterScan {
  public:
    LetterScan(char lower, const char *from, size_t size)
        : lower_(lower),
          upper_(IsLetter(lower) ? static_cast<char>(lower ^ 0x20) : lower),
          end_(from + size) {
        nextLower_ = Next(lower_, from);
        nextUpper_ = upper_ == lower_ ? end_ : Next(upper_, from);
    }
    // Returns the next place, or the end, and continues after it.
    const char *Take() {
        const bool isLower = nextLower_ <= nextUpper_;
        const char *hit = isLower ? nextLower_ : nextUpper_;
        if (hit != end_) {
            (isLower ? nextLower_ : nextUpper_) = Next(isLower ? lower_ : upper_, hit + 1);
        }
        return hit;
    }

  private:
    const char *Next(char c, const char *from) const {
        const void *hit = memchr(from, c, static_cast<size_t>(end_ - from));
        return hit != nullptr ? static_cast<const char *>(hit) : end_;
    }

    char lower_;
    char upper_;
    const char *end_;
    const char *nextLower_;
    const char *nextUpper_;
};

}  // namespace

const char *FindIgnoringCase(const char *pText, const char *pKey, size_t keySize) {
    if (keySize == 0) {
        return pText;
    }
    const Key key{pKey, keySize};
    KnownText text{pText};
    const size_t rarest = RarestByte(key);
    const char letter = static_cast<char>(key.At(rarest));
    // The cost of a hit, in bytes that memchr passes in the same time. When the hits have cost more
    // than twice the text that was passed, the byte is not rare here.
    constexpr size_t kHitCost = 16;
    size_t cost = 0;
    // A match at `at` has the rarest byte at `at + rarest`.
    const char *at = pText;
    while (text.Has(at, keySize)) {
        const size_t starts = text.Left(at) - keySize + 1;
        LetterScan scan{letter, at + rarest, starts};
        for (const char *hit = scan.Take(); hit != at + rarest + starts; hit = scan.Take()) {
            const char *start = hit - rarest;
            const size_t matched = key.MatchEnd(start, 0);
            if (matched == keySize) {
                return start;
            }
            cost += kHitCost + matched;
            if (cost / 2 > static_cast<size_t>(start - pText) + 1024) {
                return TwoWaySearch{key}.Find(text, start + 1);
            }
        }
        at += starts;
    }
    return nullptr;
}

}  // namespace talvek
