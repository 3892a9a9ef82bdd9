// Look-ups in /proc/mounts and /proc/partitions.

#include "dev/mount_table.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "dev/internal/copy_bounded.h"
#include "dev/internal/module_log.h"
#include "dev/internal/mount_entry.h"

namespace {

using talvek::CopyBounded;
using talvek::MountLine;
using talvek::MountReader;

constexpr const char *kPartitions = "/proc/partitions";
constexpr size_t kBlockSize = 1024;

bool DeviceMatches(const char *pDevice, const char *pWanted, unsigned n) {
    if (n == DEV_MPT_PREFIX) {
        return strncmp(pDevice, pWanted, strlen(pWanted)) == 0;
    }
    return strncmp(pDevice, pWanted, n) == 0 && strlen(pDevice) <= n;
}

int FindMountPoint(const char *pFunction, const char *pDev, char *pMountPoint, unsigned n) {
    const talvek::CancelGuard guard;
    if (pDev == nullptr || pMountPoint == nullptr) {
        LOG_AS(pFunction, "(%p, %p, %d) : Null ptr\n", static_cast<const void *>(pDev),
               static_cast<void *>(pMountPoint), static_cast<int>(n));
        return -1;
    }
    MountReader mounts{pFunction};
    for (MountLine line; mounts.Next(line);) {
        if (DeviceMatches(line.device, pDev, n)) {
            CopyBounded(pFunction, pMountPoint, DEV_MOUNT_TEXT_SIZE, line.mountPoint);
            return 0;
        }
    }
    return -1;
}

// Whether a line of /proc/partitions, "major minor #blocks name", is that of the partition
// `pWanted`. The heading and the empty line after it have no numbers.
bool HasPartition(const char *pLine, const char *pWanted) {
    constexpr const char *kBlanks = " \t";
    for (int number = 0; number < 3; ++number) {
        pLine += strspn(pLine, kBlanks);
        const size_t digits = strspn(pLine, "0123456789");
        pLine += digits;
        if (digits == 0 || strspn(pLine, kBlanks) == 0) {
            return false;
        }
    }
    pLine += strspn(pLine, kBlanks);
    const size_t length = strcspn(pLine, kBlanks);
    return length == strlen(pWanted) && strncmp(pLine, pWanted, length) == 0;
}

bool HavePartition(char *pLines, const char *pWanted) {
    while (const char *pLine = strsep(&pLines, "\n")) {
        if (HasPartition(pLine, pWanted)) {
            return true;
        }
    }
    return false;
}

// The length of the complete lines of a block, or of the block when it has no newline.
size_t WholeLines(const char *pBlock, size_t size) {
    const void *pEnd = memrchr(pBlock, '\n', size);
    return pEnd != nullptr ? static_cast<size_t>(static_cast<const char *>(pEnd) - pBlock) + 1
                           : size;
}

}  // namespace

int Dev_nGetMPT(const char *pDev, char *pMountPoint, unsigned n) {
    return FindMountPoint(__func__, pDev, pMountPoint, n);
}

int Dev_GetMPT(const char *pDev, char *pMountPoint) {
    return FindMountPoint(__func__, pDev, pMountPoint, DEV_MPT_PREFIX);
}

int Dev_GetDevViaMount(char *pDev, const char *pMountPoint) {
    const talvek::CancelGuard guard;
    if (pDev == nullptr || pMountPoint == nullptr) {
        LOG("(%p, %p) : Null ptr\n", static_cast<void *>(pDev),
            static_cast<const void *>(pMountPoint));
        return -1;
    }
    int result = -1;
    MountReader mounts{__func__};
    for (MountLine line; mounts.Next(line);) {
        if (strcmp(line.mountPoint, pMountPoint) == 0) {
            CopyBounded(__func__, pDev, DEV_MOUNT_TEXT_SIZE, line.device);
            result = 0;
        }
    }
    return result;
}

int Dev_GetEntryViaMtab(const char *pKey, tMountEntry *pEntry) {
    const talvek::CancelGuard guard;
    if (pKey == nullptr || pEntry == nullptr) {
        LOG("(%p, %p) : Null ptr\n", static_cast<const void *>(pKey), static_cast<void *>(pEntry));
        return -1;
    }
    talvek::CutFields cut;
    return talvek::FindMountEntry(pKey, *pEntry, cut) ? 0 : -1;
}

int Dev_CheckPartition(const char *pName) {
    const talvek::CancelGuard guard;
    const char *pWanted = pName != nullptr ? talvek::LastComponent(pName) : "";
    if (*pWanted == '\0') {
        return -1;
    }
    const talvek::UniqueFd fd{talvek::OpenPath(kPartitions, O_RDONLY)};
    if (!fd) {
        LOG_ERRNO("open(%s) error : %s\n", kPartitions);
        return -1;
    }
    char block[kBlockSize + 1];
    for (;;) {
        const ssize_t count = read(fd.get(), block, kBlockSize);
        if (count < 0) {
            LOG_ERRNO("read(%s) error : %s\n", kPartitions);
        }
        if (count <= 0) {
            return -1;
        }
        // The next read begins after the last whole line.
        const size_t length = WholeLines(block, static_cast<size_t>(count));
        block[length] = '\0';
        if (HavePartition(block, pWanted)) {
            return 0;
        }
        const off_t left = count - static_cast<off_t>(length);
        if (left > 0 && lseek(fd.get(), -left, SEEK_CUR) == -1) {
            LOG_ERRNO("lseek(%s) error : %s\n", kPartitions);
            return -1;
        }
    }
}
