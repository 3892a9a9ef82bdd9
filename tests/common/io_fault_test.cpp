#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/io.h"
#include "support/capture.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

TEST(CheckProcExistFault, SkipsAProcessThatCannotBeRead) {
    const Fault fault{"open", 0, ENOENT};
    EXPECT_EQ(0, COM_CheckProcExist("common_io_fault_test"));
    EXPECT_TRUE(Fault::Tripped());
}

TEST(CheckProcExistFault, FailsWithoutProc) {
    const Fault fault{"opendir", 0, ENOENT};
    EXPECT_EQ(-1, COM_CheckProcExist(""));
}

TEST(SetSockTimeoutFault, LogsTheReceiveTimeout) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    char expected[128];
    snprintf(expected, sizeof expected,
             "COMMON:COM_SetSockTimeout(): setsockopt(%d, SO_RCVTIMEO, 7 sec) failed - No buffer "
             "space available",
             ends[0]);
    EXPECT_EQ(Lines{expected}, CaptureLog([&] {
                  const Fault fault{"setsockopt", 1, ENOBUFS};
                  EXPECT_EQ(-1, COM_SetSockTimeout(ends[0], 7));
              }));
    struct timeval time = {-1, -1};
    socklen_t size = sizeof time;
    EXPECT_EQ(0, getsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &time, &size));
    EXPECT_EQ(7, time.tv_sec);
    EXPECT_EQ(0, getsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &time, &size));
    EXPECT_EQ(0, time.tv_sec);
    close(ends[0]);
    close(ends[1]);
}

TEST(SendAllFault, StopsAtTheFirstError) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    {
        const Fault fault{"send", 0, EINTR};
        EXPECT_EQ(4, COM_SendAll(ends[0], "text", 4));
    }
    EXPECT_EQ(0, COM_SendAll(ends[0], "text", 4));
    close(ends[0]);
    close(ends[1]);
}

TEST(SleepTraceFault, ReturnsTheFailureOfTheSleepOnlyWithoutATag) {
    {
        const Fault fault{"nanosleep", 0, EINTR};
        EXPECT_EQ(-1, COM_SleepTrace(100, 0, nullptr, 1));
    }
    EXPECT_EQ("[t, 1] : B4 100. 0 sec Sleep\n[t, 1] : After 100. 0 sec Sleep\n", Capture([] {
                  const Fault fault{"nanosleep", 0, EINTR};
                  EXPECT_EQ(32, COM_SleepTrace(100, 0, "t", 1));
              }));
}

}  // namespace
