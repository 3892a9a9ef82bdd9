// Real file systems on loop devices and tmpfs, in mount namespaces of the tests' own.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
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
#include "support/command.h"
#include "support/loop_device.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr unsigned kXfs = 0;
constexpr unsigned kExt4 = 1;
constexpr unsigned kExt3 = 2;
constexpr unsigned kExt2 = 3;
constexpr unsigned kTmpfs = 10;

// The file systems' numbers in statfs (linux/magic.h).
constexpr uint32_t kXfsMagic = 0x58465342;
constexpr uint32_t kExtMagic = 0xEF53;
constexpr uint32_t kTmpfsMagic = 0x01021994;

bool KernelKnows(const std::string &type) {
    return ReadFile("/proc/filesystems").find("\t" + type + "\n") != std::string::npos;
}

class RealMount : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        if (getuid() != 0) {
            GTEST_SKIP() << "needs root to attach loop devices";
        }
        if (!LoopDevicesWork(reason)) {
            GTEST_SKIP() << reason;
        }
    }

    // Runs `body` in mounts of its own with an empty /var, where the images go, and an empty /mnt.
    static void Run(const std::function<void()> &body) {
        RunInPrivateWorld(
            kMounts,
            [&] {
                MountTmpfs("/var");
                MountTmpfs("/mnt");
                CaptureLog(Dev_InitFsArray);
                body();
            },
            true);
    }

    static std::string MakeFileSystem(const std::string &type, long long megabytes) {
        const std::string image = "/var/" + type + ".img";
        MakeImage(image, megabytes << 20);
        if (type == "xfs") {
            RunCommand("mkfs.xfs -q " + image);
        } else {
            RunCommand("mke2fs -q -F -t " + type + " " + image);
        }
        return image;
    }
};

std::string TypeAt(const char *pDir) {
    tMountEntry entry;
    return Dev_GetEntryViaMtab(pDir, &entry) == 0 ? entry.type : "none";
}

std::string DeviceAt(const char *pDir) {
    char device[DEV_MOUNT_TEXT_SIZE];
    return Dev_GetDevViaMount(device, pDir) == 0 ? device : "none";
}

// Mounts, looks at the mount and unmounts.
void ExpectMounts(const std::string &dev, unsigned index, const std::string &type,
                  const std::string &from) {
    ASSERT_EQ(0, Dev_Mount(dev.c_str(), "/mnt", index)) << type << " : " << strerror(errno);
    EXPECT_EQ(type, TypeAt("/mnt"));
    EXPECT_EQ(from, DeviceAt("/mnt"));
    tMountEntry entry;
    ASSERT_EQ(0, Dev_GetEntryViaMtab("/mnt", &entry));
    EXPECT_NE(nullptr, strstr(entry.options, "noatime")) << entry.options;
    EXPECT_EQ(0, Dev_uMount("/mnt"));
    EXPECT_EQ("tmpfs", TypeAt("/mnt"));  // the one of the test below it
}

