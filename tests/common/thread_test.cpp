#include "common/thread.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "common/command.h"
#include "support/await.h"
#include "support/cancellation.h"
#include "support/capture.h"
#include "support/emulator.h"
#include "support/file_size_limit.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// A process with an empty registry and a /var of its own.
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
        umask(0);
        EXPECT_EQ("", Capture([] {
                      EXPECT_EQ(1, COM_LogThread("first"));
                      EXPECT_EQ(2, COM_LogThread("second"));
                  }));
        EXPECT_EQ(Pid(), ReadFile("/var/run/first.thread.pid"));
        EXPECT_EQ(Pid(), ReadFile("/var/run/second.thread.pid"));
        struct stat st = {};
        EXPECT_EQ(0, stat("/var/run", &st));
        EXPECT_EQ(S_IFDIR | 0775U, st.st_mode);
        EXPECT_EQ(0, stat("/var/run/first.thread.pid", &st));
        EXPECT_EQ(S_IFREG | 0666U, st.st_mode);
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
        const std::string fits(COM_THREAD_NAME_SIZE - 1, 'n');
        EXPECT_EQ(1, COM_LogThread(fits.c_str()));
        EXPECT_EQ(2, COM_LogThread((fits + "m").c_str()));
        const Lines lines = CaptureLog([] { COM_ShowThread(); });
        ASSERT_EQ(2U, lines.size());
        EXPECT_NE(std::string::npos, lines[0].find("[" + fits + "]"));
        EXPECT_NE(std::string::npos, lines[1].find("[" + fits + "]"));
        EXPECT_EQ(Pid(), ReadFile("/var/run/" + fits + "m.thread.pid"));
    });
}

// A file name has at most 255 characters, of which ".thread.pid" takes 11.
TEST(LogThread, MakesNoPidFileWithACutName) {
    InEmptyRegistry([] {
        const std::string fits(244, 'n');
        EXPECT_EQ("", Capture([&] { EXPECT_EQ(1, COM_LogThread(fits.c_str())); }));
        EXPECT_EQ(Pid(), ReadFile("/var/run/" + fits + ".thread.pid"));
        for (const size_t length : {245, 300, 5000}) {
            const std::string name(length, 'm');
            const Lines log = CaptureLog([&] { EXPECT_GT(COM_LogThread(name.c_str()), 1); });
            ASSERT_EQ(1U, log.size());
            EXPECT_EQ(0U, log[0].find("COMMON:COM_LogThread(): fopen(/var/run/mmm"));
            EXPECT_NE(std::string::npos, log[0].find(") error : File name too long"));
        }
        // A path has at most 4095 characters, of which "/var/run/" and ".thread.pid" take 20. A
        // path cut to fit would end elsewhere and so name another file.
        for (const size_t length : {4074, 4076, 4078, 4084, 4086}) {
            std::string name = "x";
            while (name.size() < length) {
                name.insert(0, "./");
            }
            const Lines log = CaptureLog([&] { EXPECT_GT(COM_LogThread(name.c_str()), 1); });
            EXPECT_EQ(name.size() <= 4075, log.empty()) << length;
            EXPECT_EQ(name.size() <= 4075 ? Pid() : "", ReadFile("/var/run/x.thread.pid"));
            unlink("/var/run/x.thread.pid");
        }
    });
}

TEST(LogThread, FailsOnNull) {
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

TEST(LogThread, RegistersWithoutADirectoryForThePidFile) {
    InEmptyRegistry([] {
        RemountReadOnly("/var");
        EXPECT_EQ((Lines{"COMMON:COM_Mkdir(): mkdir(/var/run) error : Read-only file system",
                         "COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : No such "
                         "file or directory"}),
                  CaptureLog([] { EXPECT_EQ(1, COM_LogThread("one")); }));
    });
}

TEST(LogThread, OutlastsAFileSizeLimit) {
    InEmptyRegistry([] {
        EXPECT_TRUE(UnderFileSizeLimit(0, [] { return COM_LogThread("one") == 1; }));
        EXPECT_EQ("", ReadFile("/var/run/one.thread.pid"));
    });
}

TEST(LogThread, WritesNothingThroughALink) {
    InEmptyRegistry([] {
        WriteFile("/var/run/other", "text");
        ASSERT_EQ(0, symlink("/var/run/other", "/var/run/one.thread.pid"));
        ASSERT_EQ(0, symlink("/var/run/new", "/var/run/two.thread.pid"));
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : Too many "
                         "levels of symbolic links",
                         "COMMON:COM_LogThread(): fopen(/var/run/two.thread.pid) error : Too many "
                         "levels of symbolic links"}),
                  CaptureLog([] {
                      EXPECT_EQ(1, COM_LogThread("one"));
                      EXPECT_EQ(2, COM_LogThread("two"));
                  }));
        EXPECT_EQ("text", ReadFile("/var/run/other"));
        EXPECT_EQ(-1, access("/var/run/new", F_OK));
    });
}

