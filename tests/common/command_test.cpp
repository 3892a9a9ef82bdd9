#include "common/command.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <net/if.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "common/log.h"
#include "support/await.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/child_process.h"
#include "support/interruptions.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using talvek::UniqueFd;
using namespace talvek::test;
using Clock = std::chrono::steady_clock;

constexpr const char *kSleep = "/bin/sleep";

int ExitWith(int code) {
    return code << 8;
}

// A shell script, since a command itself has no quoting.
class Script {
  public:
    explicit Script(const std::string &text) { WriteFile(dir_ / "script", text + "\n"); }
    [[nodiscard]] std::string command() const { return "/bin/sh " + (dir_ / "script"); }

  private:
    TempDir dir_;
};

// ---- COM_System ----

TEST(System, ReturnsTheWaitStatusAndWithdrawsThePid) {
    int pid = 77;
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_System("/bin/true ", &pid)); }));
    EXPECT_EQ(0, pid);
    EXPECT_EQ(ExitWith(1), COM_System("/bin/false", nullptr));
    EXPECT_EQ(ExitWith(7), COM_System(Script{"exit 7"}.command().c_str(), nullptr));
    EXPECT_EQ(ExitWith(255), COM_System(Script{"exit 255"}.command().c_str(), nullptr));
    EXPECT_EQ(SIGTERM, COM_System(Script{"kill -TERM $$"}.command().c_str(), nullptr));
}

TEST(System, MakesNoPathSearch) {
    int pid = 77;
    EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [true] error : No such file or directory"}),
              CaptureLog([&] { EXPECT_EQ(ExitWith(127), COM_System("true ", &pid)); }));
    EXPECT_EQ(0, pid);
}

TEST(System, ReportsAProgramThatCannotBeExecuted) {
    const TempDir dir;
    WriteFile(dir / "text", "not executable");
    const std::string name = dir / "text";
    EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [" + name + "] error : Permission denied"}),
              CaptureLog([&] {
                  EXPECT_EQ(ExitWith(127), COM_System((name + " argument").c_str(), nullptr));
              }));
}

TEST(System, RefusesNull) {
    int pid = 77;
    EXPECT_EQ((Lines{"COMMON:COM_System(): pCMD == NULL"}),
              CaptureLog([&] { EXPECT_EQ(-1, COM_System(nullptr, &pid)); }));
    EXPECT_EQ(77, pid);
}

TEST(System, PublishesThePidForAnotherThreadToKill) {
    int pid = 0;
    std::thread killer{[&pid] {
        int seen = 0;
        EXPECT_TRUE(
            Eventually([&] { return (seen = __atomic_load_n(&pid, __ATOMIC_ACQUIRE)) != 0; }));
        kill(seen, SIGKILL);
    }};
    EXPECT_EQ(SIGKILL, COM_System("/bin/sleep 60", &pid));
    killer.join();
    EXPECT_EQ(0, pid);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the child is collected";
}

TEST(System, GivesTheCommandNoDescriptorButTheThreeStandardOnes) {
    const UniqueFd inherited{dup(0)};  // without FD_CLOEXEC
    const UniqueFd high{fcntl(0, F_DUPFD, 900)};
    ASSERT_TRUE(high);
    // 3 is the listing's own.
    EXPECT_EQ("0\n1\n2\n3\n",
              Capture([] { EXPECT_EQ(0, COM_System("/bin/ls /proc/self/fd", nullptr)); }));
}

std::string SignalLines(const std::string &status) {
    std::istringstream in{status};
    std::string found;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("SigBlk", 0) == 0 || line.rfind("SigIgn", 0) == 0) {
            found += line + "\n";
        }
    }
    return found;
}

std::string OwnSignals() {
    return SignalLines(ReadFile("/proc/thread-self/status"));
}

std::string SignalsOfACommand() {
    return SignalLines(
        Capture([] { EXPECT_EQ(0, COM_System("/bin/cat /proc/self/status", nullptr)); }));
}

