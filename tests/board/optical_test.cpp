// Discs in a drive that the kernel drives, /dev/srN and /dev/sgN, with the same replies and the
// same expectations as the host's tests of optical_disc.h.

#include "dev/optical_disc.h"

#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>
#include <string>

#include "board/support/board.h"
#include "board/support/mmc_drive.h"
#include "dev/enumeration.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "tests/dev/disc_table.h"

namespace {

using namespace talvek::test;

Bytes IsoImage() {
    const std::string text = ReadFile(BoardVariable("BOARD_MEDIA") + "/cd.iso");
    return {text.begin(), text.end()};
}

// The size that an ISO 9660 volume says it has (ECMA-119 8.4.8: bytes 80 to 83 of the descriptor in
// sector 16, in sectors of 2 KiB).
uint64_t IsoKB(const Bytes &image) {
    const uint8_t *size = image.data() + 16 * 2048 + 80;
    return 2 *
           (size[0] | uint64_t{size[1]} << 8 | uint64_t{size[2]} << 16 | uint64_t{size[3]} << 24);
}

tDevInfo Record(const MmcDrive &drive) {
    tDevInfo dev = DriveRecord(drive.node(), drive.sgNode());
    memset(&dev.u.disc, 0x55, sizeof dev.u.disc);
    return dev;
}

std::string Hex(const Bytes &bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[4];
        snprintf(hex, sizeof hex, "%02x", byte);
        text += (text.empty() ? "" : " ") + std::string{hex};
    }
    return text;
}

TEST(Drive, IdentifiesEveryKindOfDisc) {
    NEEDS_EMULATED_BOARD();
    MmcDrive drive;
    const Bytes image = IsoImage();
    int mounted = 0;
    for (const ExpectedDisc &expected : kDiscs) {
        SCOPED_TRACE(expected.fixture);
        drive.Insert(expected.fixture, image);
        tDevInfo dev = Record(drive);
        int result = -2;
        const std::string text = Capture([&] { result = Dev_GetDiscInfo(&dev); });
        EXPECT_EQ(expected.result, result) << text;
        EXPECT_EQ(1, dev.ready);
        // The first TEST UNIT READY reports that the disc was changed. The kernel's commands for a
        // mount come last.
        const std::string opcodes = Hex(drive.TakeOpcodes());
        const std::string start =
            std::string{"00 00 12 46"} + (*expected.opcodes ? " " : "") + expected.opcodes;
        EXPECT_EQ(start, opcodes.substr(0, start.size()));
        tDiscInfo info = expected.info;
        if (*expected.mountDir != '\0') {
            info.usedKB = IsoKB(image);
            ++mounted;
            EXPECT_NE(std::string::npos, opcodes.find(" 28")) << "nothing was read : " << opcodes;
        } else {
            EXPECT_EQ(start, opcodes);
        }
        EXPECT_EQ(info.discStatus, dev.u.disc.discStatus);
        EXPECT_EQ(info.totalKB, dev.u.disc.totalKB);
        EXPECT_EQ(info.usedKB, dev.u.disc.usedKB);
        EXPECT_EQ(0, memcmp(&info, &dev.u.disc, sizeof info)) << text;
        EXPECT_EQ(std::string::npos, ReadFile("/proc/mounts").find(drive.node() + " "));
    }
    EXPECT_EQ(2, mounted);
}

TEST(Drive, IsNotReadyWithoutADisc) {
    NEEDS_EMULATED_BOARD();
    MmcDrive drive;
    tDevInfo dev = Record(drive);
    (void)drive.TakeOpcodes();
    Capture([&] { EXPECT_EQ(-129, Dev_GetDiscInfo(&dev)); });
    EXPECT_EQ(0, dev.ready);
    EXPECT_EQ("00 00 00", Hex(drive.TakeOpcodes()));
    drive.Insert("dvd_plus_r_open.hex");
    Capture([&] { EXPECT_EQ(0, Dev_GetDiscInfo(&dev)); });
    EXPECT_EQ(400000U, dev.u.disc.usedKB);
    drive.Eject();
    Capture([&] { EXPECT_EQ(-129, Dev_GetDiscInfo(&dev)); });
}

TEST(Drive, IsFoundByEnumeration) {
    NEEDS_EMULATED_BOARD();
    MmcDrive drive;
    drive.Insert("dvd_plus_r_open.hex");
    tDevInfo devs[DEV_MAX_DEVICES] = {};
    int count = 0;
    const std::string text = Capture([&] { count = Dev_Get(devs); });
    const tDevInfo *found = nullptr;
    for (int i = 0; i < count; ++i) {
        found = drive.node() == devs[i].devPath ? &devs[i] : found;
    }
    ASSERT_NE(nullptr, found) << text;
    EXPECT_EQ(drive.sgNode(), found->sgPath);
    EXPECT_STREQ("DRV WR24X B", found->model);
    EXPECT_EQ(1, found->isOptical);
    EXPECT_EQ(1, found->ready);
    EXPECT_EQ(0, found->busType);
}

}  // namespace
