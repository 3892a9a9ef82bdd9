#include "fuzz/support/drive.h"

#include <errno.h>
#include <linux/fs.h>
#include <net/if.h>
#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "fuzz/support/oracle.h"
#include "fuzz/support/wrap.h"

namespace talvek::fuzz {
namespace {

Drive *g_drive = nullptr;

enum Behaviour { kCheck = 200, kFails = 230, kWrongResidue = 240 };
constexpr uint8_t kRefuses = 250;
constexpr int kMaxRequests = 64;

// Bytes of the answer to a request.
size_t SizeOf(unsigned long request) {
    switch (request) {
        case SCSI_IOCTL_GET_BUS_NUMBER:
            return sizeof(int);
        case BLKGETSIZE:
            return sizeof(long);
        default:  // BLKGETSIZE64, and the two words of SCSI_IOCTL_GET_IDLUN
            return 8;
    }
}

void Fill(void *pTo, Bytes bytes) {
    std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t *>(pTo));
}

}  // namespace

Drive::Drive(Input &in) : in_(in) {
    g_drive = this;
}

Drive::~Drive() {
    g_drive = nullptr;
}

int Drive::Execute(void *pArg) {
    auto &hdr = *static_cast<sg_io_hdr_t *>(pArg);
    REQUIRE(++requests <= kMaxRequests);
    REQUIRE(hdr.interface_id == 'S' && hdr.timeout > 0);
    // The driver may write as much as is announced, and what it does not write reads as 0.
    REQUIRE(hdr.dxfer_direction != SG_DXFER_FROM_DEV || IsFilled(hdr.dxferp, hdr.dxfer_len, 0));
    REQUIRE(IsFilled(hdr.sbp, hdr.mx_sb_len, 0));
    const int behaviour = in_.U8();
    const Bytes piece = in_.Piece();
    hdr.info = 0;
    hdr.status = 0;
    hdr.sb_len_wr = 0;
    if (behaviour >= kCheck && behaviour < kFails) {
        const Bytes sense = piece.first(std::min<size_t>(piece.size(), hdr.mx_sb_len));
        Fill(hdr.sbp, sense);
        hdr.sb_len_wr = static_cast<uint8_t>(sense.size());
        hdr.status = 2;
        hdr.masked_status = 1;
        hdr.info = SG_INFO_CHECK;
        return 0;
    }
    if (behaviour >= kFails && behaviour < kWrongResidue) {
        errno = EIO;
        return -1;
    }
    if (hdr.dxfer_direction == SG_DXFER_FROM_DEV) {
        const Bytes reply = piece.first(std::min<size_t>(piece.size(), hdr.dxfer_len));
        Fill(hdr.dxferp, reply);
        hdr.resid = behaviour >= kWrongResidue ? static_cast<int>(hdr.dxfer_len) * behaviour
                                               : static_cast<int>(hdr.dxfer_len - reply.size());
    }
    return 0;
}

int Drive::Ioctl(unsigned long request, void *pArg) {
    switch (request) {
        case SG_GET_VERSION_NUM:
            *static_cast<int *>(pArg) = 30536;
            return 0;
        case SG_IO:
            return Execute(pArg);
        case SIOCGIFHWADDR:
        case SIOCGIFMTU:
        case SIOCGIFADDR:
        case SIOCGIFBRDADDR:
        case SIOCGIFNETMASK:
        case SIOCGIFDSTADDR:
        case SIOCGIFINDEX:
            Fill(&static_cast<ifreq *>(pArg)->ifr_addr, in_.Take(sizeof(sockaddr)));
            return 0;
        default:
            break;
    }
    uint8_t answer[8] = {};
    Fill(answer, in_.Take(sizeof answer));
    if (answer[7] >= kRefuses) {
        errno = ENOTTY;
        return -1;
    }
    if (request == SCSI_IOCTL_PROBE_HOST) {  // the caller puts the size of its text into it
        uint32_t size;
        memcpy(&size, pArg, sizeof size);
        Fill(pArg, in_.Take(std::min<uint32_t>(size, answer[0])));
        return 1;
    }
    memcpy(pArg, answer, SizeOf(request));
    return 0;
}

}  // namespace talvek::fuzz

CAUGHT(int, CALL_IOCTL, (int fd, unsigned long request, ...)) {
    va_list args;
    va_start(args, request);
    void *pArg = va_arg(args, void *);
    va_end(args);
    if (talvek::fuzz::g_drive != nullptr) {
        return talvek::fuzz::g_drive->Ioctl(request, pArg);
    }
    return REAL(CALL_IOCTL)(fd, request, pArg);
}

CAUGHT(int, COM_SleepAtLeast, (const struct timespec *pTime, int maxRounds)) {
    return talvek::fuzz::g_drive != nullptr ? 0 : REAL(COM_SleepAtLeast)(pTime, maxRounds);
}
