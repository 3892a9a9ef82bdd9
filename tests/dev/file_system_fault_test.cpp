#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <string>

#include "dev/file_system.h"
#include "dev/internal/fs_table.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// The first line, which is read, has a file system of the table.
TEST(InitFsArrayFault, DisablesAllRowsWhenTheListIsReadInPart) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/filesystems", "\txfs\n\text4\n");
        MountTmpfs("/var");
        CaptureLog(Dev_InitFsArray);
        ASSERT_NE(0u, talvek::FsCaps(DEV_FS_XFS));
        const std::string log = CaptureUnderFault([] {
            const Fault fault{"fgets", 1, EIO};
            Dev_InitFsArray();
            EXPECT_TRUE(Fault::Tripped());
        });
        for (uint32_t i = 0; i < DEV_FS_COUNT; ++i) {
            EXPECT_EQ(0u, talvek::FsCaps(i)) << talvek::FsRow(i).name;
        }
        EXPECT_EQ(std::string::npos, log.find("Enable")) << log;
    });
}

}  // namespace
