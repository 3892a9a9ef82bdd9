// File systems on real disks: made by the tools of the table, mounted by detection and by index.

#include "dev/mount.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/statfs.h>

#include <errno.h>

#include <fstream>
#include <string>

#include "board/support/board.h"
#include "board/support/monitor.h"
#include "dev/disk_stat.h"
#include "dev/file_system.h"
#include "dev/mount_table.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

enum Row : unsigned { kXfs = 0, kExt4 = 1, kExt3 = 2, kExt2 = 3, kVfat = 4 };

struct FileSystem {
    const char *name;
    Row row;
    const char *options;   // beside those of the table
    const char *size;      // in KiB, of the disk's when empty
    const char *detected;  // what the kernel mounts it as, the rows tried in their order
};

const FileSystem kFileSystems[] = {
    {"xfs", kXfs, "", "", "xfs"},
    {"ext4", kExt4, "", "", "ext4"},
    // ext4 comes first in the table, and its driver takes a journal of ext3.
    {"ext3", kExt3, "", "", "ext4"},
    // Without a journal neither ext4 with its row's options nor ext3 can be mounted.
    {"ext2", kExt2, "", "", "ext2"},
    {"vfat", kVfat, "-F 12 -s 32", "60000", "vfat"},
    {"vfat", kVfat, "-F 16", "", "vfat"},
    {"vfat", kVfat, "-F 32", "", "vfat"},
};

void MakeFileSystem(const FileSystem &fs, const std::string &node) {
    const tFsTool *tool = nullptr;
    Capture([&] { tool = Dev_GetFsToolByIndex(fs.row, DEV_FS_CAP_MAKE); });
    ASSERT_NE(nullptr, tool) << fs.name;
    RunCommand(std::string{tool->path} + tool->arg1 + fs.options + " " + node + " " + fs.size +
               " 2>&1");
}

std::string Mounted(const std::string &source, const char *pDir, unsigned row) {
    std::string text = Capture([&] { EXPECT_EQ(0, Dev_Mount(source.c_str(), pDir, row)); });
    return text;
}

void Unmounted(const char *pDir) {
    const std::string text = Capture([&] { EXPECT_EQ(0, Dev_uMount(pDir)); });
    EXPECT_EQ("", text);
}

// What Dev_GetHDStat finds against statfs of a mount made here.
void ExpectMeasured(const std::string &node, const char *pType, int result) {
    MountPoint dir;
    struct statfs expected = {};
    ASSERT_EQ(0, mount(node.c_str(), dir.path(), pType, MS_NOATIME, nullptr)) << strerror(errno);
    EXPECT_EQ(0, statfs(dir.path(), &expected));
    EXPECT_EQ(0, umount(dir.path()));
    tDevInfo dev = {};
    strcpy(dev.devPath, node.c_str());
    const std::string text =
        Capture([&] { EXPECT_EQ(result, Dev_GetHDStat(&dev, DEV_FS_DETECT)); });
    EXPECT_EQ(uint32_t(expected.f_type), dev.u.disk.fsType) << text;
    EXPECT_EQ(uint64_t(expected.f_bsize), dev.u.disk.blockSize);
    EXPECT_EQ(uint64_t(expected.f_blocks) * uint64_t(expected.f_bsize), dev.u.disk.totalBytes);
    EXPECT_EQ(uint64_t(expected.f_bfree) * uint64_t(expected.f_bsize), dev.u.disk.freeBytes);
}

// A file system on `node` comes up by detection and by its index, keeps a file, and is measured.
void ExpectMounts(const FileSystem &fs, const std::string &node) {
    SCOPED_TRACE(std::string{fs.name} + " " + fs.options + " on " + node);
    MakeFileSystem(fs, node);
    MountPoint dir;
    std::string text = Mounted(node, dir.path(), DEV_FS_DETECT);
    EXPECT_EQ(fs.detected, dir.Type()) << text;
    WriteFile(std::string{dir.path()} + "/file", fs.name);
    char found[DEV_MOUNT_TEXT_SIZE] = "";
    EXPECT_EQ(0, Dev_GetDevViaMount(found, dir.path()));
    EXPECT_EQ(node, found);
    EXPECT_EQ(0, Dev_GetMPT(node.c_str(), found));
    EXPECT_STREQ(dir.path(), found);
    Unmounted(dir.path());
    EXPECT_EQ("", dir.Type());

    text = Mounted(node, dir.path(), fs.row);
    EXPECT_EQ(fs.name, dir.Type()) << text;
    EXPECT_EQ(fs.name, ReadFile(std::string{dir.path()} + "/file"));
    Unmounted(dir.path());
    ExpectMeasured(node, fs.name, 1);
}

// A disk as a whole.
void ExpectWhole(const std::string &disk) {
    for (const FileSystem &fs : kFileSystems) {
        RunCommand("wipefs -qa " + disk);
        ExpectMounts(fs, disk);
    }
}

