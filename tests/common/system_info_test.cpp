#include "common/system_info.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

using Figures = std::vector<int32_t>;

constexpr char kMemInfo[] =
    "MemTotal:         516096 kB\n"
    "MemFree:          123456 kB\n"
    "MemAvailable:     400000 kB\n"
    "SwapCached:            0 kB\n"
    "SwapTotal:         65532 kB\n"
    "SwapFree:\t\t65000\n";

// Runs the body with a /proc that holds one file.
void WithProcFile(const std::string &path, const std::string &content,
                  const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        ReplaceDir("/proc");
        WriteFile(path, content);
        body();
    });
}

Figures MemAndSwap(const std::string &content, Figures values, int expected) {
    WriteFile("/proc/meminfo", content);
    EXPECT_EQ(expected, COM_GetMemAndSwap(values.data()));
    return values;
}

TEST(GetMemAndSwap, ReadsFourFiguresInTheirOrder) {
    WithProcFile("/proc/meminfo", kMemInfo, [] {
        int32_t values[4] = {};
        EXPECT_EQ((Lines{"COMMON: Got pValue[0] = 516096", "COMMON: Got pValue[1] = 123456",
                         "COMMON: Got pValue[2] = 65532", "COMMON: Got pValue[3] = 65000"}),
                  CaptureLog([&] { EXPECT_EQ(0, COM_GetMemAndSwap(values)); }));
        EXPECT_EQ((Figures{516096, 123456, 65532, 65000}), Figures(values, values + 4));
    });
}

TEST(GetMemAndSwap, LogsAllFourWhenOneChanged) {
    WithProcFile("/proc/meminfo", kMemInfo, [] {
        int32_t values[4] = {516096, 123456, 65532, 65000};
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_GetMemAndSwap(values)); }));
        for (int32_t &value : values) {
            value -= 1;
            EXPECT_EQ((Lines{"COMMON: Got pValue[0] = 516096", "COMMON: Got pValue[1] = 123456",
                             "COMMON: Got pValue[2] = 65532", "COMMON: Got pValue[3] = 65000"}),
                      CaptureLog([&] { EXPECT_EQ(0, COM_GetMemAndSwap(values)); }));
        }
    });
}

TEST(GetMemAndSwap, ReadsWithoutAnArray) {
    WithProcFile("/proc/meminfo", kMemInfo, [] {
        EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(0, COM_GetMemAndSwap(nullptr)); }));
        WriteFile("/proc/meminfo", "Other: 1 kB\n");
        EXPECT_EQ(-1, COM_GetMemAndSwap(nullptr));
    });
}

TEST(GetMemAndSwap, ReadsOnlyLinesThatBeginWithAKey) {
    WithProcFile("/proc/meminfo", "", [] {
        const Figures old{1, 2, 3, 4};
        EXPECT_EQ(old, MemAndSwap("", old, -1));
        EXPECT_EQ(old, MemAndSwap(" MemTotal: 5 kB\nmemfree: 6\nSwapTotal 7\nSwap: 8\n", old, -1));
        CaptureLog([&] {
            EXPECT_EQ((Figures{1, 6, 3, 4}), MemAndSwap("MemFree:\t6", old, 0));
            EXPECT_EQ((Figures{1, 0, 3, 4}), MemAndSwap("MemFree: kB\n", old, 0));
            EXPECT_EQ((Figures{7, 2, 3, 4}), MemAndSwap("MemTotal: 5\nMemTotal: 7\n", old, 0));
            // The key's own field ends at the blank.
            EXPECT_EQ((Figures{9, 2, 3, 4}), MemAndSwap("MemTotal:5 9\n", old, 0));
        });
    });
}

TEST(GetMemAndSwap, FailsWhenTheLastKeyHasNoNumber) {
    WithProcFile("/proc/meminfo", "", [] {
        CaptureLog([] {
            EXPECT_EQ((Figures{5, 2, 3, 4}),
                      MemAndSwap("MemTotal: 5\nMemFree:\n", {1, 2, 3, 4}, -1));
            EXPECT_EQ((Figures{1, 6, 3, 4}),
                      MemAndSwap("MemTotal: \t \nMemFree: 6\n", {1, 2, 3, 4}, 0));
        });
    });
}