TEST(System, KeepsTheSignalDisciplineOfSystem) {
    RunInPrivateWorld(kMounts, [] {
        // The actions that a program has at its start, whatever started this test.
        for (const int sig : {SIGINT, SIGQUIT, SIGCHLD, SIGUSR1, SIGPIPE}) {
            signal(sig, SIG_DFL);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        const std::string before = OwnSignals();
        EXPECT_EQ(before, SignalsOfACommand());
        EXPECT_EQ(before, OwnSignals());

        // Signals that the caller ignores or blocks are ignored or blocked in the command.
        signal(SIGQUIT, SIG_IGN);
        sigset_t usr1;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        sigprocmask(SIG_BLOCK, &usr1, nullptr);
        const std::string changed = OwnSignals();
        EXPECT_NE(before, changed);
        EXPECT_EQ(changed, SignalsOfACommand());
        EXPECT_EQ(changed, OwnSignals());
    });
}

TEST(System, IgnoresSigintAndSigquitAndBlocksSigchldMeanwhile) {
    RunInPrivateWorld(kMounts, [] {
        static volatile sig_atomic_t caught = 0;
        for (int sig = 1; sig < NSIG; ++sig) {
            signal(sig, SIG_DFL);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (const int sig : {SIGINT, SIGQUIT}) {
            signal(sig, [](int) { caught = caught + 1; });
        }
        // The command examines and signals the process that runs it. Bit n - 1 is signal n: 2 and 3
        // are ignored. When the child has started, 17 alone is blocked.
        const Script script{
            "for i in $(seq 6000); do\n"
            "  grep -q '^SigBlk:.*0000000000010000' /proc/$PPID/status && break; sleep 0.01\n"
            "done\n"
            "grep -E 'Sig(Blk|Ign)' /proc/$PPID/status; kill -INT $PPID; kill -QUIT $PPID; exit 3"};
        EXPECT_EQ("SigBlk:\t0000000000010000\nSigIgn:\t0000000000000006\n", Capture([&] {
                      EXPECT_EQ(ExitWith(3), COM_System(script.command().c_str(), nullptr));
                  }));
        EXPECT_EQ(0, caught);
        raise(SIGINT);
        raise(SIGQUIT);
        EXPECT_EQ(2, caught) << "the handlers are restored";
    });
}

// The child starts in the memory of its parent, so that a handler there would work on the parent's
// data. The signals go to the whole process group.
TEST(System, RunsNoHandlerOfTheCallerInTheChild) {
    RunInPrivateWorld(kPids, [] {
        static pid_t parent = 0;
        static volatile sig_atomic_t ranInTheChild = 0;
        parent = getpid();
        ASSERT_EQ(0, setpgid(0, 0));
        signal(SIGUSR1, SIG_IGN);
        const ChildProcess storm{"/bin/sh", {"sh", "-c", "while :; do kill -s USR1 0; done"}};
        signal(SIGUSR1, [](int) {
            if (getpid() != parent) {
                ranInTheChild = 1;
            }
        });
        for (int i = 0; i < 100; ++i) {
            const int status = COM_System("/bin/true", nullptr);
            EXPECT_TRUE(status == 0 || status == SIGUSR1) << status;
        }
        EXPECT_EQ(0, ranInTheChild);
    });
}

bool IsVforkAFork() {
    static volatile int seen;
    seen = 0;
    const pid_t pid = vfork();
    if (pid == 0) {
        seen = 1;
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return seen == 0;
}

// After a fork, each page that the parent writes to would be copied in a page fault.
TEST(System, DoesNotCopyTheMemoryOfTheCaller) {
    if (IsVforkAFork()) {
        GTEST_SKIP() << "vfork is a fork here";
    }
    constexpr size_t kSize = size_t{16} << 20;
    void *memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    madvise(memory, kSize, MADV_NOHUGEPAGE);
    memset(memory, 1, kSize);
    const auto faults = [] {
        struct rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_minflt;
    };
    const long before = faults();
    EXPECT_EQ(0, COM_System("/bin/true", nullptr));
    memset(memory, 2, kSize);
    EXPECT_GT(static_cast<long>(kSize) / sysconf(_SC_PAGESIZE) / 4, faults() - before);
    munmap(memory, kSize);
}

TEST(System, WaitsOnAfterASignal) {
    RunInPrivateWorld(kMounts, [] {
        const Interruptions often{5};
        EXPECT_EQ(0, COM_System("/bin/sleep 0.1", nullptr));
        EXPECT_GT(Interruptions::count(), 0);
    });
}

TEST(System, HasNoStatusWhereSigchldIsIgnored) {
    RunInPrivateWorld(kMounts, [] {
        signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(-1, COM_System("/bin/true", nullptr));
    });
}

Lines WithoutNumbers(const std::string &output) {
    return {std::regex_replace(output.substr(0, output.size() - 1), std::regex{",[0-9]+:"}, ",N:")};
}

TEST(System, PrintsInOrderWithTheCommandAndOnce) {
    EXPECT_EQ("before\ncommand\nafter\n", Capture([] {
                  printf("before\n");
                  EXPECT_EQ(0, COM_System("/bin/echo command", nullptr));
                  printf("after\n");
              }));
    EXPECT_EQ(
        (Lines{"unfinished COMMON,N:COM_ParserCMD(): [none] error : No such file or directory"}),
        WithoutNumbers(Capture([] {
            printf("unfinished ");
            EXPECT_EQ(ExitWith(127), COM_System("none", nullptr));
        })));
}

// Other threads log and allocate while commands are started: no child may wait for a lock that
// nobody releases, and no line of another thread may appear twice.
TEST(System, LogsEachLineOnceInAProgramWithBusyThreads) {
    constexpr int kRuns = 40;
    std::atomic<bool> stop{false};
    std::atomic<int> logged{0};
    const Lines lines = CaptureLog([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] {
                while (!stop) {
                    COM_Log("COMMON", 1, nullptr, "line %d\n", logged.fetch_add(1));
                    usleep(20);
                }
            });
        }
        for (int i = 0; i < kRuns; ++i) {
            EXPECT_EQ(ExitWith(127), COM_System("/no/such/program", nullptr));
        }
        stop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
    });
    std::map<std::string, int> times;
    for (const std::string &line : lines) {
        ++times[line];
    }
    EXPECT_EQ(
        kRuns,
        times["COMMON:COM_ParserCMD(): [/no/such/program] error : No such file or directory"]);
    EXPECT_EQ(static_cast<size_t>(logged.load()) + kRuns, lines.size());
    EXPECT_EQ(static_cast<size_t>(logged.load()) + 1, times.size()) << "each line once";
}

