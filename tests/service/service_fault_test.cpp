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
#include "support/private_world.h"
#include "support/temp_dir.h"

// The real calls, for the tests themselves.
extern "C" int __real_socketpair(int domain, int type, int protocol, int *ends);
extern "C" int __real_shutdown(int fd, int how);

namespace {

using namespace std::string_literals;
using namespace talvek::test;

// A daemon that answers clients, in a process of its own: only calls of the client fail.
class AnsweringProcess {
  public:
    explicit AnsweringProcess(int32_t status) : path_(dir_ / "socket"), listener_(ListenAt(path_)) {
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            alarm(60);
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

TEST(ClientFault, LogsAFailedSocket) {
    const Fault fault{"socket", 0, EMFILE};
    EXPECT_EQ((Lines{"TALVEK: socket(AF_UNIX) failed : Too many open files"}),
              CaptureLog([] { EXPECT_EQ(-1, TALVEK_Client("/tmp/x", "true")); }));
}

TEST(ClientFault, DoesNotLogThatThereIsNoMemory) {
    const AnsweringProcess daemon{0};
    const int fds = HeldFds();
    const Fault fault{"calloc", 0, ENOMEM};
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(-1, TALVEK_Client(daemon.path(), "true")); }));
    EXPECT_TRUE(Fault::Tripped());
    EXPECT_EQ(fds, HeldFds());
}

TEST(ClientFault, ReturnsMinusOneWhenAWaitFails) {
    const AnsweringProcess daemon{0};
    for (const int nth : {0, 1}) {
        const Fault fault{"ppoll", nth, EINTR};
        EXPECT_EQ(-1, TALVEK_Client(daemon.path(), "true"));
        EXPECT_TRUE(Fault::Tripped());
    }
}

TEST(ClientFault, ReturnsOneWhenAReadOrWriteFails) {
    const AnsweringProcess daemon{0};
    for (const char *pCall : {"send", "read"}) {
        for (const int nth : {0, 1}) {
            const Fault fault{pCall, nth, EIO};
            EXPECT_EQ(1, TALVEK_Client(daemon.path(), "true"));
            EXPECT_EQ(pCall, Fault::Which());
        }
    }
}

