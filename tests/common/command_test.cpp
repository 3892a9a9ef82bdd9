#include "common/command.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "support/capture.h"

namespace {

using talvek::test::CaptureLog;
using Lines = std::vector<std::string>;

TEST(System, ReturnsTheWaitStatusAndWithdrawsThePid) {
    int pid = 77;
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_System("/bin/true ", &pid)); }));
    EXPECT_EQ(0, pid);
    EXPECT_EQ(1 << 8, COM_System("/bin/false", nullptr));
}

TEST(System, MakesNoPathSearch) {
    EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [true] error : No such file or directory"}),
              CaptureLog([] { EXPECT_EQ(127 << 8, COM_System("true ", nullptr)); }));
}

}  // namespace
