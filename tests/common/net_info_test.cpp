#include "common/net_info.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

constexpr uint32_t kNoFlag = COM_NET_MTU + 1;  // the first number that is no flag
using Entry = int (*)(uint32_t flag, const char *pName, void *pOut);

// An entry's result and output, in a buffer that ends where the answer must end.
struct Answer {
    int result;
    std::string bytes;
};

Answer Ask(Entry entry, uint32_t flag, const char *pName, size_t size) {
    const CanaryBuf out{size};
    const int result = entry(flag, pName, out.bytes());
    return {result, std::string(out.text(), size)};
}

// A text with its NUL, as in the output.
std::string Text(const std::string &text) {
    return text + '\0';
}

std::string Binary(const std::string &quad) {
    in_addr address = {};
    EXPECT_EQ(1, inet_aton(quad.c_str(), &address)) << quad;
    return std::string(reinterpret_cast<const char *>(&address), sizeof address);
}

std::string Padded(const std::string &quad) {
    const std::string bytes = Binary(quad);
    char text[16];
    snprintf(text, sizeof text, "%03u.%03u.%03u.%03u", static_cast<uint8_t>(bytes[0]),
             static_cast<uint8_t>(bytes[1]), static_cast<uint8_t>(bytes[2]),
             static_cast<uint8_t>(bytes[3]));
    return text;
}

// The form of an address flag.
enum class Form { kText, kPadded, kBinary };

std::string InForm(Form form, const std::string &quad) {
    switch (form) {
        case Form::kText:
            return Text(quad);
        case Form::kPadded:
            return Text(Padded(quad));
        case Form::kBinary:
            return Binary(quad);
    }
    return "";
}

void ExpectAddress(Entry entry, uint32_t flag, const char *pName, Form form,
                   const std::string &quad, int result) {
    const std::string expected = InForm(form, quad);
    const Answer answer = Ask(entry, flag, pName, expected.size());
    EXPECT_EQ(expected, answer.bytes) << "flag " << flag;
    EXPECT_EQ(result, answer.result) << "flag " << flag;
}

// Two connected interfaces; eth0 has a known hardware address.
void MakeLink() {
    RunCommand(
        "ip link set lo up && ip link add eth0 address 00:11:22:aa:bb:cc type veth peer name far"
        " && ip link set eth0 up && ip link set far up");
}

struct MacForm {
    uint32_t flag;
    std::string expected;
};

// 00:11:22:aa:bb:cc in each form.
std::vector<MacForm> InterfaceMacForms() {
    return {
        {COM_NET_MAC_HEX, Text("001122AABBCC")},
        {COM_NET_MAC_HEX_LOWER, Text("001122aabbcc")},
        {COM_NET_MAC_HEX_LAST4, Text("22AABBCC")},
        {COM_NET_MAC_HEX_LAST3, Text("AABBCC")},
        {COM_NET_MAC_COLON, Text("00:11:22:AA:BB:CC")},
        {COM_NET_MAC_COLON_LAST4, Text("22:AA:BB:CC")},
        {COM_NET_MAC_COLON_LAST3, Text("AA:BB:CC")},
        {COM_NET_MAC_BYTES, std::string("\x00\x11\x22\xAA\xBB\xCC", 6)},
        {COM_NET_MAC_BYTES_LAST4, "\x22\xAA\xBB\xCC"},
        {COM_NET_MAC_BYTES_LAST3, "\xAA\xBB\xCC"},
        {COM_NET_MAC_BYTES_LAST2, "\xBB\xCC"},
    };
}

std::vector<MacForm> NeighbourMacForms() {
    return {
        {COM_NET_ARP_HEX, Text("001122AABBCC")},
        {COM_NET_ARP_HEX_LOWER, Text("001122aabbcc")},
        {COM_NET_ARP_HEX_LAST4, Text("22AABBCC")},
        {COM_NET_ARP_HEX_LAST3, Text("AABBCC")},
        {COM_NET_ARP_COLON, Text("00:11:22:AA:BB:CC")},
        {COM_NET_ARP_COLON_LAST4, Text("22:AA:BB:CC")},
        {COM_NET_ARP_COLON_LAST3, Text("AA:BB:CC")},
        {COM_NET_ARP_BYTES_LAST3, "\xAA\xBB\xCC"},
        {COM_NET_ARP_BYTES_LAST2, "\xBB\xCC"},
    };
}

// The address 00:00:00:00:00:00 in the same form.
std::string Zeroed(std::string expected) {
    const bool text = expected.back() == '\0';
    for (char &c : expected) {
        if (text ? isxdigit(static_cast<uint8_t>(c)) != 0 : true) {
            c = text ? '0' : '\0';
        }
    }
    return expected;
}

TEST(Mac, AnswersEveryFlagInItsForm) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        EXPECT_EQ("00:11:22:aa:bb:cc", JsonValue(RunCommand("ip -json link show eth0"), "address"));
        for (const Entry entry : {COM_GetMAC, COM_GetNetInfo}) {
            for (const MacForm &form : InterfaceMacForms()) {
                const Answer answer = Ask(entry, form.flag, "eth0", form.expected.size());
                EXPECT_EQ(form.expected, answer.bytes) << "flag " << form.flag;
                EXPECT_EQ(0, answer.result);
            }
        }
    });
}

TEST(Mac, OfAnUnknownInterfaceIsZeroInTheFlagsForm) {
    for (const MacForm &form : InterfaceMacForms()) {
        Answer answer;
        EXPECT_EQ((Lines{"COMMON:COM_GetMAC(): ioctl(SIOCGIFHWADDR) for nope0 got error : No such "
                         "device"}),
                  CaptureLog(
                      [&] { answer = Ask(COM_GetMAC, form.flag, "nope0", form.expected.size()); }));
        EXPECT_EQ(Zeroed(form.expected), answer.bytes) << "flag " << form.flag;
        EXPECT_EQ(-1, answer.result);
    }
}

TEST(Mac, WithoutANameIsZero) {
    EXPECT_EQ((Lines{"COMMON:COM_GetMAC(): ioctl(SIOCGIFHWADDR) for (null) got error : No such "
                     "device"}),
              CaptureLog([] {
                  const Answer answer =
                      Ask(COM_GetMAC, COM_NET_MAC_COLON, nullptr, COM_NET_MAC_COLON_SIZE);
                  EXPECT_EQ(Text("00:00:00:00:00:00"), answer.bytes);
                  EXPECT_EQ(-1, answer.result);
              }));
}

