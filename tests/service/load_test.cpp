// Many clients: every status right, and nothing left behind.

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

// Sanitizers and emulators make every process many times as dear.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int kInARow = 200;
#else
constexpr int kInARow = 2000;
#endif
constexpr int kAtOnce = 500;

std::string ExitOf(int status) {
    return "exit " + std::to_string(status);
}

// The listening process as it was before the first client.
void ExpectNothingLeft(const Daemon &daemon, int descriptors) {
    // Once it has answered a last client, it has done with those before.
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

// All wait at a pipe until the last one is there.
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

// Clients that connect and go away again, with and without a word.
TEST(Load, ClientsThatGoAway) {
    const Daemon daemon;
    const int descriptors = daemon.Descriptors();
    for (int i = 0; i < 500; ++i) {
        const int fd = ConnectTo(daemon.socket());
        ASSERT_LE(0, fd);
        if (i % 2 == 0) {
            talvek::test::Put(fd,
                              talvek::test::RegisterPkg().substr(0, static_cast<size_t>(i % 17)));
        }
        close(fd);
    }
    ExpectNothingLeft(daemon, descriptors);
}

}  // namespace