TEST(GetMemAndSwap, EndsAtTheLimitsOf32Bits) {
    WithProcFile("/proc/meminfo", "", [] {
        CaptureLog([] {
            EXPECT_EQ((Figures{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN}),
                      MemAndSwap("MemTotal: 2147483647 kB\nMemFree: 2147483648 kB\n"
                                 "SwapTotal: -2147483648 kB\nSwapFree: -99999999999999999999\n",
                                 {0, 0, 0, 0}, 0));
        });
    });
}

// Lines are read in pieces of 79 characters.
TEST(GetMemAndSwap, StaysInsideLongLines) {
    WithProcFile("/proc/meminfo", "", [] {
        CaptureLog([] {
            for (const size_t blanks : {60, 68, 69, 70, 71, 200}) {
                const std::string line = "MemTotal:" + std::string(blanks, ' ') + "5 kB\n";
                const bool inside = blanks + 9 < 79;
                EXPECT_EQ((Figures{inside ? 5 : 1, 2, 3, 4}),
                          MemAndSwap(line, {1, 2, 3, 4}, inside ? 0 : -1))
                    << blanks;
            }
            EXPECT_EQ((Figures{1, 2, 3, 6}),
                      MemAndSwap(std::string(79, 'x') + "SwapFree: 6\n", {1, 2, 3, 4}, 0));
        });
    });
}

TEST(GetMemAndSwap, AgreesWithTheKernel) {
    int32_t values[4] = {};
    CaptureLog([&] { EXPECT_EQ(0, COM_GetMemAndSwap(values)); });
    char first[80];
    snprintf(first, sizeof first, "MemTotal:%15ld kB\n", static_cast<long>(values[0]));
    EXPECT_NE(std::string::npos, ReadFile("/proc/meminfo").find(first)) << first;
    EXPECT_LE(values[1], values[0]);
    EXPECT_LE(values[3], values[2]);
}

TEST(SystemInfo, LogsAFileThatCannotBeOpened) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        uint32_t ids[1] = {7};
        tDeviceName *pList = nullptr;
        char text[COM_KERNEL_TEXT_SIZE] = "old";
        const std::string error = " error : No such file or directory";
        EXPECT_EQ(
            (Lines{"COMMON:COM_GetMemAndSwap(): fopen(/proc/meminfo)" + error,
                   "COMMON:COM_GetPciDeviceId(): fopen(/proc/bus/pci/devices)" + error,
                   "COMMON:COM_GetPciDevice(): fopen(/proc/bus/pci/devices)" + error,
                   "COMMON: Total -1 devices(ehci) found on \"/proc/bus/pci/devices\"",
                   "COMMON:COM_GetDeviceFromProc(): fopen(/proc/net/dev)" + error,
                   "COMMON:COM_GetDeviceFromProc(): fopen((null)) error : Bad address",
                   "COMMON:COM_LoadDataFromFile(): open(/proc/version) fail : No such file or "
                   "directory"}),
            CaptureLog([&] {
                EXPECT_EQ(-1, COM_GetMemAndSwap(nullptr));
                EXPECT_EQ(-1, COM_GetPciDeviceId("ehci", ids, 1));
                EXPECT_EQ(-1, COM_GetPciDevice("ehci"));
                EXPECT_EQ(-1, COM_GetDeviceFromProc(&pList, "/proc/net/dev"));
                EXPECT_EQ(-1, COM_GetDeviceFromProc(&pList, nullptr));
                EXPECT_EQ(-1, COM_GetKernelVersion(text, text));
            }));
        EXPECT_EQ(7U, ids[0]);
        EXPECT_EQ(nullptr, pList);
        EXPECT_STREQ("old", text);
    });
}

// A line of /proc/bus/pci/devices as the kernel writes it: bus and slot, identifiers, interrupt,
// seven addresses, seven sizes, driver.
std::string PciLine(const char *pSlot, const char *pIds, const char *pDriver) {
    std::string line = std::string{pSlot} + "\t" + pIds + "\t1a";
    for (int i = 0; i < 14; ++i) {
        line += "\t               0";
    }
    return line + "\t" + pDriver + "\n";
}

