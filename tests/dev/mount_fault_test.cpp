// Every call of the C library fails in turn while file systems are looked up and mounted: no crash
// and no leak.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "dev/file_system.h"
#include "dev/mount.h"
#include "dev/mount_table.h"
#include "fault_disks.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

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
            // Each run has its own namespace, which also holds a mount that a failed unmount
            // leaves.
            EveryCallFails(ENOMEM, [] {
                ASSERT_EQ(0, unshare(CLONE_NEWNS));
                if (Dev_Mount("/dev/sda1", "/mnt", DEV_FS_DETECT) == 0) {
                    Dev_uMount("/mnt");
                }
            });
            EveryCallFails(ENOMEM, [] {
                ASSERT_EQ(0, unshare(CLONE_NEWNS));
                if (Dev_Mount("ram1", "/mnt", DEV_FS_TMPFS) == 0) {
                    Dev_uMount_Force("/mnt");
                }
            });
            EveryCallFails(ENOMEM, [] { Dev_Mount("s:/x", "/none", DEV_FS_NFS); });
        });
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
        // More than one block, so that the end of a block cuts a line.
        std::string list = "major minor  #blocks  name\n\n";
        for (int i = 0; i < 1000; ++i) {
            list += " 259 " + std::to_string(i) + " 1024 disk" + std::to_string(i) + "\n";
        }
        WriteFile("/run/partitions", list);
        EXPECT_EQ(Lines{"DEV:Dev_CheckPartition(): lseek(/proc/partitions) error : Illegal seek"},
                  CaptureLog([] {
                      const Fault fault{"lseek", 0, ESPIPE};
                      EXPECT_EQ(-1, Dev_CheckPartition("disk999"));
                  }));
    });
}

TEST(MountExportFault, LogsThatThereIsNoMemory) {
    const std::string format =
        R"(DEV:Dev_Mount\(\): malloc\([1-9][0-9]+\) error : Cannot allocate memory)";
    const Lines lines = CaptureLog([&] {
        const Fault fault{nullptr, 0, ENOMEM};  // its first call
        EXPECT_EQ(-1, Dev_Mount("s:/x", "/m", DEV_FS_NFS));
    });
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex{format})) << lines[0];
}

TEST(MountExportFault, ReturnsTheFailureOfSystem) {
    Capture([] {
        const Fault fault{"system", 0, EAGAIN};
        EXPECT_EQ(-1, Dev_Mount("s:/x", "/m", DEV_FS_NFS));
    });
}

}  // namespace
