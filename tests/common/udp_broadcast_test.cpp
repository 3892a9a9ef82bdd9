#include "common/udp_broadcast.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

// The state of the socket, and the destination, at the call of sendto.
struct Sending {
    int type = 0;
    int broadcast = 0;
    int descriptorFlags = 0;
    int flags = 0;
    sockaddr_ll bound = {};
    sockaddr_ll to = {};
    socklen_t toSize = 0;
};
thread_local Sending g_sending;

int Option(int fd, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, name, &value, &size));
    return value;
}

}  // namespace

extern "C" {
ssize_t __real_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                      socklen_t toSize);
ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                      socklen_t toSize);

ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                      socklen_t toSize) {
    g_sending = {};
    g_sending.type = Option(fd, SO_TYPE);
    g_sending.broadcast = Option(fd, SO_BROADCAST);
    g_sending.descriptorFlags = fcntl(fd, F_GETFD);
    g_sending.flags = flags;
    socklen_t boundSize = sizeof g_sending.bound;
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&g_sending.bound), &boundSize));
    memcpy(&g_sending.to, to, std::min<size_t>(toSize, sizeof g_sending.to));
    g_sending.toSize = toSize;
    return __real_sendto(fd, data, size, flags, to, toSize);
}
}

namespace {

using namespace talvek::test;

constexpr uint16_t kFrom = 40001;
constexpr uint16_t kTo = 40002;
constexpr size_t kLinkHeader = 14;

// A link: frames sent from "near0" (02:00:00:00:00:01) arrive at "far0". Neither has an IPv4
// address. near0 comes up last, so that it has a carrier and can send at once.
void MakeLink(int mtu) {
    const std::string size = std::to_string(mtu);
    RunCommand("ip link add near0 address 02:00:00:00:00:01 mtu " + size +
               " type veth peer name far0 address 02:00:00:00:00:02 mtu " + size +
               " && ip link set far0 up && ip link set near0 up");
}

uint32_t Quad(const char *pText) {
    return inet_addr(pText);
}

void SetTimeout(int fd, int seconds) {
    const timeval limit{seconds, 0};
    ASSERT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit));
}

// Catches the IPv4 frames that arrive at an interface, with their link headers.
class Catcher {
  public:
    explicit Catcher(const char *pIfName)
        : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP))) {
        EXPECT_GE(fd_, 0) << strerror(errno);
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_IP);
        address.sll_ifindex = static_cast<int>(if_nametoindex(pIfName));
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address));
        SetTimeout(fd_, 60);
    }
    ~Catcher() { close(fd_); }
    Catcher(const Catcher &) = delete;
    Catcher &operator=(const Catcher &) = delete;

    // The next frame; empty when none arrives in a minute.
    [[nodiscard]] std::string Next() const {
        char frame[4096];
        const ssize_t size = recv(fd_, frame, sizeof frame, 0);
        return size > 0 ? std::string(frame, static_cast<size_t>(size)) : std::string{};
    }
    // Whether no further frame has arrived.
    [[nodiscard]] bool Empty() const {
        char byte;
        return recv(fd_, &byte, 1, MSG_DONTWAIT) == -1;
    }

  private:
    int fd_;
};

std::string Payload(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<char>(i * 7 + size);
    }
    return data;
}

