// Replies of RPC servers: 1 byte, bit 0: a stream; bit 1: the reply has the identifier of the call;
// then the bytes received.

#include <string.h>

#include "dev/internal/rpc.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

namespace rpc = talvek::rpc;

constexpr uint32_t kXid = 0x12345678;

}  // namespace

FUZZ_TARGET(rpc_reply) {
    const uint8_t how = in.U8();
    const bool stream = (how & 1) != 0;
    const talvek::fuzz::Block bytes{in.Rest()};
    const size_t at = stream ? 4 : 0;
    if ((how & 2) != 0 && bytes.size() >= at + 4) {
        constexpr uint8_t kBytes[] = {0x12, 0x34, 0x56, 0x78};
        memcpy(bytes.data() + at, kBytes, sizeof kBytes);
    }
    uint32_t word = 7;
    rpc::Outcome outcome;
    const bool whole = rpc::ReadReply({bytes.data(), bytes.size()}, stream, kXid, &word, outcome);
    REQUIRE(outcome.status <= rpc::RPC_FAILED);
    REQUIRE(whole || word == 7);
    const talvek::fuzz::World world;  // nothing on standard error
    rpc::PrintFailure("call", outcome);
}
