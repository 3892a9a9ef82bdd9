// Many clients: every status is correct, and nothing is left over. With TALVEK_TORTURE in the
// environment (`./do torture`) the crowds are larger.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "service/client.h"
#include "service/support/program.h"
#include "service/support/wire.h"

namespace {

using namespace talvek::test;

// Starting a process costs many times as much with a sanitizer or on the target, emulated or not.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int kInARow = 200;
#else
constexpr int kInARow = 2000;
#endif
constexpr int kAtOnce = 500;

std::string ExitOf(int status) {
    return "exit " + std::to_string(status);
}

TEST(Load, ClientsOneAfterAnother) {
    const Daemon daemon;
    const int descriptors = daemon.Descriptors();
    for (int i = 0; i < kInARow; ++i) {
        const int status = i % 256;
        ASSERT_EQ(status,
                  RunProgram({"-C", "-s", daemon.socket(), "-f", ExitOf(status)}).exitStatus())
            << "client " << i;
    }
    ExpectNothingLeft(daemon, descriptors);
}

// All wait at a pipe until the last one has started.
TEST(Load, ClientsAtOnce) {
    const Daemon daemon;
    const int descriptors = daemon.Descriptors();
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    std::vector<pid_t> clients;
    for (int i = 0; i < kAtOnce; ++i) {
        fflush(nullptr);
        const pid_t client = fork();
        ASSERT_LE(0, client);
        if (client == 0) {
            close(gate[1]);
            clearenv();
            char byte;
            const bool opened = read(gate[0], &byte, 1) == 0;
            const int status = TALVEK_Client(daemon.socket().c_str(), ExitOf(i % 256).c_str());
            fflush(nullptr);
            _exit(opened ? status & 0xFF : 254);
        }
        clients.push_back(client);
    }
    close(gate[0]);
    close(gate[1]);
    int wrong = 0;
    for (int i = 0; i < kAtOnce; ++i) {
        const int status = WaitFor(clients[static_cast<size_t>(i)]);
        wrong += !WIFEXITED(status) || WEXITSTATUS(status) != i % 256;
    }
    EXPECT_EQ(0, wrong);
    ExpectNothingLeft(daemon, descriptors);
}

// Clients that connect and close at once, some after a part of a package.
TEST(Load, ClientsThatCloseAtOnce) {
    const Daemon daemon;
    const int descriptors = daemon.Descriptors();
    for (int i = 0; i < (Torturing() ? 5000 : 500); ++i) {
        const int fd = ConnectTo(daemon.socket());
        ASSERT_LE(0, fd);
        if (i % 2 == 0) {
            Put(fd, RegisterPkg().substr(0, static_cast<size_t>(i % 17)));
        }
        close(fd);
    }
    ExpectNothingLeft(daemon, descriptors);
}

// What a caller got: the status of the call that wrote `id` into the list.
struct Called {
    int id;
    int status;
};

// Calls without a pause until something comes through the gate, or its other end has gone. Each
// command leaves its number.
[[noreturn]] void CallUntilStopped(int caller, const std::string &socket, const std::string &list,
                                   int gate, int results) {
    clearenv();
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    for (int id = caller * 1'000'000;; ++id) {
        const std::string command = "echo " + std::to_string(id) + " >>" + list + "; exit 5";
        const Called called = {id, TALVEK_Client(socket.c_str(), command.c_str())};
        char byte;
        if (write(results, &called, sizeof called) != sizeof called || read(gate, &byte, 1) != -1) {
            fflush(nullptr);
            _exit(0);
        }
    }
}

// Daemons that end and start while clients call. A call has its status, or it has failed and its
// command has not been run.
TEST(Load, RestartsWhileClientsCall) {
    const TempDir dir;
    const std::string list = dir / "list";
    Daemon::Options options;
    options.dir = &dir;
    const int descriptors = Daemon{options}.Descriptors();  // while nobody calls
    int gate[2];
    int results[2];
    ASSERT_EQ(0, pipe2(gate, O_CLOEXEC | O_NONBLOCK));
    ASSERT_EQ(0, pipe2(results, O_CLOEXEC));
    std::vector<pid_t> callers;
    for (int i = 0; i < 4; ++i) {
        fflush(nullptr);
        callers.push_back(fork());
        if (callers.back() == 0) {
            close(gate[1]);
            CallUntilStopped(i, dir / "socket", list, gate[0], results[1]);
        }
    }
    close(results[1]);

    std::set<int> served;
    int failed = 0;
    const auto take = [&] {
        Called called;
        const ssize_t count = read(results[0], &called, sizeof called);
        if (count == sizeof called && called.status == 5) {
            served.insert(called.id);
        } else if (count == sizeof called) {
            EXPECT_TRUE(called.status == -1 || called.status == 1) << called.status;
            ++failed;
        }
        return count == sizeof called;
    };
    for (int i = 0; i < (Torturing() ? 200 : 20); ++i) {
        const int signal = i % 2 == 0 ? SIGTERM : SIGKILL;
        Daemon daemon{options};
        for (const size_t enough = served.size() + 10; served.size() < enough;) {
            ASSERT_TRUE(take());
        }
        EXPECT_TRUE(EndedBy(daemon.Stop(signal), signal));
    }
    const Daemon last{options};
    EXPECT_EQ(4, write(gate[1], "stop", 4));  // a byte for each
    while (take()) {
    }
    for (const pid_t caller : callers) {
        EXPECT_EQ(0, WaitFor(caller));
    }
    for (const int fd : {gate[0], gate[1], results[0]}) {
        close(fd);
    }

    std::multiset<int> run;
    std::ifstream in{list};
    for (int id; in >> id;) {
        run.insert(id);
    }
    EXPECT_EQ(served, (std::set<int>{run.begin(), run.end()}));
    EXPECT_EQ(served.size(), run.size()) << "a command was run twice";
    printf("%zu calls served, %d failed\n", served.size(), failed);
    ExpectNothingLeft(last, descriptors);
}

}  // namespace
