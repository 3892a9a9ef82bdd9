#include "common/unit_info.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr size_t kRecord = 328;

// The text of a field, by its place in the record. It must be NUL-terminated inside its size.
std::string Field(const CanaryBuf &record, size_t offset, size_t size) {
    const char *pField = record.text() + offset;
    EXPECT_LT(strnlen(pField, size), size) << "the field at " << offset << " does not end";
    return std::string(pField, strnlen(pField, size));
}

int Number(const CanaryBuf &record, size_t offset) {
    int32_t number = 0;
    memcpy(&number, record.bytes() + offset, sizeof number);
    return number;
}

int Fill(const CanaryBuf &record, const char *pIfName) {
    return COM_GetUnitNetInfo(reinterpret_cast<tUnitNetInfo *>(record.bytes()), pIfName);
}

void SetName(const std::string &name) {
    ASSERT_EQ(0, sethostname(name.data(), name.size()));
}

void MakeUnit() {
    FreshEtc();
    WriteFile("/etc/Model", "NVR-16\n");
    WriteFile("/etc/Proj", "harbour\n");
    WriteFile("/etc/Port", "8080\n");
    WriteFile("/etc/Note", "second floor\n");
    WriteFile("/etc/resolv.conf", "nameserver 192.0.2.53\n");
    SetName("recorder-7");
    RunCommand(
        "ip link set lo up && ip link add eth0 address 00:11:22:aa:bb:cc mtu 1420 type veth peer"
        " name far && ip link set eth0 up && ip link set far up"
        " && ip addr add 10.0.0.5/20 dev eth0 && ip route add default via 10.0.0.1");
}

TEST(UnitNetInfo, FillsEveryField) {
    static_assert(sizeof(tUnitNetInfo) == kRecord);
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        const std::string json = RunCommand("ip -json -4 addr show eth0");
        for (const char *pName : {"eth0", static_cast<const char *>(nullptr), "auto"}) {
            const CanaryBuf record{kRecord};
            EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, Fill(record, pName)); }));
            EXPECT_EQ("NVR-16", Field(record, 0, 32));
            EXPECT_EQ("harbour", Field(record, 32, 32));
            EXPECT_EQ("recorder-7", Field(record, 64, 64));
            EXPECT_EQ(JsonValue(json, "local"), Field(record, 128, 16));
            EXPECT_EQ("8080", Field(record, 144, 8));
            EXPECT_EQ("255.255.240.0", Field(record, 152, 16));
            EXPECT_EQ("10.0.0.1", Field(record, 168, 16));
            EXPECT_EQ("192.0.2.53", Field(record, 184, 16));
            EXPECT_EQ("00:11:22:AA:BB:CC", Field(record, 200, 24));
            EXPECT_EQ(pName != nullptr ? pName : "", Field(record, 224, 16));
            EXPECT_EQ("second floor", Field(record, 240, 64));
            EXPECT_EQ(1420, Number(record, 304));
            EXPECT_TRUE(record.UntouchedFrom(308)) << "these are the caller's";
        }
    });
}

TEST(UnitNetInfo, IsCompleteWithoutANote) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        unlink("/etc/Note");
        const CanaryBuf record{kRecord};
        EXPECT_EQ(0, Fill(record, "eth0"));
        EXPECT_EQ("unknown", Field(record, 240, 64));
    });
}

TEST(UnitNetInfo, CountsFailedReads) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        const CanaryBuf record{kRecord};
        unlink("/etc/Model");
        EXPECT_EQ(-1, Fill(record, "eth0"));
        EXPECT_EQ("unknown", Field(record, 0, 32));
        unlink("/etc/Proj");
        EXPECT_EQ(-2, Fill(record, "eth0"));
        EXPECT_EQ("unknown", Field(record, 32, 32));
        unlink("/etc/Port");
        EXPECT_EQ(-3, Fill(record, "eth0"));
        EXPECT_EQ("80", Field(record, 144, 8));
        unlink("/etc/resolv.conf");
        EXPECT_EQ((Lines{"COMMON:COM_GetDnsServer(): fopen(/etc/resolv.conf) : No such file or "
                         "directory"}),
                  CaptureLog([&] { EXPECT_EQ(-4, Fill(record, "eth0")); }));
        EXPECT_EQ("0.0.0.0", Field(record, 184, 16));
    });
}

