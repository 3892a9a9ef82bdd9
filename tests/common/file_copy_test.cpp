#include "common/file_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/capture.h"
#include "support/child_process.h"
#include "support/file_size_limit.h"
#include "support/opened.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

std::string LinkText(const std::string &path) {
    std::error_code error;
    return std::filesystem::read_symlink(path, error).string();
}

// Bytes of every value, different in each block.
std::string Bytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    }
    return bytes;
}

int Copy(const std::string &dst, const std::string &src) {
    return COM_CopyFile(dst.c_str(), src.c_str());
}

int CopyAndLink(const std::string &target, const std::string &link) {
    return COM_CopyAndLink(target.c_str(), link.c_str());
}

int Append(const std::string &dst, const std::string &src) {
    return COM_AppendFileToFile(dst.c_str(), src.c_str());
}

TEST(CopyFile, CopiesEverySizeAroundTheBlock) {
    const TempDir dir;
    for (const size_t size : {0, 1, 65535, 65536, 65537, 131072, 1000000}) {
        WriteFile(dir / "src", Bytes(size));
        EXPECT_EQ(0, Copy(dir / "dst", dir / "src"));
        EXPECT_TRUE(Bytes(size) == ReadFile(dir / "dst")) << size;
    }
}

TEST(CopyFile, CopiesAFileOfTheKernelWithoutASize) {
    const TempDir dir;
    EXPECT_EQ(0, Copy(dir / "dst", "/proc/version"));
    EXPECT_EQ(ReadFile("/proc/version"), ReadFile(dir / "dst"));
}

TEST(CopyFile, ReplacesALongerFile) {
    const TempDir dir;
    WriteFile(dir / "src", "new");
    WriteFile(dir / "dst", "the old content");
    EXPECT_EQ(0, Copy(dir / "dst", dir / "src"));
    EXPECT_EQ("new", ReadFile(dir / "dst"));
}

TEST(CopyFile, OpensWithExactlyItsFlags) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    const mode_t old = umask(0);
    OpenedFiles().clear();
    EXPECT_EQ(0, Copy(dir / "dst", dir / "src"));
    umask(old);
    ASSERT_EQ(2U, OpenedFiles().size());
    EXPECT_EQ(dir / "src", OpenedFiles()[0].path);
    EXPECT_EQ(O_RDONLY | O_NOATIME | O_CLOEXEC, OpenedFiles()[0].flags);
    EXPECT_EQ(dir / "dst", OpenedFiles()[1].path);
    EXPECT_EQ(O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME | O_CLOEXEC, OpenedFiles()[1].flags);
    EXPECT_EQ(mode_t{0664}, OpenedFiles()[1].mode);
    EXPECT_EQ(mode_t{S_IFREG | 0664}, ModeOf(dir / "dst"));
}

TEST(CopyFile, LeavesTheAccessTimeOfTheSource) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    const struct timespec times[2] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (dir / "src").c_str(), times, 0));
    EXPECT_EQ(0, Copy(dir / "dst", dir / "src"));
    struct stat st = {};
    ASSERT_EQ(0, stat((dir / "src").c_str(), &st));
    EXPECT_EQ(1000, st.st_atime);
}

TEST(CopyFile, MakesTheMissingDirectory) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    const mode_t old = umask(0);
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, Copy(dir / "a/b/c/dst", dir / "src")); }));
    umask(old);
    EXPECT_EQ("x", ReadFile(dir / "a/b/c/dst"));
    EXPECT_EQ(mode_t{S_IFDIR | 0755}, ModeOf(dir / "a"));
    EXPECT_EQ(mode_t{S_IFDIR | 0755}, ModeOf(dir / "a/b/c"));
}

TEST(CopyFile, MakesTheMissingDirectoryOfALongFileName) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    for (const size_t length : {126, 127, 128, 129, 255}) {
        const std::string parent = dir / std::to_string(length);
        const std::string path = parent + "/" + std::string(length - parent.size() - 1, 'f');
        ASSERT_EQ(length, path.size());
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, Copy(path, dir / "src")); }));
        EXPECT_EQ("x", ReadFile(path));
    }
}