const std::string &PciDevices() {
    static const std::string devices =
        PciLine("0008", "80862415", "snd_intel8x0") + PciLine("0010", "80862934", "ehci_hcd") +
        PciLine("0011", "8086293a", "EHCI_hcd") + PciLine("0018", "10ec8139", "8139too") +
        PciLine("0020", "ffffffff", "xEhCix");
    return devices;
}

TEST(GetPciDeviceId, TakesTheIdentifiersOfMatchingLines) {
    WithProcFile("/proc/bus/pci/devices", PciDevices(), [] {
        uint32_t ids[4] = {0, 0, 0, 7};
        EXPECT_EQ(3, COM_GetPciDeviceId("ehci", ids, 4));
        EXPECT_EQ(0x80862934U, ids[0]);
        EXPECT_EQ(0x8086293aU, ids[1]);
        EXPECT_EQ(0xffffffffU, ids[2]);
        EXPECT_EQ(7U, ids[3]);
        EXPECT_EQ(1, COM_GetPciDeviceId("10EC8139", ids, 4));
        EXPECT_EQ(0x10ec8139U, ids[0]);
        EXPECT_EQ(0, COM_GetPciDeviceId("ohci", ids, 4));
    });
}

TEST(GetPciDeviceId, StopsAtTheMaximum) {
    WithProcFile("/proc/bus/pci/devices", PciDevices(), [] {
        for (int max = 0; max <= 4; ++max) {
            const CanaryBuf ids{static_cast<size_t>(max) * sizeof(uint32_t)};
            EXPECT_EQ(std::min(max, 3),
                      COM_GetPciDeviceId("ehci", reinterpret_cast<uint32_t *>(ids.bytes()), max));
        }
        uint32_t id = 7;
        EXPECT_EQ(0, COM_GetPciDeviceId("ehci", &id, -1));
        EXPECT_EQ(7U, id);
    });
}

TEST(GetPciDeviceId, LeavesTheNumberOfALineWithoutSecondField) {
    WithProcFile("/proc/bus/pci/devices", "ehci\n  \tehci 12ab\nehci zz\nehci 1ffffffff\n", [] {
        uint32_t ids[4] = {1, 1, 1, 1};
        EXPECT_EQ(4, COM_GetPciDeviceId("EHCI", ids, 4));
        EXPECT_EQ(1U, ids[0]);
        EXPECT_EQ(0x12abU, ids[1]);
        EXPECT_EQ(0U, ids[2]);
        EXPECT_EQ(0xffffffffU, ids[3]) << "the limit of 32 bits";
    });
}

TEST(GetPciDeviceId, LogsNullArguments) {
    uint32_t id = 7;
    EXPECT_EQ((Lines{"COMMON:COM_GetPciDeviceId(): Warnning!! (*pBuf != NULL)",
                     "COMMON:COM_GetPciDeviceId(): Warnning!! (*pBuf != NULL)"}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, COM_GetPciDeviceId(nullptr, &id, 1));
                  EXPECT_EQ(-1, COM_GetPciDeviceId("ehci", nullptr, 1));
              }));
    EXPECT_EQ(7U, id);
}

// Lines are read in pieces of 511 characters.
TEST(GetPciDeviceId, StaysInsideLongLines) {
    WithProcFile("/proc/bus/pci/devices", "", [] {
        for (const size_t length : {502, 503, 504, 505, 506, 507, 508, 2000}) {
            const std::string line = "0 abcd " + std::string(length - 7, '.') + "ehci\n";
            WriteFile("/proc/bus/pci/devices", line);
            uint32_t ids[2] = {1, 1};
            const int count = COM_GetPciDeviceId("ehci", ids, 2);
            // The text is found unless the end of a piece cuts it in two.
            EXPECT_EQ(length > 507 && length < 511 ? 0 : 1, count) << length;
            EXPECT_EQ(length <= 507 ? 0xabcdU : 1U, ids[0]) << length;
        }
    });
}

