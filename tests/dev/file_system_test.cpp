#include "dev/file_system.h"

#include <gtest/gtest.h>
#include <linux/magic.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "dev/internal/fs_table.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

constexpr const char *kTools[] = {"mkfs.xfs", "xfs_db", "xfs_repair", "mke2fs",
                                  "tune2fs",  "e2fsck", "mkfs.vfat",  "dosfsck"};

// Runs `body` in a world with this /proc/filesystems and a /sbin that has all tools with this mode.
// The table is not initialised yet.
void WithKernel(const std::string &fileSystems, mode_t toolMode,
                const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        ReplaceDir("/proc");
        WriteFile("/proc/filesystems", fileSystems);
        MountTmpfs("/var");
        MountTmpfs("/sbin");
        for (const char *pTool : kTools) {
            const std::string path = std::string{"/sbin/"} + pTool;
            WriteFile(path, "");
            ASSERT_EQ(0, chmod(path.c_str(), toolMode));
        }
        body();
    });
}

constexpr const char *kAll =
    "nodev\tsysfs\nnodev\ttmpfs\n\text3\n\text2\n\text4\n\txfs\n\tvfat\n\tfat\n\tjffs2\n"
    "\tiso9660\nnodev\tsmbfs\nnodev\tnfs\n";

struct ExpectedTool {
    uint32_t capBit;
    const char *path;
    const char *arg1;
    const char *arg2;
};
struct ExpectedRow {
    const char *name;
    uint32_t initialCaps;
    uint32_t flags;
    const char *data;
    std::vector<ExpectedTool> tools;
};

const std::vector<ExpectedTool> kExtLabelAndCheck = {
    {2, "/sbin/tune2fs", " -l ", " -L '%s'"},
    {3, "/sbin/e2fsck", "-pv%c", "-yv%c"},
};
std::vector<ExpectedTool> ExtTools(const char *pMakeOptions) {
    std::vector<ExpectedTool> tools = kExtLabelAndCheck;
    tools.insert(tools.begin(), {1, "/sbin/mke2fs", pMakeOptions, nullptr});
    return tools;
}

const std::vector<ExpectedRow> kExpected = {
    {"xfs",
     0x11,
     0x400,
     nullptr,
     {{1, "/sbin/mkfs.xfs", " -f ", nullptr},
      {2, "/sbin/xfs_db", " -r -c label ", " -x -c 'label \"%s\"'"},
      {3, "/sbin/xfs_repair", nullptr, "-L"}}},
    {"ext4", 0x11, 0x400, "data=writeback,barrier=0,nobh", ExtTools(" -F -T ext4 -m 0 ")},
    {"ext3", 0x11, 0x400, nullptr, ExtTools(" -F -j -m 0 ")},
    {"ext2", 0x01, 0x400, nullptr, ExtTools(" -F -m 0 ")},
    {"vfat",
     0x01,
     0x400,
     nullptr,
     {{1, "/sbin/mkfs.vfat", " -v ", nullptr}, {3, "/sbin/dosfsck", "-av%c", "-yv%c"}}},
    {"fat", 0x01, 0x400, nullptr, {}},
    {"jffs2", 0x01, 0x400, nullptr, {}},
    {"iso9660", 0x01, 0x001, nullptr, {}},
    {"smbfs", 0x01, 0x400, nullptr, {}},
    {"nfs", 0x01, 0x400, "rw,rsize=1048576,wsize=1048576,soft,tcp,nolock", {}},
    {"tmpfs", 0x01, 0x400, nullptr, {}},
};

// The values that other programs are compiled with.
static_assert(DEV_FS_XFS == 0 && DEV_FS_EXT4 == 1 && DEV_FS_EXT3 == 2 && DEV_FS_EXT2 == 3 &&
              DEV_FS_VFAT == 4 && DEV_FS_FAT == 5 && DEV_FS_JFFS2 == 6 && DEV_FS_ISO9660 == 7 &&
              DEV_FS_SMBFS == 8 && DEV_FS_NFS == 9 && DEV_FS_TMPFS == 10 && DEV_FS_DETECT == 11);
static_assert(DEV_FS_CAP_MAKE == 1 && DEV_FS_CAP_LABEL == 2 && DEV_FS_CAP_CHECK == 3 &&
              DEV_FS_CAP_MARK == 4);
static_assert(DEV_FS_IS_UNMARKED == 0 && DEV_FS_IS_MARKED == 1 && DEV_FS_TOOL_SLOTS == 5);

