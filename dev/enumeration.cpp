// Finds the disks and optical drives and pairs them with their SCSI generic nodes.

#include "dev/enumeration.h"

#include <fcntl.h>
#include <scsi/scsi.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "common/file_content.h"
#include "dev/disk_stat.h"
#include "dev/file_system.h"
#include "dev/internal/module_log.h"
#include "dev/internal/scsi_nodes.h"
#include "dev/scsi.h"

namespace {

using talvek::kCandidateNodes;
using talvek::UniqueFd;

const char *BusName(uint8_t busType) {
    constexpr std::array kNames = {"ATA", "USB", "IEEE-1394", "eSATA"};  // by DEV_BUS_...
    static_assert(kNames.size() == DEV_BUS_ESATA + 1);
    return busType < kNames.size() ? kNames[busType] : "unknown";
}

// A driver's text has the name of the bus at its beginning, or at offset 19, after "SCSI emulation
// for ". The rules are tried in this order.
struct HostRule {
    size_t offset;
    const char *text;
    uint8_t busType;
};
constexpr HostRule kHostRules[] = {
    {19, "USB", DEV_BUS_USB},
    {19, "IEEE-1394", DEV_BUS_IEEE1394},
    {0, "IEEE-1394", DEV_BUS_IEEE1394},
    {0, "usb-storage", DEV_BUS_USB},
};
constexpr size_t kHostTextSize = 512;

bool IsDiskPath(const char *pPath) {
    return strncmp(pPath, "/dev/sd", 7) == 0;
}

// Makes the node of disk n of the list: 16 disks a major number, 16 minor numbers a disk.
void EnsureDiskNode(const char *pPath, unsigned n) {
    constexpr unsigned kDisksPerMajor = 16;
    const unsigned major = n < kDisksPerMajor ? 8 : 65;
    COM_MakeNode(pPath, S_IFBLK | 0664, makedev(major, 16 * (n % kDisksPerMajor)));
}

uint8_t ReadBusType(const char *pFunction, int fd) {
    // The kernel reads the buffer's size from the first word, then writes the text over it.
    char text[kHostTextSize + 1];
    memset(text, ' ', kHostTextSize);
    text[kHostTextSize] = '\0';
    constexpr uint32_t kSize = kHostTextSize;
    memcpy(text, &kSize, sizeof kSize);
    if (ioctl(fd, SCSI_IOCTL_PROBE_HOST, text) < 0) {
        LOG_ERRNO_AS(pFunction, "ioctl(SCSI_IOCTL_PROBE_HOST) error : %s\n");
        return DEV_BUS_ATA;
    }
    for (const HostRule &rule : kHostRules) {
        if (talvek::BeginsIgnoringCase(text + rule.offset, rule.text, strlen(rule.text))) {
            return rule.busType;
        }
    }
    LOG_AS(pFunction, "Unknown host - string_buf = [%s]\n", text);
    return DEV_BUS_ATA;
}

// Unlike those of the other callers, these two lines do not show the error text.
bool ReadAddr(const char *pFunction, const char *pPath, int fd, tScsiAddr &addr) {
    return talvek::ReadScsiAddr(
        {pFunction, "get bus No. ioctl on %s failed\n", "get IDLUN ioctl on %s failed\n"}, pPath,
        fd, addr);
}

using SgMap = std::array<tSgMapEntry, DEV_MAX_DEVICES>;

const tSgMapEntry *FindPair(const SgMap &map, const tScsiAddr &addr) {
    for (const tSgMapEntry &row : map) {
        if (talvek::SameScsiAddr(row.scsiAddr, addr)) {
            return &row;
        }
    }
    return nullptr;
}

void ReadModel(const char *pFunction, tDevInfo &dev) {
    const UniqueFd fd{talvek::OpenPath(dev.sgPath, O_RDWR | O_NONBLOCK)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "open(%s) error : %s\n", dev.sgPath);
        return;
    }
    Dev_Inquiry(dev.devPath, fd.get(), dev.model);
}

// One enumeration: which of the paired devices it accepts, and after which one it ends.
struct Walk {
    const char *function;
    bool (*accept)(tDevInfo &dev);
    bool (*isLast)(const tDevInfo &dev);
};

bool AcceptMeasured(tDevInfo &dev) {
    if (!IsDiskPath(dev.devPath)) {
        dev.isOptical = 1;
        return true;
    }
    if (dev.ready == 0) {
        return false;
    }
    Dev_GetHDStat(&dev, DEV_FS_DETECT);
    return true;
}

bool AcceptUnmeasured(tDevInfo &dev) {
    return dev.ready == 1 || !IsDiskPath(dev.devPath);
}

bool Never(const tDevInfo & /*dev*/) {
    return false;
}

bool IsOnUsb(const tDevInfo &dev) {
    return dev.busType == DEV_BUS_USB;
}

