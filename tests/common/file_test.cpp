#include "common/file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/file_size_limit.h"
#include "support/private_world.h"
#include "support/scripted_writes.h"
#include "support/temp_dir.h"

namespace {

// g_beforeOpen is called once, before an entry of this name is opened in a directory.
const char *g_openedName = nullptr;
std::function<void()> &g_beforeOpen = *new std::function<void()>;

void BeforeOpen(const char *pName) {
    if (g_openedName != nullptr && strcmp(pName, g_openedName) == 0) {
        g_openedName = nullptr;
        g_beforeOpen();
    }
}

}  // namespace

extern "C" {
int __real_openat(int dir, const char *path, int flags, ...);
int __real_openat64(int dir, const char *path, int flags, ...);
int __wrap_openat(int dir, const char *path, int flags, mode_t mode);
int __wrap_openat64(int dir, const char *path, int flags, mode_t mode);
}

int __wrap_openat(int dir, const char *path, int flags, mode_t mode) {
    BeforeOpen(path);
    return __real_openat(dir, path, flags, mode);
}

int __wrap_openat64(int dir, const char *path, int flags, mode_t mode) {
    BeforeOpen(path);
    return __real_openat64(dir, path, flags, mode);
}

namespace {

namespace fs = std::filesystem;
using talvek::UniqueFd;
using namespace talvek::test;

// ---- COM_Mkdir ----

TEST(Mkdir, MakesEveryLevel) {
    const TempDir dir;
    for (const char *tail : {"a/b/c/", "d/e/f", "g", "h//i/"}) {
        const std::string path = dir / tail;
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_Mkdir(path.c_str(), 0755)); }));
        EXPECT_TRUE(fs::is_directory(path)) << path;
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_Mkdir(path.c_str(), 0755)); }))
            << "an existing tree is no failure";
    }
    EXPECT_TRUE(fs::is_directory(dir / "a/b"));
    EXPECT_EQ(0, COM_Mkdir("/", 0755));
}

TEST(Mkdir, MakesRelativePaths) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        ASSERT_EQ(0, chdir("/var"));
        EXPECT_EQ(0, COM_Mkdir("a/b", 0755));
        EXPECT_TRUE(fs::is_directory("/var/a/b"));
    });
}

TEST(Mkdir, GivesEachLevelTheModeLessTheUmask) {
    const TempDir dir;
    const mode_t before = umask(027);
    EXPECT_EQ(0, COM_Mkdir((dir / "a/b").c_str(), 0775));
    umask(before);
    for (const char *name : {"a", "a/b"}) {
        struct stat st;
        ASSERT_EQ(0, stat((dir / name).c_str(), &st));
        EXPECT_EQ(0750U, st.st_mode & 07777) << name;
    }
}

TEST(Mkdir, FollowsLinksToDirectories) {
    const TempDir dir;
    fs::create_directory(dir / "real");
    fs::create_directory_symlink("real", dir / "link");
    EXPECT_EQ(0, COM_Mkdir((dir / "link").c_str(), 0755));
    EXPECT_EQ(0, COM_Mkdir((dir / "link/sub").c_str(), 0755));
    EXPECT_TRUE(fs::is_directory(dir / "real/sub"));
}

TEST(Mkdir, FailsWhereSomethingElseHasTheName) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    fs::create_symlink("nowhere", dir / "dangling");
    for (const char *name : {"file", "dangling"}) {
        const std::string path = dir / name;
        EXPECT_EQ((Lines{"COMMON:COM_Mkdir(): mkdir(" + path + ") error : File exists"}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_Mkdir(path.c_str(), 0755)); }));
    }
    const Lines log =
        CaptureLog([&] { EXPECT_EQ(-1, COM_Mkdir((dir / "file/sub/x").c_str(), 0755)); });
    ASSERT_EQ(1U, log.size()) << "the first prefix that cannot be made ends the call";
    EXPECT_EQ(0U, log[0].find("COMMON:COM_Mkdir(): mkdir(" + (dir / "file/") + ") error : "));
}

TEST(Mkdir, KeepsWhatItMadeBeforeAFailure) {
    const TempDir dir;
    const std::string bad = dir / ("a/" + std::string(NAME_MAX + 1, 'n'));
    EXPECT_EQ((Lines{"COMMON:COM_Mkdir(): mkdir(" + bad + ") error : File name too long"}),
              CaptureLog([&] { EXPECT_EQ(-1, COM_Mkdir(bad.c_str(), 0755)); }));
    EXPECT_TRUE(fs::is_directory(dir / "a"));
}

// A prefix with its "/" goes into 256 bytes: 255 characters and the NUL.
TEST(Mkdir, RefusesAPrefixThatWouldBeCut) {
    const TempDir dir;
    for (const size_t length : {254, 255, 256, 257}) {
        const std::string parent =
            dir / std::string(length - dir.path().size() - 2, static_cast<char>('a' + length % 26));
        const std::string prefix = parent + "/";
        ASSERT_EQ(length, prefix.size());
        const GuardedCopy path{(prefix + "sub").c_str()};
        const bool fits = length <= 255;
        const Lines expected =
            fits ? Lines{}
                 : Lines{"COMMON:COM_Mkdir(): mkdir(" + prefix + ") error : File name too long"};
        EXPECT_EQ(expected,
                  CaptureLog([&] { EXPECT_EQ(fits ? 0 : -1, COM_Mkdir(path.text(), 0755)); }));
        EXPECT_EQ(fits, fs::exists(path.text())) << length;
        EXPECT_EQ(fits, fs::exists(parent)) << "nothing is made under a name that was cut";
    }
    // The whole path may be longer.
    const std::string longest = dir / std::string(NAME_MAX, 'z');
    EXPECT_EQ(0, COM_Mkdir(longest.c_str(), 0755));
    EXPECT_TRUE(fs::is_directory(longest));
}

TEST(Mkdir, LogsNullAndEmptyPaths) {
    EXPECT_EQ((Lines{"COMMON:COM_Mkdir(): mkdir((null)) error : Bad address"}),
              CaptureLog([] { EXPECT_EQ(-1, COM_Mkdir(nullptr, 0755)); }));
    EXPECT_EQ((Lines{"COMMON:COM_Mkdir(): mkdir() error : No such file or directory"}),
              CaptureLog([] { EXPECT_EQ(-1, COM_Mkdir("", 0755)); }));
}

TEST(Mkdir, FailsOnAReadOnlyFileSystem) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        fs::create_directory("/var/there");
        RemountReadOnly("/var");
        EXPECT_EQ(0, COM_Mkdir("/var/there/", 0755)) << "an existing directory needs no writing";
        EXPECT_EQ((Lines{"COMMON:COM_Mkdir(): mkdir(/var/new/) error : Read-only file system"}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_Mkdir("/var/new/sub", 0755)); }));
    });
}

// ---- _COM_RemoveFileInDir_ and COM_RemoveFileInDir ----

// top: f1, f2, the nodes of a socket and a pipe, sub/f3, sub/deep/
constexpr int kTopFiles = 4;
constexpr int kWholeTree = kTopFiles + 3;

void MakeTree(const std::string &top) {
    WriteFile(top + "/f1", "1");
    WriteFile(top + "/f2", "");
    ASSERT_EQ(0, mkfifo((top + "/pipe").c_str(), 0600));
    ASSERT_EQ(0, mknod((top + "/socket").c_str(), S_IFSOCK | 0600, 0));
    WriteFile(top + "/sub/f3", "3");
    fs::create_directory(top + "/sub/deep");
}

