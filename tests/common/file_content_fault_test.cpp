#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/file_content.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

TEST(GetFileContentFault, EveryCallFails) {
    const TempDir dir;
    WriteFile(dir / "file", std::string(600, 'x'));
    const std::string path = dir / "file";
    EXPECT_LT(5, EveryCallFails(EIO, [&] {
                  char buf[1024] = "";
                  const int result = COM_GetFileContent(path.c_str(), buf, sizeof buf);
                  if (result == 0) {
                      EXPECT_EQ(0U, std::string(600, 'x').find(buf));
                      EXPECT_LE(255U, strlen(buf));
                  } else {
                      EXPECT_EQ(-1, result);
                      EXPECT_STREQ("unknown", buf);
                  }
              }));
}

TEST(GetFileContentFault, EndsTheFileAtAReadErrorAfterTheFirstBlock) {
    const TempDir dir;
    WriteFile(dir / "file", std::string(600, 'x'));
    char buf[1024] = "";
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  const Fault fault{"read", 2, EIO};
                  EXPECT_EQ(0, COM_GetFileContent((dir / "file").c_str(), buf, sizeof buf));
              }));
    EXPECT_EQ(std::string(510, 'x'), buf);
}

TEST(FileContentFault, EveryCallOfTheWritersFails) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(13, EveryCallFails(ENOSPC, [&] {
                  const int set = COM_SetFileContent(path.c_str(), "text");
                  const int append = COM_AppendFileContent(path.c_str(), "text");
                  const int save = COM_SaveDataIntoFile(path.c_str(), "text", 4);
                  const int ring =
                      COM_SaveRingBufDataIntoFile(path.c_str(), "0123456789", 7, 10, 6);
                  EXPECT_TRUE(set == 0 || set == -1) << set;
                  EXPECT_TRUE(append == 0 || append == -1) << append;
                  EXPECT_TRUE(save == 0 || save == -1) << save;
                  EXPECT_TRUE(ring == 0 || ring == 1 || ring == -1) << ring;
                  // 0 and 1 state how much of the ring was saved, unless the open failed.
                  const std::string left = ReadFile(path);
                  EXPECT_TRUE(ring != 0 || left == "789012") << left;
                  EXPECT_TRUE(ring != 1 || left == "789") << left;
              }));
}

TEST(FileContentFault, EveryCallOfTheReadersFails) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        WriteFile("/etc/SVN", "Revision: 123\n");
        WriteFile("/etc/Port", "8080\n");
        EXPECT_LT(8, EveryCallFails(EIO, [] {
                      char buf[247] = "old";
                      const int load = COM_LoadDataFromFile("/etc/SVN", buf, 3);
                      EXPECT_TRUE((load == 0 && strcmp(buf, "Rev") == 0) ||
                                  (load == -1 && strcmp(buf, "old") == 0));
                      const int svn = COM_GetSvnRevision(buf);
                      EXPECT_TRUE(svn == -1 || strcmp(buf, "0123") == 0);
                      char port[8] = "";
                      const int got = COM_GetPort(port, sizeof port);
                      EXPECT_STREQ(got == 0 ? "8080" : "80", port);
                  }));
    });
}

TEST(SetUnitInfoFault, EveryCallFails) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        const tUnitInfo info = {"R-100", "harbour", "unit-5", "deck 3"};
        EXPECT_LT(12, EveryCallFails(EROFS, [&] {
                      const int sum = COM_SetUnitInfo(&info);
                      EXPECT_TRUE(sum == 0 || sum == -1) << sum;
                  }));
    });
}

TEST(MakeNodeFault, EveryCallFails) {
    const TempDir dir;
    const std::string path = dir / "fifo";
    EXPECT_EQ(2, EveryCallFails(EACCES, [&] {
                  std::filesystem::remove(path);
                  const int result = COM_MakeNode(path.c_str(), S_IFIFO | 0600, 0);
                  EXPECT_EQ(Fault::Tripped() ? -1 : 0, result);
              }));
}

TEST(MakeNodeFault, LogsAStatThatFails) {
    EXPECT_EQ(Lines{"COMMON:COM_MakeNode(): stat(/etc) fail : Permission denied"}, CaptureLog([] {
                  const Fault fault{"stat", 0, EACCES};
                  EXPECT_EQ(-1, COM_MakeNode("/etc", S_IFIFO | 0600, 0));
              }));
}

}  // namespace
