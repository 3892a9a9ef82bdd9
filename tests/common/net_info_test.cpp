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

using talvek::test::CanaryBuf;
using talvek::test::CaptureLog;
using talvek::test::FreshEtc;
using talvek::test::JsonValue;
using talvek::test::kMounts;
using talvek::test::kNetwork;
using talvek::test::ReplaceDir;
using talvek::test::RunCommand;
using talvek::test::RunInPrivateWorld;
using talvek::test::WritableRoot;
using talvek::test::WriteFile;

using Lines = std::vector<std::string>;
using Entry = int (*)(uint32_t flag, const char *pName, void *pOut);

// What an entry answers into a buffer that ends where the answer has to end. The whole buffer must
// have been written.
struct Answer {
    int result;
    std::string bytes;
};

Answer Ask(Entry entry, uint32_t flag, const char *pName, size_t size) {
    const CanaryBuf out{size};
    const int result = entry(flag, pName, out.bytes());
    return {result, std::string(out.text(), size)};
}

// A text with its NUL, as it lies in the output.
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

// How the answer of an address flag must lie in the output. Text forms are followed by what the
// buffer held, so they are compared in a buffer of exactly their size.
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

// Two linked interfaces, eth0 with a known hardware address.
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
        {0, Text("001122AABBCC")},
        {1, Text("001122aabbcc")},
        {2, Text("22AABBCC")},
        {3, Text("AABBCC")},
        {4, Text("00:11:22:AA:BB:CC")},
        {5, Text("22:AA:BB:CC")},
        {6, Text("AA:BB:CC")},
        {7, std::string("\x00\x11\x22\xAA\xBB\xCC", 6)},
        {8, "\x22\xAA\xBB\xCC"},
        {9, "\xAA\xBB\xCC"},
        {10, "\xBB\xCC"},
    };
}

std::vector<MacForm> NeighbourMacForms() {
    return {
        {11, Text("001122AABBCC")},
        {12, Text("001122aabbcc")},
        {13, Text("22AABBCC")},
        {14, Text("AABBCC")},
        {15, Text("00:11:22:AA:BB:CC")},
        {16, Text("22:AA:BB:CC")},
        {17, Text("AA:BB:CC")},
        {18, "\xAA\xBB\xCC"},
        {19, "\xBB\xCC"},
    };
}

// The same form of the address 00:00:00:00:00:00.
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

TEST(Mac, IsZeroInTheFlagsFormForAnUnknownInterface) {
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

TEST(Mac, IsZeroWithoutAName) {
    EXPECT_EQ((Lines{"COMMON:COM_GetMAC(): ioctl(SIOCGIFHWADDR) for (null) got error : No such "
                     "device"}),
              CaptureLog([] {
                  const Answer answer = Ask(COM_GetMAC, 4, nullptr, 18);
                  EXPECT_EQ(Text("00:00:00:00:00:00"), answer.bytes);
                  EXPECT_EQ(-1, answer.result);
              }));
}

TEST(Mac, RefusesFlagsOfOtherEntries) {
    for (const uint32_t flag : {11U, 20U, 44U, UINT32_MAX}) {
        const CanaryBuf out{18};
        EXPECT_EQ((Lines{"COMMON:COM_GetMAC(): flag(" + std::to_string(static_cast<int>(flag)) +
                         ") not implemented."}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_GetMAC(flag, "lo", out.bytes())); }));
        EXPECT_TRUE(out.UntouchedFrom(0));
    }
}

// The kernel's names have at most 15 characters. A longer one must not be answered for the
// interface that has its first 15.
TEST(InterfaceNames, AreTakenAtFullLengthOrNotAtAll) {
    RunInPrivateWorld(kNetwork, [] {
        RunCommand("ip link add abcdefghijklmno address 02:00:00:00:00:01 type veth peer name far");
        CaptureLog([] {
            char out[18];
            EXPECT_EQ(0, COM_GetMAC(4, "abcdefghijklmno", out));
            EXPECT_STREQ("02:00:00:00:00:01", out);
            EXPECT_EQ(-1, COM_GetMAC(4, "abcdefghijklmn", out));
            EXPECT_EQ(-1, COM_GetMAC(4, "abcdefghijklmnop", out));
            EXPECT_STREQ("00:00:00:00:00:00", out);
            EXPECT_EQ(-1, COM_GetMAC(4, std::string(100000, 'x').c_str(), out));
            EXPECT_EQ(-1, COM_GetMAC(4, "", out));
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
        char out[18];
        COM_GetArpMAC(15, "10.0.0.8", out);
        EXPECT_STREQ("02:0A:0B:0C:0D:0E", out);
        COM_GetArpMAC(15, "10.0.0.90", out);
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
                      const CanaryBuf out{18};
                      EXPECT_EQ(-1, COM_GetArpMAC(10, "10.0.0.9", out.bytes()));
                      EXPECT_EQ(-1, COM_GetArpMAC(20, "10.0.0.9", out.bytes()));
                      EXPECT_TRUE(out.UntouchedFrom(0));
                  }));
    });
}

