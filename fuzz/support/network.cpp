#include "fuzz/support/network.h"

#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "fuzz/support/oracle.h"
#include "fuzz/support/world.h"
#include "fuzz/support/wrap.h"

namespace talvek::fuzz {
namespace {

Internet *g_internet = nullptr;
int g_offered = -1;

constexpr int64_t kNsPerSecond = 1000000000;

}  // namespace

// Records, not a stream: a read then ends where a piece ends.
Peer::Peer() {
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    own_ = ends[0];
    other_ = ends[1];
}

Peer::~Peer() {
    close(own_);
    if (other_ >= 0) {
        close(other_);
    }
    g_offered = -1;
}

bool Peer::Send(Bytes piece) {
    return write(own_, piece.data(), piece.size()) == ssize_t(piece.size());
}

void Peer::EndSending() {
    REQUIRE(shutdown(own_, SHUT_WR) == 0);
}

std::vector<std::vector<uint8_t>> Peer::Received() {
    std::vector<std::vector<uint8_t>> all;
    for (;;) {
        std::vector<uint8_t> piece(4096);
        const ssize_t count = recv(own_, piece.data(), piece.size(), MSG_DONTWAIT);
        // Said once, before what was received, when the other end left pieces unread.
        if (count < 0 && errno == ECONNRESET) {
            continue;
        }
        if (count <= 0) {
            return all;
        }
        piece.resize(static_cast<size_t>(count));
        all.push_back(std::move(piece));
    }
}

int Peer::TakeFd() {
    return std::exchange(other_, -1);
}

void Peer::OfferToConnect() {
    g_offered = TakeFd();
}

Internet::Internet(Alter alter) : alter_(alter) {
    g_internet = this;
}

Internet::~Internet() {
    g_internet = nullptr;
}

void Internet::Receive(Input &in) {
    constexpr uint16_t kFails = 0xFF00;
    constexpr int kErrors[] = {EAGAIN, EINTR, ECONNREFUSED, ECONNRESET, ENOMEM};
    while (!in.empty()) {
        const uint16_t length = in.U16();
        if (length >= kFails) {
            pieces.push_back({{}, kErrors[length % std::size(kErrors)]});
        } else {
            const Bytes piece = in.Take(length);
            pieces.push_back({{piece.begin(), piece.end()}, 0});
        }
    }
}

Internet::Piece Internet::Next() {
    Piece piece = {};
    if (!pieces.empty()) {
        piece = std::move(pieces.front());
        pieces.pop_front();
        if (alter_ != nullptr) {
            alter_(piece.bytes, sent);
        }
    }
    return piece;
}

}  // namespace talvek::fuzz

using talvek::fuzz::g_internet;
using talvek::fuzz::g_offered;
using talvek::fuzz::kNsPerSecond;

CAUGHT(int, socket, (int domain, int type, int protocol)) {
    if (g_offered >= 0) {
        return std::exchange(g_offered, -1);
    }
    return g_internet != nullptr ? talvek::fuzz::OpenMemory({})
                                 : REAL(socket)(domain, type, protocol);
}

CAUGHT(int, connect, (int fd, const struct sockaddr *pTo, socklen_t size)) {
    int type = 0;
    socklen_t typeSize = sizeof type;
    if (g_internet == nullptr && getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeSize) == 0 &&
        type == SOCK_SEQPACKET) {
        return 0;  // an offered connection
    }
    return g_internet != nullptr ? 0 : REAL(connect)(fd, pTo, size);
}

CAUGHT(int, bind, (int fd, const struct sockaddr *pAt, socklen_t size)) {
    return g_internet != nullptr ? 0 : REAL(bind)(fd, pAt, size);
}

CAUGHT(ssize_t, sendto,
       (int fd, const void *pBytes, size_t size, int flags, const struct sockaddr *pTo,
        socklen_t toSize)) {
    if (g_internet == nullptr) {
        return REAL(sendto)(fd, pBytes, size, flags, pTo, toSize);
    }
    const auto *bytes = static_cast<const uint8_t *>(pBytes);
    g_internet->sent.assign(bytes, bytes + size);
    ++g_internet->sends;
    return static_cast<ssize_t>(size);
}

CAUGHT(ssize_t, send, (int fd, const void *pBytes, size_t size, int flags)) {
    return g_internet != nullptr ? WRAP(sendto)(fd, pBytes, size, flags, nullptr, 0)
                                 : REAL(send)(fd, pBytes, size, flags);
}

CAUGHT(ssize_t, recvfrom,
       (int fd, void *pBytes, size_t size, int flags, struct sockaddr *pFrom,
        socklen_t *pFromSize)) {
    if (g_internet == nullptr) {
        return REAL(recvfrom)(fd, pBytes, size, flags, pFrom, pFromSize);
    }
    const talvek::fuzz::Internet::Piece piece = g_internet->Next();
    if (piece.error != 0) {
        errno = piece.error;
        return -1;
    }
    const size_t count = std::min(size, piece.bytes.size());
    std::copy_n(piece.bytes.begin(), count, static_cast<uint8_t *>(pBytes));
    return static_cast<ssize_t>(count);
}

CAUGHT(ssize_t, recv, (int fd, void *pBytes, size_t size, int flags)) {
    return g_internet != nullptr ? WRAP(recvfrom)(fd, pBytes, size, flags, nullptr, nullptr)
                                 : REAL(recv)(fd, pBytes, size, flags);
}

CAUGHT(int, CALL_PPOLL,
       (struct pollfd * pFds, nfds_t count, const struct timespec *pTime, const sigset_t *pMask)) {
    if (g_internet == nullptr) {
        return REAL(CALL_PPOLL)(pFds, count, pTime, pMask);
    }
    if ((pFds->events & POLLIN) == 0 || !g_internet->pieces.empty()) {
        pFds->revents = pFds->events;
        return 1;
    }
    REQUIRE(pTime != nullptr);  // nothing will ever come
    const int64_t time = int64_t{pTime->tv_sec} * kNsPerSecond + pTime->tv_nsec;
    g_internet->now += time;
    g_internet->waited += time;
    return 0;
}

// The clock also advances by a microsecond with each look at it.
CAUGHT(int, CALL_CLOCK_GETTIME, (clockid_t clock, struct timespec *pNow)) {
    if (g_internet == nullptr) {
        return REAL(CALL_CLOCK_GETTIME)(clock, pNow);
    }
    g_internet->now += 1000;
    pNow->tv_sec = static_cast<time_t>(g_internet->now / kNsPerSecond);
    pNow->tv_nsec = static_cast<long>(g_internet->now % kNsPerSecond);
    return 0;
}

// There is no name server; numbers are addresses.
CAUGHT(int, getaddrinfo,
       (const char *pName, const char *pService, const struct addrinfo *pHints,
        struct addrinfo **ppFound)) {
    if (g_internet == nullptr) {
        return REAL(getaddrinfo)(pName, pService, pHints, ppFound);
    }
    struct addrinfo hints = *pHints;
    hints.ai_flags |= AI_NUMERICHOST;
    return REAL(getaddrinfo)(pName, pService, &hints, ppFound);
}