TEST(LogThread, WritesNoOtherFileThroughItsHardLink) {
    InEmptyRegistry([] {
        WriteFile("/var/run/other", "text");
        ASSERT_EQ(0, link("/var/run/other", "/var/run/one.thread.pid"));
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : Too many "
                         "links"}),
                  CaptureLog([] { EXPECT_EQ(1, COM_LogThread("one")); }));
        EXPECT_EQ("text", ReadFile("/var/run/other"));
    });
}

TEST(LogThread, ShortensALongerPidFile) {
    InEmptyRegistry([] {
        WriteFile("/var/run/one.thread.pid", "12345678901234");
        EXPECT_EQ(1, COM_LogThread("one"));
        EXPECT_EQ(Pid(), ReadFile("/var/run/one.thread.pid"));
    });
}

TEST(LogThread, DoesNotWaitForTheReaderOfAFifo) {
    InEmptyRegistry([] {
        alarm(60);  // a wait for the reader would have no end
        ASSERT_EQ(0, mkdir("/var/run", 0755));
        ASSERT_EQ(0, mkfifo("/var/run/one.thread.pid", 0600));
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : No such "
                         "device or address"}),
                  CaptureLog([] { EXPECT_EQ(1, COM_LogThread("one")); }));
        const int reader = open("/var/run/one.thread.pid", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : No such "
                         "device or address"}),
                  CaptureLog([] { EXPECT_EQ(2, COM_LogThread("one")); }));
        close(reader);
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

