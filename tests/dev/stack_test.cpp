// The stack that DEV.h promises.

#include <gtest/gtest.h>

#include <string>

#include "every_call.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/stack_use.h"

namespace {

using namespace talvek::test;

constexpr size_t kPromise = 12 << 10;  // bytes

}  // namespace

// A machine need not have NFS: unmounting succeeds, and a shell runs no /bin/mount.
extern "C" {
int __wrap_umount(const char *pDir);
int __wrap_umount(const char *) {
    return 0;
}
int __real_system(const char *pCommand);
int __wrap_system(const char *pCommand);
int __wrap_system(const char *) {
    return __real_system("exit 0");
}
}

namespace {

TEST(Stack, IsNoMoreThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    WithDiscs([](const char *fixture, int fd) {
        for (const Call &call : kCalls) {
            size_t use = 0;
            Capture([&] { use = StackUse([&] { call.make(fd); }); });
            EXPECT_LE(use, call.hasReplyOnStack ? kPromise + DEV_REPLY_SIZE : kPromise)
                << call.name << " " << fixture;
        }
    });
}

TEST(Stack, IsNoMoreThanPromisedForNfs) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    RunInPrivateWorld(kMounts | kNetwork, [] {
        RunCommand("ip link set lo up");  // where no server listens
        ReplaceProc();
        for (const std::string options :
             {"tcp,addr=127.0.0.1", "addr=127.0.0.1", "tcp,addr=127.0.0.1,mountport=1",
              "addr=127.0.0.1,mountport=1"}) {
            WriteFile("/proc/mounts", "s:/x /mnt nfs " + options + " 0 0\n");
            size_t use = 0;
            const std::string output =
                CaptureAll([&] { use = StackUse([] { EXPECT_EQ(0, Dev_uMount("/mnt")); }); });
            EXPECT_NE(std::string::npos, output.find("RPC: ")) << output;
            EXPECT_LE(use, kPromise) << options;
        }
        size_t use = 0;
        Capture(
            [&] { use = StackUse([] { EXPECT_EQ(0, Dev_Mount("s:/x", "/mnt", DEV_FS_NFS)); }); });
        EXPECT_LE(use, kPromise) << "Dev_Mount";
    });
}

}  // namespace
