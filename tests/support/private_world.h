#ifndef TALVEK_TESTS_SUPPORT_PRIVATE_WORLD_H
#define TALVEK_TESTS_SUPPORT_PRIVATE_WORLD_H

#include <sys/types.h>

#include <functional>
#include <string>

// Files of the system replaced for one test: the body runs in a forked child with namespaces of its
// own, so that the product needs no path switches. A failed assertion in the child fails the test.

namespace talvek::test {

enum World : unsigned {
    kMounts = 1,    // own mounts (always)
    kNetwork = 2,   // own network: loopback alone, and down
    kHostname = 4,  // own host name
    kPids = 8,      // own process numbers: the body runs as process 2 with a fresh /proc
};

// Runs `body` in a child with the worlds asked for. Skips the test, with the reason, where the
// machine does not allow them; `needsRoot` says that the body does what only the real root may
// (mknod, loop devices), so that a user namespace will not do.
void RunInPrivateWorld(unsigned worlds, const std::function<void()> &body, bool needsRoot = false);

// For bodies in a private world.
// An empty writable directory over `dir`; the options are those of tmpfs(5).
void MountTmpfs(const std::string &dir, const std::string &options = "mode=755");
void RemountReadOnly(const std::string &dir);                         // what is mounted there
void WriteFile(const std::string &path, const std::string &content);  // makes directories too
std::string ReadFile(const std::string &path);  // empty when it cannot be read
mode_t ModeOf(const std::string &path);         // st_mode of stat
// A writable /etc that holds only the files that the C library looks for (passwd, group, hosts).
void FreshEtc();
// A directory of the test's own over `dir`, below which single files of /proc or /sys are made.
// The body sees nothing else of the old directory.
void ReplaceDir(const std::string &dir);
// ReplaceDir("/proc") that leaves the entry of each process itself, /proc/self, where it was, so
// that the descriptors can be counted and programs with sanitizers start.
void ReplaceProc();
// A root directory of the body's own with all the directories of the old one below it, in which new
// ones can be made. /mnt is empty in it.
void WritableRoot();

}  // namespace talvek::test

#endif
