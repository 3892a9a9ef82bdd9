// Which system calls Dev_Mount and Dev_uMount make.

#include "dev/mount.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "dev/file_system.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

struct MountCall {
    std::string src;
    std::string dir;
    std::string type;
    unsigned long flags;
    std::string data;
    bool operator==(const MountCall &) const = default;
};

// Functions that replace system calls; without one the real call is made. g_calls records the calls
// of mount.
std::function<int(const MountCall &)> g_mount;
std::function<int(const std::string &, int)> g_umount;
std::function<int(const std::string &)> g_system;
std::vector<MountCall> g_calls;

void PrintTo(const MountCall &call, std::ostream *pOut) {
    *pOut << call.src << " " << call.dir << " " << call.type << " " << std::hex << call.flags << " "
          << call.data;
}

}  // namespace

extern "C" {
int __real_mount(const char *, const char *, const char *, unsigned long, const void *);
int __wrap_mount(const char *pSrc, const char *pDir, const char *pType, unsigned long flags,
                 const void *pData) {
    if (!g_mount) {
        return __real_mount(pSrc, pDir, pType, flags, pData);
    }
    const auto *pText = static_cast<const char *>(pData);
    g_calls.push_back({pSrc, pDir, pType, flags, pText != nullptr ? pText : "-"});
    return g_mount(g_calls.back());
}
int __real_umount(const char *);
int __wrap_umount(const char *pDir) {
    return g_umount ? g_umount(pDir, 0) : __real_umount(pDir);
}
int __real_umount2(const char *, int);
int __wrap_umount2(const char *pDir, int flags) {
    return g_umount ? g_umount(pDir, flags) : __real_umount2(pDir, flags);
}
int __real_system(const char *);
int __wrap_system(const char *pCommand) {
    return g_system ? g_system(pCommand) : __real_system(pCommand);
}
}

namespace {

int NoSuchDevice(const MountCall &) {
    errno = ENODEV;
    return -1;
}

std::function<int(const MountCall &)> OnlyMounts(const std::string &src, const std::string &type) {
    return [src, type](const MountCall &call) {
        if (call.src == src && call.type == type) {
            return 0;
        }
        errno = EINVAL;
        return -1;
    };
}

class Mount : public ::testing::Test {
  protected:
    void SetUp() override { g_calls.clear(); }
    void TearDown() override {
        g_mount = nullptr;
        g_umount = nullptr;
        g_system = nullptr;
    }
};
using MountKnown = Mount;
using MountDetect = Mount;
using MountExport = Mount;
using Unmount = Mount;

TEST_F(Mount, RefusesMissingArguments) {
    g_mount = [](const MountCall &) { return 0; };
    EXPECT_EQ((Lines{"DEV:Dev_Mount(): pSrc == NULL", "DEV:Dev_Mount(): strlen(pSrc) == 0",
                     "DEV:Dev_Mount(): pDst == NULL"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, Dev_Mount(nullptr, nullptr, DEV_FS_EXT4));
                  EXPECT_EQ(-1, Dev_Mount("", nullptr, DEV_FS_EXT4));
                  EXPECT_EQ(-1, Dev_Mount("/dev/sda1", nullptr, DEV_FS_DETECT));
              }));
    errno = 0;
    Dev_Mount("", "/mnt", DEV_FS_EXT4);
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(g_calls.empty());
}

struct Row {
    const char *type;
    unsigned long flags;
    const char *data;
};
// In the order of the table; nfs is mounted with a command. 0xC0ED0000 is the magic, 0x400
// MS_NOATIME, 0x001 MS_RDONLY.
constexpr Row kRows[] = {
    {"xfs", 0xC0ED0400, "-"},
    {"ext4", 0xC0ED0400, "data=writeback,barrier=0,nobh"},
    {"ext3", 0xC0ED0400, "-"},
    {"ext2", 0xC0ED0400, "-"},
    {"vfat", 0xC0ED0400, "-"},
    {"fat", 0xC0ED0400, "-"},
    {"jffs2", 0xC0ED0400, "-"},
    {"iso9660", 0xC0ED0001, "-"},
    {"smbfs", 0xC0ED0400, "-"},
    {"nfs", 0xC0ED0400, "rw,rsize=1048576,wsize=1048576,soft,tcp,nolock"},
    {"tmpfs", 0xC0ED0400, "-"},
};