TEST_F(RealMount, MountsEachFileSystemByItsRow) {
    Run([] {
        const std::vector<std::pair<std::string, unsigned>> types = {
            {"ext2", kExt2}, {"ext3", kExt3}, {"ext4", kExt4}, {"xfs", kXfs}};
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

// The first row of the table whose driver accepts it: ext3 is accepted by ext4's, which does not
// take ext2 with the options of its row.
TEST_F(RealMount, FindsTheFileSystem) {
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
        EXPECT_EQ(-1, Dev_Mount(loop.path().c_str(), "/mnt", kXfs));
        EXPECT_EQ("tmpfs", TypeAt("/mnt"));
    });
}

// An image with partitions 1 (empty), 2 (ext2) and 3 (ext4).
void MakePartitionedImage(const std::string &image) {
    MakeImage(image, 64 << 20);
    RunCommand(
        "printf 'start=2048,size=8192\\nstart=10240,size=16384\\nstart=26624,size=65536\\n' "
        "| sfdisk -q --label dos --no-tell-kernel " +
        image);
    for (const char *pPart : {"ext2 4096 5242880", "ext4 16384 13631488"}) {
        char type[8];
        long blocks;
        long offset;
        ASSERT_EQ(3, sscanf(pPart, "%7s %ld %ld", type, &blocks, &offset));
        RunCommand("mke2fs -q -F -t " + std::string{type} + " -b 1024 -E offset=" +
                   std::to_string(offset) + " " + image + " " + std::to_string(blocks));
    }
}

// Where the kernel does not read the partition table itself, partx does and tells it.
void AddPartitions(const LoopDevice &loop) {
    if (!std::filesystem::exists(loop.path() + "p1")) {
        RunCommand("partx -a " + loop.path());
    }
}

TEST_F(RealMount, TriesThePartitionsOfADiskInTheirOrder) {
    Run([] {
        MakePartitionedImage("/var/parts.img");
        const LoopDevice loop{"/var/parts.img"};
        AddPartitions(loop);
        // "/dev/loop0p" stands for the disk: its partitions end in a digit and it does not.
        const std::string disk = loop.path() + "p";
        ASSERT_EQ(0, Dev_CheckPartition((disk + "3").c_str()));
        // By row: 2 is ext2, which the row of ext4 does not mount.
        ExpectMounts(disk, kExt2, "ext2", disk + "2");
        ExpectMounts(disk, kExt4, "ext4", disk + "3");
        // To be found: xfs fits none, then ext4 is tried on 1, 2 and 3 before ext2 on any.
        ExpectMounts(disk, DEV_FS_DETECT, "ext4", disk + "3");
    });
}

TEST_F(RealMount, TakesADiskThatHoldsNoKnownFileSystemForTmpfs) {
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

TEST_F(RealMount, FailsOnADamagedFileSystem) {
    Run([] {
        const std::string image = MakeFileSystem("ext4", 16);
        const int fd = open(image.c_str(), O_WRONLY | O_CLOEXEC);
        // The group descriptors follow the superblock, which fills its block of 1024 bytes.
        const std::string noise(64 << 10, '\xFF');
        ASSERT_EQ(ssize_t(noise.size()), pwrite(fd, noise.data(), noise.size(), 2048));
        close(fd);
        const LoopDevice loop{image};
        EXPECT_EQ(-1, Dev_Mount(loop.path().c_str(), "/mnt", kExt4));
        EXPECT_EQ(-1, Dev_Mount("/dev/no-such-disk1", "/mnt", kExt4));
        EXPECT_EQ(-1, Dev_Mount("/dev/no-such-disk1", "/mnt", DEV_FS_DETECT));
        EXPECT_EQ("tmpfs", TypeAt("/mnt"));
    });
}

TEST_F(RealMount, FailsWithoutTheDirectory) {
    Run([] {
        EXPECT_EQ(-1, Dev_Mount("tmpfs1", "/mnt/none", kTmpfs));
        EXPECT_EQ(Lines{"DEV:Dev_uMount(): umount(/mnt/none) failed : No such file or directory"},
                  CaptureLog([] { EXPECT_EQ(-1, Dev_uMount("/mnt/none")); }));
        ASSERT_EQ(0, mkdir("/mnt/none", 0755));
        EXPECT_EQ(Lines{"DEV:Dev_uMount(): umount(/mnt/none) failed : Invalid argument"},
                  CaptureLog([] { EXPECT_EQ(-1, Dev_uMount("/mnt/none")); }));
    });
}

// A tmpfs has no device: any name will do, and one without a digit gets a '0'.
TEST_F(RealMount, MountsTmpfs) {
    Run([] {
        ExpectMounts("ram1", kTmpfs, "tmpfs", "ram1");
        ExpectMounts("ram", kTmpfs, "tmpfs", "ram0");
    });
}

TEST_F(RealMount, LeavesABusyMount) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/busy", 0755));
        ASSERT_EQ(0, Dev_Mount("ram1", "/mnt/busy", kTmpfs));
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

TEST_F(RealMount, UnmountsTheTopOfSeveralMounts) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/x", 0755));
        ASSERT_EQ(0, Dev_Mount("ram1", "/mnt/x", kTmpfs));
        ASSERT_EQ(0, Dev_Mount("ram2", "/mnt/x", kTmpfs));
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
            ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), pDir, kExt2));
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

tDevInfo DiskAt(const std::string &path) {
    tDevInfo dev{};
    EXPECT_LT(path.size(), sizeof dev.devPath);
    snprintf(dev.devPath, sizeof dev.devPath, "%s", path.c_str());
    return dev;
}

// What statfs says where the same device is mounted.
void ExpectSameAsStatfs(const tDiskStat &disk, const char *pDir, uint32_t type) {
    struct statfs st;
    ASSERT_EQ(0, statfs(pDir, &st));
    EXPECT_EQ(type, disk.fsType);
    EXPECT_EQ(static_cast<uint64_t>(st.f_bsize), disk.blockSize);
    EXPECT_EQ(st.f_bfree, disk.freeBlocks);
    EXPECT_EQ(st.f_blocks, disk.totalBlocks);
    EXPECT_EQ(static_cast<uint64_t>(st.f_bsize) * st.f_blocks, disk.totalBytes);
    EXPECT_EQ(static_cast<uint64_t>(st.f_bsize) * st.f_bfree, disk.freeBytes);
}