TEST(FsTypes, AreThoseOfTheKernel) {
    EXPECT_EQ(XFS_SUPER_MAGIC, DEV_FS_TYPE_XFS);
    EXPECT_EQ(EXT2_SUPER_MAGIC, DEV_FS_TYPE_EXT);
    EXPECT_EQ(EXT3_SUPER_MAGIC, DEV_FS_TYPE_EXT);
    EXPECT_EQ(EXT4_SUPER_MAGIC, DEV_FS_TYPE_EXT);
    EXPECT_EQ(MSDOS_SUPER_MAGIC, DEV_FS_TYPE_FAT);
    EXPECT_EQ(JFFS2_SUPER_MAGIC, DEV_FS_TYPE_JFFS2);
    EXPECT_EQ(ISOFS_SUPER_MAGIC, DEV_FS_TYPE_ISO9660);
    EXPECT_EQ(SMB_SUPER_MAGIC, DEV_FS_TYPE_SMBFS);
    EXPECT_EQ(NFS_SUPER_MAGIC, DEV_FS_TYPE_NFS);
    EXPECT_EQ(TMPFS_MAGIC, DEV_FS_TYPE_TMPFS);
}

TEST(FsTable, HasElevenRows) {
    ASSERT_EQ(11u, kExpected.size());
    ASSERT_EQ(11, DEV_FS_COUNT);
    for (uint32_t i = 0; i < DEV_FS_COUNT; ++i) {
        const tFsEntry &row = talvek::FsRow(i);
        SCOPED_TRACE(kExpected[i].name);
        EXPECT_EQ(i, row.index);
        EXPECT_STREQ(kExpected[i].name, row.name);
        EXPECT_EQ(kExpected[i].initialCaps, row.caps);
        EXPECT_EQ(kExpected[i].flags, row.mountFlags);
        EXPECT_STREQ(kExpected[i].data, row.mountData);
        for (size_t t = 0; t < DEV_FS_TOOL_SLOTS; ++t) {
            const ExpectedTool none{};
            const ExpectedTool &tool = t < kExpected[i].tools.size() ? kExpected[i].tools[t] : none;
            EXPECT_EQ(tool.capBit, row.tools[t].capBit);
            EXPECT_STREQ(tool.path, row.tools[t].path);
            EXPECT_STREQ(tool.arg1, row.tools[t].arg1);
            EXPECT_STREQ(tool.arg2, row.tools[t].arg2);
        }
    }
}

TEST(InitFsArray, EnablesWhatTheKernelKnowsWithItsTools) {
    WithKernel(kAll, 0755, [] {
        // Initial mask | make 0x2 | label 0x4 | check 0x8.
        EXPECT_EQ((Lines{
                      "DEV:Dev_InitFsArray(): [0] xfs - Enable[0x001F]",
                      "DEV:Dev_InitFsArray(): [1] ext4 - Enable[0x001F]",
                      "DEV:Dev_InitFsArray(): [2] ext3 - Enable[0x001F]",
                      "DEV:Dev_InitFsArray(): [3] ext2 - Enable[0x000F]",
                      "DEV:Dev_InitFsArray(): [4] vfat - Enable[0x000B]",
                      "DEV:Dev_InitFsArray(): [5] fat - Enable[0x0001]",
                      "DEV:Dev_InitFsArray(): [6] jffs2 - Enable[0x0001]",
                      "DEV:Dev_InitFsArray(): [7] iso9660 - Enable[0x0001]",
                      "DEV:Dev_InitFsArray(): [8] smbfs - Enable[0x0001]",
                      "DEV:Dev_InitFsArray(): [9] nfs - Enable[0x0001]",
                      "DEV:Dev_InitFsArray(): [10] tmpfs - Enable[0x0001]",
                  }),
                  CaptureLog(Dev_InitFsArray));
        EXPECT_EQ(kAll, ReadFile("/proc/filesystems"));
        EXPECT_TRUE(std::filesystem::is_empty("/var"));
    });
}

TEST(InitFsArray, DisablesWhatTheKernelDoesNotKnow) {
    WithKernel("nodev\tproc\n\text4\nnodev\ttmpfs\n", 0755, [] {
        const Lines lines = CaptureLog(Dev_InitFsArray);
        ASSERT_EQ(11u, lines.size());
        for (uint32_t i = 0; i < DEV_FS_COUNT; ++i) {
            const bool known = i == DEV_FS_EXT4 || i == DEV_FS_TMPFS;
            EXPECT_EQ(known, lines[i].find("Enable") != std::string::npos) << lines[i];
            EXPECT_EQ(!known, lines[i].ends_with(" - Disable[0x0000]")) << lines[i];
            EXPECT_EQ(known, talvek::FsCaps(i) != 0);
        }
    });
}

