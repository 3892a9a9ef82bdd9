// Cancellation of a thread waits until a call is over.

#include <gtest/gtest.h>

#include "every_call.h"
#include "support/cancellation.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;

TEST(Cancellation, WaitsUntilACallIsOver) {
    WithDiscs([](const char *fixture, int fd) {
        for (const Call &call : kCalls) {
            Capture([&] {
                EXPECT_TRUE(OutlastsCancellation([&] { call.make(fd); }))
                    << call.name << " " << fixture;
            });
        }
    });
}

}  // namespace
