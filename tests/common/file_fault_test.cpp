#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/file.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace talvek::test;

TEST(MkdirFault, MakesThePathOrLogsTheFailure) {
    const TempDir dir;
    fs::create_directory(dir / "there");
    const std::string path = dir / "there/a/b/";
    EXPECT_LT(0, EveryCallFails(EIO, [&] {
                  fs::remove_all(dir / "there/a");
                  int result = 0;
                  const std::string output =
                      CaptureUnderFault([&] { result = COM_Mkdir(path.c_str(), 0755); });
                  if (Fault::Which() == "mkdir" || Fault::Which() == "stat") {
                      EXPECT_EQ(-1, result);
                      EXPECT_NE(std::string::npos, output.find(":COM_Mkdir(): mkdir(/"));
                  } else {
                      EXPECT_EQ(0, result);
                      EXPECT_TRUE(fs::is_directory(path));
                      EXPECT_EQ("", output);
                  }
              }));
}

TEST(RemoveFileInDirFault, GoesOnAndMarksAFailure) {
    struct Case {
        const char *call;
        const char *logged;
        bool fails;
    };
    constexpr Case kCases[] = {
        {"malloc", "opendir", false}, {"realloc", "opendir", false},
        {"calloc", "opendir", false}, {"openat", "opendir", false},
        {"fstat", "opendir", false},  {"fdopendir", "opendir", false},
        {"fstatat", "stat", true},    {"readdir", "readdir", true},
        {"unlinkat", "unlink", true}, {"unlinkat", "rmdir", false},
    };
    RunInPrivateWorld(kMounts, [&kCases] {
        MountTmpfs("/var");
        EXPECT_LT(0, EveryCallFails(EIO, [&kCases] {
                      WriteFile("/var/top/f1", "1");
                      WriteFile("/var/top/sub/f2", "2");
                      int result = 0;
                      const std::string output = CaptureUnderFault(
                          [&] { result = COM_RemoveFileInDir(COM_REMOVE_TREE, "/var/top"); });
                      const std::string which = Fault::Which();
                      bool known = output.empty();
                      for (const std::string &line : LogLines(output)) {
                          for (const Case &c : kCases) {
                              const std::string begin = std::string{c.logged} + "(/var/top";
                              if (which == c.call && line.find(begin) != line.npos &&
                                  line.find("Input/output error") != line.npos) {
                                  EXPECT_EQ(c.fails, result == -1) << which;
                                  known = true;
                              }
                          }
                      }
                      EXPECT_TRUE(known) << which << ": " << output;
                      EXPECT_LE(-1, result);
                  }));
    });
}

TEST(RemoveRealFileFault, TakesThePathItselfWhenTheLinkCannotBeRead) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    fs::create_symlink(dir / "file", dir / "link");
    const std::string link = dir / "link";
    EXPECT_EQ(
        (Lines{"COMMON:COM_RemoveRealFile(): realpath(" + link + ") failed : Input/output error"}),
        CaptureLog([&] {
            const Fault fault{"readlink", 0, EIO};
            EXPECT_EQ(0, COM_RemoveRealFile(link.c_str()));
        }));
    EXPECT_TRUE(fs::exists(dir / "file"));
    EXPECT_FALSE(fs::is_symlink(link));
}

TEST(RemoveRealFileFault, ReportsEachFailure) {
    const TempDir dir;
    EXPECT_LT(0, EveryCallFails(EIO, [&] {
                  WriteFile(dir / "file", "x");
                  const int result = COM_RemoveRealFile((dir / "file").c_str());
                  const std::string which = Fault::Which();
                  EXPECT_EQ(which == "stat" || which == "unlink" ? -1 : 0, result) << which;
                  EXPECT_EQ(result != 0, fs::exists(dir / "file")) << which;
              }));
}

TEST(CreateSymbolLinkFault, ReportsEachFailure) {
    const TempDir dir;
    WriteFile(dir / "target", "x");
    EXPECT_LT(0, EveryCallFails(EIO, [&] {
                  fs::remove(dir / "link");
                  const int result = COM_CreateSymbolLink(
                      COM_LINK_REPLACE, (dir / "target").c_str(), (dir / "link").c_str());
                  EXPECT_EQ(Fault::Which() == "symlink" ? -1 : 0, result);
                  EXPECT_EQ(result == 0, fs::is_symlink(dir / "link"));
              }));
}

