// Devices that are pulled while they are in use, and one that never answers.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "board/support/board.h"
#include "board/support/mmc_drive.h"
#include "board/support/monitor.h"
#include "dev/disk_stat.h"
#include "dev/enumeration.h"
#include "dev/file_system.h"
#include "dev/mount.h"
#include "dev/optical_disc.h"
#include "dev/scsi.h"
#include "support/capture.h"
#include "support/command.h"
#include "tests/dev/disc_table.h"

namespace {

using namespace talvek::test;
using std::chrono::steady_clock;

size_t OpenFds() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        count += entry.path().empty() ? 0 : 1;
    }
    return count;
}

int CountDevices() {
    tDevInfo devs[DEV_MAX_DEVICES] = {};
    int count = -1;
    Capture([&] { count = Dev_Get(devs); });
    return count;
}

struct Plugged {
    const char *name;
    const char *file;
    const char *properties;
    const char *model;
};

const Plugged kDisks[] = {
    {"scsi", "scsi0.img", R"("driver":"scsi-hd","bus":"scsi.0","product":"PULLED")", "PULLED"},
    {"usb", "usb0.img", R"("driver":"usb-storage","bus":"usb.0","port":"2")", "QEMU HARDDISK"},
};

TEST(Removal, OfAMountedDiskLeavesItToBeUnmounted) {
    NEEDS_EMULATED_BOARD();
    for (const Plugged &disk : kDisks) {
        SCOPED_TRACE(disk.name);
        Monitor monitor;
        monitor.AddFile(disk.name, disk.file, false);
        monitor.Plug("pulled", std::string{disk.properties} + R"(,"drive":")" + disk.name + "\"");
        const std::string node = AwaitDevice(disk.model).node;
        RunCommand("wipefs -qa " + node + " && mke2fs -q -F -t ext4 " + node);
        const size_t fds = OpenFds();
        MountPoint dir;
        Capture([&] { EXPECT_EQ(0, Dev_Mount(node.c_str(), dir.path(), DEV_FS_DETECT)); });
        EXPECT_EQ("ext4", dir.Type());
        const int before = CountDevices();
        monitor.Pull("pulled");
        AwaitNoDevice(disk.model);

        EXPECT_EQ(before - 1, CountDevices());
        tDevInfo dev = {};
        strcpy(dev.devPath, node.c_str());
        Capture([&] { EXPECT_EQ(0, Dev_GetHDStat(&dev, DEV_FS_DETECT)); });
        EXPECT_EQ(0U, dev.u.disk.deviceBytes) << "the node is gone";
        EXPECT_STREQ(dir.path(), dev.mountPoint);
        Capture([&] { EXPECT_EQ(0, Dev_uMount(dir.path())); });
        EXPECT_EQ("", dir.Type());
        EXPECT_EQ(fds, OpenFds());
    }
}

TEST(Removal, OfADriveWithAMountedDiscLeavesItToBeUnmounted) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    monitor.AddFile("disc", "cd.iso", true);
    monitor.Plug("pulled",
                 R"("driver":"scsi-cd","bus":"scsi.0","drive":"disc","product":"PULLED")");
    const SysfsDevice drive = AwaitDevice("PULLED");
    const size_t fds = OpenFds();
    MountPoint dir;
    Capture([&] { EXPECT_EQ(0, Dev_Mount(drive.node.c_str(), dir.path(), DEV_FS_DETECT)); });
    EXPECT_EQ("iso9660", dir.Type());
    monitor.Pull("pulled");
    AwaitNoDevice("PULLED");

    tDevInfo dev = DriveRecord(drive.node, drive.sgNode);
    Capture([&] { EXPECT_EQ(-1, Dev_GetDiscInfo(&dev)); });
    Capture([&] { EXPECT_EQ(0, Dev_uMount(dir.path())); });
    EXPECT_EQ("", dir.Type());
    EXPECT_EQ(fds, OpenFds());
}

// Commands that are under way fail with the device, and what they held is released.
TEST(Removal, OfADriveWhileItIsQueriedEndsTheQuery) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    monitor.AddFile("disc", "dvd.iso", true);
    for (int round = 0; round < 5; ++round) {
        monitor.Plug("drive",
                     R"("driver":"scsi-cd","bus":"scsi.0","drive":"disc","product":"QUERIED")");
        const SysfsDevice device = AwaitDevice("QUERIED");
        const size_t fds = OpenFds();
        std::atomic<int> queries{0};
        int result = 0;
        std::thread querying{[&] {
            Capture([&] {
                while (result == 0) {
                    tDevInfo dev = DriveRecord(device.node, device.sgNode);
                    result = Dev_GetDiscInfo(&dev);
                    if (result == 0) {
                        EXPECT_EQ(uint32_t{DEV_CLASS_DVD_ROM}, dev.u.disc.discClass);
                    }
                    ++queries;
                }
            });
        }};
        EXPECT_TRUE(Await([&] { return queries > 0; }));
        monitor.Pull("drive");
        querying.join();
        // Cut off at the open (-1), while it was asked whether it is ready (-129) or later (-130).
        EXPECT_TRUE(result == -1 || result == -129 || result == -130) << result;
        AwaitNoDevice("QUERIED");
        EXPECT_EQ(fds, OpenFds());
    }
}

