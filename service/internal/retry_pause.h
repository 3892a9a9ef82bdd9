#ifndef TALVEK_SERVICE_INTERNAL_RETRY_PAUSE_H
#define TALVEK_SERVICE_INTERNAL_RETRY_PAUSE_H

#include <stdint.h>

#include <algorithm>

namespace talvek {

// The pauses between tries of a call that fails for lack of resources, and which failures to log.
// Times are milliseconds of a monotonic clock.
class RetryPause {
  public:
    static constexpr int64_t kFirstMs = 10;
    static constexpr int64_t kLongestMs = 1000;
    static constexpr int64_t kLogIntervalMs = int64_t{60} * 1000;

    // Counts a failure. Returns whether to log it.
    bool Fail(int64_t now) {
        pauseMs_ = pauseMs_ == 0 ? kFirstMs : std::min(pauseMs_ * 2, kLongestMs);
        if (logged_ && now - loggedAt_ < kLogIntervalMs) {
            return false;
        }
        logged_ = true;
        loggedAt_ = now;
        return true;
    }
    void Succeed() {
        pauseMs_ = 0;
        logged_ = false;
    }
    // The time before the next try.
    [[nodiscard]] int64_t pauseMs() const { return pauseMs_; }

  private:
    int64_t pauseMs_ = 0;
    int64_t loggedAt_ = 0;
    bool logged_ = false;
};

}  // namespace talvek

#endif