TEST(RemoveFileInDir, LeavesSubdirectoriesUnlessRecursiveIsOne) {
    for (const int recursive : {int{COM_REMOVE_FLAT}, 2, -1}) {
        const TempDir dir;
        MakeTree(dir.path());
        EXPECT_EQ(kTopFiles, _COM_RemoveFileInDir_(recursive, dir.path().c_str(), 0));
        EXPECT_EQ("3", ReadFile(dir / "sub/f3"));
        EXPECT_FALSE(fs::exists(dir / "f1"));
        EXPECT_FALSE(fs::exists(dir / "socket"));
    }
}

TEST(RemoveFileInDir, CountsEveryEntryOfTheTree) {
    const TempDir dir;
    MakeTree(dir.path());
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(kWholeTree,
                            _COM_RemoveFileInDir_(COM_REMOVE_TREE, dir.path().c_str(), 0));
              }));
    EXPECT_TRUE(fs::is_empty(dir.path()));
    EXPECT_EQ(0, _COM_RemoveFileInDir_(COM_REMOVE_TREE, dir.path().c_str(), 0))
        << "nothing is left";
}

TEST(RemoveFileInDir, RemovesTheDirectoryItself) {
    const TempDir dir;
    MakeTree(dir / "top");
    EXPECT_EQ(kWholeTree + 1, COM_RemoveFileInDir(COM_REMOVE_TREE, (dir / "top").c_str()));
    EXPECT_FALSE(fs::exists(dir / "top"));
    MakeTree(dir / "top");
    EXPECT_EQ(kWholeTree + 1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, (dir / "top/").c_str(), 1));
    EXPECT_FALSE(fs::exists(dir / "top"));
}

TEST(RemoveFileInDir, DoesNotFailWhenTheDirectoryItselfStays) {
    const TempDir dir;
    MakeTree(dir / "top");
    EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): rmdir(" + (dir / "top") +
                     ") error : Directory not empty"}),
              CaptureLog([&] {
                  EXPECT_EQ(kTopFiles, COM_RemoveFileInDir(COM_REMOVE_FLAT, (dir / "top").c_str()));
              }));
}

TEST(RemoveFileInDir, KeepsLostAndFoundOfAMountPoint) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        MakeTree("/var");
        WriteFile("/var/lost+found/#12", "saved");
        WriteFile("/var/sub/lost+found", "a file of that name");
        EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): rmdir(/var/sub) error : Directory not "
                         "empty",
                         "COMMON:_COM_RemoveFileInDir_(): rmdir(/var) error : Device or resource "
                         "busy"}),
                  CaptureLog([] {
                      EXPECT_EQ(kWholeTree - 1,
                                COM_RemoveFileInDir(COM_REMOVE_TREE, "/var"));  // less "sub"
                  }));
        EXPECT_EQ("saved", ReadFile("/var/lost+found/#12"));
        EXPECT_EQ("a file of that name", ReadFile("/var/sub/lost+found"));
    });
}

TEST(RemoveFileInDir, MarksAnEntryThatCannotBeExamined) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    fs::create_symlink("nowhere", dir / "dangling");
    EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): stat(" + (dir / "dangling") +
                     ") error : No such file or directory"}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, dir.path().c_str(), 0));
              }));
    EXPECT_FALSE(fs::exists(dir / "file")) << "the others are removed all the same";
    EXPECT_TRUE(fs::is_symlink(dir / "dangling"));
}

TEST(RemoveFileInDir, MarksAFileThatCannotBeUnlinkedAtAnyDepth) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        WriteFile("/var/sub/busy", "x");
        WriteFile("/var/sub/file", "x");
        WriteFile("/var/file", "x");
        ASSERT_EQ(0, mount("/var/sub/busy", "/var/sub/busy", nullptr, MS_BIND, nullptr));
        EXPECT_EQ(
            (Lines{"COMMON:_COM_RemoveFileInDir_(): unlink(/var/sub/busy) error : Device or "
                   "resource busy",
                   "COMMON:_COM_RemoveFileInDir_(): rmdir(/var/sub) error : Directory not "
                   "empty"}),
            CaptureLog([] { EXPECT_EQ(-1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, "/var", 0)); }));
        EXPECT_FALSE(fs::exists("/var/sub/file"));
        EXPECT_FALSE(fs::exists("/var/file"));
    });
}

TEST(RemoveFileInDir, RemovesALinkToAFileAndNotTheFile) {
    const TempDir dir;
    WriteFile(dir / "kept", "x");
    fs::create_directory(dir / "top");
    fs::create_symlink("../kept", dir / "top/link");
    EXPECT_EQ(1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, (dir / "top").c_str(), 0));
    EXPECT_EQ("x", ReadFile(dir / "kept"));
    EXPECT_FALSE(fs::is_symlink(dir / "top/link"));
}

TEST(RemoveFileInDir, EmptiesADirectoryThatALinkNames) {
    const TempDir dir;
    WriteFile(dir / "real/file", "x");
    fs::create_directory(dir / "top");
    fs::create_directory_symlink("../real", dir / "top/link");
    EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): rmdir(" + (dir / "top/link") +
                     ") error : Not a directory"}),
              CaptureLog([&] {
                  EXPECT_EQ(1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, (dir / "top").c_str(), 0));
              }));
    EXPECT_TRUE(fs::is_empty(dir / "real"));
    EXPECT_TRUE(fs::is_symlink(dir / "top/link"));
}

// Somebody replaces a directory by a link after it was examined and before it is opened.
TEST(RemoveFileInDir, DoesNotFollowADirectoryThatBecomesALink) {
    const TempDir dir;
    WriteFile(dir / "outside/kept", "x");
    WriteFile(dir / "top/sub/file", "x");
    g_openedName = "sub";
    g_beforeOpen = [&dir] {
        fs::rename(dir / "top/sub", dir / "moved");
        fs::create_directory_symlink("../outside", dir / "top/sub");
    };
    EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): opendir(" + (dir / "top/sub") +
                     ") error : Not a directory"}),
              CaptureLog([&] {
                  EXPECT_EQ(0, _COM_RemoveFileInDir_(COM_REMOVE_TREE, (dir / "top").c_str(), 0));
              }));
    EXPECT_EQ(nullptr, g_openedName);
    EXPECT_EQ("x", ReadFile(dir / "outside/kept"));
    EXPECT_EQ("x", ReadFile(dir / "moved/file"));
}

// The same with a directory that is already being emptied.
TEST(RemoveFileInDir, RemovesNothingThroughALinkThatReplacesAnOuterDirectory) {
    const TempDir dir;
    WriteFile(dir / "outside/deep/kept", "x");
    WriteFile(dir / "top/sub/deep/kept", "x");
    g_openedName = "deep";
    g_beforeOpen = [&dir] {
        fs::rename(dir / "top/sub", dir / "moved");
        fs::create_directory_symlink("../outside", dir / "top/sub");
    };
    EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): rmdir(" + (dir / "top/sub") +
                     ") error : Not a directory"}),
              CaptureLog([&] {
                  EXPECT_EQ(2, _COM_RemoveFileInDir_(COM_REMOVE_TREE, (dir / "top").c_str(), 0));
              }));
    EXPECT_EQ(nullptr, g_openedName);
    EXPECT_EQ("x", ReadFile(dir / "outside/deep/kept"));
    EXPECT_TRUE(fs::is_empty(dir / "moved")) << "the directory that was open is emptied";
}

