// Calls of the C library that fail inside the service.

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "service/TALVEK.h"
#include "service/support/program.h"
#include "service/support/wire.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/temp_dir.h"

// The calls themselves, for what a test does on its own account.
extern "C" int __real_socketpair(int domain, int type, int protocol, int *ends);
extern "C" int __real_shutdown(int fd, int how);

namespace {

using namespace std::string_literals;
using namespace talvek::test;

// One daemon's answer to one client, in a process of its own: the calls that fail are the client's.
class AnsweringProcess {
  public:
    explicit AnsweringProcess(int32_t status) : path_(dir_ / "socket"), listener_(ListenAt(path_)) {
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            alarm(20);
            for (;;) {
                const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                Put(fd, TakePkg(fd));
                TakePkg(fd);
                Put(fd, ResultPkg(status));
                close(fd);
            }
        }
        close(listener_);
    }
    ~AnsweringProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    AnsweringProcess(const AnsweringProcess &) = delete;
    AnsweringProcess &operator=(const AnsweringProcess &) = delete;

    [[nodiscard]] const char *path() const { return path_.c_str(); }

  private:
    TempDir dir_;
    std::string path_;
    int listener_;
    pid_t pid_;
};

TEST(ClientFault, LogsThatNoSocketCanBeMade) {
    const Fault fault{"socket", 0, EMFILE};
    EXPECT_EQ((Lines{"TALVEK: socket(AF_UNIX) failed : Too many open files"}),
              CaptureLog([] { EXPECT_EQ(-1, TALVEK_Client("/tmp/x", "true")); }));
}

TEST(ClientFault, IsSilentWithoutMemory) {
    const AnsweringProcess daemon{0};
    const int fds = HeldFds();
    const Fault fault{"calloc", 0, ENOMEM};
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(-1, TALVEK_Client(daemon.path(), "true")); }));
    EXPECT_TRUE(Fault::Tripped());
    EXPECT_EQ(fds, HeldFds());
}

TEST(ClientFault, EndsWithMinusOneWhenWaitingFails) {
    const AnsweringProcess daemon{0};
    for (const int nth : {0, 1}) {
        const Fault fault{"pselect", nth, EINTR};
        EXPECT_EQ(-1, TALVEK_Client(daemon.path(), "true"));
        EXPECT_TRUE(Fault::Tripped());
    }
}

TEST(ClientFault, EndsWithOneWhenReadingOrWritingFails) {
    const AnsweringProcess daemon{0};
    for (const char *pCall : {"send", "read"}) {
        for (const int nth : {0, 1}) {
            const Fault fault{pCall, nth, EIO};
            EXPECT_EQ(1, TALVEK_Client(daemon.path(), "true"));
            EXPECT_EQ(pCall, Fault::Which());
        }
    }
}

// After each failure the next call works: nothing is held, the mutex neither.
TEST(ClientFault, GivesEverythingBackWhateverFails) {
    const AnsweringProcess daemon{5};
    setenv("A", "1", 1);
    const int calls = EveryCallFails(EIO, [&] {
        const std::string ignored = CaptureUnderFault([&] {
            const int status = TALVEK_Client(daemon.path(), "true");
            if (Fault::Tripped()) {
                EXPECT_TRUE(status == -1 || status == 1 || status == 5) << status;
                EXPECT_EQ(5, TALVEK_Client(daemon.path(), "true"));
            } else {
                EXPECT_EQ(5, status);
            }
        });
    });
    EXPECT_LT(8, calls);
}

