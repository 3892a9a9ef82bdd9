#ifndef TALVEK_DEV_INTERNAL_MMC_REQUEST_H
#define TALVEK_DEV_INTERNAL_MMC_REQUEST_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <span>

#include "base/byte_reader.h"
#include "dev/scsi.h"

namespace talvek {

// A device path for a label or a log line; it may be NULL.
inline const char *PathOrEmpty(const char *pDevPath) {
    return pDevPath != nullptr ? pDevPath : "";
}

// A reply buffer for any allocation length. Declare it without an initialiser: a request clears the
// bytes that it asks for and reads no others.
using ReplyBuf = std::array<uint8_t, DEV_REPLY_SIZE>;

// The length of a reply whose first two bytes count the bytes that follow them.
uint32_t WholeLength(BigEndianReader reply);

// One command with its CDB, sense and reply. Each issue starts with cleared sense and reply bytes.
class MmcRequest {
  public:
    // The largest allocation length that a CDB of 10 or 12 bytes can hold.
    static constexpr uint32_t kMaxLength = 0xFFFF;

    // The CDB (6, 10 or 12 bytes) starts as a copy of the template. `reply` has room for every
    // length that is requested; an empty one makes a command without data.
    MmcRequest(const char *pName, const char *pDevPath, std::span<const uint8_t> cdbTemplate,
               std::span<uint8_t> reply);
    MmcRequest(const MmcRequest &) = delete;
    MmcRequest &operator=(const MmcRequest &) = delete;

    void Patch(size_t at, uint8_t value) { cdb_[at] = value; }
    void PatchU32(size_t at, uint32_t value);  // big-endian

    // Issues the command for `length` bytes, which is also the CDB's allocation length.
    bool Issue(int fd, uint32_t length, int verbose = DEV_MMC_QUIET);

    // Issues the command for `firstLength` bytes, then for as many as `lengthOf` reads in the
    // reply.
    bool IssueTwice(int fd, uint32_t firstLength, uint32_t (*lengthOf)(BigEndianReader));

    // The bytes that the last issue requested; those that the drive did not send are 0. The
    // driver's residue is not used: some bridges deliver all data and report a wrong residue.
    [[nodiscard]] BigEndianReader reply() const { return BigEndianReader{requested_}; }

  private:
    void PutAllocationLength(uint32_t length);

    tMmcCmd cmd_ = {};
    std::array<uint8_t, 12> cdb_ = {};
    std::array<uint8_t, DEV_SENSE_SIZE> sense_ = {};
    std::span<uint8_t> buffer_;
    std::span<const uint8_t> requested_;
};

}  // namespace talvek

#endif