// Two partitions of a disk.
void ExpectPartitions(const std::string &disk) {
    RunCommand("wipefs -qa " + disk + " && printf ',400M\\n,\\n' | sfdisk -q " + disk);
    EXPECT_TRUE(Await([&] { return Dev_CheckPartition((disk + "2").c_str()) == 0; }));
    ExpectMounts(kFileSystems[1], disk + "1");
    ExpectMounts(kFileSystems[6], disk + "2");

    // The disk's name means its partitions: ext4 is tried first and is on the first.
    MountPoint dir;
    char found[DEV_MOUNT_TEXT_SIZE] = "";
    Mounted(disk, dir.path(), DEV_FS_DETECT);
    EXPECT_EQ(0, Dev_GetDevViaMount(found, dir.path()));
    EXPECT_EQ(disk + "1", found);
    Unmounted(dir.path());
    Mounted(disk, dir.path(), kVfat);
    EXPECT_EQ(0, Dev_GetDevViaMount(found, dir.path()));
    EXPECT_EQ(disk + "2", found);
    Unmounted(dir.path());
}

TEST(DiskMount, FindsEachFileSystemOnAScsiDisk) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    monitor.AddFile("scsi0", "scsi0.img", false);
    monitor.Plug("disk",
                 R"("driver":"scsi-hd","bus":"scsi.0","drive":"scsi0","product":"MOUNTED")");
    const std::string disk = AwaitDevice("MOUNTED").node;
    ExpectWhole(disk);
    ExpectPartitions(disk);
}

TEST(DiskMount, FindsThePartitionsOfAUsbStick) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    monitor.AddFile("usb0", "usb0.img", false);
    monitor.Plug("stick", R"("driver":"usb-storage","bus":"usb.0","port":"2","drive":"usb0")");
    ExpectPartitions(AwaitDevice("QEMU HARDDISK").node);
}

TEST(DiskMount, FindsADisc) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    monitor.AddFile("disc", "cd.iso", true);
    monitor.Plug("drive", R"("driver":"scsi-cd","bus":"scsi.0","drive":"disc","product":"READER")");
    const std::string node = AwaitDevice("READER").node;
    MountPoint dir;
    for (const unsigned row : {unsigned{DEV_FS_DETECT}, unsigned{DEV_FS_ISO9660}}) {
        const std::string text = Mounted(node, dir.path(), row);
        EXPECT_EQ("iso9660", dir.Type()) << text;
        EXPECT_EQ("a disc of the board's\n", ReadFile(std::string{dir.path()} + "/readme.txt"));
        Unmounted(dir.path());
    }
}

// An open file keeps it mounted, by force too, as it is no network's.
TEST(DiskMount, StaysWhileAFileIsOpen) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    monitor.AddFile("scsi1", "scsi1.img", false);
    monitor.Plug("disk", R"("driver":"scsi-hd","bus":"scsi.0","drive":"scsi1","product":"BUSY")");
    const std::string node = AwaitDevice("BUSY").node;
    MakeFileSystem(kFileSystems[1], node);
    MountPoint dir;
    Mounted(node, dir.path(), kExt4);
    {
        std::ofstream file{std::string{dir.path()} + "/open"};
        for (const auto unmount : {Dev_uMount, Dev_uMount_Force}) {
            const std::string text = Capture([&] { EXPECT_EQ(-1, unmount(dir.path())); });
            EXPECT_NE(std::string::npos, text.find("failed : Device or resource busy")) << text;
        }
        EXPECT_EQ("ext4", dir.Type());
    }
    Unmounted(dir.path());
}

// The server's log of MNT and UMNT calls for our export, "MNT_MNT" and "MNT_UMNT".
int CountInServerLog(const std::string &call) {
    const std::string log = ReadFile("/board/nfs/ganesha.log");
    const std::string path = BoardVariable("BOARD_EXPORT");
    const std::string line = call + " path " + path.substr(path.find(':') + 1);
    int count = 0;
    for (size_t at = 0; (at = log.find(line, at)) != std::string::npos; ++at) {
        ++count;
    }
    return count;
}

TEST(NfsMount, NotifiesTheServerOfEachUnmount) {
    NEEDS_EMULATED_BOARD();
    const std::string source = BoardVariable("BOARD_EXPORT");
    MountPoint dir;
    int unmounts = CountInServerLog("MNT_UMNT");
    for (const unsigned row : {unsigned{DEV_FS_NFS}, unsigned{DEV_FS_DETECT}}) {
        for (const auto unmount : {Dev_uMount, Dev_uMount_Force}) {
            const std::string text = Mounted(source, dir.path(), row);
            ASSERT_EQ("nfs", dir.Type()) << text;
            EXPECT_EQ("a file of the server's\n",
                      ReadFile(std::string{dir.path()} + "/readme.txt"));
            WriteFile(std::string{dir.path()} + "/written", "by the board");
            EXPECT_EQ("by the board", ReadFile(std::string{dir.path()} + "/written"));
            tMountEntry entry = {};
            EXPECT_EQ(0, Dev_GetEntryViaMtab(dir.path(), &entry));
            EXPECT_EQ(source, entry.device);
            const std::string said = Capture([&] { EXPECT_EQ(0, unmount(dir.path())); });
            EXPECT_EQ("", said);
            EXPECT_EQ("", dir.Type());
            ++unmounts;
            EXPECT_TRUE(Await([&] { return CountInServerLog("MNT_UMNT") == unmounts; }))
                << entry.options << "\n"
                << ReadFile("/board/nfs/ganesha.log");
        }
    }
}

}  // namespace