// ---- COM_ParserCMD ----

std::string Printed(const std::string &arguments) {
    const GuardedCopy command{("/usr/bin/printf <%s>" + arguments).c_str()};
    return Capture([&] { EXPECT_EQ(0, COM_System(command.text(), nullptr)); });
}

// In a child: a program that is executed would replace this one and end it with success.
int ParserCmd(const char *pCmd) {
    constexpr int kRefused = 77;
    const pid_t child = fork();
    if (child == 0) {
        _exit(COM_ParserCMD(pCmd) == -1 ? kRefused : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return status == ExitWith(kRefused) ? -1 : 0;
}

TEST(ParserCMD, SplitsAtBlanksAlone) {
    EXPECT_EQ("<a><b>", Printed(" a b"));
    EXPECT_EQ("<a><b>", Printed(" a b ")) << "a blank after the last word";
    EXPECT_EQ("<a><b>", Printed("   a    b    "));
    EXPECT_EQ("<a\tb><c\n>", Printed(" a\tb c\n"));
    EXPECT_EQ("<\"a><b\"><$HOME><*><>><|>", Printed(" \"a b\" $HOME * > |")) << "no shell";
    EXPECT_EQ("", Capture([] { EXPECT_EQ(0, COM_System("   /bin/true   ", nullptr)); }));
}

TEST(ParserCMD, HandsOverTheEnvironment) {
    RunInPrivateWorld(kMounts, [] {
        setenv("TALVEK_TEST_VARIABLE", "a value", 1);
        EXPECT_EQ("a value\n", Capture([] {
                      EXPECT_EQ(0, COM_System("/usr/bin/printenv TALVEK_TEST_VARIABLE", nullptr));
                  }));
    });
}

TEST(ParserCMD, TakesACommandOfBlanksAsOneEmptyWord) {
    for (const char *pCmd : {"", " ", "     "}) {
        const GuardedCopy command{pCmd};
        EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [] error : No such file or directory"}),
                  CaptureLog([&] { EXPECT_EQ(-1, ParserCmd(command.text())); }));
        Capture([&] { EXPECT_EQ(ExitWith(127), COM_System(command.text(), nullptr)); });
    }
    EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): pCMD == NULL"}),
              CaptureLog([] { EXPECT_EQ(-1, ParserCmd(nullptr)); }));
}

