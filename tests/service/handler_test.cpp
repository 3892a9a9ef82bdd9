#include "service/handler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "service/internal/session_table.h"
#include "service/support/program.h"
#include "service/support/waits.h"
#include "service/support/wire.h"
#include "support/capture.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;
using namespace talvek::test;

// The outcome of a handler in a process of its own.
struct Served {
    pid_t pid = -1;
    int wait = -1;
    int result = -99;
    tTalvekClient client = {};
    std::string output;

    [[nodiscard]] Lines lines() const { return LogLines(output); }
};

// The handler that Serve has started, and its end of the connection.
pid_t g_handler = -1;
int g_handlerEnd = -1;

// Waits until the handler has dealt with what was sent and reads again. Packages that one read
// brings together are dropped but for the first, and the queue is empty before the read returns.
bool ReadsAgain(int fd) {
    return HasRead(fd) && BlockedOn(g_handler, g_handlerEnd);
}

// Waits until the output of the handler so far holds a text.
bool HasLogged(const std::string &text) {
    return Eventually([&] { return CapturedSoFar().find(text) != std::string::npos; });
}

// Runs a handler in a forked child, as the daemon does, and its client here. The client's end is
// closed when `peer` returns.
Served Serve(const std::function<void(int fd)> &peer,
             const std::function<void(tTalvekClient &)> &prepare = {}) {
    struct Shared {
        int result;
        tTalvekClient client;
    };
    auto *pShared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    Served served;
    served.output = Capture([&] {
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
        const pid_t child = fork();
        if (child == 0) {
            close(fds[0]);
            signal(SIGCHLD, SIG_IGN);
            signal(SIGPIPE, SIG_IGN);
            signal(SIGXFSZ, SIG_IGN);
            clearenv();
            setenv("PATH", "/usr/bin:/bin", 1);
            pShared->client.daemon_pid = 4711;
            pShared->client.fd = fds[1];
            pShared->client.number = 1;
            if (prepare) {
                prepare(pShared->client);
            }
            pShared->result = TALVEK_DaemonHandler(&pShared->client);
            fflush(stdout);
            _exit(0);
        }
        close(fds[1]);
        g_handler = served.pid = child;
        g_handlerEnd = fds[1];
        peer(fds[0]);
        close(fds[0]);
        served.wait = WaitFor(child);
    });
    served.result = pShared->result;
    served.client = pShared->client;
    munmap(pShared, sizeof *pShared);
    EXPECT_EQ(0, served.wait) << "the handler's process was killed";
    return served;
}

// Sends a command and returns the status in the reply.
int32_t Ask(int fd, const std::string &command) {
    EXPECT_TRUE(Put(fd, CommandPkg(command)));
    const std::string reply = Take(fd, 20);
    EXPECT_EQ(20u, reply.size()) << command;
    EXPECT_EQ(5, U16(reply, 10));
    return static_cast<int32_t>(U32(reply, 16));
}

TEST(Handler, EchoesAnEmptyRegistrationWithSessionAndSequenceZero) {
    const Served served = Serve([](int fd) {
        ASSERT_TRUE(Put(fd, RegisterPkg()));
        EXPECT_EQ("01 11 00 00 00 00 00 00 00 00 01 00 10 00 10 11 ", Hex(Take(fd, 16)));
    });
    EXPECT_EQ("", served.output);
    EXPECT_EQ(0, served.result);
    EXPECT_EQ(-1, served.client.fd);
    EXPECT_EQ(0, served.client.session);
    EXPECT_EQ(1, served.client.sn);
}

// 0x1101 ^ 0x0002 ^ 0x0005 ^ 0x0014 = 0x1112
TEST(Handler, FirstResultCarriesSequenceTwo) {
    const Served served = Serve([](int fd) {
        ASSERT_TRUE(Put(fd, RegisterPkg()));
        Take(fd, 16);
        ASSERT_TRUE(Put(fd, CommandPkg("exit 7")));
        EXPECT_EQ("01 11 00 00 00 00 00 00 02 00 05 00 14 00 12 11 07 00 00 00 ",
                  Hex(Take(fd, 20)));
        EXPECT_TRUE(Quiet(fd)) << "the connection stays open";
    });
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [exit 7]"}), served.lines());
    EXPECT_EQ(0, served.result);
    EXPECT_EQ(-1, served.client.session);
    EXPECT_EQ(2, served.client.sn);
}