TEST_F(MountKnown, MountsAPartitionOnceWithTheRowsTypeFlagsAndData) {
    g_mount = [](const MountCall &) { return 0; };
    for (unsigned index = 0; index < DEV_FS_COUNT; ++index) {
        if (index == DEV_FS_NFS) {
            continue;
        }
        g_calls.clear();
        EXPECT_EQ(0, Dev_Mount("/dev/sdb1", "/mnt", index));
        const Row &row = kRows[index];
        EXPECT_EQ((std::vector<MountCall>{{"/dev/sdb1", "/mnt", row.type, row.flags, row.data}}),
                  g_calls);
    }
}

TEST_F(MountKnown, TriesPartitions0To8AndThenTheDisk) {
    g_mount = NoSuchDevice;
    EXPECT_EQ(Lines{},
              CaptureLog([] { EXPECT_EQ(-1, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_EXT4)); }));
    std::vector<MountCall> expected;
    for (const char *pSrc : {"/dev/sdb0", "/dev/sdb1", "/dev/sdb2", "/dev/sdb3", "/dev/sdb4",
                             "/dev/sdb5", "/dev/sdb6", "/dev/sdb7", "/dev/sdb8", "/dev/sdb"}) {
        expected.push_back({pSrc, "/mnt", "ext4", 0xC0ED0400, "data=writeback,barrier=0,nobh"});
    }
    EXPECT_EQ(expected, g_calls);
}

TEST_F(MountKnown, EndsWithTheFirstSuccess) {
    g_mount = OnlyMounts("/dev/sdb3", "xfs");
    EXPECT_EQ(0, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_XFS));
    EXPECT_EQ(4u, g_calls.size());
    g_calls.clear();
    g_mount = OnlyMounts("/dev/sdb", "xfs");
    EXPECT_EQ(0, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_XFS));
    EXPECT_EQ(10u, g_calls.size());
}

TEST_F(MountKnown, FailsWhenThePartitionCannotBeMounted) {
    g_mount = NoSuchDevice;
    EXPECT_EQ(-1, Dev_Mount("/dev/sdb9", "/mnt", DEV_FS_XFS));
    EXPECT_EQ(1u, g_calls.size());
}

TEST_F(MountKnown, DoesNotInitialiseTheTable) {
    g_mount = [](const MountCall &) { return 0; };
    EXPECT_EQ(Lines{},
              CaptureLog([] { EXPECT_EQ(0, Dev_Mount("/dev/sdb1", "/mnt", DEV_FS_XFS)); }));
}

TEST_F(MountKnown, TreatsAnExportAsADeviceUnlessTheTypeIsNfs) {
    g_mount = [](const MountCall &) { return 0; };
    g_system = [](const std::string &) {
        ADD_FAILURE();
        return 0;
    };
    EXPECT_EQ(0, Dev_Mount("srv:/a1", "/mnt", DEV_FS_TMPFS));
    EXPECT_EQ((std::vector<MountCall>{{"srv:/a1", "/mnt", "tmpfs", 0xC0ED0400, "-"}}), g_calls);
}

TEST_F(MountKnown, RefusesADeviceAsNfs) {
    g_mount = [](const MountCall &) { return 0; };
    EXPECT_EQ(Lines{"DEV:Dev_Mount(): Try mount pSrc(/dev/sda1) with wrong fs type(NFS)"},
              CaptureLog([] { EXPECT_EQ(-1, Dev_Mount("/dev/sda1", "/mnt", DEV_FS_NFS)); }));
    EXPECT_TRUE(g_calls.empty());
}