TEST(UnitNetInfo, ReadsTheDefaultRouteOnce) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        ReplaceDir("/proc");
        const CanaryBuf record{kRecord};
        EXPECT_EQ((Lines{"COMMON:COM_GetDefaultRoute(): fopen(/proc/net/route) : No such file or "
                         "directory",
                         "COMMON:COM_SubGetGateway(): fopen(/proc/net/route) : No such file or "
                         "directory"}),
                  CaptureLog([&] { EXPECT_EQ(0, Fill(record, nullptr)); }));
        EXPECT_EQ("10.0.0.5", Field(record, 128, 16));
        EXPECT_EQ("10.0.0.5", Field(record, 168, 16))
            << "without a peer, the request gives the interface's own address";
    });
}

// Model, project, host name and port are read; address, netmask, gateway, name server, hardware
// address and MTU fail, in this order.
TEST(UnitNetInfo, HasWellFormedTextsForAnUnknownInterface) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        unlink("/etc/resolv.conf");
        const CanaryBuf record{kRecord};
        EXPECT_EQ((Lines{"COMMON:COM_SubGetNetInfo(): ioctl(35093:nope0) error : No such device",
                         "COMMON:COM_SubGetNetInfo(): ioctl(35099:nope0) error : No such device",
                         "COMMON:COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[nope0]) error : No such "
                         "device",
                         "COMMON:COM_GetDnsServer(): fopen(/etc/resolv.conf) : No such file or "
                         "directory",
                         "COMMON:COM_GetMAC(): ioctl(SIOCGIFHWADDR) for nope0 got error : No such "
                         "device",
                         "COMMON:COM_GetMTU(): ioctl() error : No such device"}),
                  CaptureLog([&] { EXPECT_EQ(-6, Fill(record, "nope0")); }));
        EXPECT_EQ("0.0.0.0", Field(record, 128, 16));
        EXPECT_EQ("0.0.0.0", Field(record, 152, 16));
        EXPECT_EQ("0.0.0.0", Field(record, 168, 16));
        EXPECT_EQ("0.0.0.0", Field(record, 184, 16));
        EXPECT_EQ("00:00:00:00:00:00", Field(record, 200, 24));
        EXPECT_EQ("nope0", Field(record, 224, 16));
        EXPECT_EQ(0, Number(record, 304));
    });
}

// The files are links to themselves, so every attempt to read one is logged. The note is read
// before the MTU and not counted.
TEST(UnitNetInfo, ReadsInTheOrderOfTheRecordAndTheNoteBeforeTheMtu) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        FreshEtc();
        for (const char *pFile : {"/etc/Model", "/etc/Proj", "/etc/Port", "/etc/Note"}) {
            ASSERT_EQ(0, symlink(pFile, pFile)) << strerror(errno);
        }
        SetName(std::string(64, 'h'));
        const auto tooMany = [](const std::string &file) {
            return "COMMON:COM_GetFileContent(): open(/etc/" + file +
                   ") error : Too many levels of symbolic links";
        };
        const CanaryBuf record{kRecord};
        EXPECT_EQ((Lines{tooMany("Model"), tooMany("Proj"),
                         "COMMON:COM_SubGetNetInfo(): ioctl(35093:nope0) error : No such device",
                         tooMany("Port"),
                         "COMMON:COM_SubGetNetInfo(): ioctl(35099:nope0) error : No such device",
                         "COMMON:COM_SubGetGateway(): ioctl(SIOCGIFDSTADDR[nope0]) error : No such "
                         "device",
                         "COMMON:COM_GetDnsServer(): fopen(/etc/resolv.conf) : No such file or "
                         "directory",
                         "COMMON:COM_GetMAC(): ioctl(SIOCGIFHWADDR) for nope0 got error : No such "
                         "device",
                         tooMany("Note"), "COMMON:COM_GetMTU(): ioctl() error : No such device"}),
                  CaptureLog([&] { EXPECT_EQ(-10, Fill(record, "nope0")); }));
    });
}

TEST(UnitNetInfo, TruncatesTextsToTheirFields) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        for (const size_t size : {7, 8, 15, 16, 31, 32, 33, 63, 64, 65, 200}) {
            const std::string text(size, 'm');
            for (const char *pPath : {"/etc/Model", "/etc/Proj", "/etc/Port", "/etc/Note"}) {
                WriteFile(pPath, text);
            }
            const CanaryBuf record{kRecord};
            CaptureLog([&] { Fill(record, text.c_str()); });
            EXPECT_EQ(text.substr(0, 31), Field(record, 0, 32));
            EXPECT_EQ(text.substr(0, 31), Field(record, 32, 32));
            EXPECT_EQ(text.substr(0, 7), Field(record, 144, 8));
            EXPECT_EQ(text.substr(0, 15), Field(record, 224, 16));
            EXPECT_EQ(text.substr(0, 63), Field(record, 240, 64));
        }
    });
}