TEST(Handler, RegisterReplyIsTheRequestWithSessionSequenceAndChecksum) {
    Serve([](int fd) {
        Pkg request;
        request.reserved = 0x1234;
        request.session = 77;
        request.sn = 9;
        request.type = 1;
        request.payload = "A=1\0B=two=2\0=nameless\0plain\0C=3\0"s;
        ASSERT_TRUE(Put(fd, request.Bytes()));
        Pkg reply = request;
        reply.session = 0;
        reply.sn = 0;
        EXPECT_EQ(Hex(reply.Bytes()), Hex(Take(fd, reply.Bytes().size())));
    });
}

TEST(Handler, CountsSequenceAndSessionAcrossCommandsOfOneConnection) {
    const Served served = Serve([](int fd) {
        const auto reply = [fd](const std::string &request, size_t size) {
            EXPECT_TRUE(Put(fd, request));
            return Take(fd, size);
        };
        // The counter: 0 -> 1 (register), 2 (result), 2 -> 3 (register), 4 (result), 5 (result).
        EXPECT_EQ(0, U16(reply(RegisterPkg(), 16), 8));
        EXPECT_EQ(Hex(ResultPkg(0, 0, 2)), Hex(reply(CommandPkg("true"), 20)));
        EXPECT_EQ(2, U16(reply(RegisterPkg(), 16), 8));
        EXPECT_EQ(Hex(ResultPkg(1, 0, 4)), Hex(reply(CommandPkg("false"), 20)));
        EXPECT_EQ(Hex(ResultPkg(2, 0xFFFFFFFF, 5)), Hex(reply(CommandPkg("exit 2"), 20)));
        // Registered again, a session is held again.
        EXPECT_EQ(0u, U32(reply(RegisterPkg(), 16), 4));
        EXPECT_EQ(Hex(ResultPkg(3, 0, 7)), Hex(reply(CommandPkg("exit 3"), 20)));
    });
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [true]",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [false]",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [exit 2]", "UnReg session failed",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [exit 3]"}),
              served.lines());
}

TEST(Handler, RunsACommandWithoutARegistration) {
    Serve([](int fd) {
        ASSERT_TRUE(Put(fd, CommandPkg("exit 4")));
        EXPECT_EQ(Hex(ResultPkg(4, 0, 1)), Hex(Take(fd, 20)));
    });
}

TEST(Handler, SequenceWrapsAfter65535) {
    Serve(
        [](int fd) {
            ASSERT_TRUE(Put(fd, RegisterPkg()));
            EXPECT_EQ(65535, U16(Take(fd, 16), 8));
            ASSERT_TRUE(Put(fd, CommandPkg("true")));
            EXPECT_EQ(1, U16(Take(fd, 20), 8));
        },
        [](tTalvekClient &client) { client.sn = 65535; });
}

TEST(Handler, SendsEveryStatus) {
    const Served served = Serve([](int fd) {
        for (const int status : {0, 1, 7, 126, 127, 128, 254, 255}) {
            EXPECT_EQ(status, Ask(fd, "exit " + std::to_string(status)));
        }
        EXPECT_EQ(0, Ask(fd, "exit 256"));
        EXPECT_EQ(127, Ask(fd, "/no/such/program 2>/dev/null"));
        EXPECT_EQ(0, Ask(fd, "")) << "the shell runs nothing";
    });
    EXPECT_EQ(0, served.result);
}

TEST(Handler, SendsMinusOneForACommandThatWasKilled) {
    const Served served = Serve([](int fd) {
        EXPECT_EQ(-1, Ask(fd, "kill -KILL $$"));
        EXPECT_EQ(-1, Ask(fd, "kill -TERM $$"));
        EXPECT_EQ(0, Ask(fd, "true"));
    });
    const std::string killed = "child process should not terminated normally WIFEXITED(ret) = 0";
    const Lines lines = served.lines();
    ASSERT_EQ(7u, lines.size());
    EXPECT_EQ(killed, lines[1]);
    EXPECT_EQ(killed, lines[3]);
}

