#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

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

TEST(CopyFileFault, EveryCallFails) {
    const TempDir dir;
    WriteFile(dir / "src", std::string(70000, 'x'));
    const std::string src = dir / "src";
    const std::string dst = dir / "a/dst";
    EXPECT_LT(8, EveryCallFails(EIO, [&] {
                  const int result = COM_CopyFile(dst.c_str(), src.c_str());
                  if (result == 0) {
                      EXPECT_EQ(70000U, ReadFile(dst).size());
                  } else {
                      EXPECT_EQ(-1, result);
                      EXPECT_TRUE(Fault::Tripped());
                  }
              }));
}

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

TEST(CopyAndLinkFault, EveryCallFails) {
    const TempDir dir;
    const std::string link = dir / "link";
    const std::string target = dir / "a/target";
    EXPECT_LT(8, EveryCallFails(EACCES, [&] {
                  std::filesystem::remove_all(dir / "a");
                  std::filesystem::remove(link);
                  WriteFile(link, "content");
                  const int result = COM_CopyAndLink(target.c_str(), link.c_str());
                  EXPECT_TRUE(result == 0 || Fault::Tripped());
                  EXPECT_TRUE(result == 0 || result == -1) << result;
                  EXPECT_TRUE(ReadFile(link) == "content" || ReadFile(target) == "content")
                      << "the content is lost";
              }));
}

TEST(AppendFileToFileFault, EveryCallFails) {
    const TempDir dir;
    const std::string src = dir / "src";
    const std::string dst = dir / "dst";
    WriteFile(src, std::string(5000, 'x'));
    EXPECT_LT(6, EveryCallFails(EIO, [&] {
                  unlink(dst.c_str());
                  const int result = COM_AppendFileToFile(dst.c_str(), src.c_str());
                  EXPECT_TRUE(result == -1 || result == 4096 || result == 5000) << result;
              }));
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
