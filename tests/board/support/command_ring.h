#ifndef TALVEK_TESTS_BOARD_SUPPORT_COMMAND_RING_H
#define TALVEK_TESTS_BOARD_SUPPORT_COMMAND_RING_H

#include <stddef.h>
#include <stdint.h>

// The memory that target_core_user shares with the process which answers commands. The records are
// those of Linux include/uapi/linux/target_core_user.h, version 2, which does not compile as C++
// and brings another struct iovec than <sys/uio.h>.

namespace talvek::test::ring {

constexpr uint16_t kVersion = 2;
constexpr uint16_t kCountsReadBytes = 1 << 1;  // TCMU_MAILBOX_FLAG_CAP_READ_LEN

struct Mailbox {
    uint16_t version;
    uint16_t flags;
    uint32_t ring;  // offset of the ring in the shared memory
    uint32_t ringSize;
    uint32_t head;              // written by the kernel
    alignas(64) uint32_t tail;  // written by us
};
static_assert(offsetof(Mailbox, ring) == 4);
static_assert(offsetof(Mailbox, head) == 12);
static_assert(offsetof(Mailbox, tail) == 64);

// One entry of the ring. Its length is a multiple of 8, the low bits hold the opcode.
struct Header {
    uint32_t lengthAndOpcode;
    uint16_t commandId;
    uint8_t kernelFlags;
    uint8_t userFlags;
};
static_assert(sizeof(Header) == 8);
constexpr uint32_t kOpcodeMask = 7;
constexpr uint32_t kCommand = 1;            // TCMU_OP_CMD
constexpr uint8_t kReadLengthIsSet = 0x02;  // TCMU_UFLAG_READ_LEN

// A piece of the data buffer: struct iovec with an offset for the address.
struct Piece {
    size_t offset;
    size_t size;
};

struct Request {
    uint32_t pieces;
    uint32_t otherPieces[2];  // bidirectional data, integrity data
    uint64_t cdb;             // offset in the shared memory
    uint64_t reserved[2];
    // The pieces follow.
};
static_assert(offsetof(Request, cdb) == 16);
static_assert(sizeof(Request) == 40);

struct Response {
    uint8_t status;
    uint8_t reserved[3];
    uint32_t readLength;
    uint8_t sense[96];
};
static_assert(sizeof(Response) == 104);

// Request and response share their place.
struct Entry {
    Header header;
    union {
        Request request;
        Response response;
    };
};
static_assert(offsetof(Entry, request) == 8);

}  // namespace talvek::test::ring

#endif