// After each failure the next call works: the mutex is unlocked.
TEST(ClientFault, ReleasesEverythingWhicheverCallFails) {
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

// A handler whose client has sent bytes and, by default, has shut down its writing side.
int Handle(const std::string &bytes, std::string *pReply, bool shutDown = true) {
    int fds[2];
    EXPECT_EQ(0, __real_socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    Put(fds[1], bytes);
    if (shutDown) {
        __real_shutdown(fds[1], SHUT_WR);
    }
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

TEST(HandlerFault, ClosesWhenAReadFails) {
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

// The client is there and waits for the reply: it must see the end of the connection.
TEST(HandlerFault, ClosesAfterAReplyThatCannotBeSent) {
    for (const std::string &request : {RegisterPkg("A=1\0"s), CommandPkg("true")}) {
        for (const int error : {EIO, ENOBUFS, ENOMEM}) {
            alarm(60);
            std::string reply;
            const Fault fault{"send", 0, error};
            const std::string output =
                Capture([&] { EXPECT_EQ(-1, Handle(request, &reply, false)); });
            EXPECT_TRUE(Fault::Tripped());
            EXPECT_EQ("", reply);
            EXPECT_EQ(std::string::npos, output.find("UnReg")) << "the session is released";
            alarm(0);
        }
    }
}

// The handler reads on: what a client has sent before it closed is served.
TEST(HandlerFault, ReadsOnAfterAReplyToAClientThatHasClosed) {
    for (const int error : {EPIPE, ECONNRESET}) {
        const TempDir dir;
        int fds[2];
        ASSERT_EQ(0, __real_socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
        fflush(nullptr);
        const pid_t peer = fork();
        if (peer == 0) {
            close(fds[0]);
            // Not before the first one runs: the rest of a read is dropped.
            Put(fds[1], CommandPkg("echo >" + (dir / "runs")));
            const bool runs = Eventually([&] { return access((dir / "runs").c_str(), F_OK) == 0; });
            Put(fds[1], CommandPkg("exit 5"));
            _exit(runs && U32(Take(fds[1], 20), 16) == 5 ? 0 : 1);
        }
        close(fds[1]);
        tTalvekClient client = {};
        client.fd = fds[0];
        Capture([&] {
            const Fault fault{"send", 0, error};
            EXPECT_EQ(0, TALVEK_DaemonHandler(&client));
        });
        EXPECT_EQ(0, WaitFor(peer));
    }
}

TEST(HandlerFault, ReleasesEverythingWhicheverCallFails) {
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

TEST(RunCommandFault, PrintsBothLinesWhenSystemFails) {
    for (const int error : {EAGAIN, ENOMEM, ECHILD, EINVAL, 0}) {
        const Fault fault{"system", 0, error};
        EXPECT_EQ(
            "some error is occured in that shell command\n"
            "child process should not terminated normally WIFEXITED(ret) = 0\n",
            Capture([] { EXPECT_EQ(-1, TALVEK_RunCommand("true")); }));
        EXPECT_TRUE(Fault::Tripped());
    }
}

// musl's system fails in this case; glibc's returns the status 127.
TEST(RunCommandFault, Returns127WhenTheShellCannotBeExecuted) {
    for (const int error : {ENOENT, EACCES, ENOEXEC, E2BIG}) {
        const Fault fault{"system", 0, error};
        EXPECT_EQ("", Capture([] { EXPECT_EQ(127, TALVEK_RunCommand("true")); }));
        EXPECT_TRUE(Fault::Tripped());
    }
}

TEST(RunCommandFault, RunsNothingWhenSigactionFails) {
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

// Runs TALVEK_Daemon in a child in which one call fails, and `peer` with the path of its socket.
std::string RunDaemon(const char *pCall, int nth, int error,
                      const std::function<void(const std::string &)> &peer) {
    return Capture([&] {
        const TempDir dir;
        const std::string path = dir / "socket";
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
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

// Log lines without those about forks and about the missing old socket.
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

TEST(DaemonFault, ReturnsMinusOneAfterALoggedSetUpFailure) {
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

// The old file is removed after the socket has been made.
TEST(DaemonFault, LeavesTheFileAtItsPathWithoutASocket) {
    const TempDir dir;
    const std::string path = dir / "socket";
    WriteFile(path, "old");
    EXPECT_EQ((Lines{"TALVEK: socket(AF_UNIX) failed : Too many open files"}), CaptureLog([&] {
                  const Fault fault{"socket", 0, EMFILE};
                  EXPECT_EQ(-1, TALVEK_Daemon(path.c_str()));
              }));
    EXPECT_EQ("old", ReadFile(path));
}

TEST(DaemonFault, AFailedSetUpRestoresTheSignals) {
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
    for (const int ignored : {SIGPIPE, SIGXFSZ}) {
        sigaction(ignored, nullptr, &after);
        EXPECT_EQ(SIG_DFL, after.sa_handler);
    }
}

void ExpectService(const std::string &path) {
    const int fd = ConnectTo(path);
    ASSERT_LE(0, fd);
    ASSERT_TRUE(Put(fd, CommandPkg("exit 6")));
    EXPECT_EQ(6u, U32(Take(fd, 20), 16));
    close(fd);
}

TEST(DaemonFault, ServesAfterAFailedAccept) {
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

// A client may give up between the wait and accept.
TEST(DaemonFault, DoesNotLogThatThereIsNobodyToAccept) {
    EXPECT_EQ((Lines{"TALVEK:TALVEK_DaemonHandler(): Command => [exit 6]"}),
              Rest(RunDaemon("accept4", 0, EAGAIN, ExpectService)));
}

TEST(DaemonFault, ServesAfterAFailedFork) {
    EXPECT_EQ((Lines{"TALVEK: Can't fork() child : Cannot allocate memory",
                     "TALVEK:TALVEK_DaemonHandler(): Command => [exit 6]"}),
              Rest(RunDaemon("fork", 0, ENOMEM, ExpectService)));
}

TEST(DaemonFault, ServesAfterAFailedWaitAndLogsItsTime) {
    const std::string output = RunDaemon("ppoll", 0, ENOMEM, ExpectService);
    EXPECT_TRUE(std::regex_search(
        output, std::regex{"(^|\n)TALVEK,\\d+: \\[[0-9/]{10} [0-9:]{8}\\.\\d{6}\\] "
                           "select\\(\\d+\\[/tmp/talvek-test-\\w+/socket\\]\\) error : "
                           "Cannot allocate memory\n"}))
        << output;
}

}  // namespace
