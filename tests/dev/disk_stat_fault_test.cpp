// What a failing call of the C library changes in the measuring of a disk.

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <sys/mount.h>

#include <filesystem>
#include <string>
#include <vector>

#include "dev/disk_stat.h"
#include "dev/file_system.h"
#include "dev/mount_table.h"
#include "fault_disks.h"
#include "support/capture.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

tDevInfo Device(const char *pPath) {
    tDevInfo dev = {};
    strcpy(dev.devPath, pPath);
    return dev;
}

bool IsEmpty(const char *pDir) {
    return std::filesystem::is_empty(pDir);
}

TEST(DiskStatFault, MeasuresADeviceThatCannotBeOpened) {
    WithDisks([] {
        ASSERT_EQ(0, mount("/dev/sdz9", "/mnt", "tmpfs", 0, nullptr));
        tDevInfo dev = Device("/dev/sdz9");
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): open(/dev/sdz9) failed : Permission denied"},
                  CaptureLog([&] {
                      const Fault fault{"open", 0, EACCES};
                      EXPECT_EQ(DEV_HD_STAT_MOUNTED, Dev_GetHDStat(&dev, DEV_FS_DETECT));
                  }));
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
        EXPECT_EQ(uint32_t{DEV_FS_TYPE_TMPFS}, dev.u.disk.fsType);
    });
}

TEST(DiskStatFault, LogsThatTheFileSystemCannotBeMeasured) {
    WithDisks([] {
        tDevInfo dev = Device("/dev/md1");
        strcpy(dev.mountPoint, "/before");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"statfs", 0, EIO};
            EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(&dev, DEV_FS_TMPFS));
        });
        EXPECT_STREQ("", dev.mountPoint);
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_GetHDStat(): statfs(/dev/md1, /var/Dev_GetHDStat_"));
        EXPECT_TRUE(lines[0].ends_with(") error : Input/output error"));
        EXPECT_TRUE(IsEmpty("/var"));
    });
}

TEST(DiskStatFault, StoresTheMountPointOfADiskThatCannotBeMeasured) {
    WithDisks([] {
        ASSERT_EQ(0, mount("/dev/md1", "/mnt", "tmpfs", 0, nullptr));
        tDevInfo dev = Device("/dev/md1");
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): statfs(/dev/md1, /mnt) error : Input/output error"},
                  CaptureLog([&] {
                      const Fault fault{"statfs", 0, EIO};
                      EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(&dev, DEV_FS_TMPFS));
                  }));
        EXPECT_STREQ("/mnt", dev.mountPoint);
        EXPECT_EQ(0u, dev.u.disk.totalBytes);
    });
}

TEST(DiskStatFault, LogsADirectoryThatCannotBeRemoved) {
    WithDisks([] {
        tDevInfo dev = Device("/dev/md1");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"rmdir", 0, EBUSY};
            EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_TMPFS));
        });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_GetHDStat(): rmdir(/var/Dev_GetHDStat_"));
        EXPECT_TRUE(lines[0].ends_with(") error : Device or resource busy"));
    });
}

TEST(DiskStatFault, DetachesItsOwnMountWhenItIsBusy) {
    WithDisks([] {
        tDevInfo dev = Device("/dev/md1");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"umount", 0, EBUSY};
            EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_TMPFS));
        });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_uMount(): umount(/var/Dev_GetHDStat_"));
        EXPECT_TRUE(IsEmpty("/var"));
        char text[DEV_MOUNT_TEXT_SIZE];
        EXPECT_EQ(-1, Dev_GetMPT("/dev/md1", text));
    });
}

TEST(DiskStatFault, ReadsTheSizeInSectorsWhenTheSizeInBytesFails) {
    WithDisks([] {
        tDevInfo dev = Device("/dev/null");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"ioctl", 1, EPERM};
            EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_TMPFS));
        });
        EXPECT_EQ((Lines{"DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE64, /dev/null) error : "
                         "Inappropriate ioctl for device",
                         "DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE, /dev/null) error : Operation not "
                         "permitted"}),
                  lines);
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
    });
}

}  // namespace
