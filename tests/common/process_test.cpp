#include "common/process.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/capture.h"
#include "support/child_process.h"
#include "support/file_size_limit.h"
#include "support/interruptions.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr const char *kSleep = "/bin/sleep";

// ---- COM_SavePid ----

TEST(SavePid, WritesThePidAndReturnsMinusOne) {
    const TempDir dir;
    WriteFile(dir / "pid", "a longer text from before\n");
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, COM_SavePid((dir / "pid").c_str())); }));
    EXPECT_EQ(std::to_string(getpid()), ReadFile(dir / "pid"));
}

TEST(SavePid, ReportsAFileThatCannotBeWritten) {
    EXPECT_EQ((Lines{"COMMON:COM_SavePid(): open(/no/such/file) error : No such file or directory",
                     "COMMON:COM_SavePid(): write(/dev/full) error : No space left on device"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, COM_SavePid("/no/such/file"));
                  EXPECT_EQ(-1, COM_SavePid("/dev/full"));
                  EXPECT_EQ(-1, COM_SavePid(nullptr));
              }));
}

TEST(SavePid, OutlastsAFileSizeLimit) {
    const TempDir dir;
    EXPECT_TRUE(UnderFileSizeLimit(0, [&] { return COM_SavePid((dir / "pid").c_str()) == -1; }));
    EXPECT_EQ("", ReadFile(dir / "pid"));
}

// ---- COM_KillDhcpProc ----

TEST(KillDhcpProc, TerminatesEveryProcessWithBothTextsInItsName) {
    RunInPrivateWorld(kPids, [] {
        ChildProcess first{kSleep, Sleeper("/sbin/dhcpc-eth0")};
        ChildProcess second{kSleep, Sleeper("eth0.dhcpc")};
        ChildProcess otherInterface{kSleep, Sleeper("/sbin/dhcpc-eth1")};
        ChildProcess otherProgram{kSleep, Sleeper("/sbin/zcip-eth0")};
        EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(0, COM_KillDhcpProc("dhcpc", "eth0")); }));
        for (ChildProcess *hit : {&first, &second}) {
            const int status = hit->Wait();
            EXPECT_TRUE(WIFSIGNALED(status));
            EXPECT_EQ(SIGTERM, WTERMSIG(status));
        }
        EXPECT_TRUE(otherInterface.Lives());
        EXPECT_TRUE(otherProgram.Lives());
    });
}

// The arguments have a NUL between them, at which the text ends.
TEST(KillDhcpProc, ComparesTheProgramNameAlone) {
    RunInPrivateWorld(kPids, [] {
        ChildProcess named{"/bin/sh", {"dhcpc", "-c", "sleep 60; : eth0"}};
        EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(-1, COM_KillDhcpProc("dhcpc", "eth0")); }));
        EXPECT_TRUE(named.Lives());
        EXPECT_EQ(0, COM_KillDhcpProc("dhcpc", ""));
        EXPECT_EQ(SIGTERM, named.Wait());
    });
}

TEST(KillDhcpProc, Compares128Bytes) {
    RunInPrivateWorld(kPids, [] {
        ChildProcess inside{kSleep, Sleeper(std::string(124, 'x') + "dhcp")};
        ChildProcess across{kSleep, Sleeper(std::string(125, 'x') + "dhcp")};
        ChildProcess newline{kSleep, Sleeper("x\ndhcp")};
        EXPECT_EQ(0, COM_KillDhcpProc("x", "dhcp"));
        EXPECT_EQ(SIGTERM, inside.Wait());
        EXPECT_TRUE(across.Lives());
        EXPECT_TRUE(newline.Lives()) << "one line is read";
    });
}

TEST(KillDhcpProc, ReturnsMinusOneWithoutAMessageWhenNothingMatches) {
    RunInPrivateWorld(kPids, [] {
        const ChildProcess zombie{"/bin/true", {"dhcpc-eth0"}};
        zombie.AwaitZombie();
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(-1, COM_KillDhcpProc("dhcpc", "eth0"));
                      EXPECT_EQ(-1, COM_KillDhcpProc("no such", "program"));
                  }));
    });
}

