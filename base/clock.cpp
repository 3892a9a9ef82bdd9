// The monotonic clock, and deadlines by it.

#include "base/clock.h"

#include <inttypes.h>
#include <stdio.h>

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

// strftime would link the names of days and months into the static program (5 kB).
bool FormatUtc(char *pDst, size_t size, time_t time) {
    struct tm calendar;
    if (gmtime_r(&time, &calendar) == nullptr) {
        return false;
    }
    snprintf(pDst, size, "%" PRId64 "/%02d/%02d %02d:%02d:%02d", int64_t{calendar.tm_year} + 1900,
             calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min,
             calendar.tm_sec);
    return true;
}

Deadline::Deadline(int64_t ms) : end_(MonotonicNs() + ms * kNsPerMs) {}

int64_t Deadline::LeftMs() const {
    const int64_t left = end_ - MonotonicNs();
    return left > 0 ? (left + kNsPerMs - 1) / kNsPerMs : 0;
}

}  // namespace talvek