// A name of PATH_MAX - 2 characters has room for a digit.
TEST_F(MountKnown, SkipsPartitionsWithNamesLongerThanAnyPath) {
    g_mount = NoSuchDevice;
    for (const size_t length : {PATH_MAX - 2, PATH_MAX - 1, PATH_MAX, PATH_MAX + 1}) {
        g_calls.clear();
        const std::string src(length, 'x');
        EXPECT_EQ(-1, Dev_Mount(src.c_str(), "/mnt", DEV_FS_XFS));
        EXPECT_EQ(length == PATH_MAX - 2 ? 10u : 1u, g_calls.size());
        EXPECT_EQ(src, g_calls.back().src);
    }
}

// Runs `body` where the kernel knows these file systems and lists these partitions.
void WithDisks(const std::vector<std::string> &types, const std::vector<std::string> &partitions,
               const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        MountTmpfs("/var");
        ReplaceDir("/proc");
        std::string list = "nodev\tproc\n";
        for (const std::string &type : types) {
            list += "\t" + type + "\n";
        }
        WriteFile("/proc/filesystems", list);
        list = "major minor  #blocks  name\n\n";
        for (const std::string &name : partitions) {
            list += "   8        1     102400 " + name + "\n";
        }
        WriteFile("/proc/partitions", list);
        CaptureLog(Dev_InitFsArray);
        body();
    });
}

const std::vector<std::string> kAllTypes = {"tmpfs", "nfs",  "smbfs", "iso9660", "jffs2", "fat",
                                            "vfat",  "ext2", "ext3",  "ext4",    "xfs"};

TEST_F(MountDetect, TriesEveryFileSystemInTheOrderOfTheTable) {
    WithDisks(kAllTypes, {"sdb1"}, [] {
        g_mount = NoSuchDevice;
        EXPECT_EQ(-1, Dev_Mount("/dev/sdb1", "/mnt", DEV_FS_DETECT));
        std::vector<MountCall> expected;
        for (const Row &row : kRows) {
            expected.push_back({"/dev/sdb1", "/mnt", row.type, row.flags, row.data});
        }
        EXPECT_EQ(expected, g_calls);
        g_calls.clear();
        EXPECT_EQ(-1, Dev_Mount("/dev/sdb1", "/mnt", 0xFFFFFFFF));
        EXPECT_EQ(expected, g_calls);
    });
}

TEST_F(MountDetect, TriesPartitions1To9AndThenTheDiskForEachFileSystem) {
    WithDisks({"ext4", "xfs"},
              {"sdb", "sdb0", "sdb1", "sdb2", "sdb3", "sdb4", "sdb5", "sdb6", "sdb7", "sdb8",
               "sdb9", "sdb10"},
              [] {
                  g_mount = NoSuchDevice;
                  EXPECT_EQ(-1, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_DETECT));
                  std::vector<MountCall> expected;
                  for (const Row &row : {kRows[0], kRows[1]}) {
                      for (const char *pSrc :
                           {"/dev/sdb1", "/dev/sdb2", "/dev/sdb3", "/dev/sdb4", "/dev/sdb5",
                            "/dev/sdb6", "/dev/sdb7", "/dev/sdb8", "/dev/sdb9", "/dev/sdb"}) {
                          expected.push_back({pSrc, "/mnt", row.type, row.flags, row.data});
                      }
                  }
                  EXPECT_EQ(expected, g_calls);
              });
}

