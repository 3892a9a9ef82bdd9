// The nodes of SCSI devices and what pairs them.

#include "dev/internal/scsi_nodes.h"

#include <errno.h>
#include <fcntl.h>
#include <scsi/scsi.h>
#include <string.h>
#include <sys/ioctl.h>

#include "dev/naming.h"

namespace talvek {

const char *const kCandidateNodes[] = {
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
static_assert(sizeof kCandidateNodes / sizeof kCandidateNodes[0] == 49 + 1);

AddressStep ReadScsiAddr(int fd, tScsiAddr &addr) {
    int host = 0;
    if (ioctl(fd, SCSI_IOCTL_GET_BUS_NUMBER, &host) < 0) {
        return AddressStep::kBusNumber;
    }
    addr.host = static_cast<uint32_t>(host);
    uint32_t idLun[2] = {};  // the second word is the host's unique number
    if (ioctl(fd, SCSI_IOCTL_GET_IDLUN, idLun) < 0) {
        return AddressStep::kIdLun;
    }
    addr.channel = idLun[0] >> 16 & 0xFF;
    addr.id = idLun[0] & 0xFF;
    addr.lun = idLun[0] >> 8 & 0xFF;
    return AddressStep::kDone;
}

bool SameScsiAddr(const tScsiAddr &a, const tScsiAddr &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

int SgNodes::Open(unsigned k, char *pName) {
    constexpr int kFlags = O_RDWR | O_NONBLOCK | O_CLOEXEC;
    Dev_MakeDevName(pName, k, numeric_);
    int fd = open(pName, kFlags);
    if (fd < 0 && k == 0 && errno == ENOENT) {
        numeric_ = false;
        Dev_MakeDevName(pName, k, numeric_);
        fd = open(pName, kFlags);
    }
    return fd;
}

}  // namespace talvek
