// The program as its users start it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "service/support/program.h"
#include "service/support/wire.h"
#include "support/capture.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

TEST(CommandLine, WithoutAModeLogsThatAndReturnsZero) {
    for (const Arguments &arguments :
         {Arguments{}, Arguments{"-f", "true"}, Arguments{"-s", "/tmp/x"}, Arguments{"word"}}) {
        const Outcome outcome = RunProgram(arguments);
        EXPECT_EQ(0, outcome.exitStatus());
        EXPECT_EQ((Lines{"TALVEK: Unknown mode[0]"}), outcome.lines());
    }
}

TEST(CommandLine, IgnoresUnknownOptions) {
    const Outcome outcome =
        RunProgram({"-x", "-D", "-C", "--", "-D"}, [] { dup2(STDOUT_FILENO, STDERR_FILENO); });
    const Lines lines = outcome.lines();
    ASSERT_EQ(3u, lines.size());
    const char *pComplaint = StaticProgram() ? "unrecognized option: x" : "invalid option -- 'x'";
    EXPECT_NE(std::string::npos, lines[0].find(pComplaint));
    EXPECT_EQ("TALVEK: Client Mode - [/var/run/TALVEK][]", lines[1]);
}

TEST(CommandLine, ClientWithoutADaemonExitsWith255) {
    const TempDir dir;
    const std::string path = dir / "nobody";
    const Outcome outcome = RunProgram({"-C", "-f", "true", "-s", path});
    EXPECT_EQ(255, outcome.exitStatus());
    EXPECT_EQ((Lines{"TALVEK: Client Mode - [" + path + "][true]",
                     "TALVEK: connect(" + path + ", " + std::to_string(path.size() + 2) +
                         ") failed : No such file or directory"}),
              outcome.lines());
}

TEST(CommandLine, OptionsMayComeInAnyOrder) {
    const Daemon daemon;
    const std::string &path = daemon.socket();
    for (const Arguments &arguments :
         {Arguments{"-C", "-f", "exit 3", "-s", path}, Arguments{"-s", path, "-f", "exit 3", "-C"},
          Arguments{"-fexit 3", "-C", "-s" + path}, Arguments{"-Cfexit 3", "-s", path},
          Arguments{"-f", "exit 4", "-f", "exit 3", "-s", "/nowhere", "-s", path, "-C"},
          Arguments{"word", "-C", "word", "-f", "exit 3", "-s", path, "word"},
          Arguments{"-D", "-C", "-f", "exit 3", "-s", path}}) {
        const Outcome outcome = RunProgram(arguments);
        EXPECT_EQ(3, outcome.exitStatus());
        EXPECT_EQ((Lines{"TALVEK: Client Mode - [" + path + "][exit 3]"}), outcome.lines());
    }
}

TEST(CommandLine, TheLastModeApplies) {
    const TempDir dir;
    // A daemon that cannot bind ends at once.
    const std::string path = dir / "missing/socket";
    const Outcome outcome = RunProgram({"-C", "-f", "true", "-D", "-s", path});
    EXPECT_EQ(0, outcome.exitStatus());
    EXPECT_EQ("TALVEK: Daemon Mode - [" + path + "]", outcome.lines().at(0));
}

TEST(CommandLine, ClientExitsWithTheCommandsStatus) {
    const Daemon daemon;
    for (const int status : {0, 1, 7, 127, 255}) {
        EXPECT_EQ(status, daemon.Client("exit " + std::to_string(status)).exitStatus());
    }
    EXPECT_EQ(127, daemon.Client("/no/such/program").exitStatus());
    EXPECT_EQ(255, daemon.Client("kill -KILL $$").exitStatus());
    EXPECT_EQ(255, daemon.Client("kill -TERM $$").exitStatus());
    EXPECT_EQ(0, RunProgram({"-C", "-s", daemon.socket()}).exitStatus()) << "an empty command";
    EXPECT_TRUE(daemon.Logs("Command => []\n"));
}

// A result has 32 bits.
TEST(CommandLine, ClientExitsWithTheLowestEightBitsOfAResult) {
    const TempDir dir;
    const std::string path = dir / "socket";
    const int listener = ListenAt(path);
    for (const auto &[result, status] : {std::pair{300, 44}, {-1, 255}, {256, 0}}) {
        std::thread daemon{AnswerOneClient, listener, result};
        EXPECT_EQ(status, RunProgram({"-C", "-f", "true", "-s", path}).exitStatus());
        daemon.join();
    }
    close(listener);
}

