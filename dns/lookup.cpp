// Lookups: from a name or mail address to IPv4 addresses, with the name servers of this unit.

#include "dns/lookup.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "dns/internal/module_log.h"
#include "dns/internal/name.h"
#include "dns/name_server.h"
#include "dns/query.h"

namespace {

using talvek::CancelGuard;
using talvek::UniqueFd;

using AskServer = int (*)(const char *, const char *, tDnsAddrEntry *, int);

// The value of inet_addr is stored in the first entry even if it is that of an error.
// Tested by GetA.LeavesTheErrorOfInetAddrInTheFirstEntry.
bool StoreDottedAddress(const char *pDomainName, tDnsAddrEntry *pResult) {
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

int AskNameServers(const char *pFunction, AskServer ask, const char *pDomainName,
                   tDnsAddrEntry *pResult, int timeout) {
    char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
    const int count = DNS_GetNameServer(servers);
    if (count == 0) {
        LOG_AS(pFunction, "no nameserver found\n");
        return DNS_NO_ANSWER;
    }
    int result = DNS_NO_ANSWER;
    for (int i = 0; i < count && result != DNS_OK; ++i) {
        result = ask(servers[i], pDomainName, pResult, timeout);
    }
    return result;
}

// Opens a bound socket for queries to the server, and stores the server's address. Empty, and
// logged for the entry, on failure.
UniqueFd OpenSocket(const char *pFunction, const char *pNameServer, struct sockaddr_in &server) {
    server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(DNS_PORT);
    server.sin_addr.s_addr = pNameServer != nullptr ? inet_addr(pNameServer) : INADDR_NONE;
    if (server.sin_addr.s_addr == INADDR_NONE) {
        // inet_addr sets no errno.
        LOG_AS(pFunction, "inet_addr(%s) error : %s\n", talvek::Shown(pNameServer),
               strerror(EINVAL));
        return {};
    }
    UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
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
    const CancelGuard guard;
    if (pDomainName == nullptr) {
        LOG("pDomainName is NULL!\n");
        return DNS_NO_ANSWER;
    }
    if (strchr(pDomainName, '.') == nullptr) {
        LOG("invalid pDomainName [%s]\n", pDomainName);
        return DNS_NO_ANSWER;
    }
    if (pResult == nullptr) {
        return DNS_NO_ANSWER;
    }
    if (StoreDottedAddress(pDomainName, pResult)) {
        return DNS_OK;
    }
    if (!talvek::FitsQuery(pDomainName)) {
        LOG("invalid pDomainName [%s]\n", pDomainName);
        return DNS_NO_ANSWER;
    }
    return AskNameServers(__func__, DNS_GetAviaNameServer, pDomainName, pResult, timeout);
}

int DNS_GetMX(const char *pDomainName, tDnsAddrEntry *pResult, int timeout) {
    const CancelGuard guard;
    if (pDomainName == nullptr || strchr(pDomainName, '.') == nullptr) {
        LOG("invalid pDomainName\n");
        return DNS_NO_ANSWER;
    }
    if (pResult == nullptr) {
        return DNS_NO_ANSWER;
    }
    if (StoreDottedAddress(pDomainName, pResult)) {
        return DNS_OK;
    }
    if (!talvek::FitsQuery(pDomainName)) {
        LOG("invalid pDomainName\n");
        return DNS_NO_ANSWER;
    }
    return AskNameServers(__func__, DNS_GetMXviaNameServer, pDomainName, pResult, timeout);
}

int DNS_GetAviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                          int timeout) {
    const CancelGuard guard;
    struct sockaddr_in server;
    const UniqueFd fd = OpenSocket(__func__, pNameServer, server);
    if (!fd) {
        return DNS_NO_ANSWER;
    }
    const int result = DNS_SendAQuery(fd.get(), &server, pDomainName, pResult, timeout);
    if (result != DNS_OK) {
        LOG("A record not found!\n");
    }
    return result;
}

int DNS_GetMXviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                           int timeout) {
    const CancelGuard guard;
    struct sockaddr_in server;
    const UniqueFd fd = OpenSocket(__func__, pNameServer, server);
    if (!fd) {
        return DNS_NO_ANSWER;
    }
    int result = DNS_SendMXQuery(fd.get(), &server, pDomainName, pResult, timeout);
    if (result != DNS_OK) {
        LOG("MX record not found! Try A record.\n");
        result = DNS_SendAQuery(fd.get(), &server, pDomainName, pResult, timeout);
        if (result != DNS_OK) {
            LOG("A record not found!\n");
        }
    }
    return result;
}
