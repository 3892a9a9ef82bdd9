#include "dev/internal/scsi_nodes.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/capture.h"
#include "support/simulated_drive.h"

namespace {

using namespace talvek::test;

TEST(CandidateNodes, AreFortyNineInOrder) {
    std::vector<std::string> expected;
    for (char c = 'a'; c <= 'z'; ++c) {
        expected.push_back(std::string{"/dev/sd"} + c);
    }
    for (int i = 0; i <= 11; ++i) {
        expected.push_back("/dev/sr" + std::to_string(i));
    }
    for (int i = 0; i <= 5; ++i) {
        expected.push_back("/dev/nst" + std::to_string(i));
    }
    for (int i = 0; i <= 4; ++i) {
        expected.push_back("/dev/nosst" + std::to_string(i));
    }
    ASSERT_EQ(49u, expected.size());
    ASSERT_EQ(49u, talvek::kCandidateNodeCount);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], talvek::kCandidateNodes[i]);
    }
    EXPECT_EQ(nullptr, talvek::kCandidateNodes[49]);
}

constexpr talvek::AddrLog kLog = {"Dev_Test", "no bus on %s : %s\n", "no id on %s\n"};

struct Address {
    bool read;
    tScsiAddr addr;
    Lines lines;
};

Address AddressOf(const SimulatedDrive &drive) {
    Address found{};
    const int fd = drive.Open();
    found.lines =
        CaptureLog([&] { found.read = talvek::ReadScsiAddr(kLog, "/dev/sdx", fd, found.addr); });
    close(fd);
    return found;
}

// The first word of SCSI_IOCTL_GET_IDLUN: id in bits 0 to 7, lun in 8 to 15, channel in 16 to 23.
TEST(ScsiAddr, IsReadFromTwoIoctls) {
    SimulatedDrive drive;
    drive.host = 0x12345678;
    drive.idlun = 0x04030201;
    const Address found = AddressOf(drive);
    EXPECT_TRUE(found.read);
    EXPECT_EQ(Lines{}, found.lines);
    EXPECT_TRUE(talvek::SameScsiAddr({0x12345678, 3, 1, 2}, found.addr));
}

TEST(ScsiAddr, IsLoggedInTheWordsOfTheCallerWhenItCannotBeRead) {
    SimulatedDrive drive;
    drive.idlunError = EIO;
    Address found = AddressOf(drive);
    EXPECT_FALSE(found.read);
    EXPECT_EQ(Lines{"DEV:Dev_Test(): no id on /dev/sdx"}, found.lines);
    drive.busNumberError = ENODEV;
    found = AddressOf(drive);
    EXPECT_FALSE(found.read);
    EXPECT_EQ(Lines{"DEV:Dev_Test(): no bus on /dev/sdx : No such device"}, found.lines);
}

TEST(ScsiAddr, IsTheSameWhenAllFourWordsAre) {
    const tScsiAddr addr = {1, 2, 3, 4};
    EXPECT_TRUE(talvek::SameScsiAddr(addr, {1, 2, 3, 4}));
    EXPECT_FALSE(talvek::SameScsiAddr(addr, {0, 2, 3, 4}));
    EXPECT_FALSE(talvek::SameScsiAddr(addr, {1, 0, 3, 4}));
    EXPECT_FALSE(talvek::SameScsiAddr(addr, {1, 2, 0, 4}));
    EXPECT_FALSE(talvek::SameScsiAddr(addr, {1, 2, 3, 0}));
}

}  // namespace
