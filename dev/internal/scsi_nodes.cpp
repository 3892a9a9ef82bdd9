// The nodes of SCSI devices and the addresses that pair them.

#include "dev/internal/scsi_nodes.h"

#include <errno.h>
#include <fcntl.h>
#include <scsi/scsi.h>
#include <string.h>
#include <sys/ioctl.h>

#include "base/path.h"
#include "dev/internal/module_log.h"

namespace talvek {

const char *const kCandidateNodes[kCandidateNodeCount + 1] = {
    "/dev/sda",    "/dev/sdb",  "/dev/sdc",    "/dev/sdd",    "/dev/sde",    "/dev/sdf",
    "/dev/sdg",    "/dev/sdh",  "/dev/sdi",    "/dev/sdj",    "/dev/sdk",    "/dev/sdl",
    "/dev/sdm",    "/dev/sdn",  "/dev/sdo",    "/dev/sdp",    "/dev/sdq",    "/dev/sdr",
    "/dev/sds",    "/dev/sdt",  "/dev/sdu",    "/dev/sdv",    "/dev/sdw",    "/dev/sdx",
    "/dev/sdy",    "/dev/sdz",  "/dev/sr0",    "/dev/sr1",    "/dev/sr2",    "/dev/sr3",
    "/dev/sr4",    "/dev/sr5",  "/dev/sr6",    "/dev/sr7",    "/dev/sr8",    "/dev/sr9",
    "/dev/sr10",   "/dev/sr11", "/dev/nst0",   "/dev/nst1",   "/dev/nst2",   "/dev/nst3",
    "/dev/nst4",   "/dev/nst5", "/dev/nosst0", "/dev/nosst1", "/dev/nosst2", "/dev/nosst3",
    "/dev/nosst4", nullptr,
};

bool ReadScsiAddr(const AddrLog &log, const char *pPath, int fd, tScsiAddr &addr) {
    int host = 0;
    if (ioctl(fd, SCSI_IOCTL_GET_BUS_NUMBER, &host) < 0) {
        LOG_ERRNO_AS(log.function, log.busNumberFailed, pPath);
        return false;
    }
    addr.host = static_cast<uint32_t>(host);
    uint32_t idLun[2] = {};  // the second word is the host's unique number
    if (ioctl(fd, SCSI_IOCTL_GET_IDLUN, idLun) < 0) {
        LOG_ERRNO_AS(log.function, log.idLunFailed, pPath);
        return false;
    }
    addr.channel = idLun[0] >> 16 & 0xFF;
    addr.id = idLun[0] & 0xFF;
    addr.lun = idLun[0] >> 8 & 0xFF;
    return true;
}

bool SameScsiAddr(const tScsiAddr &a, const tScsiAddr &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

int SgNodes::Open(unsigned k, char *pName) {
    constexpr int kFlags = O_RDWR | O_NONBLOCK;
    Dev_MakeDevName(pName, k, naming_);
    const int fd = OpenPath(pName, kFlags);
    if (fd >= 0 || k != 0 || errno != ENOENT) {
        return fd;
    }
    naming_ = DEV_SG_LETTERS;
    Dev_MakeDevName(pName, k, naming_);
    return OpenPath(pName, kFlags);
}

}  // namespace talvek