TEST(GetPciDevice, CountsAndLogsMatchingLines) {
    WithProcFile("/proc/bus/pci/devices", PciDevices(), [] {
        EXPECT_EQ((Lines{"COMMON: Total 3 devices(ehci) found on \"/proc/bus/pci/devices\"",
                         "COMMON: Total 1 devices(8139TOO) found on \"/proc/bus/pci/devices\"",
                         "COMMON: Total 0 devices(ohci) found on \"/proc/bus/pci/devices\""}),
                  CaptureLog([] {
                      EXPECT_EQ(3, COM_GetPciDevice("ehci"));
                      EXPECT_EQ(1, COM_GetPciDevice("8139TOO"));
                      EXPECT_EQ(0, COM_GetPciDevice("ohci"));
                  }));
    });
}

// Lines are read in pieces of 255 characters.
TEST(GetPciDevice, StaysInsideLongLines) {
    WithProcFile("/proc/bus/pci/devices", "", [] {
        CaptureLog([] {
            for (const size_t before : {250, 251, 252, 253, 254, 255, 256}) {
                WriteFile("/proc/bus/pci/devices", std::string(before, '.') + "ehci\n");
                const bool cut = before > 251 && before < 255;
                EXPECT_EQ(cut ? 0 : 1, COM_GetPciDevice("ehci")) << before;
            }
            WriteFile("/proc/bus/pci/devices", "ehci" + std::string(300, '.') + "ehci\n");
            EXPECT_EQ(2, COM_GetPciDevice("ehci")) << "each piece counts";
        });
    });
}

TEST(GetPciDevice, LogsATotalWithoutAPatternToo) {
    EXPECT_EQ((Lines{"COMMON:COM_GetPciDevice(): Warnning!! (*pBuf != NULL)",
                     "COMMON: Total -1 devices((null)) found on \"/proc/bus/pci/devices\""}),
              CaptureLog([] { EXPECT_EQ(-1, COM_GetPciDevice(nullptr)); }));
}

// The names of a table, or "error".
std::vector<std::string> DeviceNames(const char *pPath) {
    tDeviceName *pList = nullptr;
    const int count = COM_GetDeviceFromProc(&pList, pPath);
    if (count < 0) {
        return {"error"};
    }
    EXPECT_EQ(count == 0, pList == nullptr);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.emplace_back(pList[i]);
    }
    free(pList);
    return names;
}

TEST(GetDeviceFromProc, ReadsTheNamesBeforeTheColon) {
    WithProcFile("/proc/net/dev",
                 "Inter-|   Receive                |  Transmit\n"
                 " face |bytes    packets errs drop|bytes    packets\n"
                 "    lo: 1234 5 0 0 1234 5\n"
                 "  eth0:99999999 7 0 0 9 9\n"
                 "eth0:1: 1\n"
                 ":\n"
                 " a b\tc\x01"
                 "d\xE9"
                 "e : x\n"
                 "wlan0:",
                 [] {
                     EXPECT_EQ((Lines{"lo", "eth0", "eth0", "", "abcde", "wlan0"}),
                               DeviceNames("/proc/net/dev"));
                 });
}

TEST(GetDeviceFromProc, CutsNamesTo15Characters) {
    WithProcFile(
        "/proc/table",
        "12345678901234:\n123456789012345:\n1234567890123456:\n" + std::string(200, 'n') + ":\n",
        [] {
            EXPECT_EQ(
                (Lines{"12345678901234", "123456789012345", "123456789012345", "nnnnnnnnnnnnnnn"}),
                DeviceNames("/proc/table"));
        });
}

// Lines are read in pieces of 255 characters; a piece without a colon gives no name.
TEST(GetDeviceFromProc, StaysInsideLongLines) {
    WithProcFile("/proc/table", std::string(254, 'a') + ":b\n", [] {
        EXPECT_EQ(Lines{"aaaaaaaaaaaaaaa"}, DeviceNames("/proc/table"));
        WriteFile("/proc/table", std::string(255, 'a') + "b:\n");
        EXPECT_EQ(Lines{"b"}, DeviceNames("/proc/table"));
    });
}

TEST(GetDeviceFromProc, GrowsToAnyNumberOfNames) {
    std::string table;
    Lines names;
    for (int i = 0; i < 1000; ++i) {
        names.push_back("veth" + std::to_string(i));
        table += names.back() + ": 0\n";
    }
    WithProcFile("/proc/net/dev", table, [&] { EXPECT_EQ(names, DeviceNames("/proc/net/dev")); });
}

