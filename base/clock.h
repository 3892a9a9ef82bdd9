#ifndef TALVEK_BASE_CLOCK_H
#define TALVEK_BASE_CLOCK_H

#include <stdint.h>

namespace talvek {

// Nanoseconds of a clock that never goes back (CLOCK_MONOTONIC).
int64_t MonotonicNs();
// MonotonicNs in milliseconds.
int64_t MonotonicMs();

// The time at which a wait, or a series of waits, ends.
class Deadline {
  public:
    // `ms` milliseconds from now.
    explicit Deadline(int64_t ms);

    // Milliseconds left, rounded up, so that a wait of this time ends after the deadline; 0 when
    // it has passed.
    [[nodiscard]] int64_t LeftMs() const;

  private:
    int64_t end_;  // ns
};

}  // namespace talvek

#endif
