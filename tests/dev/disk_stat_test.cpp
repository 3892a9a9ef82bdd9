#include "dev/disk_stat.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "dev/file_system.h"
#include "dev/mount.h"
#include "dev/mount_table.h"
#include "real_mount.h"

namespace {

using namespace talvek::test;

class GetHDStat : public RealMount {};

// The values that other programs are compiled with.
static_assert(DEV_HD_STAT_MOUNTED == 0 && DEV_HD_STAT_OWN_MOUNT == 1 && DEV_HD_STAT_FAILED == -1);

tDevInfo DiskAt(const std::string &path) {
    tDevInfo dev{};
    EXPECT_LT(path.size(), sizeof dev.devPath);
    snprintf(dev.devPath, sizeof dev.devPath, "%s", path.c_str());
    return dev;
}

// Compares with statfs where the same device is mounted.
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

TEST_F(GetHDStat, MountsAndMeasuresADiskThatIsNotMounted) {
    Run([] {
        for (const auto &[type, magic] : std::vector<std::pair<std::string, uint32_t>>{
                 {"ext2", DEV_FS_TYPE_EXT}, {"ext4", DEV_FS_TYPE_EXT}, {"xfs", DEV_FS_TYPE_XFS}}) {
            if (!KernelKnows(type)) {
                continue;
            }
            const long long megabytes = type == "xfs" ? 320 : 16;
            const LoopDevice loop{MakeFileSystem(type, megabytes)};
            tDevInfo dev = DiskAt(loop.path());
            strcpy(dev.mountPoint, "old");
            EXPECT_EQ(Lines{}, CaptureLog([&] {
                          EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_DETECT));
                      }));
            EXPECT_STREQ("", dev.mountPoint);
            EXPECT_EQ(uint64_t(megabytes) << 20, dev.u.disk.deviceBytes);
            EXPECT_EQ(Lines{}, EntriesOfVar());
            EXPECT_EQ("none", [&] {
                char dir[DEV_MOUNT_TEXT_SIZE] = "none";
                Dev_GetMPT(loop.path().c_str(), dir);
                return std::string{dir};
            }());
            ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt", DEV_FS_DETECT));
            ExpectSameAsStatfs(dev.u.disk, "/mnt", magic);
            EXPECT_EQ(0, Dev_uMount("/mnt"));
        }
    });
}

TEST_F(GetHDStat, MeasuresADiskWhereItIsMounted) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 16)};
        ASSERT_EQ(0, mkdir("/mnt/a b", 0755));
        ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt/a b", DEV_FS_EXT2));
        tDevInfo dev = DiskAt(loop.path());
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(DEV_HD_STAT_MOUNTED, Dev_GetHDStat(&dev, DEV_FS_DETECT));
                  }));
        EXPECT_STREQ("/mnt/a b", dev.mountPoint);
        EXPECT_EQ(16u << 20, dev.u.disk.deviceBytes);
        ExpectSameAsStatfs(dev.u.disk, "/mnt/a b", DEV_FS_TYPE_EXT);
    });
}

TEST_F(GetHDStat, MeasuresAFullFileSystem) {
    Run([] {
        const LoopDevice loop{MakeFileSystem("ext2", 4)};
        ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt", DEV_FS_EXT2));
        const int fd = open("/mnt/fill", O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        const std::string block(4096, 'f');
        while (write(fd, block.data(), block.size()) > 0) {
        }
        EXPECT_EQ(ENOSPC, errno);
        close(fd);
        EXPECT_EQ(0, Dev_uMount("/mnt"));
        tDevInfo dev = DiskAt(loop.path());
        EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_EXT2));
        EXPECT_LE(dev.u.disk.freeBytes, block.size());
        EXPECT_GT(dev.u.disk.totalBytes, 3u << 20);
        ASSERT_EQ(0, Dev_Mount(loop.path().c_str(), "/mnt", DEV_FS_EXT2));
        ExpectSameAsStatfs(dev.u.disk, "/mnt", DEV_FS_TYPE_EXT);
    });
}

TEST_F(GetHDStat, MeasuresThePartitionOfADisk) {
    Run([] {
        MakePartitionedImage("/var/parts.img");
        const LoopDevice loop{"/var/parts.img"};
        AddPartitions(loop);
        // The record's path has room for 11 characters.
        ASSERT_EQ(0, symlink((loop.path() + "p3").c_str(), "/mnt/p3"));
        tDevInfo dev = DiskAt("/mnt/p3");
        EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_EXT4));
        EXPECT_EQ(65536u * 512u, dev.u.disk.deviceBytes);
        EXPECT_EQ(DEV_FS_TYPE_EXT, dev.u.disk.fsType);
    });
}

TEST_F(GetHDStat, MeasuresOnlyTheDeviceWhenItsFileSystemDoesNotMount) {
    Run([] {
        MakeImage("/var/empty.img", 4 << 20);
        const LoopDevice loop{"/var/empty.img"};
        tDevInfo dev = DiskAt(loop.path());
        EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(&dev, DEV_FS_EXT4));
        EXPECT_EQ(4u << 20, dev.u.disk.deviceBytes);
        EXPECT_EQ(0u, dev.u.disk.totalBytes);
        EXPECT_EQ(Lines{}, EntriesOfVar());
        // With detection the disk gets a tmpfs, as its type says.
        EXPECT_EQ(DEV_HD_STAT_OWN_MOUNT, Dev_GetHDStat(&dev, DEV_FS_DETECT));
        EXPECT_EQ(DEV_FS_TYPE_TMPFS, dev.u.disk.fsType);
        EXPECT_EQ(Lines{}, EntriesOfVar());
    });
}

