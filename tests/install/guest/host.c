/* The host's own code would not survive this tree's warnings as errors. */

#include <talvek/dns/DNS.h>

#ifdef _GNU_SOURCE
#error "a definition of the guest"
#endif

int main(int argc, char **argv) {
    int unused;
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    return DNS_GetA("127.0.0.1", entries, 1) == DNS_OK ? 0 : 1;
}
