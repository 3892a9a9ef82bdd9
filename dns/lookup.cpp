// Lookups: a name or mail address to IPv4 addresses, over the name servers of the unit.

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "base/cancel_guard.h"
#include "base/unique_fd.h"
#include "dns/DNS.h"
#include "dns/internal/module_log.h"
#include "dns/internal/name.h"

namespace {

using ViaNameServer = int (*)(const char *, const char *, tDnsAddrEntry *, int);

// What inet_addr makes of the name goes to the first entry whether it is an address or not.
// Held by GetA.LeavesTheErrorOfInetAddrInTheFirstEntry.
bool TakeDottedAddress(const char *pDomainName, tDnsAddrEntry *pResult) {
    pResult[0].addr = inet_addr(talvek::QueriedName(pDomainName));
    if (pResult[0].addr == INADDR_NONE) {
        return false;
    }
    pResult[0].valid = 1;
    pResult[0].name_ofs = 0;
    pResult[0].preference = 0;
    pResult[0].type = DNS_TYPE_A;
    return true;
}

int AskNameServers(const char *pFunction, ViaNameServer ask, const char *pDomainName,
                   tDnsAddrEntry *pResult, int timeout) {
    char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
    const int count = DNS_GetNameServer(servers);
    if (count == 0) {
        LOG_AS(pFunction, "no nameserver found\n");
        return -1;
    }
    int result = -1;
    for (int i = 0; i < count && result != 0; ++i) {
        result = ask(servers[i], pDomainName, pResult, timeout);
    }
    return result;
}

// A bound socket for queries to the server, whose address is stored; empty, and logged for the
// entry, on failure.
talvek::UniqueFd OpenSocket(const char *pFunction, const char *pNameServer,
                            struct sockaddr_in &server) {
    server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(DNS_PORT);
    server.sin_addr.s_addr = pNameServer != nullptr ? inet_addr(pNameServer) : INADDR_NONE;
    if (server.sin_addr.s_addr == INADDR_NONE) {
        // inet_addr sets no errno.
        LOG_AS(pFunction, "inet_addr(%s) error : %s\n",
               pNameServer != nullptr ? pNameServer : "(null)", strerror(EINVAL));
        return {};
    }
    talvek::UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "socket() error : %s\n");
        return {};
    }
    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd.get(), reinterpret_cast<const struct sockaddr *>(&local), sizeof local) == -1) {
        LOG_ERRNO_AS(pFunction, "bind() error : %s\n");
        return {};
    }
    return fd;
}

}  // namespace

int DNS_GetA(const char *pDomainName, tDnsAddrEntry *pResult, int timeout) {
    const talvek::CancelGuard guard;
    if (pDomainName == nullptr) {
        LOG("pDomainName is NULL!\n");
        return -1;
    }
    if (strchr(pDomainName, '.') == nullptr) {
        LOG("invalid pDomainName [%s]\n", pDomainName);
        return -1;
    }
    if (pResult == nullptr) {
        return -1;
    }
    if (TakeDottedAddress(pDomainName, pResult)) {
        return 0;
    }
    if (!talvek::FitsQuery(pDomainName)) {
        LOG("invalid pDomainName [%s]\n", pDomainName);
        return -1;
    }
    return AskNameServers(__func__, DNS_GetAviaNameServer, pDomainName, pResult, timeout);
}

int DNS_GetMX(const char *pDomainName, tDnsAddrEntry *pResult, int timeout) {
    const talvek::CancelGuard guard;
    if (pDomainName == nullptr || strchr(pDomainName, '.') == nullptr) {
        LOG("invalid pDomainName\n");
        return -1;
    }
    if (pResult == nullptr) {
        return -1;
    }
    if (TakeDottedAddress(pDomainName, pResult)) {
        return 0;
    }
    if (!talvek::FitsQuery(pDomainName)) {
        LOG("invalid pDomainName\n");
        return -1;
    }
    return AskNameServers(__func__, DNS_GetMXviaNameServer, pDomainName, pResult, timeout);
}

int DNS_GetAviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                          int timeout) {
    const talvek::CancelGuard guard;
    struct sockaddr_in server;
    const talvek::UniqueFd fd = OpenSocket(__func__, pNameServer, server);
    if (!fd) {
        return -1;
    }
    const int result = DNS_SendAQuery(fd.get(), &server, pDomainName, pResult, timeout);
    if (result != 0) {
        LOG("A record not found!\n");
    }
    return result;
}

int DNS_GetMXviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                           int timeout) {
    const talvek::CancelGuard guard;
    struct sockaddr_in server;
    const talvek::UniqueFd fd = OpenSocket(__func__, pNameServer, server);
    if (!fd) {
        return -1;
    }
    int result = DNS_SendMXQuery(fd.get(), &server, pDomainName, pResult, timeout);
    if (result != 0) {
        LOG("MX record not found! Try A record.\n");
        result = DNS_SendAQuery(fd.get(), &server, pDomainName, pResult, timeout);
        if (result != 0) {
            LOG("A record not found!\n");
        }
    }
    return result;
}