TEST(LogThreadMemUsage, PassesOverTheEntriesOfOtherProcesses) {
    InEmptyRegistry([] {
        COM_LogThread("parent");
        const pid_t child = fork();
        if (child == 0) {
            COM_LogThread("child");
            const Lines lines = CaptureLog([] { COM_LogThreadMemUsage(5); });
            const Lines expected = {"COMMON:COM_LogThreadMemUsage(): [1] : " + Pid() +
                                    " - [5] - child"};
            _exit(lines == expected ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
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

// Fills a pipe, so that the next write waits.
void FillPipe(int fd) {
    ASSERT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));
    const std::string block(4096, '.');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    while (write(fd, block.data(), 1) > 0) {
    }
    ASSERT_EQ(0, fcntl(fd, F_SETFL, 0));
}

// A process that registers itself as "watched" and enters a state (StateOf) in which it does not
// run. A child of it, which has a copy of its registry, then runs `watch` with standard output on a
// pipe. The argument of `watch` is a function that makes AwaitMark() return.
class Watched {
  public:
    using Mark = std::function<void()>;

    Watched(const std::function<void()> &enter, char state,
            const std::function<void(const Mark &)> &watch) {
        int pipeFds[2];
        int markFds[2];
        EXPECT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(markFds, O_CLOEXEC));
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(pipeFds[0]);
            COM_LogThread("watched");
            const pid_t self = getpid();
            if (fork() == 0) {
                alarm(60);  // the reader sees an end in any case
                dup2(pipeFds[1], STDOUT_FILENO);
                close(pipeFds[1]);
                EXPECT_TRUE(InState(self, state));
                watch([&markFds] {
                    const pid_t own = getpid();
                    EXPECT_EQ(ssize_t{sizeof own}, write(markFds[1], &own, sizeof own));
                });
                _exit(0);
            }
            close(pipeFds[1]);
            close(markFds[1]);
            enter();
            for (;;) {
                pause();
            }
        }
        close(pipeFds[1]);
        close(markFds[1]);
        output_ = pipeFds[0];
        mark_ = markFds[0];
    }
    ~Watched() {
        close(output_);
        close(mark_);
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Watched(const Watched &) = delete;
    Watched &operator=(const Watched &) = delete;

    [[nodiscard]] std::string pid() const { return std::to_string(pid_); }
    // The process that runs `watch`.
    [[nodiscard]] pid_t AwaitMark() const {
        pid_t watcher = -1;
        EXPECT_EQ(ssize_t{sizeof watcher}, read(mark_, &watcher, sizeof watcher));
        return watcher;
    }
    // Reads that many lines, or to the end.
    std::string Read(ptrdiff_t lines = PTRDIFF_MAX) {
        char block[512];
        ssize_t count = 1;
        while (std::count(text_.begin(), text_.end(), '\n') < lines &&
               (count = read(output_, block, sizeof block)) > 0) {
            text_.append(block, static_cast<size_t>(count));
        }
        return text_;
    }

  private:
    pid_t pid_ = -1;
    int output_ = -1;
    int mark_ = -1;
    std::string text_;
};

// Runs a watchdog until it has warned `count` times of a process that `enter` brings into its
// state. Expects these warnings alone, and then the two entries in the registry: that process with
// its state, and the watching process, which is healthy.
void ExpectWarnings(int count, const std::function<void()> &enter, const std::string &state,
                    int period = 1) {
    int stop[2];
    ASSERT_EQ(0, pipe2(stop, O_CLOEXEC));
    Watched watched{[&] {
                        close(stop[1]);
                        enter();
                    },
                    state[0],
                    [&](const Watched::Mark & /*mark*/) {
                        close(stop[1]);
                        COM_LogThread("watcher");
                        EXPECT_EQ(0, COM_CreateThreadWatchdog(period));
                        char byte;
                        EXPECT_EQ(0, read(stop[0], &byte, 1));
                        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
                        COM_ShowThread();
                    }};
    watched.Read(count);
    close(stop[1]);
    close(stop[0]);
    Lines lines = talvek::test::LogLines(watched.Read());
    ASSERT_GE(lines.size(), static_cast<size_t>(count) + 2);
    // The emulator of the ARM tests shows the state of a process 0 as that of the process itself.
    EXPECT_TRUE(std::regex_match(
        lines.back(), std::regex{"COMMON:COM_ShowThread\\(\\): \\[1\\] : \\d+ - \\[watcher\\] - "
                                 "\\[[RS0]\\] - \\[0\\]"}))
        << lines.back();
    lines.pop_back();
    EXPECT_EQ(
        "COMMON:COM_ShowThread(): [0] : " + watched.pid() + " - [watched] - [" + state + "] - [0]",
        lines.back());
    lines.pop_back();
    for (const std::string &line : lines) {
        EXPECT_EQ("COMMON:COM_ThreadWatchdog(): Warnning!! [pid = " + watched.pid() +
                      "] [watched] process error",
                  line);
    }
}

TEST(ThreadWatchdog, WarnsOfAStoppedProcessEveryPeriod) {
    InEmptyRegistry([] {
        const int64_t start = talvek::MonotonicMs();
        ExpectWarnings(
            3, [] { raise(SIGSTOP); }, "T");
        EXPECT_GE(talvek::MonotonicMs() - start, 2000)
            << "the period is the time between two checks";
    });
}

TEST(ThreadWatchdog, WarnsOfAZombieEveryPeriod) {
    InEmptyRegistry([] {
        ExpectWarnings(
            2, [] { _exit(0); }, "Z");
    });
}

TEST(ThreadWatchdog, TakesAPeriodBelowOneSecondForOneSecond) {
    InEmptyRegistry([] {
        const int64_t start = talvek::MonotonicMs();
        ExpectWarnings(
            2, [] { _exit(0); }, "Z", 0);
        EXPECT_GE(talvek::MonotonicMs() - start, 1000);
    });
}

// Its state is the last one read, here none: it is gone before the watchdog starts.
TEST(ThreadWatchdog, WarnsOfAProcessThatIsGoneEveryPeriod) {
    InEmptyRegistry([] {
        signal(SIGCHLD, SIG_IGN);  // the kernel reaps it at once
        ExpectWarnings(
            2, [] { _exit(0); }, "");
    });
}

// A check that cannot write its warning holds the lock. COM_DestroyThreadWatchdog waits for the end
// of the check, and then the registry is unlocked.
TEST(ThreadWatchdog, FinishesACheckThatIsBlockedInItsWarning) {
    InEmptyRegistry([] {
        Watched watched{[] { raise(SIGSTOP); }, 'T',
                        [](const Watched::Mark &mark) {
                            FillPipe(STDOUT_FILENO);
                            EXPECT_EQ(0, COM_CreateThreadWatchdog(1));
                            EXPECT_TRUE(BlockedOn(getpid(), STDOUT_FILENO));
                            mark();
                            EXPECT_EQ(0, COM_DestroyThreadWatchdog());
                            int held = 0;
                            ioctl(STDOUT_FILENO, FIONREAD, &held);
                            EXPECT_LT(held, fcntl(STDOUT_FILENO, F_GETPIPE_SZ));
                            COM_ShowThread();
                        }};
        EXPECT_TRUE(InState(watched.AwaitMark(), 'S')) << "waits for the check";
        const std::string output = watched.Read();
        const Lines lines = talvek::test::LogLines(output.substr(output.rfind('.') + 1));
        EXPECT_EQ(
            (Lines{"COMMON:COM_ThreadWatchdog(): Warnning!! [pid = " + watched.pid() +
                       "] [watched] process error",
                   "COMMON:COM_ShowThread(): [0] : " + watched.pid() + " - [watched] - [T] - [0]"}),
            lines);
    });
}

TEST(ThreadWatchdog, EndsAtOnceAndCanBeStartedAgain) {
    InEmptyRegistry([] {
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(0, COM_CreateThreadWatchdog(1000));
            EXPECT_TRUE(OtherThreadsSleep());
            struct timespec start = {};
            clock_gettime(CLOCK_MONOTONIC, &start);
            EXPECT_EQ(0, COM_DestroyThreadWatchdog());
            struct timespec end = {};
            clock_gettime(CLOCK_MONOTONIC, &end);
            EXPECT_LT(end.tv_sec - start.tv_sec, 100) << "it does not wait for the period";
        }
        EXPECT_EQ(1, COM_LogThread("after")) << "the registry outlives the watchdog";
    });
}

// A signal ends the sleep of 1000 seconds, and the rest would take millions of rounds.
TEST(ThreadWatchdog, SleepsAtMostAThousandRoundsAfterASignal) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);  // the reader sees an end in any case
        dup2(ends[1], STDOUT_FILENO);
        struct sigaction caught = {};
        caught.sa_handler = [](int) {};
        sigaction(SIGUSR1, &caught, nullptr);
        COM_CreateThreadWatchdog(1000);
        // Only the watchdog can take the signal now.
        sigset_t signal;
        sigemptyset(&signal);
        sigaddset(&signal, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &signal, nullptr);
        EXPECT_TRUE(OtherThreadsSleep());
        kill(getpid(), SIGUSR1);
        for (;;) {
            pause();
        }
    }
    close(ends[1]);
    char text[128] = "";
    EXPECT_LT(0, read(ends[0], text, sizeof text - 1));
    EXPECT_EQ((Lines{"COMMON:COM_SleepAtLeast(): Woops! timeout = 1000"}),
              talvek::test::LogLines(text));
    close(ends[0]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST(ThreadWatchdog, ReturnsWithoutItsData) {
    EXPECT_EQ(nullptr, COM_ThreadWatchdog(nullptr));
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

// Ends a child by executing another program. In the child, nothing refers to the blocks of the
// parent's other threads any more, which valgrind would report as leaks.
[[noreturn]] void EndChild(bool good) {
    execl(good ? "/bin/true" : "/bin/false", "end", nullptr);
    _exit(2);
}

// A forked child has no watchdog.
TEST(ThreadWatchdog, BelongsToTheProcessThatStartedIt) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer lets no child of a program with threads start one";
#endif
    InEmptyRegistry([] {
        EXPECT_EQ(0, COM_CreateThreadWatchdog(1000));
        fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            bool good = true;
            Capture([&good] { good = COM_DestroyThreadWatchdog() == ESRCH; });
            good = good && COM_CreateThreadWatchdog(1000) == 0 && COM_LogThread("child") == 1;
            good = good && COM_DestroyThreadWatchdog() == 0;
            EndChild(good);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
    });
}

// The first child of a process that is to have new process numbers is process 1; the second has the
// number of the parent here.
TEST(ThreadWatchdog, DoesNotBelongToAChildWithTheParentsNumber) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer lets no child of a program with threads start one";
#endif
    if (Emulated()) {
        GTEST_SKIP() << "threads of the emulator take process numbers";
    }
    RunInPrivateWorld(kPids, [] {
        ASSERT_EQ(2, getpid());
        EXPECT_EQ(0, COM_CreateThreadWatchdog(1000));
        ASSERT_EQ(0, unshare(CLONE_NEWPID)) << strerror(errno);
        fflush(nullptr);
        const pid_t init = fork();
        if (init == 0) {
            for (;;) {
                pause();
            }
        }
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            bool good = getpid() == 2;
            Capture([&good] { good = good && COM_DestroyThreadWatchdog() == ESRCH; });
            good = good && COM_CreateThreadWatchdog(1000) == 0;
            good = good && COM_DestroyThreadWatchdog() == 0;
            EndChild(good);
        }
        EXPECT_EQ(0, WaitFor(child));
        kill(init, SIGKILL);
        waitpid(init, nullptr, 0);
        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
    });
}