TEST(CommandLine, TheClientsEnvironmentOverridesTheDaemons) {
    Daemon::Options options;
    options.prepare = [] {
        setenv("BOTH", "daemon", 1);
        setenv("DAEMON", "daemon", 1);
    };
    const Daemon daemon{options};
    const Outcome outcome =
        RunProgram({"-C", "-s", daemon.socket(), "-f", "echo $BOTH $DAEMON $CLIENT"}, [] {
            setenv("BOTH", "client", 1);
            setenv("CLIENT", "a b=c", 1);
        });
    EXPECT_EQ(0, outcome.exitStatus());
    EXPECT_TRUE(daemon.Logs("client daemon a b=c\n"));
}

// A package has room for 1152 - 16 bytes of environment.
TEST(CommandLine, SendsAnEnvironmentOfUpTo1136Bytes) {
    const Daemon daemon;
    for (const size_t size : {size_t{1135}, size_t{1136}, size_t{1137}}) {
        const Outcome outcome =
            RunProgram({"-C", "-s", daemon.socket(), "-f", "exit ${A:+19}"}, [size] {
                clearenv();
                setenv("A", std::string(size - 3, 'a').c_str(), 1);  // with "A=" and the NUL
            });
        const bool fits = size <= 1136;
        EXPECT_EQ(fits ? 19 : 0, outcome.exitStatus());
        Lines expected{"TALVEK: Client Mode - [" + daemon.socket() + "][exit ${A:+19}]"};
        if (!fits) {
            expected.emplace_back(
                "TALVEK:TALVEK_Client(): Warning!!using size(1153) > CALLOC "
                "buf_sz(1152), break loop");
        }
        EXPECT_EQ(expected, outcome.lines());
    }
}

std::string Padded(const std::string &command, size_t length) {
    return command + std::string(length - command.size(), '#');
}

TEST(CommandLine, SendsACommandOf79Characters) {
    const Daemon daemon;
    const std::string command = Padded("exit 5 ", 79);
    EXPECT_EQ(5, RunProgram({"-C", "-s", daemon.socket(), "-f", command}).exitStatus());
    EXPECT_EQ(5, RunProgram({"-C", "-f", command, "-s", daemon.socket()}).exitStatus());
    EXPECT_TRUE(daemon.Logs("Command => [" + command + "]\n"));
}

// Log lines, after the one about a text of `length` characters that was cut to `size`.
Lines AfterOverflow(size_t length, size_t size, Lines lines) {
    if (length > size) {
        lines.insert(lines.begin(), "TALVEK: Warning! overflow (len, size) = (" +
                                        std::to_string(length) + ", " + std::to_string(size) + ")");
    }
    return lines;
}

// Its NUL is the first byte of the path.
TEST(CommandLine, CommandOf80CharactersEmptiesThePath) {
    const Daemon daemon;
    for (const size_t length : {size_t{80}, size_t{81}, size_t{200}}) {
        const std::string command = Padded("exit 5 ", length);
        const Outcome outcome = RunProgram({"-C", "-s", daemon.socket(), "-f", command});
        EXPECT_EQ(255, outcome.exitStatus());
        EXPECT_EQ(AfterOverflow(length, 80,
                                Lines{"TALVEK: Client Mode - [][" + command.substr(0, 80) + "]",
                                      "TALVEK: connect(, 2) failed : Invalid argument"}),
                  outcome.lines());
    }
    EXPECT_EQ(255, RunProgram({"-C", "-f", Padded("true ", 80)}).exitStatus());
    const std::string command = Padded("true ", 80);
    EXPECT_EQ(255,
              RunProgram({"-C", "-s", daemon.socket(), "-f", command, "-f", "true"}).exitStatus())
        << "the path stays empty after a shorter command";
}

TEST(CommandLine, APathAfterACommandOf80CharactersApplies) {
    const Daemon daemon;
    for (const size_t length : {size_t{80}, size_t{81}, size_t{200}}) {
        const std::string command = Padded("exit 6 ", length);
        const Outcome outcome = RunProgram({"-C", "-f", command, "-s", daemon.socket()});
        EXPECT_EQ(6, outcome.exitStatus());
        EXPECT_EQ(AfterOverflow(length, 80,
                                Lines{"TALVEK: Client Mode - [" + daemon.socket() + "][" +
                                      command.substr(0, 80) + "]"}),
                  outcome.lines());
    }
    EXPECT_TRUE(daemon.Logs("Command => [" + Padded("exit 6 ", 80) + "]\n"));
}

