#include "base/clock.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <limits>
#include <string>

namespace {

std::string Utc(time_t time) {
    char text[32];
    return talvek::FormatUtc(text, sizeof text, time) ? text : "(none)";
}

TEST(FormatUtc, WritesDateAndTime) {
    EXPECT_EQ("1970/01/01 00:00:00", Utc(0));
    EXPECT_EQ("2038/01/19 03:14:08", Utc(time_t{1} << 31));
    EXPECT_EQ("2000/02/29 23:59:59", Utc(951868799));
}

// The C library writes the same with "%Y/%m/%d %H:%M:%S".
TEST(FormatUtc, AgreesWithStrftimeInEveryYear) {
    for (time_t time = -100'000'000'000; time < 300'000'000'000; time += 30'000'001) {
        struct tm calendar;
        ASSERT_NE(nullptr, gmtime_r(&time, &calendar));
        char text[64];
        strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &calendar);
        ASSERT_EQ(text, Utc(time));
    }
}

// The calendar counts years from 1900 in an int. The text of its first year is the longest: 27
// bytes with the NUL.
TEST(FormatUtc, HasRoomForTheFirstAndTheLastYear) {
    EXPECT_EQ("2147485547/12/31 23:59:59", Utc(67768036191676799));
    EXPECT_EQ("-2147481748/01/01 00:00:00", Utc(-67768040609740800));
    EXPECT_EQ("(none)", Utc(67768036191676800));
    EXPECT_EQ("(none)", Utc(std::numeric_limits<time_t>::max()));
}

TEST(MonotonicMs, IsTheTimeOfTheMonotonicClock) {
    const auto now = [] {
        struct timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
    };
    const int64_t before = now();
    const int64_t between = talvek::MonotonicMs();
    EXPECT_LE(before, between);
    EXPECT_GE(now(), between);
}

TEST(Deadline, RoundsUpAndStopsAtZero) {
    EXPECT_EQ(0, talvek::Deadline{0}.LeftMs());
    EXPECT_EQ(0, talvek::Deadline{-5}.LeftMs());
    const int64_t left = talvek::Deadline{3'600'000}.LeftMs();
    EXPECT_GE(3'600'000, left);
    EXPECT_LT(0, left);
    const talvek::Deadline soon{1};
    while (soon.LeftMs() > 0) {
    }
    EXPECT_EQ(0, soon.LeftMs());
}

}  // namespace
