// ONC RPC, version 2: the message of a call, its exchange over UDP or TCP, the reasons of failures.

#include "dev/internal/rpc.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "base/byte_reader.h"
#include "base/heap_buf.h"
#include "base/unique_fd.h"
#include "base/wait.h"

namespace talvek::rpc {
namespace {

constexpr uint32_t RPC_VERSION = 2;
enum MessageType : uint32_t { CALL = 0, REPLY = 1 };
enum ReplyState : uint32_t { MSG_ACCEPTED = 0, MSG_DENIED = 1 };
enum AcceptState : uint32_t { SUCCESS = 0, PROG_MISMATCH = 2 };
enum RejectState : uint32_t { RPC_MISMATCH = 0, AUTH_ERROR = 1 };
enum AuthFlavor : uint32_t { AUTH_NONE = 0, AUTH_SYS = 1 };

constexpr size_t kMaxAuthBytes = 400;    // of a verifier (RFC 5531, 8.2)
constexpr size_t kMaxMachineName = 255;  // RFC 5531, appendix A
constexpr size_t kMaxGroups = 16;

constexpr size_t kMark = 4;
constexpr uint32_t kLastFragment = 0x80000000;
// A reply has up to 432 bytes: six words, a verifier, two words. This leaves room for fragments.
constexpr size_t kMaxReply = 1024;

constexpr int64_t kFirstRepeatMs = 1000;

// By Status.
constexpr const char *kReasons[] = {
    "Success",
    "Can't encode arguments",
    "Can't decode result",
    "Unable to send",
    "Unable to receive",
    "Timed out",
    "Incompatible versions of RPC",
    "Authentication error",
    "Program unavailable",
    "Program/version mismatch",
    "Procedure unavailable",
    "Server can't decode arguments",
    "Remote system error",
    "Port mapper failure",
    "Program not registered",
    "Failed (unspecified error)",
};
static_assert(std::size(kReasons) == RPC_FAILED + 1);

// By auth_stat.
constexpr const char *kAuthReasons[] = {
    "Authentication OK",       "Invalid client credential",  "Server rejected credential",
    "Invalid client verifier", "Server rejected verifier",   "Client credential too weak",
    "Invalid server verifier", "Failed (unspecified error)",
};

// By accept_stat.
constexpr Status kAcceptStatus[] = {RPC_SUCCESS,     RPC_PROGUNAVAIL,    RPC_PROGVERSMISMATCH,
                                    RPC_PROCUNAVAIL, RPC_CANTDECODEARGS, RPC_SYSTEMERROR};

constexpr size_t Padded(size_t size) {
    return (size + 3) / 4 * 4;
}

// Binds to a port from 600 to 1023; most well-known services have ports below 600. When none may be
// used or all are in use, the kernel chooses a port at connect.
void BindReservedPort(int fd) {
    constexpr int64_t kFirst = 600;
    constexpr int64_t kCount = IPPORT_RESERVED - kFirst;
    const int64_t start = MonotonicNs();
    for (int64_t i = 0; i < kCount; ++i) {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_port = htons(static_cast<in_port_t>(kFirst + (start + i) % kCount));
        if (bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 ||
            errno != EADDRINUSE) {
            return;
        }
    }
}

// Waits until the socket is ready. Returns 0 or an errno: ETIMEDOUT at the deadline, even if the
// peer never stops sending.
int Await(int fd, short events, const Deadline &end) {
    for (int64_t left = end.LeftMs(); left > 0; left = end.LeftMs()) {
        const int ready = WaitReady(fd, events, left);
        if (ready > 0) {
            return 0;
        }
        if (ready < 0 && errno != EINTR) {
            return errno;
        }
    }
    return ETIMEDOUT;
}

// 0, or an errno.
int Connect(int fd, const sockaddr_in &server, const Deadline &end) {
    if (connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server) == 0) {
        return 0;
    }
    int error = errno == EINPROGRESS ? Await(fd, POLLOUT, end) : errno;
    socklen_t size = sizeof error;
    if (error == 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
    }
    return error;
}

Outcome AwaitReply(int fd, bool stream, uint32_t xid, uint32_t *pResult, const Deadline &end) {
    uint8_t bytes[kMaxReply];
    for (size_t used = 0; used < sizeof bytes;) {
        const int error = Await(fd, POLLIN, end);
        if (error != 0) {
            return {.status = error == ETIMEDOUT ? RPC_TIMEDOUT : RPC_CANTRECV, .error = error};
        }
        const ssize_t count = recv(fd, bytes + used, sizeof bytes - used, 0);
        if (count < 0 && errno == EAGAIN) {  // the datagram had a wrong checksum
            continue;
        }
        if (count < 0 || (count == 0 && stream)) {
            return {.status = RPC_CANTRECV, .error = count < 0 ? errno : ECONNRESET};
        }
        used += static_cast<size_t>(count);
        Outcome outcome;
        if (ReadReply({bytes, used}, stream, xid, pResult, outcome)) {
            return outcome;
        }
        used = stream ? used : 0;
    }
    return {.status = RPC_CANTDECODERES};
}

enum class Record { kComplete, kIncomplete, kTooLong };

// Joins the fragments of the first record of a stream. With its marks it has to fit in kMaxReply.
Record JoinFragments(std::span<const uint8_t> stream, uint8_t (&record)[kMaxReply], size_t &size) {
    BigEndianReader reader{stream};
    size = 0;
    for (size_t at = 0;;) {
        const uint32_t mark = reader.U32(at);
        if (reader.failed()) {
            return Record::kIncomplete;
        }
        at += kMark;
        const size_t count = mark & ~kLastFragment;
        if (at > sizeof record || count > sizeof record - at) {
            return Record::kTooLong;
        }
        if (!reader.Copy(at, record + size, count)) {
            return Record::kIncomplete;
        }
        at += count;
        size += count;
        if ((mark & kLastFragment) != 0) {
            return Record::kComplete;
        }
    }
}

Outcome ReadAccepted(BigEndianReader &reply, uint32_t *pResult) {
    const size_t verifierSize = reply.U32(16);
    if (verifierSize > kMaxAuthBytes) {
        return {.status = RPC_CANTDECODERES};
    }
    const size_t at = 20 + Padded(verifierSize);
    const uint32_t state = reply.U32(at);
    if (state == SUCCESS && pResult != nullptr) {
        *pResult = reply.U32(at + 4);
    }
    if (state == PROG_MISMATCH) {
        return {
            .status = RPC_PROGVERSMISMATCH, .low = reply.U32(at + 4), .high = reply.U32(at + 8)};
    }
    return {.status = state < std::size(kAcceptStatus) ? kAcceptStatus[state] : RPC_FAILED};
}

Outcome ReadDenied(BigEndianReader &reply) {
    const uint32_t state = reply.U32(12);
    if (state == RPC_MISMATCH) {
        return {.status = RPC_VERSMISMATCH, .low = reply.U32(16), .high = reply.U32(20)};
    }
    if (state == AUTH_ERROR) {
        return {.status = RPC_AUTHERROR, .why = reply.U32(16)};
    }
    return {.status = RPC_FAILED};
}

// Formats what follows the reason, such as "; errno = ...".
void FormatDetail(const Outcome &outcome, char *pText, size_t size) {
    switch (outcome.status) {
        case RPC_CANTSEND:
        case RPC_CANTRECV:
            snprintf(pText, size, "; errno = %s", strerror(outcome.error));
            break;
        case RPC_VERSMISMATCH:
        case RPC_PROGVERSMISMATCH:
            snprintf(pText, size, "; low version = %u, high version = %u", outcome.low,
                     outcome.high);
            break;
        case RPC_AUTHERROR:
            if (outcome.why < std::size(kAuthReasons)) {
                snprintf(pText, size, "; why = %s", kAuthReasons[outcome.why]);
            } else {
                snprintf(pText, size, "; why = (unknown authentication error - %d)",
                         static_cast<int>(outcome.why));
            }
            break;
        case RPC_SYSTEMERROR:
            if (outcome.unconnected()) {
                snprintf(pText, size, " - %s", strerror(outcome.error));
            }
            break;
        case RPC_PMAPFAILURE:
            if (outcome.cause == RPC_CANTSEND || outcome.cause == RPC_CANTRECV) {
                snprintf(pText, size, " - %s: errno %d (%s)", kReasons[outcome.cause],
                         outcome.error, strerror(outcome.error));
            } else {
                snprintf(pText, size, " - %s", kReasons[outcome.cause]);
            }
            break;
        default:
            break;
    }
}

}  // namespace