TEST_F(MountDetect, TriesOnlyListedPartitions) {
    WithDisks({"xfs", "ext2"}, {"sdb", "sdb3"}, [] {
        g_mount = NoSuchDevice;
        EXPECT_EQ(-1, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_DETECT));
        std::vector<std::string> tried;
        for (const MountCall &call : g_calls) {
            tried.push_back(call.src + " " + call.type);
        }
        EXPECT_EQ((std::vector<std::string>{"/dev/sdb3 xfs", "/dev/sdb xfs", "/dev/sdb3 ext2",
                                            "/dev/sdb ext2"}),
                  tried);
        g_calls.clear();
        EXPECT_EQ(-1, Dev_Mount("/dev/sdc", "/mnt", DEV_FS_DETECT));
        EXPECT_EQ(-1, Dev_Mount("/dev/sdb1", "/mnt", DEV_FS_DETECT));
        EXPECT_TRUE(g_calls.empty());
    });
}

TEST_F(MountDetect, EndsWithTheFirstSuccess) {
    WithDisks(kAllTypes, {"sdb", "sdb1", "sdb2"}, [] {
        g_mount = OnlyMounts("/dev/sdb2", "ext4");
        EXPECT_EQ(0, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_DETECT));
        EXPECT_EQ(3u + 2u, g_calls.size());
        g_calls.clear();
        g_mount = OnlyMounts("/dev/sdb", "iso9660");
        EXPECT_EQ(0, Dev_Mount("/dev/sdb", "/mnt", DEV_FS_DETECT));
        EXPECT_EQ(3u * 8u, g_calls.size());
        EXPECT_EQ(0xC0ED0001u, g_calls.back().flags);
    });
}

TEST_F(MountDetect, DoesNotTryADisabledFileSystem) {
    WithDisks({}, {"sdb", "sdb1"}, [] {
        g_mount = [](const MountCall &) { return 0; };
        EXPECT_EQ(-1, Dev_Mount("/dev/sdb1", "/mnt", DEV_FS_DETECT));
        EXPECT_TRUE(g_calls.empty());
    });
}

TEST_F(MountDetect, InitialisesTheTable) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        ReplaceDir("/proc");
        WriteFile("/proc/filesystems", "\tvfat\n");
        WriteFile("/proc/partitions", "major minor  #blocks  name\n\n8 1 1 sda1\n");
        g_mount = OnlyMounts("/dev/sda1", "vfat");
        const Lines lines =
            CaptureLog([] { EXPECT_EQ(0, Dev_Mount("/dev/sda1", "/mnt", DEV_FS_DETECT)); });
        ASSERT_EQ(11u, lines.size());
        EXPECT_EQ("DEV:Dev_InitFsArray(): [0] xfs - Disable[0x0000]", lines[0]);
        EXPECT_EQ(1u, g_calls.size());
    });
}

constexpr const char *kNfsCommand =
    "/bin/mount -t nfs -o rw,rsize=1048576,wsize=1048576,soft,tcp,nolock ";

std::string CommandFor(const char *pSrc, const char *pDir, unsigned index = DEV_FS_NFS) {
    std::string command = "none";
    g_system = [&](const std::string &text) {
        command = text;
        return 0;
    };
    EXPECT_EQ(0, Dev_Mount(pSrc, pDir, index));
    g_system = nullptr;
    return command;
}

TEST_F(MountExport, RunsTheMountProgram) {
    g_mount = NoSuchDevice;
    EXPECT_EQ(std::string{kNfsCommand} + "server:/export /mnt/nfs",
              CommandFor("server:/export", "/mnt/nfs"));
    EXPECT_EQ(std::string{kNfsCommand} + "192.168.0.1:/a_b-c.d/E1@x,y%z+=: ./m",
              CommandFor("192.168.0.1:/a_b-c.d/E1@x,y%z+=:", "./m"));
    EXPECT_TRUE(g_calls.empty());
}