TEST(GetFdInfoFault, ReportsEachFailure) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    EXPECT_LT(0, EveryCallFails(EIO, [&] {
                  int fd = open((dir / "file").c_str(), O_RDONLY | O_CLOEXEC);
                  if (fd >= 0) {
                      char path[COM_FD_PATH_SIZE] = "unchanged";
                      const int result = COM_GetFdInfo(fd, path, 1);
                      const std::string which = Fault::Which();
                      EXPECT_EQ(which == "readlink" || which == "stat" ? -1 : 0, result) << which;
                      EXPECT_EQ(result == 0 ? dir / "file" : "unchanged", path);
                  }
                  COM_CloseFd(&fd);
              }));
}

TEST(RenameFileFault, NeverLosesTheText) {
    const TempDir dir;
    const std::string text(2000, 't');
    EXPECT_LT(0, EveryCallFails(EIO, [&] {
                  WriteFile(dir / "from", text);
                  fs::remove(dir / "to");
                  const int result = COM_RenameFile((dir / "from").c_str(), (dir / "to").c_str());
                  const std::string which = Fault::Which();
                  EXPECT_EQ(text, ReadFile(dir / (result == 0 ? "to" : "from"))) << which;
                  if (which == "open" || which == "read" || which == "write") {
                      EXPECT_EQ(-1, result) << which;
                  }
                  if (which == "unlink") {
                      EXPECT_EQ(0, result);
                  }
              }));
}

TEST(RenameFileFault, GoesOnAfterAnInterruption) {
    const TempDir dir;
    for (const char *call : {"read", "write"}) {
        WriteFile(dir / "from", "text");
        const Fault fault{call, 0, EINTR};
        EXPECT_EQ(0, COM_RenameFile((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_TRUE(Fault::Tripped());
        EXPECT_EQ("text", ReadFile(dir / "to"));
    }
}

TEST(RenameFileFault, NamesTheCallThatFailed) {
    const TempDir dir;
    WriteFile(dir / "from", "text");
    const std::string from = dir / "from";
    const std::string to = dir / "to";
    const auto log = [&](const char *pCall) {
        return LogLines(Capture([&] {
            const Fault fault{pCall, 0, EIO};
            EXPECT_EQ(-1, COM_RenameFile(from.c_str(), to.c_str()));
        }));
    };
    EXPECT_EQ(Lines{"COMMON:COM_RenameFile(): read() failed : Input/output error"}, log("read"));
    EXPECT_EQ(Lines{"COMMON:COM_RenameFile(): write() failed : Input/output error"}, log("write"));
    EXPECT_EQ(Lines{"COMMON:COM_RenameFile(): close(" + to + ") failed : Input/output error"},
              log("close"));
}

tFileItem Item(const char *pKey, const char *pLine) {
    tFileItem item = {};
    item.key_len = static_cast<int32_t>(strlen(pKey));
    strncpy(item.key, pKey, sizeof item.key - 1);
    strncpy(item.line, pLine, sizeof item.line - 1);
    return item;
}

TEST(ReplaceItemsInFileFault, LeavesTheFileWholeOrEmpty) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        EXPECT_LT(
            5, EveryCallFails(EIO, [] {
                WriteFile("/var/file", "a=1\nlong line that goes\nb=2\n");
                tFileItem items[] = {Item("a=", "a=one"), Item("long", ""), Item("c=", "c=3")};
                tFileItemRequest request = {3, 0, 0, 1, items};
                int result = 0;
                const std::string output = CaptureUnderFault(
                    [&] { result = COM_ReplaceItemsInFile("/var/file", &request); });
                const std::string which = Fault::Which();
                const std::string expected = "a=one\nb=2\nc=3\n";
                if (result < 0) {
                    EXPECT_EQ("", ReadFile("/var/file")) << which;
                    EXPECT_NE("", output) << "a failure is logged: " << which;
                } else {
                    EXPECT_EQ(3, result) << which;
                    EXPECT_EQ(expected, ReadFile("/var/file").substr(0, expected.size())) << which;
                }
                if (which == "truncate") {
                    EXPECT_EQ((Lines{"COMMON: truncate(/var/file) error : Input/output "
                                     "error"}),
                              LogLines(output));
                } else if (which == "unlink") {
                    EXPECT_EQ(0U, LogLines(output)[0].find(
                                      "COMMON:COM_ReplaceItemsInFile(): unlink(/var/COM_"));
                    const std::string line = LogLines(output).at(0);
                    EXPECT_TRUE(fs::remove(
                        line.substr(line.find("/var/COM_"), sizeof "/var/COM_XXXXXX" - 1)));
                } else {
                    EXPECT_EQ(1, std::distance(fs::directory_iterator("/var"), {}))
                        << "no copy is left: " << which;
                }
            }));
    });
}