// A word has up to 127 characters and the NUL.
TEST(ParserCMD, RefusesAWordThatDoesNotFit) {
    for (const size_t length : {126, 127, 128, 129, 1000}) {
        const std::string word(length, 'w');
        const bool fits = length <= 127;
        const std::string command = "/bin/echo first " + word + " last";
        const std::string output = Capture(
            [&] { EXPECT_EQ(fits ? 0 : ExitWith(127), COM_System(command.c_str(), nullptr)); });
        if (fits) {
            EXPECT_EQ("first " + word + " last\n", output);
        } else {
            EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [/bin/echo] error : Argument list too long"}),
                      LogLines(output));
        }
    }
    const std::string path = "/bin/../" + std::string(120 - 3, '/') + "bin/echo";
    EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [" + path + "] error : Argument list too long"}),
              CaptureLog([&] { EXPECT_EQ(-1, ParserCmd(path.c_str())); }));
}

// 128 pointers, the NULL after the last word included: 127 words.
TEST(ParserCMD, RefusesMoreWordsThanFit) {
    for (const int words : {126, 127, 128, 129, 1000}) {
        std::string command = "/bin/echo";
        for (int i = 1; i < words; ++i) {
            command += " w" + std::to_string(i);
        }
        const bool fits = words <= 127;
        const std::string output = Capture([&] {
            EXPECT_EQ(fits ? 0 : ExitWith(127), COM_System((command + " ").c_str(), nullptr));
        });
        if (fits) {
            EXPECT_EQ(command.substr(10) + "\n", output);
        } else {
            const Lines refused{
                "COMMON:COM_ParserCMD(): [/bin/echo] error : Argument list too long"};
            EXPECT_EQ(refused, LogLines(output));
            errno = 0;
            EXPECT_EQ(refused, CaptureLog([&] { EXPECT_EQ(-1, ParserCmd(command.c_str())); }));
        }
    }
}

TEST(ParserCMD, ReplacesTheProcess) {
    const pid_t child = fork();
    if (child == 0) {
        COM_ParserCMD("/bin/false");
        _exit(9);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(ExitWith(1), status);
}

// ---- COM_KillPid ----

TEST(KillPid, RefusesNumbersThatAreNoProcess) {
    EXPECT_EQ((Lines{"COMMON:COM_KillPid(): Invalid pid = 0",
                     "COMMON:COM_KillPid(): Invalid pid = "
                     "-1"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, COM_KillPid(0, 1000));
                  EXPECT_EQ(-1, COM_KillPid(-1, 0));
              }));
}

TEST(KillPid, TerminatesWithoutWaiting) {
    ChildProcess child{kSleep, Sleeper("sleep")};
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_KillPid(child.pid(), 0)); }));
    EXPECT_EQ(SIGTERM, child.Wait());
}

