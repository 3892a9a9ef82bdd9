// Names of device nodes: from one kind of node to the other, and from device numbers.

#include "dev/naming.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "dev/internal/copy_bounded.h"
#include "dev/internal/module_log.h"
#include "dev/internal/scsi_nodes.h"

namespace {

using talvek::SgNodes;
using talvek::UniqueFd;

// SCSI disks: 16 minor numbers a disk, 16 disks a major number.
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

// The kernel's own name: the last component of the link, in which the kernel writes '!' for '/'.
bool NameOfKernel(int major, int minor, char *pName, size_t size) {
    char link[64];
    snprintf(link, sizeof link, "/sys/dev/block/%d:%d", major, minor);
    char target[DEV_NODE_NAME_SIZE - sizeof "/dev/"];
    const ssize_t length = readlink(link, target, sizeof target);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof target) {
        return false;
    }
    target[length] = '\0';
    snprintf(pName, size, "/dev/%s", talvek::LastComponent(target));
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

// A translation from one kind of node to the other.
struct Translation {
    const char *function;
    const char *from;
    int openFlags;  // of `from`
    char *to;
    size_t size;
    unsigned count;  // how many nodes to try
    // Opens node k and writes its name (DEV_INFO_PATH_SIZE bytes).
    int (*openNode)(SgNodes &nodes, unsigned k, char *pName);
};

int OpenCandidate(SgNodes & /*nodes*/, unsigned k, char *pName) {
    snprintf(pName, DEV_INFO_PATH_SIZE, "%s", talvek::kCandidateNodes[k]);
    return talvek::OpenPath(pName, O_RDONLY | O_NONBLOCK);
}

int OpenGeneric(SgNodes &nodes, unsigned k, char *pName) {
    return nodes.Open(k, pName);
}

bool ReadAddr(const Translation &what, const char *pPath, int fd, tScsiAddr &addr) {
    return talvek::ReadScsiAddr(
        {what.function, "get bus No. on %s failed : %s\n", "get IDLUN on %s failed : %s\n"}, pPath,
        fd, addr);
}

bool ReadWantedAddr(const Translation &what, tScsiAddr &addr) {
    if (what.from == nullptr || what.to == nullptr || what.size == 0) {
        LOG_AS(what.function, "(%p, %p) : Null ptr\n", static_cast<const void *>(what.from),
               static_cast<void *>(what.to));
        return false;
    }
    const UniqueFd fd{talvek::OpenPath(what.from, what.openFlags | O_NONBLOCK)};
    if (!fd) {
        LOG_ERRNO_AS(what.function, "open(%s) error : %s\n", what.from);
        return false;
    }
    return ReadAddr(what, what.from, fd.get(), addr);
}

// Stores the name of the first node that has the address of `what.from`.
int Translate(const Translation &what) {
    const talvek::CancelGuard guard;
    tScsiAddr wanted{};
    if (!ReadWantedAddr(what, wanted)) {
        return -1;
    }
    SgNodes nodes;
    for (unsigned k = 0; k < what.count; ++k) {
        char name[DEV_INFO_PATH_SIZE];
        const UniqueFd fd{what.openNode(nodes, k, name)};
        tScsiAddr addr{};
        if (fd && ReadAddr(what, name, fd.get(), addr) && talvek::SameScsiAddr(addr, wanted)) {
            talvek::CopyBounded(what.function, what.to, what.size, name);
            return 0;
        }
    }
    return -1;
}

}  // namespace

void Dev_MakeDevName(char *pDst, unsigned k, int numeric) {
    if (pDst == nullptr) {
        return;
    }
    if (numeric != DEV_SG_LETTERS) {
        snprintf(pDst, DEV_INFO_PATH_SIZE, "/dev/sg%d", static_cast<int>(k));
    } else if (k < 26) {
        snprintf(pDst, DEV_INFO_PATH_SIZE, "/dev/sg%c", static_cast<char>('a' + k));
    } else {
        LOG("k = %d, out of range\n", static_cast<int>(k));
        snprintf(pDst, DEV_INFO_PATH_SIZE, "/dev/sgxx");
    }
}

int Dev_SgToSd(const char *pSgPath, char *pSdPath, size_t size) {
    return Translate(
        {__func__, pSgPath, O_RDWR, pSdPath, size, talvek::kCandidateNodeCount, OpenCandidate});
}

int Dev_SdToSg(const char *pSdPath, char *pSgPath, size_t size) {
    return Translate({__func__, pSdPath, O_RDONLY, pSgPath, size, DEV_MAX_DEVICES, OpenGeneric});
}

int Dev_ConvertMajorMinor(int major, int minor, char *pName, size_t size) {
    const talvek::CancelGuard guard;
    char name[DEV_NODE_NAME_SIZE];
    if (pName == nullptr || size == 0 || !NodeName(major, minor, name, sizeof name)) {
        LOG("invalid (major, minor) = (%d, %d)\n", major, minor);
        return -1;
    }
    talvek::CopyBounded(__func__, pName, size, name);
    return 0;
}