TEST(GetDeviceFromProc, NamesTheInterfacesOfTheKernel) {
    RunInPrivateWorld(kNetwork, [] { EXPECT_EQ(Lines{"lo"}, DeviceNames("/proc/self/net/dev")); });
}

TEST(GetDeviceFromProc, GivesNoListForATableWithoutNames) {
    WithProcFile("/proc/table", "no colon\n", [] {
        tDeviceName *pList = nullptr;
        EXPECT_EQ(0, COM_GetDeviceFromProc(&pList, "/proc/table"));
        EXPECT_EQ(nullptr, pList);
    });
}

TEST(GetDeviceFromProc, RefusesAListThatIsNotEmpty) {
    tDeviceName name = "kept";
    tDeviceName *pList = &name;
    EXPECT_EQ((Lines{"COMMON:COM_GetDeviceFromProc(): Warnning!! (*pBuf != NULL)",
                     "COMMON:COM_GetDeviceFromProc(): Warnning!! (*pBuf != NULL)"}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, COM_GetDeviceFromProc(&pList, "/there/is/no/such/file"));
                  EXPECT_EQ(-1, COM_GetDeviceFromProc(nullptr, "/proc/net/dev"));
              }));
    EXPECT_EQ(&name, pList);
    EXPECT_STREQ("kept", name);
}

struct Version {
    int result;
    std::string release;
    std::string extra;
};

bool operator==(const Version &a, const Version &b) {
    return a.result == b.result && a.release == b.release && a.extra == b.extra;
}

void PrintTo(const Version &version, std::ostream *out) {
    *out << version.result << " [" << version.release << "] [" << version.extra << "]";
}

Version KernelVersion(const std::string &content) {
    WriteFile("/proc/version", content);
    const CanaryBuf release{COM_KERNEL_TEXT_SIZE};
    const CanaryBuf extra{COM_KERNEL_TEXT_SIZE};
    const int result = COM_GetKernelVersion(release.text(), extra.text());
    if (result != 0) {
        EXPECT_TRUE(release.UntouchedFrom(0));
        EXPECT_TRUE(extra.UntouchedFrom(0));
        return {result, "", ""};
    }
    return {result, release.text(), extra.text()};
}

TEST(GetKernelVersion, SplitsTheVersion) {
    WithProcFile("/proc/version", "", [] {
        EXPECT_EQ((Version{0, "2.6.35", "rt1"}),
                  KernelVersion("Linux version 2.6.35-rt1 (build@host) (gcc 4.4) #1\n"));
        EXPECT_EQ((Version{0, "6.1.0", "21-amd64"}),
                  KernelVersion("Linux version 6.1.0-21-amd64 (x)"));
        EXPECT_EQ((Version{0, "2.6.35", "8"}), KernelVersion("Linux version 2.6.35.8 x"));
        EXPECT_EQ((Version{0, "2.6.35", "(build@host)"}),
                  KernelVersion("Linux version 2.6.35 (build@host) (gcc)"));
        EXPECT_EQ((Version{0, "2.6.", "rc1"}), KernelVersion("Linux version 2.6.xrc1\n"));
        EXPECT_EQ((Version{0, "a b.c.1", ""}), KernelVersion("Linux version a b.c.1\n\nx"));
        EXPECT_EQ((Version{0, "2.6.35", "a"}), KernelVersion("x Linux version 2.6.35+a\tb"));
    });
}

TEST(GetKernelVersion, WritesNothingWhenAMarkIsMissing) {
    WithProcFile("/proc/version", "", [] {
        for (const char *text :
             {"", "Linux", "Linux version", "Linux version 2", "Linux version 2.",
              "Linux version 2.6", "linux version 2.6.35", "2.6.35"}) {
            EXPECT_EQ((Version{-1, "", ""}), KernelVersion(text)) << text;
        }
    });
}