TEST(Mac, RefusesOtherFlags) {
    for (const uint32_t flag :
         std::initializer_list<uint32_t>{COM_NET_ARP_HEX, COM_NET_IP_TEXT, kNoFlag, UINT32_MAX}) {
        const CanaryBuf out{COM_NET_MAC_COLON_SIZE};
        EXPECT_EQ((Lines{"COMMON:COM_GetMAC(): flag(" + std::to_string(static_cast<int>(flag)) +
                         ") not implemented."}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_GetMAC(flag, "lo", out.bytes())); }));
        EXPECT_TRUE(out.UntouchedFrom(0));
    }
}

// Interface names have at most 15 characters. A longer name must not be taken as the interface
// whose name is its first 15 characters.
TEST(InterfaceNames, OfMoreThan15CharactersAreUnknown) {
    RunInPrivateWorld(kNetwork, [] {
        RunCommand("ip link add abcdefghijklmno address 02:00:00:00:00:01 type veth peer name far");
        CaptureLog([] {
            char out[COM_NET_MAC_COLON_SIZE];
            EXPECT_EQ(0, COM_GetMAC(COM_NET_MAC_COLON, "abcdefghijklmno", out));
            EXPECT_STREQ("02:00:00:00:00:01", out);
            EXPECT_EQ(-1, COM_GetMAC(COM_NET_MAC_COLON, "abcdefghijklmn", out));
            EXPECT_EQ(-1, COM_GetMAC(COM_NET_MAC_COLON, "abcdefghijklmnop", out));
            EXPECT_STREQ("00:00:00:00:00:00", out);
            EXPECT_EQ(-1, COM_GetMAC(COM_NET_MAC_COLON, std::string(100000, 'x').c_str(), out));
            EXPECT_EQ(-1, COM_GetMAC(COM_NET_MAC_COLON, "", out));
        });
    });
}

TEST(ArpMac, AnswersEveryFlagInItsForm) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand(
            "ip addr add 10.0.0.5/24 dev eth0"
            " && ip neigh add 10.0.0.8 lladdr 02:0a:0b:0c:0d:0e nud permanent dev eth0"
            " && ip neigh add 10.0.0.9 lladdr 00:11:22:aa:bb:cc nud permanent dev eth0"
            " && ip neigh add 10.0.0.90 lladdr 02:0a:0b:0c:0d:0f nud permanent dev eth0");
        EXPECT_EQ("00:11:22:aa:bb:cc",
                  JsonValue(RunCommand("ip -json neigh show 10.0.0.9"), "lladdr"));
        for (const Entry entry : {COM_GetArpMAC, COM_GetNetInfo}) {
            for (const MacForm &form : NeighbourMacForms()) {
                EXPECT_EQ(form.expected,
                          Ask(entry, form.flag, "10.0.0.9", form.expected.size()).bytes)
                    << "flag " << form.flag;
            }
        }
        char out[COM_NET_MAC_COLON_SIZE];
        COM_GetArpMAC(COM_NET_ARP_COLON, "10.0.0.8", out);
        EXPECT_STREQ("02:0A:0B:0C:0D:0E", out);
        COM_GetArpMAC(COM_NET_ARP_COLON, "10.0.0.90", out);
        EXPECT_STREQ("02:0A:0B:0C:0D:0F", out);
    });
}

TEST(ArpMac, ReturnsMinusOneInEveryCase) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand(
            "ip addr add 10.0.0.5/24 dev eth0"
            " && ip neigh add 10.0.0.9 lladdr 00:11:22:aa:bb:cc nud permanent dev eth0");
        for (const MacForm &form : NeighbourMacForms()) {
            EXPECT_EQ(-1, Ask(COM_GetArpMAC, form.flag, "10.0.0.9", form.expected.size()).result);
            EXPECT_EQ(-1, Ask(COM_GetNetInfo, form.flag, "10.0.0.9", form.expected.size()).result);
            const Answer none = Ask(COM_GetArpMAC, form.flag, "10.0.0.10", form.expected.size());
            EXPECT_EQ(-1, none.result);
            EXPECT_EQ(Zeroed(form.expected), none.bytes) << "flag " << form.flag;
            EXPECT_EQ(Zeroed(form.expected),
                      Ask(COM_GetArpMAC, form.flag, nullptr, form.expected.size()).bytes);
        }
        EXPECT_EQ((Lines{"COMMON:COM_GetArpMAC(): flag(10) not implemented.",
                         "COMMON:COM_GetArpMAC(): flag(20) not implemented."}),
                  CaptureLog([] {
                      const CanaryBuf out{COM_NET_MAC_COLON_SIZE};
                      EXPECT_EQ(-1,
                                COM_GetArpMAC(COM_NET_MAC_BYTES_LAST2, "10.0.0.9", out.bytes()));
                      EXPECT_EQ(-1, COM_GetArpMAC(COM_NET_IP_TEXT, "10.0.0.9", out.bytes()));
                      EXPECT_TRUE(out.UntouchedFrom(0));
                  }));
    });
}

std::string ArpAnswer(const std::string &table, const char *pAddress) {
    WriteFile("/proc/net/arp", table);
    const Answer answer = Ask(COM_GetArpMAC, COM_NET_ARP_COLON, pAddress, COM_NET_MAC_COLON_SIZE);
    return answer.bytes.c_str();
}

constexpr char kArpHead[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

TEST(ArpMac, TakesTheFirstCompleteLineOfTheNeighbour) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string head = kArpHead;
        EXPECT_EQ("01:02:03:04:05:06",
                  ArpAnswer(head + "10.0.0.9 0x1 0x2 01:02:03:04:05:06 * eth0\n"
                                   "10.0.0.9 0x1 0x2 11:12:13:14:15:16 * eth1\n",
                            "10.0.0.9"));
        // A line without a hardware address is skipped.
        EXPECT_EQ("11:12:13:14:15:16", ArpAnswer(head + "10.0.0.9 0x1 0x2\n"
                                                        "10.0.0.9 0x1 0x2 11:12:13:14:15:16\n",
                                                 "10.0.0.9"));
        EXPECT_EQ("01:02:03:04:05:06",
                  ArpAnswer("\t\t10.0.0.9\t0x1  0x2\t01:02:03:04:05:06\r\n", "10.0.0.9"));
        EXPECT_EQ("00:00:00:00:00:00",
                  ArpAnswer("10.0.0.9 0x1 0x2 01:02:03:04:05:06\n", "10.0.0.09"));
        // Shorter and longer than an Ethernet address, and no address at all.
        EXPECT_EQ("01:02:03:00:00:00", ArpAnswer("a 0x1 0x2 01:02:03\n", "a"));
        EXPECT_EQ("01:02:03:00:00:00", ArpAnswer("a 0x1 0x2 01:02:03:\n", "a"));
        EXPECT_EQ("01:02:03:04:05:06", ArpAnswer("a 0x1 0x2 01:02:03:04:05:06:07:08\n", "a"));
        EXPECT_EQ("00:00:00:00:00:00", ArpAnswer("a 0x1 0x2 *\n", "a"));
        EXPECT_EQ("00:00:00:00:00:00", ArpAnswer("", "a"));
        EXPECT_EQ("00:00:00:00:00:00", ArpAnswer("\n\n \n", "a"));
        // At most 255 characters are read at a time; the rest counts as the next line.
        EXPECT_EQ("01:02:03:04:05:06",
                  ArpAnswer(std::string(255, ' ') + "a 0x1 0x2 01:02:03:04:05:06\n", "a"));
    });
}