// A check that cannot write its warning holds the lock at the moment of the fork.
TEST(ThreadWatchdog, OfAForkedChildDoesNotWaitForACheckOfTheParent) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer lets no child of a program with threads start one";
#endif
    InEmptyRegistry([] {
        Watched watched{[] { raise(SIGSTOP); }, 'T',
                        [](const Watched::Mark &mark) {
                            FillPipe(STDOUT_FILENO);
                            COM_CreateThreadWatchdog(1);
                            EXPECT_TRUE(BlockedOn(getpid(), STDOUT_FILENO));
                            mark();
                            const pid_t child = fork();
                            if (child == 0) {
                                alarm(60);
                                const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
                                dup2(null, STDOUT_FILENO);
                                const bool good = COM_CreateThreadWatchdog(1000) == 0 &&
                                                  COM_LogThread("child") == 2 &&
                                                  COM_DestroyThreadWatchdog() == 0;
                                EndChild(good);
                            }
                            int status = -1;
                            waitpid(child, &status, 0);
                            COM_DestroyThreadWatchdog();
                            printf("status %d\n", status);
                            fflush(stdout);
                        }};
        EXPECT_TRUE(InState(watched.AwaitMark(), 'S'));
        const std::string output = watched.Read();
        EXPECT_NE(std::string::npos, output.find("\nstatus 0\n"))
            << output.substr(output.rfind('.') + 1);
    });
}

