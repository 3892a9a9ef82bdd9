// Finds the disks and optical drives and pairs them with their SCSI generic nodes.

#include "dev/enumeration.h"

#include <errno.h>
#include <fcntl.h>
#include <scsi/scsi.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "base/characters.h"
#include "base/unique_fd.h"
#include "common/file_content.h"
#include "dev/disk_stat.h"
#include "dev/file_system.h"
#include "dev/internal/module_log.h"
#include "dev/internal/scsi_nodes.h"
#include "dev/scsi.h"

namespace talvek {
namespace {

enum BusType : uint8_t { kAta, kUsb, kIeee1394, kEsata };

const char *BusName(uint8_t busType) {
    constexpr const char *kNames[] = {"ATA", "USB", "IEEE-1394", "eSATA"};
    return busType < sizeof kNames / sizeof kNames[0] ? kNames[busType] : "unknown";
}

// A driver's text tells the bus at its beginning or behind "SCSI emulation for ". The rules are
// tried in this order.
struct HostRule {
    size_t offset;
    const char *text;
    BusType busType;
};
constexpr HostRule kHostRules[] = {
    {19, "USB", kUsb},
    {19, "IEEE-1394", kIeee1394},
    {0, "IEEE-1394", kIeee1394},
    {0, "usb-storage", kUsb},
};
constexpr size_t kHostTextSize = 512;

bool IsDiskPath(const char *pPath) {
    return strncmp(pPath, "/dev/sd", 7) == 0;
}

// A disk's node by its place n in the list: 16 disks a major number, 16 minor numbers a disk.
void EnsureDiskNode(const char *pPath, unsigned n) {
    constexpr unsigned kDisksPerMajor = 16;
    const unsigned major = n < kDisksPerMajor ? 8 : 65;
    COM_MakeNode(pPath, S_IFBLK | 0664, makedev(major, 16 * (n % kDisksPerMajor)));
}

uint8_t ReadBusType(const char *pFunction, int fd) {
    // The kernel takes the first word as the size of the buffer and puts the text over it.
    char text[kHostTextSize + 1];
    memset(text, ' ', kHostTextSize);
    text[kHostTextSize] = '\0';
    constexpr uint32_t kSize = kHostTextSize;
    memcpy(text, &kSize, sizeof kSize);
    if (ioctl(fd, SCSI_IOCTL_PROBE_HOST, text) < 0) {
        LOG_ERRNO_AS(pFunction, "ioctl(SCSI_IOCTL_PROBE_HOST) error : %s\n");
        return kAta;
    }
    for (const HostRule &rule : kHostRules) {
        if (BeginsIgnoringCase(text + rule.offset, rule.text, strlen(rule.text))) {
            return rule.busType;
        }
    }
    LOG_AS(pFunction, "Unknown host - string_buf = [%s]\n", text);
    return kAta;
}

bool ReadAddr(const char *pFunction, const char *pPath, int fd, tScsiAddr &addr) {
    switch (ReadScsiAddr(fd, addr)) {
        case AddressStep::kDone:
            return true;
        case AddressStep::kBusNumber:
            LOG_AS(pFunction, "get bus No. ioctl on %s failed\n", pPath);
            return false;
        case AddressStep::kIdLun:
            LOG_AS(pFunction, "get IDLUN ioctl on %s failed\n", pPath);
            return false;
    }
    return false;
}

const tSgMapEntry *FindPair(const tSgMapEntry *map, const tScsiAddr &addr) {
    for (int i = 0; i < DEV_MAX_DEVICES; ++i) {
        if (SameScsiAddr(map[i].scsiAddr, addr)) {
            return &map[i];
        }
    }
    return nullptr;
}

void ReadModel(const char *pFunction, tDevInfo &dev) {
    const UniqueFd fd{open(dev.sgPath, O_RDWR | O_NONBLOCK | O_CLOEXEC)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "open(%s) error : %s\n", dev.sgPath);
        return;
    }
    Dev_Inquiry(dev.devPath, fd.get(), dev.model);
}

// One enumeration: which of the paired devices it takes and where it ends.
struct Walk {
    const char *function;
    bool (*take)(tDevInfo &dev);
    bool (*isLast)(const tDevInfo &dev);
};

bool TakeMeasured(tDevInfo &dev) {
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

bool TakeAsIs(tDevInfo &dev) {
    return dev.ready == 1 || !IsDiskPath(dev.devPath);
}

bool Never(const tDevInfo &) {
    return false;
}

bool IsOnUsb(const tDevInfo &dev) {
    return dev.busType == kUsb;
}

// Looks at one node; true when it is a device that the walk takes.
bool Examine(const Walk &walk, const char *pPath, const tSgMapEntry *map, tDevInfo &dev) {
    // Descriptor 0 counts as a failed open.
    const UniqueFd fd{open(pPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
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
    if (!walk.take(dev)) {
        return false;
    }
    ReadModel(walk.function, dev);
    return true;
}

int Enumerate(const Walk &walk, tDevInfo *devs) {
    if (devs == nullptr) {
        LOG_AS(walk.function, "(%p) : Null Ptr\n", static_cast<void *>(devs));
        return 0;
    }
    tSgMapEntry map[DEV_MAX_DEVICES];
    Dev_BuildSgMap(map);
    int count = 0;
    for (unsigned n = 0; kCandidateNodes[n] != nullptr && count < DEV_MAX_DEVICES; ++n) {
        if (IsDiskPath(kCandidateNodes[n])) {
            EnsureDiskNode(kCandidateNodes[n], n);
        }
        tDevInfo dev{};
        if (Examine(walk, kCandidateNodes[n], map, dev)) {
            devs[count++] = dev;
            if (walk.isLast(dev)) {
                break;
            }
        }
    }
    LOG_AS(walk.function, "Found %d devices\n", count);
    return count;
}

}  // namespace
}  // namespace talvek

int Dev_Get(tDevInfo *devs) {
    using namespace talvek;
    const int count = Enumerate({__func__, TakeMeasured, Never}, devs);
    for (int i = 0; i < count; ++i) {
        const tDevInfo &dev = devs[i];
        // A drive has no figures; the disc in it is not looked at here.
        const tDiskStat disk = dev.isOptical ? tDiskStat{} : dev.u.disk;
        printf("  pDev[%d] : %s : %s : %s : %s : %s : %s, %d,%d,%d,%d : %llu MB(%llu)\n", i,
               dev.model, dev.devPath, dev.sgPath, dev.ready ? "Ready" : "Not Ready",
               dev.isOptical ? "CD-ROM" : "HDD", BusName(dev.busType),
               static_cast<int>(dev.scsiAddr.host), static_cast<int>(dev.scsiAddr.channel),
               static_cast<int>(dev.scsiAddr.id), static_cast<int>(dev.scsiAddr.lun),
               static_cast<unsigned long long>(disk.freeBytes >> 20),
               static_cast<unsigned long long>(disk.deviceBytes >> 20));
    }
    fflush(stdout);
    return count;
}

int Dev_GetUSBFlashDevice(tDevInfo *devs) {
    using namespace talvek;
    const int count = Enumerate({__func__, TakeAsIs, IsOnUsb}, devs);
    for (int i = 0; i < count; ++i) {
        printf("  pDev[%d] : %s : %s : %s \n", i, devs[i].model, devs[i].devPath,
               BusName(devs[i].busType));
    }
    fflush(stdout);
    return count;
}

int Dev_BuildSgMap(tSgMapEntry *map) {
    using namespace talvek;
    if (map == nullptr) {
        LOG("(%p) : Null Ptr\n", static_cast<void *>(map));
        return 0;
    }
    memset(map, 0, DEV_MAX_DEVICES * sizeof map[0]);
    int ready = 0;
    SgNodes nodes;
    for (unsigned k = 0; k < DEV_MAX_DEVICES; ++k) {
        tSgMapEntry &row = map[k];
        // No device has this key.
        memset(&row.scsiAddr, 0xFF, sizeof row.scsiAddr);
        const UniqueFd fd{nodes.Open(k, row.sgPath)};
        if (!fd) {
            continue;
        }
        switch (ReadScsiAddr(fd.get(), row.scsiAddr)) {
            case AddressStep::kBusNumber:
                LOG_ERRNO("get bus no on %s failed : %s\n", row.sgPath);
                continue;
            case AddressStep::kIdLun:
                LOG_ERRNO("get IDLUN on %s failed : %s\n", row.sgPath);
                continue;
            case AddressStep::kDone:
                break;
        }
        row.ready = Dev_TestUnitReady(row.sgPath, fd.get()) == 1;
        ready += row.ready;
    }
    return ready;
}
