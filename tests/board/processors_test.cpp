// The watchdog and the registry of threads on one processor and on four: their tests run once more,
// with processors switched on and off.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "board/support/board.h"
#include "support/command.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

bool Switch(int cpu, bool on) {
    const std::string path = "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/online";
    const std::string wanted = on ? "1\n" : "0\n";
    if (ReadFile(path) != wanted) {
        RunCommand("echo " + wanted.substr(0, 1) + " >" + path);
    }
    return ReadFile(path) == wanted;
}

// A number of processors while it lives; afterwards as many as before.
class Processors {
  public:
    explicit Processors(long count) : before_(sysconf(_SC_NPROCESSORS_ONLN)) {
        Set(count);
        EXPECT_EQ(count, sysconf(_SC_NPROCESSORS_ONLN));
    }
    ~Processors() { Set(before_); }
    Processors(const Processors &) = delete;
    Processors &operator=(const Processors &) = delete;

  private:
    // The first one cannot be switched off.
    static void Set(long count) {
        const long all = sysconf(_SC_NPROCESSORS_CONF);
        for (int cpu = 1; cpu < all; ++cpu) {
            EXPECT_TRUE(Switch(cpu, cpu < count)) << cpu;
        }
    }
    long before_;
};

void ExpectPasses(const std::string &program, const std::string &tests) {
    const std::string output = RunCommand(BoardVariable("BOARD_CHECKOUT") + "/build/arm/tests/" +
                                          program + " --gtest_filter='" + tests + "'");
    EXPECT_NE(std::string::npos, output.find("[  PASSED  ] ")) << output;
    EXPECT_EQ(std::string::npos, output.find("[  PASSED  ] 0 tests")) << output;
}

void ExpectHolds(long processors) {
    const Processors set{processors};
    ExpectPasses("common_thread_test", "ThreadWatchdog.*:Registry.*:LogThread.KeepsEveryEntry*");
}

TEST(Watchdog, HoldsOnOneProcessor) {
    NEEDS_EMULATED_BOARD();
    ExpectHolds(1);
}

TEST(Watchdog, HoldsOnFourProcessors) {
    NEEDS_EMULATED_BOARD();
    ExpectHolds(4);
}

}  // namespace