// A line has at most 255 characters; the 256th begins the next one.
TEST(ArpMac, ReadsLongLinesInPieces) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string entry = "a 0x1 0x2 01:02:03:04:05:66";
        const auto padded = [&](size_t size) {
            return std::string(size - entry.size(), ' ') + entry;
        };
        EXPECT_EQ("01:02:03:04:05:66", ArpAnswer(padded(254), "a"));
        EXPECT_EQ("01:02:03:04:05:66", ArpAnswer(padded(255), "a"));
        EXPECT_EQ("01:02:03:04:05:06", ArpAnswer(padded(256), "a"));
        EXPECT_EQ("01:02:03:04:05:00", ArpAnswer(padded(257), "a"));
    });
}

TEST(ArpMac, ReadsATableThatEndsAnywhere) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string line = "10.0.0.9         0x1         0x2         01:02:03:04:05:06";
        const std::string whole = "01:02:03:04:05:06";
        const size_t start = line.find(whole);
        for (size_t length = 0; length <= line.size(); ++length) {
            const std::string mac = ArpAnswer(line.substr(0, length), "10.0.0.9");
            std::string expected = "00:00:00:00:00:00";
            for (size_t i = start; i < length; ++i) {
                const size_t at = i - start;
                if (at % 3 == 1) {  // both digits of the byte are there
                    expected[at - 1] = whole[at - 1];
                    expected[at] = whole[at];
                } else if (at % 3 == 0) {  // one digit is a number as well
                    expected[at + 1] = whole[at];
                }
            }
            EXPECT_EQ(expected, mac) << length;
        }
    });
}

TEST(ArpMac, LogsAMissingTable) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        EXPECT_EQ(
            (Lines{"COMMON:COM_GetArpMAC(): fopen(/proc/net/arp) fail : No such file or "
                   "directory"}),
            CaptureLog([] {
                EXPECT_EQ(
                    Text("000000000000"),
                    Ask(COM_GetArpMAC, COM_NET_ARP_HEX, "10.0.0.9", COM_NET_MAC_HEX_SIZE).bytes);
            }));
    });
}

struct AddressForm {
    uint32_t flag;
    Form form;
};

constexpr AddressForm kAddressForms[] = {{COM_NET_IP_TEXT, Form::kText},
                                         {COM_NET_IP_PADDED, Form::kPadded},
                                         {COM_NET_IP_U32, Form::kBinary},
                                         {COM_NET_IP_RAW, Form::kBinary}};
constexpr AddressForm kBroadcastForms[] = {{COM_NET_BROADCAST_TEXT, Form::kText},
                                           {COM_NET_BROADCAST_PADDED, Form::kPadded},
                                           {COM_NET_BROADCAST_U32, Form::kBinary}};
constexpr AddressForm kNetmaskForms[] = {{COM_NET_NETMASK_TEXT, Form::kText},
                                         {COM_NET_NETMASK_PADDED, Form::kPadded},
                                         {COM_NET_NETMASK_U32, Form::kBinary},
                                         {COM_NET_NETMASK_RAW, Form::kBinary}};
constexpr AddressForm kGatewayForms[] = {{COM_NET_GATEWAY_TEXT, Form::kText},
                                         {COM_NET_GATEWAY_PADDED, Form::kPadded},
                                         {COM_NET_GATEWAY_U32, Form::kBinary},
                                         {COM_NET_GATEWAY_RAW, Form::kBinary}};
constexpr AddressForm kFirstServerForms[] = {{COM_NET_DNS1_TEXT, Form::kText},
                                             {COM_NET_DNS1_PADDED, Form::kPadded},
                                             {COM_NET_DNS1_U32, Form::kBinary},
                                             {COM_NET_DNS1_RAW, Form::kBinary}};
constexpr AddressForm kSecondServerForms[] = {{COM_NET_DNS2_TEXT, Form::kText},
                                              {COM_NET_DNS2_PADDED, Form::kPadded},
                                              {COM_NET_DNS2_U32, Form::kBinary},
                                              {COM_NET_DNS2_RAW, Form::kBinary}};

template <size_t kCount>
void ExpectForms(const AddressForm (&forms)[kCount], Entry entry, const char *pName,
                 const std::string &quad, int result) {
    for (const AddressForm &form : forms) {
        ExpectAddress(entry, form.flag, pName, form.form, quad, result);
    }
}

std::string NetmaskOf(const std::string &prefixLength) {
    const int bits = std::stoi(prefixLength);
    in_addr mask = {};
    mask.s_addr = htonl(bits == 0 ? 0 : UINT32_MAX << (32 - bits));
    return inet_ntoa(mask);
}

TEST(Addresses, EqualWhatIpSays) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        for (const char *pAddress : {"10.0.0.5/24", "192.168.254.7/20", "172.16.255.200/31",
                                     "203.0.113.9/32", "100.100.100.100/8"}) {
            RunCommand(std::string{"ip addr flush dev eth0 && ip addr add "} + pAddress +
                       " brd + dev eth0");
            const std::string json = RunCommand("ip -json -4 addr show eth0");
            const std::string local = JsonValue(json, "local");
            ASSERT_EQ(0U, std::string{pAddress}.find(local + "/")) << json;
            ASSERT_NE(std::string::npos, json.find("addr_info")) << json;
            const std::string info = json.substr(json.find("addr_info"));
            std::string broadcast = JsonValue(info, "broadcast");
            broadcast = broadcast.empty() ? "0.0.0.0" : broadcast;
            for (const Entry entry : {COM_SubGetNetInfo, COM_GetNetInfo}) {
                ExpectForms(kAddressForms, entry, "eth0", local, 0);
                ExpectForms(kBroadcastForms, entry, "eth0", broadcast, 0);
                ExpectForms(kNetmaskForms, entry, "eth0", NetmaskOf(JsonValue(info, "prefixlen")),
                            0);
            }
        }
    });
}

