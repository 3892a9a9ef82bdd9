#include "common/thread.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/private_world.h"

namespace {

using talvek::test::Capture;
using talvek::test::CaptureLog;
using talvek::test::kMounts;
using talvek::test::MountTmpfs;
using talvek::test::ReadFile;
using talvek::test::RunInPrivateWorld;

using Lines = std::vector<std::string>;

// Every test has an empty registry, for it runs in a process of its own, and a /var of its own.
void InEmptyRegistry(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&body] {
        MountTmpfs("/var");
        body();
    });
}

std::string Pid() {
    return std::to_string(getpid());
}

TEST(LogThread, CountsEntriesAndWritesPidFiles) {
    InEmptyRegistry([] {
        EXPECT_EQ("", Capture([] {
                      EXPECT_EQ(1, COM_LogThread("first"));
                      EXPECT_EQ(2, COM_LogThread("second"));
                  }));
        EXPECT_EQ(Pid(), ReadFile("/var/run/first.thread.pid"));
        EXPECT_EQ(Pid(), ReadFile("/var/run/second.thread.pid"));
        EXPECT_EQ((Lines{"COMMON:COM_ShowThread(): [0] : " + Pid() + " - [first] - [] - [0]",
                         "COMMON:COM_ShowThread(): [1] : " + Pid() + " - [second] - [] - [0]"}),
                  CaptureLog([] { COM_ShowThread(); }));
    });
}

TEST(LogThread, MakesTwoEntriesOfOneName) {
    InEmptyRegistry([] {
        EXPECT_EQ(1, COM_LogThread("same"));
        ASSERT_EQ(0, truncate("/var/run/same.thread.pid", 0));
        EXPECT_EQ(2, COM_LogThread("same"));
        EXPECT_EQ(Pid(), ReadFile("/var/run/same.thread.pid"));
        EXPECT_EQ(2U, CaptureLog([] { COM_ShowThread(); }).size());
    });
}

TEST(LogThread, CutsALongNameAt75Characters) {
    InEmptyRegistry([] {
        const std::string fits(75, 'n');
        EXPECT_EQ(1, COM_LogThread(fits.c_str()));
        EXPECT_EQ(2, COM_LogThread((fits + "m").c_str()));
        const Lines lines = CaptureLog([] { COM_ShowThread(); });
        ASSERT_EQ(2U, lines.size());
        EXPECT_NE(std::string::npos, lines[0].find("[" + fits + "]"));
        EXPECT_NE(std::string::npos, lines[1].find("[" + fits + "]"));
        EXPECT_EQ(Pid(), ReadFile("/var/run/" + fits + "m.thread.pid"));
    });
}

TEST(LogThread, RefusesNoName) {
    InEmptyRegistry([] {
        EXPECT_EQ(-1, COM_LogThread(nullptr));
        EXPECT_EQ(1, COM_LogThread(""));
        EXPECT_EQ(Pid(), ReadFile("/var/run/.thread.pid"));
    });
}

TEST(LogThread, RegistersWithoutAPidFile) {
    InEmptyRegistry([] {
        ASSERT_EQ(0, mkdir("/var/run", 0755));
        ASSERT_EQ(0, mkdir("/var/run/dir.thread.pid", 0755));
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/dir.thread.pid) error : Is a "
                         "directory"}),
                  CaptureLog([] { EXPECT_EQ(1, COM_LogThread("dir")); }));

        ASSERT_EQ(0, mount("tmpfs", "/var/run", "tmpfs", 0, "size=4k"));
        const int full = open("/var/run/filler", O_WRONLY | O_CREAT, 0600);
        ASSERT_EQ(4096, write(full, std::string(4096, 'f').data(), 4096));
        close(full);
        EXPECT_EQ(
            (Lines{"COMMON:COM_LogThread(): [full] fprintf() error : No space left on device"}),
            CaptureLog([] { EXPECT_EQ(2, COM_LogThread("full")); }));
    });
}

