// The name servers of this unit: the "nameserver" lines of /etc/resolv.conf.

#include "dns/name_server.h"

#include <stdio.h>
#include <string.h>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_stream.h"
#include "dns/internal/module_log.h"

namespace {

constexpr char kResolvConf[] = "/etc/resolv.conf";
constexpr char kKeyword[] = "nameserver";
constexpr char kDelimiters[] = " \r\n";
constexpr size_t kLineSize = 80;

// The second word of a line that begins with the keyword, or null. Only ten characters of the line
// are compared: "nameserver1 10.0.0.1" counts. Tested by
// GetNameServer.ComparesOnlyTheFirstTenCharacters.
const char *ServerOfLine(char *pLine) {
    if (strncmp(pLine, kKeyword, sizeof kKeyword - 1) != 0) {
        return nullptr;
    }
    char *pRest = nullptr;
    strtok_r(pLine, kDelimiters, &pRest);  // the keyword is there
    return strtok_r(nullptr, kDelimiters, &pRest);
}

}  // namespace

int DNS_GetNameServer(char pServers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE]) {
    const talvek::CancelGuard guard;
    if (pServers == nullptr) {
        return 0;
    }
    const talvek::UniqueFile file{talvek::OpenStream(kResolvConf, "r")};
    if (!file) {
        LOG_ERRNO("fopen(%s) error : %s\n", kResolvConf);
        return 0;
    }
    int count = 0;
    char line[kLineSize];
    while (count < DNS_MAX_NAME_SERVERS && fgets(line, sizeof line, file.get()) != nullptr) {
        const char *pServer = ServerOfLine(line);
        if (pServer != nullptr) {
            snprintf(pServers[count], DNS_NAME_SERVER_SIZE, "%s", pServer);
            ++count;
        }
    }
    return count;
}