TEST_F(GetHDStat, FailsWhenTheDeviceDoesNotExist) {
    Run([] {
        tDevInfo dev = DiskAt("/dev/no1");
        EXPECT_EQ(
            Lines{"DEV:Dev_GetHDStat(): open(/dev/no1) failed : No such file or directory"},
            CaptureLog([&] { EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(&dev, DEV_FS_EXT4)); }));
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
        EXPECT_EQ(Lines{}, EntriesOfVar());
    });
}

TEST_F(GetHDStat, LeavesTheSizeOfAnArrayUnchanged) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/md", 0755));
        ASSERT_EQ(0, Dev_Mount("/dev/md0", "/mnt/md", DEV_FS_TMPFS));
        tDevInfo dev = DiskAt("/dev/md0");
        dev.u.disk.deviceBytes = 77;
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(DEV_HD_STAT_MOUNTED, Dev_GetHDStat(&dev, DEV_FS_DETECT));
                  }));
        EXPECT_EQ(77u, dev.u.disk.deviceBytes);
        EXPECT_EQ(DEV_FS_TYPE_TMPFS, dev.u.disk.fsType);
        EXPECT_STREQ("/mnt/md", dev.mountPoint);
    });
}

// 32 TB in blocks of 4 KB are 2^33 of them. A 32-bit kernel keeps 32 bits of that number, which are
// zero; one block below 16 TB is the largest size there.
TEST_F(GetHDStat, CountsBytesExactlyAndBlocksUpTo32Bits) {
    Run([] {
        ASSERT_EQ(0, mkdir("/mnt/md", 0755));
        uint64_t size = uint64_t{32} << 40;
        struct statfs st = {};
        ASSERT_EQ(0, mount("/dev/md0", "/mnt/md", "tmpfs", 0, "size=32T")) << strerror(errno);
        ASSERT_EQ(0, statfs("/mnt/md", &st));
        if (st.f_blocks == 0) {
            ASSERT_EQ(0, umount("/mnt/md")) << strerror(errno);
            size = (uint64_t{16} << 40) - 4096;
            const std::string option = "size=" + std::to_string(size);
            ASSERT_EQ(0, mount("/dev/md0", "/mnt/md", "tmpfs", 0, option.c_str()))
                << strerror(errno);
            ASSERT_EQ(0, statfs("/mnt/md", &st));
        }
        tDevInfo dev = DiskAt("/dev/md0");
        EXPECT_EQ(DEV_HD_STAT_MOUNTED, Dev_GetHDStat(&dev, DEV_FS_DETECT));
        EXPECT_EQ(size, dev.u.disk.totalBytes);
        EXPECT_EQ(static_cast<uint64_t>(st.f_bsize) * st.f_bfree, dev.u.disk.freeBytes);
        if (st.f_blocks > UINT32_MAX) {
            EXPECT_EQ(UINT32_MAX, dev.u.disk.totalBlocks);
        }
    });
}

TEST_F(GetHDStat, LogsADeviceWithoutASize) {
    Run([] {
        tDevInfo dev = DiskAt("/dev/null");
        EXPECT_EQ(
            (Lines{"DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE64, /dev/null) error : "
                   "Inappropriate ioctl for device",
                   "DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE, /dev/null) error : Inappropriate "
                   "ioctl for device"}),
            CaptureLog([&] { EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(&dev, DEV_FS_EXT4)); }));
        EXPECT_EQ(0u, dev.u.disk.deviceBytes);
    });
}

TEST_F(GetHDStat, LogsThatTheDirectoryCannotBeMade) {
    Run([] {
        RemountReadOnly("/var");
        tDevInfo dev = DiskAt("/dev/md0");
        const Lines lines =
            CaptureLog([&] { EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(&dev, DEV_FS_TMPFS)); });
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): mkdtemp(/var/Dev_GetHDStat_XXXXXX) error : Read-only "
                        "file system"},
                  lines);
    });
}

TEST_F(GetHDStat, RefusesNull) {
    EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): ((nil)) : Null ptr"}, CaptureLog([] {
                  EXPECT_EQ(DEV_HD_STAT_FAILED, Dev_GetHDStat(nullptr, DEV_FS_DETECT));
              }));
}

// The record has room for 119 characters.
TEST_F(GetHDStat, CutsALongMountPointInTheRecord) {
    Run([] {
        const std::string dir = "/mnt/" + std::string(115, 'd');
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
        ASSERT_EQ(0, Dev_Mount("/dev/md1", dir.c_str(), DEV_FS_TMPFS));
        tDevInfo dev = DiskAt("/dev/md1");
        EXPECT_EQ(Lines{"DEV:Dev_GetHDStat(): Warning! overflow (len, size) = (120, 120)"},
                  CaptureLog(
                      [&] { EXPECT_EQ(DEV_HD_STAT_MOUNTED, Dev_GetHDStat(&dev, DEV_FS_DETECT)); }));
        EXPECT_EQ(dir.substr(0, 119), dev.mountPoint);
        EXPECT_EQ(DEV_FS_TYPE_TMPFS, dev.u.disk.fsType);
        EXPECT_EQ(0, dev.ready);
    });
}

}  // namespace
