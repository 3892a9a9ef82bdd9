#ifndef TALVEK_DEV_INTERNAL_MMC_REQUEST_H
#define TALVEK_DEV_INTERNAL_MMC_REQUEST_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <span>

#include "base/byte_reader.h"
#include "base/byte_writer.h"
#include "dev/scsi.h"

namespace talvek {

// A reply buffer for any allocation length, to be declared without initialiser: a request clears
// what it asks for, and what it does not ask for is never looked at.
using ReplyBuf = std::array<uint8_t, DEV_REPLY_SIZE>;

// One command with its CDB, sense and reply. Every issue starts from cleared sense and reply bytes;
// what the drive returned is seen through reply() alone.
class MmcRequest {
  public:
    // The largest length that fits a two-byte allocation length field.
    static constexpr uint32_t kMaxLength = 0xFFFF;

    // The CDB (6, 10 or 12 bytes) starts as a copy of the template. `reply` has room for every
    // length that will be asked for; an empty one makes a command without data.
    MmcRequest(const char *pName, const char *pDevPath, std::span<const uint8_t> cdbTemplate,
               std::span<uint8_t> reply);
    MmcRequest(const MmcRequest &) = delete;
    MmcRequest &operator=(const MmcRequest &) = delete;

    void Patch(size_t at, uint8_t value) { cdb_[at] = value; }
    void PatchU32(size_t at, uint32_t value);  // big-endian

    // Issues the command for `length` bytes, which are also its CDB's allocation length.
    bool Issue(int fd, uint32_t length, bool verbose = false);

    // Issues the command for `length` bytes, and again for as many as `learn` reads in the reply.
    template <typename Learn>
    bool IssueLearning(int fd, uint32_t length, Learn learn) {
        return Issue(fd, length) && Issue(fd, learn(reply()));
    }

    // The bytes that the last issue received.
    [[nodiscard]] BigEndianReader reply() const { return BigEndianReader{received_}; }

  private:
    void PutAllocationLength(uint32_t length);

    tMmcCmd cmd_ = {};
    std::array<uint8_t, 12> cdb_ = {};
    std::array<uint8_t, DEV_SENSE_SIZE> sense_ = {};
    std::span<uint8_t> buffer_;
    std::span<const uint8_t> received_;
};

}  // namespace talvek

#endif
