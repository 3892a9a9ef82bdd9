#include "dev/optical_disc.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "disc_fixture.h"
#include "iso_mount.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// A record as the enumeration leaves it, with other bytes in the descriptor.
tDevInfo Drive() {
    tDevInfo dev = {};
    strcpy(dev.model, "DRV WR24X B");
    strcpy(dev.devPath, kNode);
    strcpy(dev.sgPath, "/dev/sg1");
    dev.isOptical = 1;
    memset(&dev.u.disc, 0x55, sizeof dev.u.disc);
    return dev;
}

size_t OpenFds() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

// The values that other programs are compiled with.
static_assert(DEV_DISC_INFO_OK == 0 && DEV_DISC_INFO_NO_RECORD == 1 &&
              DEV_DISC_INFO_NOT_OPTICAL == 2 && DEV_DISC_INFO_OPEN_FAILED == -1 &&
              DEV_DISC_INFO_NOT_READY == -129 && DEV_DISC_INFO_UNSUPPORTED == -130);

struct Identified {
    int result;
    tDevInfo dev;
    std::string text;
    std::string opcodes;
    std::string mountDir;  // of the measurement; empty without one
};

// Identifies the disc of `drive`, which is at /dev/sg1. /var must be writable.
Identified Identify(SimulatedDrive &drive) {
    Identified found = {};
    found.dev = Drive();
    drive.requests.clear();
    g_isoMounts.clear();
    const size_t fds = OpenFds();
    found.text = Capture([&] { found.result = Dev_GetDiscInfo(&found.dev); });
    EXPECT_EQ(fds, OpenFds());
    found.opcodes = HexText(drive.Opcodes());
    found.mountDir = g_isoMounts.empty() ? "" : g_isoMounts[0].dir;
    return found;
}

void ExpectIdentified(const ExpectedDisc &expected, const Identified &found) {
    EXPECT_EQ(expected.result, found.result);
    const std::string start = "00 12 46";
    EXPECT_EQ(*expected.opcodes != '\0' ? start + " " + expected.opcodes : start, found.opcodes);
    EXPECT_EQ(expected.mountDir, found.mountDir);
    EXPECT_EQ(1, found.dev.ready);
    EXPECT_STREQ("DRV WR24X B", found.dev.model) << "unchanged";
    const tDiscInfo &info = found.dev.u.disc;
    EXPECT_EQ(expected.info.discClass, info.discClass);
    EXPECT_EQ(expected.info.mediaKind, info.mediaKind);
    EXPECT_EQ(expected.info.recordMode, info.recordMode);
    EXPECT_EQ(expected.info.discStatus, info.discStatus);
    EXPECT_EQ(expected.info.lastTrack, info.lastTrack);
    EXPECT_EQ(expected.info.nextLeadIn, info.nextLeadIn);
    EXPECT_EQ(expected.info.totalKB, info.totalKB);
    EXPECT_EQ(expected.info.usedKB, info.usedKB);
    EXPECT_TRUE(expected.info == info) << "a field not listed above";
}

TEST(GetDiscInfo, IdentifiesEveryKindOfDisc) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        for (const ExpectedDisc &expected : kDiscs) {
            SCOPED_TRACE(expected.fixture);
            SimulatedDrive drive{{"/dev/sg1"}};
            drive.Load("drive.hex");
            drive.Load(expected.fixture);
            ExpectIdentified(expected, Identify(drive));
            EXPECT_EQ(1, drive.opens);
            EXPECT_EQ(O_RDWR | O_NONBLOCK | O_CLOEXEC, drive.openFlags);
        }
    });
}

class Identification : public DiscTest {};

TEST_F(Identification, LogsAnUnknownProfile) {
    drive_.Load("bd_re.hex");
    const Identified found = Identify(drive_);
    EXPECT_EQ(DEV_DISC_INFO_UNSUPPORTED, found.result);
    const Lines lines = LogLines(found.text);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ("DEV:Dev_GetConfiguration(): Disc type(0x0043) unreconfized and unsupported!",
              lines[lines.size() - 2]);
    EXPECT_EQ("DEV:Dev_GetDiscInfo(): (/dev/sr0,/dev/sg1) : Unknown/Unsupport CD/DVD Specs",
              lines.back());
}