TEST(Handler, CommandRunsInTheClientsEnvironment) {
    Serve([](int fd) {
        ASSERT_TRUE(Put(fd, RegisterPkg("PATH=/usr/bin:/bin\0NAME=with blanks = and more\0"s)));
        Take(fd, 16 + 47);
        EXPECT_EQ(0, Ask(fd, "test \"$NAME\" = 'with blanks = and more'"));
    });
}

TEST(Handler, EnvironmentAccumulates) {
    Serve(
        [](int fd) {
            ASSERT_TRUE(Put(fd, RegisterPkg("A=1\0B=1\0"s)));
            Take(fd, 24);
            EXPECT_EQ(0, Ask(fd, "test $A$B$C = 11daemon"));
            ASSERT_TRUE(Put(fd, RegisterPkg("B=2\0C=2\0"s)));
            Take(fd, 24);
            EXPECT_EQ(0, Ask(fd, "test $A$B$C = 122"));
        },
        [](tTalvekClient &) { setenv("C", "daemon", 1); });
}

TEST(Handler, ReceivesAPackageByteByByte) {
    Serve([](int fd) {
        for (const std::string &bytes :
             {RegisterPkg("A=slow\0"s), CommandPkg("test $A = slow && exit 9")}) {
            for (const char byte : bytes) {
                ASSERT_TRUE(Put(fd, {byte}));
                ASSERT_TRUE(HasRead(fd));
            }
            if (U16(bytes, 10) == 1) {
                EXPECT_EQ(bytes.size(), Take(fd, bytes.size()).size());
            }
        }
        EXPECT_EQ(9u, U32(Take(fd, 20), 16));
    });
}

TEST(Handler, WaitsForTheRestOfAPackage) {
    Serve([](int fd) {
        const std::string bytes = CommandPkg("exit 6");
        for (const size_t cut : {size_t{1}, size_t{15}, size_t{16}, size_t{17}, bytes.size() - 1}) {
            ASSERT_TRUE(Put(fd, bytes.substr(0, cut)));
            ASSERT_TRUE(HasRead(fd));
            EXPECT_TRUE(Quiet(fd));
            ASSERT_TRUE(Put(fd, bytes.substr(cut)));
            EXPECT_EQ(6u, U32(Take(fd, 20), 16));
        }
    });
}

// A bad header is dumped and reported as type 0; the connection stays open.
TEST(Handler, ServesAfterEachKindOfBadHeader) {
    std::vector<Pkg> bad(7);
    for (Pkg &pkg : bad) {
        pkg.type = 2;
        pkg.payload = "exit 1\0"s;
    }
    bad[0].chksum = 0;
    bad[1].byte0 = 0x02;  // version
    bad[2].byte0 = 0x81;  // fragment of one
    bad[3].byte1 = 0x12;  // two packages in one
    bad[4].byte1 = 0x21;  // index above the count
    bad[5].byte0 = 0x81;
    bad[5].byte1 = 0x32;  // fragment 3 of 2
    bad[6].sz = 65535;
    bad[6].chksum = 1;
    const Served served = Serve([&](int fd) {
        for (const Pkg &pkg : bad) {
            ASSERT_TRUE(Put(fd, pkg.Bytes()));
            ASSERT_TRUE(ReadsAgain(fd));
            EXPECT_EQ(0, Ask(fd, "true"));
        }
    });
    const Lines lines = served.lines();
    EXPECT_EQ(7,
              std::count(lines.begin(), lines.end(), "TALVEK: Fail to check tTalvekPkg header:"));
    EXPECT_EQ(7,
              std::count(lines.begin(), lines.end(), "TALVEK: pkg type = 0, not implement yet!"));
}

