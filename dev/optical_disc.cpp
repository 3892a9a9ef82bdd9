// Which disc is in a drive: the sequence of commands for each class of disc.

#include "dev/optical_disc.h"

#include <fcntl.h>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"
#include "dev/internal/used_kb.h"
#include "dev/mmc_commands.h"
#include "dev/optical_capacity.h"
#include "dev/scsi.h"
#include "dev/toc.h"

namespace {

// DVD-R and DVD+R report their capacity as a structure, rewritable discs as a format.
void IdentifyDvd(const char *pDevPath, int fd, tDiscInfo &info) {
    if (Dev_ReadDiscInfo(pDevPath, fd, &info) != DEV_QUERY_OK) {
        return;
    }
    int found = DEV_QUERY_FAILED;
    if (info.mediaKind == DEV_MEDIA_WRITE_ONCE) {
        found = Dev_ReadDvdStruct(pDevPath, fd, &info);
    } else if (info.mediaKind == DEV_MEDIA_REWRITABLE) {  // no third kind: GCOVR_EXCL_BR_LINE
        found = Dev_ReadFormatCapacity(pDevPath, fd, &info);
    }
    if (found == DEV_QUERY_OK) {
        Dev_ReadTrackInfo(pDevPath, fd, &info);
    }
}

// Only BD-ROM has a supported profile, so mediaKind is read-only here and the two last commands are
// never sent. Tested by Identification.ReadsOnlyTheDiscInformationOfABdRom.
void IdentifyBd(const char *pDevPath, int fd, tDiscInfo &info) {
    if (Dev_ReadDiscInfo(pDevPath, fd, &info) != DEV_QUERY_OK) {
        return;
    }
    // Not reached today, so not counted in the coverage.
    if (info.mediaKind == DEV_MEDIA_WRITE_ONCE ||     // GCOVR_EXCL_BR_LINE
        info.mediaKind == DEV_MEDIA_REWRITABLE) {     // GCOVR_EXCL_BR_LINE
        Dev_ReadFormatCapacity(pDevPath, fd, &info);  // GCOVR_EXCL_LINE
        Dev_ReadTrackInfo(pDevPath, fd, &info);       // GCOVR_EXCL_LINE
    }
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

int Dev_GetDiscInfo(tDevInfo *pDev) {
    const talvek::CancelGuard guard;
    if (pDev == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_DISC_INFO_NO_RECORD;
    }
    if (pDev->isOptical == 0) {
        LOG("%s is HDD type\n", pDev->devPath);
        return DEV_DISC_INFO_NOT_OPTICAL;
    }
    const talvek::UniqueFd fd{talvek::OpenPath(pDev->sgPath, O_RDWR | O_NONBLOCK)};
    if (!fd) {
        LOG_ERRNO("open(%s/%s) fail : %s\n", pDev->devPath, pDev->sgPath);
        return DEV_DISC_INFO_OPEN_FAILED;
    }
    pDev->u.disc = {};
    pDev->ready = Dev_TestUnitReady(pDev->devPath, fd.get()) == DEV_QUERY_OK ? 1 : 0;
    if (pDev->ready == 0) {
        return DEV_DISC_INFO_NOT_READY;
    }
    // The inquiry is for the log; the enumeration has already stored the model.
    Dev_Inquiry(pDev->devPath, fd.get(), nullptr);
    if (Dev_GetConfiguration(pDev->devPath, fd.get(), &pDev->u.disc) != DEV_QUERY_OK) {
        LOG("(%s,%s) : Unknown/Unsupport CD/DVD Specs\n", pDev->devPath, pDev->sgPath);
        return DEV_DISC_INFO_UNSUPPORTED;
    }
    IdentifyByClass(*pDev, fd.get());
    return DEV_DISC_INFO_OK;
}

int Dev_GetCdInfo(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    const char *pPath = talvek::PathOrEmpty(pDevPath);
    if (Dev_ReadCdATIP(pDevPath, fd, pInfo) != DEV_QUERY_OK) {
        LOG("(%s) : Read CD ATIP error\n", pPath);
        return DEV_QUERY_FAILED;
    }
    if (Dev_ReadDiscInfo(pDevPath, fd, pInfo) != DEV_QUERY_OK) {
        LOG("(%s) : Read CD DISC INFORMATION error\n", pPath);
        return DEV_QUERY_FAILED;
    }
    if (pInfo->discStatus == DEV_DISC_INCOMPLETE &&
        Dev_ReadCdToc(pDevPath, fd, pInfo) != DEV_QUERY_OK) {
        LOG("(%s) : Read CD TOC error\n", pPath);
    }
    pInfo->usedKB = talvek::UsedKB(*pInfo, 2ULL * pInfo->nextLeadIn);
    return DEV_QUERY_OK;
}
