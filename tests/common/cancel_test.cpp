// Threads that are cancelled inside calls that block: what the call holds is released.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "c_callback.h"
#include "common/command.h"
#include "common/file.h"
#include "common/net_info.h"
#include "common/process.h"
#include "common/system_info.h"
#include "common/terminal.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

using talvek::test::CaptureLog;
using talvek::test::TempDir;
using Lines = std::vector<std::string>;

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

int OpenCount() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        count += fcntl(fd, F_GETFD) != -1;
    }
    return count;
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

// ---- COM_System ----

TEST(CancelSystem, KillsAndCollectsTheProgramAndRestoresTheSignals) {
    struct sigaction interrupt;
    struct sigaction quit;
    sigaction(SIGINT, nullptr, &interrupt);
    sigaction(SIGQUIT, nullptr, &quit);
    const int fds = OpenCount();
    int pid = 0;
    int seen = 0;
    CancelInside([&] { COM_System("/bin/sleep 60", &pid); },
                 [&] { return (seen = __atomic_load_n(&pid, __ATOMIC_ACQUIRE)) != 0; });
    EXPECT_EQ(0, pid);
    EXPECT_EQ(-1, kill(seen, 0));
    ExpectNoChild();
    EXPECT_EQ(fds, OpenCount());
    struct sigaction after;
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(interrupt.sa_handler, after.sa_handler);
    sigaction(SIGQUIT, nullptr, &after);
    EXPECT_EQ(quit.sa_handler, after.sa_handler);
}

// At any moment of the call, also before the program is there.
TEST(CancelSystem, LeavesNoProgramBehindWheneverItComes) {
    for (int delay = 0; delay < 2000; delay += 100) {
        int started = 0;
        int pid = 0;
        CancelInside(
            [&] {
                Set(started);
                COM_System("/bin/sleep 60", &pid);
            },
            [&] { return IsSet(started) && usleep(static_cast<useconds_t>(delay)) == 0; });
        ExpectNoChild();
        EXPECT_EQ(0, pid);
    }
}

// ---- COM_PopenRead ----

TEST(CancelPopenRead, CollectsACommandThatIsWaitedFor) {
    const TempDir dir;
    const std::string flag = dir / "flag";
    const std::string command = "echo > " + flag + "; sleep 0.3";
    const int fds = OpenCount();
    CancelInside([&] { COM_PopenRead(command.c_str(), nullptr, nullptr, nullptr); },
                 [&] { return access(flag.c_str(), F_OK) == 0; });
    EXPECT_EQ(fds, OpenCount());
    ExpectNoChild();
}

TEST(CancelPopenRead, CollectsTheCommandOfACallbackThatIsCancelled) {
    const int fds = OpenCount();
    int inside = 0;
    CancelInside(
        [&] {
            COM_PopenRead("echo 1; echo 2", nullptr, &inside, [](const char *pLine, void *pUser) {
                EXPECT_NE(nullptr, pLine) << "the end is not told to a thread that is cancelled";
                Set(*static_cast<int *>(pUser));
                SleepMinute();
            });
        },
        [&] { return IsSet(inside); });
    EXPECT_EQ(fds, OpenCount());
    ExpectNoChild();
}

TEST(CancelPopenRead, CollectsTheCommandOfACallbackInC) {
    const int fds = OpenCount();
    int inside = 0;
    CancelInside([&] { COM_PopenRead("echo 1", nullptr, &inside, SleepOnLineInC); },
                 [&] { return IsSet(inside); });
    EXPECT_EQ(fds, OpenCount());
    ExpectNoChild();
}

// ---- COM_CloseFdExceptSTD ----

// A cancellation that is pending comes with the first descriptor that is to be closed.
TEST(CancelCloseFdExceptSTD, ClosesItsListing) {
    const int fds = OpenCount();
    CancelInside(
        [] {
            pthread_cancel(pthread_self());
            COM_CloseFdExceptSTD(getpid());
        },
        [] { return true; });
    EXPECT_EQ(fds, OpenCount());
}

// ---- streams ----

// A cancellation that is pending comes while the file is opened.
TEST(CancelOpening, LosesNothing) {
    static const TempDir dir;
    static const std::string pidFile = dir / "pid";
    void (*const calls[])() = {
        [] { COM_SavePid(pidFile.c_str()); },
        [] {
            tFileItem item = {2, "a=", "a=1"};
            tFileItemRequest request = {1, 0, 0, 0, &item};
            COM_ReplaceItemsInFile(pidFile.c_str(), &request);
        },
        [] { COM_KillDhcpProc("no such", "program"); },
        [] { COM_KillProcess("no such program", 0, 0); },
        [] {
            tProcState self = {getpid(), ""};
            COM_CheckProcState(&self);
        },
        [] { COM_GetMemAndSwap(nullptr); },
        [] {
            char name[16];
            COM_GetDefaultRoute(name);
        },
        [] {
            char path[32];
            COM_GetSerialPort(2, path);
        },
    };
    for (const auto &call : calls) {
        const auto cancel = [call] {
            CancelInside(
                [call] {
                    pthread_cancel(pthread_self());
                    call();
                },
                [] { return true; });
        };
        cancel();  // what the first cancellation of a program allocates stays
        const int fds = OpenCount();
        const size_t held = mallinfo2().uordblks;
        cancel();
        EXPECT_EQ(held, mallinfo2().uordblks) << "call " << &call - calls;
        EXPECT_EQ(fds, OpenCount());
    }
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