Lines EntriesOfVar() {
    Lines names;
    for (const auto &entry : std::filesystem::directory_iterator{"/var"}) {
        if (entry.path().extension() != ".img") {
            names.push_back(entry.path());
        }
    }
    return names;
}

TEST_F(RealMount, MeasuresADiskThroughAMountOfItsOwn) {
    Run([] {
        for (const auto &[type, magic] : std::vector<std::pair<std::string, uint32_t>>{
                 {"ext2", kExtMagic}, {"ext4", kExtMagic}, {"xfs", kXfsMagic}}) {
            if (!KernelKnows(type)) {
                continue;
            }
            const long long megabytes = type == "xfs" ? 320 : 16;
            const LoopDevice loop{MakeFileSystem(type, megabytes)};
            tDevInfo dev = DiskAt(loop.path());
            strcpy(dev.mountPoint, "old");
            EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(1, Dev_GetHDStat(&dev, 11)); }));
            EXPECT_STREQ("", dev.mountPoint);
            EXPECT_EQ(uint64_t(megabytes) << 20, dev.u.disk.deviceBytes);
            EXPECT_EQ(Lines{}, EntriesOfVar());
            EXPECT_EQ("none", [&] {
                char dir[DEV_MOUNT_TEXT_SIZE] = "none";
                Dev_GetMPT(loop.path().c_str(), dir);
                return std::string{dir};
            }());
            ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt", 11));
            ExpectSameAsStatfs(dev.u.disk, "/mnt", magic);
            EXPECT_EQ(0, Dev_uMount("/mnt"));
        }
    });
}

TEST_F(RealMount, MeasuresADiskWhereItIsMounted) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 16)};
        ASSERT_EQ(0, mkdir("/mnt/a b", 0755));
        ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt/a b", kExt2));
        tDevInfo dev = DiskAt(loop.path());
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, Dev_GetHDStat(&dev, 11)); }));
        EXPECT_STREQ("/mnt/a b", dev.mountPoint);
        EXPECT_EQ(16u << 20, dev.u.disk.deviceBytes);
        ExpectSameAsStatfs(dev.u.disk, "/mnt/a b", kExtMagic);
        EXPECT_EQ("ext2", TypeAt("/mnt/a b"));
    });
}

TEST_F(RealMount, MeasuresAFullFileSystem) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 4)};
        ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt", kExt2));
        const int fd = open("/mnt/fill", O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        const std::string block(4096, 'f');
        while (write(fd, block.data(), block.size()) > 0) {
        }
        EXPECT_EQ(ENOSPC, errno);
        close(fd);
        EXPECT_EQ(0, Dev_uMount("/mnt"));
        tDevInfo dev = DiskAt(loop.path());
        EXPECT_EQ(1, Dev_GetHDStat(&dev, kExt2));
        EXPECT_LE(dev.u.disk.freeBytes, block.size());
        EXPECT_GT(dev.u.disk.totalBytes, 3u << 20);
        ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt", kExt2));
        ExpectSameAsStatfs(dev.u.disk, "/mnt", kExtMagic);
    });
}

TEST_F(RealMount, MeasuresThePartitionOfADisk) {
    Run([] {
        MakePartitionedImage("/var/parts.img");
        const LoopDevice loop{"/var/parts.img"};
        AddPartitions(loop);
        // The record's path has room for 11 characters.
        ASSERT_EQ(0, symlink((loop.path() + "p3").c_str(), "/mnt/p3"));
        tDevInfo dev = DiskAt("/mnt/p3");
        EXPECT_EQ(1, Dev_GetHDStat(&dev, kExt4));
        EXPECT_EQ(65536u * 512u, dev.u.disk.deviceBytes);
        EXPECT_EQ(kExtMagic, dev.u.disk.fsType);
    });
}