// The kernel accepts 64 characters, one more than the field.
TEST(UnitNetInfo, AcceptsHostNamesOfUpTo63Characters) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        const CanaryBuf record{kRecord};
        SetName(std::string(63, 'h'));
        EXPECT_EQ(0, Fill(record, "eth0"));
        EXPECT_EQ(std::string(63, 'h'), Field(record, 64, 64));
        SetName(std::string(64, 'h'));
        EXPECT_EQ(-1, Fill(record, "eth0"));
        EXPECT_EQ("unknown", Field(record, 64, 64));
    });
}

TEST(UnitNetInfo, IsRefreshedByItsOwnInterface) {
    RunInPrivateWorld(kNetwork | kHostname, [] {
        MakeUnit();
        tUnitNetInfo unit;
        EXPECT_EQ(0, COM_GetUnitNetInfo(&unit, "eth0"));
        RunCommand("ip link set eth0 mtu 1300");
        EXPECT_EQ(0, COM_GetUnitNetInfo(&unit, unit.dev));
        EXPECT_STREQ("eth0", unit.dev);
        EXPECT_STREQ("10.0.0.5", unit.ip);
        EXPECT_EQ(1300, unit.mtu);
    });
}

TEST(UnitNetInfo, FailsWithoutARecord) {
    EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(-1, COM_GetUnitNetInfo(nullptr, "lo")); }));
}

TEST(RxPackets, EqualsTheCountOfIp) {
    RunInPrivateWorld(kNetwork, [] {
        // Only a sysfs that is mounted inside a network namespace shows its interfaces.
        ASSERT_EQ(0, mount("sysfs", "/sys", "sysfs", 0, nullptr)) << strerror(errno);
        RunCommand("ip link set lo up");
        EXPECT_EQ(0, COM_GetRxPackets("lo"));
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in discard = {};
        discard.sin_family = AF_INET;
        discard.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        discard.sin_port = htons(9);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(
                1, sendto(fd, "x", 1, 0, reinterpret_cast<sockaddr *>(&discard), sizeof discard));
        }
        close(fd);
        // The kernel may still send "port unreachable", so the count may grow.
        const int before = COM_GetRxPackets("lo");
        const std::string json = RunCommand("ip -json -s link show lo");
        const size_t rx = json.find("\"rx\":");
        ASSERT_NE(std::string::npos, rx) << json;
        const int packets = std::stoi(JsonValue(json.substr(rx), "packets"));
        EXPECT_LE(3, before);
        EXPECT_LE(before, packets);
        EXPECT_LE(packets, COM_GetRxPackets("lo"));
    });
}

TEST(RxPackets, ReadsTheFirstEightDigits) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/sys");
        const struct {
            const char *content;
            int count;
        } cases[] = {
            {"0\n", 0},
            {"7\n", 7},
            {"1234567\n", 1234567},
            {"12345678\n", 12345678},
            {"99999999", 99999999},
            {"123456789\n", 12345678},
            {"18446744073709551615\n", 18446744},
            {"", 0},
            {"none\n", 0},
        };
        for (const auto &c : cases) {
            WriteFile("/sys/class/net/eth0/statistics/rx_packets", c.content);
            EXPECT_EQ(c.count, COM_GetRxPackets("eth0")) << c.content;
        }
    });
}

TEST(RxPackets, AreZeroWithoutAMessageWhenNothingCanBeRead) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/sys");
        WriteFile("/sys/class/net/abcdefghijklmno/statistics/rx_packets", "15\n");
        WriteFile("/sys/class/net/abcdefghijklmnop/statistics/rx_packets", "16\n");
        WriteFile("/sys/class/net/statistics/rx_packets", "17\n");
        WriteFile("/sys/class/statistics/rx_packets", "18\n");
        WriteFile("/sys/class/net/a/b/statistics/rx_packets", "19\n");
        EXPECT_EQ(0, mkdir("/sys/class/net/dir", 0755));
        RunCommand("mkdir -p /sys/class/net/dir/statistics/rx_packets");
        EXPECT_EQ("", Capture([] {
                      EXPECT_EQ(15, COM_GetRxPackets("abcdefghijklmno"));
                      // Too long for a name, or leading to another directory.
                      for (const std::string name :
                           {"abcdefghijklmnop", "", ".", "..", "../net/abcdefghijklmno", "a/b", "/",
                            "nope0", "dir"}) {
                          EXPECT_EQ(0, COM_GetRxPackets(name.c_str())) << name;
                      }
                      EXPECT_EQ(0, COM_GetRxPackets(std::string(100000, 'x').c_str()));
                      EXPECT_EQ(0, COM_GetRxPackets(nullptr));
                  }));
    });
}