TEST_F(Identification, ReadsOnlyTheDiscInformationOfABdRom) {
    drive_.Load("bd_rom.hex");
    const Identified found = Identify(drive_);
    EXPECT_EQ("00 12 46 51 51", found.opcodes);
    const Lines lines = LogLines(found.text);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ("DEV:Dev_ReadDiscInfo(): This disc is BD-R", lines[lines.size() - 3]);
}

TEST_F(Identification, LogsTheDriveBeforeTheDisc) {
    drive_.Load("dvd_rom.hex");
    const Lines lines = LogLines(Identify(drive_).text);
    const Lines expected = {"DEV:Dev_Inquiry(): [/dev/sr0] : pModel = (nil)",
                            "DEV:Dev_Inquiry(): Vendor          = DRV     ",
                            "DEV:Dev_Inquiry(): Product ID      = WR-24X   B      ",
                            "DEV:Dev_Inquiry(): Revision        = 1.02",
                            "DEV:Dev_Inquiry(): pModel = [(null)]",
                            "DEV:Dev_ExecMMC(): ((/dev/sr0) GET CONFIGURATION) Success",
                            "",
                            "0000h  00 00 00 10 00 00 00 10                         |........|",
                            "",
                            "DEV:Dev_GetConfiguration(): It's DVD-ROM and supported!"};
    EXPECT_EQ(expected, lines);
}

TEST_F(Identification, NeedsARecordOfAnOpticalDrive) {
    EXPECT_EQ(Lines{"DEV:Dev_GetDiscInfo(): Get Null ptr"},
              CaptureLog([] { EXPECT_EQ(DEV_DISC_INFO_NO_RECORD, Dev_GetDiscInfo(nullptr)); }));
    tDevInfo dev = Drive();
    dev.isOptical = 0;
    const tDevInfo before = dev;
    EXPECT_EQ(Lines{"DEV:Dev_GetDiscInfo(): /dev/sr0 is HDD type"},
              CaptureLog([&] { EXPECT_EQ(DEV_DISC_INFO_NOT_OPTICAL, Dev_GetDiscInfo(&dev)); }));
    EXPECT_EQ(0, memcmp(&before, &dev, sizeof dev));
    EXPECT_EQ(0, drive_.opens);
}

TEST_F(Identification, NeedsTheNode) {
    tDevInfo dev = Drive();
    const tDevInfo before = dev;
    drive_.openError = EBUSY;
    EXPECT_EQ(
        Lines{"DEV:Dev_GetDiscInfo(): open(/dev/sr0//dev/sg1) fail : Device or resource busy"},
        CaptureLog([&] { EXPECT_EQ(DEV_DISC_INFO_OPEN_FAILED, Dev_GetDiscInfo(&dev)); }));
    EXPECT_EQ(0, memcmp(&before, &dev, sizeof dev));
}

TEST_F(Identification, EndsWhenTheDriveIsNotReady) {
    drive_.Always(0x00, SgAnswer::Check(0x02, 0x3A, 0x00));
    TakePauses();
    const Identified found = Identify(drive_);
    EXPECT_EQ(DEV_DISC_INFO_NOT_READY, found.result);
    EXPECT_EQ("00 00 00", found.opcodes);
    EXPECT_EQ(Lines(3, "DEV:Dev_ExecMMC(): ((/dev/sr0) TEST UNIT READY) Fail"),
              LogLines(found.text));
    EXPECT_EQ(std::vector<double>(3, 1.0), TakePauses());
    EXPECT_EQ(0, found.dev.ready);
    EXPECT_TRUE(tDiscInfo{} == found.dev.u.disc) << "zeroed";
}

TEST_F(Identification, ContinuesWhenTheDriveBecomesReady) {
    drive_.Load("cd_r_closed.hex");
    drive_.Next(0x00, SgAnswer::Check(0x02, 0x04, 0x01));
    TakePauses();
    const Identified found = Identify(drive_);
    EXPECT_EQ(DEV_DISC_INFO_OK, found.result);
    EXPECT_EQ("00 00 12 46 43 43 51 51", found.opcodes);
    EXPECT_EQ(std::vector<double>{1.0}, TakePauses());
    EXPECT_EQ(1, found.dev.ready);
}

