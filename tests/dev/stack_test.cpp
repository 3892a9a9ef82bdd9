// The stack that DEV.h promises.

#include <gtest/gtest.h>

#include "every_call.h"
#include "support/capture.h"
#include "support/stack_use.h"

namespace {

using namespace talvek::test;

constexpr size_t kPromise = 12 << 10;  // bytes

TEST(Stack, IsNoMoreThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    WithDiscs([](const char *fixture, int fd) {
        for (const Call &call : kCalls) {
            size_t use = 0;
            Capture([&] { use = StackUse([&] { call.make(fd); }); });
            EXPECT_LE(use, call.hasReplyOnStack ? kPromise + DEV_REPLY_SIZE : kPromise)
                << call.name << " " << fixture;
        }
    });
}

}  // namespace
