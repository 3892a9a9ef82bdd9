// Cancellation of threads: where it acts, everything held is released. Everywhere else it waits
// until the call is over.

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "c_callback.h"
#include "common/command.h"
#include "every_call.h"
#include "support/await.h"
#include "support/cancellation.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;

// Static: AddressSanitizer keeps guarding the variables of a frame that cancellation leaves.
constexpr struct timespec kMinute = {60, 0};

void SleepMinute() {
#ifdef __SANITIZE_THREAD__
    // After a cancellation in an intercepted sleep, ThreadSanitizer ignores the locks of the
    // thread.
    for (;;) {
        pthread_testcancel();
    }
#else
    nanosleep(&kMinute, nullptr);
#endif
}

bool IsSet(const int &flag) {
    return __atomic_load_n(&flag, __ATOMIC_ACQUIRE) != 0;
}

void Set(int &flag) {
    __atomic_store_n(&flag, 1, __ATOMIC_RELEASE);
}

// Runs `body` in a thread and cancels the thread when `ready` is true. The destructors of the frame
// that calls `body` must run too.
void CancelInside(const std::function<void()> &body, const std::function<bool()> &ready) {
    struct Job {
        const std::function<void()> &body;
        int unwound = 0;
    } job{body};
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void *pArg) -> void * {
                         Job &made = *static_cast<Job *>(pArg);
                         struct Outer {
                             int &unwound;
                             ~Outer() { Set(unwound); }
                         } outer{made.unwound};
                         made.body();
                         return nullptr;
                     },
                     &job));
    EXPECT_TRUE(Eventually(ready));
    EXPECT_EQ(0, pthread_cancel(thread));
    void *result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_TRUE(IsSet(job.unwound)) << "the caller's frame";
}

void ExpectNoChild() {
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

// ---- COM_CallLocked ----

class CallLocked : public ::testing::Test {
  protected:
    ~CallLocked() override { pthread_mutex_destroy(&mutex_); }

    void ExpectFree() {
        EXPECT_EQ(0, pthread_mutex_trylock(&mutex_));
        pthread_mutex_unlock(&mutex_);
    }

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

TEST_F(CallLocked, CallsWithTheMutexHeldAndReturnsTheResult) {
    struct Seen {
        pthread_mutex_t *mutex;
        int trylock = -1;
    } seen{&mutex_};
    EXPECT_EQ(42, COM_CallLocked(&mutex_, &seen, [](void *pArg) {
                  Seen &s = *static_cast<Seen *>(pArg);
                  s.trylock = pthread_mutex_trylock(s.mutex);
                  return 42;
              }));
    EXPECT_EQ(EBUSY, seen.trylock);
    ExpectFree();
    EXPECT_EQ(-7, COM_CallLocked(&mutex_, nullptr, [](void *pArg) { return pArg ? 0 : -7; }));
    ExpectFree();
}

TEST_F(CallLocked, ExcludesOtherThreads) {
    struct Shared {
        pthread_mutex_t *mutex;
        long count = 0;
    } shared{&mutex_};
    const auto work = [](void *pArg) -> void * {
        Shared &s = *static_cast<Shared *>(pArg);
        for (int i = 0; i < 10000; ++i) {
            COM_CallLocked(s.mutex, &s, [](void *pShared) {
                ++static_cast<Shared *>(pShared)->count;
                return 0;
            });
        }
        return nullptr;
    };
    pthread_t threads[4];
    for (pthread_t &thread : threads) {
        ASSERT_EQ(0, pthread_create(&thread, nullptr, work, &shared));
    }
    for (pthread_t &thread : threads) {
        pthread_join(thread, nullptr);
    }
    EXPECT_EQ(4 * 10000, shared.count);
}

TEST_F(CallLocked, DoesNotCallWhatItCannotLock) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t checked;
    pthread_mutex_init(&checked, &attr);
    pthread_mutex_lock(&checked);
    const auto call = [](void * /*pArg*/) {
        ADD_FAILURE() << "called without the mutex";
        return 0;
    };
    EXPECT_EQ((Lines{"COMMON:COM_CallLocked(): pthread_mutex_lock() error : Resource deadlock "
                     "avoided"}),
              CaptureLog([&] { EXPECT_EQ(-1, COM_CallLocked(&checked, nullptr, call)); }));
    EXPECT_EQ(0, pthread_mutex_unlock(&checked));
    pthread_mutex_destroy(&checked);
    pthread_mutexattr_destroy(&attr);
    EXPECT_EQ(-1, COM_CallLocked(nullptr, nullptr, call));
    EXPECT_EQ(-1, COM_CallLocked(&mutex_, nullptr, nullptr));
    ExpectFree();
}

TEST_F(CallLocked, IsUnlockedByACancelledThread) {
    int inside = 0;
    CancelInside(
        [&] {
            COM_CallLocked(&mutex_, &inside, [](void *pArg) {
                Set(*static_cast<int *>(pArg));
                SleepMinute();
                return 0;
            });
        },
        [&] { return IsSet(inside); });
    ExpectFree();
}

// Frames without unwind tables end the unwinding; the lock must be released all the same.
TEST_F(CallLocked, IsUnlockedByAThreadCancelledInC) {
    int inside = 0;
    CancelInside([&] { COM_CallLocked(&mutex_, &inside, SleepInC); },
                 [&] { return IsSet(inside); });
    ExpectFree();
}

TEST_F(CallLocked, UnlocksEveryMutexOfNestedCalls) {
    pthread_mutex_t second = PTHREAD_MUTEX_INITIALIZER;
    struct Nested {
        pthread_mutex_t *second;
        int inside = 0;
    } nested{&second};
    CancelInside(
        [&] {
            COM_CallLocked(&mutex_, &nested, [](void *pArg) {
                Nested &n = *static_cast<Nested *>(pArg);
                return COM_CallLocked(n.second, &n.inside, SleepInC);
            });
        },
        [&] { return IsSet(nested.inside); });
    ExpectFree();
    EXPECT_EQ(0, pthread_mutex_trylock(&second));
    pthread_mutex_unlock(&second);
    pthread_mutex_destroy(&second);
}

// ---- cancellation waits until a call is over ----

TEST(Cancellation, WaitsUntilACallIsOver) {
    for (const Call &call : kCalls) {
        const Objects at;
        bool outlasts = false;
        Capture([&] { outlasts = OutlastsCancellation([&] { call.make(at); }); });
        EXPECT_TRUE(outlasts) << call.name;
    }
    ExpectNoChild();
}

// ---- COM_SleepAtLeast ----

TEST(CancelSleep, EndsAtOnce) {
    int started = 0;
    CancelInside(
        [&] {
            Set(started);
            COM_SleepAtLeast(&kMinute, 1000);
        },
        [&] { return IsSet(started); });
}

}  // namespace