TEST(CommandLine, CutsAPathTo128Characters) {
    for (const size_t length : {size_t{127}, size_t{128}, size_t{129}, size_t{500}}) {
        std::string path = "/tmp/no/";
        path.resize(length, 'p');
        const Outcome outcome = RunProgram({"-C", "-s", path});
        EXPECT_EQ(255, outcome.exitStatus());
        EXPECT_EQ(AfterOverflow(length, 128,
                                Lines{"TALVEK: Client Mode - [" + path.substr(0, 128) + "][]",
                                      "TALVEK: connect(" + path.substr(0, 107) +
                                          ", 109) failed : No such file or directory"}),
                  outcome.lines());
    }
}

// What is cut is logged, also when a later option replaces it.
TEST(CommandLine, LogsEachTextThatIsCut) {
    EXPECT_EQ(AfterOverflow(81, 80, AfterOverflow(129, 128, Lines{"TALVEK: Unknown mode[0]"})),
              RunProgram({"-f", Padded("", 81), "-s", Padded("", 129), "-f", "true"}).lines());
    EXPECT_EQ((Lines{"TALVEK: Unknown mode[0]"}),
              RunProgram({"-f", Padded("", 80), "-s", Padded("", 128)}).lines());
}

TEST(CommandLine, UsesTheDefaultSocket) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/var");
        ASSERT_EQ(0, mkdir("/var/run", 0755));
        Daemon::Options options;
        options.socket = "/var/run/TALVEK";
        const Daemon daemon{options};
        const Outcome outcome = RunProgram({"-C", "-f", "exit 21"});
        EXPECT_EQ(21, outcome.exitStatus());
        EXPECT_EQ((Lines{"TALVEK: Client Mode - [/var/run/TALVEK][exit 21]"}), outcome.lines());
    });
}

TEST(CommandLine, DaemonLogsEachLineOnceFromTheBackground) {
    const Daemon daemon;  // expects that the foreground process exits with 0
    EXPECT_EQ(0, daemon.Client("echo out; echo err >&2").exitStatus());
    // The listening process logs the fork while the handler runs, or later.
    EXPECT_TRUE(daemon.Logs("] fork() to handle client()\n"));
    EXPECT_TRUE(daemon.Logs("err\n"));
    // Neither the listening process nor a child prints what its parent has buffered.
    Lines lines = daemon.logLines();
    for (std::string &line : lines) {
        for (char &letter : line) {
            letter = isdigit(letter) ? '#' : letter;
        }
    }
    std::string path = daemon.socket();
    for (char &letter : path) {
        letter = isdigit(letter) ? '#' : letter;
    }
    const auto once = [&lines](const std::string &start) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string &line) {
            return line.compare(0, start.size(), start) == 0;
        });
    };
    EXPECT_EQ("TALVEK: Daemon Mode - [" + path + "]", lines.at(0));
    EXPECT_EQ(1, once("TALVEK: Daemon Mode"));
    EXPECT_EQ(1, once("TALVEK: Master["));
    EXPECT_TRUE(
        daemon.Logs("] is leaving - you're on your own [" + std::to_string(daemon.pid()) + "]\n"));
    EXPECT_EQ(1, once("COMMON:COM_RemoveRealFile(): stat(" + path +
                      ") error : No such file or directory"));
    EXPECT_EQ(1, once("TALVEK: PID["));
    EXPECT_EQ(1, once("TALVEK:TALVEK_DaemonHandler(): Command => [echo out; echo err >&#]"));
    EXPECT_EQ(1, once("out"));
    EXPECT_EQ(1, once("err"));
    EXPECT_EQ(7u, lines.size()) << daemon.log();
}

