#ifndef TALVEK_TESTS_SUPPORT_INTERRUPTIONS_H
#define TALVEK_TESTS_SUPPORT_INTERRUPTIONS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

namespace talvek::test {

// A SIGALRM every so many milliseconds for a scope, caught without SA_RESTART: calls that wait end
// with EINTR again and again, also on a machine so busy that a wait begins late.
class Interruptions {
  public:
    explicit Interruptions(int ms) {
        count_ = 0;
        struct sigaction counted = {};
        counted.sa_handler = [](int) { count_ = count_ + 1; };
        EXPECT_EQ(0, sigaction(SIGALRM, &counted, &before_));
        const itimerval often = {{0, ms * 1000L}, {0, ms * 1000L}};
        EXPECT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
    }
    ~Interruptions() {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        signal(SIGALRM, SIG_IGN);  // discards one that came before; valgrind delivers it late
        sigaction(SIGALRM, &before_, nullptr);
    }
    Interruptions(const Interruptions &) = delete;
    Interruptions &operator=(const Interruptions &) = delete;

    // Signals that have come.
    [[nodiscard]] static int count() { return count_; }

  private:
    static inline volatile sig_atomic_t count_ = 0;
    struct sigaction before_ = {};
};

}  // namespace talvek::test

#endif