// The name must follow a tab, and it may be the beginning of a longer name.
TEST(InitFsArray, LooksForTheNameAfterATab) {
    WithKernel("ext4\nnodev xfs\n\tvfat\nnodev\tnfsd\n", 0755, [] {
        CaptureLog(Dev_InitFsArray);
        EXPECT_EQ(0u, talvek::FsCaps(DEV_FS_XFS));
        EXPECT_EQ(0u, talvek::FsCaps(DEV_FS_EXT4));
        EXPECT_EQ(0x0Bu, talvek::FsCaps(DEV_FS_VFAT));
        EXPECT_EQ(0u, talvek::FsCaps(DEV_FS_FAT));
        EXPECT_EQ(0x01u, talvek::FsCaps(DEV_FS_NFS));
    });
}

TEST(InitFsArray, NeedsToolsThatTheirOwnerMayExecute) {
    // With 0677 everybody but the owner may execute the tool.
    for (const auto &[mode, caps] :
         std::vector<std::pair<mode_t, uint32_t>>{{0100, 0x1F}, {0700, 0x1F}, {0677, 0x11}}) {
        WithKernel("\txfs\n", mode, [caps = caps] {
            CaptureLog(Dev_InitFsArray);
            EXPECT_EQ(caps, talvek::FsCaps(DEV_FS_XFS));
        });
    }
    WithKernel("\txfs\n\text2\n", 0755, [] {
        ASSERT_EQ(0, unlink("/sbin/xfs_db"));
        ASSERT_EQ(0, unlink("/sbin/mke2fs"));
        CaptureLog(Dev_InitFsArray);
        EXPECT_EQ(0x1Bu, talvek::FsCaps(DEV_FS_XFS));
        EXPECT_EQ(0x0Du, talvek::FsCaps(DEV_FS_EXT2));
    });
}

TEST(InitFsArray, ReplacesTheMasks) {
    WithKernel("", 0755, [] {
        CaptureLog(Dev_InitFsArray);
        EXPECT_EQ(0u, talvek::FsCaps(DEV_FS_XFS));
        WriteFile("/proc/filesystems", kAll);
        CaptureLog(Dev_InitFsArray);
        EXPECT_EQ(0x1Fu, talvek::FsCaps(DEV_FS_XFS));
        ASSERT_EQ(0, unlink("/sbin/xfs_repair"));
        CaptureLog(Dev_InitFsArray);
        EXPECT_EQ(0x17u, talvek::FsCaps(DEV_FS_XFS));
    });
}

TEST(InitFsArray, DisablesAllRowsWhenTheLookUpFails) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/filesystems", kAll);
        MountTmpfs("/var");
        RemountReadOnly("/var");
        const Lines lines = CaptureLog(Dev_InitFsArray);
        ASSERT_EQ(12u, lines.size());
        EXPECT_EQ("COMMON:COM_ReplaceItemsInFile(): mkstemp() failed : Read-only file system",
                  lines[0]);
        EXPECT_EQ("DEV:Dev_InitFsArray(): [0] xfs - Disable[0x0000]", lines[1]);
    });
}

TEST(FsTable, IsInitialisedOnceByTheFirstEntryThatNeedsIt) {
    WithKernel(kAll, 0755, [] {
        EXPECT_EQ(
            11u, CaptureLog([] { EXPECT_EQ(0, Dev_FsCheckFlag("xfs", DEV_FS_IS_MARKED)); }).size());
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(0, Dev_FsCheckFlag("ext4", DEV_FS_IS_MARKED));
                      EXPECT_NE(nullptr, Dev_GetFsTool("ext4", DEV_FS_CAP_MAKE));
                      EXPECT_NE(nullptr, Dev_GetFsToolByIndex(DEV_FS_EXT4, DEV_FS_CAP_MAKE));
                  }));
    });
    WithKernel(kAll, 0755, [] {
        EXPECT_EQ(11u,
                  CaptureLog([] { Dev_GetFsToolByIndex(DEV_FS_XFS, DEV_FS_CAP_MAKE); }).size());
    });
    WithKernel(kAll, 0755, [] {
        EXPECT_EQ(11u, CaptureLog([] {
                           Dev_InitFsArray();
                           Dev_GetFsTool("xfs", DEV_FS_CAP_MAKE);
                       }).size());
    });
}

TEST(FsTable, IsInitialisedOnceByManyThreads) {
    WithKernel(kAll, 0755, [] {
        EXPECT_EQ(11u, CaptureLog([] {
                           std::vector<std::thread> threads;
                           for (int i = 0; i < 8; ++i) {
                               threads.emplace_back(
                                   [] { EXPECT_EQ(0, Dev_FsCheckFlag("xfs", DEV_FS_IS_MARKED)); });
                           }
                           for (std::thread &thread : threads) {
                               thread.join();
                           }
                       }).size());
    });
}