TEST(Handler, DropsPackagesOfOtherTypes) {
    const Served served = Serve([](int fd) {
        for (const int type : {0, 3, 4, 5, 6, 256, 65535}) {
            Pkg pkg;
            pkg.type = static_cast<uint16_t>(type);
            pkg.payload = "payload";
            ASSERT_TRUE(Put(fd, pkg.Bytes()));
            ASSERT_TRUE(ReadsAgain(fd));
        }
        EXPECT_EQ(0, Ask(fd, "true"));
    });
    Lines expected;
    for (const char *pType : {"0", "3", "4", "5", "6", "256", "65535"}) {
        expected.push_back("TALVEK: pkg type = "s + pType + ", not implement yet!");
    }
    expected.emplace_back("TALVEK:TALVEK_DaemonHandler(): Command => [true]");
    EXPECT_EQ(expected, served.lines());
}

TEST(Handler, ServesAFragmentAsAPackage) {
    Serve([](int fd) {
        Pkg pkg;
        pkg.byte0 = 0x81;
        pkg.byte1 = 0x22;
        pkg.type = 2;
        pkg.payload = "exit 8\0"s;
        ASSERT_TRUE(Put(fd, pkg.Bytes()));
        const std::string reply = Take(fd, 20);
        EXPECT_EQ("81 22 ", Hex(reply.substr(0, 2)));
        EXPECT_EQ(8u, U32(reply, 16));
    });
}

// The bytes that one read brings after a package are dropped with it, whether it was served or not.
TEST(Handler, DropsBytesReceivedAfterAPackage) {
    const Served served = Serve([](int fd) {
        ASSERT_TRUE(Put(fd, RegisterPkg() + CommandPkg("exit 1")));
        EXPECT_EQ(16u, Take(fd, 16).size());
        ASSERT_TRUE(Put(fd, CommandPkg("exit 2") + CommandPkg("exit 3")));
        EXPECT_EQ(2u, U32(Take(fd, 20), 16));
        Pkg unknown;
        unknown.type = 3;
        ASSERT_TRUE(Put(fd, unknown.Bytes() + CommandPkg("exit 4")));
        ASSERT_TRUE(ReadsAgain(fd));
        EXPECT_EQ(5, Ask(fd, "exit 5"));
    });
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [exit 2]",
                     "TALVEK: pkg type = 3, not implement yet!",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [exit 5]", "UnReg session failed"}),
              served.lines());
}

TEST(Handler, ACommandWithoutNulEndsWithItsPackage) {
    const Served served = Serve([](int fd) {
        // An earlier, longer package has left bytes in the buffer.
        ASSERT_TRUE(Put(fd, RegisterPkg("A="s + std::string(1000, 'a') + '\0')));
        Take(fd, 16 + 1003);
        Pkg pkg;
        pkg.type = 2;
        pkg.payload = "exit 3";
        ASSERT_TRUE(Put(fd, pkg.Bytes()));
        EXPECT_EQ(3u, U32(Take(fd, 20), 16));
        // More bytes follow the package.
        ASSERT_TRUE(Put(fd, pkg.Bytes() + "3"));
        EXPECT_EQ(3u, U32(Take(fd, 20), 16));
    });
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [exit 3]",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [exit 3]", "UnReg session failed"}),
              served.lines());
}

TEST(Handler, AcceptsPackagesOfUpTo1152Bytes) {
    const std::string comment = "exit 5 #" + std::string(1136 - 8, 'c');
    const Served served = Serve([&](int fd) {
        Pkg pkg;
        pkg.type = 2;
        pkg.payload = comment;  // without a NUL, for which there is no room
        ASSERT_EQ(1152u, pkg.Bytes().size());
        ASSERT_TRUE(Put(fd, pkg.Bytes()));
        EXPECT_EQ(5u, U32(Take(fd, 20), 16));
        EXPECT_EQ(5, Ask(fd, comment.substr(0, 1135)));

        const std::string strings = "A=" + std::string(1136 - 2, 'e');
        ASSERT_TRUE(Put(fd, RegisterPkg(strings)));
        EXPECT_EQ(Hex(RegisterPkg(strings)).substr(48), Hex(Take(fd, 1152)).substr(48));
        EXPECT_EQ(0, Ask(fd, "test ${#A} = 1134"));
    });
    EXPECT_EQ("TALVEK:TALVEK_DaemonHandler(): Command => [" + comment + "]", served.lines()[0]);
}

