#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/process.h"
#include "support/capture.h"
#include "support/child_process.h"
#include "support/faults.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr const char *kSleep = "/bin/sleep";

bool IsIgnored(int sig) {
    struct sigaction now;
    sigaction(sig, nullptr, &now);
    return now.sa_handler == SIG_IGN;
}

bool IsBlocked(int sig) {
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    return sigismember(&now, sig) == 1;
}

// ---- COM_System ----

// Calls of the child count too: it has the memory of its parent.
TEST(SystemFault, LeavesNothingWhicheverCallFails) {
    EXPECT_LT(7, EveryCallFails(ENOMEM, [] {
                  int pid = 0;
                  const int result = COM_System("/bin/true", &pid);
                  const std::string which = Fault::Which();
                  if (which == "mmap" || which == "clone" || which == "waitpid" ||
                      which == "malloc" || which == "realloc") {
                      EXPECT_EQ(-1, result) << which;
                  } else if (which == "execv") {
                      EXPECT_EQ(COM_NOT_EXECUTED << 8, result);
                  } else {
                      EXPECT_TRUE(result == 0 || which == "sigaction" || which == "sigprocmask")
                          << which;
                  }
                  EXPECT_EQ(0, pid) << which;
                  if (which == "waitpid") {
                      EXPECT_LT(0, wait(nullptr)) << "the status was left";
                  }
                  EXPECT_EQ(-1, wait(nullptr)) << "a child is left after " << which;
              }));
}

TEST(SystemFault, ReportsThatNoProcessCanBeMade) {
    struct Case {
        const char *call;
        int error;
    };
    for (const Case &c : {Case{"clone", EAGAIN}, Case{"mmap", ENOMEM}}) {
        int pid = 77;
        const bool ignored = IsIgnored(SIGINT);
        EXPECT_EQ((Lines{"COMMON:COM_System(): fork() failed : " + std::string{strerror(c.error)}}),
                  CaptureLog([&] {
                      const Fault fault{c.call, 0, c.error};
                      EXPECT_EQ(-1, COM_System("/bin/true", &pid));
                  }));
        EXPECT_EQ(77, pid);
        EXPECT_EQ(ignored, IsIgnored(SIGINT)) << "the signals are as before";
        EXPECT_FALSE(IsBlocked(SIGCHLD));
        EXPECT_FALSE(IsBlocked(SIGTERM));
    }
}

// A SIGINT that was changed already is not restored: sigaction does not fail for a valid number.
TEST(SystemFault, ReturnsAtOnceWhenSignalsCannotBeSet) {
    struct Case {
        const char *call;
        int nth;
        bool interruptIgnored;
    };
    for (const Case &c :
         {Case{"sigaction", 0, false}, Case{"sigaction", 1, true}, Case{"sigprocmask", 0, true}}) {
        RunInPrivateWorld(kMounts, [&c] {
            signal(SIGINT, SIG_DFL);
            int pid = 77;
            EXPECT_EQ("", Capture([&] {
                          const Fault fault{c.call, c.nth, EINVAL};
                          EXPECT_EQ(-1, COM_System("/bin/echo not run", &pid));
                          EXPECT_TRUE(Fault::Tripped());
                      }));
            EXPECT_EQ(77, pid);
            EXPECT_EQ(c.interruptIgnored, IsIgnored(SIGINT));
        });
    }
}

// How many times COM_System makes a call, its child included.
int CallsOf(const char *pCall) {
    const Fault never{pCall, 10000, EINVAL};
    EXPECT_EQ(0, COM_System("/bin/true", nullptr));
    return Fault::Passed();
}

// The last three calls restore SIGINT, SIGQUIT and the mask.
TEST(SystemFault, FailsWhenSignalsCannotBeRestored) {
    struct Case {
        const char *call;
        int fromEnd;
        bool interruptIgnored;
        bool quitIgnored;
        bool childBlocked;
    };
    for (const Case &c :
         {Case{"sigaction", 2, true, false, false}, Case{"sigaction", 1, false, true, false},
          Case{"sigprocmask", 1, false, false, true}}) {
        RunInPrivateWorld(kMounts, [&c] {
            signal(SIGINT, SIG_DFL);
            signal(SIGQUIT, SIG_DFL);
            Capture([&] {
                const Fault fault{c.call, CallsOf(c.call) - c.fromEnd, EINVAL};
                EXPECT_EQ(-1, COM_System("/bin/true", nullptr));
                EXPECT_TRUE(Fault::Tripped());
            });
            EXPECT_EQ(c.interruptIgnored, IsIgnored(SIGINT)) << "the others are restored";
            EXPECT_EQ(c.quitIgnored, IsIgnored(SIGQUIT));
            EXPECT_EQ(c.childBlocked, IsBlocked(SIGCHLD));
        });
    }
}

TEST(SystemFault, FailsWhenTheMaskForTheWaitCannotBeSet) {
    const Fault fault{"sigprocmask", CallsOf("sigprocmask") - 2, EINVAL};
    EXPECT_EQ(-1, COM_System("/bin/true", nullptr));
    EXPECT_FALSE(IsBlocked(SIGTERM)) << "it is restored";
}