TEST(Addresses, ArePaddedToThreeDigits) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand("ip addr add 10.0.0.5/24 dev eth0");
        EXPECT_EQ(Text("010.000.000.005"),
                  Ask(COM_GetNetInfo, COM_NET_IP_PADDED, "eth0", COM_NET_ADDRESS_TEXT_SIZE).bytes);
        EXPECT_EQ(
            Text("255.255.255.000"),
            Ask(COM_GetNetInfo, COM_NET_NETMASK_PADDED, "eth0", COM_NET_ADDRESS_TEXT_SIZE).bytes);
        EXPECT_EQ(Text("127.000.000.001"),
                  Ask(COM_GetNetInfo, COM_NET_IP_PADDED, "lo", COM_NET_ADDRESS_TEXT_SIZE).bytes);
    });
}

TEST(Addresses, ArePrimaryUnlessALabelIsNamed) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand(
            "ip addr add 10.0.0.5/24 dev eth0 && ip addr add 10.0.0.6/24 dev eth0"
            " && ip addr add 10.7.0.1/16 dev eth0 label eth0:1");
        const std::string json = RunCommand("ip -json -4 addr show eth0");
        ExpectForms(kAddressForms, COM_GetNetInfo, "eth0", JsonValue(json, "local"), 0);
        ExpectForms(kAddressForms, COM_GetNetInfo, "eth0:1", "10.7.0.1", 0);
        ExpectForms(kNetmaskForms, COM_GetNetInfo, "eth0:1", "255.255.0.0", 0);
    });
}

TEST(Addresses, OfAnInterfaceWithoutOneAreZeroAndNotLogged) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        EXPECT_EQ("", JsonValue(RunCommand("ip -json -4 addr show eth0"), "local"));
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      ExpectForms(kAddressForms, COM_SubGetNetInfo, "eth0", "0.0.0.0", -1);
                      ExpectForms(kBroadcastForms, COM_SubGetNetInfo, "eth0", "0.0.0.0", -1);
                      ExpectForms(kNetmaskForms, COM_SubGetNetInfo, "eth0", "0.0.0.0", -1);
                  }));
    });
}

// The request numbers are those of <bits/ioctls.h>: 0x8915, 0x8919 and 0x891b.
TEST(Addresses, OfAnUnknownInterfaceAreZeroAndLogged) {
    const auto message = [](int request) {
        return "COMMON:COM_SubGetNetInfo(): ioctl(" + std::to_string(request) +
               ":nope0) error : No such device";
    };
    EXPECT_EQ(Lines(4, message(0x8915)), CaptureLog([] {
                  ExpectForms(kAddressForms, COM_SubGetNetInfo, "nope0", "0.0.0.0", -1);
              }));
    EXPECT_EQ(Lines(3, message(0x8919)), CaptureLog([] {
                  ExpectForms(kBroadcastForms, COM_SubGetNetInfo, "nope0", "0.0.0.0", -1);
              }));
    EXPECT_EQ(Lines(4, message(0x891b)), CaptureLog([] {
                  ExpectForms(kNetmaskForms, COM_SubGetNetInfo, "nope0", "0.0.0.0", -1);
              }));
    EXPECT_EQ((Lines{"COMMON:COM_SubGetNetInfo(): ioctl(35093:(null)) error : No such device"}),
              CaptureLog([] {
                  ExpectAddress(COM_SubGetNetInfo, COM_NET_IP_TEXT, nullptr, Form::kText, "0.0.0.0",
                                -1);
              }));
}

TEST(Addresses, AreZeroBytesForOtherFlags) {
    for (const uint32_t flag : std::initializer_list<uint32_t>{COM_NET_ARP_BYTES_LAST2,
                                                               COM_NET_GATEWAY_TEXT, UINT32_MAX}) {
        EXPECT_EQ((Lines{"COMMON:COM_SubGetNetInfo(): flag(" +
                         std::to_string(static_cast<int>(flag)) + ") not implemented."}),
                  CaptureLog([&] {
                      ExpectAddress(COM_SubGetNetInfo, flag, "lo", Form::kBinary, "0.0.0.0", -1);
                  }));
    }
}

TEST(Outputs, MayBeUnaligned) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand("ip addr add 10.0.0.5/24 dev eth0 && ip route add default via 10.0.0.1");
        for (size_t shift = 0; shift < 4; ++shift) {
            alignas(8) char out[16];
            EXPECT_EQ(0, COM_GetNetInfo(COM_NET_IP_U32, "eth0", out + shift));
            EXPECT_EQ(Binary("10.0.0.5"), std::string(out + shift, 4));
            EXPECT_EQ(0, COM_GetNetInfo(COM_NET_GATEWAY_U32, "eth0", out + shift));
            EXPECT_EQ(Binary("10.0.0.1"), std::string(out + shift, 4));
            EXPECT_EQ(0, COM_GetNetInfo(COM_NET_MTU, "eth0", out + shift));
            int32_t mtu = 0;
            memcpy(&mtu, out + shift, sizeof mtu);
            EXPECT_EQ(1500, mtu);
        }
    });
}

TEST(Gateway, EqualsWhatIpSays) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand(
            "ip addr add 10.0.0.5/24 dev eth0 && ip addr add 10.8.0.5/24 dev far"
            " && ip route add 10.99.0.0/16 via 10.0.0.77"
            " && ip route add default via 10.0.0.1 metric 20"
            " && ip route add default via 10.8.0.254 metric 10");
        for (const Entry entry : {COM_SubGetGateway, COM_GetNetInfo}) {
            for (const char *pName : {"eth0", "far"}) {
                const std::string json =
                    RunCommand(std::string{"ip -json route show default dev "} + pName);
                ExpectForms(kGatewayForms, entry, pName, JsonValue(json, "gateway"), 0);
            }
        }
        // The kernel sorts the routes by metric.
        const std::string first = RunCommand("ip -json route show default");
        ExpectForms(kGatewayForms, COM_SubGetGateway, nullptr, JsonValue(first, "gateway"), 0);
        char name[COM_NET_IF_NAME_SIZE];
        EXPECT_EQ(0, COM_GetDefaultRoute(name));
        EXPECT_EQ(JsonValue(first, "dev"), name);
        EXPECT_STREQ("far", name);
    });
}