TEST(KillPid, GivesTimeAfterTheSignal) {
    ChildProcess child{kSleep, Sleeper("sleep")};
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, COM_KillPid(child.pid(), 30'000));
    EXPECT_LE(std::chrono::milliseconds{29}, Clock::now() - start);
    EXPECT_EQ(SIGTERM, child.Wait());
}

// A signal ends the wait of an hour, and the rest would take millions of rounds.
TEST(KillPid, WaitsAtMostAThousandRoundsAfterASignal) {
    RunInPrivateWorld(kMounts, [] {
        ChildProcess child{kSleep, Sleeper("sleep")};
        EXPECT_EQ((Lines{"COMMON:COM_SleepAtLeast(): Woops! timeout = 1000"}), CaptureLog([&] {
                      const Interruptions often{10};
                      EXPECT_EQ(0, COM_KillPid(child.pid(), 3'600'000'000));
                  }));
        EXPECT_EQ(SIGTERM, child.Wait());
    });
}

TEST(KillPid, ReportsAProcessThatIsGone) {
    RunInPrivateWorld(kPids, [] {
        EXPECT_EQ((Lines{"COMMON:COM_KillPid(): kill(4000000) failed : No such process"}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_KillPid(4000000, 1'000'000)); }));
    });
}

// ---- COM_KillProcess ----

std::string Signalled(pid_t target, const std::string &name, int sig) {
    return "COMMON:COM_KillProcess(): [pid:" + std::to_string(getpid()) + "] - kill(" +
           std::to_string(target) + "[" + name + "], " + std::to_string(sig) + ")";
}

TEST(KillProcess, SignalsByNumberWithoutAName) {
    ChildProcess child{kSleep, Sleeper("sleep")};
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(0, COM_KillProcess(nullptr, child.pid(), 0));
                  EXPECT_EQ(0, COM_KillProcess(nullptr, child.pid(), SIGUSR1));
              }));
    EXPECT_EQ(SIGUSR1, child.Wait());
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  EXPECT_EQ(-1, COM_KillProcess(nullptr, 0, SIGTERM));
                  EXPECT_EQ(-1, COM_KillProcess(nullptr, -5, SIGTERM));
              }));
}

TEST(KillProcess, ReportsANumberThatCannotBeSignalled) {
    RunInPrivateWorld(kPids, [] {
        EXPECT_EQ((Lines{"COMMON:COM_KillProcess(): kill(4000000, 15) fail : No such process",
                         "COMMON:COM_KillProcess(): kill(" + std::to_string(getpid()) +
                             ", 999) fail : Invalid argument"}),
                  CaptureLog([] {
                      EXPECT_EQ(-1, COM_KillProcess(nullptr, 4000000, SIGTERM));
                      EXPECT_EQ(-1, COM_KillProcess(nullptr, getpid(), 999));
                  }));
    });
}

TEST(KillProcess, SignalsTheFirstThatBeginsWithTheName) {
    RunInPrivateWorld(kPids, [] {
        ChildProcess other{kSleep, Sleeper("/opt/unit/other")};
        ChildProcess first{kSleep, Sleeper("/opt/unit/recorder-a")};
        ChildProcess second{kSleep, Sleeper("/opt/unit/recorder-b")};
        EXPECT_EQ((Lines{Signalled(first.pid(), "/opt/unit/recorder", SIGTERM)}), CaptureLog([] {
                      // With a name the number is not used.
                      EXPECT_EQ(0, COM_KillProcess("/opt/unit/recorder", 1, SIGTERM));
                  }));
        EXPECT_EQ(SIGTERM, first.Wait());
        EXPECT_TRUE(second.Lives());
        EXPECT_TRUE(other.Lives());
        EXPECT_EQ((Lines{Signalled(second.pid(), "/opt/unit/recorder-b", SIGKILL)}), CaptureLog([] {
                      EXPECT_EQ(0, COM_KillProcess("/opt/unit/recorder-b", 0, SIGKILL));
                  }));
        EXPECT_EQ(SIGKILL, second.Wait());
    });
}

TEST(KillProcess, ReturnsMinusOneWithoutAMessageWhenNothingMatches) {
    RunInPrivateWorld(kPids, [] {
        ChildProcess child{kSleep, Sleeper("/opt/unit/recorder")};
        const ChildProcess zombie{"/bin/true", {"/opt/unit/ended"}};
        zombie.AwaitZombie();
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(-1, COM_KillProcess("opt/unit/recorder", 0, SIGTERM));
                      EXPECT_EQ(-1, COM_KillProcess("/opt/unit/recorder 60", 0, SIGTERM))
                          << "the arguments are not part of the name";
                      EXPECT_EQ(-1, COM_KillProcess("/opt/unit/ended", 0, SIGTERM));
                  }));
        EXPECT_TRUE(child.Lives());
    });
}

