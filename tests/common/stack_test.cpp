// The stack that COMMON.h promises.

#include <gtest/gtest.h>

#include "every_call.h"
#include "support/capture.h"
#include "support/stack_use.h"

namespace {

using namespace talvek::test;

constexpr size_t kPromise = 8 << 10;  // bytes

TEST(Stack, IsLessThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    for (const Call &call : kCalls) {
        const Objects at;
        size_t use = 0;
        Capture([&] { use = StackUse([&] { call.make(at); }); });
        EXPECT_LT(use, kPromise) << call.name;
    }
}

TEST(Stack, DoesNotGrowWithTheDepthOfATreeThatIsEmptied) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    const TempDir dir;
    std::string path = dir / "top";
    for (int level = 0; level < 300; ++level) {
        path += "/d";
    }
    WriteFile(path + "/file", "x");
    const size_t use = StackUse(
        [&] { EXPECT_EQ(302, COM_RemoveFileInDir(COM_REMOVE_TREE, (dir / "top").c_str())); });
    EXPECT_LT(use, kPromise);
}

}  // namespace
