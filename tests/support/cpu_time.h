#ifndef TALVEK_TESTS_SUPPORT_CPU_TIME_H
#define TALVEK_TESTS_SUPPORT_CPU_TIME_H

#include <time.h>

namespace talvek::test {

// Seconds of processor time that this process has used since the object was made. Unlike the time
// of day it does not grow with what else the machine is doing.
class CpuTime {
  public:
    [[nodiscard]] double Seconds() const { return Now() - start_; }

  private:
    static double Now() {
        struct timespec now = {};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    }
    double start_ = Now();
};

}  // namespace talvek::test

#endif