// The buffer holds 127 characters: the directory, its slash and one more.
TEST(CopyFile, MakesTheMissingDirectoryOfUpTo125Characters) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    for (const size_t length : {124, 125, 126, 127, 128}) {
        const std::string above = dir / std::to_string(length);
        const std::string parent = above + "/" + std::string(length - above.size() - 1, 'd');
        ASSERT_EQ(length, parent.size());
        const std::string path = parent + "/name";
        if (length <= 125) {
            EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, Copy(path, dir / "src")); }));
            EXPECT_EQ("x", ReadFile(path));
        } else {
            EXPECT_EQ(Lines{"COMMON:COM_CopyFile(): open(" + path +
                            ") failed : No such file or directory"},
                      CaptureLog([&] { EXPECT_EQ(-1, Copy(path, dir / "src")); }));
            EXPECT_TRUE(std::filesystem::is_empty(above)) << "no directory of a cut name";
        }
    }
}

TEST(CopyFile, EmptiesTheDestinationWhenTheSourceIsMissing) {
    const TempDir dir;
    WriteFile(dir / "dst", "content");
    EXPECT_EQ(Lines{"COMMON:COM_CopyFile(): open(pSrv : " + dir.path() +
                    "/src) failed : No such file or directory"},
              CaptureLog([&] { EXPECT_EQ(-1, Copy(dir / "dst", dir / "src")); }));
    EXPECT_EQ("", ReadFile(dir / "dst"));
    EXPECT_TRUE(std::filesystem::exists(dir / "dst"));
}

TEST(CopyFile, LogsADestinationThatCannotBeOpened) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    const std::string below = dir / "src/dst";
    EXPECT_EQ((Lines{"COMMON:COM_CopyFile(): open(" + below + ") failed : Not a directory",
                     "COMMON:COM_CopyFile(): open(pSrv : (null)) failed : Bad address",
                     "COMMON:COM_CopyFile(): open((null)) failed : Bad address"}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, Copy(below, dir / "src"));
                  EXPECT_EQ(-1, COM_CopyFile(nullptr, nullptr));
              }));
}

TEST(CopyFile, FailsSilentlyOnASourceThatCannotBeRead) {
    const TempDir dir;
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, Copy(dir / "dst", dir.path())); }));
}

// Only the owner of a file and privileged processes may ask for O_NOATIME.
TEST(CopyFile, NeedsFilesOfItsOwn) {
    RunInPrivateWorld(
        kMounts,
        [] {
            MountTmpfs("/mnt", "mode=777");
            WriteFile("/mnt/src", "x");
            ASSERT_EQ(0, chmod("/mnt/src", 0644));
            WriteFile("/mnt/other", "x");
            ASSERT_EQ(0, chmod("/mnt/other", 0666));
            ASSERT_EQ(0, setuid(65534));
            EXPECT_EQ(Lines{"COMMON:COM_CopyFile(): open(pSrv : /mnt/src) failed : Operation not "
                            "permitted"},
                      CaptureLog([] { EXPECT_EQ(-1, COM_CopyFile("/mnt/dst", "/mnt/src")); }));
            WriteFile("/mnt/mine", "x");
            EXPECT_EQ(Lines{"COMMON:COM_CopyFile(): open(/mnt/other) failed : Operation not "
                            "permitted"},
                      CaptureLog([] { EXPECT_EQ(-1, COM_CopyFile("/mnt/other", "/mnt/mine")); }));
        },
        true);
}

// The error that a copy to /mnt/dst logs; empty for none.
std::string WriteFailure(size_t size) {
    const TempDir dir;
    WriteFile(dir / "src", Bytes(size));
    int result = 0;
    const Lines log = CaptureLog([&] { result = Copy("/mnt/dst", dir / "src"); });
    if (result == 0) {
        EXPECT_EQ(Lines{}, log);
        return "";
    }
    EXPECT_EQ(-1, result);
    std::smatch part;
    const std::regex form{R"(COMMON:COM_CopyFile\(\): write\(/mnt/dst,[0-9]+\) failed : (.*))"};
    return log.size() == 1 && std::regex_match(log[0], part, form) ? part[1].str() : "other log";
}

TEST(CopyFile, ReportsAFullFileSystem) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/mnt", "size=128k");
        EXPECT_EQ("", WriteFailure(131072));
        EXPECT_EQ("No space left on device", WriteFailure(131073));
        // With 4 KiB less, the second block is cut short.
        ASSERT_EQ(0, unlink("/mnt/dst"));
        WriteFile("/mnt/room", Bytes(4096));
        EXPECT_EQ("No space left on device", WriteFailure(131072));
        EXPECT_EQ(131072U - 4096U, ReadFile("/mnt/dst").size());
    });
}

