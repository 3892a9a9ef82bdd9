// A whole session of a client with the daemon's handler: 2 bytes with the wait status of every
// command, then for each read of the handler
//
//   1 byte   bit 0: the header's checksum is made good, if there is a whole header; bit 1: so is
//            its version; bit 2: so is its size
//   piece    the bytes received

#include <string.h>
#include <sys/wait.h>

#include <algorithm>

#include "fuzz/support/network.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"
#include "service/handler.h"

namespace {

constexpr int kMaxReads = 48;

void MendHeader(std::vector<uint8_t> &piece, uint8_t how) {
    tTalvekPkg header;
    if (piece.size() < sizeof header) {
        return;
    }
    memcpy(&header, piece.data(), sizeof header);
    if ((how & 2) != 0) {
        header.ver_fragement = TALVEK_PKG_VERSION;
        header.pkg_cnt_idx = TALVEK_PKG_SINGLE;
    }
    if ((how & 4) != 0) {
        header.sz = static_cast<uint16_t>(piece.size());
    }
    if ((how & 1) != 0) {
        header.chksum = TALVEK_CalcPkgChecksum(&header);
    }
    memcpy(piece.data(), &header, sizeof header);
}

// Replies are whole packages with a good header. Of a register package that announces less than a
// header, so much is echoed. A result is what the wait status of the command says.
size_t CheckReplies(const std::vector<std::vector<uint8_t>> &replies, int waitStatus) {
    const int32_t status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
    size_t results = 0;
    for (const std::vector<uint8_t> &reply : replies) {
        tTalvekPkg header;
        if (reply.size() < sizeof header) {
            continue;
        }
        memcpy(&header, reply.data(), sizeof header);
        const int type = TALVEK_CheckPkgHeader(&header, sizeof header);
        REQUIRE(type == TALVEK_PKG_REGISTER || type == TALVEK_PKG_RESULT);
        REQUIRE(header.sz == reply.size());
        if (type == TALVEK_PKG_RESULT) {
            REQUIRE(reply.size() == sizeof header + sizeof status);
            REQUIRE(memcmp(reply.data() + sizeof header, &status, sizeof status) == 0);
            ++results;
        }
    }
    return results;
}

}  // namespace

FUZZ_TARGET(handler_session) {
    talvek::fuzz::World world;
    world.commandStatus = in.U16();
    talvek::fuzz::Peer client;
    for (int i = 0; i < kMaxReads && !in.empty(); ++i) {
        const uint8_t how = in.U8();
        const talvek::fuzz::Bytes bytes = in.Piece();
        std::vector<uint8_t> piece{bytes.begin(), bytes.end()};
        MendHeader(piece, how);
        if (!piece.empty()) {
            REQUIRE(client.Send(piece));
        }
    }
    client.EndSending();

    tTalvekClient connection = {};
    connection.fd = client.TakeFd();
    const int result = TALVEK_DaemonHandler(&connection);
    REQUIRE(result == 0 || result == -1 || result == TALVEK_NO_REPLY);
    REQUIRE(connection.fd == -1);
    REQUIRE(CheckReplies(client.Received(), world.commandStatus) == world.commands.size());
    for (const std::string &command : world.commands) {
        REQUIRE(command.size() <= TALVEK_PKG_MAX - sizeof(tTalvekPkg));
    }
}
