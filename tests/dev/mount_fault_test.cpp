// Every call of the C library fails in turn; nothing crashes, stays open or stays behind.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "dev/disk_stat.h"
#include "dev/file_system.h"
#include "dev/mount.h"
#include "dev/mount_table.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// A world with a disk /dev/sda1 that is not mounted and an array /dev/md1 that takes a tmpfs.
void WithDisks(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        MountTmpfs("/var");
        MountTmpfs("/mnt");
        // What the harness itself looks up in /proc stays there.
        MountTmpfs("/srv");
        WriteFile("/srv/partitions", "major minor  #blocks  name\n\n8 1 9 sda1\n");
        WriteFile("/srv/filesystems", "nodev\ttmpfs\n");
        for (const char *pName : {"partitions", "filesystems"}) {
            ASSERT_EQ(0, mount((std::string{"/srv/"} + pName).c_str(),
                               (std::string{"/proc/"} + pName).c_str(), nullptr, MS_BIND, nullptr));
        }
        body();
    });
}

bool IsEmpty(const char *pDir) {
    return std::filesystem::is_empty(pDir);
}

TEST(MountFault, LookUpsSurviveEveryFailure) {
    WithDisks([] {
        Capture([] {
            EXPECT_GT(EveryCallFails(EIO,
                                     [] {
                                         char text[DEV_MOUNT_TEXT_SIZE];
                                         tMountEntry entry;
                                         Dev_nGetMPT("tmpfs", text, 0);
                                         Dev_GetDevViaMount(text, "/mnt");
                                         Dev_GetEntryViaMtab("/mnt", &entry);
                                         Dev_CheckPartition("sda1");
                                     }),
                      4);
        });
    });
}

TEST(MountFault, TheTableSurvivesEveryFailure) {
    WithDisks([] {
        Capture([] {
            EXPECT_GT(EveryCallFails(EACCES,
                                     [] {
                                         Dev_InitFsArray();
                                         Dev_FsCheckFlag("tmpfs", 0);
                                     }),
                      4);
        });
    });
}

TEST(MountFault, MountingSurvivesEveryFailure) {
    WithDisks([] {
        Capture([] {
            // A run whose unmount fails keeps its mount to itself.
            EveryCallFails(ENOMEM, [] {
                ASSERT_EQ(0, unshare(CLONE_NEWNS));
                if (Dev_Mount("/dev/sda1", "/mnt", DEV_FS_DETECT) == 0) {
                    Dev_uMount("/mnt");
                }
            });
            EveryCallFails(ENOMEM, [] {
                ASSERT_EQ(0, unshare(CLONE_NEWNS));
                if (Dev_Mount("ram1", "/mnt", 10) == 0) {
                    Dev_uMount_Force("/mnt");
                }
            });
            EveryCallFails(ENOMEM, [] { Dev_Mount("s:/x", "/none", DEV_FS_NFS); });
        });
    });
}

// The directory below /var goes on every path, with the mount on it.
TEST(MountFault, MeasuringLeavesNothingBehind) {
    WithDisks([] {
        Capture([] {
            EveryCallFails(EIO, [] {
                tDevInfo dev{};
                strcpy(dev.devPath, "/dev/md1");
                const int result = Dev_GetHDStat(&dev, 10);
                EXPECT_TRUE(result == 1 || result == -1);
                const std::string which = Fault::Which();
                if (which == "rmdir") {
                    for (const auto &entry : std::filesystem::directory_iterator{"/var"}) {
                        std::filesystem::remove(entry);
                    }
                }
                EXPECT_TRUE(IsEmpty("/var")) << which;
            });
        });
    });
}

TEST(MountFault, MeasuresADeviceThatCannotBeOpened) {
    WithDisks([] {
        ASSERT_EQ(0, mount("/dev/sdz9", "/mnt", "tmpfs", 0, nullptr));
        tDevInfo dev{};
        strcpy(dev.devPath, "/dev/sdz9");
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): open(/dev/sdz9) failed : Permission denied"},
                  CaptureLog([&] {
                      const Fault fault{"open", 0, EACCES};
                      EXPECT_EQ(0, Dev_GetHDStat(&dev, 11));
                  }));
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
        EXPECT_EQ(0x01021994u, dev.u.disk.fsType);
    });
}

