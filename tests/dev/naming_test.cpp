#include "dev/naming.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"

namespace {

using namespace talvek::test;

std::string NameOf(unsigned k, int numeric) {
    CanaryBuf name{DEV_INFO_PATH_SIZE};
    Dev_MakeDevName(name.text(), k, numeric);
    EXPECT_TRUE(name.Intact());
    return name.text();
}

static_assert(DEV_SG_LETTERS == 0 && DEV_SG_NUMBERS == 1 && DEV_NODE_NAME_SIZE == 256);

TEST(MakeDevName, WritesNumbers) {
    EXPECT_EQ("/dev/sg0", NameOf(0, DEV_SG_NUMBERS));
    EXPECT_EQ("/dev/sg9", NameOf(9, DEV_SG_NUMBERS));
    EXPECT_EQ("/dev/sg26", NameOf(26, DEV_SG_NUMBERS));
    EXPECT_EQ("/dev/sg31", NameOf(31, -1));
    EXPECT_EQ("/dev/sg9999", NameOf(9999, DEV_SG_NUMBERS));
    EXPECT_EQ("/dev/sg1000", NameOf(10000, DEV_SG_NUMBERS));  // cut to 11 characters
}

TEST(MakeDevName, WritesLettersUpToZ) {
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  EXPECT_EQ("/dev/sga", NameOf(0, DEV_SG_LETTERS));
                  EXPECT_EQ("/dev/sgz", NameOf(25, DEV_SG_LETTERS));
              }));
    EXPECT_EQ((Lines{"DEV:Dev_MakeDevName(): k = 26, out of range",
                     "DEV:Dev_MakeDevName(): k = 4000, out of range"}),
              CaptureLog([] {
                  EXPECT_EQ("/dev/sgxx", NameOf(26, DEV_SG_LETTERS));
                  EXPECT_EQ("/dev/sgxx", NameOf(4000, DEV_SG_LETTERS));
                  Dev_MakeDevName(nullptr, 1, DEV_SG_NUMBERS);
              }));
}

// Three devices: a disk, a drive, and one with a generic node only.
class Pairs : public ::testing::Test {
  protected:
    Pairs() {
        disk_.host = 4;
        disk_.idlun = 0x01020304;
        drive_.host = 5;
        drive_.idlun = 0x01020304;
        bare_.host = 6;
    }
    SimulatedDrive disk_{{"/dev/sdc", "/dev/sg0"}};
    SimulatedDrive drive_{{"/dev/sr11", "/dev/sg31"}};
    SimulatedDrive bare_{{"/dev/sg7"}};
};

std::string ToSd(const char *pSgPath, size_t size = DEV_NODE_NAME_SIZE) {
    CanaryBuf out{size};
    const int result = Dev_SgToSd(pSgPath, out.text(), size);
    EXPECT_TRUE(out.Intact());
    EXPECT_EQ(result == -1, out.UntouchedFrom(0));
    return result == 0 ? out.text() : std::to_string(result);
}

std::string ToSg(const char *pSdPath, size_t size = DEV_NODE_NAME_SIZE) {
    CanaryBuf out{size};
    const int result = Dev_SdToSg(pSdPath, out.text(), size);
    EXPECT_TRUE(out.Intact());
    EXPECT_EQ(result == -1, out.UntouchedFrom(0));
    return result == 0 ? out.text() : std::to_string(result);
}

TEST_F(Pairs, AreTranslatedBothWays) {
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  EXPECT_EQ("/dev/sdc", ToSd("/dev/sg0"));
                  EXPECT_EQ("/dev/sr11", ToSd("/dev/sg31"));
                  EXPECT_EQ("/dev/sg0", ToSg("/dev/sdc"));
                  EXPECT_EQ("/dev/sg31", ToSg("/dev/sr11"));
                  EXPECT_EQ("-1", ToSd("/dev/sg7"));
              }));
}

TEST_F(Pairs, DoNotExistForADeviceWithoutGenericNode) {
    SimulatedDrive lone{{"/dev/sda"}};
    lone.host = 77;
    EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ("-1", ToSg("/dev/sda")); }));
}

TEST_F(Pairs, HaveTheFirstNodeOfTheDevice) {
    SimulatedDrive tape{{"/dev/nosst2", "/dev/sg9", "/dev/nst2", "/dev/sg8"}};
    tape.host = 88;
    EXPECT_EQ("/dev/nst2", ToSd("/dev/sg9"));
    EXPECT_EQ("/dev/sg8", ToSg("/dev/nosst2"));
}