// The kernel refuses a path with more than 40 links. With two such links in one directory, 2 to the
// 40th paths would be tried before that.
TEST(RemoveFileInDir, FollowsNoLinkBackToADirectoryThatIsBeingEmptied) {
    const TempDir dir;
    WriteFile(dir / "top/a/file", "x");
    WriteFile(dir / "top/file", "x");
    fs::create_directory_symlink("..", dir / "top/a/up");
    fs::create_directory_symlink(".", dir / "top/a/here");
    const Lines log = CaptureLog(
        [&] { EXPECT_EQ(-1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, (dir / "top").c_str(), 0)); });
    Lines sorted = log;
    std::sort(sorted.begin(), sorted.end());
    const std::string a = dir / "top/a";
    EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): rmdir(" + a + ") error : Directory not empty",
                     "COMMON:_COM_RemoveFileInDir_(): stat(" + a +
                         "/here) error : Too many levels of symbolic links",
                     "COMMON:_COM_RemoveFileInDir_(): stat(" + a +
                         "/up) error : Too many levels of symbolic links"}),
              sorted);
    EXPECT_FALSE(fs::exists(dir / "top/a/file"));
    EXPECT_FALSE(fs::exists(dir / "top/file"));
}

TEST(RemoveFileInDir, RefusesTheRootDirectory) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        WriteFile("/var/file", "x");
        ASSERT_EQ(0, chroot("/var"));  // so that a mistake empties this one
        ASSERT_EQ(0, chdir("/"));
        for (const std::string path : {"/", "//", "///"}) {
            EXPECT_EQ((Lines{"COMMON:_COM_RemoveFileInDir_(): opendir(" + path +
                             ") error : Invalid argument"}),
                      CaptureLog([&] {
                          EXPECT_EQ(0, COM_RemoveFileInDir(COM_REMOVE_TREE, path.c_str()));
                      }));
        }
        EXPECT_EQ("x", ReadFile("/file"));
    });
}

TEST(RemoveFileInDir, RefusesTheRootDirectoryByAnyName) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        WriteFile("/var/file", "x");
        WriteFile("/var/sub/file", "x");
        fs::create_directory_symlink("/", "/var/sub/link");
        ASSERT_EQ(0, chroot("/var"));
        ASSERT_EQ(0, chdir("/"));
        const auto refused = [](const std::string &path) {
            return "COMMON:_COM_RemoveFileInDir_(): opendir(" + path + ") error : Invalid argument";
        };
        for (const std::string path : {"/.", "/..", "/sub/..", "/sub/link", ".", ".."}) {
            EXPECT_EQ(Lines{refused(path)}, CaptureLog([&] {
                          EXPECT_EQ(0, _COM_RemoveFileInDir_(COM_REMOVE_TREE, path.c_str(), 1));
                      }));
        }
        EXPECT_EQ(
            (Lines{refused("/sub/link"),
                   "COMMON:_COM_RemoveFileInDir_(): rmdir(/sub) error : Directory not empty"}),
            CaptureLog([] { EXPECT_EQ(1, COM_RemoveFileInDir(COM_REMOVE_TREE, "/sub")); }))
            << "the other entries are removed";
        EXPECT_FALSE(fs::exists("/sub/file"));
        EXPECT_EQ("x", ReadFile("/file"));
    });
}

TEST(RemoveFileInDir, ReturnsZeroWhenTheDirectoryCannotBeOpened) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    const auto log = [](const std::string &path, const std::string &error) {
        return Lines{"COMMON:_COM_RemoveFileInDir_(): opendir(" + path + ") error : " + error};
    };
    EXPECT_EQ(log("(null)", "Bad address"),
              CaptureLog([] { EXPECT_EQ(0, COM_RemoveFileInDir(COM_REMOVE_TREE, nullptr)); }));
    EXPECT_EQ(log("", "No such file or directory"),
              CaptureLog([] { EXPECT_EQ(0, COM_RemoveFileInDir(COM_REMOVE_TREE, "")); }));
    EXPECT_EQ(log(dir / "gone", "No such file or directory"), CaptureLog([&] {
                  EXPECT_EQ(0, COM_RemoveFileInDir(COM_REMOVE_TREE, (dir / "gone").c_str()));
              }));
    EXPECT_EQ(log(dir / "file", "Not a directory"), CaptureLog([&] {
                  EXPECT_EQ(0, COM_RemoveFileInDir(COM_REMOVE_TREE, (dir / "file").c_str()));
              }));
    EXPECT_EQ("x", ReadFile(dir / "file"));
    const std::string endless(PATH_MAX + 10, 'x');
    EXPECT_EQ(log(endless, "File name too long"), CaptureLog([&] {
                  EXPECT_EQ(0, COM_RemoveFileInDir(COM_REMOVE_TREE, endless.c_str()));
              }));
}

// A directory that no descriptor is left for is logged and stays, which is no failure.
TEST(RemoveFileInDir, LeavesWhatIsDeeperThanTheDescriptorsLast) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        std::string path = "/var/top";
        for (int i = 0; i < 60; ++i) {
            WriteFile(path + "/file", "x");
            path += "/d";
        }
        const auto countOpen = [] {
            return std::distance(fs::directory_iterator{"/proc/self/fd"}, {});
        };
        const auto before = countOpen();
        struct rlimit limit = {};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        const rlim_t most = limit.rlim_cur;
        int removed = -1;
        const Lines log = CaptureLog([&] {
            limit.rlim_cur = 40;
            setrlimit(RLIMIT_NOFILE, &limit);
            removed = COM_RemoveFileInDir(COM_REMOVE_TREE, "/var/top");
            limit.rlim_cur = most;
            setrlimit(RLIMIT_NOFILE, &limit);
        });
        EXPECT_LT(0, removed) << "the files of the directories that were opened";
        EXPECT_GT(40, removed);
        // A line for the directory that cannot be opened, and one for each directory above it,
        // which is not empty.
        ASSERT_EQ(static_cast<size_t>(removed) + 1, log.size());
        EXPECT_NE(std::string::npos, log[0].find(": opendir(/var/top/d/"));
        EXPECT_NE(std::string::npos, log[0].find("error : Too many open files"));
        EXPECT_EQ("COMMON:_COM_RemoveFileInDir_(): rmdir(/var/top) error : Directory not empty",
                  log.back());
        EXPECT_EQ(before, countOpen());
        EXPECT_EQ(120 - removed, COM_RemoveFileInDir(COM_REMOVE_TREE, "/var/top"));
    });
}

// The tree is deeper than a path can be long. Entries whose path fits are removed; the others are a
// failure.
TEST(RemoveFileInDir, StopsWhereAPathEnds) {
    const TempDir dir;
    const std::string name(200, 'd');
    UniqueFd level{open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    for (int i = 0; i < 25; ++i) {  // 25 * 201 > PATH_MAX
        ASSERT_EQ(0, mkdirat(level.get(), name.c_str(), 0755));
        level.Reset(openat(level.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const UniqueFd file{openat(level.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644)};
        ASSERT_TRUE(file);
    }
    const Lines log = CaptureLog(
        [&] { EXPECT_EQ(-1, _COM_RemoveFileInDir_(COM_REMOVE_TREE, dir.path().c_str(), 0)); });
    ASSERT_FALSE(log.empty());
    EXPECT_NE(std::string::npos, log[0].find("error : File name too long"));
    EXPECT_FALSE(fs::exists(dir / (name + "/file")));
}

// ---- COM_RemoveRealFile ----

TEST(RemoveRealFile, RemovesAFile) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    EXPECT_EQ(Lines{},
              CaptureLog([&] { EXPECT_EQ(0, COM_RemoveRealFile((dir / "file").c_str())); }));
    EXPECT_FALSE(fs::exists(dir / "file"));
}

TEST(RemoveRealFile, RemovesWhatALinkNamesAndLeavesTheLink) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    fs::create_symlink(dir / "file", dir / "link");
    EXPECT_EQ(0, COM_RemoveRealFile((dir / "link").c_str()));
    EXPECT_FALSE(fs::exists(dir / "file"));
    EXPECT_TRUE(fs::is_symlink(dir / "link"));
    EXPECT_EQ((Lines{"COMMON:COM_RemoveRealFile(): stat(" + (dir / "link") +
                     ") error : No such file or directory"}),
              CaptureLog([&] { EXPECT_EQ(-1, COM_RemoveRealFile((dir / "link").c_str())); }));
}

TEST(RemoveRealFile, FollowsOneLinkOnly) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    fs::create_symlink(dir / "file", dir / "second");
    fs::create_symlink(dir / "second", dir / "first");
    EXPECT_EQ(0, COM_RemoveRealFile((dir / "first").c_str()));
    EXPECT_TRUE(fs::is_symlink(dir / "first"));
    EXPECT_FALSE(fs::is_symlink(dir / "second"));
    EXPECT_EQ("x", ReadFile(dir / "file"));
}

