// The monotonic clock, and deadlines by it.

#include "base/clock.h"

#include <time.h>

namespace talvek {
namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kNsPerMs = 1'000'000;

}  // namespace

int64_t MonotonicNs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * kNsPerSecond + now.tv_nsec;
}

int64_t MonotonicMs() {
    return MonotonicNs() / kNsPerMs;
}

Deadline::Deadline(int64_t ms) : end_(MonotonicNs() + ms * kNsPerMs) {}

int64_t Deadline::LeftMs() const {
    const int64_t left = end_ - MonotonicNs();
    return left > 0 ? (left + kNsPerMs - 1) / kNsPerMs : 0;
}

}  // namespace talvek