std::string ArpAnswer(const std::string &table, const char *pAddress) {
    WriteFile("/proc/net/arp", table);
    const Answer answer = Ask(COM_GetArpMAC, 15, pAddress, 18);
    return answer.bytes.c_str();
}

constexpr char kArpHead[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

TEST(ArpMac, TakesTheFirstWholeLineOfTheNeighbour) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string head = kArpHead;
        EXPECT_EQ("01:02:03:04:05:06",
                  ArpAnswer(head + "10.0.0.9 0x1 0x2 01:02:03:04:05:06 * eth0\n"
                                   "10.0.0.9 0x1 0x2 11:12:13:14:15:16 * eth1\n",
                            "10.0.0.9"));
        // A line without a hardware address is passed over.
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
        // A line is read in pieces of at most 255 characters: the second piece counts as a line.
        EXPECT_EQ("01:02:03:04:05:06",
                  ArpAnswer(std::string(255, ' ') + "a 0x1 0x2 01:02:03:04:05:06\n", "a"));
    });
}

// 256 bytes a line with the NUL: the 256th character begins the next line.
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
                } else if (at % 3 == 0) {  // one digit is a number too
                    expected[at + 1] = whole[at];
                }
            }
            EXPECT_EQ(expected, mac) << length;
        }
    });
}

TEST(ArpMac, LogsATableThatCannotBeOpened) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        EXPECT_EQ((Lines{"COMMON:COM_GetArpMAC(): fopen(/proc/net/arp) fail : No such file or "
                         "directory"}),
                  CaptureLog([] {
                      EXPECT_EQ(Text("000000000000"), Ask(COM_GetArpMAC, 11, "10.0.0.9", 13).bytes);
                  }));
    });
}

struct AddressForm {
    uint32_t flag;
    Form form;
};

constexpr AddressForm kAddressForms[] = {
    {20, Form::kText}, {21, Form::kPadded}, {22, Form::kBinary}, {23, Form::kBinary}};
constexpr AddressForm kBroadcastForms[] = {
    {24, Form::kText}, {25, Form::kPadded}, {26, Form::kBinary}};
constexpr AddressForm kNetmaskForms[] = {
    {27, Form::kText}, {28, Form::kPadded}, {29, Form::kBinary}, {30, Form::kBinary}};
constexpr AddressForm kGatewayForms[] = {
    {31, Form::kText}, {32, Form::kPadded}, {33, Form::kBinary}, {34, Form::kBinary}};
constexpr AddressForm kFirstServerForms[] = {
    {35, Form::kText}, {36, Form::kPadded}, {39, Form::kBinary}, {41, Form::kBinary}};
constexpr AddressForm kSecondServerForms[] = {
    {37, Form::kText}, {38, Form::kPadded}, {40, Form::kBinary}, {42, Form::kBinary}};

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
        EXPECT_EQ(Text("010.000.000.005"), Ask(COM_GetNetInfo, 21, "eth0", 16).bytes);
        EXPECT_EQ(Text("255.255.255.000"), Ask(COM_GetNetInfo, 28, "eth0", 16).bytes);
        EXPECT_EQ(Text("127.000.000.001"), Ask(COM_GetNetInfo, 21, "lo", 16).bytes);
    });
}

TEST(Addresses, AreThePrimaryOneOfSeveralAndTheLabelledOnesByLabel) {
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

TEST(Addresses, OfAnInterfaceWithoutOneAreZeroWithoutAMessage) {
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
                  ExpectAddress(COM_SubGetNetInfo, 20, nullptr, Form::kText, "0.0.0.0", -1);
              }));
}