TEST(RemoveRealFile, TakesARelativeLinkFromTheCurrentDirectory) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        WriteFile("/var/sub/file", "beside the link");
        fs::create_symlink("file", "/var/sub/link");
        ASSERT_EQ(0, chdir("/var"));
        EXPECT_EQ((Lines{"COMMON:COM_RemoveRealFile(): unlink(file) failed : No such file or "
                         "directory"}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_RemoveRealFile("/var/sub/link")); }));
        WriteFile("/var/file", "in the current directory");
        EXPECT_EQ(0, COM_RemoveRealFile("/var/sub/link"));
        EXPECT_FALSE(fs::exists("/var/file"));
        EXPECT_TRUE(fs::exists("/var/sub/file"));
    });
}

// 255 characters and the NUL fill the 256 bytes.
TEST(RemoveRealFile, RefusesALinkTextThatWouldBeCut) {
    const TempDir dir;
    for (const size_t length : {254, 255, 256, 257, 1000}) {
        const std::string file = dir / "file";
        WriteFile(file, "x");
        std::string text = dir.path();
        text.append(length - file.size() + 1, '/');  // slashes up to the length
        text += "file";
        ASSERT_EQ(length, text.size());
        const std::string link = dir / ("link" + std::to_string(length));
        fs::create_symlink(text, link);
        const bool fits = length <= 255;
        const Lines expected = fits ? Lines{}
                                    : Lines{"COMMON:COM_RemoveRealFile(): unlink(" + link +
                                            ") failed : File name too long"};
        EXPECT_EQ(expected,
                  CaptureLog([&] { EXPECT_EQ(fits ? 0 : -1, COM_RemoveRealFile(link.c_str())); }));
        EXPECT_EQ(!fits, fs::exists(file)) << length;
        EXPECT_TRUE(fs::is_symlink(link));
    }
}

TEST(RemoveRealFile, ReportsWhatItCannotRemove) {
    const TempDir dir;
    EXPECT_EQ(
        (Lines{"COMMON:COM_RemoveRealFile(): unlink(" + dir.path() + ") failed : Is a directory"}),
        CaptureLog([&] { EXPECT_EQ(-1, COM_RemoveRealFile(dir.path().c_str())); }));
    EXPECT_EQ((Lines{"COMMON:COM_RemoveRealFile(): stat((null)) error : Bad address"}),
              CaptureLog([] { EXPECT_EQ(-1, COM_RemoveRealFile(nullptr)); }));
}

// ---- COM_CreateSymbolLink ----

TEST(CreateSymbolLink, ReplacesAnExistingLinkByItsMode) {
    struct Case {
        int mode;
        bool target;
        bool replaced;
    };
    constexpr Case kCases[] = {
        {COM_LINK_REPLACE_IF_TARGET, true, true}, {COM_LINK_REPLACE_IF_TARGET, false, false},
        {COM_LINK_REPLACE, true, true},           {COM_LINK_REPLACE, false, true},
        {COM_LINK_IF_TARGET, true, false},        {3, true, false}};
    for (const Case &c : kCases) {
        const TempDir dir;
        const std::string target = dir / "target";
        const std::string link = dir / "link";
        if (c.target) {
            WriteFile(target, "x");
        }
        WriteFile(link, "in the way");
        const Lines expected = c.replaced ? Lines{}
                                          : Lines{"COMMON:COM_CreateSymbolLink(): symlink(" +
                                                  target + ", " + link + ") fail : File exists"};
        EXPECT_EQ(expected, CaptureLog([&] {
                      EXPECT_EQ(c.replaced ? 0 : -1,
                                COM_CreateSymbolLink(c.mode, target.c_str(), link.c_str()));
                  }))
            << c.mode << c.target;
        EXPECT_EQ(c.replaced, fs::is_symlink(link));
    }
}

TEST(CreateSymbolLink, MakesALinkWhereNothingExists) {
    for (const int mode : {COM_LINK_REPLACE_IF_TARGET, COM_LINK_REPLACE, COM_LINK_IF_TARGET}) {
        const TempDir dir;
        WriteFile(dir / "target", "x");
        EXPECT_EQ(0, COM_CreateSymbolLink(mode, (dir / "target").c_str(), (dir / "link").c_str()));
        EXPECT_EQ(dir / "target", fs::read_symlink(dir / "link").string());
    }
    const TempDir dir;
    for (const int mode : {COM_LINK_REPLACE_IF_TARGET, COM_LINK_REPLACE}) {
        const std::string link = dir / std::to_string(mode);
        EXPECT_EQ(0, COM_CreateSymbolLink(mode, "/no/such/target", link.c_str()))
            << "a link may dangle";
        EXPECT_TRUE(fs::is_symlink(link));
    }
}

TEST(CreateSymbolLink, SkipsAMissingTarget) {
    const TempDir dir;
    const std::string target = dir / "target";
    const std::string link = dir / "link";
    EXPECT_EQ((Lines{"COMMON:COM_CreateSymbolLink(): skip link[" + link + "] due to [" + target +
                     "] is not existed!"}),
              CaptureLog([&] {
                  EXPECT_EQ(0,
                            COM_CreateSymbolLink(COM_LINK_IF_TARGET, target.c_str(), link.c_str()));
              }));
    EXPECT_FALSE(fs::is_symlink(link));
}

TEST(CreateSymbolLink, FailsOnNull) {
    EXPECT_EQ((Lines{"COMMON:COM_CreateSymbolLink(): symlink((null), x) fail : Bad address",
                     "COMMON:COM_CreateSymbolLink(): symlink(x, (null)) fail : Bad address"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, COM_CreateSymbolLink(COM_LINK_REPLACE, nullptr, "x"));
                  EXPECT_EQ(-1, COM_CreateSymbolLink(COM_LINK_REPLACE, "x", nullptr));
              }));
}

// ---- COM_GetFdInfo ----

Lines InfoLines(int fd, const std::string &path, const std::string &type) {
    const std::string pid = std::to_string(getpid());
    const std::string number = std::to_string(fd);
    return {
        "COMMON:COM_GetFdInfo(): [/proc/" + pid + "/fd/" + number + "] => [" + path + "]",
        "COMMON:COM_GetFdInfo(): (pid, fd, type) = (" + pid + ", " + number + ", [" + type + "])"};
}