// Every request of a drive that does not answer ends after its time with a host status (03h:
// DID_TIME_OUT) and without sense data.
TEST_F(Identification, CountsADriveThatDoesNotAnswerAsReadyAndUnsupported) {
    SgAnswer noAnswer;
    noAnswer.info = SG_INFO_CHECK;
    noAnswer.hostStatus = 0x03;
    for (const uint8_t opcode : Bytes{0x00, 0x12, 0x46}) {
        drive_.Always(opcode, noAnswer);
    }
    const Identified found = Identify(drive_);
    EXPECT_EQ(DEV_DISC_INFO_UNSUPPORTED, found.result);
    EXPECT_EQ(1, found.dev.ready);
    EXPECT_EQ("00 12 46", found.opcodes);
    EXPECT_NE(std::string::npos, found.text.find("Disc type(0x0000) unreconfized"));
}

TEST_F(Identification, DoesNotNeedTheInquiry) {
    drive_.Load("dvd_rom.hex");
    drive_.Always(0x12, SgAnswer::Check(0x05, 0x24, 0x00));
    EXPECT_EQ(DEV_DISC_INFO_OK, Identify(drive_).result);
}

TEST_F(Identification, CountsCheckConditionsWithoutSenseAsSuccess) {
    drive_.Load("cd_r_open.hex");
    const auto withCheck = [](Bytes data) {
        SgAnswer answer = SgAnswer::Check(0, 0, 0);
        answer.data = std::move(data);
        return answer;
    };
    drive_.Next(0x00, withCheck({}));
    drive_.Next(0x46, withCheck(drive_.Data(0x46)));
    for (int i = 0; i < 2; ++i) {
        drive_.Next(0x51, withCheck(drive_.Data(0x51)));
    }
    const Identified found = Identify(drive_);
    EXPECT_EQ(DEV_DISC_INFO_OK, found.result);
    EXPECT_EQ(376560U, found.dev.u.disc.usedKB);
}

TEST_F(Identification, RefusesAnOldDriver) {
    drive_.driverVersion = 29999;
    EXPECT_EQ(DEV_DISC_INFO_NOT_READY, Identify(drive_).result);
    drive_.driverVersion = 30000;
    drive_.Load("dvd_rom.hex");
    EXPECT_EQ(DEV_DISC_INFO_OK, Identify(drive_).result);
}

// Each request of each command fails once. The result is 0 unless the profile is missing.
TEST(GetDiscInfo, EndsTheSequenceWhenARequestFails) {
    const struct {
        const char *fixture;
        uint8_t opcode;
        int nth;  // request that fails, from 0
        const char *opcodes;
        int result;
    } cases[] = {
        {"cd_r_open.hex", 0x46, 0, "00 12 46", DEV_DISC_INFO_UNSUPPORTED},
        {"cd_r_open.hex", 0x43, 0, "00 12 46 43", DEV_DISC_INFO_OK},
        {"cd_r_open.hex", 0x43, 1, "00 12 46 43 43", DEV_DISC_INFO_OK},
        {"cd_r_open.hex", 0x51, 0, "00 12 46 43 43 51", DEV_DISC_INFO_OK},
        {"cd_r_open.hex", 0x51, 1, "00 12 46 43 43 51 51", DEV_DISC_INFO_OK},
        {"cd_r_open.hex", 0x43, 2, "00 12 46 43 43 51 51 43", DEV_DISC_INFO_OK},
        {"cd_r_open.hex", 0x43, 3, "00 12 46 43 43 51 51 43 43", DEV_DISC_INFO_OK},
        {"dvd_plus_r_open.hex", 0x51, 0, "00 12 46 51", DEV_DISC_INFO_OK},
        {"dvd_plus_r_open.hex", 0x51, 1, "00 12 46 51 51", DEV_DISC_INFO_OK},
        {"dvd_plus_r_open.hex", 0xAD, 0, "00 12 46 51 51 ad", DEV_DISC_INFO_OK},
        {"dvd_plus_r_open.hex", 0xAD, 1, "00 12 46 51 51 ad ad", DEV_DISC_INFO_OK},
        {"dvd_plus_r_open.hex", 0x52, 0, "00 12 46 51 51 ad ad 52", DEV_DISC_INFO_OK},
        {"dvd_plus_r_open.hex", 0x52, 1, "00 12 46 51 51 ad ad 52 52", DEV_DISC_INFO_OK},
        {"dvd_minus_rw_sequential.hex", 0x23, 0, "00 12 46 51 51 23", DEV_DISC_INFO_OK},
        {"dvd_minus_rw_sequential.hex", 0x23, 1, "00 12 46 51 51 23 23", DEV_DISC_INFO_OK},
        {"bd_rom.hex", 0x51, 0, "00 12 46 51", DEV_DISC_INFO_OK},
        {"bd_rom.hex", 0x51, 1, "00 12 46 51 51", DEV_DISC_INFO_OK},
    };
    for (const auto &item : cases) {
        SimulatedDrive drive{{"/dev/sg1"}};
        drive.Load("drive.hex");
        drive.Load(item.fixture);
        drive.Fail(item.opcode, item.nth, SgAnswer::Check(0x03, 0x02, 0x00));
        const Identified found = Identify(drive);
        EXPECT_EQ(item.result, found.result) << item.fixture << " " << item.opcodes;
        EXPECT_EQ(item.opcodes, found.opcodes);
    }
}

