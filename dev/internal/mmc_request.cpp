// One MMC command, from the CDB template to the reply.

#include "dev/internal/mmc_request.h"

#include <stdio.h>

#include <algorithm>

#include "base/byte_writer.h"

namespace talvek {

uint32_t WholeLength(BigEndianReader reply) {
    return reply.U16(0) + 2U;
}

MmcRequest::MmcRequest(const char *pName, const char *pDevPath,
                       std::span<const uint8_t> cdbTemplate, std::span<uint8_t> reply)
    : buffer_(reply) {
    snprintf(cmd_.label, sizeof cmd_.label, "(%s) %s", PathOrEmpty(pDevPath), pName);
    std::copy(cdbTemplate.begin(), cdbTemplate.end(), cdb_.begin());
    cmd_.hdr.interface_id = 'S';
    cmd_.hdr.dxfer_direction = reply.empty() ? SG_DXFER_NONE : SG_DXFER_FROM_DEV;
    cmd_.hdr.cmd_len = static_cast<uint8_t>(cdbTemplate.size());
    cmd_.hdr.cmdp = cdb_.data();
    cmd_.hdr.mx_sb_len = DEV_SENSE_SIZE;
    cmd_.hdr.sbp = sense_.data();
    cmd_.hdr.dxferp = reply.empty() ? nullptr : reply.data();
    cmd_.hdr.timeout = DEV_MMC_TIMEOUT_MS;
}

void MmcRequest::PatchU32(size_t at, uint32_t value) {
    BigEndianWriter{cdb_.data(), cdb_.size()}.U32(at, value);
}

// The field is byte 4 of a CDB of 6 bytes, bytes 7-8 of one of 10 bytes and bytes 8-9 of READ DVD
// STRUCTURE, the only command of 12 bytes here.
void MmcRequest::PutAllocationLength(uint32_t length) {
    BigEndianWriter cdb{cdb_.data(), cdb_.size()};
    switch (cmd_.hdr.cmd_len) {
        case 6:
            cdb.U8(4, static_cast<uint8_t>(length));
            break;
        case 10:
            cdb.U16(7, static_cast<uint16_t>(length));
            break;
        default:
            cdb.U16(8, static_cast<uint16_t>(length));
            break;
    }
}

bool MmcRequest::Issue(int fd, uint32_t length, int verbose) {
    length = std::min({length, kMaxLength, static_cast<uint32_t>(buffer_.size())});
    PutAllocationLength(length);
    cmd_.hdr.dxfer_len = length;
    requested_ = buffer_.first(length);
    std::fill_n(buffer_.begin(), length, uint8_t{0});
    sense_.fill(0);
    return Dev_ExecMMC(&cmd_, fd, verbose) == DEV_MMC_OK;
}

bool MmcRequest::IssueTwice(int fd, uint32_t firstLength, uint32_t (*lengthOf)(BigEndianReader)) {
    return Issue(fd, firstLength) && Issue(fd, lengthOf(reply()));
}

}  // namespace talvek
