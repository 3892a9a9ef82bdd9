#ifndef TALVEK_DEV_INTERNAL_RPC_H
#define TALVEK_DEV_INTERNAL_RPC_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include <span>

#include "base/byte_writer.h"
#include "base/clock.h"

// Calls to servers of ONC RPC, version 2 (RFC 5531), in XDR (RFC 4506).

namespace talvek::rpc {

// How a call ended; the names are those of clnt_stat in RPC libraries.
enum Status : uint8_t {
    // clang-format off
    RPC_SUCCESS, RPC_CANTENCODEARGS, RPC_CANTDECODERES, RPC_CANTSEND, RPC_CANTRECV, RPC_TIMEDOUT,
    RPC_VERSMISMATCH, RPC_AUTHERROR, RPC_PROGUNAVAIL, RPC_PROGVERSMISMATCH, RPC_PROCUNAVAIL,
    RPC_CANTDECODEARGS, RPC_SYSTEMERROR, RPC_PMAPFAILURE, RPC_PROGNOTREGISTERED, RPC_FAILED,
    // clang-format on
};

struct Outcome {
    Status status = RPC_SUCCESS;
    int error = 0;               // errno of a failed system call
    uint32_t low = 0, high = 0;  // versions that the server supports
    uint32_t why = 0;            // auth_stat
    Status cause = RPC_SUCCESS;  // of RPC_PMAPFAILURE

    // The call failed before anything was sent: no socket or no connection.
    [[nodiscard]] bool unconnected() const { return status == RPC_SYSTEMERROR && error != 0; }
};

// The message of a call. Arguments are added in their order.
class CallMessage {
  public:
    // The credential is AUTH_NONE, or AUTH_SYS (RFC 5531, appendix A) with host name, effective
    // ids and the first 16 groups.
    enum Credential { kNone, kSystem };
    CallMessage(uint32_t program, uint32_t version, uint32_t procedure, Credential credential);
    CallMessage(const CallMessage &) = delete;  // the writer writes into the bytes of this object
    CallMessage &operator=(const CallMessage &) = delete;
    void AddWord(uint32_t word);
    void AddOpaque(const void *pBytes, size_t size);

    [[nodiscard]] uint32_t xid() const { return xid_; }
    // The message; for a stream, after its record mark (RFC 5531, 11). Empty when it did not fit.
    [[nodiscard]] std::span<const uint8_t> Bytes(bool stream);

  private:
    void AddSystemCredential();

    const uint32_t xid_;
    uint8_t bytes_[1024] = {};
    BigEndianWriter writer_{bytes_, sizeof bytes_};
    size_t end_;
};

// Makes a call over UDP (type SOCK_DGRAM) or TCP (SOCK_STREAM) and waits for the reply. A datagram
// is repeated after 1, 2, 4 ... seconds. The port is below 1024 where the process may use one:
// mount daemons may refuse others. `pResult` receives the one word that the procedure returns; it
// is NULL for a procedure that returns nothing.
Outcome Call(int type, const sockaddr_in &server, CallMessage &call, uint32_t *pResult,
             const Deadline &end);

// Reads the reply to the call `xid` from a datagram, or from the bytes received so far from a
// stream. Returns false when the datagram is another one or the stream has to be read on. A record
// above 1 KiB, which no reply to these calls has, is RPC_CANTDECODERES at once.
bool ReadReply(std::span<const uint8_t> bytes, bool stream, uint32_t xid, uint32_t *pResult,
               Outcome &outcome);

// Writes "<message>: RPC: <reason>" to standard error.
void PrintFailure(const char *pMessage, const Outcome &outcome);

}  // namespace talvek::rpc

#endif