TEST(Addresses, AreZeroBytesForFlagsOfOtherEntries) {
    for (const uint32_t flag : {19U, 31U, UINT32_MAX}) {
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
            EXPECT_EQ(0, COM_GetNetInfo(22, "eth0", out + shift));
            EXPECT_EQ(Binary("10.0.0.5"), std::string(out + shift, 4));
            EXPECT_EQ(0, COM_GetNetInfo(33, "eth0", out + shift));
            EXPECT_EQ(Binary("10.0.0.1"), std::string(out + shift, 4));
            EXPECT_EQ(0, COM_GetNetInfo(43, "eth0", out + shift));
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
        // The kernel keeps the routes in the order of their metrics.
        const std::string first = RunCommand("ip -json route show default");
        ExpectForms(kGatewayForms, COM_SubGetGateway, nullptr, JsonValue(first, "gateway"), 0);
        char name[16];
        EXPECT_EQ(0, COM_GetDefaultRoute(name));
        EXPECT_EQ(JsonValue(first, "dev"), name);
        EXPECT_STREQ("far", name);
    });
}

// `make` is the command that makes an interface of the name.
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
                  char route[16] = "kept";
                  EXPECT_EQ(-1, COM_GetDefaultRoute(route));
                  EXPECT_STREQ("kept", route);
              }));
    EXPECT_EQ((Lines{"COMMON:COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[(null)]) error : No such "
                     "device"}),
              CaptureLog([] {
                  ExpectAddress(COM_SubGetGateway, 31, nullptr, Form::kText, "0.0.0.0", -1);
              }));
}

TEST(Gateway, IsThePeerOfAPointToPointLinkWhoseRouteHasNone) {
    if (access("/dev/net/tun", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "/dev/net/tun cannot be used here";
    }
    RunInPrivateWorld(kNetwork,
                      [] { ExpectPeerAsGateway("tun0", "ip tuntap add dev tun0 mode tun"); });
}

TEST(Gateway, IsThePeerOfAnAddressWithPeerOnAnyLink) {
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
            CaptureLog(
                [] { ExpectAddress(COM_SubGetGateway, 31, "nope0", Form::kText, "0.0.0.0", -1); }));
    });
}

TEST(Gateway, IsZeroBytesForFlagsOfOtherEntries) {
    for (const uint32_t flag : {30U, 35U, UINT32_MAX}) {
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
        // The table prints 192.168.1.1 as the number that its four bytes in memory are.
        ExpectForms(kGatewayForms, COM_SubGetGateway, nullptr, "192.168.1.1", 0);
        ExpectForms(kGatewayForms, COM_SubGetGateway, "wan1", "192.168.1.1", 0);
        ExpectForms(kGatewayForms, COM_SubGetGateway, "eth0", "192.168.1.254", 0);
        const CanaryBuf name{16};
        EXPECT_EQ(0, COM_GetDefaultRoute(name.text()));
        EXPECT_STREQ("wan1", name.text());
    });
}

TEST(RouteTable, HasGatewaysThatCannotBeReadPassedOver) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        // One digit more than 32 bits hold, more than 64 bits hold, and no number.
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
                      ExpectAddress(COM_SubGetGateway, 31, nullptr, Form::kText, "192.168.1.1", 0);
                  }));
        EXPECT_EQ(messages("COM_GetDefaultRoute"), CaptureLog([] {
                      const CanaryBuf name{16};
                      EXPECT_EQ(0, COM_GetDefaultRoute(name.text()));
                      EXPECT_STREQ("abcdefghijklmno", name.text());
                  }));
    });
}

TEST(RouteTable, HasLongInterfaceNamesCut) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/net/route", RouteLine("abcdefghijklmnop", "0101A8C0"));
        const CanaryBuf name{16};
        EXPECT_EQ(0, COM_GetDefaultRoute(name.text()));
        EXPECT_STREQ("abcdefghijklmno", name.text());
    });
}

// 256 bytes a line with the NUL: a mask whose last digit does not fit is none.
TEST(RouteTable, IsReadInLinesOf255Characters) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string start = "eth7\t00000000\t0101A8C0\t0003\t0\t0\t";
        const std::string mask = "\t00000000";
        for (size_t size = 254; size <= 256; ++size) {
            const std::string metric(size - start.size() - mask.size(), '7');
            WriteFile("/proc/net/route", start + metric + mask);
            const bool fits = size <= 255;
            char name[16];
            EXPECT_EQ(fits ? 0 : -1, COM_GetDefaultRoute(name)) << size;
            CaptureLog([&] {
                ExpectAddress(COM_SubGetGateway, 31, "eth7", Form::kText,
                              fits ? "192.168.1.1" : "0.0.0.0", fits ? 0 : -1);
            });
        }
    });
}