CallMessage::CallMessage(uint32_t program, uint32_t version, uint32_t procedure,
                         Credential credential)
    : xid_(static_cast<uint32_t>(MonotonicNs())), end_(kMark) {
    for (const uint32_t word : {xid_, uint32_t{CALL}, RPC_VERSION, program, version, procedure}) {
        AddWord(word);
    }
    if (credential == kSystem) {
        AddSystemCredential();
    } else {
        AddWord(AUTH_NONE);
        AddOpaque(nullptr, 0);
    }
    AddWord(AUTH_NONE);  // the verifier
    AddOpaque(nullptr, 0);
}

void CallMessage::AddWord(uint32_t word) {
    writer_.U32(end_, word);
    end_ += 4;
}

void CallMessage::AddOpaque(const void *pBytes, size_t size) {
    AddWord(static_cast<uint32_t>(size));
    writer_.Copy(end_, pBytes, size);
    end_ += Padded(size);
}

void CallMessage::AddSystemCredential() {
    char machineName[kMaxMachineName + 1] = "";
    gethostname(machineName, kMaxMachineName);
    HeapBuf<gid_t> groups;  // getgroups gives all or none
    const int all = getgroups(0, nullptr);
    const bool known =
        all > 0 && groups.Resize(static_cast<size_t>(all)) && getgroups(all, groups.get()) == all;
    const size_t count = known ? std::min(static_cast<size_t>(all), kMaxGroups) : 0;

    AddWord(AUTH_SYS);
    const size_t sizeAt = end_;
    AddWord(0);
    AddWord(xid_);  // the stamp, any number
    AddOpaque(machineName, strlen(machineName));
    AddWord(geteuid());
    AddWord(getegid());
    AddWord(static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; ++i) {
        AddWord(groups[i]);
    }
    writer_.U32(sizeAt, static_cast<uint32_t>(end_ - sizeAt - 4));
}