TEST_F(Pairs, LogNodesThatCannotBeQueried) {
    SimulatedDrive noBus{{"/dev/sg1", "/dev/sda"}};
    noBus.busNumberError = EIO;
    SimulatedDrive noIdlun{{"/dev/sg2", "/dev/sdb"}};
    noIdlun.idlunError = ENODEV;
    EXPECT_EQ((Lines{
                  "DEV:Dev_SgToSd(): get bus No. on /dev/sg1 failed : Input/output error",
                  "DEV:Dev_SgToSd(): get IDLUN on /dev/sg2 failed : No such device",
                  "DEV:Dev_SgToSd(): open(/dev/sg3) error : No such file or directory",
              }),
              CaptureLog([] {
                  EXPECT_EQ("-1", ToSd("/dev/sg1"));
                  EXPECT_EQ("-1", ToSd("/dev/sg2"));
                  EXPECT_EQ("-1", ToSd("/dev/sg3"));
              }));
    // Other nodes that fail are skipped.
    EXPECT_EQ((Lines{
                  "DEV:Dev_SgToSd(): get bus No. on /dev/sda failed : Input/output error",
                  "DEV:Dev_SgToSd(): get IDLUN on /dev/sdb failed : No such device",
                  "DEV:Dev_SdToSg(): get bus No. on /dev/sg1 failed : Input/output error",
                  "DEV:Dev_SdToSg(): get IDLUN on /dev/sg2 failed : No such device",
              }),
              CaptureLog([] {
                  EXPECT_EQ("/dev/sdc", ToSd("/dev/sg0"));
                  EXPECT_EQ("/dev/sg31", ToSg("/dev/sr11"));
              }));
    EXPECT_EQ((Lines{
                  "DEV:Dev_SdToSg(): get bus No. on /dev/sda failed : Input/output error",
                  "DEV:Dev_SdToSg(): open(/dev/sdx) error : No such file or directory",
              }),
              CaptureLog([] {
                  EXPECT_EQ("-1", ToSg("/dev/sda"));
                  EXPECT_EQ("-1", ToSg("/dev/sdx"));
              }));
}

TEST(Naming, TranslatesToLettersWithoutSg0) {
    const SimulatedDrive disk{{"/dev/sda", "/dev/sgb"}};
    CaptureLog([] { EXPECT_EQ("/dev/sgb", ToSg("/dev/sda")); });
}

TEST_F(Pairs, AreCutToTheBufferWithAWarning) {
    EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ("/dev/sdc", ToSd("/dev/sg0", 9)); }));
    EXPECT_EQ(Lines{"DEV:Dev_SgToSd(): Warning! overflow (len, size) = (8, 8)"},
              CaptureLog([] { EXPECT_EQ("/dev/sd", ToSd("/dev/sg0", 8)); }));
    EXPECT_EQ(Lines{"DEV:Dev_SdToSg(): Warning! overflow (len, size) = (8, 1)"},
              CaptureLog([] { EXPECT_EQ("", ToSg("/dev/sdc", 1)); }));
}

TEST_F(Pairs, RefuseMissingArguments) {
    char name[DEV_NODE_NAME_SIZE] = "same";
    const Lines lines = CaptureLog([&] {
        EXPECT_EQ(-1, Dev_SgToSd(nullptr, name, sizeof name));
        EXPECT_EQ(-1, Dev_SgToSd("/dev/sg0", nullptr, sizeof name));
        EXPECT_EQ(-1, Dev_SdToSg(nullptr, nullptr, sizeof name));
        EXPECT_EQ(-1, Dev_SdToSg("/dev/sdc", name, 0));
    });
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("DEV:Dev_SdToSg(): ((nil), (nil)) : Null ptr", lines[2]);
    EXPECT_STREQ("same", name);
}

std::string NameOfPair(int major, int minor, size_t size = DEV_NODE_NAME_SIZE) {
    CanaryBuf out{size};
    const int result = Dev_ConvertMajorMinor(major, minor, out.text(), size);
    EXPECT_TRUE(out.Intact());
    EXPECT_EQ(result == -1, out.UntouchedFrom(0));
    return result == 0 ? out.text() : std::to_string(result);
}

struct PairCase {
    int major;
    int minor;
    const char *name;
};

