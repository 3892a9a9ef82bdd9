#include "service/internal/retry_pause.h"

#include <gtest/gtest.h>

namespace {

using talvek::RetryPause;

TEST(RetryPause, DoublesUpToASecond) {
    RetryPause pause;
    for (const int64_t expected : {10, 20, 40, 80, 160, 320, 640, 1000, 1000, 1000}) {
        pause.Fail(0);
        EXPECT_EQ(expected, pause.pauseMs());
    }
    pause.Succeed();
    pause.Fail(0);
    EXPECT_EQ(10, pause.pauseMs());
}

TEST(RetryPause, LogsTheFirstFailureAndThenOneEachMinute) {
    RetryPause pause;
    EXPECT_TRUE(pause.Fail(1000));
    EXPECT_FALSE(pause.Fail(1001));
    EXPECT_FALSE(pause.Fail(60999));
    EXPECT_TRUE(pause.Fail(61000));
    EXPECT_FALSE(pause.Fail(120999));
    EXPECT_TRUE(pause.Fail(121000));
}

TEST(RetryPause, LogsTheFirstFailureAfterASuccess) {
    RetryPause pause;
    EXPECT_TRUE(pause.Fail(0));
    pause.Succeed();
    EXPECT_TRUE(pause.Fail(1));
}

}  // namespace