// A daemon that cannot bind ends at once.
TEST(CommandLine, TheForegroundProcessLogsItsOwnId) {
    const TempDir dir;
    const int log = open((dir / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const pid_t pid = StartProgram({"-D", "-s", dir / "missing/socket"}, log);
    EXPECT_EQ(0, WaitFor(pid));
    close(log);
    EXPECT_NE(std::string::npos,
              ReadFile(dir / "log")
                  .find(": Master[" + std::to_string(pid) + "] is leaving - you're on your own ["));
}

TEST(CommandLine, AFailedBindIsReportedInTheLogOnly) {
    const TempDir dir;
    Daemon::Options options;
    options.dir = &dir;
    options.socket = "missing/socket";
    options.waitForSocket = false;
    Daemon daemon{options};
    EXPECT_TRUE(daemon.Logs("bind(" + daemon.socket() + ", " +
                            std::to_string(daemon.socket().size() + 2) +
                            ") failed : No such file or directory\n"));
    daemon.Stop(0);  // it ends by itself
}

// A user who may have one process.
TEST(CommandLine, LogsThatItCannotForkIntoTheBackground) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user without other processes";
    }
    if (Emulated()) {
        GTEST_SKIP() << "the threads of an emulator count as processes";
    }
    const Outcome outcome = RunProgram({"-D", "-s", "/nowhere/socket"}, [] {
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the leak check needs a process
        BecomeUserWith(1);
    });
    EXPECT_EQ(0, outcome.exitStatus());
    EXPECT_EQ((Lines{"TALVEK: Daemon Mode - [/nowhere/socket]",
                     "TALVEK: fork() failed : Resource temporarily unavailable"}),
              outcome.lines());
}

TEST(CommandLine, DaemonStaysInItsDirectoryAndSession) {
    const TempDir dir;
    Daemon::Options options;
    options.prepare = [&] { static_cast<void>(chdir(dir.path().c_str())); };
    const Daemon daemon{options};
    EXPECT_EQ(0, daemon.Client("pwd -P >where").exitStatus());
    EXPECT_EQ(dir.path() + "\n", ReadFile(dir / "where"));
    EXPECT_EQ(getsid(0), getsid(daemon.pid()));
}

