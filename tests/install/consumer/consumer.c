/* A user's program, in C and in C++: one call into each library. */

#include <stdio.h>
#include <string.h>
#include <talvek/common/COMMON.h>
#include <talvek/dev/DEV.h>
#include <talvek/dns/DNS.h>
#include <talvek/service/TALVEK.h>

int main(void) {
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    memset(entries, 0, sizeof entries);
    printf("%s %d %d %d %d\n", TALVEK_VERSION, COM_Base64Value('B'), Dev_uMount(NULL),
           DNS_GetA("127.0.0.1", entries, 1), TALVEK_RunCommand("exit 7"));
    return 0;
}
