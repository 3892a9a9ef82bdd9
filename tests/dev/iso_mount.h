#ifndef TALVEK_TESTS_DEV_ISO_MOUNT_H
#define TALVEK_TESTS_DEV_ISO_MOUNT_H

// Defines mount in the program that includes it. A mount of an ISO 9660 file system, which not
// every kernel has, is recorded and mounts a tmpfs of a given size. Other mounts, unmounting and
// statfs go to the kernel.

#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace talvek::test {

struct IsoMount {
    std::string source;
    std::string dir;
    unsigned long flags;
    bool hasData;
};

inline std::vector<IsoMount> g_isoMounts;
inline std::string g_isoSize = "size=8m";  // of the next file system
inline int g_isoError = 0;                 // errno of the next mounts; 0: success

}  // namespace talvek::test

extern "C" int mount(const char *source, const char *dir, const char *type, unsigned long flags,
                     const void *data) noexcept {
    using namespace talvek::test;
    if (type == nullptr || strcmp(type, "iso9660") != 0) {
        return static_cast<int>(syscall(SYS_mount, source, dir, type, flags, data));
    }
    g_isoMounts.push_back({source, dir, flags, data != nullptr});
    if (g_isoError != 0) {
        errno = g_isoError;
        return -1;
    }
    return static_cast<int>(
        syscall(SYS_mount, "tmpfs", dir, "tmpfs", flags & MS_RDONLY, g_isoSize.c_str()));
}

#endif