// Fixtures with some bytes changed: states of a CD-RW, both sizes and both layers of a DVD-R.
TEST(GetDiscInfo, DerivesCapacitiesFromStateSizeAndLayers) {
    using Where = std::map<size_t, uint8_t>;
    struct Change {
        uint8_t opcode;
        size_t at;
        Bytes bytes;
        Where where;
    };
    const Where dvdMinus = {{7, 0x10}};
    const Where dvdPlus = {{7, 0x00}};
    const struct {
        const char *fixture;
        std::vector<Change> changes;
        uint64_t totalKB;
        uint64_t usedKB;
    } cases[] = {
        {"cd_rw_open.hex", {{0x51, 2, {0x10}, {}}}, 667800, 0},
        {"cd_rw_open.hex", {{0x51, 2, {0x1E}, {}}}, 667800, 667800},
        {"dvd_minus_r_open.hex",
         {{0x51, 2, {0x0E}, {}}, {0xAD, 5, {0x1F}, dvdMinus}},
         1425782,
         1425782},
        {"dvd_minus_r_open.hex",
         {{0x46, 6, {0x00, 0x15}, {}}, {0x51, 2, {0x0E}, {}}, {0xAD, 6, {0x22}, dvdMinus}},
         8343424,
         8343424},
        {"dvd_minus_r_open.hex", {{0x51, 2, {0x00}, {}}}, 4595776, 0},
        // 1429088 - 2 * 600000
        {"dvd_plus_r_open.hex",
         {{0xAD, 5, {0x1F}, dvdPlus}, {0x52, 16, {0x00, 0x09, 0x27, 0xC0}, {}}},
         1429088,
         229088},
    };
    for (const auto &item : cases) {
        SimulatedDrive drive{{"/dev/sg1"}};
        drive.Load("drive.hex");
        drive.Load(item.fixture);
        for (const Change &change : item.changes) {
            drive.Patch(change.opcode, change.at, change.bytes, change.where);
        }
        const Identified found = Identify(drive);
        EXPECT_EQ(DEV_DISC_INFO_OK, found.result);
        EXPECT_EQ(item.totalKB, found.dev.u.disc.totalKB) << item.fixture;
        EXPECT_EQ(item.usedKB, found.dev.u.disc.usedKB) << item.fixture;
    }
}

TEST(GetDiscInfo, KeepsTheCapacityOfTheCommandsWhenTheDiscCannotBeMounted) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        g_isoError = EINVAL;
        for (const char *fixture : {"dvd_plus_rw.hex", "dvd_minus_rw_overwrite.hex"}) {
            SimulatedDrive drive{{"/dev/sg1"}};
            drive.Load("drive.hex");
            drive.Load(fixture);
            const Identified found = Identify(drive);
            EXPECT_EQ(DEV_DISC_INFO_OK, found.result);
            EXPECT_NE("", found.mountDir);
            EXPECT_NE(0U, found.dev.u.disc.totalKB);
            EXPECT_EQ(found.dev.u.disc.totalKB, found.dev.u.disc.usedKB) << "finalized";
        }
    });
}

