#ifndef TALVEK_TESTS_SERVICE_SUPPORT_WAITS_H
#define TALVEK_TESTS_SERVICE_SUPPORT_WAITS_H

#include <stdint.h>

#include <vector>

namespace talvek::test {

// Simulates waits (base/wait.h) of this process that time out, without taking the time. Any other
// wait lasts until its event, so that a slow machine makes no round more. For programs whose link
// wraps ppoll and __ppoll64, its name with a time of 64 bits on 32-bit machines.
class Waits {
  public:
    struct Wait {
        short events;
        int64_t ms;
        bool operator==(const Wait &other) const = default;
    };

    // Makes the next `count` waits time out.
    static void TimeOut(int count);
    // Makes every wait fail with `error` until the next call; 0 ends that.
    static void Fail(int error);
    // The waits that have timed out since the last call.
    static std::vector<Wait> TimedOut();
};

}  // namespace talvek::test

#endif