// Detection initialises the table for an export too.
TEST_F(MountExport, IsDetectedByItsColon) {
    WithDisks({}, {}, [] {
        g_mount = NoSuchDevice;
        for (const unsigned index : {unsigned{DEV_FS_DETECT}, DEV_FS_DETECT + 1u, 0xFFFFFFFFu}) {
            EXPECT_EQ(std::string{kNfsCommand} + "server:/export /mnt/nfs",
                      CommandFor("server:/export", "/mnt/nfs", index));
        }
        EXPECT_TRUE(g_calls.empty());
    });
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        g_system = [](const std::string &) { return 0; };
        EXPECT_EQ(11u,
                  CaptureLog([] { EXPECT_EQ(0, Dev_Mount("s:/x", "/m", DEV_FS_DETECT)); }).size());
    });
}

TEST_F(MountExport, ReturnsTheStatusOfTheMountProgram) {
    for (const int status : {0, 32 << 8, 127 << 8, 9, -1}) {
        g_system = [status](const std::string &) { return status; };
        EXPECT_EQ(status, Dev_Mount("server:/export", "/mnt", DEV_FS_NFS));
    }
}

TEST_F(MountExport, QuotesNamesThatTheShellWouldInterpret) {
    EXPECT_EQ(std::string{kNfsCommand} + "'srv:/a b' '/m;n'", CommandFor("srv:/a b", "/m;n"));
    EXPECT_EQ(std::string{kNfsCommand} + "'srv:/it'\\''s' ''", CommandFor("srv:/it's", ""));
    EXPECT_EQ(std::string{kNfsCommand} + "'[fe80::1]:/x' '~/m'", CommandFor("[fe80::1]:/x", "~/m"));
    EXPECT_EQ(std::string{kNfsCommand} + "srv:/x '/m\n'", CommandFor("srv:/x", "/m\n"));
}

TEST_F(MountExport, EndsTheOptionsBeforeANameThatBeginsWithADash) {
    EXPECT_EQ(std::string{kNfsCommand} + "-- -o:/x /m", CommandFor("-o:/x", "/m"));
    EXPECT_EQ(std::string{kNfsCommand} + "-- srv:/x --bind", CommandFor("srv:/x", "--bind"));
    EXPECT_EQ(std::string{kNfsCommand} + "srv:/-x m-", CommandFor("srv:/-x", "m-"));
}

TEST_F(MountExport, FlushesStandardOutputBeforeTheProgramRuns) {
    EXPECT_EQ("held\nran\n", Capture([] {
                  g_system = [](const std::string &) { return __real_system("echo ran"); };
                  printf("held\n");
                  EXPECT_EQ(0, Dev_Mount("srv:/x", "/m", DEV_FS_NFS));
              }));
}

// A program in place of /bin/mount prints its arguments.
TEST_F(MountExport, PassesNamesThroughTheShellUnchanged) {
    RunInPrivateWorld(kMounts, [] {
        const TempDir dir;
        WriteFile(dir / "mount", "#!/bin/sh\nfor word; do printf '<%s>' \"$word\"; done\nexit 3\n");
        ASSERT_EQ(0, chmod((dir / "mount").c_str(), 0755));
        ASSERT_EQ(0, mount((dir / "mount").c_str(), "/bin/mount", nullptr, MS_BIND, nullptr));
        std::vector<std::string> names = {
            "srv:/export", "s:/a b",  "s:/$HOME", "s:/`id`",   "s:/$(id)", "s:/a;id",
            "s:/a&id",     "s:/a|id", "s:/a>b",   "s:/a'b\"c", "s:/*",     "s:/?[a-z]",
            "s:/{a,b}",    "s:/#x",   "#:/x",     "~:/x",      "s:/a\\b",  "s:/a\nb",
            "s:/a\tb",     "-s:/x",   "--:/x",    "s:/!x",     "X=1:/x",   "s:/\xC3\xA4\xFF"};
        const auto expectData = [](const std::string &name, const std::string &mountPoint) {
            const bool dashed = name[0] == '-' || mountPoint[0] == '-';
            EXPECT_EQ(std::string{"<-t><nfs><-o><rw,rsize=1048576,wsize=1048576,soft,tcp,nolock>"} +
                          (dashed ? "<-->" : "") + "<" + name + "><" + mountPoint + ">",
                      Capture([&] {
                          EXPECT_EQ(3 << 8,
                                    Dev_Mount(name.c_str(), mountPoint.c_str(), DEV_FS_NFS));
                      }));
        };
        for (const std::string &name : names) {
            expectData(name, name.substr(1));
        }
        // Every character at the end of one name and at the beginning of the other.
        for (int c = 1; c < 256; ++c) {
            expectData(std::string{"s:/"} + static_cast<char>(c),
                       static_cast<char>(256 - c) + std::string{"m"});
        }
    });
}

