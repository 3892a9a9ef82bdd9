// Many clients: every status is correct, and nothing is left over.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

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

// The listening process must have only the descriptors that it started with, and no child.
void ExpectNothingLeft(const Daemon &daemon, int descriptors) {
    // When it has answered a last client, it has accepted all the others.
    EXPECT_EQ(6, daemon.Client("exit 6").exitStatus());
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); }))
        << daemon.Children().size() << " children or zombies";
    EXPECT_TRUE(Eventually([&] { return daemon.Descriptors() == descriptors; }))
        << daemon.Descriptors();
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
    for (int i = 0; i < 500; ++i) {
        const int fd = ConnectTo(daemon.socket());
        ASSERT_LE(0, fd);
        if (i % 2 == 0) {
            Put(fd, RegisterPkg().substr(0, static_cast<size_t>(i % 17)));
        }
        close(fd);
    }
    ExpectNothingLeft(daemon, descriptors);
}

}  // namespace