// TEST UNIT READY with a time-out of its own.
int AskWhetherReady(int fd, unsigned milliseconds) {
    tMmcCmd cmd = {};
    unsigned char cdb[6] = {};
    unsigned char sense[64] = {};
    strcpy(cmd.label, "(the board's) TEST UNIT READY");
    cmd.hdr.interface_id = 'S';
    cmd.hdr.dxfer_direction = SG_DXFER_NONE;
    cmd.hdr.cmd_len = sizeof cdb;
    cmd.hdr.cmdp = cdb;
    cmd.hdr.mx_sb_len = sizeof sense;
    cmd.hdr.sbp = sense;
    cmd.hdr.timeout = milliseconds;
    return Dev_ExecMMC(&cmd, fd, 1);
}

// The kernel ends the request some time after its time-out, with host status 03h (DID_TIME_OUT) and
// no sense, which counts as success. The drive is of use again when it answers.
TEST(SilentDrive, EndsARequestWithoutSense) {
    NEEDS_EMULATED_BOARD();
    MmcDrive drive;
    drive.Insert("dvd_plus_r_open.hex");
    const int fd = open(drive.sgNode().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    drive.Hang(true);
    const auto begin = steady_clock::now();
    int result = -1;
    const std::string text = Capture([&] { result = AskWhetherReady(fd, 2000); });
    const auto taken = steady_clock::now() - begin;
    EXPECT_EQ(0, result);
    EXPECT_NE(std::string::npos, text.find("TEST UNIT READY host status = 0x03\n")) << text;
    EXPECT_NE(std::string::npos, text.find("Special case(sense, asc, ascq) = (0, 0, 0).")) << text;
    EXPECT_GE(taken, std::chrono::seconds{2});
    EXPECT_LE(taken, std::chrono::seconds{90});
    drive.Hang(false);
    EXPECT_TRUE(Await([&] {
        const std::string again = Capture([&] { result = AskWhetherReady(fd, 2000); });
        return result == 0 && again.find("Fail") == std::string::npos;
    }));
    close(fd);
}

// A drive that is taken away with a command on the way: its requests end as above, and zeros are no
// profile.
TEST(SilentDrive, CanBeTakenAwayInsideACommand) {
    NEEDS_EMULATED_BOARD();
    MmcDrive drive;
    drive.Insert("dvd_plus_r_open.hex");
    tDevInfo dev = DriveRecord(drive.node(), drive.sgNode());
    const size_t fds = OpenFds();
    drive.Hang(true);
    int result = 0;
    std::thread querying{[&] { Capture([&] { result = Dev_GetDiscInfo(&dev); }); }};
    EXPECT_TRUE(Await([&] { return drive.HasPending(); }));
    drive.Unplug();
    querying.join();
    EXPECT_TRUE(result == -129 || result == -130) << result;
    AwaitNoDevice("WR-24X");
    EXPECT_EQ(fds, OpenFds());
}

// Whatever disc a query meets, it ends, and what it reports is one of them or a disc that changed.
TEST(Drive, MayGetAnotherDiscAtAnyTime) {
    NEEDS_EMULATED_BOARD();
    MmcDrive drive;
    std::atomic<bool> stop{false};
    std::thread changing{[&] {
        while (!stop) {
            for (const ExpectedDisc &disc : kDiscs) {
                drive.Insert(disc.fixture);
                // As long as a command or two take.
                EXPECT_TRUE(Await([&] { return stop || drive.TakeOpcodes().size() > 1; }));
            }
        }
    }};
    for (int round = 0; round < 10; ++round) {
        tDevInfo dev = DriveRecord(drive.node(), drive.sgNode());
        int result = 1;
        const std::string text = Capture([&] { result = Dev_GetDiscInfo(&dev); });
        EXPECT_TRUE(result == 0 || result == -129 || result == -130) << result << "\n" << text;
        EXPECT_LE(dev.u.disc.discClass, uint32_t{DEV_CLASS_BD});
        EXPECT_LE(dev.u.disc.discStatus, uint32_t{DEV_DISC_RANDOM_ACCESS});
    }
    stop = true;
    changing.join();
}

}  // namespace
