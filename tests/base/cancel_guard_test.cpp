#include "base/cancel_guard.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include "support/cancellation.h"

namespace {

using talvek::CancelGuard;
using namespace talvek::test;

TEST(CancelGuard, HoldsCancellationOffUntilTheOutermostEnds) {
    EXPECT_FALSE(OutlastsCancellation([] { pthread_testcancel(); })) << "without a guard";
    EXPECT_TRUE(OutlastsCancellation([] {
        const CancelGuard outer;
        {
            const CancelGuard inner;
            pthread_testcancel();
        }
        pthread_testcancel();
    }));
}

}  // namespace