TEST(GetKernelVersion, StaysInsideEveryTruncatedText) {
    WithProcFile("/proc/version", "", [] {
        const std::string text = "Linux version 2.6.35-rt1 (b";
        for (size_t length = 0; length <= text.size(); ++length) {
            const std::string part = text.substr(0, length);
            const size_t whole = strlen("Linux version 2.6.");
            Version expected{length < whole ? -1 : 0, "", ""};
            if (length >= whole) {
                expected.release = part.substr(14, 6);
                expected.extra = length > 21 ? part.substr(21, 3) : "";
            }
            EXPECT_EQ(expected, KernelVersion(part)) << part;
        }
    });
}

// 256 bytes are read: the mark's fourteen and 242 more.
TEST(GetKernelVersion, ReadsAtMost256Bytes) {
    WithProcFile("/proc/version", "", [] {
        const std::string digits(1000, '7');
        EXPECT_EQ((Version{0, "1.2." + digits.substr(0, 238), ""}),
                  KernelVersion("Linux version 1.2." + digits));
        EXPECT_EQ((Version{0, "..", digits.substr(0, 239)}),
                  KernelVersion("Linux version ..-" + digits));
    });
}

TEST(GetKernelVersion, WritesOnlyTheOutputsAskedFor) {
    WithProcFile("/proc/version", "Linux version 2.6.35-rt1 x", [] {
        char text[COM_KERNEL_TEXT_SIZE] = "";
        EXPECT_EQ(0, COM_GetKernelVersion(text, nullptr));
        EXPECT_STREQ("2.6.35", text);
        EXPECT_EQ(0, COM_GetKernelVersion(nullptr, text));
        EXPECT_STREQ("rt1", text);
        EXPECT_EQ(0, COM_GetKernelVersion(nullptr, nullptr));
    });
}

TEST(GetKernelVersion, AgreesWithTheKernel) {
    struct utsname name = {};
    ASSERT_EQ(0, uname(&name));
    char release[COM_KERNEL_TEXT_SIZE] = "";
    EXPECT_EQ(0, COM_GetKernelVersion(release, nullptr));
    EXPECT_EQ(0U, std::string{name.release}.find(release)) << name.release << ' ' << release;
    EXPECT_LE(5U, strlen(release));
}

struct TimeRow {
    long long t;
    const char *text;
};

// Whole days since 1970 times 86400, by the Gregorian calendar.
constexpr TimeRow kTimes[] = {
    {0, "1970/01/01 00:00:00"},
    {-1, "1969/12/31 23:59:59"},
    {951782399, "2000/02/28 23:59:59"},
    {951782400, "2000/02/29 00:00:00"},
    {2147483647, "2038/01/19 03:14:07"},
    {2147483648, "2038/01/19 03:14:08"},
    {4107542400, "2100/03/01 00:00:00"},
    {253402300799, "9999/12/31 23:59:59"},
    {253402300800, "10000/01/01 00:00:00"},
};

class Time : public ::testing::Test {
  protected:
    // The local time zone has no effect.
    void SetUp() override { setenv("TZ", "XXX-5", 1); }
    void TearDown() override { unsetenv("TZ"); }
};

using TimeToStr = Time;

TEST_F(TimeToStr, WritesUtc) {
    for (const auto &[t, text] : kTimes) {
        const CanaryBuf buf{COM_TIME_SIZE};
        EXPECT_EQ(0, COM_TimeToStr(buf.text(), static_cast<time_t>(t)));
        EXPECT_STREQ(text, buf.text());
    }
}

// The last second of a year that fits `int` in struct tm, which counts from 1900: 2147485547.
constexpr long long kLastSecond = 67768036191676799;

TEST_F(TimeToStr, FailsAfterTheEndOfTheCalendar) {
    const CanaryBuf buf{COM_TIME_SIZE};
    EXPECT_EQ(0, COM_TimeToStr(buf.text(), static_cast<time_t>(kLastSecond)));
    EXPECT_LT(19U, strlen(buf.text()));
    const CanaryBuf other{COM_TIME_SIZE};
    EXPECT_EQ(-1, COM_TimeToStr(other.text(), static_cast<time_t>(kLastSecond + 1)));
    EXPECT_TRUE(other.UntouchedFrom(0));
    EXPECT_EQ(-1, COM_TimeToStr(nullptr, 0));
}

