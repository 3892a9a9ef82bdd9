#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <regex>
#include <string>
#include <vector>

#include "common/net_info.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

TEST(NetInfoFault, WithoutASocketLogsAndWritesTheFailureValue) {
    struct Case {
        uint32_t flag;
        const char *function;
        std::string filler;
    };
    const Case cases[] = {
        {COM_NET_MAC_COLON, "COM_GetMAC", std::string{"00:00:00:00:00:00\0", 18}},
        {COM_NET_MAC_BYTES_LAST2, "COM_GetMAC", std::string(2, '\0')},
        {COM_NET_IP_TEXT, "COM_SubGetNetInfo", std::string{"0.0.0.0\0", 8}},
        {COM_NET_NETMASK_PADDED, "COM_SubGetNetInfo", std::string{"000.000.000.000\0", 16}},
        {COM_NET_NETMASK_RAW, "COM_SubGetNetInfo", std::string(4, '\0')},
        {COM_NET_GATEWAY_TEXT, "COM_SubGetGateway", std::string{"0.0.0.0\0", 8}},
        {COM_NET_GATEWAY_PADDED, "COM_SubGetGateway", std::string{"000.000.000.000\0", 16}},
        {COM_NET_GATEWAY_RAW, "COM_SubGetGateway", std::string(4, '\0')},
        {COM_NET_MTU, "COM_GetMTU", std::string(4, '\0')},
    };
    RunInPrivateWorld(kNetwork, [&] {
        for (const Case &c : cases) {
            const CanaryBuf out{c.filler.size()};
            EXPECT_EQ((Lines{"COMMON:" + std::string{c.function} +
                             "(): socket() error : Too many open files"}),
                      CaptureLog([&] {
                          const int fds = HeldFds();
                          const Fault fault{"socket", 0, EMFILE};
                          EXPECT_EQ(-1, COM_GetNetInfo(c.flag, "lo", out.bytes()));
                          EXPECT_TRUE(Fault::Tripped());
                          EXPECT_EQ(fds, HeldFds());
                      }));
            EXPECT_EQ(c.filler, std::string(out.text(), out.size())) << "flag " << c.flag;
        }
    });
}

// The socket is made before the flag is looked at.
TEST(NetInfoFault, LogsAMissingSocketForAnyFlag) {
    const CanaryBuf out{4};
    EXPECT_EQ((Lines{"COMMON:COM_SubGetNetInfo(): socket() error : Too many open files"}),
              CaptureLog([&] {
                  const Fault fault{"socket", 0, EMFILE};
                  EXPECT_EQ(-1, COM_SubGetNetInfo(COM_NET_MTU, "lo", out.bytes()));
              }));
    EXPECT_EQ(std::string(4, '\0'), std::string(out.text(), out.size()));
}

TEST(NetInfoFault, TakesEth0ForAutoWithoutTheRouteTable) {
    RunInPrivateWorld(kNetwork, [] {
        EXPECT_EQ((Lines{"COMMON:COM_GetDefaultRoute(): fopen(/proc/net/route) : Permission denied",
                         "COMMON:COM_GetMAC(): ioctl(SIOCGIFHWADDR) for eth0 got error : "
                         "No such device"}),
                  CaptureLog([] {
                      char out[COM_NET_MAC_COLON_SIZE];
                      const Fault fault{"fopen", 0, EACCES};
                      EXPECT_EQ(-1, COM_GetNetInfo(COM_NET_MAC_COLON, "auto", out));
                  }));
    });
}

TEST(NetInfoFault, LogsFailingRequests) {
    struct Case {
        uint32_t flag;
        const char *message;
    };
    const Case cases[] = {
        {COM_NET_MAC_COLON,
         "COM_GetMAC(): ioctl(SIOCGIFHWADDR) for lo got error : Input/output error"},
        {COM_NET_IP_TEXT, "COM_SubGetNetInfo(): ioctl(35093:lo) error : Input/output error"},
        {COM_NET_BROADCAST_TEXT, "COM_SubGetNetInfo(): ioctl(35097:lo) error : Input/output error"},
        {COM_NET_NETMASK_TEXT, "COM_SubGetNetInfo(): ioctl(35099:lo) error : Input/output error"},
        {COM_NET_GATEWAY_TEXT,
         "COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[lo]) error : Input/output error"},
        {COM_NET_MTU, "COM_GetMTU(): ioctl() error : Input/output error"},
    };
    RunInPrivateWorld(kNetwork, [&] {
        for (const Case &c : cases) {
            EXPECT_EQ((Lines{std::string{"COMMON:"} + c.message}), CaptureLog([&] {
                          char out[COM_NET_MAC_COLON_SIZE];
                          const Fault fault{"ioctl", 0, EIO};
                          EXPECT_EQ(-1, COM_GetNetInfo(c.flag, "lo", out));
                          EXPECT_TRUE(Fault::Tripped());
                      }));
        }
    });
}