TEST(ReplaceItemsInFileFault, NamesTheCallThatFailed) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        const auto log = [](const char *pCall, int nth) {
            WriteFile("/var/file", "a=1\n");
            tFileItem items[] = {Item("a=", "a=2")};
            tFileItemRequest request = {1, 0, 0, 0, items};
            std::string output = Capture([&] {
                const Fault fault{pCall, nth, EIO};
                EXPECT_EQ(-1, COM_ReplaceItemsInFile("/var/file", &request));
            });
            // The copy's name ends in six random characters.
            const size_t at = output.find("/var/COM_");
            if (at != std::string::npos) {
                output.replace(at + 9, 6, "XXXXXX");
            }
            return LogLines(output);
        };
        const std::string entry = "COMMON:COM_ReplaceItemsInFile(): ";
        EXPECT_EQ(Lines{entry + "mkstemp() failed : Input/output error"}, log("mkostemp", 0));
        EXPECT_EQ(Lines{entry + "fopen(/var/COM_XXXXXX) failed : Input/output error"},
                  log("fdopen", 0));
        EXPECT_EQ(Lines{entry + "fopen(/var/file) failed : Input/output error"}, log("fopen", 0));
        EXPECT_EQ(Lines{entry + "fprintf() fail : /var/COM_XXXXXX : Input/output error"},
                  log("fputs", 0));
        EXPECT_EQ(Lines{entry + "fprintf() fail : /var/COM_XXXXXX : Input/output error"},
                  log("fflush", 0));
        EXPECT_EQ(Lines{entry + "fprintf() fail : /var/file : Input/output error"},
                  log("fwrite", 0));
        EXPECT_EQ(Lines{entry + "fseek(/var/COM_XXXXXX) failed : Input/output error"},
                  log("fseeko", 0));
        EXPECT_EQ(Lines{entry + "fseek(/var/file) failed : Input/output error"}, log("fseeko", 1));
        EXPECT_EQ("", ReadFile("/var/file"));
        EXPECT_EQ(Lines{entry + "fprintf() fail : /var/file : Input/output error"},
                  log("fflush", 1));
    });
}

TEST(ReallocAndCopyBufFault, LeavesTheBlockUnchanged) {
    void *block = malloc(4);
    memcpy(block, "abc", 4);
    void *const before = block;
    EXPECT_EQ((Lines{"COMMON:COM_ReallocAndCopyBuf(): REALLOC(1000) failed : Cannot allocate "
                     "memory"}),
              CaptureLog([&] {
                  const Fault fault{"realloc", 0, ENOMEM};
                  EXPECT_EQ(nullptr, COM_ReallocAndCopyBuf(1000, &block, 3, "def", 4));
              }));
    EXPECT_EQ(before, block);
    EXPECT_STREQ("abc", static_cast<char *>(block));
    free(block);
}

TEST(CloseFdFault, ReturnsTheFailureAndForgetsTheDescriptor) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const Fault fault{"close", 0, EIO};
    EXPECT_EQ(-1, COM_CloseFd(&fd));
    EXPECT_EQ(-1, fd);
}

}  // namespace