// A descriptor opened with O_PATH refers to a node of any type without its driver. A symbolic link
// has no row: the examination of the path follows it.
TEST(GetFdInfo, NamesEachFileType) {
    RunInPrivateWorld(
        kMounts,
        [] {
            MountTmpfs("/var");
            fs::create_directory("/var/directory");
            WriteFile("/var/file", "1234567");
            ASSERT_EQ(0, mknod("/var/block", S_IFBLK | 0600, makedev(7, 0)));
            ASSERT_EQ(0, mkfifo("/var/pipe", 0600));
            ASSERT_EQ(0, mknod("/var/socket", S_IFSOCK | 0600, 0));
            ASSERT_EQ(0, mknod("/var/character", S_IFCHR | 0600, makedev(1, 3)));
            struct Case {
                const char *path;
                int flags;
                const char *type;
            };
            constexpr Case kCases[] = {
                {"/var/directory", O_RDONLY, "Dir"},   {"/var/file", O_RDONLY, "RegularfFile"},
                {"/var/block", O_PATH, "BlockDev"},    {"/var/pipe", O_RDWR, "FIFO"},
                {"/var/character", O_PATH, "CharDev"}, {"/dev/null", O_RDWR, "CharDev"},
                {"/var/socket", O_PATH, "Socket"}};
            for (const Case &c : kCases) {
                const UniqueFd fd{open(c.path, c.flags | O_CLOEXEC)};
                ASSERT_TRUE(fd) << c.path << strerror(errno);
                if (strcmp(c.type, "RegularfFile") == 0) {
                    ASSERT_EQ(5, lseek(fd.get(), 5, SEEK_SET));
                }
                CanaryBuf path{COM_FD_PATH_SIZE};
                Lines expected = InfoLines(fd.get(), c.path, c.type);
                if (strcmp(c.type, "RegularfFile") == 0) {
                    expected.push_back("COMMON:COM_GetFdInfo(): (size, cur_off) = (7, 5)");
                }
                EXPECT_EQ(expected, CaptureLog([&] {
                              EXPECT_EQ(0, COM_GetFdInfo(fd.get(), path.text(), 1));
                          }));
                EXPECT_STREQ(c.path, path.text());
            }
        },
        true);
}

TEST(GetFdInfo, IsQuietUnlessVerboseAndNeedsNoBuffer) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    const UniqueFd fd{open((dir / "file").c_str(), O_RDONLY | O_CLOEXEC)};
    CanaryBuf path{COM_FD_PATH_SIZE};
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(0, COM_GetFdInfo(fd.get(), path.text(), 0));
                  EXPECT_EQ(0, COM_GetFdInfo(fd.get(), nullptr, 0));
              }));
    EXPECT_EQ(dir / "file", path.text());
    EXPECT_TRUE(path.UntouchedFrom((dir / "file").size() + 1));
}

// 127 characters and the NUL fill the 128 bytes.
TEST(GetFdInfo, RefusesAPathThatWouldBeCut) {
    const TempDir dir;
    for (const size_t length : {126, 127, 128, 129}) {
        const std::string file = dir / std::string(length - dir.path().size() - 1, 'f');
        ASSERT_EQ(length, file.size());
        const UniqueFd fd{open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
        CanaryBuf path{COM_FD_PATH_SIZE};
        const bool fits = length <= 127;
        const Lines expected = fits ? Lines{}
                                    : Lines{"COMMON:COM_GetFdInfo(): stat(" + file.substr(0, 128) +
                                            ") fail : File name too long"};
        EXPECT_EQ(expected, CaptureLog([&] {
                      EXPECT_EQ(fits ? 0 : -1, COM_GetFdInfo(fd.get(), path.text(), 0));
                  }));
        if (fits) {
            EXPECT_EQ(file, path.text());
        } else {
            EXPECT_TRUE(path.UntouchedFrom(0));
        }
    }
}

TEST(GetFdInfo, FailsWithoutAPathThatCanBeExamined) {
    CanaryBuf path{COM_FD_PATH_SIZE};
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, COM_GetFdInfo(-1, path.text(), 1)); }));

    const std::string own = "/proc/" + std::to_string(getpid()) + "/fd/";
    EXPECT_EQ((Lines{"COMMON:COM_GetFdInfo(): readlink(" + own +
                     "1048575) fail : No such file or directory"}),
              CaptureLog([&] { EXPECT_EQ(-1, COM_GetFdInfo(1048575, path.text(), 1)); }));

    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const UniqueFd in{ends[0]};
    const UniqueFd out{ends[1]};
    const UniqueFd socketFd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const TempDir dir;
    const UniqueFd removed{open((dir / "f").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
    fs::remove(dir / "f");
    for (const int fd : {in.get(), socketFd.get(), removed.get()}) {
        const std::string link = fs::read_symlink(own + std::to_string(fd)).string();
        EXPECT_EQ(
            (Lines{"COMMON:COM_GetFdInfo(): stat(" + link + ") fail : No such file or directory"}),
            CaptureLog([&] { EXPECT_EQ(-1, COM_GetFdInfo(fd, path.text(), 1)); }));
    }
    EXPECT_TRUE(path.UntouchedFrom(0));
}

// ---- COM_RenameFile ----

TEST(RenameFile, MovesTextsOfEveryLengthAroundABlock) {
    for (const size_t length : {0, 1, 511, 512, 513, 1024, 100000}) {
        const TempDir dir;
        std::string text;
        while (text.size() < length) {
            text += static_cast<char>('a' + text.size() % 26);
        }
        WriteFile(dir / "from", text);
        WriteFile(dir / "to", "what was there before, longer than some of the texts");
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(0, COM_RenameFile((dir / "from").c_str(), (dir / "to").c_str()));
                  }));
        EXPECT_EQ(text, ReadFile(dir / "to"));
        EXPECT_FALSE(fs::exists(dir / "from"));
    }
}