TEST(SystemFault, WaitsAgainAfterAnInterruption) {
    for (const char *call : {"waitpid", "waitid"}) {
        const Fault fault{call, 0, EINTR};
        EXPECT_EQ(1 << 8, COM_System("/bin/false", nullptr));
        EXPECT_TRUE(Fault::Tripped());
    }
}

TEST(SystemFault, HasNoStatusAfterAnyOtherFailureToWait) {
    int pid = 77;
    {
        const Fault fault{"waitpid", 0, ECHILD};
        EXPECT_EQ(-1, COM_System("/bin/true", &pid));
    }
    EXPECT_EQ(0, pid);
    EXPECT_LT(0, wait(nullptr));
}

// The descriptors of 3 to 9 that a command inherits on a kernel before Linux 5.9. The script needs
// no /proc.
std::string InheritedWithoutCloseRange() {
    WriteFile("/var/script",
              "for fd in 3 4 5 6 7 8 9; do eval \"true <&$fd\" 2>/dev/null && echo $fd; done\n");
    return Capture([] {
        const Fault fault{"syscall", 0, ENOSYS};
        COM_System("/bin/sh /var/script", nullptr);
        EXPECT_TRUE(Fault::Tripped());
    });
}

TEST(SystemFault, ClosesDescriptorsOneByOneWhereTheKernelKnowsNoRange) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        ASSERT_EQ(9, dup2(0, 9));
        EXPECT_EQ("", InheritedWithoutCloseRange());

        // More entries than one read of the listing returns.
        while (dup(0) < 700) {
        }
        EXPECT_EQ("0\n1\n2\n3\n", Capture([] {
                      const Fault fault{"syscall", 0, ENOSYS};
                      EXPECT_EQ(0, COM_System("/bin/ls /proc/self/fd", nullptr));
                  }));
    });
}

TEST(SystemFault, ClosesDescriptorsWhenEachNumberIsInUse) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        ASSERT_EQ(500, dup2(0, 500));  // above the limit that is set now
        struct rlimit limit;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        // The script takes descriptors too.
        limit.rlim_cur = 40;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        while (dup(0) != -1) {
        }
        for (int fd = 30; fd < 40; ++fd) {
            close(fd);  // for the test's own files
        }
        WriteFile("/var/script", "exec ls /proc/self/fd\n");
        EXPECT_EQ("0\n1\n2\n3\n", Capture([] {
                      while (dup(0) != -1) {
                      }
                      const Fault fault{"syscall", 0, ENOSYS};
                      EXPECT_EQ(0, COM_System("/bin/sh /var/script", nullptr));
                  }));
        for (int fd = 30; fd < 40; ++fd) {
            close(fd);
        }
    });
}

TEST(SystemFault, ClosesDescriptorsWithoutProc) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        ReplaceDir("/proc");
        ASSERT_EQ(9, dup2(0, 9));
        EXPECT_EQ("", InheritedWithoutCloseRange());
    });
}

TEST(SystemFault, LogsWhyTheProgramIsNotExecuted) {
    EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [/bin/true] error : Text file busy"}), CaptureLog([] {
                  const Fault fault{"execv", 0, ETXTBSY};
                  EXPECT_EQ(COM_NOT_EXECUTED << 8, COM_System("  /bin/true  word ", nullptr));
              }));
}

// The first call allocates, the second executes.
TEST(ParserCMDFault, ReturnsAfterEachFailure) {
    for (const int nth : {0, 1}) {
        const long blocks = talvek::test::HeldBlocks();
        EXPECT_EQ((Lines{"COMMON:COM_ParserCMD(): [/bin/true] error : Cannot allocate memory"}),
                  LogLines(CaptureUnderFault([nth] {
                      const Fault fault{nullptr, nth, ENOMEM};
                      EXPECT_EQ(-1, COM_ParserCMD("/bin/true"));
                  })));
        EXPECT_EQ(blocks, talvek::test::HeldBlocks());
    }
}

// ---- signals, states, sleep ----

TEST(KillPidFault, ReportsEachFailure) {
    RunInPrivateWorld(kPids, [] {
        signal(SIGTERM, SIG_IGN);
        EXPECT_LT(0, EveryCallFails(EPERM, [] {
                      int result = 0;
                      const std::string output =
                          CaptureUnderFault([&] { result = COM_KillPid(getpid(), 1000); });
                      EXPECT_EQ(Fault::Which() == "kill" ? -1 : 0, result);
                      if (result != 0) {
                          EXPECT_EQ(
                              (Lines{"COMMON:COM_KillPid(): kill(" + std::to_string(getpid()) +
                                     ") failed : Operation not permitted"}),
                              LogLines(output));
                      }
                  }));
    });
}

TEST(KillProcessFault, ReportsEachFailure) {
    RunInPrivateWorld(kPids, [] {
        const ChildProcess child{kSleep, Sleeper("/opt/unit/recorder")};
        EXPECT_LT(3, EveryCallFails(EPERM, [] {
                      const int result = COM_KillProcess("/opt/unit/recorder", 0, 0);
                      const std::string which = Fault::Which();
                      if (which == "kill" || which == "opendir" || which == "readdir") {
                          EXPECT_EQ(-1, result) << which;
                      }
                  }));
    });
}

