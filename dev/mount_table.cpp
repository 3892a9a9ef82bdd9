// Look-ups in /proc/mounts and /proc/partitions.

#include "dev/mount_table.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <string_view>

#include "base/unique_fd.h"
#include "dev/internal/copy_text.h"
#include "dev/internal/module_log.h"
#include "dev/internal/mount_entry.h"

namespace talvek {
namespace {

constexpr const char *kPartitions = "/proc/partitions";

bool DeviceMatches(const char *pDevice, const char *pWanted, size_t n) {
    if (n == 0) {
        return strncmp(pDevice, pWanted, strlen(pWanted)) == 0;
    }
    return strncmp(pDevice, pWanted, n) == 0 && strnlen(pDevice, n) == strlen(pDevice);
}

int FindMountPoint(const char *pFunction, const char *pDev, char *pMountPoint, unsigned n) {
    if (pDev == nullptr || pMountPoint == nullptr) {
        LOG_AS(pFunction, "(%p, %p, %d) : Null ptr\n", static_cast<const void *>(pDev),
               static_cast<void *>(pMountPoint), static_cast<int>(n));
        return -1;
    }
    MountReader mounts{pFunction};
    for (MountLine line; mounts.Next(line);) {
        if (DeviceMatches(line.device, pDev, n)) {
            CopyText(pFunction, pMountPoint, DEV_MOUNT_TEXT_SIZE, line.mountPoint);
            return 0;
        }
    }
    return -1;
}

// The name of one line of /proc/partitions, which is "major minor #blocks name" with blanks before
// each number; empty for the heading and the blank line behind it.
std::string_view PartitionOfLine(std::string_view line) {
    std::string_view name;
    for (int field = 0; field < 4; ++field) {
        const size_t begin = line.find_first_not_of(" \t");
        if (begin == line.npos) {
            return {};
        }
        line.remove_prefix(begin);
        name = line.substr(0, line.find_first_of(" \t"));
        line.remove_prefix(name.size());
        if (field < 3 && name.find_first_not_of("0123456789") != name.npos) {
            return {};
        }
    }
    return name;
}

bool ListsPartition(std::string_view lines, std::string_view wanted) {
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        if (PartitionOfLine(line) == wanted) {
            return true;
        }
        lines.remove_prefix(line.size() < lines.size() ? line.size() + 1 : line.size());
    }
    return false;
}

}  // namespace
}  // namespace talvek

int Dev_nGetMPT(const char *pDev, char *pMountPoint, unsigned n) {
    return talvek::FindMountPoint(__func__, pDev, pMountPoint, n);
}

int Dev_GetMPT(const char *pDev, char *pMountPoint) {
    return talvek::FindMountPoint(__func__, pDev, pMountPoint, 0);
}

int Dev_GetDevViaMount(char *pDev, const char *pMountPoint) {
    if (pDev == nullptr || pMountPoint == nullptr) {
        LOG("(%p, %p) : Null ptr\n", static_cast<void *>(pDev),
            static_cast<const void *>(pMountPoint));
        return -1;
    }
    int result = -1;
    talvek::MountReader mounts{__func__};
    for (talvek::MountLine line; mounts.Next(line);) {
        if (strcmp(line.mountPoint, pMountPoint) == 0) {
            talvek::CopyText(__func__, pDev, DEV_MOUNT_TEXT_SIZE, line.device);
            result = 0;
        }
    }
    return result;
}

int Dev_GetEntryViaMtab(const char *pKey, tMountEntry *pEntry) {
    if (pKey == nullptr || pEntry == nullptr) {
        LOG("(%p, %p) : Null ptr\n", static_cast<const void *>(pKey), static_cast<void *>(pEntry));
        return -1;
    }
    talvek::CutFields cut;
    return talvek::FindMountEntry(pKey, *pEntry, cut) ? 0 : -1;
}

int Dev_CheckPartition(const char *pName) {
    if (pName == nullptr) {
        return -1;
    }
    const char *pSlash = strrchr(pName, '/');
    const std::string_view wanted = pSlash != nullptr ? pSlash + 1 : pName;
    if (wanted.empty()) {
        return -1;
    }
    const talvek::UniqueFd fd{open(talvek::kPartitions, O_RDONLY | O_CLOEXEC)};
    if (!fd) {
        LOG_ERRNO("open(%s) error : %s\n", talvek::kPartitions);
        return -1;
    }
    char block[4096];
    for (;;) {
        const ssize_t count = read(fd.get(), block, sizeof block);
        if (count <= 0) {
            if (count < 0) {
                LOG_ERRNO("read(%s) error : %s\n", talvek::kPartitions);
            }
            return -1;
        }
        // Whole lines only; the next read begins where the last of them ended. What fills a block
        // without an end of line is no line of this file.
        const std::string_view text{block, static_cast<size_t>(count)};
        const size_t lastEnd = text.rfind('\n');
        const std::string_view lines = lastEnd != text.npos ? text.substr(0, lastEnd + 1) : text;
        if (talvek::ListsPartition(lines, wanted)) {
            return 0;
        }
        const size_t left = text.size() - lines.size();
        if (left > 0 && lseek(fd.get(), -static_cast<off_t>(left), SEEK_CUR) == -1) {
            LOG_ERRNO("lseek(%s) error : %s\n", talvek::kPartitions);
            return -1;
        }
    }
}