// `make` is the command that creates the interface.
void ExpectPeerAsGateway(const std::string &name, const std::string &make) {
    RunCommand(make + " && ip addr add 10.9.0.1 peer 10.9.0.2 dev " + name + " && ip link set " +
               name + " up && ip route add default dev " + name);
    EXPECT_EQ("", JsonValue(RunCommand("ip -json route show default"), "gateway"));
    const std::string json = RunCommand("ip -json -4 addr show " + name);
    const size_t info = json.find("addr_info");
    ASSERT_NE(std::string::npos, info) << json;
    const std::string peer = JsonValue(json.substr(info), "address");
    EXPECT_EQ("10.9.0.2", peer);
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  ExpectForms(kGatewayForms, COM_SubGetGateway, name.c_str(), peer, 0);
                  ExpectForms(kGatewayForms, COM_GetNetInfo, name.c_str(), peer, 0);
                  char route[COM_NET_IF_NAME_SIZE] = "kept";
                  EXPECT_EQ(-1, COM_GetDefaultRoute(route));
                  EXPECT_STREQ("kept", route);
              }));
    EXPECT_EQ((Lines{"COMMON:COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[(null)]) error : No such "
                     "device"}),
              CaptureLog([] {
                  ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, nullptr, Form::kText,
                                "0.0.0.0", -1);
              }));
}

TEST(Gateway, IsThePeerWhenTheRouteHasNoGateway) {
    if (access("/dev/net/tun", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "/dev/net/tun cannot be used here";
    }
    RunInPrivateWorld(kNetwork,
                      [] { ExpectPeerAsGateway("tun0", "ip tuntap add dev tun0 mode tun"); });
}

TEST(Gateway, IsThePeerOfAnAddressOnAnyLink) {
    RunInPrivateWorld(kNetwork, [] {
        ExpectPeerAsGateway("eth7",
                            "ip link add eth7 type veth peer name far && ip link set far up");
    });
}

TEST(Gateway, IsZeroAndLoggedWithoutRouteAndPeer) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        EXPECT_EQ(Lines(4,
                        "COMMON:COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[eth0]) error : Cannot "
                        "assign requested address"),
                  CaptureLog([] {
                      ExpectForms(kGatewayForms, COM_SubGetGateway, "eth0", "0.0.0.0", -1);
                  }));
        EXPECT_EQ(
            (Lines{
                "COMMON:COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[nope0]) error : No such device"}),
            CaptureLog([] {
                ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, "nope0", Form::kText,
                              "0.0.0.0", -1);
            }));
    });
}

TEST(Gateway, IsZeroBytesForOtherFlags) {
    for (const uint32_t flag :
         std::initializer_list<uint32_t>{COM_NET_NETMASK_RAW, COM_NET_DNS1_TEXT, UINT32_MAX}) {
        EXPECT_EQ((Lines{"COMMON:COM_SubGetGateway(): flag(" +
                         std::to_string(static_cast<int>(flag)) + ") not implemented."}),
                  CaptureLog([&] {
                      ExpectAddress(COM_SubGetGateway, flag, "lo", Form::kBinary, "0.0.0.0", -1);
                  }));
    }
}

constexpr char kRouteHead[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT"
    "                                                       \n";

// A default route as the kernel prints it, padded to 127 characters.
std::string RouteLine(const std::string &name, const std::string &gateway,
                      const std::string &destination = "00000000",
                      const std::string &mask = "00000000") {
    std::string line =
        name + "\t" + destination + "\t" + gateway + "\t0003\t0\t0\t0\t" + mask + "\t0\t0\t0";
    line.resize(127, ' ');
    return line + "\n";
}

TEST(RouteTable, IsSearchedForTheFirstDefaultRouteWithAGateway) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/net/route",
                  kRouteHead + RouteLine("eth0", "0100000A", "0000000A", "00FFFFFF") +
                      RouteLine("eth0", "0200000A", "00000000", "000000FF") +
                      RouteLine("eth0", "0300000A", "01000000", "00000000") +
                      RouteLine("ppp0", "00000000") + RouteLine("wan1", "0101A8C0") +
                      RouteLine("eth0", "FE01A8C0") + RouteLine("eth0", "FD01A8C0"));
        // 192.168.1.1 is printed as the number that its four bytes in memory form.
        ExpectForms(kGatewayForms, COM_SubGetGateway, nullptr, "192.168.1.1", 0);
        ExpectForms(kGatewayForms, COM_SubGetGateway, "wan1", "192.168.1.1", 0);
        ExpectForms(kGatewayForms, COM_SubGetGateway, "eth0", "192.168.1.254", 0);
        const CanaryBuf name{COM_NET_IF_NAME_SIZE};
        EXPECT_EQ(0, COM_GetDefaultRoute(name.text()));
        EXPECT_STREQ("wan1", name.text());
    });
}

TEST(RouteTable, UnreadableGatewaysAreLoggedAndSkipped) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        // More than 32 bits, more than 64 bits, no number.
        WriteFile("/proc/net/route", kRouteHead + RouteLine("eth1", "100000000") +
                                         RouteLine("eth2", "FFFFFFFFFFFFFFFFF") +
                                         RouteLine("eth3", "zz") +
                                         RouteLine("abcdefghijklmno", "0101A8C0"));
        const auto messages = [](const std::string &function) {
            const std::string text = "COMMON:" + function + "(): strtoul() error : ";
            return Lines{text + "Numerical result out of range",
                         text + "Numerical result out of range", text + "Invalid argument"};
        };
        EXPECT_EQ(messages("COM_SubGetGateway"), CaptureLog([] {
                      ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, nullptr, Form::kText,
                                    "192.168.1.1", 0);
                  }));
        EXPECT_EQ(messages("COM_GetDefaultRoute"), CaptureLog([] {
                      const CanaryBuf name{COM_NET_IF_NAME_SIZE};
                      EXPECT_EQ(0, COM_GetDefaultRoute(name.text()));
                      EXPECT_STREQ("abcdefghijklmno", name.text());
                  }));
    });
}

TEST(RouteTable, LongInterfaceNamesAreCut) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/net/route", RouteLine("abcdefghijklmnop", "0101A8C0"));
        const CanaryBuf name{COM_NET_IF_NAME_SIZE};
        EXPECT_EQ(0, COM_GetDefaultRoute(name.text()));
        EXPECT_STREQ("abcdefghijklmno", name.text());
    });
}

