// Facts of real network cards against what ip(8) reports, and frames as they come out at the other
// end of a cable.

#include "common/net_info.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "board/support/board.h"
#include "common/udp_broadcast.h"
#include "support/capture.h"
#include "support/command.h"

namespace {

using namespace talvek::test;

std::string Fact(uint32_t flag, const char *pName) {
    char text[64] = "";
    Capture([&] { COM_GetNetInfo(flag, pName, text); });
    return text;
}

TEST(NetInfo, IsWhatIpReports) {
    NEEDS_EMULATED_BOARD();
    const std::string link = RunCommand("ip -json link show eth0");
    const std::string address = RunCommand("ip -json -4 address show eth0");
    const std::string route = RunCommand("ip -json route show default");
    std::string mac = JsonValue(link, "address");
    for (char &c : mac) {
        c = static_cast<char>(toupper(c));
    }
    for (const char *pName : {"eth0", "auto"}) {
        EXPECT_EQ(mac, Fact(COM_NET_MAC_COLON, pName));
        EXPECT_EQ(JsonValue(address, "local"), Fact(COM_NET_IP_TEXT, pName));
        EXPECT_EQ(JsonValue(address, "broadcast"), Fact(COM_NET_BROADCAST_TEXT, pName));
        EXPECT_EQ(JsonValue(route, "gateway"), Fact(COM_NET_GATEWAY_TEXT, pName));
        int32_t mtu = 0;
        EXPECT_EQ(0, COM_GetNetInfo(COM_NET_MTU, pName, &mtu));
        EXPECT_EQ(JsonValue(link, "mtu"), std::to_string(mtu));
    }
    EXPECT_EQ("24", JsonValue(address, "prefixlen"));
    EXPECT_EQ("255.255.255.0", Fact(COM_NET_NETMASK_TEXT, "eth0"));
    EXPECT_EQ("010.000.002.015", Fact(COM_NET_IP_PADDED, "eth0"));
    EXPECT_EQ("52:54:00:00:00:11", Fact(COM_NET_MAC_COLON, "eth1"));
    EXPECT_EQ("0.0.0.0", Fact(COM_NET_IP_TEXT, "eth1")) << "it has no address";
}

TEST(NetInfo, KnowsTheNeighbourThatAnswered) {
    NEEDS_EMULATED_BOARD();
    // The portmapper of the host's side answers, or refuses: either way its address gets known.
    RunCommand("rpcinfo -p 10.0.2.2 >/dev/null || :");
    const std::string neighbour = RunCommand("ip -json neighbour show 10.0.2.2");
    std::string mac = JsonValue(neighbour, "lladdr");
    ASSERT_EQ(17U, mac.size()) << neighbour;
    for (char &c : mac) {
        c = static_cast<char>(toupper(c));
    }
    EXPECT_EQ(mac, Fact(COM_NET_ARP_COLON, "10.0.2.2"));
}

// A packet socket on eth2, to which the cable from eth1 leads.
class OtherEnd {
  public:
    OtherEnd() : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP))) {
        struct sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_IP);
        address.sll_ifindex = static_cast<int>(if_nametoindex("eth2"));
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof address));
    }
    ~OtherEnd() { close(fd_); }
    OtherEnd(const OtherEnd &) = delete;
    OtherEnd &operator=(const OtherEnd &) = delete;

    // The next IPv4 frame.
    std::string Frame() {
        char bytes[2048];
        struct pollfd item = {fd_, POLLIN, 0};
        const ssize_t size = poll(&item, 1, 60000) == 1 ? recv(fd_, bytes, sizeof bytes, 0) : -1;
        EXPECT_GT(size, 0);
        return {bytes, size > 0 ? size_t(size) : 0};
    }

  private:
    int fd_;
};

unsigned Word(const std::string &bytes, size_t at) {
    return unsigned{static_cast<uint8_t>(bytes.at(at))} << 8 |
           static_cast<uint8_t>(bytes.at(at + 1));
}

// The sum of 16-bit words that RFC 1071 makes of them; 0xFFFF over a header with a right checksum.
unsigned Sum(const std::string &bytes) {
    unsigned sum = 0;
    for (size_t at = 0; at + 1 < bytes.size(); at += 2) {
        sum += Word(bytes, at);
    }
    if (bytes.size() % 2 != 0) {
        sum += unsigned{static_cast<uint8_t>(bytes.back())} << 8;
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return sum;
}

TEST(UdpBroadcast, ReachesTheOtherEndOfTheCable) {
    NEEDS_EMULATED_BOARD();
    OtherEnd other;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{200}, size_t{1472}}) {
        SCOPED_TRACE(size);
        const std::string payload(size, 'x');
        Capture([&] {
            EXPECT_EQ(0, COM_SendUdpBroadcast("eth1", 68, 67, payload.data(),
                                              static_cast<uint32_t>(size)));
        });
        const std::string frame = other.Frame();
        ASSERT_GE(frame.size(), 14 + 28 + size);
        EXPECT_EQ(std::string(6, '\xFF'), frame.substr(0, 6));
        EXPECT_EQ(std::string("\x52\x54\x00\x00\x00\x11", 6), frame.substr(6, 6))
            << "eth1's address";
        EXPECT_EQ(0x0800U, Word(frame, 12));
        const std::string ip = frame.substr(14, 20);
        EXPECT_EQ(0x45, ip[0]);
        EXPECT_EQ(28 + size, Word(ip, 2));
        EXPECT_EQ(17, ip[9]);
        EXPECT_EQ(0xFFFFU, Sum(ip));
        EXPECT_EQ(std::string(4, '\0') + std::string(4, '\xFF'), ip.substr(12));
        const std::string udp = frame.substr(34, 8 + size);
        EXPECT_EQ(68U, Word(udp, 0));
        EXPECT_EQ(67U, Word(udp, 2));
        EXPECT_EQ(8 + size, Word(udp, 4));
        // RFC 768: over a pseudo header of both addresses, protocol and length too.
        if (Word(udp, 6) != 0) {
            const std::string pseudo = ip.substr(12) + std::string("\0\x11", 2) + udp.substr(4, 2);
            EXPECT_EQ(0xFFFFU, Sum(pseudo + udp));
        }
        EXPECT_EQ(payload, udp.substr(8));
    }
}

}  // namespace