TEST(Handler, ClosesOnASizeAbove1152) {
    for (const int sz : {1153, 1168, 65535}) {
        const Served served = Serve([sz](int fd) {
            Pkg pkg;
            pkg.type = 2;
            pkg.sz = sz;
            pkg.payload = std::string(static_cast<size_t>(sz) - 16, 'x');
            Put(fd, pkg.Bytes());
            EXPECT_TRUE(AtEnd(fd));
        });
        EXPECT_EQ((Lines{"TALVEK: pkg sz = " + std::to_string(sz) + ", more than 1152!"}),
                  served.lines());
        EXPECT_EQ(TALVEK_NO_REPLY, served.result);
        EXPECT_EQ(-1, served.client.fd);
    }
}

TEST(Handler, ServesPackagesWithASizeBelowAHeader) {
    const Served served = Serve([](int fd) {
        Pkg pkg;
        pkg.type = 1;
        pkg.sz = 8;
        ASSERT_TRUE(Put(fd, pkg.Bytes()));
        EXPECT_EQ("01 11 00 00 00 00 00 00 ", Hex(Take(fd, 8))) << "the reply has sz bytes";
        pkg.sz = 0;
        ASSERT_TRUE(Put(fd, pkg.Bytes()));
        ASSERT_TRUE(ReadsAgain(fd));
        pkg.type = 2;
        for (const int sz : {0, 15, 16}) {
            pkg.sz = sz;
            ASSERT_TRUE(Put(fd, pkg.Bytes()));
            EXPECT_EQ(0u, U32(Take(fd, 20), 16)) << "an empty command";
        }
    });
    EXPECT_EQ("TALVEK:TALVEK_DaemonHandler(): Command => []", served.lines()[0]);
}

TEST(Handler, ClosesWhenTheClientClosesInsideAPackage) {
    const std::string bytes = CommandPkg("exit 1");
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
        const Served served = Serve([&](int fd) {
            ASSERT_TRUE(Put(fd, bytes.substr(0, cut)));
            shutdown(fd, SHUT_WR);
            EXPECT_TRUE(AtEnd(fd)) << cut;
        });
        EXPECT_EQ("", served.output);
        EXPECT_EQ(TALVEK_NO_REPLY, served.result);
        EXPECT_EQ(-1, served.client.fd);
    }
}

TEST(Handler, DoesNotLogAReplyToAClientThatHasClosed) {
    const TempDir dir;
    const std::string closed = dir / "closed";
    const Served served = Serve([&](int fd) {
        ASSERT_TRUE(Put(fd, CommandPkg("until test -e " + closed + "; do sleep 0.01; done")));
        ASSERT_TRUE(HasLogged("Command => ["));
        shutdown(fd, SHUT_RDWR);
        WriteFile(closed, "");
    });
    EXPECT_EQ(-1, served.result) << "of the failed reply";
    EXPECT_EQ(1u, served.lines().size()) << served.output;
}

// The client has closed, but the packages that it sent before are served.
TEST(Handler, ServesWhatAClientSentBeforeItClosed) {
    const TempDir dir;
    const std::string closed = dir / "closed";
    const std::string served = dir / "served";
    Serve([&](int fd) {
        ASSERT_TRUE(Put(fd, CommandPkg("until test -e " + closed + "; do sleep 0.01; done")));
        ASSERT_TRUE(HasLogged("Command => ["));
        ASSERT_TRUE(Put(fd, CommandPkg("touch " + served)));
        shutdown(fd, SHUT_RDWR);
        WriteFile(closed, "");
    });
    EXPECT_EQ(0, access(served.c_str(), F_OK));
}

TEST(Handler, ReturnsMinusOneWithoutAConnection) {
    EXPECT_EQ(-1, TALVEK_DaemonHandler(nullptr));
    tTalvekClient client = {};
    client.fd = -1;
    EXPECT_EQ(-1, TALVEK_DaemonHandler(&client));
}