TEST(MountFault, LogsThatTheFileSystemCannotBeMeasured) {
    WithDisks([] {
        tDevInfo dev{};
        strcpy(dev.devPath, "/dev/md1");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"statfs", 0, EIO};
            EXPECT_EQ(-1, Dev_GetHDStat(&dev, 10));
        });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_GetHDStat(): statfs(/dev/md1, /var/Dev_GetHDStat_"));
        EXPECT_TRUE(lines[0].ends_with(") error : Input/output error"));
        EXPECT_TRUE(IsEmpty("/var"));
    });
}

TEST(MountFault, LogsADirectoryThatStays) {
    WithDisks([] {
        tDevInfo dev{};
        strcpy(dev.devPath, "/dev/md1");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"rmdir", 0, EBUSY};
            EXPECT_EQ(1, Dev_GetHDStat(&dev, 10));
        });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_GetHDStat(): rmdir(/var/Dev_GetHDStat_"));
        EXPECT_TRUE(lines[0].ends_with(") error : Device or resource busy"));
    });
}

TEST(MountFault, DetachesABusyMountOfItsOwn) {
    WithDisks([] {
        tDevInfo dev{};
        strcpy(dev.devPath, "/dev/md1");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"umount", 0, EBUSY};
            EXPECT_EQ(1, Dev_GetHDStat(&dev, 10));
        });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_uMount(): umount(/var/Dev_GetHDStat_"));
        EXPECT_TRUE(IsEmpty("/var"));
        char text[DEV_MOUNT_TEXT_SIZE];
        EXPECT_EQ(-1, Dev_GetMPT("/dev/md1", text));
    });
}

TEST(MountFault, AsksForSectorsWhenTheSizeInBytesFails) {
    WithDisks([] {
        tDevInfo dev{};
        strcpy(dev.devPath, "/dev/null");
        const Lines lines = CaptureLog([&] {
            const Fault fault{"ioctl", 1, EPERM};
            EXPECT_EQ(1, Dev_GetHDStat(&dev, 10));
        });
        EXPECT_EQ((Lines{"DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE64, /dev/null) error : "
                         "Inappropriate ioctl for device",
                         "DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE, /dev/null) error : Operation not "
                         "permitted"}),
                  lines);
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
    });
}

TEST(CheckPartitionFault, LogsAFailedRead) {
    WithDisks([] {
        EXPECT_EQ(
            Lines{"DEV:Dev_CheckPartition(): read(/proc/partitions) error : Input/output error"},
            CaptureLog([] {
                const Fault fault{"read", 0, EIO};
                EXPECT_EQ(-1, Dev_CheckPartition("sda1"));
            }));
    });
}

TEST(CheckPartitionFault, LogsAFailedLseek) {
    WithDisks([] {
        // More than one block, so that a line is cut by its end.
        std::string list = "major minor  #blocks  name\n\n";
        for (int i = 0; i < 1000; ++i) {
            list += " 259 " + std::to_string(i) + " 1024 disk" + std::to_string(i) + "\n";
        }
        WriteFile("/srv/partitions", list);
        EXPECT_EQ(Lines{"DEV:Dev_CheckPartition(): lseek(/proc/partitions) error : Illegal seek"},
                  CaptureLog([] {
                      const Fault fault{"lseek", 0, ESPIPE};
                      EXPECT_EQ(-1, Dev_CheckPartition("disk999"));
                  }));
    });
}

TEST(MountExportFault, LogsThatThereIsNoMemory) {
    const Lines lines = CaptureLog([] {
        const Fault fault{"malloc", 0, ENOMEM};
        EXPECT_EQ(-1, Dev_Mount("s:/x", "/m", DEV_FS_NFS));
    });
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("DEV:Dev_Mount(): malloc("));
    EXPECT_TRUE(lines[0].ends_with(") error : Cannot allocate memory"));
}

TEST(MountExportFault, ReturnsAFailedSystem) {
    Capture([] {
        const Fault fault{"system", 0, EAGAIN};
        EXPECT_EQ(-1, Dev_Mount("s:/x", "/m", DEV_FS_NFS));
    });
}

}  // namespace
