// What disc is in a drive: the sequences of commands for each class of medium.

#include "dev/optical_disc.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "base/unique_fd.h"
#include "dev/internal/module_log.h"
#include "dev/mmc_commands.h"
#include "dev/optical_capacity.h"
#include "dev/scsi.h"
#include "dev/toc.h"

namespace talvek {
namespace {

constexpr int kNotOptical = 2;
constexpr int kNotReady = -129;
constexpr int kUnknownDisc = -130;

// DVD-R and DVD+R tell their capacity by structure, the rewritable ones by format.
void IdentifyDvd(const char *pDevPath, int fd, tDiscInfo &info) {
    if (Dev_ReadDiscInfo(pDevPath, fd, &info) != 1) {
        return;
    }
    int found = 0;
    if (info.mediaKind == DEV_MEDIA_WRITE_ONCE) {
        found = Dev_ReadDvdStruct(pDevPath, fd, &info);
    } else if (info.mediaKind == DEV_MEDIA_REWRITABLE) {
        found = Dev_ReadFormatCapacity(pDevPath, fd, &info);
    }
    if (found == 1) {
        Dev_ReadTrackInfo(pDevPath, fd, &info);
    }
}

// BD-R and BD-RE have no accepted profile, so a disc that gets here is a BD-ROM and ends behind the
// disc information. Held by Identification.AsksABdRomForDiscInformationOnly.
void IdentifyBd(const char *pDevPath, int fd, tDiscInfo &info) {
    if (Dev_ReadDiscInfo(pDevPath, fd, &info) != 1 ||
        (info.mediaKind != DEV_MEDIA_WRITE_ONCE && info.mediaKind != DEV_MEDIA_REWRITABLE)) {
        return;
    }
    Dev_ReadFormatCapacity(pDevPath, fd, &info);
    Dev_ReadTrackInfo(pDevPath, fd, &info);
}

void IdentifyDvdMinus(tDevInfo &dev, int fd) {
    tDiscInfo &info = dev.u.disc;
    IdentifyDvd(dev.devPath, fd, info);
    const bool written =
        info.discStatus == DEV_DISC_INCOMPLETE || info.discStatus == DEV_DISC_FINALIZED;
    if (info.mediaKind == DEV_MEDIA_REWRITABLE && written &&
        info.recordMode == DEV_RECORD_RESTRICTED_OVERWRITE) {
        Dev_GetDvdMinusRwInfo(&dev);
    }
}

void IdentifyDvdPlus(tDevInfo &dev, int fd) {
    tDiscInfo &info = dev.u.disc;
    IdentifyDvd(dev.devPath, fd, info);
    if (info.mediaKind == DEV_MEDIA_REWRITABLE && info.discStatus == DEV_DISC_FINALIZED) {
        Dev_GetDvdPlusRwInfo(&dev);
    }
}

void IdentifyByClass(tDevInfo &dev, int fd) {
    switch (dev.u.disc.discClass) {
        case DEV_CLASS_CD:
            Dev_GetCdInfo(dev.devPath, fd, &dev.u.disc);
            break;
        case DEV_CLASS_DVD_MINUS:
            IdentifyDvdMinus(dev, fd);
            break;
        case DEV_CLASS_DVD_PLUS:
            IdentifyDvdPlus(dev, fd);
            break;
        case DEV_CLASS_BD:
            IdentifyBd(dev.devPath, fd, dev.u.disc);
            break;
        default:
            break;
    }
}

}  // namespace
}  // namespace talvek

int Dev_GetDiscInfo(tDevInfo *dev) {
    using namespace talvek;
    if (dev == nullptr) {
        LOG("Get Null ptr\n");
        return 1;
    }
    if (dev->isOptical == 0) {
        LOG("%s is HDD type\n", dev->devPath);
        return kNotOptical;
    }
    const UniqueFd fd{open(dev->sgPath, O_RDWR | O_NONBLOCK | O_CLOEXEC)};
    if (!fd) {
        LOG_ERRNO("open(%s/%s) fail : %s\n", dev->devPath, dev->sgPath);
        return -1;
    }
    dev->u.disc = {};
    dev->ready = static_cast<uint8_t>(Dev_TestUnitReady(dev->devPath, fd.get()));
    if (dev->ready == 0) {
        return kNotReady;
    }
    // The inquiry is for the log; the record has its model since the enumeration.
    Dev_Inquiry(dev->devPath, fd.get(), nullptr);
    if (Dev_GetConfiguration(dev->devPath, fd.get(), &dev->u.disc) == 0) {
        LOG("(%s,%s) : Unknown/Unsupport CD/DVD Specs\n", dev->devPath, dev->sgPath);
        return kUnknownDisc;
    }
    IdentifyByClass(*dev, fd.get());
    return 0;
}

int Dev_GetCdInfo(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    const char *pShown = devPath != nullptr ? devPath : "";
    if (Dev_ReadCdATIP(devPath, fd, info) != 1) {
        LOG("(%s) : Read CD ATIP error\n", pShown);
        return 0;
    }
    if (Dev_ReadDiscInfo(devPath, fd, info) != 1) {
        LOG("(%s) : Read CD DISC INFORMATION error\n", pShown);
        return 0;
    }
    switch (info->discStatus) {
        case DEV_DISC_INCOMPLETE:
            if (Dev_ReadCdToc(devPath, fd, info) != 1) {
                LOG("(%s) : Read CD TOC error\n", pShown);
            }
            info->usedKB = 2ULL * info->nextLeadIn;
            break;
        case DEV_DISC_FINALIZED:
            info->usedKB = info->totalKB;
            break;
        default:
            info->usedKB = 0;
            break;
    }
    return 1;
}