TEST(KillDhcpProc, RefusesNull) {
    EXPECT_EQ((Lines{"COMMON:COM_KillDhcpProc(): NULL pointer pretection!",
                     "COMMON:COM_KillDhcpProc(): NULL pointer pretection!"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, COM_KillDhcpProc(nullptr, "x"));
                  EXPECT_EQ(-1, COM_KillDhcpProc("x", nullptr));
              }));
}

TEST(KillDhcpProc, LogsTheSameWithoutProc) {
    RunInPrivateWorld(
        kMounts,
        [] {
            ASSERT_EQ(0, chroot("/dev/shm"));  // a directory without /proc
            EXPECT_EQ((Lines{"COMMON:COM_KillDhcpProc(): NULL pointer pretection!"}),
                      CaptureLog([] { EXPECT_EQ(-1, COM_KillDhcpProc("x", "y")); }));
        },
        true);
}

// Entries that no kernel has, and one whose process has ended in the meantime. The process ids are
// the world's own, so that no process of the machine can be signalled.
TEST(KillDhcpProc, ReportsWhatItCannotSignalAndGoesOn) {
    RunInPrivateWorld(kPids, [] {
        ChildProcess real{kSleep, Sleeper("dhcpc")};
        ReplaceDir("/proc");
        const std::string cmdline("dhcpc\0-i\0", 9);
        for (const char *entry : {"0", "4000000", "99999999999", "x1", "self"}) {
            WriteFile(std::string{"/proc/"} + entry + "/cmdline", cmdline);
        }
        WriteFile("/proc/" + std::to_string(real.pid()) + "/cmdline", cmdline);
        Lines log = CaptureLog([] { EXPECT_EQ(0, COM_KillDhcpProc("dhcp", "c")); });
        std::sort(log.begin(), log.end());
        EXPECT_EQ((Lines{"COMMON: kill [dhcp/c][4000000] failed: No such process",
                         "COMMON:COM_KillDhcpProc(): Invalid pid[0]",
                         "COMMON:COM_KillDhcpProc(): Invalid pid[0]"}),
                  log);
        EXPECT_EQ(SIGTERM, real.Wait());
        Capture([] { EXPECT_EQ(-1, COM_KillDhcpProc("dhcp", "c")) << "none could be signalled"; });
    });
}

// ---- COM_CloseFdExceptSTD ----

std::vector<int> OpenFds() {
    std::vector<int> fds;
    for (int fd = 0; fd < 5000; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) {
            fds.push_back(fd);
        }
    }
    return fds;
}

TEST(CloseFdExceptSTD, ClosesItsOwnListingToo) {
    RunInPrivateWorld(kMounts, [] {
        for (int i = 0; i < 5; ++i) {
            ASSERT_GE(dup(0), 0);
        }
        errno = 0;
        EXPECT_EQ(-1, COM_CloseFdExceptSTD(getpid()));
        EXPECT_EQ(EBADF, errno);
        EXPECT_EQ((std::vector<int>{0, 1, 2}), OpenFds());
    });
}

// More entries than one read of the directory returns.
TEST(CloseFdExceptSTD, ClosesThousands) {
    RunInPrivateWorld(kMounts, [] {
        rlimit limit;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        if (limit.rlim_max < 4500) {
            GTEST_SKIP() << "the hard limit of descriptors is " << limit.rlim_max;
        }
        limit.rlim_cur = 4500;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        while (dup(0) < 4400) {
        }
        EXPECT_EQ(-1, COM_CloseFdExceptSTD(getpid()));
        EXPECT_EQ((std::vector<int>{0, 1, 2}), OpenFds());
    });
}

TEST(CloseFdExceptSTD, ClosesTheNumbersThatAnotherProcessHas) {
    RunInPrivateWorld(kPids, [] {
        // The sleeper has 0, 1, 2 and those that were made before it.
        ASSERT_EQ(50, dup2(0, 50));
        const ChildProcess other{kSleep, Sleeper("sleep")};
        ASSERT_EQ(60, dup2(0, 60));
        // The listing gets a number that the sleeper does not have, not even while it is being
        // loaded.
        while (dup(0) < 20) {
        }
        EXPECT_EQ(0, COM_CloseFdExceptSTD(other.pid()))
            << "the listing's own descriptor is not among them";
        EXPECT_EQ(-1, fcntl(50, F_GETFD));
        EXPECT_NE(-1, fcntl(60, F_GETFD));
        EXPECT_NE(-1, fcntl(2, F_GETFD));
    });
}

