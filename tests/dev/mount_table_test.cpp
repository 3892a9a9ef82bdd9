#include "dev/mount_table.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// Runs `body` with a /proc that holds these files alone.
void WithProc(const std::string &mounts, const std::string &partitions,
              const std::function<void()> &body) {
    RunInPrivateWorld(World::kMounts, [&] {
        ReplaceDir("/proc");
        WriteFile("/proc/mounts", mounts);
        WriteFile("/proc/partitions", partitions);
        body();
    });
}

void WithMounts(const std::string &mounts, const std::function<void()> &body) {
    WithProc(mounts, "", body);
}

// The text that a look-up returns, or "-1" after a failure. Canaries lie around its buffer.
template <typename LookUp>
std::string TextOf(LookUp lookUp) {
    CanaryBuf out{DEV_MOUNT_TEXT_SIZE};
    const int result = lookUp(out.text());
    EXPECT_TRUE(out.Intact());
    if (result != 0) {
        EXPECT_EQ(-1, result);
        EXPECT_TRUE(out.UntouchedFrom(0));
        return "-1";
    }
    return out.text();
}

std::string MountPointOf(const char *pDev, unsigned n) {
    return TextOf([=](char *pOut) { return Dev_nGetMPT(pDev, pOut, n); });
}

std::string DeviceOf(const char *pMountPoint) {
    return TextOf([=](char *pOut) { return Dev_GetDevViaMount(pOut, pMountPoint); });
}

constexpr const char *kMountLines =
    "/dev/sdc2 / ext4 rw,relatime 0 0\n"
    "proc /proc proc rw 0 0\n"
    "/dev/sda10 /mnt/ten ext4 rw 0 0\n"
    "/dev/sda1 /mnt/one xfs rw,noatime 0 0\n"
    "/dev/sda1 /mnt/again xfs rw,noatime 0 0\n"
    "/dev/sdb /mnt/disk ext2 ro 0 0\n"
    "/dev/sdd1 /mnt/one vfat rw 0 0\n";

TEST(nGetMPT, WithPrefixFindsTheFirstDeviceThatBeginsWithTheName) {
    WithMounts(kMountLines, [] {
        EXPECT_EQ("/mnt/ten", MountPointOf("/dev/sda", DEV_MPT_PREFIX));
        EXPECT_EQ("/mnt/ten", MountPointOf("/dev/sda1", 0));
        EXPECT_EQ("/mnt/disk", MountPointOf("/dev/sdb", 0));
        EXPECT_EQ("-1", MountPointOf("/dev/sdb1", 0));
        EXPECT_EQ("/", MountPointOf("", 0));
    });
}

TEST(nGetMPT, WithALengthFindsADeviceNoLongerThanIt) {
    WithMounts(kMountLines, [] {
        EXPECT_EQ("/mnt/one", MountPointOf("/dev/sda1", 9));
        EXPECT_EQ("/mnt/ten", MountPointOf("/dev/sda10", 10));
        EXPECT_EQ("-1", MountPointOf("/dev/sda", 8));
        EXPECT_EQ("/mnt/disk", MountPointOf("/dev/sdb", 8));
        // One below and one above the length of the name.
        EXPECT_EQ("-1", MountPointOf("/dev/sdb", 7));
        EXPECT_EQ("/mnt/disk", MountPointOf("/dev/sdb", 9));
        // Only the first n characters of the name are compared.
        EXPECT_EQ("/mnt/disk", MountPointOf("/dev/sdb77", 8));
        EXPECT_EQ("/mnt/one", MountPointOf("/dev/sda1", 4000000000u));
    });
}

TEST(GetMPT, FindsByPrefix) {
    WithMounts(kMountLines, [] {
        char out[DEV_MOUNT_TEXT_SIZE] = "";
        EXPECT_EQ(0, Dev_GetMPT("/dev/sda", out));
        EXPECT_STREQ("/mnt/ten", out);
        EXPECT_EQ(-1, Dev_GetMPT("/dev/sdx", out));
    });
}

