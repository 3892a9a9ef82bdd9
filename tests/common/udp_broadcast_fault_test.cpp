#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <string>
#include <vector>

#include "common/udp_broadcast.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

Lines LogOfASendThatFailsAt(const char *pCall, const char *pIfName, int result) {
    return CaptureLog([&] {
        const Fault fault{pCall, 0, EPERM};
        EXPECT_EQ(result, COM_SendUdpBroadcast(pIfName, 1, 67, "x", 1));
        EXPECT_TRUE(Fault::Tripped());
    });
}

void MakeLink() {
    RunCommand(
        "ip link add near0 type veth peer name far0 && ip link set far0 up"
        " && ip link set near0 up");
}

TEST(SendUdpPackageFault, LogsEachCallThatFails) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        const std::string entry = "COMMON:COM_SendUdpPackage(): ";
        EXPECT_EQ((Lines{entry + "socket(SOCK_DGRAM) failed : Operation not permitted"}),
                  LogOfASendThatFailsAt("socket", "near0", -1));
        EXPECT_EQ((Lines{entry + "setsockopt(SOL_SOCKET(1), SO_BROADCAST(6)) error : Operation "
                                 "not permitted"}),
                  LogOfASendThatFailsAt("setsockopt", "near0", -1));
        EXPECT_EQ((Lines{entry + "sendto(near0:67) error : Operation not permitted"}),
                  LogOfASendThatFailsAt("sendto", "near0", -1));
        EXPECT_EQ(Lines{}, LogOfASendThatFailsAt("sendto", nullptr, -1));
        EXPECT_EQ((Lines{entry + "failed to retrieve ifindex of [near0] : Operation not permitted",
                         entry + "sendto(near0:67) error : No such device or address"}),
                  LogOfASendThatFailsAt("ioctl", "near0", -1));
    });
}

TEST(SendUdpPackageFault, SendsEvenWhenTheBindFails) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        EXPECT_EQ(
            (Lines{"COMMON:COM_SendUdpPackage(): bind([" + std::to_string(if_nametoindex("near0")) +
                   "][near0]) failed! : Operation not permitted"}),
            LogOfASendThatFailsAt("bind", "near0", 0));
        EXPECT_EQ((Lines{"COMMON:COM_SendUdpPackage(): bind([0][(null)]) failed! : Operation not "
                         "permitted"}),
                  LogOfASendThatFailsAt("bind", nullptr, -1));
    });
}

TEST(SendUdpPackageFault, ClosesItsSocketWhicheverCallFails) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        const int failed = EveryCallFails(EIO, [] {
            const int result = COM_SendUdpBroadcast("near0", 1, 67, "x", 1);
            // The packet is sent without a bind, and before the close.
            const std::string which = Fault::Which();
            const bool sent = which.empty() || which == "bind" || which == "close";
            EXPECT_EQ(sent ? 0 : -1, result) << which;
        });
        EXPECT_EQ(6, failed);  // socket, setsockopt, ioctl, bind, sendto, close
    });
}

}  // namespace