TEST(KillProcess, Compares79Bytes) {
    RunInPrivateWorld(kPids, [] {
        const std::string name = "/" + std::string(99, 'n');
        ChildProcess child{kSleep, Sleeper(name)};
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(-1, COM_KillProcess(name.substr(0, 80).c_str(), 0, SIGTERM));
                      EXPECT_EQ(-1, COM_KillProcess(name.c_str(), 0, SIGTERM));
                  }));
        EXPECT_TRUE(child.Lives());
        Capture([&] { EXPECT_EQ(0, COM_KillProcess(name.substr(0, 79).c_str(), 0, SIGTERM)); });
        EXPECT_EQ(SIGTERM, child.Wait());
    });
}

TEST(KillProcess, DoesNotSignalItsOwnProgramByName) {
    RunInPrivateWorld(kPids, [] {
        const std::string own = ReadFile("/proc/self/cmdline").c_str();
        ASSERT_FALSE(own.empty());
        const std::string begin = own.substr(0, 79);
        EXPECT_EQ((Lines{Signalled(0, begin, SIGKILL)}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_KillProcess(begin.c_str(), 0, SIGKILL)); }));
        EXPECT_EQ((Lines{Signalled(0, "", SIGKILL)}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_KillProcess("", 0, SIGKILL)); }))
            << "every entry begins with an empty name";
    });
}

TEST(KillProcess, SkipsLostAndFoundAndReportsAFailedSignal) {
    RunInPrivateWorld(kPids, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/lost+found/cmdline", "/opt/unit/recorder");
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(-1, COM_KillProcess("/opt/unit/recorder", 0, SIGTERM));
                  }));
        WriteFile("/proc/4000000/cmdline", "/opt/unit/recorder");
        EXPECT_EQ(
            (Lines{Signalled(4000000, "/opt/unit/recorder", SIGTERM),
                   "COMMON:COM_KillProcess(): kill(4000000, 15) fail : No such process"}),
            CaptureLog([] { EXPECT_EQ(-1, COM_KillProcess("/opt/unit/recorder", 0, SIGTERM)); }));
        ASSERT_EQ(0, chroot("/dev/shm"));  // a directory without /proc
        EXPECT_EQ((Lines{"COMMON:COM_KillProcess(): opendir(/proc) error : No such file or "
                         "directory"}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_KillProcess("/opt", 0, SIGTERM)); }));
    });
}

// ---- COM_CheckProcState ----

TEST(CheckProcState, DistinguishesAProcessThatLivesFromOneThatDoesNot) {
    const pid_t busy = fork();
    if (busy == 0) {
        alarm(60);  // even if the test ends early
        for (;;) {
            getppid();
        }
    }
    ASSERT_TRUE(InState(busy, 'R'));
    tProcState running = {busy, "xyz"};
    EXPECT_EQ(0, COM_CheckProcState(&running));
    EXPECT_STREQ("R", running.state);
    kill(busy, SIGKILL);
    waitpid(busy, nullptr, 0);

    const ChildProcess child{kSleep, Sleeper("sleep")};
    tProcState state = {child.pid(), ""};
    ASSERT_TRUE(InState(child.pid(), 'S'));
    EXPECT_EQ(0, COM_CheckProcState(&state));
    EXPECT_STREQ("S", state.state);

    kill(child.pid(), SIGSTOP);
    ASSERT_TRUE(InState(child.pid(), 'T'));
    EXPECT_EQ(-1, COM_CheckProcState(&state));
    EXPECT_STREQ("T", state.state);

    kill(child.pid(), SIGCONT);
    ASSERT_TRUE(InState(child.pid(), 'S'));
    EXPECT_EQ(0, COM_CheckProcState(&state));

    kill(child.pid(), SIGKILL);
    child.AwaitZombie();
    EXPECT_EQ(-1, COM_CheckProcState(&state));
    EXPECT_STREQ("Z", state.state);
    EXPECT_EQ(child.pid(), state.pid);
}