// A mask whose last digit is the 256th character of its line is another mask.
TEST(RouteTable, IsReadInLinesOf255Characters) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string start = "eth7\t00000000\t0101A8C0\t0003\t0\t0\t";
        const std::string mask = "\t00000000";
        for (size_t size = 254; size <= 256; ++size) {
            const std::string metric(size - start.size() - mask.size(), '7');
            WriteFile("/proc/net/route", start + metric + mask);
            const bool fits = size <= 255;
            char name[COM_NET_IF_NAME_SIZE];
            EXPECT_EQ(fits ? 0 : -1, COM_GetDefaultRoute(name)) << size;
            CaptureLog([&] {
                ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, "eth7", Form::kText,
                              fits ? "192.168.1.1" : "0.0.0.0", fits ? 0 : -1);
            });
        }
    });
}

// COM_GetDefaultRoute splits lines at tabs only; several in a row count as one.
TEST(RouteTable, IsSplitAtTabsForTheDefaultRoute) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        char name[COM_NET_IF_NAME_SIZE] = "kept";
        WriteFile("/proc/net/route", "\t\teth5\t\t00000000\t0101A8C0\t3\t0\t0\t0\t00000000\t0\n");
        EXPECT_EQ(0, COM_GetDefaultRoute(name));
        EXPECT_STREQ("eth5", name);
        WriteFile("/proc/net/route", "eth6 00000000 0101A8C0 3 0 0 0 00000000 0\n");
        EXPECT_EQ(-1, COM_GetDefaultRoute(name));
        EXPECT_STREQ("eth5", name);
        ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, "eth6", Form::kText, "192.168.1.1",
                      0);
    });
}

TEST(RouteTable, MayEndAnywhere) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string line = "eth7\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n";
        const size_t whole = line.find("\t0\t0\t0\n");
        for (size_t length = 0; length <= line.size(); ++length) {
            WriteFile("/proc/net/route", line.substr(0, length));
            const CanaryBuf name{COM_NET_IF_NAME_SIZE};
            const int result = COM_GetDefaultRoute(name.text());
            EXPECT_EQ(length >= whole ? 0 : -1, result) << length;
            EXPECT_TRUE(length >= whole || name.UntouchedFrom(0)) << length;
            CaptureLog([&] {
                ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, "eth7", Form::kText,
                              length >= whole ? "192.168.1.1" : "0.0.0.0",
                              length >= whole ? 0 : -1);
            });
        }
    });
}

TEST(RouteTable, IsLoggedWhenMissing) {
    RunInPrivateWorld(kNetwork, [] {
        RunCommand("ip link set lo up");
        ReplaceDir("/proc");
        EXPECT_EQ((Lines{"COMMON:COM_GetDefaultRoute(): fopen(/proc/net/route) : No such file or "
                         "directory"}),
                  CaptureLog([] {
                      const CanaryBuf name{COM_NET_IF_NAME_SIZE};
                      EXPECT_EQ(-1, COM_GetDefaultRoute(name.text()));
                      EXPECT_TRUE(name.UntouchedFrom(0));
                  }));
        // The peer is requested nevertheless; the peer of loopback is its own address.
        EXPECT_EQ((Lines{"COMMON:COM_SubGetGateway(): fopen(/proc/net/route) : No such file or "
                         "directory"}),
                  CaptureLog([] {
                      ExpectAddress(COM_SubGetGateway, COM_NET_GATEWAY_TEXT, "lo", Form::kText,
                                    "127.0.0.1", 0);
                  }));
    });
}

TEST(DnsServer, IsTheFirstOrSecondEntry) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        WriteFile("/etc/resolv.conf",
                  "search example.org\nnameserver 192.0.2.1\n\nnameserver\t198.51.100.22 # near\r\n"
                  "nameserver 203.0.113.3\n");
        for (const char *pName : {static_cast<const char *>(nullptr), "eth0", "eth1"}) {
            ExpectForms(kFirstServerForms, COM_GetDnsServer, pName, "192.0.2.1", 0);
            ExpectForms(kSecondServerForms, COM_GetDnsServer, pName, "198.51.100.22", 0);
        }
        ExpectForms(kFirstServerForms, COM_GetNetInfo, "eth0", "192.0.2.1", 0);
        ExpectForms(kSecondServerForms, COM_GetNetInfo, "eth0", "198.51.100.22", 0);
    });
}

TEST(DnsServer, IsZeroWhenTheEntryIsMissing) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      for (const char *pText :
                           {"", "\n\n", "nameserve", "nameserver", "nameserver \t\r\n",
                            "nameserver \nnameserver\n", "search x\noptions ndots:1\n"}) {
                          WriteFile("/etc/resolv.conf", pText);
                          ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
                          ExpectForms(kSecondServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
                      }
                      WriteFile("/etc/resolv.conf", "nameserver \nnameserver 192.0.2.1");
                      ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "192.0.2.1", 0);
                      ExpectForms(kSecondServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
                  }));
    });
}

TEST(DnsServer, CountsAnEntryAnywhereInALine) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        WriteFile("/etc/resolv.conf",
                  "  # nameserver 192.0.2.1\nmynameserver 192.0.2.2 nameserver 192.0.2.9\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "192.0.2.1", 0);
        ExpectForms(kSecondServerForms, COM_GetDnsServer, nullptr, "192.0.2.2", 0);
    });
}

// An entry that is no address still counts as the first.
TEST(DnsServer, IsZeroForAnEntryThatIsNoIpv4Address) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        WriteFile("/etc/resolv.conf", "nameserver 2001:db8::53\nnameserver 192.0.2.2\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
        ExpectForms(kSecondServerForms, COM_GetDnsServer, nullptr, "192.0.2.2", 0);
        WriteFile("/etc/resolv.conf", "nameserver " + std::string(100, '9') + "\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
    });
}

// A line has at most 159 characters; the 160th begins the next one.
TEST(DnsServer, ReadsLongLinesInPieces) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        const std::string entry = "nameserver 192.0.2.1";
        WriteFile("/etc/resolv.conf", std::string(159 - entry.size(), ' ') + entry + "77\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "192.0.2.1", 0);
        WriteFile("/etc/resolv.conf", std::string(159, ' ') + entry + "\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "192.0.2.1", 0);
        WriteFile("/etc/resolv.conf", std::string(155, ' ') + entry + "\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
    });
}