std::string Be16(size_t value) {
    return {static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}

// The Internet checksum (RFC 1071), over big-endian words.
std::string Checksum(std::string bytes) {
    bytes.resize((bytes.size() + 1) / 2 * 2);
    unsigned long sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        sum += static_cast<unsigned long>(static_cast<uint8_t>(bytes[i])) << 8 |
               static_cast<uint8_t>(bytes[i + 1]);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return Be16(~sum & 0xFFFF);
}

std::string AddressBytes(const char *pText) {
    const uint32_t address = Quad(pText);
    return std::string(reinterpret_cast<const char *>(&address), sizeof address);
}

// The packet of RFC 791 and RFC 768.
std::string Packet(const char *pSource, const char *pDestination, const std::string &data) {
    const std::string addresses = AddressBytes(pSource) + AddressBytes(pDestination);
    const std::string udpLength = Be16(data.size() + 8);
    const std::string ports = Be16(kFrom) + Be16(kTo);
    const std::string pseudo = addresses + std::string("\0\x11", 2) + udpLength;
    const std::string udpSum = Checksum(pseudo + ports + udpLength + Be16(0) + data);
    const std::string start = std::string("\x45\0", 2) + Be16(data.size() + 28) +
                              std::string(4, '\0') + std::string("\x40\x11", 2);
    return start + Checksum(start + Be16(0) + addresses) + addresses + ports + udpLength + udpSum +
           data;
}

std::string LinkHeader(const std::string &destination) {
    return destination + std::string("\x02\0\0\0\0\x01", 6) + Be16(ETHERTYPE_IP);
}

int Send(const char *pIfName, uint32_t mode, const char *pSource, const char *pDestination,
         const std::string &data) {
    const GuardedCopy copy{data.data(), data.size()};
    return COM_SendUdpPackage(pIfName, mode, Quad(pSource), Quad(pDestination), kFrom, kTo,
                              copy.bytes(), static_cast<uint32_t>(data.size()));
}

const std::vector<size_t> &Sizes() {
    static const std::vector<size_t> sizes{0,   1,   2,   3,    4,    5,    254,  255,
                                           256, 257, 999, 1000, 1471, 1472, 1499, 1500};
    return sizes;
}

TEST(SendUdpPackage, SendsEveryByteOfThePacket) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1600);
        const Catcher far{"far0"};
        const std::string link = LinkHeader(std::string(6, '\xFF'));
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      for (const size_t size : Sizes()) {
                          const std::string data = Payload(size);
                          EXPECT_EQ(
                              0, Send("near0", COM_UDP_TO_ALL, "10.1.2.3", "10.255.255.255", data));
                          EXPECT_EQ(link + Packet("10.1.2.3", "10.255.255.255", data), far.Next())
                              << size;
                      }
                  }));
        EXPECT_TRUE(far.Empty());
    });
}

TEST(SendUdpPackage, ModeSelectsTheLinkDestination) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1500);
        const Catcher far{"far0"};
        const std::string multicast{"\x01\x00\x5e\x7f\xff\xfa", 6};
        const struct {
            uint32_t mode;
            std::string link;
        } cases[] = {{COM_UDP_TO_ALL, std::string(6, '\xFF')},
                     {COM_UDP_TO_MULTICAST, multicast},
                     {2, std::string(6, '\0')},
                     {0x80000000U, std::string(6, '\0')},
                     {UINT32_MAX, std::string(6, '\0')}};
        for (const auto &c : cases) {
            EXPECT_EQ(0, Send("near0", c.mode, "0.0.0.0", "239.255.255.250", "x"));
            EXPECT_EQ(LinkHeader(c.link) + Packet("0.0.0.0", "239.255.255.250", "x"), far.Next())
                << c.mode;
        }
    });
}

TEST(SendUdpPackage, UsesABoundSocketThatMayBroadcast) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1500);
        const int index = static_cast<int>(if_nametoindex("near0"));
        EXPECT_EQ(0, Send("near0", COM_UDP_TO_MULTICAST, "0.0.0.0", "239.255.255.250", "x"));
        EXPECT_EQ(SOCK_DGRAM, g_sending.type);
        EXPECT_EQ(1, g_sending.broadcast);
        EXPECT_EQ(FD_CLOEXEC, g_sending.descriptorFlags);
        EXPECT_EQ(MSG_NOSIGNAL, g_sending.flags);
        EXPECT_EQ(AF_PACKET, g_sending.bound.sll_family);
        EXPECT_EQ(htons(0x0800), g_sending.bound.sll_protocol);
        EXPECT_EQ(index, g_sending.bound.sll_ifindex);
        EXPECT_EQ(sizeof(sockaddr_ll), g_sending.toSize);
        EXPECT_EQ(AF_PACKET, g_sending.to.sll_family);
        EXPECT_EQ(htons(0x0800), g_sending.to.sll_protocol);
        EXPECT_EQ(index, g_sending.to.sll_ifindex);
        EXPECT_EQ(0, g_sending.to.sll_hatype);
        EXPECT_EQ(0, g_sending.to.sll_pkttype);
        EXPECT_EQ(6, g_sending.to.sll_halen);
        EXPECT_EQ(-1, Send(nullptr, COM_UDP_TO_MULTICAST, "0.0.0.0", "239.255.255.250", "x"));
        EXPECT_EQ(0, g_sending.to.sll_ifindex);
    });
}

TEST(SendUdpBroadcast, SendsFromNoAddressToAll) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1500);
        const Catcher far{"far0"};
        EXPECT_EQ(0, COM_SendUdpBroadcast("near0", kFrom, kTo, "hello", 5));
        EXPECT_EQ(
            LinkHeader(std::string(6, '\xFF')) + Packet("0.0.0.0", "255.255.255.255", "hello"),
            far.Next());
        EXPECT_EQ(0, COM_SendUdpBroadcast("near0", kFrom, kTo, nullptr, 0));
        EXPECT_EQ(LinkHeader(std::string(6, '\xFF')) + Packet("0.0.0.0", "255.255.255.255", ""),
                  far.Next());
    });
}

