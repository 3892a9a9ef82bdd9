#ifndef TALVEK_TESTS_DEV_PRETENDED_TIME_H
#define TALVEK_TESTS_DEV_PRETENDED_TIME_H

#include <poll.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <vector>

// Time for tests of deadlines. A program that uses it has pretended_time.cpp among its sources and
// wraps the functions of PRETENDED_TIME_WRAP in CMakeLists.txt.

namespace talvek::test {

// While an object lives, the monotonic clock of its thread moves by the thread's waits alone: a
// wait for which `inVain` is true ends at once and advances the clock by its whole time; any other
// wait lasts until the descriptor is ready and advances the clock by `readyMs`.
class PretendedTime {
  public:
    PretendedTime();
    ~PretendedTime();
    PretendedTime(const PretendedTime &) = delete;
    PretendedTime &operator=(const PretendedTime &) = delete;

    struct Wait {
        short events;
        int64_t ms;
        bool operator==(const Wait &) const = default;
    };

    std::function<bool(short events)> inVain = [](short) { return false; };
    int64_t readyMs = 0;
    size_t mostReceived = SIZE_MAX;  // by one recv

    std::vector<Wait> waits;
    int64_t ns = kStart;

    [[nodiscard]] int64_t ElapsedMs() const { return (ns - kStart) / 1'000'000; }

    static constexpr int64_t kStart = 0x0102030405060708;
};

}  // namespace talvek::test

#endif