TEST(Base64Value, IsThePositionInTheAlphabetOr64) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const size_t at = code == 0 ? std::string::npos : alphabet.find(c);
        EXPECT_EQ(at == std::string::npos ? 64 : static_cast<int>(at), COM_Base64Value(c)) << code;
    }
    EXPECT_EQ(64, COM_Base64Value('='));
    EXPECT_EQ(64, COM_Base64Value('-'));
    EXPECT_EQ(64, COM_Base64Value('_'));
}

// Decodes into a buffer of exactly three quarters of the text's length, rounded down.
std::string Decode(const std::string &text) {
    const GuardedCopy copy{text.c_str()};
    const CanaryBuf out{text.size() * 3 / 4};
    const int count = COM_Base64Decode(out.bytes(), copy.text());
    EXPECT_GE(count, 0);
    EXPECT_TRUE(out.UntouchedFrom(static_cast<size_t>(count)));
    return std::string(out.text(), static_cast<size_t>(count));
}

// RFC 4648, section 10.
TEST(Base64Decode, DecodesTheVectorsOfTheStandard) {
    EXPECT_EQ("", Decode(""));
    EXPECT_EQ("f", Decode("Zg=="));
    EXPECT_EQ("fo", Decode("Zm8="));
    EXPECT_EQ("foo", Decode("Zm9v"));
    EXPECT_EQ("foob", Decode("Zm9vYg=="));
    EXPECT_EQ("fooba", Decode("Zm9vYmE="));
    EXPECT_EQ("foobar", Decode("Zm9vYmFy"));
    EXPECT_EQ("ABC", Decode("QUJD"));
    EXPECT_EQ("AB", Decode("QUI="));
}

TEST(Base64Decode, SkipsCharactersOutsideTheAlphabet) {
    EXPECT_EQ("ABC", Decode("QU\nJD"));
    EXPECT_EQ("ABC", Decode("\r\n Q\tU.J-D_\n"));
    EXPECT_EQ("ABC", Decode("Q\xFFU\x80J\x01"
                            "D"));
    EXPECT_EQ("", Decode(" \n\t!"));
}

TEST(Base64Decode, EndsAtThePadCharacter) {
    EXPECT_EQ("", Decode("="));
    EXPECT_EQ("", Decode("=QUJD"));
    EXPECT_EQ("AB", Decode("QUI=QUJD"));
    EXPECT_EQ("ABC", Decode("QUJD="));
    EXPECT_EQ("", Decode(" =QUJD"));
}

TEST(Base64Decode, EmitsOnlyCompleteBytesOfTheLastGroup) {
    EXPECT_EQ("", Decode("Q"));
    EXPECT_EQ("A", Decode("QU"));
    EXPECT_EQ("AB", Decode("QUJ"));
    EXPECT_EQ("ABC", Decode("QUJDR"));
}

TEST(Base64Decode, DecodesIntoItsOwnText) {
    char text[] = "Zm9v\nYmFy";
    EXPECT_EQ(6, COM_Base64Decode(text, text));
    EXPECT_EQ("foobar", std::string(text, 6));
}

TEST(Base64Decode, DecodesNothingWithoutTextOrOutput) {
    char out[4];
    EXPECT_EQ(0, COM_Base64Decode(out, nullptr));
    EXPECT_EQ(0, COM_Base64Decode(nullptr, "QUJD"));
}

// Compared with base64 of coreutils: lines of 76 characters, every length of the last group, every
// byte.
TEST(Base64Decode, DecodesTheOutputOfBase64) {
    const TempDir dir;
    for (const size_t size : {1, 2, 3, 57, 58, 59, 1000}) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            bytes[i] = static_cast<char>(i * 37 + size);
        }
        WriteFile(dir / "bytes", bytes);
        const std::string text = RunCommand("base64 " + (dir / "bytes"));
        EXPECT_EQ(bytes, Decode(text));
        // A truncated text gives the bytes that are complete.
        int values = 0;
        for (size_t length = 0; length < text.size(); ++length) {
            EXPECT_EQ(bytes.substr(0, static_cast<size_t>(values) * 6 / 8),
                      Decode(text.substr(0, length)));
            values += COM_Base64Value(text[length]) != COM_BASE64_NO_VALUE;
        }
    }
}