// Inside one file system the kernel copies by itself.
TEST(CopyFile, ReportsAFileSystemThatACopyFills) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/mnt", "size=192k");
        WriteFile("/mnt/src", Bytes(100 * 1024));
        const Lines log = CaptureLog([] { EXPECT_EQ(-1, Copy("/mnt/dst", "/mnt/src")); });
        ASSERT_EQ(1U, log.size());
        EXPECT_TRUE(std::regex_match(
            log[0], std::regex{R"(COMMON:COM_CopyFile\(\): write\(/mnt/dst,[0-9]+\) failed : )"
                               "No space left on device"}))
            << log[0];
        EXPECT_TRUE(Bytes(92 * 1024) == ReadFile("/mnt/dst")) << "what was written stays";
    });
}

TEST(CopyFile, ReportsAFileSizeLimitAsAFailedWrite) {
    const TempDir dir;
    WriteFile(dir / "src", "12345678");
    EXPECT_TRUE(UnderFileSizeLimit(
        5, [&] { return COM_CopyFile((dir / "dst").c_str(), (dir / "src").c_str()) == -1; }));
    EXPECT_EQ("12345", ReadFile(dir / "dst"));
}

TEST(CopyFile, ReportsAReadOnlyFileSystem) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/mnt");
        RemountReadOnly("/mnt");
        EXPECT_EQ((Lines{"COMMON:COM_CopyFile(): open(/mnt/dst) failed : Read-only file system",
                         "COMMON:COM_AppendFileToFile(): open(/mnt/dst) error:Read-only file "
                         "system"}),
                  CaptureLog([] {
                      EXPECT_EQ(-1, COM_CopyFile("/mnt/dst", "/proc/version"));
                      EXPECT_EQ(-1, COM_AppendFileToFile("/mnt/dst", "/proc/version"));
                  }));
    });
}

TEST(CopyAndLink, MovesAFileAndLeavesALink) {
    const TempDir dir;
    WriteFile(dir / "etc/settings", "content");
    EXPECT_EQ(0, CopyAndLink(dir / "flash/etc/settings", dir / "etc/settings"));
    EXPECT_EQ("content", ReadFile(dir / "flash/etc/settings"));
    EXPECT_EQ(dir / "flash/etc/settings", LinkText(dir / "etc/settings"));
    EXPECT_EQ("content", ReadFile(dir / "etc/settings"));
}

TEST(CopyAndLink, KeepsATargetThatExists) {
    const TempDir dir;
    WriteFile(dir / "link", "default");
    WriteFile(dir / "target", "setting");
    EXPECT_EQ(0, CopyAndLink(dir / "target", dir / "link"));
    EXPECT_EQ("setting", ReadFile(dir / "target"));
    EXPECT_EQ(dir / "target", LinkText(dir / "link"));
    // A second call finds link and target in place.
    EXPECT_EQ(0, CopyAndLink(dir / "target", dir / "link"));
    EXPECT_EQ("setting", ReadFile(dir / "link"));
}

TEST(CopyAndLink, MakesALinkWhereThereWasNothing) {
    const TempDir dir;
    EXPECT_EQ(0, CopyAndLink(dir / "target", dir / "a/b/link"));
    EXPECT_EQ(dir / "target", LinkText(dir / "a/b/link"));
    EXPECT_FALSE(std::filesystem::exists(dir / "target")) << "the link dangles";
    // A dangling link counts as none.
    EXPECT_EQ(0, CopyAndLink(dir / "other", dir / "a/b/link"));
    EXPECT_EQ(dir / "other", LinkText(dir / "a/b/link"));
}

TEST(CopyAndLink, CopiesTheFileThatALinkNames) {
    const TempDir dir;
    WriteFile(dir / "file", "content");
    ASSERT_EQ(0, symlink((dir / "file").c_str(), (dir / "link").c_str()));
    EXPECT_EQ(0, CopyAndLink(dir / "target", dir / "link"));
    EXPECT_EQ("content", ReadFile(dir / "target"));
    EXPECT_EQ("content", ReadFile(dir / "file"));
    EXPECT_EQ(dir / "target", LinkText(dir / "link"));
}