// A handler with the peer's bytes already sent.
int Handle(const std::string &bytes, std::string *pReply) {
    int fds[2];
    EXPECT_EQ(0, __real_socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    Put(fds[1], bytes);
    __real_shutdown(fds[1], SHUT_WR);
    tTalvekClient client = {};
    client.fd = fds[0];
    const int result = TALVEK_DaemonHandler(&client);
    if (client.fd >= 0) {
        close(client.fd);
    }
    *pReply = Take(fds[1], 4096);
    close(fds[1]);
    return result;
}

TEST(HandlerFault, ReturnsMinusOneWithoutMemory) {
    std::string reply;
    const Fault fault{"calloc", 0, ENOMEM};
    EXPECT_EQ(-1, Handle(RegisterPkg(), &reply));
    EXPECT_TRUE(Fault::Tripped());
    EXPECT_EQ("", reply);
}

TEST(HandlerFault, EndsWhenAReadFails) {
    std::string reply;
    const Fault fault{"read", 0, EIO};
    EXPECT_EQ(1, Handle(RegisterPkg(), &reply));
    EXPECT_EQ("", reply);
}

TEST(HandlerFault, AFailedReplyIsItsResult) {
    std::string reply;
    const Fault fault{"send", 0, EPIPE};
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(-1, Handle(RegisterPkg(), &reply)); }));
}

TEST(HandlerFault, GivesEverythingBackWhateverFails) {
    const int calls = EveryCallFails(EIO, [] {
        const std::string ignored = CaptureUnderFault([] {
            std::string reply;
            Handle(RegisterPkg("A=1\0B=2\0"s), &reply);
            Handle(CommandPkg("exit 3"), &reply);
            Handle(RegisterPkg().substr(0, 15) + "x", &reply);
        });
    });
    EXPECT_LT(8, calls);
}

TEST(RunCommandFault, TellsBothLinesWhenSystemFails) {
    const Fault fault{"system", 0, EAGAIN};
    EXPECT_EQ(
        "some error is occured in that shell command\n"
        "child process should not terminated normally WIFEXITED(ret) = 0\n",
        Capture([] { EXPECT_EQ(-1, TALVEK_RunCommand("true")); }));
    EXPECT_TRUE(Fault::Tripped());
}

TEST(RunCommandFault, RunsNothingWithoutTheSignal) {
    const Fault fault{"sigaction", 0, EINVAL};
    EXPECT_EQ("sigaction: Invalid argument\n",
              CaptureAll([] { EXPECT_EQ(-1, TALVEK_RunCommand("echo run")); }));
}

TEST(HandlerFault, SendsMinusOneForACommandThatCouldNotBeStarted) {
    std::string reply;
    const Fault fault{"system", 0, EAGAIN};
    const std::string output = Capture([&] { EXPECT_EQ(0, Handle(CommandPkg("true"), &reply)); });
    EXPECT_EQ(Hex(ResultPkg(-1, 0, 1)), Hex(reply));
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [true]",
                     "some error is occured in that shell command",
                     "child process should not terminated normally WIFEXITED(ret) = 0"}),
              LogLines(output));
}

// Runs TALVEK_Daemon in a child in which one call fails; `peer` gets the socket's path.
std::string RunDaemon(const char *pCall, int nth, int error,
                      const std::function<void(const std::string &)> &peer) {
    return Capture([&] {
        const TempDir dir;
        const std::string path = dir / "socket";
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            signal(SIGCHLD, SIG_IGN);
            const Fault fault{pCall, nth, error};
            const int result = TALVEK_Daemon(path.c_str());
            fflush(nullptr);
            _exit(result == -1 ? 77 : 1);
        }
        EXPECT_TRUE(Eventually([&] {
            const int fd = ConnectTo(path);
            close(fd);
            return fd >= 0 || HasEnded(child);
        }));
        peer(path);
        kill(child, SIGTERM);
        const int status = WaitFor(child);
        EXPECT_TRUE((WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) ||
                    (WIFEXITED(status) && WEXITSTATUS(status) == 77))
            << status;
    });
}

// Log lines without those of clients and of the socket that was not there.
Lines Rest(const std::string &output) {
    Lines rest;
    for (const std::string &line : LogLines(output)) {
        if (line.find("fork() to handle") == std::string::npos &&
            line.find("COM_RemoveRealFile") == std::string::npos) {
            rest.push_back(line);
        }
    }
    return rest;
}