TEST(CountUtf8RowLength, IsTheIndexOfTheFirstUnitAfterZeros) {
    const struct {
        std::vector<uint16_t> units;
        int index;
    } cases[] = {
        {{'a', 'b', 0, 0, 'c'}, 4}, {{'a', 0, 'c', 0, 'd'}, 2},       {{0, 'c'}, 1},
        {{0, 0, 0, 0xFFFF}, 3},     {{0x0100, 0x8000, 0, 0x0001}, 3},
    };
    for (const auto &c : cases) {
        const GuardedCopy units{c.units.data(), c.units.size() * sizeof c.units[0]};
        EXPECT_EQ(c.index, COM_CountUtf8RowLength(reinterpret_cast<uint16_t *>(units.bytes())));
    }
}

TEST(CountUtf8RowLength, LogsNullWithoutANewline) {
    EXPECT_EQ((Lines{"COMMON:COM_CountUtf8RowLength(): Ooops! pArray = NULL"}),
              CaptureLog([] { EXPECT_EQ(0, COM_CountUtf8RowLength(nullptr)); }));
    EXPECT_EQ('L', Capture([] { COM_CountUtf8RowLength(nullptr); }).back());
}

tUnitNetInfo UnitAt(const std::string &address) {
    tUnitNetInfo unit = {};
    memcpy(unit.ip, address.data(), std::min(address.size(), sizeof unit.ip));
    return unit;
}

int Compare(const std::string &a, const std::string &b) {
    const tUnitNetInfo unitA = UnitAt(a);
    const tUnitNetInfo unitB = UnitAt(b);
    return COM_SortUnitInfoViaIP(&unitA, &unitB);
}

TEST(SortUnitInfoViaIP, ReturnsTheDifferenceOfTheFirstUnequalComponent) {
    EXPECT_EQ("", Capture([] {
                  EXPECT_EQ(-1, Compare("10.0.0.9", "10.0.0.10"));
                  EXPECT_EQ(1, Compare("10.0.0.10", "10.0.0.9"));
                  EXPECT_EQ(182, Compare("192.168.1.1", "10.255.255.255"));
                  EXPECT_EQ(-255, Compare("10.0.255.255", "10.255.0.0"));
                  EXPECT_EQ(3, Compare("10.1.7.0", "10.1.4.255"));
                  EXPECT_EQ(-2, Compare("010.000.000.008", "10.0.0.10"));
                  EXPECT_EQ(-2, Compare("10.0.0.8", "010.000.000.010"));
                  EXPECT_EQ(10, Compare("10.0.0.1", ""));
                  EXPECT_EQ(1, Compare("10.1", "10.0.0.1"));
              }));
}

TEST(SortUnitInfoViaIP, LogsEqualAddresses) {
    const Lines message{"COMMON:COM_SortUnitInfoViaIP(): Find nothing?!"};
    for (const char *pAddress : {"10.0.0.9", "255.255.255.255", "0.0.0.0", "10.0", "10", "", "x"}) {
        EXPECT_EQ(message, CaptureLog([&] { EXPECT_EQ(0, Compare(pAddress, pAddress)); }));
    }
    // One address ends before the difference.
    EXPECT_EQ(message, CaptureLog([] { EXPECT_EQ(0, Compare("10.1", "10.1.5.5")); }));
    EXPECT_EQ(message, CaptureLog([] { EXPECT_EQ(0, Compare("10.1.5.5", "10.1")); }));
    // Four components are compared. With a dot after the fourth nothing is logged.
    EXPECT_EQ("", Capture([] { EXPECT_EQ(0, Compare("1.2.3.4.5", "1.2.3.4.6")); }));
}