// A descriptor that is not open, below FD_SETSIZE and from there on.
TEST(Handler, ReportsAFailedWait) {
    const int closed = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(closed);
    for (const int fd : {closed, FD_SETSIZE}) {
        tTalvekClient client = {};
        client.daemon_pid = 4711;
        client.fd = fd;
        Served served;
        served.output = Capture([&] {
            const pid_t child = fork();
            if (child == 0) {
                close(fd);
                const int result = TALVEK_DaemonHandler(&client);
                fflush(stdout);
                _exit(result == -1 && client.fd == -1 ? 0 : 1);
            }
            served.pid = child;
            served.wait = WaitFor(child);
        });
        EXPECT_EQ(0, served.wait);
        const std::regex form{
            "TALVEK,\\d+: \\[\\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6}\\] "
            "PID\\[4711\\]\\[" +
            std::to_string(served.pid) + "\\] select\\(" + std::to_string(fd) + "\\) error\n"};
        EXPECT_TRUE(std::regex_match(served.output, form)) << served.output;
    }
}

TEST(Handler, ReturnsMinusOneWithoutAFreeSession) {
    const Served served = Serve(
        [](int fd) {
            ASSERT_TRUE(Put(fd, RegisterPkg()));
            EXPECT_TRUE(AtEnd(fd));
        },
        [](tTalvekClient &) {
            for (uint32_t session = 0; session < 256; ++session) {
                talvek::SessionSlot(session) = 0;
            }
        });
    EXPECT_EQ(-1, served.result);
    EXPECT_EQ(-1, served.client.session);
    EXPECT_LE(0, served.client.fd) << "closed by the end of the process";
}

TEST(Handler, ReportsEveryFiveSecondsThatAClientIsSilent) {
    const Served served = Serve([](int fd) { EXPECT_EQ(0, Ask(fd, "true")); },
                                [](tTalvekClient &) { Waits::TimeOut(3); });
    const std::regex form{"(TALVEK,\\d+: \\[[0-9/]{10} [0-9:]{8}\\.\\d{6}\\] PID\\[4711\\]\\[" +
                          std::to_string(served.pid) +
                          "\\] select\\(\\d+\\) timeout\n){3}"
                          "TALVEK,\\d+:TALVEK_DaemonHandler\\(\\): Command => \\[true\\]\n"};
    EXPECT_TRUE(std::regex_match(served.output, form)) << served.output;
}

TEST(Handler, CommandsStartWithTheDefaultActionsOfSignalsThatTheServiceIgnores) {
    const TempDir dir;
    const std::string path = dir / "status";
    Serve([&](int fd) { EXPECT_EQ(0, Ask(fd, "cat /proc/self/status >" + path)); });
    const uint64_t bits = SignalBits({SIGCHLD, SIGPIPE, SIGXFSZ});
    EXPECT_EQ(0u, SignalMask(path, "SigIgn:") & bits);
    EXPECT_EQ(0u, SignalMask(path, "SigBlk:") & bits);
}

TEST(Handler, OutputOfCommandsIsInOrderWithTheLog) {
    const Served served = Serve([](int fd) {
        EXPECT_EQ(0, Ask(fd, "echo one; echo two"));
        EXPECT_EQ(-1, Ask(fd, "echo three; kill -KILL $$"));
        EXPECT_EQ(0, Ask(fd, "echo four"));
    });
    EXPECT_EQ(
        (Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [echo one; echo two]", "one", "two",
               "TALVEK:TALVEK_DaemonHandler(): Command => [echo three; kill -KILL $$]", "three",
               "child process should not terminated normally WIFEXITED(ret) = 0",
               "UnReg session failed", "TALVEK:TALVEK_DaemonHandler(): Command => [echo four]",
               "four", "UnReg session failed"}),
        served.lines());
}

class RunCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        sigaction(SIGCHLD, nullptr, &child_);
        sigaction(SIGPIPE, nullptr, &pipe_);
        sigaction(SIGXFSZ, nullptr, &fileSize_);
    }
    void TearDown() override {
        sigaction(SIGCHLD, &child_, nullptr);
        sigaction(SIGPIPE, &pipe_, nullptr);
        sigaction(SIGXFSZ, &fileSize_, nullptr);
    }

    struct sigaction child_;
    struct sigaction pipe_;
    struct sigaction fileSize_;
};