std::string TimevalToStr(time_t sec, long usec) {
    const CanaryBuf buf{COM_TIMEVAL_SIZE};
    EXPECT_EQ(0, COM_TimevalToStr(buf.text(), sec, usec));
    return buf.text();
}

using TimevalText = Time;

TEST_F(TimevalText, WritesMicroseconds) {
    EXPECT_EQ("1970/01/01 00:00:00.000005", TimevalToStr(0, 5));
    EXPECT_EQ("1970/01/01 00:00:00.000000", TimevalToStr(0, 0));
    EXPECT_EQ("1970/01/01 00:00:01.999999", TimevalToStr(1, 999999));
}

TEST_F(TimevalText, KeepsTheSecondOfANegativeMicrosecond) {
    EXPECT_EQ("1970/01/01 00:00:10.999999", TimevalToStr(10, -1));
    EXPECT_EQ("1970/01/01 00:00:10.000000", TimevalToStr(10, -1000000));
}

TEST_F(TimevalText, StaysInsideItsBufferForAnyNumber) {
    EXPECT_EQ("1970/01/01 00:00:00.1000000", TimevalToStr(0, 1000000));
    EXPECT_EQ("1970/01/01 00:00:00.-00001", TimevalToStr(0, -1000001));
    const std::string longest = std::to_string(LONG_MAX);
    EXPECT_EQ(("1970/01/01 00:00:00." + longest).substr(0, 38), TimevalToStr(0, LONG_MAX));
    EXPECT_EQ(("10000/01/01 00:00:00." + longest).substr(0, 38),
              TimevalToStr(static_cast<time_t>(253402300800), LONG_MAX));
    TimevalToStr(static_cast<time_t>(kLastSecond), LONG_MAX);
    TimevalToStr(0, LONG_MIN);
}

TEST_F(TimevalText, FailsLikeTimeToStr) {
    const CanaryBuf buf{COM_TIMEVAL_SIZE};
    EXPECT_EQ(-1, COM_TimevalToStr(buf.text(), static_cast<time_t>(kLastSecond + 1), 5));
    EXPECT_TRUE(buf.UntouchedFrom(0));
    EXPECT_EQ(-1, COM_TimevalToStr(nullptr, 0, 5));
}

using PrintTime = Time;

TEST_F(PrintTime, WritesSecondsAndText) {
    EXPECT_EQ("[5] -> [1970/01/01 00:00:05]\n",
              Capture([] { EXPECT_EQ(0, COM_PrintTime(nullptr, 7, 5)); }));
    EXPECT_EQ("main,7: [-1] -> [1969/12/31 23:59:59]\n",
              Capture([] { EXPECT_EQ(0, COM_PrintTime("main", 7, -1)); }));
    EXPECT_EQ("[2147483648] -> [2038/01/19 03:14:08]\n", Capture([] {
                  EXPECT_EQ(0, COM_PrintTime(nullptr, 7, static_cast<time_t>(2147483648)));
              }));
}

TEST_F(PrintTime, WritesNothingForATimeThatCannotBeConverted) {
    EXPECT_EQ("", Capture([] {
                  EXPECT_EQ(-1, COM_PrintTime("main", 7, static_cast<time_t>(kLastSecond + 1)));
              }));
}

TEST_F(PrintTime, AppearsAtOnce) {
    const std::string text = Capture([] {
        COM_PrintTime(nullptr, 1, 0);
        EXPECT_EQ(0, system("echo after"));
    });
    EXPECT_EQ("[0] -> [1970/01/01 00:00:00]\nafter\n", text);
}

using GmTime = Time;

TEST_F(GmTime, ConvertsToUtc) {
    struct tm calendar = {};
    EXPECT_EQ(&calendar, COM_GmTime(&calendar, 951782400));
    EXPECT_EQ(100, calendar.tm_year);
    EXPECT_EQ(1, calendar.tm_mon);
    EXPECT_EQ(29, calendar.tm_mday);
    EXPECT_EQ(0, calendar.tm_hour);
    EXPECT_EQ(59, calendar.tm_yday);
    EXPECT_EQ(nullptr, COM_GmTime(&calendar, static_cast<time_t>(kLastSecond + 1)));
    EXPECT_EQ(nullptr, COM_GmTime(nullptr, 0));
}

}  // namespace
