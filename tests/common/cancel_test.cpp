// Cancellation of threads: where it acts, what is held is released; everywhere else it waits.

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "c_callback.h"
#include "common/command.h"
#include "common/digest.h"
#include "common/file.h"
#include "common/file_content.h"
#include "common/net_info.h"
#include "common/process.h"
#include "common/udp_broadcast.h"
#include "common/unit_info.h"
#include "support/cancellation.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

// Static: AddressSanitizer goes on guarding the variables of a frame that cancellation leaves.
constexpr struct timespec kMinute = {60, 0};

void SleepMinute() {
#ifdef __SANITIZE_THREAD__
    // A thread that is cancelled in an intercepted sleep has its further locks ignored.
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

// Runs `body` in a thread and cancels it there when `ready` says so. The frame above the call has
// to be unwound too.
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
    for (int i = 0; i < 5000 && !ready(); ++i) {
        usleep(1000);
    }
    EXPECT_TRUE(ready());
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

// Frames without unwind tables end the unwinding; the lock must not stay behind.
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
    static const TempDir dir;
    static const std::string file = dir / "file";
    void (*const calls[])() = {
        [] { EXPECT_EQ(0, COM_System("/bin/true", nullptr)); },
        [] { EXPECT_EQ(0, COM_PopenRead("echo 1", nullptr, nullptr, nullptr)); },
        [] { COM_SavePid(file.c_str()); },
        [] {
            tFileItem item = {2, "a=", "a=1"};
            tFileItemRequest request = {1, 0, 0, 1, &item};
            EXPECT_EQ(1, COM_ReplaceItemsInFile(file.c_str(), &request));
        },
        [] {
            tProcState self = {getpid(), ""};
            EXPECT_EQ(0, COM_CheckProcState(&self));
        },
        [] {
            char out[COM_NET_MAC_COLON_SIZE];
            for (uint32_t flag = COM_NET_MAC_HEX; flag <= COM_NET_MTU; ++flag) {
                COM_GetNetInfo(flag, "auto", out);
            }
        },
        [] { COM_SendUdpBroadcast("lo", 1, 2, "x", 1); },
        [] { EXPECT_EQ(0, COM_SetFileContent(file.c_str(), "text")); },
        [] { EXPECT_EQ(0, COM_AppendFileContent(file.c_str(), "text")); },
        [] { EXPECT_EQ(0, COM_SaveDataIntoFile(file.c_str(), "data", 4)); },
        [] { EXPECT_EQ(0, COM_SaveRingBufDataIntoFile(file.c_str(), "ring", 3, 4, 4)); },
        [] {
            char text[8] = "";
            EXPECT_EQ(0, COM_GetFileContent(file.c_str(), text, sizeof text));
        },
        [] {
            char data[4];
            EXPECT_EQ(0, COM_LoadDataFromFile(file.c_str(), data, sizeof data));
        },
        [] {
            char port[COM_PORT_SIZE] = "";
            COM_GetPort(port, sizeof port);
        },
        [] {
            char revision[COM_SVN_REVISION_SIZE];
            COM_GetSvnRevision(revision);
        },
        [] { EXPECT_EQ(0, COM_MakeNode(file.c_str(), S_IFREG, 0)); },
        [] {
            tUnitNetInfo unit;
            COM_GetUnitNetInfo(&unit, "lo");
        },
        [] { COM_GetRxPackets("lo"); },
        [] {
            char hex[COM_MD5_HEX_SIZE];
            EXPECT_EQ(0, COM_MakeFileMD5(hex, file.c_str()));
        },
        [] {
            uint8_t digest[COM_SHA1_SIZE];
            EXPECT_EQ(0, COM_MakeFileSHA1(digest, file.c_str()));
        },
        [] { EXPECT_EQ(-1, COM_CheckFileMD5(file.c_str(), "")); },
    };
    for (const auto &call : calls) {
        EXPECT_TRUE(OutlastsCancellation(call)) << "call " << &call - calls;
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