TEST_F(RunCommand, ReturnsTheExitStatus) {
    EXPECT_EQ("", Capture([] {
                  for (const int status : {0, 1, 7, 127, 255}) {
                      EXPECT_EQ(status,
                                TALVEK_RunCommand(("exit " + std::to_string(status)).c_str()));
                  }
                  EXPECT_EQ(0, TALVEK_RunCommand(""));
              }));
}

TEST_F(RunCommand, ReportsACommandThatWasKilled) {
    EXPECT_EQ("child process should not terminated normally WIFEXITED(ret) = 0\n",
              Capture([] { EXPECT_EQ(-1, TALVEK_RunCommand("kill -KILL $$")); }));
}

// With the C library of this test. What musl does is simulated in service_fault_test.
TEST_F(RunCommand, ReportsThatNoProcessCouldBeMade) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user without other processes";
    }
    if (Emulated()) {
        GTEST_SKIP() << "the threads of an emulator count as processes";
    }
    EXPECT_EQ(
        "some error is occured in that shell command\n"
        "child process should not terminated normally WIFEXITED(ret) = 0\n",
        Capture([] {
            const pid_t caller = fork();
            if (caller == 0) {
                BecomeUserWith(1);
                _exit(TALVEK_RunCommand("exit 3") == -1 ? 0 : 1);
            }
            EXPECT_EQ(0, WaitFor(caller));
        }));
}

TEST_F(RunCommand, Returns127WhenTheShellCannotTakeItsEnvironment) {
    setenv("LONG", std::string(200'000, 'x').c_str(), 1);  // Linux: one string of 128 KiB at most
    EXPECT_EQ("", Capture([] { EXPECT_EQ(127, TALVEK_RunCommand("exit 3")); }));
    unsetenv("LONG");
}

TEST_F(RunCommand, RunsNothingForNull) {
    EXPECT_EQ("", Capture([] { EXPECT_EQ(-1, TALVEK_RunCommand(nullptr)); }));
}

TEST_F(RunCommand, CollectsTheStatusWhenSIGCHLDWasIgnored) {
    signal(SIGCHLD, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(3, TALVEK_RunCommand("exit 3"));
    struct sigaction now;
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(SIG_DFL, now.sa_handler) << "SIGCHLD stays at its default";
    EXPECT_EQ(SA_RESTART, now.sa_flags & SA_RESTART);
    EXPECT_EQ(1, sigismember(&now.sa_mask, SIGCHLD));
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(SIG_IGN, now.sa_handler) << "SIGPIPE is restored";
    sigaction(SIGXFSZ, nullptr, &now);
    EXPECT_EQ(SIG_IGN, now.sa_handler) << "SIGXFSZ is restored";
}

TEST_F(RunCommand, ACommandMayDieOfASignalThatItsCallerIgnores) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    for (const char *pCommand : {"kill -PIPE $$", "kill -XFSZ $$"}) {
        EXPECT_EQ("child process should not terminated normally WIFEXITED(ret) = 0\n",
                  Capture([=] { EXPECT_EQ(-1, TALVEK_RunCommand(pCommand)); }));
    }
}

// The caller's own lines, which the call writes first, do not raise the signals.
TEST_F(RunCommand, ACallerThatIgnoresSIGPIPEOutlivesTheReaderOfItsOutput) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    close(ends[0]);
    fflush(stdout);
    const pid_t caller = fork();
    if (caller == 0) {
        dup2(ends[1], STDOUT_FILENO);
        signal(SIGPIPE, SIG_IGN);
        printf("before");
        _exit(TALVEK_RunCommand("exit 3"));
    }
    close(ends[1]);
    const int status = WaitFor(caller);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(3, WEXITSTATUS(status));
}

TEST_F(RunCommand, BufferedOutputPrecedesTheCommandsOnce) {
    EXPECT_EQ("before\ncommand\nafter\n", Capture([] {
                  printf("before\n");
                  TALVEK_RunCommand("echo command");
                  printf("after\n");
              }));
}

}  // namespace