TEST(RenameFile, WritesEachBlockUpToItsFirstNul) {
    const TempDir dir;
    std::string bytes = std::string(512, '1') + std::string(512, '2') + std::string(512, '3') +
                        std::string(100, '4');
    bytes[512 + 100] = '\0';
    bytes[512 + 300] = '\0';
    bytes[1024] = '\0';
    bytes[1536 + 99] = '\0';
    WriteFile(dir / "from", bytes);
    EXPECT_EQ(0, COM_RenameFile((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ(std::string(512, '1') + std::string(100, '2') + std::string(99, '4'),
              ReadFile(dir / "to"));
}

TEST(RenameFile, MakesTheDestinationForOwnerAndGroup) {
    const TempDir dir;
    WriteFile(dir / "from", "x");
    const mode_t before = umask(0);
    EXPECT_EQ(0, COM_RenameFile((dir / "from").c_str(), (dir / "to").c_str()));
    umask(before);
    struct stat st;
    ASSERT_EQ(0, stat((dir / "to").c_str(), &st));
    EXPECT_EQ(0664U, st.st_mode & 07777);
}

TEST(RenameFile, LeavesAFileThatIsMovedOntoItself) {
    const TempDir dir;
    WriteFile(dir / "file", "text");
    fs::create_hard_link(dir / "file", dir / "same");
    EXPECT_EQ(0, COM_RenameFile((dir / "file").c_str(), (dir / "file").c_str()));
    EXPECT_EQ(0, COM_RenameFile((dir / "file").c_str(), (dir / "same").c_str()));
    EXPECT_EQ("text", ReadFile(dir / "file"));
}

TEST(RenameFile, ReportsWhatItCannotOpen) {
    const TempDir dir;
    WriteFile(dir / "from", "text");
    const std::string from = dir / "from";
    const std::string gone = dir / "gone/to";
    EXPECT_EQ(
        (Lines{"COMMON:COM_RenameFile(): open(" + gone + ") failed : No such file or directory",
               "COMMON:COM_RenameFile(): open(" + gone + ") failed : No such file or directory",
               "COMMON:COM_RenameFile(): open((null)) failed : Bad address",
               "COMMON:COM_RenameFile(): open((null)) failed : Bad address"}),
        CaptureLog([&] {
            EXPECT_EQ(-1, COM_RenameFile(gone.c_str(), from.c_str()));
            EXPECT_EQ(-1, COM_RenameFile(from.c_str(), gone.c_str()));
            EXPECT_EQ(-1, COM_RenameFile(nullptr, from.c_str()));
            EXPECT_EQ(-1, COM_RenameFile(from.c_str(), nullptr));
        }));
    EXPECT_EQ("text", ReadFile(from));
}

TEST(RenameFile, FailsOnASourceThatCannotBeRead) {
    const TempDir dir;
    fs::create_directory(dir / "from");
    EXPECT_EQ((Lines{"COMMON:COM_RenameFile(): read() failed : Is a directory"}), CaptureLog([&] {
                  EXPECT_EQ(-1, COM_RenameFile((dir / "from").c_str(), (dir / "to").c_str()));
              }));
    EXPECT_TRUE(fs::exists(dir / "from"));
}

// The message ends without a newline.
TEST(RenameFile, GivesUpOnADeviceThatTakesNothing) {
    const TempDir dir;
    WriteFile(dir / "from", "text");
    const std::string from = dir / "from";
    const std::string output = Capture([&] {
        g_writes = {0};
        errno = EINTR;  // what an earlier call left
        const int result = COM_RenameFile(from.c_str(), (dir / "to").c_str());
        EXPECT_EQ(-1, result);
    });
    const std::string message = ":COM_RenameFile(): write() failed : Input/output error";
    ASSERT_LT(message.size(), output.size());
    EXPECT_EQ(message, output.substr(output.size() - message.size()));
    EXPECT_EQ("text", ReadFile(from));
}

TEST(RenameFile, KeepsTheSourceWhenTheDiskIsFull) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        fs::create_directory("/var/small");
        MountTmpfs("/var/small", "size=8k");
        const std::string text(100000, 't');
        WriteFile("/var/from", text);
        EXPECT_EQ((Lines{"COMMON:COM_RenameFile(): write() failed : No space left on device"}),
                  CaptureLog([] { EXPECT_EQ(-1, COM_RenameFile("/var/from", "/var/small/to")); }));
        EXPECT_EQ(text, ReadFile("/var/from"));
    });
}

TEST(RenameFile, SucceedsWhenTheSourceCannotBeRemoved) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        fs::create_directory("/var/fixed");
        MountTmpfs("/var/fixed");
        WriteFile("/var/fixed/from", "text");
        RemountReadOnly("/var/fixed");
        EXPECT_EQ((Lines{"COMMON:COM_RenameFile(): unlink(/var/fixed/from) failed : Read-only file "
                         "system"}),
                  CaptureLog([] { EXPECT_EQ(0, COM_RenameFile("/var/fixed/from", "/var/to")); }));
        EXPECT_EQ("text", ReadFile("/var/to"));
    });
}

// ---- COM_ReplaceItemsInFile ----

tFileItem Item(const char *pKey, const char *pLine) {
    tFileItem item = {};
    item.key_len = static_cast<int32_t>(strlen(pKey));
    strncpy(item.key, pKey, sizeof item.key - 1);
    strncpy(item.line, pLine, sizeof item.line - 1);
    return item;
}

enum EditFlag { kNone = 0, kFindOnly = 1, kSubstring = 2, kAppend = 4 };

// Edits in a world of its own with an empty /var, where the file is /var/conf/file.
class ReplaceItemsInFile : public ::testing::Test {
  protected:
    static constexpr const char *kFile = "/var/conf/file";

    static int Edit(std::vector<tFileItem> &items, int flags = kNone, const char *pFile = kFile) {
        tFileItemRequest request = {};
        request.count = static_cast<int32_t>(items.size());
        request.find_only = flags & kFindOnly;
        request.match_substring = flags & kSubstring;
        request.append_unmatched = flags & kAppend;
        request.pItems = items.data();
        return COM_ReplaceItemsInFile(pFile, &request);
    }
    static int Edit(std::vector<tFileItem> &&items, int flags = kNone, const char *pFile = kFile) {
        return Edit(items, flags, pFile);
    }
    // Runs the body with this content in the file. No temporary copy may be left after it.
    static void Run(const std::string &content, const std::function<void()> &body) {
        RunInPrivateWorld(kMounts, [&] {
            MountTmpfs("/var");
            WriteFile(kFile, content);
            body();
            for (const fs::directory_entry &entry : fs::directory_iterator("/var")) {
                EXPECT_EQ(std::string::npos, entry.path().string().find("COM_")) << entry.path();
            }
        });
    }
};

