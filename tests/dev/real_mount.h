#ifndef TALVEK_TESTS_DEV_REAL_MOUNT_H
#define TALVEK_TESTS_DEV_REAL_MOUNT_H

// Real file systems on loop devices, in a private mount namespace.

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "dev/file_system.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/loop_device.h"
#include "support/private_world.h"

namespace talvek::test {

inline bool KernelKnows(const std::string &type) {
    return ReadFile("/proc/filesystems").find("\t" + type + "\n") != std::string::npos;
}

class RealMount : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        if (getuid() != 0) {
            GTEST_SKIP() << "needs root to attach loop devices";
        }
        if (!LoopDevicesWork(reason)) {
            GTEST_SKIP() << reason;
        }
    }

    // Runs `body` with mounts of its own, an empty /var for the images, and an empty /mnt.
    static void Run(const std::function<void()> &body) {
        RunInPrivateWorld(
            kMounts,
            [&] {
                MountTmpfs("/var");
                MountTmpfs("/mnt");
                CaptureLog(Dev_InitFsArray);
                body();
            },
            true);
    }

    static std::string MakeFileSystem(const std::string &type, long long megabytes) {
        const std::string image = "/var/" + type + ".img";
        MakeImage(image, megabytes << 20);
        if (type == "xfs") {
            RunCommand("mkfs.xfs -q " + image);
        } else {
            RunCommand("mke2fs -q -F -t " + type + " " + image);
        }
        return image;
    }
};

// An image with partitions 1 (empty), 2 (ext2) and 3 (ext4).
inline void MakePartitionedImage(const std::string &image) {
    MakeImage(image, 64 << 20);
    RunCommand(
        "printf 'start=2048,size=8192\\nstart=10240,size=16384\\nstart=26624,size=65536\\n' "
        "| sfdisk -q --label dos --no-tell-kernel " +
        image);
    for (const char *pPart : {"ext2 4096 5242880", "ext4 16384 13631488"}) {
        char type[8];
        long blocks;
        long offset;
        ASSERT_EQ(3, sscanf(pPart, "%7s %ld %ld", type, &blocks, &offset));
        RunCommand("mke2fs -q -F -t " + std::string{type} + " -b 1024 -E offset=" +
                   std::to_string(offset) + " " + image + " " + std::to_string(blocks));
    }
}

// Where the kernel does not read the partition table itself, partx adds the partitions.
inline void AddPartitions(const LoopDevice &loop) {
    if (!std::filesystem::exists(loop.path() + "p1")) {
        RunCommand("partx -a " + loop.path());
    }
}

}  // namespace talvek::test

#endif