TEST(GetDiscInfo, MeasuresOnlyWrittenDiscsWithRandomOverwrite) {
    const struct {
        const char *fixture;
        uint8_t status;  // byte 2 of READ DISC INFORMATION
        const char *mountDir;
    } cases[] = {
        {"dvd_plus_rw.hex", 0x10, ""},
        {"dvd_plus_rw.hex", 0x15, ""},
        {"dvd_plus_rw.hex", 0x1E, "/var/dvd_plus_rw"},
        {"dvd_plus_rw.hex", 0x1F, ""},
        {"dvd_minus_rw_overwrite.hex", 0x10, ""},
        {"dvd_minus_rw_overwrite.hex", 0x15, "/var/dvd_minus_rw"},
        {"dvd_minus_rw_overwrite.hex", 0x1E, "/var/dvd_minus_rw"},
        {"dvd_minus_rw_overwrite.hex", 0x1F, ""},
        {"dvd_minus_rw_sequential.hex", 0x15, ""},
        {"dvd_minus_rw_sequential.hex", 0x1E, ""},
        {"dvd_plus_r_dual_layer.hex", 0x0E, ""},
        {"dvd_minus_r_open.hex", 0x0E, ""},
    };
    RunInPrivateWorld(kMounts, [&cases] {
        MountTmpfs("/var");
        for (const auto &item : cases) {
            SimulatedDrive drive{{"/dev/sg1"}};
            drive.Load("drive.hex");
            drive.Load(item.fixture);
            drive.Patch(0x51, 2, {item.status});
            const Identified found = Identify(drive);
            EXPECT_EQ(DEV_DISC_INFO_OK, found.result);
            EXPECT_EQ(item.mountDir, found.mountDir) << item.fixture << " " << int{item.status};
        }
    });
}

class CdInfo : public DiscTest {
  protected:
    CdInfo() {
        drive_.Load("cd_r_open.hex");
        info_ = Disc(1, 2);
    }
};

TEST_F(CdInfo, LogsTheCommandThatFailed) {
    drive_.Fail(0x43, 0, SgAnswer::Check(0x05, 0x24, 0x00));
    EXPECT_EQ("DEV:Dev_GetCdInfo(): (/dev/sr0) : Read CD ATIP error",
              LinesOf(Dev_GetCdInfo, DEV_QUERY_FAILED).back());
    drive_.Fail(0x51, 0, SgAnswer::Check(0x05, 0x24, 0x00));
    EXPECT_EQ("DEV:Dev_GetCdInfo(): (/dev/sr0) : Read CD DISC INFORMATION error",
              LinesOf(Dev_GetCdInfo, DEV_QUERY_FAILED).back());
    EXPECT_EQ(719998U, info_.totalKB) << "read before the failure";
    info_.usedKB = 7;
    drive_.Fail(0x43, 2, SgAnswer::Check(0x05, 0x24, 0x00));
    EXPECT_EQ("DEV:Dev_GetCdInfo(): (/dev/sr0) : Read CD TOC error", LinesOf(Dev_GetCdInfo).back());
    EXPECT_EQ(0U, info_.usedKB) << "twice the next lead-in, which is 0";
}

TEST_F(CdInfo, DerivesTheUsedCapacityFromTheStatus) {
    const uint64_t used[] = {0, 376560, 719998, 0};
    for (unsigned status = 0; status < 4; ++status) {
        drive_.Patch(0x51, 2, {static_cast<uint8_t>(status)});
        info_ = Disc(1, 2);
        info_.usedKB = 7;
        TextOf(Dev_GetCdInfo);
        EXPECT_EQ(used[status], info_.usedKB) << status;
    }
}

TEST_F(CdInfo, AcceptsNullForThePathOnly) {
    EXPECT_EQ(Lines{"DEV:Dev_GetCdInfo(): Get Null ptr"},
              CaptureLog([&] { EXPECT_EQ(DEV_QUERY_FAILED, Dev_GetCdInfo(kNode, fd_, nullptr)); }));
    const Lines lines =
        CaptureLog([&] { EXPECT_EQ(DEV_QUERY_FAILED, Dev_GetCdInfo(nullptr, -1, &info_)); });
    EXPECT_EQ("DEV:Dev_GetCdInfo(): () : Read CD ATIP error", lines.back());
}

}  // namespace