// Columns of the default route's search stand between tabs alone; tabs ahead of a column count as
// one.
TEST(RouteTable, IsSplitAtTabsForTheDefaultRoute) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        char name[16] = "kept";
        WriteFile("/proc/net/route", "\t\teth5\t\t00000000\t0101A8C0\t3\t0\t0\t0\t00000000\t0\n");
        EXPECT_EQ(0, COM_GetDefaultRoute(name));
        EXPECT_STREQ("eth5", name);
        WriteFile("/proc/net/route", "eth6 00000000 0101A8C0 3 0 0 0 00000000 0\n");
        EXPECT_EQ(-1, COM_GetDefaultRoute(name));
        EXPECT_STREQ("eth5", name);
        ExpectAddress(COM_SubGetGateway, 31, "eth6", Form::kText, "192.168.1.1", 0);
    });
}

TEST(RouteTable, MayEndAnywhere) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        const std::string line = "eth7\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n";
        const size_t whole = line.find("\t0\t0\t0\n");
        for (size_t length = 0; length <= line.size(); ++length) {
            WriteFile("/proc/net/route", line.substr(0, length));
            const CanaryBuf name{16};
            const int result = COM_GetDefaultRoute(name.text());
            EXPECT_EQ(length >= whole ? 0 : -1, result) << length;
            EXPECT_TRUE(length >= whole || name.UntouchedFrom(0)) << length;
            CaptureLog([&] {
                ExpectAddress(COM_SubGetGateway, 31, "eth7", Form::kText,
                              length >= whole ? "192.168.1.1" : "0.0.0.0",
                              length >= whole ? 0 : -1);
            });
        }
    });
}

TEST(RouteTable, IsLoggedWhenItCannotBeOpened) {
    RunInPrivateWorld(kNetwork, [] {
        RunCommand("ip link set lo up");
        ReplaceDir("/proc");
        EXPECT_EQ((Lines{"COMMON:COM_GetDefaultRoute(): fopen(/proc/net/route) : No such file or "
                         "directory"}),
                  CaptureLog([] {
                      const CanaryBuf name{16};
                      EXPECT_EQ(-1, COM_GetDefaultRoute(name.text()));
                      EXPECT_TRUE(name.UntouchedFrom(0));
                  }));
        // The peer is asked for all the same; loopback's is its own address.
        EXPECT_EQ((Lines{"COMMON:COM_SubGetGateway(): fopen(/proc/net/route) : No such file or "
                         "directory"}),
                  CaptureLog([] {
                      ExpectAddress(COM_SubGetGateway, 31, "lo", Form::kText, "127.0.0.1", 0);
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

TEST(DnsServer, CountsAnEntryWhereverItsWordStands) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        WriteFile("/etc/resolv.conf",
                  "  # nameserver 192.0.2.1\nmynameserver 192.0.2.2 nameserver 192.0.2.9\n");
        ExpectForms(kFirstServerForms, COM_GetDnsServer, nullptr, "192.0.2.1", 0);
        ExpectForms(kSecondServerForms, COM_GetDnsServer, nullptr, "192.0.2.2", 0);
    });
}

// The second entry is the second of the file, whether or not the first can be answered.
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

// 160 bytes a line with the NUL: the 160th character begins the next line.
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
            const CanaryBuf out{16};
            const int result = COM_GetDnsServer(37, nullptr, out.bytes());
            EXPECT_EQ(result == 0, strcmp("0.0.0.0", out.text()) != 0) << length;
        }
    });
}

// Which file is read for an interface, by the presence of the four files.
TEST(DnsServer, ComesFromTheInterfacesOwnFileWhenThatIsKept) {
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

// COM_GetNetInfo names the interface of the default route, or eth0, where the caller does not.
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
        // A directory in the file's place can be opened but holds no line.
        WritableRoot();
        ASSERT_FALSE(HasFatalFailure());
        WriteFile("/mtd1/resolv.conf.wan", "");
        RunCommand("mkdir /etc/resolv.conf.wan");
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      ExpectForms(kFirstServerForms, COM_GetDnsServer, "eth0", "0.0.0.0", -1);
                  }));
    });
}

TEST(DnsServer, IsZeroBytesForFlagsOfOtherEntries) {
    for (const uint32_t flag : {34U, 43U, UINT32_MAX}) {
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
                const Answer answer = Ask(entry, 43, "eth0", 4);
                EXPECT_EQ(MtuBytes(mtu), answer.bytes);
                EXPECT_EQ(0, answer.result);
            }
        }
    });
}

