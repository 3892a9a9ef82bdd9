/* Resolves a name or a mail address with the name servers of /etc/resolv.conf.
 *
 *   dns_lookup www.example.com           addresses of a host
 *   dns_lookup someone@example.com       addresses of the mail exchangers of the domain
 *   dns_lookup -t 3 www.example.com      waits at most 3 seconds each time (default 20)
 */

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dns/DNS.h"

static int Usage(const char *pProgram) {
    fprintf(stderr, "usage: %s [-t seconds] <host name | user@domain>\n", pProgram);
    return 2;
}

static void PrintEntry(int number, const tDnsAddrEntry *pEntry) {
    char address[INET_ADDRSTRLEN];
    const struct in_addr in = {.s_addr = pEntry->addr};
    inet_ntop(AF_INET, &in, address, sizeof address);
    if (pEntry->type == DNS_TYPE_MX) {
        printf("%2d  %-15s  MX, preference %d\n", number, address, pEntry->preference);
    } else {
        printf("%2d  %-15s  A\n", number, address);
    }
}

int main(int argc, char *argv[]) {
    int timeout = DNS_DEFAULT_TIMEOUT;
    int next = 1;
    if (argc > 2 && strcmp(argv[1], "-t") == 0) {
        char *pEnd = NULL;
        const long seconds = strtol(argv[2], &pEnd, 10);
        if (pEnd == argv[2] || *pEnd != '\0' || seconds < 0 || seconds > 3600) {
            return Usage(argv[0]);
        }
        timeout = (int)seconds;
        next = 3;
    }
    if (argc != next + 1) {
        return Usage(argv[0]);
    }

    const char *pName = argv[next];
    /* A lookup leaves the entries unchanged that it does not write. */
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    memset(entries, 0, sizeof entries);
    const int result = strchr(pName, '@') != NULL ? DNS_GetMX(pName, entries, timeout)
                                                  : DNS_GetA(pName, entries, timeout);
    int found = 0;
    for (int i = 0; i < DNS_MAX_ENTRIES && result == DNS_OK; ++i) {
        if (entries[i].valid) {
            PrintEntry(++found, &entries[i]);
        }
    }
    if (found == 0) {
        fprintf(stderr, "%s: no address found\n", pName);
        return 1;
    }
    return 0;
}
