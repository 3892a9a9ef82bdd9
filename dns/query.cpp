// One question to one name server: the query message, and its exchange for a response.

#include "dns/query.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include "base/byte_writer.h"
#include "base/cancel_guard.h"
#include "base/clock.h"
#include "base/wait.h"
#include "dns/internal/module_log.h"
#include "dns/internal/name.h"
#include "dns/parser.h"

namespace {

using talvek::BigEndianWriter;
using talvek::Deadline;

constexpr int kAttemptsMx = 2;
// Times in one wait that the socket may be readable without a datagram. One more is an error.
constexpr int kMaxEmptyReads = 16;

constexpr uint16_t kClassIn = 1;
// ID, flags (RD only), QDCOUNT 1, ANCOUNT, NSCOUNT and ARCOUNT 0 (RFC 1035, 4.1.1).
constexpr uint8_t kHeader[12] = {DNS_QUERY_ID >> 8, DNS_QUERY_ID & 0xFF, 1, 0, 0, 1};
// The first bytes of a recursive server's response to our query with RCODE 3, name error.
constexpr uint8_t kNameError[4] = {DNS_QUERY_ID >> 8, DNS_QUERY_ID & 0xFF, 0x81, 0x83};

static_assert(sizeof kHeader + 1 + DNS_MAX_NAME + 1 + 2 + 2 == DNS_MESSAGE_SIZE);

// Writes the labels of a name and returns the offset after them. A "." separates two labels, but
// the last character always belongs to the last label. Tested by
// BuildQuery.KeepsATrailingDotInTheLastLabel.
size_t PutLabels(BigEndianWriter &message, size_t at, const char *pName) {
    for (;;) {
        const char *pEnd = strchr(pName, '.');
        const bool last = pEnd == nullptr || pEnd[1] == '\0';
        const size_t length = last ? strlen(pName) : static_cast<size_t>(pEnd - pName);
        message.U8(at, static_cast<uint8_t>(length));
        message.Copy(at + 1, pName, length);
        at += 1 + length;
        if (last) {
            return at;
        }
        pName = pEnd + 1;
    }
}

Deadline DeadlineOf(int timeout) {
    constexpr int64_t kMsPerSecond = 1000;
    return Deadline{(timeout < 0 ? DNS_DEFAULT_TIMEOUT : timeout) * kMsPerSecond};
}

enum class Ready { kYes, kTimeout, kError };

// errno is the reason when the descriptor is not ready.
Ready Wait(int fd, short events, const Deadline &deadline) {
    const int ready = talvek::WaitReady(fd, events, deadline.LeftMs());
    if (ready > 0) {
        return Ready::kYes;
    }
    if (ready < 0) {
        return Ready::kError;
    }
    errno = ETIMEDOUT;
    return Ready::kTimeout;
}

struct Query {
    const char *function;  // the entry, for its messages
    int fd;
    const struct sockaddr_in *server;
    int timeout;
    uint8_t message[DNS_MESSAGE_SIZE];
    int length;
};

struct Response {
    uint8_t bytes[DNS_MAX_RESPONSE];
    int length = 0;  // 0 when the receive failed
};

ssize_t Send(const Query &query) {
    errno = 0;  // a send of fewer bytes sets none
    // Non-blocking: after the wait there is room, unless another thread has used it.
    return sendto(query.fd, query.message, static_cast<size_t>(query.length), MSG_DONTWAIT,
                  reinterpret_cast<const struct sockaddr *>(query.server), sizeof *query.server);
}

// Receives the first datagram from any sender. A datagram that the wait reported may be gone, for
// example because of its checksum (select(2)); the wait then continues for the rest of its time.
Ready Receive(const Query &query, Response &response) {
    const Deadline deadline = DeadlineOf(query.timeout);
    for (int empty = 0;; ++empty) {
        const Ready ready = Wait(query.fd, POLLIN, deadline);
        if (ready != Ready::kYes) {
            return ready;
        }
        const ssize_t count = recvfrom(query.fd, response.bytes, sizeof response.bytes,
                                       MSG_DONTWAIT, nullptr, nullptr);
        if (count >= 0) {
            response.length = static_cast<int>(count);
            return Ready::kYes;
        }
        if (errno != EAGAIN || empty == kMaxEmptyReads) {
            LOG_ERRNO_AS(query.function, "recvfrom() error : %s\n");
            response.length = 0;
            return Ready::kYes;
        }
    }
}

bool IsNameError(const Response &response) {
    return response.length >= static_cast<int>(sizeof kNameError) &&
           memcmp(response.bytes, kNameError, sizeof kNameError) == 0;
}

// One attempt of an A query.
int AskA(const Query &query, Response &response) {
    constexpr int kAttempt = 0;  // an A query has one attempt
    if (Wait(query.fd, POLLOUT, DeadlineOf(query.timeout)) != Ready::kYes) {
        LOG_ERRNO_AS(query.function, "select(writeset:%d) timeout! : %s\n", query.fd);
        return DNS_NOT_SENT;
    }
    const ssize_t sent = Send(query);
    if (sent < query.length) {
        LOG_ERRNO_AS(query.function, "sendto() error : %d/%d - %s\n", static_cast<int>(sent),
                     query.length);
        return DNS_NOT_SENT;
    }
    switch (Receive(query, response)) {
        case Ready::kTimeout:
            LOG_AS(query.function, "[%d] select() timeout\n", kAttempt);
            return DNS_NO_ANSWER;
        case Ready::kError:
            LOG_ERRNO_AS(query.function, "[%d] select() error : %s\n", kAttempt);
            return DNS_NO_ANSWER;
        case Ready::kYes:
            break;
    }
    return IsNameError(response) ? DNS_NO_ANSWER : DNS_OK;
}

// One attempt of an MX query.
int AskMx(const Query &query, Response &response) {
    if (Wait(query.fd, POLLOUT, DeadlineOf(query.timeout)) != Ready::kYes) {
        LOG_AS(query.function, "select(&writeset) timeout!\n");
        return DNS_NOT_SENT;
    }
    // An error counts as sent, unlike in an A query: the wait for the response follows.
    // Tested by SendMXQuery.CountsASendErrorAsSent.
    if (Send(query) == 0) {
        LOG_ERRNO_AS(query.function, "sendto() error : %s\n");
        return DNS_NOT_SENT;
    }
    if (Receive(query, response) != Ready::kYes) {
        LOG_AS(query.function, "select(&readset) timeout!\n");
        return DNS_NO_ANSWER;
    }
    return DNS_CheckMXAnswer(response.bytes, response.length, query.length);
}

}  // namespace

