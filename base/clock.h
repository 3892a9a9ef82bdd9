#ifndef TALVEK_BASE_CLOCK_H
#define TALVEK_BASE_CLOCK_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

namespace talvek {

// Nanoseconds of a clock that never goes back (CLOCK_MONOTONIC).
int64_t MonotonicNs();
// MonotonicNs in milliseconds.
int64_t MonotonicMs();

// Writes a time as "YYYY/MM/DD hh:mm:ss" in UTC; a year above 9999 or below 0 takes as many
// characters as it needs. The whole has at most 27 bytes with its NUL. False when the year does not
// fit struct tm.
bool FormatUtc(char *pDst, size_t size, time_t time);

// The time at which a wait, or a series of waits, ends.
class Deadline {
  public:
    // `ms` milliseconds from now.
    explicit Deadline(int64_t ms);

    // Milliseconds left, rounded up, so that a wait of this length does not end before the
    // deadline; 0 when it has passed.
    [[nodiscard]] int64_t LeftMs() const;

  private:
    int64_t end_;  // ns
};

}  // namespace talvek

#endif