// Fills the record of one node; true when it is a device that the walk accepts.
bool Examine(const Walk &walk, const char *pPath, const SgMap &map, tDevInfo &dev) {
    // Descriptor 0 counts as a failed open.
    const UniqueFd fd{talvek::OpenPath(pPath, O_RDONLY | O_NONBLOCK)};
    if (fd.get() < 1) {
        return false;
    }
    snprintf(dev.devPath, sizeof dev.devPath, "%s", pPath);
    if (!ReadAddr(walk.function, pPath, fd.get(), dev.scsiAddr)) {
        return false;
    }
    dev.busType = ReadBusType(walk.function, fd.get());
    const tSgMapEntry *pPair = FindPair(map, dev.scsiAddr);
    if (pPair == nullptr) {
        return false;
    }
    snprintf(dev.sgPath, sizeof dev.sgPath, "%s", pPair->sgPath);
    dev.ready = pPair->ready;
    if (!walk.accept(dev)) {
        return false;
    }
    ReadModel(walk.function, dev);
    return true;
}

int Enumerate(const Walk &walk, tDevInfo *pDevs) {
    if (pDevs == nullptr) {
        LOG_AS(walk.function, "(%p) : Null Ptr\n", static_cast<void *>(pDevs));
        return 0;
    }
    SgMap map;
    Dev_BuildSgMap(map.data());
    int count = 0;
    for (unsigned n = 0; kCandidateNodes[n] != nullptr && count < DEV_MAX_DEVICES; ++n) {
        if (IsDiskPath(kCandidateNodes[n])) {
            EnsureDiskNode(kCandidateNodes[n], n);
        }
        tDevInfo dev{};
        if (Examine(walk, kCandidateNodes[n], map, dev)) {
            pDevs[count++] = dev;
            if (walk.isLast(dev)) {
                break;
            }
        }
    }
    LOG_AS(walk.function, "Found %d devices\n", count);
    return count;
}

}  // namespace

int Dev_Get(tDevInfo *pDevs) {
    const talvek::CancelGuard guard;
    const int count = Enumerate({__func__, AcceptMeasured, Never}, pDevs);
    for (int i = 0; i < count; ++i) {
        const tDevInfo &dev = pDevs[i];
        // Sizes of a drive are 0: the enumeration does not identify the disc in it.
        const tDiskStat disk = dev.isOptical != 0 ? tDiskStat{} : dev.u.disk;
        printf("  pDev[%d] : %s : %s : %s : %s : %s : %s, %d,%d,%d,%d : %llu MB(%llu)\n", i,
               dev.model, dev.devPath, dev.sgPath, dev.ready != 0 ? "Ready" : "Not Ready",
               dev.isOptical != 0 ? "CD-ROM" : "HDD", BusName(dev.busType),
               static_cast<int>(dev.scsiAddr.host), static_cast<int>(dev.scsiAddr.channel),
               static_cast<int>(dev.scsiAddr.id), static_cast<int>(dev.scsiAddr.lun),
               static_cast<unsigned long long>(disk.freeBytes >> 20),
               static_cast<unsigned long long>(disk.deviceBytes >> 20));
    }
    fflush(stdout);
    return count;
}

int Dev_GetUSBFlashDevice(tDevInfo *pDevs) {
    const talvek::CancelGuard guard;
    const int count = Enumerate({__func__, AcceptUnmeasured, IsOnUsb}, pDevs);
    for (int i = 0; i < count; ++i) {
        printf("  pDev[%d] : %s : %s : %s \n", i, pDevs[i].model, pDevs[i].devPath,
               BusName(pDevs[i].busType));
    }
    fflush(stdout);
    return count;
}

int Dev_BuildSgMap(tSgMapEntry *pMap) {
    const talvek::CancelGuard guard;
    if (pMap == nullptr) {
        LOG("(%p) : Null Ptr\n", static_cast<void *>(pMap));
        return 0;
    }
    memset(pMap, 0, DEV_MAX_DEVICES * sizeof pMap[0]);
    int ready = 0;
    talvek::SgNodes nodes;
    for (unsigned k = 0; k < DEV_MAX_DEVICES; ++k) {
        tSgMapEntry &row = pMap[k];
        // No device has this address.
        memset(&row.scsiAddr, 0xFF, sizeof row.scsiAddr);
        const UniqueFd fd{nodes.Open(k, row.sgPath)};
        if (fd && talvek::ReadScsiAddr(
                      {__func__, "get bus no on %s failed : %s\n", "get IDLUN on %s failed : %s\n"},
                      row.sgPath, fd.get(), row.scsiAddr)) {
            row.ready = Dev_TestUnitReady(row.sgPath, fd.get()) == DEV_QUERY_OK ? 1 : 0;
            ready += row.ready;
        }
    }
    return ready;
}