TEST(DaemonFault, SetUpFailuresAreLoggedAndEndIt) {
    const auto nobody = [](const std::string &path) { EXPECT_EQ(-1, ConnectTo(path)) << path; };
    EXPECT_EQ((Lines{"TALVEK: socket(AF_UNIX) failed : Too many open files"}),
              Rest(RunDaemon("socket", 0, EMFILE, nobody)));
    const Lines bind = Rest(RunDaemon("bind", 0, EACCES, nobody));
    ASSERT_EQ(1u, bind.size());
    EXPECT_TRUE(std::regex_match(
        bind[0], std::regex{"TALVEK: bind\\(/tmp/talvek-test-\\w+/socket, \\d+\\) failed : "
                            "Permission denied"}))
        << bind[0];
    const Lines listen = Rest(RunDaemon("listen", 0, EOPNOTSUPP, nobody));
    ASSERT_EQ(1u, listen.size());
    EXPECT_TRUE(std::regex_match(
        listen[0], std::regex{"TALVEK: listen\\(\\d+, 1\\) failed : Operation not supported"}))
        << listen[0];
}

// The signals of the caller are as they were after a set-up that failed.
TEST(DaemonFault, AFailedSetUpLeavesTheSignalsAlone) {
    struct sigaction before;
    struct sigaction after;
    sigset_t maskBefore;
    sigset_t maskAfter;
    sigprocmask(SIG_BLOCK, nullptr, &maskBefore);
    sigaction(SIGTERM, nullptr, &before);
    const int fds = HeldFds();
    Capture([] {
        const Fault fault{"listen", 0, EIO};
        const TempDir dir;
        EXPECT_EQ(-1, TALVEK_Daemon((dir / "socket").c_str()));
    });
    EXPECT_EQ(fds, HeldFds());
    sigaction(SIGTERM, nullptr, &after);
    sigprocmask(SIG_BLOCK, nullptr, &maskAfter);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
    EXPECT_EQ(sigismember(&maskBefore, SIGTERM), sigismember(&maskAfter, SIGTERM));
    sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(SIG_DFL, after.sa_handler);
}

void ExpectService(const std::string &path) {
    const int fd = ConnectTo(path);
    ASSERT_LE(0, fd);
    ASSERT_TRUE(Put(fd, CommandPkg("exit 6")));
    EXPECT_EQ(6u, U32(Take(fd, 20), 16));
    close(fd);
}

TEST(DaemonFault, GoesOnAfterAFailedAccept) {
    for (const int error : {ECONNABORTED, EPROTO, ENFILE, ENOMEM, ENOBUFS}) {
        const std::string output = RunDaemon("accept4", 0, error, ExpectService);
        const std::regex form{
            "TALVEK: \\[/tmp/talvek-test-\\w+/socket\\] : accept\\(\\) failed : " +
            std::string{strerror(error)}};
        const Lines rest = Rest(output);
        ASSERT_LE(1u, rest.size());
        EXPECT_TRUE(std::regex_match(rest[0], form)) << rest[0];
    }
}

// A client that has gone between select and accept is nothing to tell of.
TEST(DaemonFault, IsSilentWhenThereIsNobodyToAccept) {
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [exit 6]"}),
              Rest(RunDaemon("accept4", 0, EAGAIN, ExpectService)));
}

TEST(DaemonFault, GoesOnAfterAFailedFork) {
    EXPECT_EQ((Lines{"TALVEK: Can't fork() child : Cannot allocate memory",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [exit 6]"}),
              Rest(RunDaemon("fork", 0, ENOMEM, ExpectService)));
}

TEST(DaemonFault, GoesOnAfterAFailedSelectAndTellsTheTime) {
    const std::string output = RunDaemon("pselect", 0, ENOMEM, ExpectService);
    EXPECT_TRUE(std::regex_search(
        output, std::regex{"(^|\n)TALVEK,\\d+: \\[[0-9/]{10} [0-9:]{8}\\.\\d{6}\\] "
                           "select\\(\\d+\\[/tmp/talvek-test-\\w+/socket\\]\\) error : "
                           "Cannot allocate memory\n"}))
        << output;
}

}  // namespace