TEST_F(ReplaceItemsInFile, AppendsAnItemWithoutAMatch) {
    Run("host=unit\nmask=24\n", [] {
        EXPECT_EQ(Lines{},
                  CaptureLog([] { EXPECT_EQ(1, Edit({Item("port=", "port=80")}, kAppend)); }));
        EXPECT_EQ("host=unit\nmask=24\nport=80\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, ReplacesDeletesAndKeepsTheRest) {
    Run("a=1\nb=2\nc=3\nd=4\n", [] {
        std::vector<tFileItem> items{Item("b=", "b=two"), Item("c=", ""), Item("x=", "x=9")};
        EXPECT_EQ(2, Edit(items));
        EXPECT_EQ("a=1\nb=two\nd=4\n", ReadFile(kFile));
        EXPECT_EQ(0, items[0].key_len);
        EXPECT_EQ(0, items[1].key_len);
        EXPECT_EQ(2, items[2].key_len) << "only a match uses a key up";
    });
}

TEST_F(ReplaceItemsInFile, AppendsOnlyWhatIsUnmatchedAndNotEmpty) {
    Run("a=1\n", [] {
        tFileItem used = Item("u=", "u=0");
        used.key_len = 0;
        EXPECT_EQ(2, Edit({Item("a=", "a=one"), Item("b=", ""), used, Item("c", "c=3")}, kAppend));
        EXPECT_EQ("a=one\nc=3\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, UsesAnItemForOneLineOnly) {
    Run("key 1\nkey 2\nkey 3\n", [] {
        EXPECT_EQ(2, Edit({Item("key", "first"), Item("key", "second")}));
        EXPECT_EQ("first\nsecond\nkey 3\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, GivesALineToTheFirstItemThatMatches) {
    Run("key=1\n", [] {
        EXPECT_EQ(1, Edit({Item("none", "0"), Item("ke", "short"), Item("key=", "long")}));
        EXPECT_EQ("short\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, ComparesTheBeginningWithoutRegardToCase) {
    Run("my Port=1\npORT=2\n", [] {
        EXPECT_EQ(1, Edit({Item("Port=", "Port=80")}));
        EXPECT_EQ("my Port=1\nPort=80\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, FindsASubstringAnywhereWithRegardToCase) {
    Run("my PORT=1\nmy Port=2\n", [] {
        EXPECT_EQ(1, Edit({Item("Port=", "Port=80")}, kSubstring));
        EXPECT_EQ("my PORT=1\nPort=80\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, ComparesKeyLengthCharacters) {
    Run("portal\n", [] {
        tFileItem item = Item("port=", "found");
        item.key_len = 4;
        EXPECT_EQ(1, Edit({item}));
        EXPECT_EQ("found\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, BoundsKeysAndLinesByTheirFields) {
    const std::string longKey(160, 'k');
    const std::string longLine(160, 'l');
    Run(longKey + "rest\nshort\nx\n", [&] {
        const size_t size = 5 * sizeof(tFileItem);
        const CanaryBuf items{size};
        memset(items.bytes(), 0, size);
        tFileItem *item = reinterpret_cast<tFileItem *>(items.bytes());
        item[0].key_len = -1;  // no key is that short
        memcpy(item[0].key, "short", 5);
        memcpy(item[0].line, "bad", 3);
        item[1].key_len = 3;  // a key without a character
        memcpy(item[1].line, "bad", 3);
        item[2].key_len = 1000;  // ends at its NUL
        memcpy(item[2].key, "short", 5);
        memcpy(item[2].line, "long length", 11);
        item[3] = {};
        item[4].key_len = INT32_MAX;  // fills its field, the last bytes before the end
        memcpy(item[4].key, longKey.data(), 160);
        memcpy(item[4].line, longLine.data(), 160);
        tFileItemRequest request = {5, 0, 0, 0, item};
        EXPECT_EQ(2, COM_ReplaceItemsInFile(kFile, &request));
        EXPECT_EQ(longLine + "\nlong length\nx\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, TakesALongLineInPieces) {
    // 255 characters, and the rest as a line of its own.
    const std::string head = "key" + std::string(252, 'h');
    Run(head + "key tail\nlast", [] {
        EXPECT_EQ(2, Edit({Item("key", "first"), Item("key", "second")}));
        EXPECT_EQ("first\nsecond\nlast", ReadFile(kFile));
    });
    for (const size_t length : {253, 254, 255, 256, 510, 5000}) {
        const std::string text = std::string(length, 'x') + "\nend\n";
        Run(text, [&] {
            EXPECT_EQ(0, Edit({Item("key", "first")}));
            EXPECT_EQ(text, ReadFile(kFile)) << "unmatched lines of any length stay whole";
        });
    }
}

TEST_F(ReplaceItemsInFile, LeavesOutWhatFollowsANul) {
    Run(std::string{"a=1\0x\nb=2\n\0b=3\nc=4\0", 19}, [] {
        EXPECT_EQ(2, Edit({Item("b=", "b=two"), Item("d=", "d=5")}, kAppend));
        EXPECT_EQ("a=1b=two\nc=4\nd=5\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, EndsAnOpenLastLineBeforeItAppends) {
    Run("a=1\nb=2", [] {
        EXPECT_EQ(2, Edit({Item("c=", "c=3"), Item("d=", "d=4")}, kAppend));
        EXPECT_EQ("a=1\nb=2\nc=3\nd=4\n", ReadFile(kFile));
    });
    Run("a=1\nb=2", [] {
        EXPECT_EQ(2, Edit({Item("b=", "b=two"), Item("d=", "d=4")}, kAppend));
        EXPECT_EQ("a=1\nb=two\nd=4\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, OnlyCountsWithFindOnly) {
    const std::string text = "a=1\nb=2\nb=3";
    Run(text, [&] {
        std::vector<tFileItem> items{Item("b=", "x"), Item("b=", ""), Item("c=", "c=4")};
        EXPECT_EQ(2, Edit(items, kFindOnly));
        EXPECT_EQ(text, ReadFile(kFile));
        EXPECT_EQ(0, items[0].key_len);
        EXPECT_EQ(1, Edit({Item("c=", "c=4"), Item("d=", "")}, kFindOnly | kAppend))
            << "lines that would be added count";
        EXPECT_EQ(text, ReadFile(kFile));
    });
}

// The list of the kernel's file systems is searched like this.
TEST_F(ReplaceItemsInFile, FindsAFileSystemOfTheKernel) {
    if (access("/proc/filesystems", W_OK) != 0) {
        GTEST_SKIP() << "only root opens files of /proc for reading and writing";
    }
    Run("", [] {
        const auto find = [](const char *pKey) {
            return Edit({Item(pKey, "")}, kFindOnly | kSubstring, "/proc/filesystems");
        };
        EXPECT_EQ(1, find("\ttmpfs"));
        EXPECT_EQ(0, find("\tnosuchfs"));
    });
}

TEST_F(ReplaceItemsInFile, ShortensAFileToWhatIsLeft) {
    Run("keep\n" + std::string(9000, 'x') + "\ndelete\n", [] {
        EXPECT_EQ(1, Edit({Item("delete", "")}));
        EXPECT_EQ("keep\n" + std::string(9000, 'x') + "\n", ReadFile(kFile));
    });
    Run("delete\n", [] {
        EXPECT_EQ(1, Edit({Item("delete", "")}));
        EXPECT_EQ("", ReadFile(kFile));
        EXPECT_TRUE(fs::exists(kFile));
    });
}

TEST_F(ReplaceItemsInFile, CreatesAMissingFile) {
    Run("", [] {
        EXPECT_EQ(1, Edit({Item("a=", "a=1")}, kAppend, "/var/conf/new"));
        EXPECT_EQ("a=1\n", ReadFile("/var/conf/new"));
        EXPECT_EQ(0, Edit({Item("a=", "a=1")}, kNone, "/var/conf/other"));
        EXPECT_TRUE(fs::exists("/var/conf/other"));
    });
}

TEST_F(ReplaceItemsInFile, ChangesNothingWithoutItems) {
    Run("a=1\n", [] {
        EXPECT_EQ(0, Edit({}));
        tFileItemRequest request = {-1, 0, 0, 1, nullptr};
        EXPECT_EQ(0, COM_ReplaceItemsInFile(kFile, &request));
        EXPECT_EQ("a=1\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, FailsOnNull) {
    Run("a=1\n", [] {
        tFileItemRequest request = {1, 0, 0, 1, nullptr};
        EXPECT_EQ(-1, COM_ReplaceItemsInFile(kFile, &request));
        EXPECT_EQ(-1, COM_ReplaceItemsInFile(kFile, nullptr));
        EXPECT_EQ(-1, COM_ReplaceItemsInFile(nullptr, &request));
        EXPECT_EQ("a=1\n", ReadFile(kFile));
    });
}

TEST_F(ReplaceItemsInFile, EmptiesTheFileWhenThereIsNoPlaceForTheCopy) {
    RunInPrivateWorld(kMounts, [] {
        const TempDir dir;
        const std::string file = dir / "file";
        MountTmpfs("/var");
        RemountReadOnly("/var");
        const Lines log{
            "COMMON:COM_ReplaceItemsInFile(): mkstemp() failed : Read-only file "
            "system"};
        for (const int flags : {int{kNone}, int{kFindOnly}}) {
            WriteFile(file, "a=1\n");
            EXPECT_EQ(log, CaptureLog([&] {
                          EXPECT_EQ(-1, Edit({Item("a=", "a=2")}, flags, file.c_str()));
                      }));
            EXPECT_EQ(flags == kFindOnly ? "a=1\n" : "", ReadFile(file));
        }
    });
}

TEST_F(ReplaceItemsInFile, ReportsAFileThatCannotBeOpened) {
    Run("", [] {
        const std::string gone = "/var/gone/file";
        const std::string open = "COMMON:COM_ReplaceItemsInFile(): fopen(" + gone +
                                 ") failed : No such file or directory";
        EXPECT_EQ((Lines{open, "COMMON: truncate(" + gone + ") error : No such file or directory"}),
                  CaptureLog([&] { EXPECT_EQ(-1, Edit({Item("a", "b")}, kNone, gone.c_str())); }));
        EXPECT_EQ(Lines{open}, CaptureLog([&] {
                      EXPECT_EQ(-1, Edit({Item("a", "b")}, kFindOnly, gone.c_str()));
                  }));
        fs::create_directory("/var/fixed");
        MountTmpfs("/var/fixed");
        WriteFile("/var/fixed/file", "a=1\n");
        RemountReadOnly("/var/fixed");
        EXPECT_EQ(
            (Lines{"COMMON:COM_ReplaceItemsInFile(): fopen(/var/fixed/file) failed : "
                   "Read-only file system",
                   "COMMON: truncate(/var/fixed/file) error : Read-only file system"}),
            CaptureLog([] { EXPECT_EQ(-1, Edit({Item("a", "b")}, kNone, "/var/fixed/file")); }));
        EXPECT_EQ("a=1\n", ReadFile("/var/fixed/file"));
    });
}

TEST_F(ReplaceItemsInFile, EmptiesTheFileWhenTheCopyDoesNotFit) {
    RunInPrivateWorld(kMounts, [] {
        const TempDir dir;
        const std::string file = dir / "file";
        MountTmpfs("/var", "size=8k");
        std::string text;
        while (text.size() < 50000) {
            text += "line of a long file\n";
        }
        WriteFile(file, text);
        const std::string output =
            Capture([&] { EXPECT_EQ(-1, Edit({Item("a=", "a=2")}, kNone, file.c_str())); });
        EXPECT_NE(std::string::npos,
                  output.find(":COM_ReplaceItemsInFile(): fprintf() fail : /var/COM_"));
        const std::string error = " : No space left on device";  // without a newline
        ASSERT_LT(error.size(), output.size());
        EXPECT_EQ(error, output.substr(output.size() - error.size()));
        EXPECT_TRUE(fs::exists(file));
        EXPECT_EQ("", ReadFile(file));
        EXPECT_TRUE(fs::is_empty("/var"));
    });
}

TEST_F(ReplaceItemsInFile, EmptiesTheFileWhenTheResultDoesNotFit) {
    Run("", [] {
        fs::create_directory("/var/small");
        MountTmpfs("/var/small", "size=4k");
        const std::string file = "/var/small/file";
        WriteFile(file, "a\n" + std::string(4000, 'x') + "\n");
        EXPECT_EQ((Lines{"COMMON:COM_ReplaceItemsInFile(): fprintf() fail : " + file +
                         " : No space left on device"}),
                  CaptureLog([&] {
                      EXPECT_EQ(-1, Edit({Item("a", std::string(150, 'b').c_str())}, kNone,
                                         file.c_str()));
                  }));
        EXPECT_EQ("", ReadFile(file)) << "never half edited";
        EXPECT_TRUE(fs::exists(file));
    });
}

// A limit below the buffer of a stream is met when the copy is flushed, and again when it is
// closed.
TEST_F(ReplaceItemsInFile, ReportsAFileSizeLimitAsAFailedEdit) {
    std::string text;
    while (text.size() < 10240) {
        text += "line of a long file\n";
    }
    for (const off_t limit : {5, 8192}) {
        Run(text, [limit] {
            EXPECT_TRUE(UnderFileSizeLimit(limit, [] { return Edit({Item("a=", "a=2")}) == -1; }));
            EXPECT_EQ(0U, fs::file_size(kFile));
        });
    }
}

// ---- COM_ReallocAndCopyBuf ----

TEST(ReallocAndCopyBuf, BuildsATextPieceByPiece) {
    void *block = nullptr;
    EXPECT_EQ(static_cast<const void *>(block), nullptr);
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(4, &block, 0, "abc", 3));
    EXPECT_STREQ("abc", static_cast<char *>(block));
    void *const grown = COM_ReallocAndCopyBuf(7, &block, 3, "def", 3);
    EXPECT_EQ(grown, block);
    EXPECT_STREQ("abcdef", static_cast<char *>(block));
    free(block);
}

TEST(ReallocAndCopyBuf, ZeroesWhatTheCopyDoesNotFill) {
    void *block = malloc(16);
    memset(block, 'x', 16);
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(16, &block, 4, "ab", 2));
    EXPECT_EQ(0, memcmp(block, "xxxxab\0\0\0\0\0\0\0\0\0", 16));
    memset(block, 'x', 16);
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(16, &block, 14, nullptr, 2));
    EXPECT_EQ(0, memcmp(block, "xxxxxxxxxxxxxx\0", 16));
    free(block);
}

TEST(ReallocAndCopyBuf, CutsACopyThatWouldPassTheEnd) {
    void *block = nullptr;
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(4, &block, 2, "abcdef", 6));
    EXPECT_EQ(0, memcmp(static_cast<char *>(block) + 2, "ab", 2));
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(4, &block, 4, "z", 1));
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(4, &block, SIZE_MAX, "z", 1));
    EXPECT_EQ(0, memcmp(static_cast<char *>(block) + 2, "ab", 2));
    free(block);
}

TEST(ReallocAndCopyBuf, ShrinksAndKeepsABlockOfNoSize) {
    void *block = nullptr;
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(100, &block, 0, "abc", 3));
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(2, &block, 2, nullptr, 0));
    EXPECT_EQ(0, memcmp(block, "ab", 2));
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(0, &block, 0, "abc", 3)) << "still a block to free";
    free(block);
}

// Growing to 1 MiB moves the block with the source in it.
TEST(ReallocAndCopyBuf, CopiesFromInsideTheBlockItMoves) {
    constexpr size_t kBig = 1 << 20;
    void *block = nullptr;
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(8, &block, 0, "abcdefgh", 8));
    const char *inside = static_cast<const char *>(block) + 2;
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(kBig, &block, 8, inside, 6));
    EXPECT_STREQ("abcdefghcdefgh", static_cast<char *>(block));
    // Source and destination overlap.
    inside = static_cast<const char *>(block) + 1;
    ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(kBig, &block, 3, inside, 8));
    EXPECT_STREQ("abcbcdefghc", static_cast<char *>(block));
    free(block);
}

// The part of the source that the smaller block no longer has is not copied.
TEST(ReallocAndCopyBuf, CutsASourceThatTheSmallerBlockCuts) {
    for (const size_t at : {size_t{58}, size_t{63}, size_t{64}, size_t{2000}}) {
        void *block = nullptr;
        ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(4096, &block, 0, nullptr, 0));
        char *text = static_cast<char *>(block);
        memset(text, 'x', 4096);
        ASSERT_NE(nullptr, COM_ReallocAndCopyBuf(64, &block, 8, text + at, 32));
        text = static_cast<char *>(block);
        const size_t left = at < 64 ? 64 - at : 0;
        EXPECT_EQ(std::string(8 + left, 'x') + std::string(56 - left, '\0'), std::string(text, 64))
            << at;
        free(block);
    }
}

TEST(ReallocAndCopyBuf, FailsOnNull) {
    EXPECT_EQ(nullptr, COM_ReallocAndCopyBuf(4, nullptr, 0, "abc", 3));
}

// ---- COM_CloseFd ----

TEST(CloseFd, StoresMinusOneAndReturnsWhatCloseReturned) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int closed = fd;
    EXPECT_EQ(0, COM_CloseFd(&fd));
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(-1, COM_CloseFd(&fd)) << "there is no descriptor any more";
    fd = closed;
    errno = 0;
    EXPECT_EQ(-1, COM_CloseFd(&fd)) << "not open";
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(-1, COM_CloseFd(nullptr));
}

}  // namespace
