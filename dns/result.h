#ifndef TALVEK_DNS_RESULT_H
#define TALVEK_DNS_RESULT_H

/* What lookups, queries and parsers return and store. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#define DNS_MAX_ENTRIES 10 /* entries of a result array */

/* Results. */
enum {
    DNS_OK = 0,
    DNS_NO_ANSWER = -1, /* no usable answer, or an invalid argument */
    DNS_NOT_SENT = -2   /* the query could not be sent */
};

/* Record types (RFC 1035, 3.2.2). */
#define DNS_TYPE_A 1   /* host address */
#define DNS_TYPE_MX 15 /* mail exchange */

/* One address. */
typedef struct tDnsAddrEntry {
    uint8_t valid;    /* 1 when the entry holds an address, else 0 */
    uint8_t name_ofs; /* MX: offset of the exchanger's name in the response (its low byte), else 0.
                         Entries with the same value have the same exchanger. DNS_ExpandPointer
                         gives the name, but only for a response that the caller has: after
                         DNS_GetMX it is gone */
    uint8_t preference; /* MX: low byte of the exchanger's preference, else 0 */
    uint8_t type;       /* DNS_TYPE_MX from an MX answer; DNS_TYPE_A from an A answer or a dotted
                           address */
    uint32_t addr;      /* IPv4 address in network byte order */
} tDnsAddrEntry;

static_assert(sizeof(tDnsAddrEntry) == 8, "tDnsAddrEntry");
static_assert(offsetof(tDnsAddrEntry, name_ofs) == 1, "tDnsAddrEntry");
static_assert(offsetof(tDnsAddrEntry, preference) == 2, "tDnsAddrEntry");
static_assert(offsetof(tDnsAddrEntry, type) == 3, "tDnsAddrEntry");
static_assert(offsetof(tDnsAddrEntry, addr) == 4, "tDnsAddrEntry");

#endif
