#include "common/process.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/capture.h"

namespace {

using talvek::test::CaptureLog;
using Lines = std::vector<std::string>;

struct Output {
    Lines lines;
    int ends = 0;
};

void Collect(const char *pLine, void *pUser) {
    Output &output = *static_cast<Output *>(pUser);
    if (pLine == nullptr) {
        ++output.ends;
    } else {
        output.lines.push_back(pLine);
    }
}

TEST(PopenRead, HandsOverEachLineAndTheEnd) {
    Output output;
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(0, COM_PopenRead("echo 1; echo 2; echo 3", nullptr, &output, Collect));
              }));
    EXPECT_EQ((Lines{"1\n", "2\n", "3\n"}), output.lines);
    EXPECT_EQ(1, output.ends);
}

TEST(PopenRead, LogsAndReturnsARawStatusOtherThanZero) {
    Output output;
    EXPECT_EQ((Lines{"COMMON:COM_PopenRead(): pclose() return 256"}), CaptureLog([&] {
                  EXPECT_EQ(256, COM_PopenRead("exit 1", nullptr, &output, Collect));
              }));
    EXPECT_EQ(Lines{}, output.lines);
    EXPECT_EQ(1, output.ends);
}

}  // namespace