int DNS_BuildQuery(const char *pDomainName, uint8_t *pMessage, uint16_t type) {
    if (pDomainName == nullptr || pMessage == nullptr || !talvek::FitsQuery(pDomainName)) {
        return -1;
    }
    BigEndianWriter message{pMessage, DNS_MESSAGE_SIZE};
    message.Copy(0, kHeader, sizeof kHeader);
    const size_t root = PutLabels(message, sizeof kHeader, talvek::QueriedName(pDomainName));
    message.U8(root, 0);
    message.U16(root + 1, type);
    message.U16(root + 3, kClassIn);
    return static_cast<int>(root + 5);
}

int DNS_SendAQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                   tDnsAddrEntry *pResult, int timeout) {
    const talvek::CancelGuard guard;
    if (pDomainName == nullptr) {
        LOG("pDomainName is NULL!\n");
        return DNS_NO_ANSWER;
    }
    if (pServer == nullptr || pResult == nullptr) {
        return DNS_NO_ANSWER;
    }
    Query query{__func__, fd, pServer, timeout, {}, 0};
    query.length = DNS_BuildQuery(pDomainName, query.message, DNS_TYPE_A);
    if (query.length < 0) {
        LOG("invalid pDomainName [%s]\n", pDomainName);
        return DNS_NO_ANSWER;
    }
    Response response;
    const int result = AskA(query, response);
    return result == DNS_OK ? DNS_ParserA(response.bytes, response.length, pResult) : result;
}

int DNS_SendMXQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                    tDnsAddrEntry *pResult, int timeout) {
    const talvek::CancelGuard guard;
    if (pServer == nullptr || pResult == nullptr) {
        return DNS_NO_ANSWER;
    }
    Query query{__func__, fd, pServer, timeout, {}, 0};
    query.length = DNS_BuildQuery(pDomainName, query.message, DNS_TYPE_MX);
    if (query.length < 0) {
        LOG("invalid pDomainName\n");
        return DNS_NO_ANSWER;
    }
    int result = DNS_NO_ANSWER;
    for (int attempt = 0; attempt < kAttemptsMx; ++attempt) {
        Response response;
        result = AskMx(query, response);
        if (result == DNS_OK) {
            return DNS_ParserMX(response.bytes, response.length, pResult);
        }
    }
    return result;
}
