#ifndef TALVEK_TESTS_SUPPORT_CANCELLATION_H
#define TALVEK_TESTS_SUPPORT_CANCELLATION_H

#include <functional>

namespace talvek::test {

// Runs `body` in a thread that has a pending cancellation request. Whether the body ran to its end
// and the request acted after it.
bool OutlastsCancellation(const std::function<void()> &body);

}  // namespace talvek::test

#endif
