/* dns/DNS.h as a C program sees it: every entry is declared and can be called. */

#include "dns/DNS.h"

#include <stddef.h>
#include <string.h>

#include "support/c_api.h"

static const tCEntry kEntries[] = {
    C_ENTRY(DNS_BuildQuery),    C_ENTRY(DNS_CheckMXAnswer),
    C_ENTRY(DNS_CmpPreference), C_ENTRY(DNS_ExpandPointer),
    C_ENTRY(DNS_GetA),          C_ENTRY(DNS_GetAviaNameServer),
    C_ENTRY(DNS_GetMX),         C_ENTRY(DNS_GetMXviaNameServer),
    C_ENTRY(DNS_GetNameServer), C_ENTRY(DNS_ParserA),
    C_ENTRY(DNS_ParserMX),      C_ENTRY(DNS_SendAQuery),
    C_ENTRY(DNS_SendMXQuery),
};

static int CallThrough(void) {
    tDnsAddrEntry entries[10] = {{0}};
    return DNS_GetA("mail@10.1.2.3", entries, 0) == 0 && entries[0].valid == 1 &&
           entries[0].type == 1;
}

const tCModule kModuleInC = {
    kEntries, sizeof kEntries / sizeof kEntries[0], NULL, 0, CallThrough,
};
