#ifndef TALVEK_TESTS_DEV_FAULT_DISKS_H
#define TALVEK_TESTS_DEV_FAULT_DISKS_H

// Disks that need no loop device, for tests in which calls of the C library fail.

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <functional>
#include <string>

#include "support/private_world.h"

namespace talvek::test {

// Runs `body` in a world with a disk /dev/sda1 that is not mounted. tmpfs is the only file system,
// so that any name can be mounted, /dev/md1 for example. /run/partitions is /proc/partitions.
inline void WithDisks(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        MountTmpfs("/var");
        MountTmpfs("/mnt");
        // Only single files are replaced: the harness itself needs the rest of /proc.
        MountTmpfs("/run");
        WriteFile("/run/partitions", "major minor  #blocks  name\n\n8 1 9 sda1\n");
        WriteFile("/run/filesystems", "nodev\ttmpfs\n");
        for (const char *pName : {"partitions", "filesystems"}) {
            ASSERT_EQ(0, mount((std::string{"/run/"} + pName).c_str(),
                               (std::string{"/proc/"} + pName).c_str(), nullptr, MS_BIND, nullptr));
        }
        body();
    });
}

}  // namespace talvek::test

#endif