TEST(CopyAndLink, TakesRegularFilesOnly) {
    const TempDir dir;
    ASSERT_EQ(0, mkdir((dir / "link").c_str(), 0755));
    EXPECT_EQ(-1, CopyAndLink(dir / "a/target", dir / "link"));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "link"));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "a")) << "made before the type is examined";
    EXPECT_FALSE(std::filesystem::exists(dir / "a/target"));
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
    EXPECT_EQ(-1, CopyAndLink(dir / "target", dir / "fifo"));
    EXPECT_FALSE(std::filesystem::exists(dir / "target"));
}

TEST(CopyAndLink, FailsOnPathsThatCannotBeExamined) {
    const TempDir dir;
    WriteFile(dir / "file", "content");
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(-1, CopyAndLink(dir / "target", dir / "file/link"));
                  EXPECT_EQ(-1, CopyAndLink(dir / "file/target", dir / "file"));
                  EXPECT_EQ(-1, COM_CopyAndLink((dir / "target").c_str(), nullptr));
                  EXPECT_EQ(-1, COM_CopyAndLink(nullptr, (dir / "file").c_str()));
              }));
    EXPECT_EQ("content", ReadFile(dir / "file"));
    const std::string none = dir / "none";
    EXPECT_EQ(
        Lines{"COMMON:COM_CreateSymbolLink(): symlink((null), " + none + ") fail : Bad address"},
        CaptureLog([&] { EXPECT_EQ(-1, COM_CopyAndLink(nullptr, none.c_str())); }));
}

TEST(CopyAndLink, KeepsTheFileWhenTheCopyFails) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/mnt");
        const std::string content = Bytes(8192);
        WriteFile("/mnt/src", content);
        ASSERT_EQ(0, mkdir("/mnt/small", 0755));
        MountTmpfs("/mnt/small", "size=4k");
        // Twice: a part that the first call left would be the whole target of the second.
        for (int call = 0; call < 2; ++call) {
            CaptureLog([] { EXPECT_EQ(-1, COM_CopyAndLink("/mnt/small/target", "/mnt/src")); });
            EXPECT_TRUE(content == ReadFile("/mnt/src"));
            EXPECT_EQ("", LinkText("/mnt/src"));
            EXPECT_FALSE(std::filesystem::exists("/mnt/small/target"));
        }
    });
}

// A program that runs cannot be opened for writing.
TEST(CopyAndLink, RemovesNothingThatItHasNotMade) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    std::filesystem::copy_file("/bin/sleep", dir / "kept");
    const ChildProcess sleeper{(dir / "kept").c_str(), Sleeper("kept")};
    const std::string target = dir / "missing/../kept";
    EXPECT_EQ(
        Lines{"COMMON:COM_CopyFile(): open(" + target + ") failed : Text file busy"},
        CaptureLog([&] { EXPECT_EQ(-1, COM_CopyAndLink(target.c_str(), (dir / "src").c_str())); }));
    EXPECT_TRUE(std::filesystem::exists(dir / "kept"));
    // A link to a file that cannot be made.
    ASSERT_EQ(0, symlink("/proc/none", (dir / "nothing").c_str()));
    CaptureLog([&] { EXPECT_EQ(-1, CopyAndLink(dir / "nothing", dir / "src")); });
    EXPECT_EQ("/proc/none", LinkText(dir / "nothing"));
    EXPECT_EQ("x", ReadFile(dir / "src"));
}

TEST(AppendFileToFile, AppendsEverySizeAroundTheBlock) {
    const TempDir dir;
    for (const size_t size : {1, 4095, 4096, 4097, 8192, 100000}) {
        WriteFile(dir / "src", Bytes(size));
        WriteFile(dir / "dst", "head");
        EXPECT_EQ(static_cast<int>(size), Append(dir / "dst", dir / "src"));
        EXPECT_TRUE("head" + Bytes(size) == ReadFile(dir / "dst")) << size;
    }
}

TEST(AppendFileToFile, FailsOnAnEmptySource) {
    const TempDir dir;
    WriteFile(dir / "src", "");
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, Append(dir / "dst", dir / "src")); }));
    EXPECT_TRUE(std::filesystem::exists(dir / "dst"));
    EXPECT_EQ(-1, Append(dir / "dst", dir.path())) << "a directory cannot be read";
}

