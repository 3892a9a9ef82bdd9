#include "support/private_world.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace talvek::test {
namespace {

constexpr int kCannot = 77;

bool PutText(const char *pPath, const std::string &text) {
    const int fd = open(pPath, O_WRONLY | O_CLOEXEC);
    const bool done = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
    close(fd);
    return done;
}

// Root keeps its powers over real devices; anybody else gets them over the new namespaces only.
bool Enter(unsigned worlds, std::string &reason) {
    int flags = CLONE_NEWNS;
    flags |= worlds & kNetwork ? CLONE_NEWNET : 0;
    flags |= worlds & kHostname ? CLONE_NEWUTS : 0;
    flags |= worlds & kPids ? CLONE_NEWPID : 0;
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (uid != 0) {
        flags |= CLONE_NEWUSER;
    }
    if (unshare(flags) != 0) {
        reason = std::string{"unshare : "} + strerror(errno);
        return false;
    }
    if (uid != 0 && (!PutText("/proc/self/setgroups", "deny") ||
                     !PutText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
                     !PutText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))) {
        reason = "the user namespace cannot be mapped";
        return false;
    }
    if (mount("none", "/", "none", MS_REC | MS_PRIVATE, "") != 0) {
        reason = std::string{"private mounts : "} + strerror(errno);
        return false;
    }
    return true;
}

// The first process of a new pid namespace only waits, so that the body is an ordinary process.
int RunAsSecondProcess(const std::function<int()> &run) {
    const pid_t first = fork();
    if (first == 0) {
        if (mount("proc", "/proc", "proc", 0, "") != 0) {
            _exit(kCannot);
        }
        const pid_t second = fork();
        if (second == 0) {
            _exit(run());
        }
        int status = -1;
        while (waitpid(second, &status, 0) == -1 && errno == EINTR) {
        }
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    }
    int status = -1;
    waitpid(first, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

void RunInPrivateWorld(unsigned worlds, const std::function<void()> &body, bool needsRoot) {
    if (needsRoot && getuid() != 0) {
        GTEST_SKIP() << "needs root: devices cannot be made or attached in a user namespace";
    }
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::string reason;
        if (!Enter(worlds, reason)) {
            printf("no private world: %s\n", reason.c_str());
            fflush(nullptr);
            _exit(kCannot);
        }
        const auto run = [&body] {
            // An exception must not carry the child out of here, into the rest of the tests.
            try {
                body();
            } catch (const std::exception &error) {
                ADD_FAILURE() << "the body threw: " << error.what();
            }
            fflush(nullptr);
            return ::testing::Test::HasFailure() ? 1 : 0;
        };
        _exit(worlds & kPids ? RunAsSecondProcess(run) : run());
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    if (WIFEXITED(status) && WEXITSTATUS(status) == kCannot) {
        GTEST_SKIP() << "this machine does not allow private namespaces";
    }
    EXPECT_TRUE(WIFEXITED(status)) << "the body was ended by signal " << WTERMSIG(status);
    EXPECT_EQ(0, WEXITSTATUS(status)) << "the body failed";
}

void MountTmpfs(const std::string &dir, const std::string &options) {
    ASSERT_EQ(0, mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()))
        << dir << " : " << strerror(errno);
}

void RemountReadOnly(const std::string &dir) {
    // The kernel does not read the type then, but valgrind does.
    ASSERT_EQ(0, mount(nullptr, dir.c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr))
        << dir << " : " << strerror(errno);
}

void ReplaceDir(const std::string &dir) {
    MountTmpfs(dir);
}

void ReplaceProc() {
    MountTmpfs("/mnt");
    ASSERT_EQ(0, mkdir("/mnt/real", 0755)) << strerror(errno);
    ASSERT_EQ(0, mount("/proc", "/mnt/real", nullptr, MS_BIND | MS_REC, nullptr))
        << strerror(errno);
    ASSERT_EQ(0, symlink("real/self", "/mnt/self"));
    ASSERT_EQ(0, mount("/mnt", "/proc", nullptr, MS_MOVE, nullptr)) << strerror(errno);
}

void WritableRoot() {
    const std::filesystem::path root{"/mnt"};
    MountTmpfs(root);
    // An emulator with a library root of its own lists that for "/".
    for (const auto &entry : std::filesystem::directory_iterator{"/proc/.."}) {
        const std::filesystem::path twin = root / entry.path().filename();
        if (entry.is_symlink()) {
            std::filesystem::copy_symlink(entry.path(), twin);
        } else if (entry.is_directory()) {
            std::filesystem::create_directory(twin);
            if (twin.filename() != root.filename()) {
                ASSERT_EQ(0, mount(entry.path().c_str(), twin.c_str(), nullptr, MS_BIND | MS_REC,
                                   nullptr))
                    << entry.path() << strerror(errno);
            }
        }
    }
    ASSERT_EQ(0, chroot(root.c_str())) << strerror(errno);
    ASSERT_EQ(0, chdir("/"));
}

void WriteFile(const std::string &path, const std::string &content) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path{path}.parent_path(), ignored);
    std::ofstream out{path, std::ios::binary | std::ios::trunc};
    out << content;
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

std::string ReadFile(const std::string &path) {
    std::ifstream in{path, std::ios::binary};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

mode_t ModeOf(const std::string &path) {
    struct stat st = {};
    EXPECT_EQ(0, stat(path.c_str(), &st)) << path;
    return st.st_mode;
}

void FreshEtc() {
    const std::string passwd = ReadFile("/etc/passwd");
    const std::string group = ReadFile("/etc/group");
    MountTmpfs("/etc");
    WriteFile("/etc/passwd", passwd);
    WriteFile("/etc/group", group);
    WriteFile("/etc/hosts", "127.0.0.1 localhost\n");
}

}  // namespace talvek::test