std::span<const uint8_t> CallMessage::Bytes(bool stream) {
    writer_.U32(0, kLastFragment | static_cast<uint32_t>(end_ - kMark));
    if (writer_.failed()) {
        return {};
    }
    return std::span{bytes_, end_}.subspan(stream ? 0 : kMark);
}

Outcome Call(int type, const sockaddr_in &server, CallMessage &call, uint32_t *pResult,
             const Deadline &end) {
    const bool stream = type == SOCK_STREAM;
    const std::span<const uint8_t> message = call.Bytes(stream);
    if (message.empty()) {
        return {.status = RPC_CANTENCODEARGS};
    }
    const UniqueFd fd{socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd) {
        return {.status = RPC_SYSTEMERROR, .error = errno};
    }
    BindReservedPort(fd.get());
    // A connected UDP socket receives datagrams of this server only, and reports ICMP errors.
    const int error = Connect(fd.get(), server, end);
    if (error != 0) {
        return {.status = stream ? RPC_SYSTEMERROR : RPC_CANTSEND, .error = error};
    }
    // TCP itself repeats what is lost, so one wait lasts until the deadline.
    for (int64_t wait = stream ? end.LeftMs() : kFirstRepeatMs;; wait *= 2) {
        // The empty buffer of a new socket takes the whole message.
        if (send(fd.get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) {
            return {.status = RPC_CANTSEND, .error = errno};
        }
        const Deadline repeat{std::min(wait, end.LeftMs())};
        const Outcome outcome = AwaitReply(fd.get(), stream, call.xid(), pResult, repeat);
        if (outcome.status != RPC_TIMEDOUT || end.LeftMs() == 0) {
            return outcome;
        }
    }
}

bool ReadReply(std::span<const uint8_t> bytes, bool stream, uint32_t xid, uint32_t *pResult,
               Outcome &outcome) {
    uint8_t record[kMaxReply];
    if (stream) {
        size_t size;
        const Record state = JoinFragments(bytes, record, size);
        if (state == Record::kIncomplete) {
            return false;
        }
        if (state == Record::kTooLong) {
            outcome = {.status = RPC_CANTDECODERES};
            return true;
        }
        bytes = {record, size};
    }
    BigEndianReader reply{bytes};
    if (reply.U32(0) != xid || reply.failed()) {
        outcome = {.status = RPC_CANTDECODERES};
        return stream;
    }
    const uint32_t type = reply.U32(4);
    const uint32_t state = reply.U32(8);
    if (state == MSG_ACCEPTED) {
        outcome = ReadAccepted(reply, pResult);
    } else if (state == MSG_DENIED) {
        outcome = ReadDenied(reply);
    }
    if (type != REPLY || state > MSG_DENIED || reply.failed()) {
        outcome = {.status = RPC_CANTDECODERES};
    }
    return true;
}

void PrintFailure(const char *pMessage, const Outcome &outcome) {
    char detail[160] = "";
    FormatDetail(outcome, detail, sizeof detail);
    char text[256];
    snprintf(text, sizeof text, "%s: RPC: %s%s\n", pMessage, kReasons[outcome.status], detail);
    // One write. fprintf would format on an unbuffered stream in 8 KiB of stack.
    fputs(text, stderr);
}

}  // namespace talvek::rpc