TEST(DnsServer, ReadsAFileThatEndsAnywhere) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        const std::string text = "nameserver 192.0.2.1\nnameserver 192.0.2.2";
        for (size_t length = 0; length <= text.size(); ++length) {
            WriteFile("/etc/resolv.conf", text.substr(0, length));
            const CanaryBuf out{COM_NET_ADDRESS_TEXT_SIZE};
            const int result = COM_GetDnsServer(COM_NET_DNS2_TEXT, nullptr, out.bytes());
            EXPECT_EQ(result == 0, strcmp("0.0.0.0", out.text()) != 0) << length;
        }
    });
}

// Which of the four files exist decides which one is read.
TEST(DnsServer, ComesFromTheInterfacesOwnFileWhenItIsSaved) {
    RunInPrivateWorld(kMounts, [] {
        WritableRoot();
        ASSERT_FALSE(HasFatalFailure());
        for (unsigned present = 0; present < 16; ++present) {
            FreshEtc();
            RunCommand("rm -rf /mtd1 && mkdir /mtd1");
            WriteFile("/etc/resolv.conf", "nameserver 192.0.2.1\n");
            if (present & 1) {
                WriteFile("/etc/resolv.conf.wan", "nameserver 192.0.2.2\n");
            }
            if (present & 2) {
                WriteFile("/mtd1/resolv.conf.wan", "nameserver 192.0.2.3\n");
            }
            if (present & 4) {
                WriteFile("/etc/resolv.conf.uplink", "nameserver 192.0.2.4\n");
            }
            if (present & 8) {
                WriteFile("/mtd1/resolv.conf.uplink", "nameserver 192.0.2.5\n");
            }
            const std::string wan = (present & 3) == 3 ? "192.0.2.2" : "192.0.2.1";
            const std::string uplink = (present & 12) == 12 ? "192.0.2.4" : "192.0.2.1";
            ExpectForms(kFirstServerForms, COM_GetDnsServer, "eth0", wan, 0);
            ExpectForms(kFirstServerForms, COM_GetDnsServer, "eth1", uplink, 0);
            ExpectForms(kFirstServerForms, COM_GetDnsServer, "eth0:1", uplink, 0);
            ExpectForms(kFirstServerForms, COM_GetDnsServer, "", uplink, 0);
            ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "192.0.2.1", 0);
        }
    });
}

TEST(DnsServer, IsThatOfTheDefaultRoutesInterfaceForAutoAndNull) {
    RunInPrivateWorld(kNetwork, [] {
        WritableRoot();
        ASSERT_FALSE(HasFatalFailure());
        FreshEtc();
        WriteFile("/etc/resolv.conf", "nameserver 192.0.2.1\n");
        for (const char *pPath : {"/etc/resolv.conf.wan", "/mtd1/resolv.conf.wan"}) {
            WriteFile(pPath, "nameserver 192.0.2.2\n");
        }
        for (const char *pPath : {"/etc/resolv.conf.uplink", "/mtd1/resolv.conf.uplink"}) {
            WriteFile(pPath, "nameserver 192.0.2.3\n");
        }
        MakeLink();
        for (const char *pName : {static_cast<const char *>(nullptr), "auto"}) {
            ExpectForms(kFirstServerForms, COM_GetNetInfo, pName, "192.0.2.2", 0);
        }
        RunCommand("ip addr add 10.8.0.5/24 dev far && ip route add default via 10.8.0.1");
        for (const char *pName : {static_cast<const char *>(nullptr), "auto"}) {
            ExpectForms(kFirstServerForms, COM_GetNetInfo, pName, "192.0.2.3", 0);
        }
    });
}

TEST(DnsServer, NamesTheGeneralFileInItsMessage) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        EXPECT_EQ(Lines(8,
                        "COMMON:COM_GetDnsServer(): fopen(/etc/resolv.conf) : No such file or "
                        "directory"),
                  CaptureLog([] {
                      ExpectForms(kFirstServerForms, COM_GetDnsServer, "eth0", "0.0.0.0", -1);
                      ExpectForms(kSecondServerForms, COM_GetDnsServer, nullptr, "0.0.0.0", -1);
                  }));
        // A directory can be opened but has no lines.
        WritableRoot();
        ASSERT_FALSE(HasFatalFailure());
        WriteFile("/mtd1/resolv.conf.wan", "");
        RunCommand("mkdir /etc/resolv.conf.wan");
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      ExpectForms(kFirstServerForms, COM_GetDnsServer, "eth0", "0.0.0.0", -1);
                  }));
    });
}

TEST(DnsServer, IsZeroBytesForOtherFlags) {
    for (const uint32_t flag :
         std::initializer_list<uint32_t>{COM_NET_GATEWAY_RAW, COM_NET_MTU, UINT32_MAX}) {
        EXPECT_EQ((Lines{"COMMON:COM_GetDnsServer(): flag(" +
                         std::to_string(static_cast<int>(flag)) + ") not implemented."}),
                  CaptureLog([&] {
                      ExpectAddress(COM_GetDnsServer, flag, nullptr, Form::kBinary, "0.0.0.0", -1);
                  }));
    }
}

std::string MtuBytes(int32_t mtu) {
    return std::string(reinterpret_cast<const char *>(&mtu), sizeof mtu);
}

TEST(Mtu, EqualsWhatIpSays) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        for (const char *pMtu : {"68", "1280", "1500", "9000", "65535"}) {
            RunCommand(std::string{"ip link set eth0 mtu "} + pMtu);
            const int mtu = std::stoi(JsonValue(RunCommand("ip -json link show eth0"), "mtu"));
            EXPECT_EQ(std::stoi(pMtu), mtu);
            for (const Entry entry : {COM_GetMTU, COM_GetNetInfo}) {
                const Answer answer = Ask(entry, COM_NET_MTU, "eth0", 4);
                EXPECT_EQ(MtuBytes(mtu), answer.bytes);
                EXPECT_EQ(0, answer.result);
            }
        }
    });
}

TEST(Mtu, IsTheSameForAnyFlag) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        for (const uint32_t flag : std::initializer_list<uint32_t>{
                 COM_NET_MAC_HEX, COM_NET_DNS2_RAW, kNoFlag, UINT32_MAX}) {
            EXPECT_EQ(MtuBytes(1500), Ask(COM_GetMTU, flag, "eth0", 4).bytes);
        }
    });
}

