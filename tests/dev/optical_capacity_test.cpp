#include "dev/optical_capacity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <string>
#include <vector>

#include "disc_fixture.h"
#include "iso_mount.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

struct Measure {
    const char *name;
    int (*entry)(tDevInfo *);
    const char *dir;
};

const Measure kMeasures[] = {
    {"Dev_GetDvdPlusRwInfo", Dev_GetDvdPlusRwInfo, "/var/dvd_plus_rw"},
    {"Dev_GetDvdMinusRwInfo", Dev_GetDvdMinusRwInfo, "/var/dvd_minus_rw"},
    {"Dev_GetBDReInfo", Dev_GetBDReInfo, "/var/bd_re"},
};

tDevInfo Drive() {
    tDevInfo dev = {};
    strcpy(dev.devPath, "/dev/sr0");
    strcpy(dev.sgPath, "/dev/sg1");
    dev.isOptical = 1;
    dev.u.disc.usedKB = 7;
    return dev;
}

bool IsMounted(const std::string &dir) {
    return ReadFile("/proc/self/mounts").find(" " + dir + " ") != std::string::npos;
}

TEST(RewritableCapacity, MountsTheDriveForReading) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        umask(0);
        for (const Measure &item : kMeasures) {
            g_isoMounts.clear();
            TakePauses();
            tDevInfo dev = Drive();
            EXPECT_EQ(
                Lines{"DEV:" + std::string{item.name} + "(): (/dev/sr0) : used_capacity = 8192"},
                CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, item.entry(&dev)); }));
            EXPECT_EQ(8192U, dev.u.disc.usedKB);
            ASSERT_EQ(1U, g_isoMounts.size());
            EXPECT_EQ("/dev/sr0", g_isoMounts[0].source);
            EXPECT_EQ(item.dir, g_isoMounts[0].dir);
            EXPECT_EQ(0xC0ED0001U, g_isoMounts[0].flags);
            EXPECT_FALSE(g_isoMounts[0].hasData);
            EXPECT_FALSE(IsMounted(item.dir));
            EXPECT_EQ(std::vector<double>{1.0}, TakePauses());
            struct stat st = {};
            EXPECT_EQ(0, stat(item.dir, &st)) << "the directory stays";
            EXPECT_EQ(mode_t{S_IFDIR | 0755}, st.st_mode);
        }
    });
}

// 5 GiB, of which nothing is used.
TEST(RewritableCapacity, CountsTheWholeFileSystem) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        g_isoSize = "size=5g";
        tDevInfo dev = Drive();
        CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_GetDvdPlusRwInfo(&dev)); });
        EXPECT_EQ(5242880U, dev.u.disc.usedKB);
    });
}

TEST(RewritableCapacity, UsesAnExistingDirectoryAndUnmountsWhatIsOnIt) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        for (const Measure &item : kMeasures) {
            ASSERT_EQ(0, mkdir(item.dir, 0755));
            MountTmpfs(item.dir);
            tDevInfo dev = Drive();
            CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, item.entry(&dev)); });
            EXPECT_FALSE(IsMounted(item.dir));
        }
    });
}

// Measures with a /var that allows no directory; `error` is in the log.
void ExpectNoDirectory(const Measure &item, const char *error) {
    tDevInfo dev = Drive();
    const Lines lines = CaptureLog([&] { EXPECT_EQ(DEV_QUERY_FAILED, item.entry(&dev)); });
    EXPECT_EQ("DEV:" + std::string{item.name} + "(): COM_Mkdir(" + item.dir + ") error : " + error,
              lines.back());
    EXPECT_EQ(7U, dev.u.disc.usedKB);
    EXPECT_TRUE(g_isoMounts.empty());
}

TEST(RewritableCapacity, FailsWhenTheDirectoryCannotBeMade) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        RemountReadOnly("/var");
        for (const Measure &item : kMeasures) {
            ExpectNoDirectory(item, "Read-only file system");
        }
    });
}

TEST(RewritableCapacity, FailsWhenTheDirectoryIsAFile) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        for (const Measure &item : kMeasures) {
            WriteFile(item.dir, "");
            ExpectNoDirectory(item, "File exists");
        }
    });
}

TEST(RewritableCapacity, RefusesALinkToADirectory) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        ASSERT_EQ(0, mkdir("/var/other", 0755));
        MountTmpfs("/var/other");
        for (const Measure &item : kMeasures) {
            ASSERT_EQ(0, symlink("/var/other", item.dir));
            ExpectNoDirectory(item, "Not a directory");
        }
        EXPECT_TRUE(IsMounted("/var/other")) << "nothing is unmounted through the link";
    });
}

TEST(RewritableCapacity, FailsWhenTheDiscCannotBeMounted) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        g_isoError = EINVAL;
        for (const Measure &item : kMeasures) {
            TakePauses();
            tDevInfo dev = Drive();
            const Lines lines = CaptureLog([&] { EXPECT_EQ(DEV_QUERY_FAILED, item.entry(&dev)); });
            EXPECT_EQ("DEV:" + std::string{item.name} + "(): Dev_Mount(/dev/sr0, " + item.dir +
                          ") error : Invalid argument",
                      lines.back());
            EXPECT_EQ(7U, dev.u.disc.usedKB);
            EXPECT_TRUE(TakePauses().empty());
        }
    });
}

TEST(RewritableCapacity, RefusesNull) {
    for (const Measure &item : kMeasures) {
        EXPECT_EQ(Lines{"DEV:" + std::string{item.name} + "(): Get Null ptr"},
                  CaptureLog([&] { EXPECT_EQ(DEV_QUERY_FAILED, item.entry(nullptr)); }));
    }
}

}  // namespace
