// Real file systems on loop devices and tmpfs.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "dev/file_system.h"
#include "dev/mount.h"
#include "dev/mount_table.h"
#include "real_mount.h"

namespace {

using namespace talvek::test;

std::string TypeAt(const char *pDir) {
    tMountEntry entry;
    return Dev_GetEntryViaMtab(pDir, &entry) == 0 ? entry.type : "none";
}

std::string DeviceAt(const char *pDir) {
    char device[DEV_MOUNT_TEXT_SIZE];
    return Dev_GetDevViaMount(device, pDir) == 0 ? device : "none";
}

// Mounts, checks the mount and unmounts.
void ExpectMounts(const std::string &dev, unsigned index, const std::string &type,
                  const std::string &from) {
    ASSERT_EQ(0, Dev_Mount(dev.c_str(), "/mnt", index)) << type << " : " << strerror(errno);
    EXPECT_EQ(type, TypeAt("/mnt"));
    EXPECT_EQ(from, DeviceAt("/mnt"));
    tMountEntry entry;
    ASSERT_EQ(0, Dev_GetEntryViaMtab("/mnt", &entry));
    EXPECT_NE(nullptr, strstr(entry.options, "noatime")) << entry.options;
    EXPECT_EQ(0, Dev_uMount("/mnt"));
    EXPECT_EQ("tmpfs", TypeAt("/mnt"));  // the test's own tmpfs, which the mount hid
}

TEST_F(RealMount, MountsEachFileSystemByItsRow) {
    Run([] {
        const std::vector<std::pair<std::string, unsigned>> types = {{"ext2", DEV_FS_EXT2},
                                                                     {"ext3", DEV_FS_EXT3},
                                                                     {"ext4", DEV_FS_EXT4},
                                                                     {"xfs", DEV_FS_XFS}};
        for (const auto &[type, index] : types) {
            if (!KernelKnows(type)) {
                printf("this kernel has no %s\n", type.c_str());
                continue;
            }
            const LoopDevice loop{MakeFileSystem(type, type == "xfs" ? 320 : 16)};
            ExpectMounts(loop.path(), index, type, loop.path());
        }
    });
}

// The type found is that of the first row whose driver accepts the device. The driver of ext4
// accepts ext3; it does not accept ext2 with the options of ext4's row.
TEST_F(RealMount, DetectsTheFileSystem) {
    Run([] {
        const std::vector<std::pair<std::string, std::string>> types = {
            {"ext2", "ext2"}, {"ext3", "ext4"}, {"ext4", "ext4"}, {"xfs", "xfs"}};
        for (const auto &[type, found] : types) {
            if (!KernelKnows(type) || !KernelKnows(found)) {
                printf("this kernel has no %s\n", type.c_str());
                continue;
            }
            const LoopDevice loop{MakeFileSystem(type, type == "xfs" ? 320 : 16)};
            ExpectMounts(loop.path(), DEV_FS_DETECT, found, loop.path());
        }
    });
}

TEST_F(RealMount, RefusesAnotherFileSystem) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 4)};
        EXPECT_EQ(-1, Dev_Mount(loop.path().c_str(), "/mnt", DEV_FS_XFS));
        EXPECT_EQ("tmpfs", TypeAt("/mnt"));
    });
}

TEST_F(RealMount, TriesThePartitionsOfADiskInOrder) {
    Run([] {
        MakePartitionedImage("/var/parts.img");
        const LoopDevice loop{"/var/parts.img"};
        AddPartitions(loop);
        // "/dev/loop0p" is the disk's name here: it does not end in a digit, its partitions do.
        const std::string disk = loop.path() + "p";
        ASSERT_EQ(0, Dev_CheckPartition((disk + "3").c_str()));
        // By row: partition 2 is ext2, which the row of ext4 does not mount.
        ExpectMounts(disk, DEV_FS_EXT2, "ext2", disk + "2");
        ExpectMounts(disk, DEV_FS_EXT4, "ext4", disk + "3");
        // Detected: no partition is xfs; then ext4 is tried on all partitions before ext2.
        ExpectMounts(disk, DEV_FS_DETECT, "ext4", disk + "3");
    });
}

TEST_F(RealMount, MountsATmpfsForADiskWithoutAKnownFileSystem) {
    Run([] {
        MakeImage("/var/empty.img", 4 << 20);
        const LoopDevice loop{"/var/empty.img"};
        ExpectMounts(loop.path(), DEV_FS_DETECT, "tmpfs", loop.path());
        // squashfs is no row of the table.
        ASSERT_EQ(0, mkdir("/var/tree", 0755));
        RunCommand("mksquashfs /var/tree /var/squash.img -quiet -no-progress");
        const LoopDevice squash{"/var/squash.img", true};
        ExpectMounts(squash.path(), DEV_FS_DETECT, "tmpfs", squash.path());
    });
}

// The check that dev/mount.h recommends.
TEST_F(RealMount, StatfsReportsADetectedTmpfs) {
    Run([] {
        struct statfs st;
        const LoopDevice ext2{MakeFileSystem("ext2", 4)};
        ASSERT_EQ(0, Dev_Mount(ext2.path().c_str(), "/mnt", DEV_FS_DETECT));
        ASSERT_EQ(0, statfs("/mnt", &st));
        EXPECT_EQ(DEV_FS_TYPE_EXT, st.f_type);
        EXPECT_EQ(0, Dev_uMount("/mnt"));
        MakeImage("/var/empty.img", 4 << 20);
        const LoopDevice empty{"/var/empty.img"};
        ASSERT_EQ(0, Dev_Mount(empty.path().c_str(), "/mnt", DEV_FS_DETECT));
        ASSERT_EQ(0, statfs("/mnt", &st));
        EXPECT_EQ(DEV_FS_TYPE_TMPFS, st.f_type);
        EXPECT_EQ(0, Dev_uMount("/mnt"));
    });
}