// A capture file (libpcap 2.4, Ethernet) of frames.
void WriteCapture(const std::string &path, const std::vector<std::string> &frames) {
    const auto u32 = [](size_t value) {
        const auto word = static_cast<uint32_t>(value);
        return std::string(reinterpret_cast<const char *>(&word), sizeof word);
    };
    const auto u16 = [](uint16_t value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    std::string file = u32(0xA1B2C3D4) + u16(2) + u16(4) + u32(0) + u32(0) + u32(65535) + u32(1);
    for (const std::string &frame : frames) {
        file += u32(0) + u32(0) + u32(frame.size()) + u32(frame.size()) + frame;
    }
    WriteFile(path, file);
}

// tshark's checksum status is 1 for a checksum that is good.
TEST(SendUdpPackage, IsDecodedByAProtocolAnalyser) {
    if (!HasCommand("tshark")) {
        GTEST_SKIP() << "tshark is not installed (see packages.txt)";
    }
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1600);
        const Catcher far{"far0"};
        std::vector<std::string> frames;
        std::string expected;
        for (const size_t size : Sizes()) {
            ASSERT_EQ(0, Send("near0", COM_UDP_TO_MULTICAST, "192.0.2.7", "239.255.255.250",
                              Payload(size)));
            frames.push_back(far.Next());
            expected += "01:00:5e:7f:ff:fa,4,20," + std::to_string(size + 28) +
                        ",64,17,1,192.0.2.7,239.255.255.250,40001,40002," +
                        std::to_string(size + 8) + ",1\n";
        }
        expected.pop_back();
        const TempDir dir;
        WriteCapture(dir / "frames.pcap", frames);
        EXPECT_EQ(expected,
                  RunCommand("HOME=" + dir.path() + " tshark -n -r " + (dir / "frames.pcap") +
                             " -o ip.check_checksum:TRUE -o udp.check_checksum:TRUE -T fields"
                             " -E separator=, -e eth.dst -e ip.version -e ip.hdr_len -e ip.len"
                             " -e ip.ttl -e ip.proto -e ip.checksum.status -e ip.src -e ip.dst"
                             " -e udp.srcport -e udp.dstport -e udp.length -e udp.checksum.status"
                             " 2>/dev/null"));
    });
}

// The receiving kernel checks both checksums before it delivers a datagram.
TEST(SendUdpBroadcast, ReachesAnOrdinarySocket) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1600);
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        SetTimeout(fd, 60);
        const int on = 1;
        ASSERT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(kTo);
        ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address));
        for (const size_t size : Sizes()) {
            const std::string data = Payload(size);
            ASSERT_EQ(0, COM_SendUdpBroadcast("near0", kFrom, kTo, data.data(),
                                              static_cast<uint32_t>(size)));
            char buf[2048];
            sockaddr_in from = {};
            socklen_t fromSize = sizeof from;
            const ssize_t got =
                recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromSize);
            ASSERT_EQ(static_cast<ssize_t>(size), got) << strerror(errno);
            EXPECT_EQ(data, std::string(buf, size));
            EXPECT_EQ(kFrom, ntohs(from.sin_port));
            EXPECT_EQ(0U, from.sin_addr.s_addr);
        }
        close(fd);
    });
}

// RFC 768 replaces a computed 0 by 0xFFFF; here 0 is sent, which means "no checksum".
TEST(SendUdpPackage, StoresAChecksumOfZeroAsZero) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1500);
        const Catcher far{"far0"};
        // With the checksum of the rest as payload, the sum of all words is 0xFFFF.
        const std::string rest = Packet("0.0.0.0", "255.255.255.255", std::string(2, '\0'));
        const std::string fill = rest.substr(26, 2);
        EXPECT_EQ(0, COM_SendUdpBroadcast("near0", kFrom, kTo, fill.data(), 2));
        const std::string frame = far.Next();
        ASSERT_EQ(kLinkHeader + 30, frame.size());
        EXPECT_EQ(std::string(2, '\0'), frame.substr(kLinkHeader + 26, 2));
        EXPECT_EQ(fill, frame.substr(kLinkHeader + 28));
    });
}