TEST(Mtu, IsAnsweredForAnyFlag) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        for (const uint32_t flag : {0U, 42U, 44U, UINT32_MAX}) {
            EXPECT_EQ(MtuBytes(1500), Ask(COM_GetMTU, flag, "eth0", 4).bytes);
        }
    });
}

TEST(Mtu, IsZeroAndLoggedForAnUnknownInterface) {
    EXPECT_EQ((Lines{"COMMON:COM_GetMTU(): ioctl() error : No such device",
                     "COMMON:COM_GetMTU(): ioctl() error : No such device"}),
              CaptureLog([] {
                  for (const char *pName : {"nope0", static_cast<const char *>(nullptr)}) {
                      const Answer answer = Ask(COM_GetMTU, 43, pName, 4);
                      EXPECT_EQ(MtuBytes(0), answer.bytes);
                      EXPECT_EQ(-1, answer.result);
                  }
              }));
}

TEST(NetInfo, AnswersUnknownForFlagsThatAreNone) {
    for (const uint32_t flag : {44U, 45U, 0x80000000U, UINT32_MAX}) {
        EXPECT_EQ((Lines{"COMMON:COM_GetNetInfo(): flag(" + std::to_string(static_cast<int>(flag)) +
                         ") not implemented yet."}),
                  CaptureLog([&] {
                      const Answer answer = Ask(COM_GetNetInfo, flag, "lo", 8);
                      EXPECT_EQ(Text("unknown"), answer.bytes);
                      EXPECT_EQ(-1, answer.result);
                  }));
    }
}

TEST(NetInfo, TakesTheDefaultRoutesInterfaceForAutoAndNull) {
    RunInPrivateWorld(kNetwork, [] {
        MakeLink();
        RunCommand(
            "ip addr add 10.0.0.5/24 dev eth0 && ip addr add 10.8.0.5/24 dev far"
            " && ip link set far address 02:00:00:00:00:77 mtu 1333");
        // Without a default route both stand for eth0.
        for (const char *pName : {static_cast<const char *>(nullptr), "auto"}) {
            EXPECT_EQ(Text("10.0.0.5"), Ask(COM_GetNetInfo, 20, pName, 9).bytes);
            EXPECT_EQ(Text("00:11:22:AA:BB:CC"), Ask(COM_GetNetInfo, 4, pName, 18).bytes);
        }
        RunCommand("ip route add default via 10.8.0.1 dev far");
        for (const char *pName : {static_cast<const char *>(nullptr), "auto"}) {
            EXPECT_EQ(Text("10.8.0.5"), Ask(COM_GetNetInfo, 20, pName, 9).bytes);
            EXPECT_EQ(Text("02:00:00:00:00:77"), Ask(COM_GetNetInfo, 4, pName, 18).bytes);
            EXPECT_EQ(Text("10.8.0.1"), Ask(COM_GetNetInfo, 31, pName, 9).bytes);
            EXPECT_EQ(MtuBytes(1333), Ask(COM_GetNetInfo, 43, pName, 4).bytes);
        }
        CaptureLog([] {
            EXPECT_EQ(-1, Ask(COM_GetNetInfo, 20, "AUTO", 8).result) << "the name is exact";
            EXPECT_EQ(-1, Ask(COM_SubGetNetInfo, 20, "auto", 8).result)
                << "only COM_GetNetInfo knows the name";
        });
    });
}

TEST(NetInfo, FailsWithoutAnOutput) {
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  for (uint32_t flag = 0; flag <= 44; ++flag) {
                      EXPECT_EQ(-1, COM_GetNetInfo(flag, "lo", nullptr));
                  }
                  EXPECT_EQ(-1, COM_GetMAC(0, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetArpMAC(11, "10.0.0.9", nullptr));
                  EXPECT_EQ(-1, COM_SubGetNetInfo(20, "lo", nullptr));
                  EXPECT_EQ(-1, COM_SubGetGateway(31, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetDnsServer(35, "lo", nullptr));
                  EXPECT_EQ(-1, COM_GetMTU(43, "lo", nullptr));
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
                    char out[18];
                    EXPECT_EQ(0, COM_GetNetInfo(20, nullptr, out));
                    EXPECT_STREQ("10.0.0.5", out);
                    EXPECT_EQ(0, COM_GetNetInfo(32, "eth0", out));
                    EXPECT_STREQ("010.000.000.001", out);
                    EXPECT_EQ(0, COM_GetNetInfo(4, "eth0", out));
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