// Without MS_RDONLY a driver refuses a write-protected device; tmpfs needs no device.
TEST_F(RealMount, MountsATmpfsForAWriteProtectedDisk) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 4), true};
        EXPECT_EQ(-1, Dev_Mount(loop.path().c_str(), "/mnt", DEV_FS_EXT2));
        ExpectMounts(loop.path(), DEV_FS_DETECT, "tmpfs", loop.path());
    });
}

TEST_F(RealMount, FailsOnADamagedFileSystem) {
    Run([] {
        const std::string image = MakeFileSystem("ext4", 16);
        const int fd = open(image.c_str(), O_WRONLY | O_CLOEXEC);
        // The group descriptors follow the superblock, which fills its block of 1024 bytes.
        const std::string noise(64 << 10, '\xFF');
        ASSERT_EQ(ssize_t(noise.size()), pwrite(fd, noise.data(), noise.size(), 2048));
        close(fd);
        const LoopDevice loop{image};
        EXPECT_EQ(-1, Dev_Mount(loop.path().c_str(), "/mnt", DEV_FS_EXT4));
        EXPECT_EQ(-1, Dev_Mount("/dev/no-such-disk1", "/mnt", DEV_FS_EXT4));
        EXPECT_EQ(-1, Dev_Mount("/dev/no-such-disk1", "/mnt", DEV_FS_DETECT));
        EXPECT_EQ("tmpfs", TypeAt("/mnt"));
    });
}

TEST_F(RealMount, FailsWithoutTheDirectory) {
    Run([] {
        EXPECT_EQ(-1, Dev_Mount("tmpfs1", "/mnt/none", DEV_FS_TMPFS));
        EXPECT_EQ(Lines{"DEV:Dev_uMount(): umount(/mnt/none) failed : No such file or directory"},
                  CaptureLog([] { EXPECT_EQ(-1, Dev_uMount("/mnt/none")); }));
        ASSERT_EQ(0, mkdir("/mnt/none", 0755));
        EXPECT_EQ(Lines{"DEV:Dev_uMount(): umount(/mnt/none) failed : Invalid argument"},
                  CaptureLog([] { EXPECT_EQ(-1, Dev_uMount("/mnt/none")); }));
    });
}

// A tmpfs has no device: it accepts any name, and a name without a digit gets a '0'.
TEST_F(RealMount, MountsTmpfs) {
    Run([] {
        ExpectMounts("ram1", DEV_FS_TMPFS, "tmpfs", "ram1");
        ExpectMounts("ram", DEV_FS_TMPFS, "tmpfs", "ram0");
    });
}

TEST_F(RealMount, KeepsABusyMount) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/busy", 0755));
        ASSERT_EQ(0, Dev_Mount("ram1", "/mnt/busy", DEV_FS_TMPFS));
        const int fd = open("/mnt/busy/file", O_CREAT | O_RDWR | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        EXPECT_EQ((Lines{
                      "DEV:Dev_uMount(): umount(/mnt/busy) failed : Device or resource busy",
                      "DEV:Dev_uMount_Force(): umount2(forced umount)(/mnt/busy) failed : Device "
                      "or resource busy",
                  }),
                  CaptureLog([] {
                      EXPECT_EQ(-1, Dev_uMount("/mnt/busy"));
                      EXPECT_EQ(-1, Dev_uMount_Force("/mnt/busy"));
                  }));
        EXPECT_EQ("ram1", DeviceAt("/mnt/busy"));
        close(fd);
        EXPECT_EQ(0, Dev_uMount_Force("/mnt/busy"));
        EXPECT_EQ("none", DeviceAt("/mnt/busy"));
    });
}

TEST_F(RealMount, UnmountsTheLastOfSeveralMounts) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/x", 0755));
        ASSERT_EQ(0, Dev_Mount("ram1", "/mnt/x", DEV_FS_TMPFS));
        ASSERT_EQ(0, Dev_Mount("ram2", "/mnt/x", DEV_FS_TMPFS));
        EXPECT_EQ("ram2", DeviceAt("/mnt/x"));
        EXPECT_EQ(0, Dev_uMount("/mnt/x/"));
        EXPECT_EQ("ram1", DeviceAt("/mnt/x"));
        EXPECT_EQ(0, Dev_uMount("/mnt/x"));
        EXPECT_EQ("none", DeviceAt("/mnt/x"));
    });
}

TEST_F(RealMount, MountsOnNamesWithBlanks) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 4)};
        for (const char *pDir : {"/mnt/a b", "/mnt/t\tn\nq", "/mnt/\\040", "/mnt/#1"}) {
            ASSERT_EQ(0, mkdir(pDir, 0755));
            ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), pDir, DEV_FS_EXT2));
            char found[DEV_MOUNT_TEXT_SIZE];
            ASSERT_EQ(0, Dev_nGetMPT(loop.path().c_str(), found,
                                     static_cast<unsigned>(loop.path().size())));
            EXPECT_STREQ(pDir, found);
            EXPECT_EQ(loop.path(), DeviceAt(pDir));
            EXPECT_EQ("ext2", TypeAt(pDir));
            EXPECT_EQ(0, Dev_uMount(found));
            EXPECT_EQ("none", DeviceAt(pDir));
        }
    });
}

}  // namespace
