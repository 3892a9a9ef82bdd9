#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/file_copy.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

TEST(CopyFileFault, CopiesWhatTheKernelCannot) {
    const TempDir dir;
    const std::string text(200000, 'x');
    WriteFile(dir / "src", text);
    for (const int error : {EXDEV, EINVAL, ENOSYS, EOPNOTSUPP, EINTR}) {
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      const Fault fault{"copy_file_range", 0, error};
                      EXPECT_EQ(0, COM_CopyFile((dir / "dst").c_str(), (dir / "src").c_str()));
                      EXPECT_TRUE(Fault::Tripped());
                  }));
        EXPECT_TRUE(text == ReadFile(dir / "dst")) << strerror(error);
    }
}

TEST(CopyFileFault, ReportsThatThereIsNoMemory) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    bool failed = false;
    for (const char *call : {"malloc", "realloc"}) {  // an optimised build turns one into the other
        const Lines log = CaptureLog([&] {
            const Fault fault{call, 0, ENOMEM};
            const int result = COM_CopyFile((dir / "dst").c_str(), (dir / "src").c_str());
            failed = failed || Fault::Tripped();
            EXPECT_EQ(Fault::Tripped() ? -1 : 0, result);
        });
        if (!log.empty()) {
            EXPECT_EQ(Lines{"COMMON:COM_CopyFile(): malloc(65536) error : Cannot allocate memory"},
                      log);
        }
    }
    EXPECT_TRUE(failed);
}

TEST(CopyFileFault, DoesNotLogAFailedRead) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  const Fault fault{"read", 0, EIO};
                  EXPECT_EQ(-1, COM_CopyFile((dir / "dst").c_str(), (dir / "src").c_str()));
              }));
}

// NFS and disk quotas can report as late as that that there was no room.
TEST(CopyFileFault, ReportsADestinationThatCannotBeClosed) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    for (const int error : {EIO, ENOSPC, EDQUOT}) {
        const std::string text = "COMMON:COM_CopyFile(): close(" + dir / "dst" + ") failed : ";
        EXPECT_EQ(Lines{text + strerror(error)}, CaptureLog([&] {
                      const Fault fault{"close", 0, error};
                      EXPECT_EQ(-1, COM_CopyFile((dir / "dst").c_str(), (dir / "src").c_str()));
                  }));
    }
}

TEST(CopyAndLinkFault, KeepsTheFileWhoseCopyCannotBeClosed) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    CaptureLog([&] {
        const Fault fault{"close", 0, EIO};
        EXPECT_EQ(-1, COM_CopyAndLink((dir / "target").c_str(), (dir / "file").c_str()));
        EXPECT_TRUE(Fault::Tripped());
    });
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(dir / "file")));
    EXPECT_EQ("x", ReadFile(dir / "file"));
    EXPECT_FALSE(std::filesystem::exists(dir / "target"));
}

TEST(AppendFileToFileFault, ReportsThatThereIsNoMemory) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    EXPECT_EQ(Lines{"COMMON:COM_AppendFileToFile(): CALLOC(1, 4096) error:Cannot allocate memory"},
              CaptureLog([&] {
                  const Fault fault{"calloc", 0, ENOMEM};
                  EXPECT_EQ(-1, COM_AppendFileToFile((dir / "dst").c_str(), (dir / "src").c_str()));
              }));
}

TEST(AppendFileToFileFault, TakesAReadErrorAsTheEnd) {
    const TempDir dir;
    WriteFile(dir / "src", std::string(5000, 'x'));
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  const Fault fault{"read", 1, EIO};
                  EXPECT_EQ(4096,
                            COM_AppendFileToFile((dir / "dst").c_str(), (dir / "src").c_str()));
              }));
}

}  // namespace
