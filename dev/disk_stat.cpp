// The size of a disk and the space on its file system.

#include "dev/disk_stat.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_fd.h"
#include "dev/internal/copy_bounded.h"
#include "dev/internal/module_log.h"
#include "dev/mount.h"
#include "dev/mount_table.h"

namespace {

using talvek::ScopeExit;

constexpr const char *kFunction = "Dev_GetHDStat";
constexpr char kDirTemplate[] = "/var/Dev_GetHDStat_XXXXXX";
constexpr uint64_t kSectorSize = 512;

uint64_t DeviceBytes(const char *pDevPath) {
    const talvek::UniqueFd fd{talvek::OpenPath(pDevPath, O_RDONLY)};
    if (!fd) {
        LOG_ERRNO_AS(kFunction, "open(%s) failed : %s\n", pDevPath);
        return 0;
    }
    uint64_t bytes = 0;
    if (ioctl(fd.get(), BLKGETSIZE64, &bytes) != -1) {
        return bytes;
    }
    LOG_ERRNO_AS(kFunction, "ioctl(BLKGETSIZE64, %s) error : %s\n", pDevPath);
    unsigned long sectors = 0;
    if (ioctl(fd.get(), BLKGETSIZE, &sectors) != -1) {
        return sectors * kSectorSize;
    }
    LOG_ERRNO_AS(kFunction, "ioctl(BLKGETSIZE, %s) error : %s\n", pDevPath);
    return 0;
}

uint32_t Bounded(uint64_t count) {
    return static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX));
}

bool MeasureFileSystem(const char *pMountPoint, tDevInfo &dev) {
    struct statfs st;
    if (statfs(pMountPoint, &st) != 0) {
        LOG_ERRNO_AS(kFunction, "statfs(%s, %s) error : %s\n", dev.devPath, pMountPoint);
        return false;
    }
    tDiskStat &disk = dev.u.disk;
    const auto blockSize = static_cast<uint64_t>(st.f_bsize);
    disk.fsType = static_cast<uint32_t>(st.f_type);
    disk.blockSize = Bounded(blockSize);
    disk.freeBlocks = Bounded(st.f_bfree);
    disk.totalBlocks = Bounded(st.f_blocks);
    disk.totalBytes = blockSize * st.f_blocks;
    disk.freeBytes = blockSize * st.f_bfree;
    return true;
}

int MeasureThroughOwnMount(tDevInfo &dev, unsigned fsIndex) {
    char dir[sizeof kDirTemplate];
    memcpy(dir, kDirTemplate, sizeof dir);
    if (mkdtemp(dir) == nullptr) {
        LOG_ERRNO_AS(kFunction, "mkdtemp(%s) error : %s\n", kDirTemplate);
        return DEV_HD_STAT_FAILED;
    }
    const ScopeExit removeDir{[&dir] {
        if (rmdir(dir) != 0) {
            LOG_ERRNO_AS(kFunction, "rmdir(%s) error : %s\n", dir);
        }
    }};
    if (Dev_Mount(dev.devPath, dir, fsIndex) != 0) {
        return DEV_HD_STAT_FAILED;
    }
    const ScopeExit unmount{[&dir] {
        // A mount that another process uses is detached: that process keeps it, and the directory
        // can be removed.
        if (Dev_uMount(dir) != 0) {
            umount2(dir, MNT_DETACH);
        }
    }};
    return MeasureFileSystem(dir, dev) ? DEV_HD_STAT_OWN_MOUNT : DEV_HD_STAT_FAILED;
}

}  // namespace

int Dev_GetHDStat(tDevInfo *pDev, unsigned fsIndex) {
    const talvek::CancelGuard guard;
    if (pDev == nullptr) {
        LOG("(%p) : Null ptr\n", static_cast<void *>(pDev));
        return DEV_HD_STAT_FAILED;
    }
    if (strstr(pDev->devPath, "/dev/md") == nullptr) {
        pDev->u.disk.deviceBytes = DeviceBytes(pDev->devPath);
    }
    char mountPoint[DEV_MOUNT_TEXT_SIZE];
    if (Dev_nGetMPT(pDev->devPath, mountPoint, DEV_MPT_PREFIX) != 0) {
        pDev->mountPoint[0] = '\0';
        return MeasureThroughOwnMount(*pDev, fsIndex);
    }
    talvek::CopyBounded(__func__, pDev->mountPoint, sizeof pDev->mountPoint, mountPoint);
    return MeasureFileSystem(mountPoint, *pDev) ? DEV_HD_STAT_MOUNTED : DEV_HD_STAT_FAILED;
}