TEST(CheckProcStateFault, KeepsTheStateWhenItCannotBeRead) {
    EXPECT_LT(1, EveryCallFails(EIO, [] {
                  tProcState state = {getpid(), "S"};
                  const int result = COM_CheckProcState(&state);
                  const std::string which = Fault::Which();
                  if (which == "fopen" || which == "fgets") {
                      EXPECT_EQ(-1, result) << which;
                      EXPECT_STREQ("S", state.state);
                  } else {
                      EXPECT_EQ(0, result) << which;
                      EXPECT_STREQ("R", state.state);
                  }
              }));
}

TEST(SleepAtLeastFault, SleepsItsTimeAfterASleepThatEndsAtOnce) {
    const struct timespec time = {0, 5'000'000};
    const auto start = std::chrono::steady_clock::now();
    const Fault fault{"nanosleep", 0, EINTR};
    EXPECT_LT(0, COM_SleepAtLeast(&time, 1000));
    EXPECT_LE(std::chrono::milliseconds{5}, std::chrono::steady_clock::now() - start);
}

TEST(SleepAtLeastFault, EndsWithoutAClock) {
    const struct timespec time = {0, 1'000'000};
    EXPECT_LT(0, EveryCallFails(EFAULT, [&] { EXPECT_LE(0, COM_SleepAtLeast(&time, 50)); }));
}

// ---- COM_SavePid, COM_KillDhcpProc, COM_CloseFdExceptSTD, COM_PopenRead ----

TEST(SavePidFault, ReturnsMinusOneWhateverFails) {
    const TempDir dir;
    EXPECT_LT(1, EveryCallFails(EIO, [&] { EXPECT_EQ(-1, COM_SavePid((dir / "pid").c_str())); }));
    EXPECT_EQ(
        (Lines{"COMMON:COM_SavePid(): write(" + (dir / "pid") + ") error : Input/output error"}),
        CaptureLog([&] {
            const Fault fault{"fflush", 0, EIO};
            EXPECT_EQ(-1, COM_SavePid((dir / "pid").c_str()));
        }));
}

TEST(KillDhcpProcFault, ReportsEachFailure) {
    RunInPrivateWorld(kPids, [] {
        signal(SIGTERM,
               SIG_IGN);  // in the child too, so that it lives for all runs
        const ChildProcess child{kSleep, Sleeper("dhcpc-eth0")};
        EXPECT_LT(3, EveryCallFails(EPERM, [&child] {
                      int result = 0;
                      const std::string output =
                          CaptureUnderFault([&] { result = COM_KillDhcpProc("dhcpc", "eth0"); });
                      const std::string which = Fault::Which();
                      if (which == "kill") {
                          EXPECT_EQ(-1, result);
                          EXPECT_EQ(
                              (Lines{"COMMON: kill [dhcpc/eth0][" + std::to_string(child.pid()) +
                                     "] failed: Operation not permitted"}),
                              LogLines(output));
                      } else if (which == "opendir") {
                          EXPECT_EQ(-1, result);
                          EXPECT_EQ((Lines{"COMMON:COM_KillDhcpProc(): NULL pointer pretection!"}),
                                    LogLines(output));
                      } else {
                          EXPECT_EQ("", output) << which;
                      }
                  }));
    });
}

TEST(CloseFdExceptSTDFault, ClosesNothingWithoutAListing) {
    RunInPrivateWorld(kMounts, [] {
        const int fd = dup(0);
        const Fault fault{"opendir", 0, EMFILE};
        EXPECT_LT(0, COM_CloseFdExceptSTD(getpid()));
        EXPECT_NE(-1, fcntl(fd, F_GETFD));
    });
}

void CountEnds(const char *pLine, void *pUser) {
    *static_cast<int *>(pUser) += pLine == nullptr;
}

TEST(PopenReadFault, ReportsEachFailure) {
    EXPECT_LT(2, EveryCallFails(EIO, [] {
                  int ends = 0;
                  int result = 0;
                  const std::string output = CaptureUnderFault(
                      [&] { result = COM_PopenRead("echo 1", nullptr, &ends, CountEnds); });
                  const std::string which = Fault::Which();
                  if (which == "popen") {
                      EXPECT_EQ(-1, result);
                      EXPECT_EQ(0, ends);
                      EXPECT_EQ((Lines{"COMMON:COM_PopenRead(): popen(echo 1) error : Input/output "
                                       "error"}),
                                LogLines(output));
                  } else if (which == "pclose") {
                      EXPECT_EQ(-1, result);
                      EXPECT_EQ(1, ends);
                      EXPECT_EQ((Lines{"COMMON:COM_PopenRead(): pclose() error : Input/output "
                                       "error"}),
                                LogLines(output));
                  } else {
                      EXPECT_EQ(1, ends) << which;
                  }
                  EXPECT_EQ(-1, wait(nullptr)) << "a child is left after " << which;
              }));
}

}  // namespace
