// One question to one name server: the query message, and the exchange over a UDP socket.

#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "base/cancel_guard.h"
#include "dns/DNS.h"
#include "dns/internal/module_log.h"
#include "dns/internal/name.h"

namespace {

constexpr int kDefaultTimeout = 20;  // seconds, for a negative time-out
constexpr int kAttemptsMx = 2;
constexpr size_t kMaxResponse = 1023;
// Times that a socket may call itself readable and then hold nothing, before that is an error.
constexpr int kMaxEmptyReads = 16;

constexpr int kNoAnswer = -1;
constexpr int kNotSent = -2;

constexpr uint16_t kClassIn = 1;
// ID, flags (RD alone), QDCOUNT 1, ANCOUNT, NSCOUNT and ARCOUNT 0 (RFC 1035, 4.1.1).
constexpr uint8_t kHeader[12] = {DNS_QUERY_ID >> 8, DNS_QUERY_ID & 0xFF, 1, 0, 0, 1};
// The start of a response to our query by a recursive server with RCODE 3, no such name.
constexpr uint8_t kNameError[4] = {DNS_QUERY_ID >> 8, DNS_QUERY_ID & 0xFF, 0x81, 0x83};

// Each "." parts two labels, but the last character always belongs to the last label: a name that
// ends in "." keeps it as a character.
// Held by BuildQuery.KeepsATrailingDotInsideTheLastLabel.
uint8_t *PutLabels(uint8_t *pAt, const char *pName, size_t length) {
    uint8_t *pLabel = pAt++;  // where the length of the label goes that is being written
    for (size_t i = 0; i < length; ++i) {
        if (pName[i] == '.' && i + 1 < length) {
            *pLabel = static_cast<uint8_t>(pAt - pLabel - 1);
            pLabel = pAt++;
        } else {
            *pAt++ = static_cast<uint8_t>(pName[i]);
        }
    }
    *pLabel = static_cast<uint8_t>(pAt - pLabel - 1);
    return pAt;
}

uint8_t *PutU16(uint8_t *pAt, uint16_t value) {
    *pAt++ = static_cast<uint8_t>(value >> 8);
    *pAt++ = static_cast<uint8_t>(value & 0xFF);
    return pAt;
}

class Deadline {
  public:
    explicit Deadline(int seconds) : end_(Now() + SecondsOf(seconds) * kNsPerSecond) {}

    // Milliseconds left, rounded up; INT_MAX stands for that or more.
    [[nodiscard]] int Left() const {
        const int64_t left = end_ - Now();
        if (left <= 0) {
            return 0;
        }
        const int64_t ms = (left + kNsPerMs - 1) / kNsPerMs;
        return ms < INT_MAX ? static_cast<int>(ms) : INT_MAX;
    }

  private:
    static constexpr int64_t kNsPerSecond = 1000000000;
    static constexpr int64_t kNsPerMs = 1000000;

    static int64_t SecondsOf(int seconds) { return seconds < 0 ? kDefaultTimeout : seconds; }
    static int64_t Now() {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * kNsPerSecond + now.tv_nsec;
    }

    int64_t end_;
};

enum class Ready { kYes, kTimeout, kError };

// Waits as select would, for a descriptor of any number. errno tells why it is not ready.
Ready Wait(int fd, short events, const Deadline &deadline) {
    if (fd < 0) {
        errno = EBADF;
        return Ready::kError;
    }
    for (;;) {
        struct pollfd entry = {fd, events, 0};
        const int left = deadline.Left();
        const int count = poll(&entry, 1, left);
        if (count < 0) {
            return Ready::kError;
        }
        if (count > 0) {
            if ((entry.revents & POLLNVAL) != 0) {
                errno = EBADF;
                return Ready::kError;
            }
            return Ready::kYes;
        }
        if (left < INT_MAX) {
            errno = ETIMEDOUT;
            return Ready::kTimeout;
        }
    }
}

struct Exchange {
    const char *function;  // the entry that the messages name
    int fd;
    const struct sockaddr_in *server;
    int timeout;
};

struct Response {
    uint8_t bytes[kMaxResponse];
    int length = 0;  // 0 when the receive failed
};

ssize_t Send(const Exchange &exchange, const uint8_t *pMessage, int length) {
    errno = 0;  // a send that takes less than the whole sets none
    // After the wait there is room; should another thread have taken it, this does not block.
    return sendto(exchange.fd, pMessage, static_cast<size_t>(length), MSG_DONTWAIT,
                  reinterpret_cast<const struct sockaddr *>(exchange.server),
                  sizeof *exchange.server);
}

// Takes the first datagram that comes, from whomever. One that the kernel drops between the wait
// and the read, for its check sum, is as if it never came: the wait goes on for what is left of it.
Ready Receive(const Exchange &exchange, Response &response) {
    const Deadline deadline{exchange.timeout};
    for (int empty = 0;; ++empty) {
        const Ready ready = Wait(exchange.fd, POLLIN, deadline);
        if (ready != Ready::kYes) {
            return ready;
        }
        const ssize_t count = recvfrom(exchange.fd, response.bytes, sizeof response.bytes,
                                       MSG_DONTWAIT, nullptr, nullptr);
        if (count >= 0) {
            response.length = static_cast<int>(count);
            return Ready::kYes;
        }
        if (errno != EAGAIN || empty == kMaxEmptyReads) {
            LOG_ERRNO_AS(exchange.function, "recvfrom() error : %s\n");
            response.length = 0;
            return Ready::kYes;
        }
    }
}

bool IsNameError(const Response &response) {
    return response.length >= static_cast<int>(sizeof kNameError) &&
           memcmp(response.bytes, kNameError, sizeof kNameError) == 0;
}

// One attempt of an MX query; 0 with a response that holds answers.
int AskMx(const Exchange &exchange, const uint8_t *pMessage, int length, Response &response) {
    if (Wait(exchange.fd, POLLOUT, Deadline{exchange.timeout}) != Ready::kYes) {
        LOG_AS(exchange.function, "select(&writeset) timeout!\n");
        return kNotSent;
    }
    // An error counts as sent, unlike in the A exchange: the wait for the response follows.
    // Held by SendMXQuery.CountsASendErrorAsSent.
    if (Send(exchange, pMessage, length) == 0) {
        LOG_ERRNO_AS(exchange.function, "sendto() error : %s\n");
        return kNotSent;
    }
    if (Receive(exchange, response) != Ready::kYes) {
        LOG_AS(exchange.function, "select(&readset) timeout!\n");
        return kNoAnswer;
    }
    return DNS_CheckMXAnswer(response.bytes, response.length, length);
}

}  // namespace