TEST(CloseFdExceptSTD, ReturnsWhatTheLoggerReturnsWithoutAListing) {
    RunInPrivateWorld(kPids, [] {
        ASSERT_EQ(50, dup2(0, 50));
        int result = 0;
        const std::string output = Capture([&] { result = COM_CloseFdExceptSTD(4000000); });
        EXPECT_EQ(static_cast<int>(output.size()), result);
        EXPECT_EQ((Lines{"COMMON:COM_CloseFdExceptSTD(): opendir(/proc/4000000/fd) error : No such "
                         "file or directory"}),
                  talvek::test::LogLines(output));
        EXPECT_NE(-1, fcntl(50, F_GETFD));
    });
}

// ---- COM_PopenRead ----

struct Output {
    Lines lines;
    int ends = 0;
};

void Collect(const char *pLine, void *pUser) {
    Output &output = *static_cast<Output *>(pUser);
    if (pLine == nullptr) {
        ++output.ends;
    } else {
        EXPECT_EQ(0, output.ends) << "the end comes last";
        output.lines.push_back(pLine);
    }
}

TEST(PopenRead, HandsOverEachLineAndTheEnd) {
    Output output;
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(0, COM_PopenRead("echo 1; echo 2; echo 3", nullptr, &output, Collect));
              }));
    EXPECT_EQ((Lines{"1\n", "2\n", "3\n"}), output.lines);
    EXPECT_EQ(1, output.ends);
}

TEST(PopenRead, LogsAndReturnsARawStatusOtherThanZero) {
    Output output;
    EXPECT_EQ((Lines{"COMMON:COM_PopenRead(): pclose() return 256",
                     "COMMON:COM_PopenRead(): pclose() return 32512",  // 127 * 256
                     "COMMON:COM_PopenRead(): pclose() return 9"}),
              CaptureLog([&] {
                  EXPECT_EQ(256, COM_PopenRead("exit 1", nullptr, &output, Collect));
                  EXPECT_EQ(127 << 8, COM_PopenRead("exec 2>/dev/null; no-such-program", nullptr,
                                                    &output, Collect));
                  EXPECT_EQ(SIGKILL, COM_PopenRead("kill -9 $$", nullptr, &output, Collect));
              }));
    EXPECT_EQ(Lines{}, output.lines);
    EXPECT_EQ(3, output.ends);
}

TEST(PopenRead, CutsALongLineInto255) {
    Output output;
    for (const size_t length : {254, 255, 256, 600}) {
        output = {};
        const std::string text(length, 'x');
        EXPECT_EQ(0, COM_PopenRead(("echo " + text).c_str(), nullptr, &output, Collect));
        std::string joined;
        for (const std::string &line : output.lines) {
            EXPECT_GE(255U, line.size());
            joined += line;
        }
        EXPECT_EQ(text + "\n", joined);
        EXPECT_EQ((length + 1 + 254) / 255, output.lines.size());
    }
}

TEST(PopenRead, HandsOverALastLineWithoutNewline) {
    Output output;
    EXPECT_EQ(0, COM_PopenRead("printf 'a\\nb'", nullptr, &output, Collect));
    EXPECT_EQ((Lines{"a\n", "b"}), output.lines);
    EXPECT_EQ(1, output.ends);
}

TEST(PopenRead, HandsOverALineAsSoonAsItIsThere) {
    // The command waits until the callback has had its first line.
    const TempDir dir;
    const std::string flag = dir / "flag";
    const std::string command =
        "echo first; while ! test -e " + flag + "; do sleep 0.01; done; echo second";
    struct Seen {
        std::string flag;
        int lines = 0;
    } seen{flag};
    EXPECT_EQ(0, COM_PopenRead(command.c_str(), nullptr, &seen, [](const char *pLine, void *pUser) {
                  Seen &s = *static_cast<Seen *>(pUser);
                  if (pLine != nullptr && ++s.lines == 1) {
                      EXPECT_STREQ("first\n", pLine);
                      WriteFile(s.flag, "");
                  }
              }));
    EXPECT_EQ(2, seen.lines);
}