TEST(CommandLine, CommandsInheritTheDaemonsInputDescriptorsAndProcessGroup) {
    const TempDir dir;
    WriteFile(dir / "input", "20 1\n");
    WriteFile(dir / "other", "21\n");
    Daemon::Options options;
    options.prepare = [&] {
        setpgid(0, 0);
        dup2(open((dir / "input").c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dup2(open((dir / "other").c_str(), O_RDONLY | O_CLOEXEC), 7);
    };
    Daemon daemon{options};
    EXPECT_EQ(20, daemon.Client("read status rest; exit $status").exitStatus());
    EXPECT_EQ(21, daemon.Client("read status <&7; exit $status").exitStatus());
    EXPECT_EQ(1, daemon.Client("kill 0").exitStatus()) << "its handler gets the signal too";
    EXPECT_TRUE(EndedBy(daemon.Stop(0), SIGTERM)) << "and the daemon";
    EXPECT_NE(0, access(daemon.socket().c_str(), F_OK));
}

void CloseStandardStreams() {
    close(0);
    close(1);
    close(2);
}

// Ends a daemon that only its socket names: the parent of a handler is the listening process.
void EndDaemonAt(const std::string &path) {
    const TempDir dir;
    const std::string parent = dir / "parent";
    EXPECT_EQ(0, RunProgram({"-C", "-s", path, "-f",
                             "sed -n 's/^PPid:\t//p' /proc/$PPID/status >" + parent})
                     .exitStatus());
    const pid_t pid = std::stoi("0" + ReadFile(parent));
    ASSERT_GT(pid, 1);
    EXPECT_EQ(0, kill(pid, SIGTERM));
    EXPECT_TRUE(Eventually([&] { return access(path.c_str(), F_OK) != 0; }));
}

// A daemon serves clients at a path, and ends.
void ExpectService(const std::string &path) {
    int fd = -1;
    ASSERT_TRUE(Eventually([&] { return (fd = ConnectTo(path)) >= 0; }));
    close(fd);
    EXPECT_EQ(5, RunProgram({"-C", "-s", path, "-f", "exit 5"}).exitStatus());
    EndDaemonAt(path);
}

// A socket must not get the number of a standard stream that the caller has closed.
TEST(CommandLine, SocketsDoNotReplaceClosedStandardStreams) {
    const TempDir dir;
    Daemon daemon;
    for (int missing = 0; missing <= 3; ++missing) {
        const Outcome outcome =
            RunProgram({"-C", "-f", "echo out; exit 4", "-s", daemon.socket()}, [&] {
                if (missing == 3) {
                    CloseStandardStreams();
                } else {
                    close(missing);
                }
            });
        EXPECT_EQ(4, outcome.exitStatus()) << missing;
    }
    // Nobody can read the log of this daemon; a command reports its process id.
    const std::string path = dir / "quiet";
    const Outcome started = RunProgram({"-D", "-s", path}, CloseStandardStreams);
    EXPECT_EQ(0, started.exitStatus());
    EXPECT_TRUE(Eventually([&] { return access(path.c_str(), F_OK) == 0; }));
    Outcome outcome;
    const std::string file = dir / "fds";
    EXPECT_TRUE(Eventually([&] {
        outcome =
            RunProgram({"-C", "-s", path, "-f", "ls -l /proc/$PPID/fd >" + file + "; exit 9"});
        return outcome.exitStatus() != 255;
    }));
    EXPECT_EQ(9, outcome.exitStatus());
    EXPECT_EQ(9, RunProgram({"-C", "-s", path, "-f", "echo x; echo y >&2; exit 9"}).exitStatus());
    const std::string fds = ReadFile(file);
    for (const char *pNull : {"0 -> /dev/null", "1 -> /dev/null", "2 -> /dev/null"}) {
        EXPECT_NE(std::string::npos, fds.find(pNull)) << fds;
    }
    EndDaemonAt(path);
}

// As early at boot, before /dev is there.
TEST(CommandLine, SocketsDoNotReplaceClosedStandardStreamsWithoutDevNull) {
    RunInPrivateWorld(kMounts | kPids, [] {
        const TempDir dir;
        ReplaceDir("/dev");
        const std::string path = dir / "socket";
        ASSERT_EQ(0, RunProgram({"-D", "-s", path}, CloseStandardStreams).exitStatus());
        int fd = -1;
        ASSERT_TRUE(Eventually([&] { return (fd = ConnectTo(path)) >= 0; }));
        EXPECT_TRUE(Put(fd, RegisterPkg()));
        EXPECT_EQ(Hex(RegisterPkg()), Hex(Take(fd, 16)));
        const std::string file = dir / "fds";
        EXPECT_TRUE(Put(fd, CommandPkg("ls -l /proc/$PPID/fd >" + file + "; echo out; exit 9")));
        EXPECT_EQ(0, shutdown(fd, SHUT_WR));
        EXPECT_EQ(Hex(ResultPkg(9)), Hex(Take(fd, 4096))) << "packages alone, and no line";
        close(fd);
        const std::string fds = ReadFile(file);
        // An emulator with a library root of its own lists that for "/".
        const int root = open("/", O_RDONLY | O_CLOEXEC);
        const std::string target =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(root));
        close(root);
        for (const char *pStream : {"0 -> ", "1 -> ", "2 -> "}) {
            EXPECT_NE(std::string::npos, fds.find(pStream + target + "\n")) << fds;
        }
        EXPECT_EQ(
            4, RunProgram({"-C", "-s", path, "-f", "exit 4"}, CloseStandardStreams).exitStatus());
        EndDaemonAt(path);
    });
}

TEST(CommandLine, EndsWithOneWhenAMissingStandardStreamCannotBeOpened) {
    if (!StaticProgram() || Emulated()) {
        GTEST_SKIP() << "a loader or an emulator needs descriptors";
    }
    for (const char *pMode : {"-C", "-D"}) {
        const Outcome outcome = RunProgram({pMode, "-s", "/nowhere/socket"}, [] {
            CloseStandardStreams();
            const rlimit none{0, 0};
            setrlimit(RLIMIT_NOFILE, &none);
        });
        EXPECT_EQ(1, outcome.exitStatus());
    }
}

// Every line of the start is lost, those about the options included.
TEST(CommandLine, ADaemonStartsWithALogThatTakesNoLine) {
    RunInPrivateWorld(kMounts | kPids, [] {
        const TempDir dir;
        const std::string path = dir / "socket";
        const Arguments arguments{"-D", "-x", "-s", std::string(129, 'p'), "-s", path};
        int ends[2];
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        close(ends[0]);
        ASSERT_EQ(0, WaitFor(StartProgram(arguments, ends[1]))) << "nobody reads the log";
        ExpectService(path);

        const std::string full(1024, '.');
        WriteFile(dir / "log", full);
        const int file =
            open((dir / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const pid_t limited = StartProgram(arguments, file, [] {
            const rlimit limit{1024, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limit);
        });
        ASSERT_EQ(0, WaitFor(limited)) << "the log may not grow";
        ExpectService(path);
        EXPECT_EQ(full, ReadFile(dir / "log"));

        EXPECT_TRUE(EndedBy(WaitFor(StartProgram({"-C", "-s", path}, ends[1])), SIGPIPE))
            << "a client ends as other programs do";
        close(file);
        close(ends[1]);
    });
}

}  // namespace