TEST(CheckProcState, KeepsTheStateOfAProcessThatIsGone) {
    RunInPrivateWorld(kPids, [] {
        for (const int pid : {4000000, 0, -1}) {
            tProcState state = {pid, "S"};
            EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, COM_CheckProcState(&state)); }));
            EXPECT_STREQ("S", state.state);
        }
    });
    EXPECT_EQ(-1, COM_CheckProcState(nullptr));
}

// A name is split like the rest of the line; its second part then counts as the state.
TEST(CheckProcState, TakesTheThirdWordWhateverTheNameIs) {
    struct Case {
        const char *name;
        const char *state;
        int result;
    };
    constexpr Case kCases[] = {{"plain", "S", 0},
                               {"two words", "wor", 0},
                               {"a/b", "b)", 0},
                               {"a / b", "b)", 0},
                               {"x Task", "Tas", -1},
                               {"x/Z", "Z)", -1},
                               {"x (T)", "(T)", 0},
                               {"", "S", 0},
                               {"15 characters !", "cha", 0},
                               {"/slash", "sla", 0}};
    for (const Case &c : kCases) {
        int ends[2];
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        const pid_t child = fork();
        if (child == 0) {
            alarm(30);  // in any case
            prctl(PR_SET_NAME, c.name);
            char byte = 'x';
            static_cast<void>(!write(ends[1], &byte, 1));
            for (;;) {
                pause();
            }
        }
        char byte;
        ASSERT_EQ(1, read(ends[0], &byte, 1));
        close(ends[0]);
        close(ends[1]);
        ASSERT_TRUE(InState(child, 'S'));
        tProcState state = {child, ""};
        EXPECT_EQ(c.result, COM_CheckProcState(&state)) << c.name;
        EXPECT_STREQ(c.state, state.state) << c.name;
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

// Files that no kernel writes.
TEST(CheckProcState, FailsOnALineWithoutAThirdWord) {
    RunInPrivateWorld(kPids, [] {
        ReplaceDir("/proc");
        for (const char *text : {"", "\n", "7", "7 (name)", "7 (name) \n", " / \r\n"}) {
            WriteFile("/proc/7/stat", text);
            tProcState state = {7, "S"};
            EXPECT_EQ(-1, COM_CheckProcState(&state)) << text;
            EXPECT_STREQ("S", state.state);
        }
        for (const char *text : {"7 (name) R", "7 (name) R\r\n", "7//(name)  R 1"}) {
            WriteFile("/proc/7/stat", text);
            tProcState state = {7, ""};
            EXPECT_EQ(0, COM_CheckProcState(&state)) << text;
            EXPECT_STREQ("R", state.state);
        }
    });
}

// ---- COM_SleepAtLeast ----

struct timespec Milliseconds(long count) {
    return {count / 1000, count % 1000 * 1'000'000};
}

TEST(SleepAtLeast, NeedsNoFurtherRoundWithoutASignal) {
    for (const long ms : {1000L, 1L, 0L}) {
        const struct timespec time = Milliseconds(ms);
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_SleepAtLeast(&time, 1000)); }));
        EXPECT_LE(std::chrono::milliseconds{ms}, Clock::now() - start);
    }
    const struct timespec nanoseconds = {0, 999};  // no whole microsecond
    EXPECT_EQ(0, COM_SleepAtLeast(&nanoseconds, 1000));
    EXPECT_EQ(-1, COM_SleepAtLeast(nullptr, 1000));
}

TEST(SleepAtLeast, CompletesAnInterruptedSleepInShortRounds) {
    RunInPrivateWorld(kMounts, [] {
        int rounds = 0;
        // On a busy machine a sleep that is interrupted can be over by the time it returns.
        for (long ms = 60; ms < 60000 && rounds == 0; ms *= 2) {
            const struct timespec time = Milliseconds(ms);
            const Clock::time_point start = Clock::now();
            EXPECT_EQ(Lines{}, CaptureLog([&] {
                          const Interruptions often{10};
                          rounds = COM_SleepAtLeast(&time, INT_MAX);
                      }));
            EXPECT_LE(std::chrono::milliseconds{ms}, Clock::now() - start);
            EXPECT_GE(10 * ms, rounds) << "a round is at least 0.1 milliseconds";
        }
        EXPECT_LT(0, rounds);
    });
}