TEST(SendUdpPackage, RefusesMoreThan1500Bytes) {
    EXPECT_EQ(1500, COM_UDP_MAX_PAYLOAD);
    EXPECT_EQ(0, COM_UDP_TO_ALL);
    EXPECT_EQ(1, COM_UDP_TO_MULTICAST);
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(9000);
        const Catcher far{"far0"};
        EXPECT_EQ((Lines{"COMMON:COM_SendUdpPackage(): data_sz[1501] exceed limit[1500]!"}),
                  CaptureLog([] {
                      EXPECT_EQ(-1, Send("near0", COM_UDP_TO_ALL, "0.0.0.0", "255.255.255.255",
                                         Payload(1501)));
                  }));
        EXPECT_EQ((Lines{"COMMON:COM_SendUdpPackage(): data_sz[-1] exceed limit[1500]!"}),
                  CaptureLog(
                      [] { EXPECT_EQ(-1, COM_SendUdpBroadcast("near0", 1, 2, "x", UINT32_MAX)); }));
        EXPECT_TRUE(far.Empty());
        EXPECT_EQ(0, Send("near0", COM_UDP_TO_ALL, "0.0.0.0", "255.255.255.255", Payload(1500)));
        EXPECT_EQ(kLinkHeader + 1528, far.Next().size());
    });
}

TEST(SendUdpPackage, LogsAPacketThatTheInterfaceRefuses) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1500);
        EXPECT_EQ((Lines{"COMMON:COM_SendUdpPackage(): sendto(near0:40002) error : Message too "
                         "long"}),
                  CaptureLog([] {
                      EXPECT_EQ(-1, Send("near0", COM_UDP_TO_ALL, "0.0.0.0", "255.255.255.255",
                                         Payload(1500)));
                  }));
        RunCommand("ip link set near0 down");
        EXPECT_EQ(
            (Lines{"COMMON:COM_SendUdpPackage(): sendto(near0:65535) error : Network is down"}),
            CaptureLog([] { EXPECT_EQ(-1, COM_SendUdpBroadcast("near0", 1, 65535, "x", 1)); }));
    });
}

TEST(SendUdpPackage, TriesToSendFromAnUnknownInterface) {
    RunInPrivateWorld(kNetwork, [] {
        EXPECT_EQ((Lines{"COMMON:COM_SendUdpPackage(): failed to retrieve ifindex of [nope0] : No "
                         "such device",
                         "COMMON:COM_SendUdpPackage(): sendto(nope0:40002) error : No such device "
                         "or address"}),
                  CaptureLog([] {
                      EXPECT_EQ(-1,
                                Send("nope0", COM_UDP_TO_ALL, "0.0.0.0", "255.255.255.255", "x"));
                  }));
    });
}

TEST(SendUdpPackage, DoesNotLogAFailureWithoutAnInterface) {
    RunInPrivateWorld(kNetwork, [] {
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(-1,
                                Send(nullptr, COM_UDP_TO_ALL, "0.0.0.0", "255.255.255.255", "x"));
                      EXPECT_EQ(-1, COM_SendUdpBroadcast(nullptr, kFrom, kTo, "x", 1));
                  }));
    });
}

TEST(SendUdpPackage, CutsANameTo15Characters) {
    RunInPrivateWorld(kNetwork, [] {
        RunCommand(
            "ip link add abcdefghijklmno type veth peer name far0"
            " && ip link set far0 up && ip link set abcdefghijklmno up");
        const Catcher far{"far0"};
        EXPECT_EQ(0, COM_SendUdpBroadcast("abcdefghijklmno", 1, 2, "1", 1));
        EXPECT_EQ('1', far.Next().back());
        EXPECT_EQ(0, COM_SendUdpBroadcast("abcdefghijklmnopq", 1, 2, "2", 1));
        EXPECT_EQ('2', far.Next().back());
    });
}

TEST(SendUdpPackage, FailsWithoutThePayload) {
    EXPECT_EQ(Lines{},
              CaptureLog([] { EXPECT_EQ(-1, COM_SendUdpBroadcast("lo", 1, 2, nullptr, 1)); }));
}

TEST(SendUdpPackage, SendsFromSeveralThreadsAtOnce) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink(1500);
        const Catcher far{"far0"};
        constexpr int kThreads = 4;
        constexpr int kPackets = 20;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kPackets; ++i) {
                    const std::string data(static_cast<size_t>(i + 1), static_cast<char>('a' + t));
                    EXPECT_EQ(0, Send("near0", COM_UDP_TO_ALL, "0.0.0.0", "255.255.255.255", data));
                }
            });
        }
        std::vector<std::string> got;
        for (int i = 0; i < kThreads * kPackets; ++i) {
            got.push_back(far.Next());
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        std::vector<std::string> expected;
        for (int t = 0; t < kThreads; ++t) {
            for (size_t i = 1; i <= kPackets; ++i) {
                expected.push_back(LinkHeader(std::string(6, '\xFF')) +
                                   Packet("0.0.0.0", "255.255.255.255",
                                          std::string(i, static_cast<char>('a' + t))));
            }
        }
        std::sort(got.begin(), got.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(expected, got);
    });
}

}  // namespace
