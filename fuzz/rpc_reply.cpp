// Replies of RPC servers, against a plain decoder: 1 byte, bit 0: a stream; bit 1: the reply has
// the identifier of the call; then the bytes received.

#include <string.h>

#include <iterator>
#include <vector>

#include "dev/internal/rpc.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

namespace rpc = talvek::rpc;
using talvek::fuzz::Bytes;

constexpr uint32_t kXid = 0x12345678;

// Words from the front (RFC 4506). After the end they are 0.
class Words {
  public:
    explicit Words(Bytes bytes) : rest_(bytes) {}
    uint32_t Next() {
        uint32_t word = 0;
        for (const uint8_t byte : Take(4)) {
            word = word << 8 | byte;
        }
        return word;
    }
    Bytes Take(size_t count) {
        ended_ = ended_ || count > rest_.size();
        const Bytes taken = rest_.first(ended_ ? 0 : count);
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    [[nodiscard]] bool ended() const { return ended_; }

  private:
    Bytes rest_;
    bool ended_ = false;
};

struct Reply {
    bool whole = true;
    rpc::Outcome outcome = {.status = rpc::RPC_CANTDECODERES};
    uint32_t word = 0;
};

// RFC 5531, section 9.
Reply Decode(Bytes message) {
    constexpr rpc::Status kByAcceptState[] = {rpc::RPC_SUCCESS,          rpc::RPC_PROGUNAVAIL,
                                              rpc::RPC_PROGVERSMISMATCH, rpc::RPC_PROCUNAVAIL,
                                              rpc::RPC_CANTDECODEARGS,   rpc::RPC_SYSTEMERROR};
    constexpr rpc::Status kByRejectState[] = {rpc::RPC_VERSMISMATCH, rpc::RPC_AUTHERROR};
    Reply reply;
    Words words{message};
    if (words.Next() != kXid) {
        reply.whole = false;
        return reply;
    }
    const bool isReply = words.Next() == 1;
    const uint32_t denied = words.Next();
    if (denied == 0) {
        words.Next();  // the flavor of the verifier
        const uint32_t size = words.Next();
        if (size > 400) {
            return reply;
        }
        words.Take((size + 3) / 4 * 4);
    }
    const uint32_t state = words.Next();
    rpc::Outcome outcome = {.status = rpc::RPC_FAILED};
    if (denied == 0 && state < std::size(kByAcceptState)) {
        outcome.status = kByAcceptState[state];
    } else if (denied == 1 && state < std::size(kByRejectState)) {
        outcome.status = kByRejectState[state];
    }
    if (outcome.status == rpc::RPC_SUCCESS) {
        reply.word = words.Next();
    } else if (outcome.status == rpc::RPC_AUTHERROR) {
        outcome.why = words.Next();
    } else if (outcome.status == rpc::RPC_VERSMISMATCH ||
               outcome.status == rpc::RPC_PROGVERSMISMATCH) {
        outcome.low = words.Next();
        outcome.high = words.Next();
    }
    if (isReply && denied <= 1 && !words.ended()) {
        reply.outcome = outcome;
    }
    return reply;
}

// The first record of a stream, in fragments (RFC 5531, section 11).
Reply DecodeStream(Bytes stream) {
    constexpr size_t kMost = 1024;
    std::vector<uint8_t> record;
    Words words{stream};
    for (size_t used = 0;;) {
        const uint32_t mark = words.Next();
        const uint32_t size = mark & 0x7FFFFFFF;
        used += 4;
        if (!words.ended() && used + size > kMost) {
            return {};
        }
        const Bytes fragment = words.Take(size);
        if (words.ended()) {
            return {.whole = false};
        }
        record.insert(record.end(), fragment.begin(), fragment.end());
        used += size;
        if (mark != size) {  // the last one
            Reply reply = Decode(record);
            reply.whole = true;  // a stream has no other reply
            return reply;
        }
    }
}

}  // namespace

FUZZ_TARGET(rpc_reply) {
    const uint8_t how = in.U8();
    const bool stream = (how & 1) != 0;
    const talvek::fuzz::Block block{in.Rest()};
    const Bytes bytes{block.data(), block.size()};
    const size_t at = stream ? 4 : 0;
    if ((how & 2) != 0 && bytes.size() >= at + 4) {
        constexpr uint8_t kBytes[] = {0x12, 0x34, 0x56, 0x78};
        memcpy(block.data() + at, kBytes, sizeof kBytes);
    }
    uint32_t word = 7;
    rpc::Outcome outcome;
    const bool whole = rpc::ReadReply(bytes, stream, kXid, &word, outcome);
    const Reply expected = stream ? DecodeStream(bytes) : Decode(bytes);
    REQUIRE(whole == expected.whole);
    if (!whole) {
        REQUIRE(word == 7);
        return;
    }
    REQUIRE(outcome.status == expected.outcome.status && outcome.error == 0);
    REQUIRE(outcome.low == expected.outcome.low && outcome.high == expected.outcome.high);
    REQUIRE(outcome.why == expected.outcome.why);
    REQUIRE(outcome.status != rpc::RPC_SUCCESS || word == expected.word);
    const talvek::fuzz::World world;  // nothing on standard error
    rpc::PrintFailure("call", outcome);
}