TEST(SortUnitInfoViaIP, StaysInsideTheFieldAndSaturates) {
    // 16 bytes without a NUL: the next field is not read.
    tUnitNetInfo a = UnitAt("1.2.3.4444444444");
    tUnitNetInfo b = a;
    memcpy(a.port, "1", 1);
    memcpy(b.port, "2", 1);
    EXPECT_EQ((Lines{"COMMON:COM_SortUnitInfoViaIP(): Find nothing?!"}),
              CaptureLog([&] { EXPECT_EQ(0, COM_SortUnitInfoViaIP(&a, &b)); }));
    EXPECT_EQ(INT32_MAX, Compare("9999999999999999", "0.0.0.0"));
    EXPECT_EQ(INT32_MIN, Compare("0.0.0.0", "9999999999999999"));
    EXPECT_EQ(0, COM_SortUnitInfoViaIP(nullptr, &a));
    EXPECT_EQ(0, COM_SortUnitInfoViaIP(&a, nullptr));
}

TEST(SortUnitInfoViaIP, SortsAnArrayOfRecords) {
    tUnitNetInfo list[] = {UnitAt("192.168.1.10"), UnitAt("10.0.0.10"), UnitAt("192.168.1.9"),
                           UnitAt("10.0.0.9"), UnitAt("9.255.255.255")};
    for (size_t i = 0; i < std::size(list); ++i) {
        list[i].mtu = static_cast<int32_t>(i);
    }
    qsort(list, std::size(list), kRecord, COM_SortUnitInfoViaIP);
    const int order[] = {4, 3, 1, 2, 0};
    for (size_t i = 0; i < std::size(list); ++i) {
        EXPECT_EQ(order[i], list[i].mtu);
    }
}

TEST(ShowAllUnitInfo, LogsFiveLinesARecord) {
    tUnitNetInfo units[2] = {};
    strcpy(units[0].model, "NVR-16");
    strcpy(units[0].proj, "harbour");
    strcpy(units[0].name, "recorder-7");
    strcpy(units[0].ip, "10.0.0.5");
    strcpy(units[0].port, "8080");
    strcpy(units[0].netmask, "255.255.240.0");
    strcpy(units[0].gateway, "10.0.0.1");
    strcpy(units[0].dns, "192.0.2.53");
    strcpy(units[0].mac, "00:11:22:AA:BB:CC");
    strcpy(units[0].dev, "eth0");
    strcpy(units[0].note, "second floor");
    units[0].if_info_num = -3;
    strcpy(units[0].if_info, "wlan0");
    EXPECT_EQ((Lines{
                  "COMMON:COM_ShowAllUnitInfo(): [1/2]",
                  "COMMON: (model, proj, name) = (NVR-16, harbour, recorder-7)",
                  "COMMON: (ip, trigger_port, netmask) = (10.0.0.5, 8080, 255.255.240.0)",
                  "COMMON: (gateway, dns, mac) = (10.0.0.1, 192.0.2.53, 00:11:22:AA:BB:CC)",
                  "COMMON: (dev, note, if_info) = (eth0, second floor, [-3][wlan0])",
                  "COMMON:COM_ShowAllUnitInfo(): [2/2]",
                  "COMMON: (model, proj, name) = (, , )",
                  "COMMON: (ip, trigger_port, netmask) = (, , )",
                  "COMMON: (gateway, dns, mac) = (, , )",
                  "COMMON: (dev, note, if_info) = (, , [0][])",
              }),
              CaptureLog([&] { COM_ShowAllUnitInfo(2, units); }));
}

TEST(ShowAllUnitInfo, LogsNothingForNoRecords) {
    const tUnitNetInfo unit = {};
    EXPECT_EQ("", Capture([&] {
                  COM_ShowAllUnitInfo(0, &unit);
                  COM_ShowAllUnitInfo(-1, &unit);
                  COM_ShowAllUnitInfo(1, nullptr);
              }));
}

TEST(ShowAllUnitInfo, StaysInsideFieldsWithoutANul) {
    const std::string bytes(kRecord, 'x');
    const GuardedCopy record{bytes.data(), bytes.size()};
    const auto x = [](size_t count) { return std::string(count, 'x'); };
    const Lines log = CaptureLog(
        [&] { COM_ShowAllUnitInfo(1, reinterpret_cast<tUnitNetInfo *>(record.bytes())); });
    ASSERT_EQ(5U, log.size());
    EXPECT_EQ("COMMON: (model, proj, name) = (" + x(32) + ", " + x(32) + ", " + x(64) + ")",
              log[1]);
    EXPECT_EQ("COMMON: (dev, note, if_info) = (" + x(16) + ", " + x(64) + ", [2021161080][" +
                  x(16) + "])",
              log[4]);  // 0x78787878
}

}  // namespace