TEST(PopenRead, RunsWithoutACallback) {
    EXPECT_EQ(0, COM_PopenRead("echo 1", nullptr, nullptr, nullptr));
    Capture([] { EXPECT_EQ(256, COM_PopenRead("exit 1", nullptr, nullptr, nullptr)); });
}

TEST(PopenRead, CollectsTheStatusWhereSigchldWasIgnored) {
    RunInPrivateWorld(kMounts, [] {
        signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(0, COM_PopenRead("true", nullptr, nullptr, nullptr));
        EXPECT_EQ(SIG_DFL, signal(SIGCHLD, SIG_DFL)) << "the default action stays";
    });
}

TEST(PopenRead, FailsOnNull) {
    Output output;
    EXPECT_EQ((Lines{"COMMON:COM_PopenRead(): popen((null)) error : Bad address"}), CaptureLog([&] {
                  EXPECT_EQ(-1, COM_PopenRead(nullptr, nullptr, &output, Collect));
              }));
    EXPECT_EQ(0, output.ends);
}

TEST(PopenRead, ReportsACommandThatCannotBeStarted) {
    RunInPrivateWorld(kMounts, [] {
        rlimit limit;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        signal(SIGCHLD, SIG_IGN);
        Output output;
        const Lines log = CaptureLog([&] {
            const int firstFree = dup(STDOUT_FILENO);
            close(firstFree);
            limit.rlim_cur = rlim_t(firstFree);  // higher ones may be open
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
            EXPECT_EQ(-1, COM_PopenRead("true", nullptr, &output, Collect));
        });
        EXPECT_EQ((Lines{"COMMON:COM_PopenRead(): popen(true) error : Too many open files"}), log);
        EXPECT_EQ(0, output.ends);
        EXPECT_EQ(SIG_DFL, signal(SIGCHLD, SIG_DFL)) << "it is set before the command is started";
    });
}

TEST(PopenRead, PrintsInOrderWithTheCommand) {
    EXPECT_EQ("before\ncommand\nafter\n", CaptureAll([] {
                  printf("before\n");
                  COM_PopenRead("echo command >&2", nullptr, nullptr, nullptr);
                  printf("after\n");
              }));
}

TEST(PopenRead, KeepsItsPipeFromOtherCommands) {
    const char *list = "ls /proc/self/fd";
    Output alone;
    COM_PopenRead(list, nullptr, &alone, Collect);
    Output inside;
    COM_PopenRead("echo line", nullptr, &inside, [](const char *pLine, void *pUser) {
        if (pLine != nullptr) {
            COM_PopenRead("ls /proc/self/fd", nullptr, pUser, Collect);
        }
    });
    EXPECT_EQ(alone.lines, inside.lines);
    EXPECT_LE(4U, inside.lines.size());
}

TEST(PopenRead, ReadsOnAfterASignal) {
    RunInPrivateWorld(kMounts, [] {
        const Interruptions often{10};
        Output output;
        EXPECT_EQ(0,
                  COM_PopenRead("sleep 0.1; echo 1; sleep 0.1; echo 2", nullptr, &output, Collect));
        EXPECT_LT(0, Interruptions::count());
        EXPECT_EQ((Lines{"1\n", "2\n"}), output.lines);
    });
}

TEST(PopenRead, LeavesNoDescriptorAndNoChild) {
    const std::vector<int> before = OpenFds();
    for (int i = 0; i < 20; ++i) {
        COM_PopenRead("echo 1", nullptr, nullptr, nullptr);
    }
    EXPECT_EQ(before, OpenFds());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST(Interruption, KeepsThePartOfALineThatWasRead) {
    RunInPrivateWorld(kMounts, [] {
        const Interruptions often{10};
        Lines lines;
        EXPECT_EQ(0, COM_PopenRead("printf par; sleep 0.2; echo tial; printf end", nullptr, &lines,
                                   [](const char *pLine, void *pUser) {
                                       if (pLine != nullptr) {
                                           static_cast<Lines *>(pUser)->push_back(pLine);
                                       }
                                   }));
        EXPECT_EQ((Lines{"partial\n", "end"}), lines);
    });
}

}  // namespace
