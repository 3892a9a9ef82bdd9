// Names of device nodes: from one kind of node to the other, and from device numbers.

#include "dev/naming.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/unique_fd.h"
#include "dev/device.h"
#include "dev/internal/copy_text.h"
#include "dev/internal/module_log.h"
#include "dev/internal/scsi_nodes.h"

namespace talvek {
namespace {

bool ReadAddrOrLog(const char *pFunction, const char *pPath, int fd, tScsiAddr &addr) {
    switch (ReadScsiAddr(fd, addr)) {
        case AddressStep::kDone:
            return true;
        case AddressStep::kBusNumber:
            LOG_ERRNO_AS(pFunction, "get bus No. on %s failed : %s\n", pPath);
            return false;
        case AddressStep::kIdLun:
            LOG_ERRNO_AS(pFunction, "get IDLUN on %s failed : %s\n", pPath);
            return false;
    }
    return false;
}

// The key of the node that is to be translated.
bool ReadOwnAddr(const char *pFunction, const char *pPath, int flags, tScsiAddr &addr) {
    const UniqueFd fd{open(pPath, flags | O_NONBLOCK | O_CLOEXEC)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "open(%s) error : %s\n", pPath);
        return false;
    }
    return ReadAddrOrLog(pFunction, pPath, fd.get(), addr);
}

// SCSI disks have 16 minors each, 16 disks a major.
constexpr int kMinorsPerDisk = 16;
constexpr int kDisksPerMajor = 16;
constexpr int kScsiDiskMajors[] = {8,   65,  66,  67,  68,  69,  70,  71,
                                   128, 129, 130, 131, 132, 133, 134, 135};
constexpr int kLoopMajor = 7;
constexpr int kCdRomMajor = 11;
constexpr int kMaxDriveMinor = 255;
constexpr int kMaxMinor = (1 << 20) - 1;

// "a" to "z" for disks 0 to 25, "aa" for 26.
void DiskLetters(int disk, char (&letters)[3]) {
    if (disk < 26) {
        letters[0] = static_cast<char>('a' + disk);
        letters[1] = '\0';
    } else {
        letters[0] = static_cast<char>('a' + disk / 26 - 1);
        letters[1] = static_cast<char>('a' + disk % 26);
        letters[2] = '\0';
    }
}

bool ScsiDiskName(int major, int minor, char *pName, size_t size) {
    const auto *pMajor = std::find(std::begin(kScsiDiskMajors), std::end(kScsiDiskMajors), major);
    if (pMajor == std::end(kScsiDiskMajors) || minor >= kDisksPerMajor * kMinorsPerDisk) {
        return false;
    }
    const auto group = static_cast<int>(pMajor - std::begin(kScsiDiskMajors));
    char letters[3];
    DiskLetters(group * kDisksPerMajor + minor / kMinorsPerDisk, letters);
    const int partition = minor % kMinorsPerDisk;
    if (partition == 0) {
        snprintf(pName, size, "/dev/sd%s", letters);
    } else {
        snprintf(pName, size, "/dev/sd%s%d", letters, partition);
    }
    return true;
}

// The kernel's own name: the last component of the link, in which a '!' stands for a slash.
bool NameOfKernel(int major, int minor, char *pName, size_t size) {
    char link[64];
    snprintf(link, sizeof link, "/sys/dev/block/%d:%d", major, minor);
    char target[DEV_NODE_NAME_SIZE - sizeof "/dev/"];
    const ssize_t length = readlink(link, target, sizeof target);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof target) {
        return false;
    }
    target[length] = '\0';
    const char *pSlash = strrchr(target, '/');
    snprintf(pName, size, "/dev/%s", pSlash != nullptr ? pSlash + 1 : target);
    std::replace(pName, pName + strlen(pName), '!', '/');
    return true;
}

bool NodeName(int major, int minor, char *pName, size_t size) {
    if (major < 0 || minor < 0 || minor > kMaxMinor) {
        return false;
    }
    if (ScsiDiskName(major, minor, pName, size)) {
        return true;
    }
    if (major == kCdRomMajor && minor <= kMaxDriveMinor) {
        snprintf(pName, size, "/dev/sr%d", minor);
        return true;
    }
    if (major == kLoopMajor) {
        snprintf(pName, size, "/dev/loop%d", minor);
        return true;
    }
    return NameOfKernel(major, minor, pName, size);
}

bool HaveArguments(const char *pFunction, const char *pFrom, const char *pTo, size_t size) {
    if (pFrom == nullptr || pTo == nullptr || size == 0) {
        LOG_AS(pFunction, "(%p, %p) : Null ptr\n", static_cast<const void *>(pFrom),
               static_cast<const void *>(pTo));
        return false;
    }
    return true;
}

}  // namespace
}  // namespace talvek

void Dev_MakeDevName(char *dst, unsigned k, int numeric) {
    constexpr size_t kSize = sizeof(tSgMapEntry::sgPath);
    if (dst == nullptr) {
        return;
    }
    if (numeric) {
        snprintf(dst, kSize, "/dev/sg%d", static_cast<int>(k));
    } else if (k < 26) {
        snprintf(dst, kSize, "/dev/sg%c", static_cast<char>('a' + k));
    } else {
        LOG("k = %d, out of range\n", static_cast<int>(k));
        snprintf(dst, kSize, "/dev/sgxx");
    }
}

int Dev_SgToSd(const char *pSgPath, char *pSdPath, size_t size) {
    using namespace talvek;
    tScsiAddr wanted{};
    if (!HaveArguments(__func__, pSgPath, pSdPath, size) ||
        !ReadOwnAddr(__func__, pSgPath, O_RDWR, wanted)) {
        return -1;
    }
    for (const char *const *ppNode = kCandidateNodes; *ppNode != nullptr; ++ppNode) {
        const UniqueFd fd{open(*ppNode, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
        tScsiAddr addr{};
        if (fd && ReadAddrOrLog(__func__, *ppNode, fd.get(), addr) && SameScsiAddr(addr, wanted)) {
            CopyText(__func__, pSdPath, size, *ppNode);
            return 0;
        }
    }
    return -1;
}

int Dev_SdToSg(const char *pSdPath, char *pSgPath, size_t size) {
    using namespace talvek;
    tScsiAddr wanted{};
    if (!HaveArguments(__func__, pSdPath, pSgPath, size) ||
        !ReadOwnAddr(__func__, pSdPath, O_RDONLY, wanted)) {
        return -1;
    }
    SgNodes nodes;
    for (unsigned k = 0; k < DEV_MAX_DEVICES; ++k) {
        char name[sizeof(tSgMapEntry::sgPath)];
        const UniqueFd fd{nodes.Open(k, name)};
        tScsiAddr addr{};
        if (fd && ReadAddrOrLog(__func__, name, fd.get(), addr) && SameScsiAddr(addr, wanted)) {
            CopyText(__func__, pSgPath, size, name);
            return 0;
        }
    }
    return -1;
}

int Dev_ConvertMajorMinor(int major, int minor, char *pName, size_t size) {
    using namespace talvek;
    char name[DEV_NODE_NAME_SIZE];
    if (pName == nullptr || size == 0 || !NodeName(major, minor, name, sizeof name)) {
        LOG("invalid (major, minor) = (%d, %d)\n", major, minor);
        return -1;
    }
    CopyText(__func__, pName, size, name);
    return 0;
}