TEST(nGetMPT, RefusesNullPointers) {
    char out[DEV_MOUNT_TEXT_SIZE];
    const Lines lines = CaptureLog([&] {
        EXPECT_EQ(-1, Dev_nGetMPT(nullptr, out, 8));
        EXPECT_EQ(-1, Dev_nGetMPT("/dev/sda", nullptr, 0));
        EXPECT_EQ(-1, Dev_GetMPT(nullptr, nullptr));
    });
    ASSERT_EQ(3u, lines.size());
    char expected[100];
    snprintf(expected, sizeof expected, "DEV:Dev_nGetMPT(): ((nil), %p, 8) : Null ptr",
             static_cast<void *>(out));
    EXPECT_EQ(expected, lines[0]);
    EXPECT_EQ("DEV:Dev_GetMPT(): ((nil), (nil), 0) : Null ptr", lines[2]);
}

TEST(GetDevViaMount, FindsTheLastMountOnTheDirectory) {
    WithMounts(kMountLines, [] {
        EXPECT_EQ("/dev/sdd1", DeviceOf("/mnt/one"));
        EXPECT_EQ("/dev/sdc2", DeviceOf("/"));
        EXPECT_EQ("/dev/sda1", DeviceOf("/mnt/again"));
        EXPECT_EQ("-1", DeviceOf("/mnt"));
        EXPECT_EQ("-1", DeviceOf("/mnt/one/"));
        EXPECT_EQ("-1", DeviceOf(""));
    });
}

TEST(GetDevViaMount, RefusesNullPointers) {
    char out[DEV_MOUNT_TEXT_SIZE];
    const Lines lines = CaptureLog([&] {
        EXPECT_EQ(-1, Dev_GetDevViaMount(nullptr, nullptr));
        EXPECT_EQ(-1, Dev_GetDevViaMount(out, nullptr));
    });
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("DEV:Dev_GetDevViaMount(): ((nil), (nil)) : Null ptr", lines[0]);
}

TEST(GetEntryViaMtab, ReturnsTheWholeEntry) {
    WithMounts(
        "/dev/sda1 /mnt xfs rw 0 0\n"
        "srv:/a/b /mnt nfs rw,vers=3,addr=10.0.0.1,mountport=635 0 0\n"
        "/dev/sdb1 /mnt/x ext4 ro 0 0\n",
        [] {
            tMountEntry entry;
            ASSERT_EQ(0, Dev_GetEntryViaMtab("/mnt", &entry));
            EXPECT_STREQ("srv:/a/b", entry.device);
            EXPECT_STREQ("/mnt", entry.mountPoint);
            EXPECT_STREQ("nfs", entry.type);
            EXPECT_STREQ("rw,vers=3,addr=10.0.0.1,mountport=635", entry.options);
            ASSERT_EQ(0, Dev_GetEntryViaMtab("/mnt/x//", &entry));
            EXPECT_STREQ("/dev/sdb1", entry.device);

            memset(&entry, 0x5A, sizeof entry);
            const tMountEntry before = entry;
            EXPECT_EQ(-1, Dev_GetEntryViaMtab("/dev/sda1", &entry));
            EXPECT_EQ(-1, Dev_GetEntryViaMtab("", &entry));
            EXPECT_EQ(-1, Dev_GetEntryViaMtab("/", &entry));
            EXPECT_EQ(0, memcmp(&before, &entry, sizeof entry));
        });
}

TEST(GetEntryViaMtab, FindsTheRootDirectory) {
    WithMounts(kMountLines, [] {
        for (const char *pRoot : {"/", "//", "///"}) {
            tMountEntry entry;
            ASSERT_EQ(0, Dev_GetEntryViaMtab(pRoot, &entry)) << pRoot;
            EXPECT_STREQ("/dev/sdc2", entry.device);
        }
    });
}