// Linux Documentation/admin-guide/devices.txt: majors 8, 65 to 71 and 128 to 135 hold 16 SCSI
// disks each, with 16 minor numbers a disk, the first for the disk and the others for its
// partitions; 7 holds loop devices, 11 SCSI CD-ROMs.
TEST(ConvertMajorMinor, NamesDisksDrivesAndLoopDevicesByNumber) {
    constexpr PairCase kCases[] = {
        {8, 0, "/dev/sda"},       {8, 1, "/dev/sda1"},
        {8, 15, "/dev/sda15"},    {8, 16, "/dev/sdb"},
        {8, 240, "/dev/sdp"},     {8, 255, "/dev/sdp15"},
        {65, 0, "/dev/sdq"},      {65, 16, "/dev/sdr"},
        {65, 144, "/dev/sdz"},    {65, 159, "/dev/sdz15"},
        {65, 160, "/dev/sdaa"},   {65, 255, "/dev/sdaf15"},
        {66, 0, "/dev/sdag"},     {71, 240, "/dev/sddx"},
        {67, 0, "/dev/sdaw"},     {68, 0, "/dev/sdbm"},
        {69, 0, "/dev/sdcc"},     {70, 0, "/dev/sdcs"},
        {71, 0, "/dev/sddi"},     {129, 0, "/dev/sdeo"},
        {130, 0, "/dev/sdfe"},    {131, 0, "/dev/sdfu"},
        {132, 0, "/dev/sdgk"},    {133, 0, "/dev/sdha"},
        {134, 0, "/dev/sdhq"},    {134, 255, "/dev/sdif15"},
        {128, 0, "/dev/sddy"},    {135, 255, "/dev/sdiv15"},
        {11, 0, "/dev/sr0"},      {11, 11, "/dev/sr11"},
        {11, 255, "/dev/sr255"},  {7, 0, "/dev/loop0"},
        {7, 300, "/dev/loop300"}, {7, 1048575, "/dev/loop1048575"},
    };
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  for (const PairCase &one : kCases) {
                      EXPECT_EQ(one.name, NameOfPair(one.major, one.minor));
                  }
              }));
}

TEST(ConvertMajorMinor, NamesOtherDevicesAsTheKernelDoes) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/sys");
        ASSERT_TRUE(std::filesystem::create_directories("/sys/dev/block"));
        const auto link = [](const std::string &target, const char *pPair) {
            ASSERT_EQ(0, symlink(target.c_str(), (std::string{"/sys/dev/block/"} + pPair).c_str()));
        };
        link("../../devices/platform/soc/mmc0/block/mmcblk0/mmcblk0p1", "179:1");
        link("../../devices/virtual/block/md0", "9:0");
        link("../../devices/cciss!c0d0", "104:0");
        link("plain", "105:0");
        link("x/" + std::string(240, 'n'), "106:0");
        link("x/" + std::string(250, 'n'), "107:0");
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ("/dev/mmcblk0p1", NameOfPair(179, 1));
                      EXPECT_EQ("/dev/md0", NameOfPair(9, 0));
                      EXPECT_EQ("/dev/cciss/c0d0", NameOfPair(104, 0));
                      EXPECT_EQ("/dev/plain", NameOfPair(105, 0));
                      EXPECT_EQ("/dev/" + std::string(240, 'n'), NameOfPair(106, 0));
                  }));
        EXPECT_EQ(Lines{"DEV:Dev_ConvertMajorMinor(): invalid (major, minor) = (107, 0)"},
                  CaptureLog([] { EXPECT_EQ("-1", NameOfPair(107, 0)); }));
    });
}

TEST(ConvertMajorMinor, AgreesWithThisMachine) {
    int count = 0;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator{"/sys/dev/block", ignored}) {
        int major;
        int minor;
        ASSERT_EQ(2, sscanf(entry.path().filename().c_str(), "%d:%d", &major, &minor));
        EXPECT_EQ("/dev/" + std::filesystem::read_symlink(entry.path()).filename().string(),
                  NameOfPair(major, minor));
        ++count;
    }
    if (count == 0) {
        GTEST_SKIP() << "no block device on this machine";
    }
}

TEST(ConvertMajorMinor, LogsInvalidPairs) {
    constexpr std::pair<int, int> kPairs[] = {
        {-1, 0},   {8, -1},      {0, 0},  {8, 256},           {11, 256},
        {4095, 0}, {7, 1048576}, {64, 0}, {INT_MAX, INT_MAX}, {INT_MIN, INT_MIN}};
    for (const auto &[major, minor] : kPairs) {
        char expected[100];
        snprintf(expected, sizeof expected,
                 "DEV:Dev_ConvertMajorMinor(): invalid (major, minor) = (%d, %d)", major, minor);
        EXPECT_EQ(Lines{expected}, CaptureLog([major = major, minor = minor] {
                      EXPECT_EQ("-1", NameOfPair(major, minor));
                  }));
    }
    CaptureLog([] {
        char name[1] = {'x'};
        EXPECT_EQ(-1, Dev_ConvertMajorMinor(8, 0, nullptr, 10));
        EXPECT_EQ(-1, Dev_ConvertMajorMinor(8, 0, name, 0));
        EXPECT_EQ('x', name[0]);
    });
}

TEST(ConvertMajorMinor, CutsANameToItsBufferWithAWarning) {
    EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ("/dev/sda", NameOfPair(8, 0, 9)); }));
    EXPECT_EQ(Lines{"DEV:Dev_ConvertMajorMinor(): Warning! overflow (len, size) = (8, 8)"},
              CaptureLog([] { EXPECT_EQ("/dev/sd", NameOfPair(8, 0, 8)); }));
}

}  // namespace
