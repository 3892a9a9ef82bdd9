// Unmounting an NFS export: a piece with /proc/mounts, then pieces with what the portmapper and the
// mount daemon send. A piece whose first byte is even gets the identifier of the last call: at its
// start, or in a stream after the record mark. If that byte is a multiple of 4, the mark gets the
// length of the piece.

#include <string.h>

#include "dev/mount.h"
#include "fuzz/support/network.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

void PutIdentifier(std::vector<uint8_t> &piece, talvek::fuzz::Bytes sent) {
    if (piece.size() < 8 || sent.size() < 8 || piece[0] % 2 != 0) {
        return;
    }
    // A call over a stream begins with its record mark.
    const bool stream = (sent[0] & 0x80) != 0;
    if (piece[0] % 4 == 0 && stream) {
        piece[0] = 0x80;
        piece[1] = 0;
        piece[2] = static_cast<uint8_t>((piece.size() - 4) >> 8);
        piece[3] = static_cast<uint8_t>(piece.size() - 4);
    }
    memcpy(piece.data() + (stream ? 4 : 0), sent.data() + (stream ? 4 : 0), 4);
}

}  // namespace

FUZZ_TARGET(nfs_umount) {
    talvek::fuzz::World world;
    world.AddFile("/proc/mounts", in.Piece());
    talvek::fuzz::Internet internet{PutIdentifier};
    internet.Receive(in);
    REQUIRE(Dev_uMount("/mnt") == 0);
    constexpr int64_t kSecond = 1000000000;
    REQUIRE(internet.waited <= 9 * kSecond);
    REQUIRE(internet.sends <= 16);
}