TEST(GetEntryViaMtab, RefusesNullPointers) {
    tMountEntry entry;
    const Lines lines = CaptureLog([&] {
        EXPECT_EQ(-1, Dev_GetEntryViaMtab(nullptr, nullptr));
        EXPECT_EQ(-1, Dev_GetEntryViaMtab(nullptr, &entry));
        EXPECT_EQ(-1, Dev_GetEntryViaMtab("/", nullptr));
    });
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("DEV:Dev_GetEntryViaMtab(): ((nil), (nil)) : Null ptr", lines[0]);
}

TEST(MountTable, LogsAMissingFile) {
    RunInPrivateWorld(World::kMounts, [] {
        ReplaceDir("/proc");
        char out[DEV_MOUNT_TEXT_SIZE];
        tMountEntry entry;
        const Lines lines = CaptureLog([&] {
            EXPECT_EQ(-1, Dev_nGetMPT("/dev/sda", out, 0));
            EXPECT_EQ(-1, Dev_GetMPT("/dev/sda", out));
            EXPECT_EQ(-1, Dev_GetDevViaMount(out, "/"));
            EXPECT_EQ(-1, Dev_GetEntryViaMtab("/", &entry));
            EXPECT_EQ(-1, Dev_CheckPartition("sda"));
        });
        const std::string error = "fopen(/proc/mounts) error : No such file or directory";
        EXPECT_EQ(
            (Lines{"DEV:Dev_nGetMPT(): " + error, "DEV:Dev_GetMPT(): " + error,
                   "DEV:Dev_GetDevViaMount(): " + error, "DEV:Dev_GetEntryViaMtab(): " + error,
                   "DEV:Dev_CheckPartition(): open(/proc/partitions) error : "
                   "No such file or directory"}),
            lines);
    });
}

// proc(5): blank, tab, newline and backslash are written as \040 \011 \012 \134; newer kernels
// write '#' as \043 too.
TEST(MountTable, AcceptsAndReturnsNamesWithoutEscapes) {
    WithMounts(
        "/dev/my\\040disk /mnt/a\\040b\\011c\\012d\\134e\\043f ext4 rw 0 0\n"
        "/dev/sdb \\134\\13\\9400\\191\\119\\400\\ ext4 rw 0 0\n",
        [] {
            EXPECT_EQ("/mnt/a b\tc\nd\\e#f", MountPointOf("/dev/my disk", 0));
            EXPECT_EQ("/mnt/a b\tc\nd\\e#f", MountPointOf("/dev/my disk", 12));
            EXPECT_EQ("/dev/my disk", DeviceOf("/mnt/a b\tc\nd\\e#f"));
            tMountEntry entry;
            ASSERT_EQ(0, Dev_GetEntryViaMtab("/mnt/a b\tc\nd\\e#f", &entry));
            EXPECT_STREQ("/dev/my disk", entry.device);
            // Other backslashes are unchanged.
            EXPECT_EQ("\\\\13\\9400\\191\\119\\400\\", MountPointOf("/dev/sdb", 8));
        });
}

TEST(MountTable, FindsARealMount) {
    RunInPrivateWorld(World::kMounts, [] {
        MountTmpfs("/var");
        const std::string dir = "/var/a b\\c";
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
        ASSERT_EQ(0, mount("tal vek", dir.c_str(), "tmpfs", 0, nullptr)) << strerror(errno);
        EXPECT_EQ(dir, MountPointOf("tal vek", 0));
        EXPECT_EQ("tal vek", DeviceOf(dir.c_str()));
        tMountEntry entry;
        ASSERT_EQ(0, Dev_GetEntryViaMtab(dir.c_str(), &entry));
        EXPECT_STREQ("tmpfs", entry.type);
    });
}

