#ifndef TALVEK_SERVICE_INTERNAL_RETRY_PAUSE_H
#define TALVEK_SERVICE_INTERNAL_RETRY_PAUSE_H

#include <stdint.h>

namespace talvek {

// How long to wait, and whether to say so, while something fails again and again for want of room.
// Times are milliseconds of a clock that never goes back.
class RetryPause {
  public:
    static constexpr int64_t kFirst = 10;
    static constexpr int64_t kLongest = 1000;
    static constexpr int64_t kSilence =
        int64_t{60} * 1000;  // between two log lines of the same trouble

    // One more failure. Whether it is to be logged.
    bool Fail(int64_t now) {
        pause_ = pause_ == 0 ? kFirst : pause_ * 2;
        if (pause_ > kLongest) {
            pause_ = kLongest;
        }
        if (logged_ && now - loggedAt_ < kSilence) {
            return false;
        }
        logged_ = true;
        loggedAt_ = now;
        return true;
    }
    // It works again.
    void Succeed() {
        pause_ = 0;
        logged_ = false;
    }
    // How long to wait before the next try.
    [[nodiscard]] int64_t pause() const { return pause_; }

  private:
    int64_t pause_ = 0;
    int64_t loggedAt_ = 0;
    bool logged_ = false;
};

}  // namespace talvek

#endif
