// What a daemon answers to a client. For each read of the client:
//
//   1 byte   bit 0: the header's checksum is made good, if there is a whole header
//   piece    the bytes received

#include <string.h>
#include <unistd.h>

#include "fuzz/support/network.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "service/client.h"
#include "service/package.h"

namespace {

constexpr int kMaxReads = 16;
constexpr const char *kCommand = "echo one";

void CheckRequest(const std::vector<uint8_t> &request, int type) {
    tTalvekPkg header;
    REQUIRE(request.size() >= sizeof header && request.size() <= TALVEK_PKG_MAX);
    memcpy(&header, request.data(), sizeof header);
    REQUIRE(header.sz == request.size());
    REQUIRE(header.type == type);
    REQUIRE(header.chksum == TALVEK_CalcPkgChecksum(&header));
}

// Whether a client may take a status from the bytes, which are those of one read.
bool IsGoodResult(const std::vector<uint8_t> &piece) {
    tTalvekPkg header;
    if (piece.size() < sizeof header) {
        return false;
    }
    memcpy(&header, piece.data(), sizeof header);
    return header.type == TALVEK_PKG_RESULT && header.chksum == TALVEK_CalcPkgChecksum(&header);
}

}  // namespace

FUZZ_TARGET(client_replies) {
    talvek::fuzz::Peer daemon;
    bool mayHaveResult = false;
    for (int i = 0; i < kMaxReads && !in.empty(); ++i) {
        const bool seal = (in.U8() & 1) != 0;
        const talvek::fuzz::Bytes bytes = in.Piece();
        std::vector<uint8_t> piece{bytes.begin(), bytes.end()};
        tTalvekPkg header;
        if (seal && piece.size() >= sizeof header) {
            memcpy(&header, piece.data(), sizeof header);
            header.chksum = TALVEK_CalcPkgChecksum(&header);
            memcpy(piece.data(), &header, sizeof header);
        }
        if (!piece.empty()) {
            // A read takes no more than one piece, and the first of a package has its header.
            mayHaveResult = mayHaveResult || IsGoodResult(piece);
            REQUIRE(daemon.Send(piece));
        }
    }
    daemon.EndSending();
    daemon.OfferToConnect();

    static char variable[] = "NAME=value";
    static char *variables[] = {variable, nullptr};
    char **before = environ;
    environ = variables;
    const int result = TALVEK_Client("/nowhere", kCommand);
    environ = before;
    REQUIRE(mayHaveResult || result == TALVEK_NO_RESULT);

    const std::vector<std::vector<uint8_t>> requests = daemon.Received();
    REQUIRE(!requests.empty() && requests.size() <= 2);
    CheckRequest(requests[0], TALVEK_PKG_REGISTER);
    REQUIRE(requests[0].size() == sizeof(tTalvekPkg) + sizeof variable);
    if (requests.size() == 2) {
        CheckRequest(requests[1], TALVEK_PKG_COMMAND);
        REQUIRE(memcmp(requests[1].data() + sizeof(tTalvekPkg), kCommand, strlen(kCommand) + 1) ==
                0);
    }
}