// EADDRNOTAVAIL is the only error that is not logged.
TEST(NetInfoFault, DoesNotLogAnInterfaceWithoutAddress) {
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  char out[COM_NET_ADDRESS_TEXT_SIZE];
                  const Fault fault{"ioctl", 0, EADDRNOTAVAIL};
                  EXPECT_EQ(-1, COM_SubGetNetInfo(COM_NET_IP_TEXT, "lo", out));
                  EXPECT_STREQ("0.0.0.0", out);
              }));
}

TEST(NetInfoFault, LogsTablesThatCannotBeOpened) {
    char out[COM_NET_MAC_COLON_SIZE];
    EXPECT_EQ((Lines{"COMMON:COM_GetArpMAC(): fopen(/proc/net/arp) fail : Permission denied"}),
              CaptureLog([&] {
                  const Fault fault{"fopen", 0, EACCES};
                  COM_GetArpMAC(COM_NET_ARP_COLON, "10.0.0.9", out);
              }));
    EXPECT_STREQ("00:00:00:00:00:00", out);
    EXPECT_EQ((Lines{"COMMON:COM_GetDefaultRoute(): fopen(/proc/net/route) : Permission denied"}),
              CaptureLog([] {
                  const CanaryBuf name{COM_NET_IF_NAME_SIZE};
                  const Fault fault{"fopen", 0, EACCES};
                  EXPECT_EQ(-1, COM_GetDefaultRoute(name.text()));
                  EXPECT_TRUE(name.UntouchedFrom(0));
              }));
}

// The message names the general file even when an interface's own file failed.
TEST(NetInfoFault, NamesTheGeneralResolvFileForEachOfThem) {
    RunInPrivateWorld(kMounts, [] {
        WritableRoot();
        ASSERT_FALSE(HasFatalFailure());
        FreshEtc();
        WriteFile("/etc/resolv.conf.wan", "nameserver 192.0.2.2\n");
        WriteFile("/mtd1/resolv.conf.wan", "");
        char out[COM_NET_ADDRESS_TEXT_SIZE];
        EXPECT_EQ((Lines{"COMMON:COM_GetDnsServer(): fopen(/etc/resolv.conf) : Permission denied"}),
                  CaptureLog([&] {
                      const Fault fault{"fopen", 0, EACCES};
                      EXPECT_EQ(-1, COM_GetDnsServer(COM_NET_DNS1_TEXT, "eth0", out));
                  }));
        EXPECT_STREQ("0.0.0.0", out);
    });
}

// The answer is well formed whichever call fails, and correct when the result is 0.
TEST(NetInfoFault, AnswersInFormWhicheverCallFails) {
    RunInPrivateWorld(kNetwork, [] {
        FreshEtc();
        WriteFile("/etc/resolv.conf", "nameserver 192.0.2.1\nnameserver 192.0.2.2\n");
        RunCommand(
            "ip link set lo up && ip link add eth0 address 00:11:22:aa:bb:cc type veth peer name "
            "far"
            " && ip link set eth0 up && ip addr add 10.0.0.5/24 brd + dev eth0"
            " && ip route add default via 10.0.0.1"
            " && ip neigh add 10.0.0.9 lladdr 00:11:22:aa:bb:cc nud permanent dev eth0");
        struct Case {
            uint32_t flag;
            const char *name;
            const char *form;
            const char *right;
        };
        const Case cases[] = {
            {COM_NET_MAC_COLON, nullptr, "([0-9A-F]{2}:){5}[0-9A-F]{2}", "00:11:22:AA:BB:CC"},
            {COM_NET_ARP_COLON, "10.0.0.9", "([0-9A-F]{2}:){5}[0-9A-F]{2}", "00:11:22:AA:BB:CC"},
            {COM_NET_IP_TEXT, nullptr, "[0-9]+(\\.[0-9]+){3}", "10.0.0.5"},
            {COM_NET_BROADCAST_PADDED, nullptr, "[0-9]{3}(\\.[0-9]{3}){3}", "010.000.000.255"},
            {COM_NET_NETMASK_TEXT, nullptr, "[0-9]+(\\.[0-9]+){3}", "255.255.255.0"},
            {COM_NET_GATEWAY_PADDED, nullptr, "[0-9]{3}(\\.[0-9]{3}){3}", "010.000.000.001"},
            {COM_NET_DNS2_TEXT, nullptr, "[0-9]+(\\.[0-9]+){3}", "192.0.2.2"},
        };
        for (const Case &c : cases) {
            const CanaryBuf out{
                COM_NET_MAC_COLON_SIZE};  // outside, so that its own calls do not fail
            const int failed = EveryCallFails(EIO, [&] {
                const int result = COM_GetNetInfo(c.flag, c.name, out.bytes());
                EXPECT_TRUE(std::regex_match(out.text(), std::regex{c.form})) << out.text();
                // When the default route cannot be read, eth0 is asked for its peer, which is its
                // own address here.
                if (result == 0 && c.flag != COM_NET_GATEWAY_PADDED) {
                    EXPECT_STREQ(c.right, out.text());
                }
            });
            EXPECT_LE(3, failed) << "flag " << c.flag;
        }
    });
}

}  // namespace