TEST(Mtu, IsZeroAndLoggedForAnUnknownInterface) {
    EXPECT_EQ((Lines{"COMMON:COM_GetMTU(): ioctl() error : No such device",
                     "COMMON:COM_GetMTU(): ioctl() error : No such device"}),
              CaptureLog([] {
                  for (const char *pName : {"nope0", static_cast<const char *>(nullptr)}) {
                      const Answer answer = Ask(COM_GetMTU, COM_NET_MTU, pName, 4);
                      EXPECT_EQ(MtuBytes(0), answer.bytes);
                      EXPECT_EQ(-1, answer.result);
                  }
              }));
}

// Callers of older versions pass the numbers.
TEST(NetInfo, FlagsKeepTheirNumbers) {
    EXPECT_EQ(0, COM_NET_MAC_HEX);
    EXPECT_EQ(10, COM_NET_MAC_BYTES_LAST2);
    EXPECT_EQ(11, COM_NET_ARP_HEX);
    EXPECT_EQ(19, COM_NET_ARP_BYTES_LAST2);
    EXPECT_EQ(20, COM_NET_IP_TEXT);
    EXPECT_EQ(24, COM_NET_BROADCAST_TEXT);
    EXPECT_EQ(27, COM_NET_NETMASK_TEXT);
    EXPECT_EQ(30, COM_NET_NETMASK_RAW);
    EXPECT_EQ(31, COM_NET_GATEWAY_TEXT);
    EXPECT_EQ(34, COM_NET_GATEWAY_RAW);
    EXPECT_EQ(35, COM_NET_DNS1_TEXT);
    EXPECT_EQ(37, COM_NET_DNS2_TEXT);
    EXPECT_EQ(39, COM_NET_DNS1_U32);
    EXPECT_EQ(42, COM_NET_DNS2_RAW);
    EXPECT_EQ(43, COM_NET_MTU);
    EXPECT_EQ(16, COM_NET_ADDRESS_TEXT_SIZE);
    EXPECT_EQ(18, COM_NET_MAC_COLON_SIZE);
    EXPECT_EQ(16, COM_NET_IF_NAME_SIZE);
}

TEST(NetInfo, AnswersUnknownForOtherNumbers) {
    for (const uint32_t flag : {kNoFlag, kNoFlag + 1, 0x80000000U, UINT32_MAX}) {
        EXPECT_EQ((Lines{"COMMON:COM_GetNetInfo(): flag(" + std::to_string(static_cast<int>(flag)) +
                         ") not implemented yet."}),
                  CaptureLog([&] {
                      const Answer answer = Ask(COM_GetNetInfo, flag, "lo", COM_NET_UNKNOWN_SIZE);
                      EXPECT_EQ(Text("unknown"), answer.bytes);
                      EXPECT_EQ(-1, answer.result);
                  }));
    }
}

TEST(NetInfo, AsksTheDefaultRoutesInterfaceForAutoAndNull) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand(
            "ip addr add 10.0.0.5/24 dev eth0 && ip addr add 10.8.0.5/24 dev far"
            " && ip link set far address 02:00:00:00:00:77 mtu 1333");
        // Without a default route both mean eth0.
        for (const char *pName : {static_cast<const char *>(nullptr), "auto"}) {
            EXPECT_EQ(Text("10.0.0.5"), Ask(COM_GetNetInfo, COM_NET_IP_TEXT, pName, 9).bytes);
            EXPECT_EQ(Text("00:11:22:AA:BB:CC"),
                      Ask(COM_GetNetInfo, COM_NET_MAC_COLON, pName, COM_NET_MAC_COLON_SIZE).bytes);
        }
        RunCommand("ip route add default via 10.8.0.1 dev far");
        for (const char *pName : {static_cast<const char *>(nullptr), "auto"}) {
            EXPECT_EQ(Text("10.8.0.5"), Ask(COM_GetNetInfo, COM_NET_IP_TEXT, pName, 9).bytes);
            EXPECT_EQ(Text("02:00:00:00:00:77"),
                      Ask(COM_GetNetInfo, COM_NET_MAC_COLON, pName, COM_NET_MAC_COLON_SIZE).bytes);
            EXPECT_EQ(Text("10.8.0.1"), Ask(COM_GetNetInfo, COM_NET_GATEWAY_TEXT, pName, 9).bytes);
            EXPECT_EQ(MtuBytes(1333), Ask(COM_GetNetInfo, COM_NET_MTU, pName, 4).bytes);
        }
        CaptureLog([] {
            EXPECT_EQ(-1, Ask(COM_GetNetInfo, COM_NET_IP_TEXT, "AUTO", 8).result)
                << "the name is exact";
            EXPECT_EQ(-1, Ask(COM_SubGetNetInfo, COM_NET_IP_TEXT, "auto", 8).result)
                << "only COM_GetNetInfo knows the name";
        });
    });
}

TEST(NetInfo, FailsWithoutAnOutput) {
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  for (uint32_t flag = 0; flag <= kNoFlag; ++flag) {
                      EXPECT_EQ(-1, COM_GetNetInfo(flag, "lo", nullptr));
                  }
                  EXPECT_EQ(-1, COM_GetMAC(COM_NET_MAC_HEX, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetArpMAC(COM_NET_ARP_HEX, "10.0.0.9", nullptr));
                  EXPECT_EQ(-1, COM_SubGetNetInfo(COM_NET_IP_TEXT, "lo", nullptr));
                  EXPECT_EQ(-1, COM_SubGetGateway(COM_NET_GATEWAY_TEXT, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetDnsServer(COM_NET_DNS1_TEXT, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetMTU(COM_NET_MTU, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetDefaultRoute(nullptr));
              }));
}

TEST(NetInfo, AnswersSeveralThreadsAtOnce) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand("ip addr add 10.0.0.5/24 dev eth0 && ip route add default via 10.0.0.1");
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([] {
                for (int round = 0; round < 50; ++round) {
                    char out[COM_NET_MAC_COLON_SIZE];
                    EXPECT_EQ(0, COM_GetNetInfo(COM_NET_IP_TEXT, nullptr, out));
                    EXPECT_STREQ("10.0.0.5", out);
                    EXPECT_EQ(0, COM_GetNetInfo(COM_NET_GATEWAY_PADDED, "eth0", out));
                    EXPECT_STREQ("010.000.000.001", out);
                    EXPECT_EQ(0, COM_GetNetInfo(COM_NET_MAC_COLON, "eth0", out));
                    EXPECT_STREQ("00:11:22:AA:BB:CC", out);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    });
}

}  // namespace
