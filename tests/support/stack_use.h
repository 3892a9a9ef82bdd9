#ifndef TALVEK_TESTS_SUPPORT_STACK_USE_H
#define TALVEK_TESTS_SUPPORT_STACK_USE_H

#include <stddef.h>

#include <functional>

namespace talvek::test {

// Runs `body` in a thread and returns how many bytes of stack it wrote, with all that it calls.
// Sanitizers enlarge every frame: see kStackIsMeasured.
size_t StackUse(const std::function<void()> &body);

// Runs `body` in a thread with a stack of `size` bytes above a guard page: a body that needs more
// kills the process.
void RunOnStack(size_t size, const std::function<void()> &body);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kStackIsMeasured = false;
#else
constexpr bool kStackIsMeasured = true;
#endif

#define SKIP_UNLESS_STACK_IS_MEASURED()                                          \
    if (!talvek::test::kStackIsMeasured) {                                       \
        GTEST_SKIP() << "the sanitizer's frames are larger than the usual ones"; \
    }

}  // namespace talvek::test

#endif