// 256 bytes hold 255 characters and the NUL.
TEST(MountTable, CutsAMountPointToItsBufferWithAWarning) {
    for (const size_t length : {254, 255, 256, 300, 5000}) {
        const std::string dir = "/" + std::string(length - 1, 'm');
        WithMounts("/dev/sda1 " + dir + " ext4 rw 0 0\n", [&] {
            const Lines lines =
                CaptureLog([&] { EXPECT_EQ(dir.substr(0, 255), MountPointOf("/dev/sda1", 0)); });
            if (length <= 255) {
                EXPECT_EQ(Lines{}, lines);
            } else {
                EXPECT_EQ(Lines{"DEV:Dev_nGetMPT(): Warning! overflow (len, size) = (" +
                                std::to_string(length) + ", 256)"},
                          lines);
            }
            EXPECT_EQ("/dev/sda1", DeviceOf(dir.c_str()));
        });
    }
}

TEST(MountTable, CutsADeviceToItsBufferWithAWarning) {
    for (const size_t length : {254, 255, 256}) {
        const std::string dev = std::string(length - 2, 'd') + ":/";
        WithMounts(dev + " /mnt nfs rw 0 0\n", [&] {
            const Lines lines =
                CaptureLog([&] { EXPECT_EQ(dev.substr(0, 255), DeviceOf("/mnt")); });
            EXPECT_EQ(length <= 255 ? 0u : 1u, lines.size());
            EXPECT_EQ("/mnt", MountPointOf(dev.c_str(), static_cast<unsigned>(length)));
        });
    }
}

// The line of an NFS mount with long names has more than 256 characters and the server's address at
// its end.
TEST(MountTable, ReadsALongLineWhole) {
    const std::string options = "rw," + std::string(400, 'o') + ",addr=10.0.0.1";
    const std::string decoy = "rw,x" + std::string(300, 'y');
    WithMounts("srv:/a /mnt nfs " + options + " 0 0\n/dev/sdb1 /mnt/b ext4 " + decoy +
                   " /dev/sda1 /wrong 0\n/dev/sda1 /right ext4 rw 0 0\n",
               [&] {
                   tMountEntry entry;
                   ASSERT_EQ(0, Dev_GetEntryViaMtab("/mnt", &entry));
                   EXPECT_EQ(options, entry.options);
                   EXPECT_EQ("/right", MountPointOf("/dev/sda1", 0));
               });
}

TEST(MountTable, CutsTypeAndOptionsWithAWarning) {
    const std::string type(64, 't');
    const std::string options(1024, 'o');
    WithMounts("/dev/sda1 /mnt " + type + " " + options + " 0 0\n/dev/sdb1 /b " + type.substr(1) +
                   " " + options.substr(1) + " 0 0\n",
               [&] {
                   tMountEntry entry;
                   EXPECT_EQ(
                       (Lines{"DEV:Dev_GetEntryViaMtab(): Warning! overflow (len, size) = (64, 64)",
                              "DEV:Dev_GetEntryViaMtab(): Warning! overflow (len, size) = "
                              "(1024, 1024)"}),
                       CaptureLog([&] { EXPECT_EQ(0, Dev_GetEntryViaMtab("/mnt", &entry)); }));
                   EXPECT_EQ(type.substr(1), entry.type);
                   EXPECT_EQ(options.substr(1), entry.options);
                   EXPECT_EQ(Lines{},
                             CaptureLog([&] { EXPECT_EQ(0, Dev_GetEntryViaMtab("/b", &entry)); }));
                   EXPECT_EQ(options.substr(1), entry.options);
               });
}

TEST(MountTable, AcceptsALineOfEveryLength) {
    const std::string whole = "/dev/sda1 /mnt/\\040x ext4 rw,noatime 0 0";
    for (size_t length = 0; length <= whole.size(); ++length) {
        WithMounts(whole.substr(0, length), [&] {
            const size_t firstEnd = strlen("/dev/sda1 ");
            EXPECT_EQ(length > firstEnd, MountPointOf("/dev/sda1", 9) != "-1") << length;
            tMountEntry entry;
            memset(&entry, 'x', sizeof entry);
            if (Dev_GetEntryViaMtab("/mnt/ x", &entry) == 0) {
                EXPECT_STREQ("/dev/sda1", entry.device);
                EXPECT_LE(strlen(entry.type), 4u);
                EXPECT_LE(strlen(entry.options), 10u);
            }
        });
    }
}