int DNS_BuildQuery(const char *pDomainName, uint8_t *pMessage, uint16_t type) {
    if (pDomainName == nullptr || pMessage == nullptr || !talvek::FitsQuery(pDomainName)) {
        return -1;
    }
    const char *pName = talvek::QueriedName(pDomainName);
    memcpy(pMessage, kHeader, sizeof kHeader);
    uint8_t *pEnd = PutLabels(pMessage + sizeof kHeader, pName, strlen(pName));
    *pEnd++ = 0;
    pEnd = PutU16(pEnd, type);
    pEnd = PutU16(pEnd, kClassIn);
    return static_cast<int>(pEnd - pMessage);
}

int DNS_SendAQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                   tDnsAddrEntry *pResult, int timeout) {
    const talvek::CancelGuard guard;
    if (pDomainName == nullptr) {
        LOG("pDomainName is NULL!\n");
        return kNoAnswer;
    }
    if (pServer == nullptr || pResult == nullptr) {
        return kNoAnswer;
    }
    uint8_t message[DNS_MESSAGE_SIZE];
    const int length = DNS_BuildQuery(pDomainName, message, DNS_TYPE_A);
    if (length < 0) {
        LOG("invalid pDomainName [%s]\n", pDomainName);
        return kNoAnswer;
    }
    if (Wait(fd, POLLOUT, Deadline{timeout}) != Ready::kYes) {
        LOG_ERRNO("select(writeset:%d) timeout! : %s\n", fd);
        return kNotSent;
    }
    const Exchange exchange{__func__, fd, pServer, timeout};
    const ssize_t sent = Send(exchange, message, length);
    if (sent < length) {
        LOG_ERRNO("sendto() error : %d/%d - %s\n", static_cast<int>(sent), length);
        return kNotSent;
    }
    constexpr int kAttempt = 0;  // an A query has this one attempt
    Response response;
    switch (Receive(exchange, response)) {
        case Ready::kTimeout:
            LOG("[%d] select() timeout\n", kAttempt);
            return kNoAnswer;
        case Ready::kError:
            LOG_ERRNO("[%d] select() error : %s\n", kAttempt);
            return kNoAnswer;
        case Ready::kYes:
            break;
    }
    if (IsNameError(response)) {
        return kNoAnswer;
    }
    return DNS_ParserA(response.bytes, response.length, pResult);
}

int DNS_SendMXQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                    tDnsAddrEntry *pResult, int timeout) {
    const talvek::CancelGuard guard;
    if (pServer == nullptr || pResult == nullptr) {
        return kNoAnswer;
    }
    uint8_t message[DNS_MESSAGE_SIZE];
    const int length = DNS_BuildQuery(pDomainName, message, DNS_TYPE_MX);
    if (length < 0) {
        LOG("invalid pDomainName\n");
        return kNoAnswer;
    }
    const Exchange exchange{__func__, fd, pServer, timeout};
    int result = kNoAnswer;
    for (int attempt = 0; attempt < kAttemptsMx; ++attempt) {
        Response response;
        result = AskMx(exchange, message, length, response);
        if (result == 0) {
            return DNS_ParserMX(response.bytes, response.length, pResult);
        }
    }
    return result;
}