TEST_F(RealMount, MeasuresTheDeviceWhenItsFileSystemDoesNotMount) {
    Run([] {
        MakeImage("/var/empty.img", 4 << 20);
        const LoopDevice loop{"/var/empty.img"};
        tDevInfo dev = DiskAt(loop.path());
        EXPECT_EQ(-1, Dev_GetHDStat(&dev, kExt4));
        EXPECT_EQ(4u << 20, dev.u.disk.deviceBytes);
        EXPECT_EQ(0u, dev.u.disk.totalBytes);
        EXPECT_EQ(Lines{}, EntriesOfVar());
        // With the file system to be found the disk gets a tmpfs, which its type tells.
        EXPECT_EQ(1, Dev_GetHDStat(&dev, 11));
        EXPECT_EQ(kTmpfsMagic, dev.u.disk.fsType);
        EXPECT_EQ(Lines{}, EntriesOfVar());
    });
}

TEST_F(RealMount, LeavesNothingWhenTheDeviceIsMissing) {
    Run([] {
        tDevInfo dev = DiskAt("/dev/no1");
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): open(/dev/no1) failed : No such file or directory"},
                  CaptureLog([&] { EXPECT_EQ(-1, Dev_GetHDStat(&dev, kExt4)); }));
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
        EXPECT_EQ(Lines{}, EntriesOfVar());
    });
}

TEST_F(RealMount, DoesNotAskAnArrayForItsSize) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/md", 0755));
        ASSERT_EQ(0, Dev_Mount("/dev/md0", "/mnt/md", kTmpfs));
        tDevInfo dev = DiskAt("/dev/md0");
        dev.u.disk.deviceBytes = 77;
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, Dev_GetHDStat(&dev, 11)); }));
        EXPECT_EQ(77u, dev.u.disk.deviceBytes);
        EXPECT_EQ(kTmpfsMagic, dev.u.disk.fsType);
        EXPECT_STREQ("/mnt/md", dev.mountPoint);
    });
}

// 32 TB in blocks of 4 KB are 2^33 of them.
TEST_F(RealMount, CountsBytesBeyondTheReachOfItsBlockCounts) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/md", 0755));
        ASSERT_EQ(0, mount("/dev/md0", "/mnt/md", "tmpfs", 0, "size=32T")) << strerror(errno);
        struct statfs st;
        ASSERT_EQ(0, statfs("/mnt/md", &st));
        tDevInfo dev = DiskAt("/dev/md0");
        EXPECT_EQ(0, Dev_GetHDStat(&dev, 11));
        EXPECT_EQ(uint64_t{32} << 40, dev.u.disk.totalBytes);
        EXPECT_EQ(static_cast<uint64_t>(st.f_bsize) * st.f_bfree, dev.u.disk.freeBytes);
        if (st.f_blocks > UINT32_MAX) {
            EXPECT_EQ(UINT32_MAX, dev.u.disk.totalBlocks);
        }
    });
}

TEST_F(RealMount, LogsADeviceThatHasNoSize) {
    Run([] {
        tDevInfo dev = DiskAt("/dev/null");
        EXPECT_EQ((Lines{"DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE64, /dev/null) error : "
                         "Inappropriate ioctl for device",
                         "DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE, /dev/null) error : Inappropriate "
                         "ioctl for device"}),
                  CaptureLog([&] { EXPECT_EQ(-1, Dev_GetHDStat(&dev, kExt4)); }));
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
    });
}

TEST_F(RealMount, LogsThatItHasNoDirectoryForItsMount) {
    Run([] {
        ASSERT_EQ(0, mount(nullptr, "/var", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
        tDevInfo dev = DiskAt("/dev/md0");
        const Lines lines = CaptureLog([&] { EXPECT_EQ(-1, Dev_GetHDStat(&dev, kTmpfs)); });
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): mkdtemp(/var/Dev_GetHDStat_XXXXXX) error : Read-only "
                        "file system"},
                  lines);
    });
}

TEST(GetHDStat, RefusesNull) {
    EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): ((nil)) : Null ptr"},
              CaptureLog([] { EXPECT_EQ(-1, Dev_GetHDStat(nullptr, 11)); }));
}

// The record has room for 119 characters.
TEST_F(RealMount, CutsALongMountPointInTheRecordOnly) {
    Run([] {
        const std::string dir = "/mnt/" + std::string(115, 'd');
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
        ASSERT_EQ(0, Dev_Mount("/dev/md1", dir.c_str(), kTmpfs));
        tDevInfo dev = DiskAt("/dev/md1");
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): Warning! overflow (len, size) = (120, 120)"},
                  CaptureLog([&] { EXPECT_EQ(0, Dev_GetHDStat(&dev, 11)); }));
        EXPECT_EQ(dir.substr(0, 119), dev.mountPoint);
        EXPECT_EQ(kTmpfsMagic, dev.u.disk.fsType);
        EXPECT_EQ(0, dev.ready);
    });
}

}  // namespace
