// Sockets to RPC servers on which every wait has an end.

#include "dev/internal/rpc_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <span>

#include "base/byte_reader.h"

namespace talvek::rpc {
namespace {

// The header of an answer with the longest verifier has 424 bytes (RFC 5531, 9 and 8.2).
constexpr size_t kMaxAnswer = 1024;

int64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

int64_t EndOfTime() {
    return NowMs() + kAnswerSeconds * int64_t{1000};
}

// Waits until a socket is ready; 0, or an errno: ETIMEDOUT at the end of the time.
int WaitUntilReady(int fd, short events, int64_t end) {
    for (;;) {
        const int64_t left = end - NowMs();
        pollfd wait{fd, events, 0};
        const int count = left > 0 ? poll(&wait, 1, static_cast<int>(left)) : 0;
        if (count > 0) {
            return 0;
        }
        if (count == 0) {
            return ETIMEDOUT;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
}

// 0, or the errno of the failure.
int FinishConnect(int fd) {
    int error = WaitUntilReady(fd, POLLOUT, EndOfTime());
    if (error == 0) {
        socklen_t size = sizeof error;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            error = errno;
        }
    }
    return error;
}

// A record is made of fragments, each behind a word with its size, whose highest bit marks the last
// (RFC 5531, 11).
bool HoldsRecord(std::span<const uint8_t> bytes) {
    constexpr uint32_t kLast = 0x80000000;
    BigEndianReader reader{bytes};
    for (size_t at = 0;;) {
        const uint32_t mark = reader.U32(at);
        const size_t size = mark & ~kLast;
        if (reader.failed() || !reader.Has(at + sizeof mark, size)) {
            return false;
        }
        if ((mark & kLast) != 0) {
            return true;
        }
        at += sizeof mark + size;
    }
}

// Receives up to the end of the first record, of the connection or of the buffer, and counts what
// came; false when the time is over before.
bool ReceiveRecord(int connection, std::span<uint8_t> buffer, size_t &count) {
    const int64_t end = EndOfTime();
    while (count < buffer.size() && !HoldsRecord(buffer.first(count))) {
        const int error = WaitUntilReady(connection, POLLIN, end);
        if (error != 0) {
            return error != ETIMEDOUT;
        }
        const ssize_t more =
            recv(connection, buffer.data() + count, buffer.size() - count, MSG_DONTWAIT);
        if (more > 0) {
            count += static_cast<size_t>(more);
        } else if (more == 0 || (errno != EINTR && errno != EAGAIN)) {
            return true;
        }
    }
    return true;
}

}  // namespace

UniqueFd OpenSocket(int type) {
    UniqueFd fd{socket(AF_INET, type | SOCK_CLOEXEC, 0)};
    if (fd) {
        bindresvport(fd.get(), nullptr);
    }
    return fd;
}

UniqueFd ConnectTcp(const sockaddr_in &server) {
    UniqueFd fd = OpenSocket(SOCK_STREAM | SOCK_NONBLOCK);
    if (!fd) {
        return fd;
    }
    int error = 0;
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0) {
        error = errno == EINPROGRESS ? FinishConnect(fd.get()) : errno;
    }
    if (error == 0 && fcntl(fd.get(), F_SETFL, 0) != 0) {
        error = errno;
    }
    if (error != 0) {
        fd.Reset();
        errno = error;
    }
    return fd;
}

bool AnswerRelay::Open() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    reader_.Reset(ends[0]);
    writer_.Reset(ends[1]);
    return true;
}

bool AnswerRelay::Await(int connection) {
    uint8_t answer[kMaxAnswer];
    size_t size = 0;
    if (!ReceiveRecord(connection, answer, size)) {
        return false;
    }
    // What cannot be sent is missing at the end of the stream, as if it had not come.
    send(writer_.get(), answer, size, MSG_NOSIGNAL);
    shutdown(writer_.get(), SHUT_WR);
    return dup3(reader_.get(), connection, O_CLOEXEC) != -1;
}

}  // namespace talvek::rpc
