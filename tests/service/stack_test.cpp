// The stack that TALVEK.h promises.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "service/TALVEK.h"
#include "service/support/wire.h"
#include "support/await.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/stack_use.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;
using namespace talvek::test;

constexpr size_t kPromise = 8 << 10;  // bytes

// Whether the daemon's next fork makes no process: the daemon goes on as the child of its client.
bool g_goesOnAsChild = false;

// The stack of a call, whose log nobody reads.
size_t QuietUse(const std::function<void()> &call) {
    size_t use = 0;
    Capture([&] { use = StackUse(call); });
    return use;
}

}  // namespace

extern "C" {
pid_t __real_fork(void);
pid_t __wrap_fork(void);
}

pid_t __wrap_fork() {
    if (g_goesOnAsChild) {
        g_goesOnAsChild = false;
        return 0;
    }
    return __real_fork();
}

namespace {

TEST(Stack, OfTheClientIsNoMoreThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    const TempDir dir;
    const std::string path = dir / "socket";
    const int listener = ListenAt(path);
    std::thread daemon{AnswerOneClient, listener, 7};
    const std::string command(TALVEK_COMMAND_MAX, 'x');
    EXPECT_LE(QuietUse([&] { EXPECT_EQ(7, TALVEK_Client(path.c_str(), command.c_str())); }),
              kPromise);
    daemon.join();
    close(listener);
    EXPECT_LE(QuietUse([&] { EXPECT_EQ(-1, TALVEK_Client((dir / "none").c_str(), "true")); }),
              kPromise);
}

// The daemon and the handler change the environment and the signal actions of the process.
TEST(Stack, OfTheDaemonAndItsHandlerIsNoMoreThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    RunInPrivateWorld(kMounts, [] {
        const TempDir dir;
        const std::string path = dir / "socket";
        std::string reply;
        std::thread client{[&] {
            int fd = -1;
            EXPECT_TRUE(Eventually([&] { return (fd = ConnectTo(path)) >= 0; }));
            Put(fd, RegisterPkg("NAME=" + std::string(1000, 'x') + "\0"s));
            TakePkg(fd);
            Put(fd, CommandPkg("exit 3"));
            reply = TakePkg(fd);
            close(fd);
        }};
        g_goesOnAsChild = true;
        EXPECT_LE(QuietUse([&] { EXPECT_EQ(-1, TALVEK_Daemon(path.c_str())); }), kPromise);
        EXPECT_FALSE(g_goesOnAsChild);
        client.join();
        EXPECT_EQ(3u, U32(reply, 16));
        EXPECT_LE(QuietUse([] { EXPECT_EQ(-1, TALVEK_Daemon("/nowhere/socket")); }), kPromise);
    });
}

TEST(Stack, OfTheOtherEntriesIsNoMoreThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    RunInPrivateWorld(kMounts, [] {
        EXPECT_LE(QuietUse([] { EXPECT_EQ(4, TALVEK_RunCommand("exit 4")); }), kPromise);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
        tTalvekClient client = {};
        client.fd = fds[0];
        static const uint8_t kBytes[TALVEK_PKG_MAX] = {};
        const auto *pPkg = reinterpret_cast<const tTalvekPkg *>(kBytes);
        EXPECT_LE(QuietUse([&] { EXPECT_EQ(0, TALVEK_SendPkg(&client, pPkg, TALVEK_PKG_MAX)); }),
                  kPromise);
        EXPECT_LE(QuietUse([&] {
                      TALVEK_CalcPkgChecksum(pPkg);
                      TALVEK_CheckPkgHeader(pPkg, TALVEK_PKG_MAX);
                      TALVEK_SetEnvFromPkg("A=1", 4);
                      EXPECT_EQ(0, TALVEK_UnRegSession(static_cast<uint32_t>(TALVEK_RegSession())));
                  }),
                  kPromise);
        close(fds[1]);
        EXPECT_LE(QuietUse([&] { EXPECT_EQ(-1, TALVEK_SendPkg(&client, pPkg, TALVEK_PKG_MAX)); }),
                  kPromise);
        close(fds[0]);
    });
}

}  // namespace