TEST(SleepAtLeast, GivesUpAfterTheRoundsAllowed) {
    RunInPrivateWorld(kMounts, [] {
        const struct timespec time = Milliseconds(5000);
        for (const int rounds : {1, 3, 0}) {
            EXPECT_EQ(
                (Lines{"COMMON:COM_SleepAtLeast(): Woops! timeout = " + std::to_string(rounds)}),
                CaptureLog([&] {
                    const Interruptions often{10};
                    EXPECT_EQ(rounds, COM_SleepAtLeast(&time, rounds));
                }));
        }
    });
}

// ---- COM_IfUp and COM_IfDown ----

// Replaces the real tool by one that prints its arguments.
void FakeIfconfig() {
    ReplaceDir("/sbin");
    WriteFile("/sbin/ifconfig", "#!/bin/sh\nfor word; do printf '<%s>' \"$word\"; done\nexit 4\n");
    ASSERT_EQ(0, chmod("/sbin/ifconfig", 0755));
}

TEST(IfUpDown, RunsIfconfig) {
    RunInPrivateWorld(kMounts, [] {
        FakeIfconfig();
        EXPECT_EQ("<eth0><up>", Capture([] { EXPECT_EQ(ExitWith(4), COM_IfUp("eth0")); }));
        EXPECT_EQ("<eth0:1><down>", Capture([] { EXPECT_EQ(ExitWith(4), COM_IfDown("eth0:1")); }));
    });
}

TEST(IfUpDown, RefusesACommandThatWouldBeCut) {
    RunInPrivateWorld(kMounts, [] {
        FakeIfconfig();
        // "/sbin/ifconfig " and " up" leave 255 - 18 characters. Two words fill them; one would be
        // too long for a word.
        for (const size_t length : {236, 237, 238, 239}) {
            const std::string name = std::string(120, 'a') + " " + std::string(length - 121, 'b');
            const Lines output = LogLines(Capture(
                [&] { EXPECT_EQ(length <= 237 ? ExitWith(4) : -1, COM_IfUp(name.c_str())); }));
            EXPECT_EQ(length <= 237
                          ? (Lines{"<" + std::string(120, 'a') + "><" +
                                   std::string(length - 121, 'b') + "><up>"})
                          : (Lines{"COMMON:COM_IfUp(): Warning! overflow (len, size) = (" +
                                   std::to_string(length + 18) + ", 256)"}),
                      output);
        }
        EXPECT_EQ((Lines{"COMMON:COM_IfDown(): Warning! overflow (len, size) = (320, 256)"}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_IfDown(std::string(300, 'x').c_str())); }));
        EXPECT_EQ(-1, COM_IfUp(nullptr));
    });
}

TEST(IfUpDown, RefusesACallerThatIsNotRoot) {
    RunInPrivateWorld(
        kMounts,
        [] {
            FakeIfconfig();
            ASSERT_EQ(0, setuid(65534));
            EXPECT_EQ("", Capture([] {
                          EXPECT_EQ(-1, COM_IfUp("eth0"));
                          EXPECT_EQ(-1, COM_IfDown("eth0"));
                      }));
        },
        true);
}

TEST(IfUpDown, SwitchesARealInterface) {
    if (access("/sbin/ifconfig", X_OK) != 0) {
        GTEST_SKIP() << "/sbin/ifconfig is not installed";
    }
    RunInPrivateWorld(kNetwork, [] {
        const auto isUp = [] {
            const UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
            struct ifreq request = {};
            strcpy(request.ifr_name, "lo");
            EXPECT_EQ(0, ioctl(fd.get(), SIOCGIFFLAGS, &request));
            return (request.ifr_flags & IFF_UP) != 0;
        };
        EXPECT_FALSE(isUp());
        EXPECT_EQ(0, COM_IfUp("lo"));
        EXPECT_TRUE(isUp());
        EXPECT_EQ(0, COM_IfDown("lo"));
        EXPECT_FALSE(isUp());
    });
}

}  // namespace