// In the kernel's form: a heading, an empty line, numbers aligned with blanks.
constexpr const char *kPartitions =
    "major minor  #blocks  name\n"
    "\n"
    "   8        0  488386584 sda\n"
    "   8        1     102400 sda1\n"
    "   8       16    7812500 sdb\n"
    " 259        0   15558144 mmcblk0p1\n"
    "   7        0        400 loop0\n";

TEST(CheckPartition, FindsTheLastComponentOfAName) {
    WithProc("", kPartitions, [] {
        for (const char *pName : {"/dev/sda", "sda", "sda1", "/dev/sda1", "//x/y/sdb", "mmcblk0p1",
                                  "/dev/loop0", "/sda"}) {
            EXPECT_EQ(0, Dev_CheckPartition(pName)) << pName;
        }
    });
}

TEST(CheckPartition, DoesNotFindOtherNames) {
    WithProc("", kPartitions, [] {
        EXPECT_EQ(
            Lines{}, CaptureLog([] {
                for (const char *pName : {"sd", "sda2", "sda10", "da1", "name", "8", "", "/",
                                          "/dev/sda/", "major", "#blocks", "/dev/sda1 ", " sda"}) {
                    EXPECT_EQ(-1, Dev_CheckPartition(pName)) << pName;
                }
                EXPECT_EQ(-1, Dev_CheckPartition(nullptr));
            }));
    });
}

TEST(CheckPartition, SkipsLinesWithoutThreeNumbers) {
    const std::string list =
        "8 0 sda\n8 0 100sdb\n8 x 100 sdc\n8 0 100 1 sdd\n8\t0\t100\tsde\tsdf\n";
    WithProc("", list, [] {
        for (const char *pName : {"sda", "sdb", "sdc", "sdd", "sdf"}) {
            EXPECT_EQ(-1, Dev_CheckPartition(pName)) << pName;
        }
        EXPECT_EQ(0, Dev_CheckPartition("sde"));
    });
}

TEST(CheckPartition, FindsANameAtEveryPlaceOfALongList) {
    std::string list = "major minor  #blocks  name\n\n";
    for (int i = 0; i < 1000; ++i) {
        list += " 259 " + std::to_string(i) + " 1024 disk" + std::to_string(i) + "\n";
    }
    list += "8 0 1 last";  // without a newline
    WithProc("", list, [] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(0, Dev_CheckPartition(("/dev/disk" + std::to_string(i)).c_str())) << i;
        }
        EXPECT_EQ(-1, Dev_CheckPartition("disk1000"));
        EXPECT_EQ(0, Dev_CheckPartition("last"));
        EXPECT_EQ(-1, Dev_CheckPartition("las"));
    });
}

TEST(CheckPartition, AcceptsTextWithoutLines) {
    WithProc("", std::string(20000, 'x'), [] { EXPECT_EQ(-1, Dev_CheckPartition("sda")); });
    WithProc("", std::string(20000, '\n'), [] { EXPECT_EQ(-1, Dev_CheckPartition("sda")); });
}

TEST(CheckPartition, AgreesWithTheFileOfThisKernel) {
    const std::string real = ReadFile("/proc/partitions");
    std::istringstream in{real};
    std::string major, minor, blocks, name;
    in >> major >> minor >> blocks >> name;  // the heading
    int count = 0;
    while (in >> major >> minor >> blocks >> name) {
        EXPECT_EQ(0, Dev_CheckPartition(name.c_str())) << name;
        ++count;
    }
    if (count == 0) {
        GTEST_SKIP() << "no block device on this machine";
    }
}

}  // namespace