// A program may fork while it holds the lock of standard output and another thread, which holds the
// registry's lock, waits for it.
TEST(Registry, DoesNotDelayAForkWithStandardOutputLocked) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer takes locks of its own at a fork";
#endif
    InEmptyRegistry([] {
        COM_LogThread("first");
        flockfile(stdout);
        std::thread lister{[] { COM_ShowThread(); }};
        EXPECT_TRUE(OtherThreadsSleep());
        const pid_t child = fork();
        if (child == 0) {
            EndChild(true);
        }
        funlockfile(stdout);
        lister.join();
        EXPECT_EQ(0, WaitFor(child));
    });
}

TEST(Registry, OutlastsCancellation) {
    InEmptyRegistry([] {
        EXPECT_TRUE(OutlastsCancellation([] { EXPECT_EQ(1, COM_LogThread("first")); }));
        EXPECT_EQ(Pid(), ReadFile("/var/run/first.thread.pid"));
        EXPECT_TRUE(OutlastsCancellation([] { EXPECT_EQ(0, COM_LogThreadMemUsage(1)); }));
        EXPECT_TRUE(OutlastsCancellation([] { COM_ShowThread(); }));
        EXPECT_TRUE(OutlastsCancellation([] { EXPECT_EQ(0, COM_CreateThreadWatchdog(1)); }));
        EXPECT_TRUE(OutlastsCancellation([] { EXPECT_EQ(0, COM_DestroyThreadWatchdog()); }));
        EXPECT_EQ(2, COM_LogThread("second")) << "the registry is free";
    });
}

// While the parent's threads register and check, a child has all entries and can register at once.
TEST(Registry, IsUnlockedInTheChildOfAFork) {
    InEmptyRegistry([] {
        constexpr int kEntries = 3000;
        std::atomic<bool> stop{false};
        ASSERT_EQ(0, COM_CreateThreadWatchdog(1));
        Capture([&] {
            for (int i = 0; i < kEntries; ++i) {
                COM_LogThread("entry");
            }
            std::thread registrar{[&stop] {
                while (!stop) {
                    COM_LogThread("busy");
                    COM_ShowThread();
                }
            }};
            for (int i = 0; i < 100; ++i) {
                const pid_t child = fork();
                if (child == 0) {
                    alarm(60);  // ends a child that hangs
                    EndChild(COM_LogThread("child") > kEntries);
                }
                int status = -1;
                ASSERT_EQ(child, waitpid(child, &status, 0));
                EXPECT_EQ(0, status) << "child " << i;
            }
            stop = true;
            registrar.join();
        });
        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
    });
}

TEST(ThreadWatchdog, EndsWhileThreadsRegister) {
    InEmptyRegistry([] {
        ASSERT_EQ(0, COM_CreateThreadWatchdog(1));
        std::atomic<bool> stop{false};
        std::atomic<int> entries{0};
        std::thread registrar{[&] {
            while (!stop) {
                COM_LogThread("busy");
                ++entries;
            }
        }};
        EXPECT_TRUE(Eventually([&entries] { return entries > 20; }));
        EXPECT_EQ(0, COM_DestroyThreadWatchdog());
        stop = true;
        registrar.join();
        EXPECT_GT(COM_LogThread("last"), 0);
    });
}

}  // namespace