TEST(FsCheckFlag, ReportsTheMark) {
    WithKernel(kAll, 0755, [] {
        CaptureLog(Dev_InitFsArray);
        for (const ExpectedRow &row : kExpected) {
            const bool marked = (row.initialCaps & 0x10) != 0;
            EXPECT_EQ(marked ? -1 : 0, Dev_FsCheckFlag(row.name, DEV_FS_IS_UNMARKED)) << row.name;
            EXPECT_EQ(marked ? 0 : -1, Dev_FsCheckFlag(row.name, DEV_FS_IS_MARKED)) << row.name;
            for (const int mode : {-1, 2, 100}) {
                EXPECT_EQ(0, Dev_FsCheckFlag(row.name, mode)) << row.name;
            }
        }
    });
}

TEST(FsCheckFlag, RefusesUnknownAndDisabledNames) {
    WithKernel("\text4\n", 0755, [] {
        CaptureLog(Dev_InitFsArray);
        for (const char *pName : {"xfs", "tmpfs", "EXT4", "ext", "ext44", ""}) {
            for (const int mode : {int{DEV_FS_IS_UNMARKED}, int{DEV_FS_IS_MARKED}, 2}) {
                EXPECT_EQ(-1, Dev_FsCheckFlag(pName, mode)) << pName;
            }
        }
        EXPECT_EQ(-1, Dev_FsCheckFlag(nullptr, 2));
        EXPECT_EQ(0, Dev_FsCheckFlag("ext4", 2));
    });
}

TEST(GetFsTool, ReturnsTheSlotOfEachCapability) {
    WithKernel(kAll, 0755, [] {
        CaptureLog(Dev_InitFsArray);
        for (uint32_t i = 0; i < DEV_FS_COUNT; ++i) {
            for (uint32_t capBit = 0; capBit < 40; ++capBit) {
                const ExpectedTool *pExpected = nullptr;
                for (const ExpectedTool &tool : kExpected[i].tools) {
                    pExpected = tool.capBit == capBit ? &tool : pExpected;
                }
                const tFsTool *pTool = Dev_GetFsTool(kExpected[i].name, capBit);
                EXPECT_EQ(pTool, Dev_GetFsToolByIndex(i, capBit));
                ASSERT_EQ(pExpected != nullptr, pTool != nullptr) << i << " " << capBit;
                if (pExpected != nullptr) {
                    EXPECT_EQ(capBit, pTool->capBit);
                    EXPECT_STREQ(pExpected->path, pTool->path);
                    EXPECT_STREQ(pExpected->arg1, pTool->arg1);
                    EXPECT_STREQ(pExpected->arg2, pTool->arg2);
                }
            }
        }
        EXPECT_EQ(nullptr, Dev_GetFsTool("ntfs", DEV_FS_CAP_MAKE));
        EXPECT_EQ(nullptr, Dev_GetFsTool(nullptr, DEV_FS_CAP_MAKE));
        EXPECT_EQ(nullptr, Dev_GetFsToolByIndex(DEV_FS_DETECT, DEV_FS_CAP_MAKE));
        EXPECT_EQ(nullptr, Dev_GetFsToolByIndex(0xFFFFFFFF, DEV_FS_CAP_MAKE));
    });
}

TEST(GetFsTool, ReturnsNullWithoutTheCapability) {
    WithKernel("\txfs\n", 0755, [] {
        ASSERT_EQ(0, unlink("/sbin/xfs_db"));
        CaptureLog(Dev_InitFsArray);
        EXPECT_NE(nullptr, Dev_GetFsTool("xfs", DEV_FS_CAP_MAKE));
        EXPECT_EQ(nullptr, Dev_GetFsTool("xfs", DEV_FS_CAP_LABEL));
        EXPECT_NE(nullptr, Dev_GetFsTool("xfs", DEV_FS_CAP_CHECK));
        EXPECT_EQ(nullptr, Dev_GetFsTool("ext4", DEV_FS_CAP_MAKE));
    });
}

TEST(InitFsArray, AgreesWithThisKernel) {
    if (access("/proc/filesystems", W_OK) != 0) {
        GTEST_SKIP() << "only root may open the list for writing, as the look-up does";
    }
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        const std::string list = ReadFile("/proc/filesystems");
        CaptureLog(Dev_InitFsArray);
        for (uint32_t i = 0; i < DEV_FS_COUNT; ++i) {
            const bool known =
                list.find(std::string{"\t"} + kExpected[i].name) != std::string::npos;
            EXPECT_EQ(known, talvek::FsCaps(i) != 0) << kExpected[i].name;
        }
    });
}

}  // namespace