TEST_F(MountExport, AcceptsNamesOfAnyLength) {
    for (const size_t length : {255, 4096, 100000}) {
        const std::string src = "s:/" + std::string(length, '\'');
        EXPECT_EQ(strlen(kNfsCommand) + 3 + 4 * length + 2 + 2,
                  CommandFor(src.c_str(), "m").size());
    }
}

// Runs `body` with this /proc/mounts.
void WithMounts(const std::string &mounts, const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        ReplaceDir("/proc");
        WriteFile("/proc/mounts", mounts);
        body();
    });
}

TEST_F(Unmount, RefusesNull) {
    g_umount = [](const std::string &, int) {
        ADD_FAILURE();
        return 0;
    };
    EXPECT_EQ(-1, Dev_uMount(nullptr));
    EXPECT_EQ(-1, Dev_uMount_Force(nullptr));
}

TEST_F(Unmount, UnmountsWithAndWithoutAnEntryInTheTable) {
    WithMounts("/dev/sda1 /mnt/a ext4 rw 0 0\n", [] {
        std::vector<std::pair<std::string, int>> calls;
        g_umount = [&](const std::string &dir, int flags) {
            calls.emplace_back(dir, flags);
            return 0;
        };
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(0, Dev_uMount("/mnt/a"));
                      EXPECT_EQ(0, Dev_uMount("/mnt/b"));
                      EXPECT_EQ(0, Dev_uMount_Force("/mnt/a"));
                      EXPECT_EQ(0, Dev_uMount_Force("/mnt/b"));
                  }));
        EXPECT_EQ((std::vector<std::pair<std::string, int>>{
                      {"/mnt/a", 0}, {"/mnt/b", 0}, {"/mnt/a", MNT_FORCE}, {"/mnt/b", MNT_FORCE}}),
                  calls);
    });
}

TEST_F(Unmount, LogsAFailure) {
    WithMounts("srv:/x /mnt/a nfs rw,addr=127.0.0.1 0 0\n", [] {
        g_umount = [](const std::string &, int) {
            errno = EBUSY;
            return -1;
        };
        EXPECT_EQ(
            (Lines{"DEV:Dev_uMount(): umount(/mnt/a) failed : Device or resource busy",
                   "DEV:Dev_uMount(): umount(/mnt/b) failed : Device or resource busy",
                   "DEV:Dev_uMount_Force(): umount2(forced umount)(/mnt/a) failed : Device or "
                   "resource busy"}),
            CaptureLog([] {
                EXPECT_EQ(-1, Dev_uMount("/mnt/a"));
                EXPECT_EQ(-1, Dev_uMount("/mnt/b"));
                EXPECT_EQ(-1, Dev_uMount_Force("/mnt/a"));
            }));
    });
}

TEST_F(Unmount, UnmountsWithoutAMountTable) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        g_umount = [](const std::string &, int) { return 0; };
        EXPECT_EQ(Lines{"DEV:Dev_GetEntryViaMtab(): fopen(/proc/mounts) error : No such file or "
                        "directory"},
                  CaptureLog([] { EXPECT_EQ(0, Dev_uMount("/mnt/a")); }));
    });
}

}  // namespace