TEST(AppendFileToFile, OpensWithExactlyItsFlags) {
    const TempDir dir;
    WriteFile(dir / "src", "x");
    const mode_t old = umask(0);
    OpenedFiles().clear();
    EXPECT_EQ(1, Append(dir / "dst", dir / "src"));
    umask(old);
    ASSERT_EQ(2U, OpenedFiles().size());
    EXPECT_EQ(dir / "dst", OpenedFiles()[0].path);
    EXPECT_EQ(O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, OpenedFiles()[0].flags);
    EXPECT_EQ(mode_t{0777}, OpenedFiles()[0].mode);
    EXPECT_EQ(dir / "src", OpenedFiles()[1].path);
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, OpenedFiles()[1].flags);
    EXPECT_EQ(mode_t{S_IFREG | 0777}, ModeOf(dir / "dst"));
}

TEST(AppendFileToFile, LogsWhatCannotBeOpened) {
    const TempDir dir;
    const std::string none = dir / "none/file";
    const std::string src = dir / "src";
    EXPECT_EQ(
        (Lines{"COMMON:COM_AppendFileToFile(): open(" + none + ") error:No such file or directory",
               "COMMON:COM_AppendFileToFile(): open(" + src + ") error:No such file or directory"}),
        CaptureLog([&] {
            EXPECT_EQ(-1, Append(none, src));
            EXPECT_EQ(-1, Append(dir / "dst", src));
            EXPECT_EQ(-1, COM_AppendFileToFile(nullptr, src.c_str()));
            EXPECT_EQ(-1, COM_AppendFileToFile(src.c_str(), nullptr));
        }));
    EXPECT_FALSE(std::filesystem::exists(src));
}

TEST(AppendFileToFile, DoublesAFileThatIsItsOwnSource) {
    const TempDir dir;
    WriteFile(dir / "file", Bytes(5000));
    ASSERT_EQ(0, link((dir / "file").c_str(), (dir / "name").c_str()));
    EXPECT_EQ(5000, Append(dir / "file", dir / "name"));
    EXPECT_TRUE(Bytes(5000) + Bytes(5000) == ReadFile(dir / "file"));
}

TEST(AppendFileToFile, ReportsAFileSizeLimitAsAFailedWrite) {
    const TempDir dir;
    WriteFile(dir / "src", "345678");
    WriteFile(dir / "dst", "12");
    EXPECT_TRUE(UnderFileSizeLimit(5, [&] {
        return COM_AppendFileToFile((dir / "dst").c_str(), (dir / "src").c_str()) == -1;
    }));
    EXPECT_EQ("12345", ReadFile(dir / "dst"));
}

TEST(AppendFileToFile, ReportsAFullDevice) {
    const TempDir dir;
    WriteFile(dir / "src", Bytes(5000));
    EXPECT_EQ(Lines{"COMMON:COM_AppendFileToFile(): [" + dir.path() +
                    "/src] -> [/dev/full] : write(0, 4096) failed : No space left on device"},
              CaptureLog([&] { EXPECT_EQ(-1, Append("/dev/full", dir / "src")); }));
    const std::string src = dir / "src";
    RunInPrivateWorld(kMounts, [&] {
        MountTmpfs("/mnt", "size=4k");
        EXPECT_EQ(Lines{"COMMON:COM_AppendFileToFile(): [" + src +
                        "] -> [/mnt/dst] : write(4096, 904) failed : No space left on device"},
                  CaptureLog([&] { EXPECT_EQ(-1, Append("/mnt/dst", src)); }));
        EXPECT_EQ(Bytes(4096), ReadFile("/mnt/dst")) << "what was appended before stays";
        // A write that is cut short.
        WriteFile("/mnt/dst", "head");
        EXPECT_EQ(Lines{"COMMON:COM_AppendFileToFile(): [" + src +
                        "] -> [/mnt/dst] : write(0, 4096) failed : No space left on device"},
                  CaptureLog([&] { EXPECT_EQ(-1, Append("/mnt/dst", src)); }));
        EXPECT_EQ("head" + Bytes(4092), ReadFile("/mnt/dst"));
    });
}

}  // namespace