TEST(LogThread, KeepsEveryEntryOfManyThreads) {
    InEmptyRegistry([] {
        constexpr int kThreads = 8;
        constexpr int kEach = 25;
        std::atomic<int> highest{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t, &highest] {
                for (int i = 0; i < kEach; ++i) {
                    const int count = COM_LogThread(("t" + std::to_string(t)).c_str());
                    EXPECT_GT(count, 0);
                    int seen = highest;
                    while (seen < count && !highest.compare_exchange_weak(seen, count)) {
                    }
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(kThreads * kEach, highest);
        EXPECT_EQ(static_cast<size_t>(kThreads * kEach),
                  CaptureLog([] { COM_ShowThread(); }).size());
    });
}

TEST(LogThreadMemUsage, FailsOnAnEmptyRegistry) {
    InEmptyRegistry([] {
        EXPECT_EQ("", Capture([] {
                      EXPECT_EQ(-1, COM_LogThreadMemUsage(1));
                      COM_ShowThread();
                  }));
    });
}

TEST(LogThreadMemUsage, SumsUpInTheFirstEntryOfTheProcess) {
    InEmptyRegistry([] {
        COM_LogThread("one");
        COM_LogThread("two");
        EXPECT_EQ((Lines{"COMMON:COM_LogThreadMemUsage(): [0] : " + Pid() + " - [100] - one",
                         "COMMON:COM_LogThreadMemUsage(): [0] : " + Pid() + " - [-20] - one"}),
                  CaptureLog([] {
                      EXPECT_EQ(0, COM_LogThreadMemUsage(100));
                      EXPECT_EQ(0, COM_LogThreadMemUsage(-120));
                  }));
        EXPECT_EQ((Lines{"COMMON:COM_ShowThread(): [0] : " + Pid() + " - [one] - [] - [-20]",
                         "COMMON:COM_ShowThread(): [1] : " + Pid() + " - [two] - [] - [0]"}),
                  CaptureLog([] { COM_ShowThread(); }));
    });
}

TEST(LogThreadMemUsage, WrapsAt32Bits) {
    InEmptyRegistry([] {
        COM_LogThread("one");
        Capture([] { COM_LogThreadMemUsage(INT32_MAX); });
        EXPECT_EQ(
            (Lines{"COMMON:COM_LogThreadMemUsage(): [0] : " + Pid() + " - [-2147483648] - one"}),
            CaptureLog([] { EXPECT_EQ(0, COM_LogThreadMemUsage(1)); }));
    });
}

TEST(LogThreadMemUsage, IsSilentForAProcessWithoutAnEntry) {
    InEmptyRegistry([] {
        COM_LogThread("parent");
        const pid_t child = fork();
        if (child == 0) {
            int result = -1;
            const std::string output = Capture([&] { result = COM_LogThreadMemUsage(5); });
            _exit(output.empty() && result == 0 ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    });
}

// A registered process in the state that `enter` brings it to, watched by a child that has its
// registry. Returns what the watchdog said until `lines` lines stood there or 3 seconds were over.
Lines WatchAProcessThat(const std::function<void()> &enter, size_t lines) {
    int pipeFds[2];
    EXPECT_EQ(0, pipe(pipeFds));
    fflush(nullptr);
    const pid_t registered = fork();
    if (registered == 0) {
        COM_LogThread("watched");
        if (fork() == 0) {
            close(pipeFds[0]);
            dup2(pipeFds[1], STDOUT_FILENO);
            close(pipeFds[1]);
            usleep(100'000);
            if (COM_CreateThreadWatchdog(1) != 0) {
                _exit(1);
            }
            usleep(2'600'000);
            COM_DestroyThreadWatchdog();
            COM_ShowThread();
            _exit(0);
        }
        close(pipeFds[1]);
        enter();
        for (;;) {
            pause();
        }
    }
    close(pipeFds[1]);
    std::string output;
    char block[512];
    ssize_t count;
    while ((count = read(pipeFds[0], block, sizeof block)) > 0) {
        output.append(block, static_cast<size_t>(count));
    }
    close(pipeFds[0]);
    kill(registered, SIGKILL);
    waitpid(registered, nullptr, 0);
    Lines result = talvek::test::LogLines(output);
    EXPECT_GE(result.size(), lines) << output;
    // The number differs from run to run.
    const std::string pid = std::to_string(registered);
    for (std::string &line : result) {
        const size_t at = line.find(pid);
        if (at != std::string::npos) {
            line.replace(at, pid.size(), "PID");
        }
    }
    return result;
}

TEST(ThreadWatchdog, WarnsOfAStoppedProcessEveryPeriod) {
    InEmptyRegistry([] {
        const Lines lines = WatchAProcessThat([] { raise(SIGSTOP); }, 4);
        const std::string warning =
            "COMMON:COM_ThreadWatchdog(): Warnning!! [pid = PID] [watched] process error";
        EXPECT_EQ((Lines{warning, warning, warning,
                         "COMMON:COM_ShowThread(): [0] : PID - [watched] - [T] - [0]"}),
                  lines);
    });
}

TEST(ThreadWatchdog, WarnsOfAZombie) {
    InEmptyRegistry([] {
        const Lines lines = WatchAProcessThat([] { _exit(0); }, 2);
        EXPECT_EQ("COMMON:COM_ThreadWatchdog(): Warnning!! [pid = PID] [watched] process error",
                  lines.front());
        EXPECT_EQ("COMMON:COM_ShowThread(): [0] : PID - [watched] - [Z] - [0]", lines.back());
    });
}

TEST(ThreadWatchdog, WarnsOfAProcessThatIsGone) {
    InEmptyRegistry([] {
        signal(SIGCHLD, SIG_IGN);  // the kernel reaps it at once
        const Lines lines = WatchAProcessThat([] { _exit(0); }, 2);
        EXPECT_EQ("COMMON:COM_ThreadWatchdog(): Warnning!! [pid = PID] [watched] process error",
                  lines.front());
        EXPECT_EQ("COMMON:COM_ShowThread(): [0] : PID - [watched] - [] - [0]", lines.back());
    });
}

TEST(ThreadWatchdog, IsQuietAboutHealthyProcessesAndRefreshesTheirState) {
    InEmptyRegistry([] {
        const Lines lines = WatchAProcessThat([] {}, 1);
        EXPECT_EQ((Lines{"COMMON:COM_ShowThread(): [0] : PID - [watched] - [S] - [0]"}), lines);
    });
}

TEST(ThreadWatchdog, EndsAtOnceAndCanBeStartedAgain) {
    InEmptyRegistry([] {
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(0, COM_CreateThreadWatchdog(1000));
            usleep(20'000);
            struct timespec start = {};
            clock_gettime(CLOCK_MONOTONIC, &start);
            EXPECT_EQ(0, COM_DestroyThreadWatchdog());
            struct timespec end = {};
            clock_gettime(CLOCK_MONOTONIC, &end);
            EXPECT_LT(end.tv_sec - start.tv_sec, 100) << "the period is not waited for";
        }
        EXPECT_EQ(1, COM_LogThread("after")) << "the registry outlives the watchdog";
    });
}

TEST(ThreadWatchdog, RefusesASecondStartAndAStopWithoutAStart) {
    InEmptyRegistry([] {
        EXPECT_EQ((Lines{"COMMON:COM_DestroyThreadWatchdog(): pthread_cancel() error [" +
                         std::to_string(ESRCH) + "]"}),
                  CaptureLog([] { EXPECT_EQ(ESRCH, COM_DestroyThreadWatchdog()); }));
        EXPECT_EQ(0, COM_CreateThreadWatchdog(-5));
        EXPECT_EQ((Lines{"COMMON:COM_CreateThreadWatchdog(): pthread_create() error = " +
                         std::to_string(EBUSY)}),
                  CaptureLog([] { EXPECT_EQ(EBUSY, COM_CreateThreadWatchdog(1)); }));
        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
    });
}

// Cancelling a thread at the points where it blocks. Afterwards the registry must answer, which it
// cannot while the cancelled thread holds the lock, and no descriptor may be left.
struct Blocked {
    std::function<void()> call;
    pthread_t thread;

    static void *Start(void *pSelf) {
        static_cast<Blocked *>(pSelf)->call();
        return nullptr;
    }
    void CancelOnceBlocked() {
        ASSERT_EQ(0, pthread_create(&thread, nullptr, Start, this));
        usleep(100'000);
        ASSERT_EQ(0, pthread_cancel(thread));
        void *pResult = nullptr;
        ASSERT_EQ(0, pthread_join(thread, &pResult));
        EXPECT_EQ(PTHREAD_CANCELED, pResult);
    }
};

int OpenFds() {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        count += fcntl(fd, F_GETFD) != -1;
    }
    return count;
}

TEST(LogThread, CanBeCancelledWhileThePidFileIsOpened) {
    InEmptyRegistry([] {
        ASSERT_EQ(0, mkdir("/var/run", 0755));
        ASSERT_EQ(0, mkfifo("/var/run/fifo.thread.pid", 0600));  // opening waits for a reader
        const int before = OpenFds();
        Blocked blocked{[] { COM_LogThread("fifo"); }, {}};
        blocked.CancelOnceBlocked();
        EXPECT_EQ(before, OpenFds());
        EXPECT_EQ(1, COM_LogThread("next"));
    });
}

TEST(LogThread, CanBeCancelledWhileThePidFileIsWritten) {
    InEmptyRegistry([] {
        ASSERT_EQ(0, mkdir("/var/run", 0755));
        ASSERT_EQ(0, mkfifo("/var/run/fifo.thread.pid", 0600));
        const int reader = open("/var/run/fifo.thread.pid", O_RDWR | O_NONBLOCK);
        ASSERT_GE(reader, 0);
        const char block[4096] = {};
        while (write(reader, block, sizeof block) > 0) {
        }
        while (write(reader, block, 1) > 0) {
        }
        const int before = OpenFds();
        Blocked blocked{[] { COM_LogThread("fifo"); }, {}};
        blocked.CancelOnceBlocked();
        EXPECT_EQ(before, OpenFds());
        close(reader);
        EXPECT_EQ(1, COM_LogThread("next"));
    });
}

// The log line is written with the lock held, into a pipe that nobody empties.
TEST(LogThreadMemUsage, ReleasesTheLockWhenCancelledWhileLogging) {
    InEmptyRegistry([] {
        COM_LogThread("logger");
        int pipeFds[2];
        ASSERT_EQ(0, pipe2(pipeFds, O_NONBLOCK));
        const char block[4096] = {};
        while (write(pipeFds[1], block, sizeof block) > 0) {
        }
        while (write(pipeFds[1], block, 1) > 0) {
        }
        ASSERT_EQ(0, fcntl(pipeFds[1], F_SETFL, 0));
        fflush(stdout);
        const int saved = dup(STDOUT_FILENO);
        dup2(pipeFds[1], STDOUT_FILENO);
        Blocked adding{[] { COM_LogThreadMemUsage(1); }, {}};
        adding.CancelOnceBlocked();
        EXPECT_EQ(2, COM_LogThread("other")) << "the lock is free";
        Blocked showing{[] { COM_ShowThread(); }, {}};
        showing.CancelOnceBlocked();
        EXPECT_EQ(3, COM_LogThread("another")) << "the lock is free";
        // What the stream still holds goes the way of the pipe.
        close(pipeFds[0]);
        signal(SIGPIPE, SIG_IGN);
        fflush(stdout);
        clearerr(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
        close(pipeFds[1]);
    });
}

TEST(ThreadWatchdog, IsCancelledInItsSleepWithThousandsOfRegistrationsAround) {
    InEmptyRegistry([] {
        ASSERT_EQ(0, COM_CreateThreadWatchdog(1));
        std::atomic<bool> stop{false};
        std::thread registrar{[&stop] {
            for (int i = 0; i < 200 && !stop; ++i) {
                COM_LogThread("busy");
            }
        }};
        usleep(30'000);
        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
        stop = true;
        registrar.join();
        EXPECT_GT(COM_LogThread("last"), 0);
    });
}

}  // namespace
