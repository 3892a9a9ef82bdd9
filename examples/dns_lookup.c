/* Resolves a name or a mail address with the name servers of /etc/resolv.conf.
 *
 *   dns_lookup www.example.com           addresses of a host
 *   dns_lookup someone@example.com       addresses of the mail exchangers of the domain
 *   dns_lookup -t 3 www.example.com      waits at most 3 seconds each time (default 20)
 */

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <talvek/dns/DNS.h>
#include <unistd.h>

#include "facts.h"

int main(int argc, char *argv[]) {
    int timeout = DNS_DEFAULT_TIMEOUT;
    while (FactsOption(argc, argv, "t:", "[-t seconds] <host name | user@domain>") != -1) {
        timeout = (int)FactsArgument(optarg, 0, 3600);
    }
    if (argc != optind + 1) {
        FactsWrongUse();
    }

    const char *pName = argv[optind];
    /* A lookup leaves the entries unchanged that it does not write. */
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    memset(entries, 0, sizeof entries);
    const int result = strchr(pName, '@') != NULL ? DNS_GetMX(pName, entries, timeout)
                                                  : DNS_GetA(pName, entries, timeout);
    int found = 0;
    FactsText("name", pName);
    FactsList("addresses");
    for (int i = 0; i < DNS_MAX_ENTRIES && result == DNS_OK; ++i) {
        if (!entries[i].valid) {
            continue;
        }
        char address[INET_ADDRSTRLEN];
        const struct in_addr in = {.s_addr = entries[i].addr};
        inet_ntop(AF_INET, &in, address, sizeof address);
        FactsItem();
        FactsText("address", address);
        if (entries[i].type == DNS_TYPE_MX) {
            FactsNumber("preference", entries[i].preference, NULL);
        }
        ++found;
    }
    FactsListEnd();
    if (found == 0) {
        fprintf(stderr, "%s: no address found\n", pName);
    }
    return FactsEnd(found == 0 ? 1 : 0);
}
