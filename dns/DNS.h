#ifndef TALVEK_DNS_DNS_H
#define TALVEK_DNS_DNS_H

/* A small stub resolver: IPv4 addresses of a host name, and of the mail exchangers of a domain,
 * over UDP from the name servers of /etc/resolv.conf (RFC 1035).
 *
 * Conventions that hold for every entry:
 *
 *   - Results are signed 32-bit integers, 0 for success and a negative code for failure: -1 no
 *     usable answer, -2 the query could not be sent. A NULL argument is a failure, never a crash.
 *   - Failures are logged on standard output with the module name DNS and the function's own name.
 *   - A name is a NUL-terminated text: a host name, a dotted address or a mail address, of which
 *     only the text behind the first "@" counts.
 *   - A result array has room for 10 entries (80 bytes). Entries are written from the first on and
 *     those behind the last one written are never cleared: clear the array before a call, and look
 *     at "valid" after it.
 *   - A time-out is in whole seconds for each single wait: 0 does not wait, a negative one stands
 *     for 20 seconds. A signal handler that interrupts a wait ends that wait as failed.
 *   - There is no state: each query opens and closes its own socket and /etc/resolv.conf is read
 *     again by each lookup. Calls may run in several threads at once.
 *   - Cancellation of a thread waits until a call is over.
 *
 * What this resolver does not do, for a caller to weigh on a network that is not trusted:
 *
 *   - The identifier of each query is the same and neither it nor the sender of a response is
 *     checked. Whoever can send a datagram to the socket can answer. The first datagram that
 *     arrives is the response, whatever it holds.
 *   - No retry over TCP: a truncated response (TC) is used as far as it goes, and a datagram is cut
 *     to 1023 bytes.
 *   - No walk through the answers record by record and no following of CNAME records. The first
 *     address stands behind the first two bytes 00 04 at offset 15 or later (an RDLENGTH of 4, as
 *     usual servers respond) and each further one 16 bytes behind the one before, which holds for
 *     compressed owner names. Two bytes 00 04 elsewhere ahead of the address, in a time to live
 *     of 4 seconds say, are taken for that length. Each record of the answer count passes for an
 *     address: behind an alias, entries after the host's addresses hold bytes of what follows them.
 *   - Compression pointers are read by their low byte: names beyond offset 255 of a response are
 *     misread, and with them the preference of the exchanger. Preferences are read by their low
 *     byte too.
 *   - The addresses of mail exchangers come from the additional section alone, read from the end of
 *     the response as A records of 16 bytes, less one for each record of the authority section. An
 *     exchanger for which the server adds no address is not looked up by itself, so a server that
 *     keeps its responses minimal yields the domain's own addresses; one that adds only the address
 *     of a name server has that taken for an exchanger's. AAAA, OPT and signature records there are
 *     misread; a query asks for none of them.
 *   - No search list, no "ndots", no /etc/hosts, no IPv6, no check of the length of a label (63) or
 *     of a name (255). A name without any "." is refused, and a "." at the end of a name becomes a
 *     character of the last label, which no server knows.
 *
 * What a server sends cannot make a call touch a byte outside what was received, loop, or wait
 * longer than its time-outs. The headers are plain C11 and can be read by C++. docs/dns-message.md
 * draws the messages. */

#include <assert.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DNS_MAX_ENTRIES 10      /* entries of a result array */
#define DNS_MAX_NAME_SERVERS 4  /* servers of /etc/resolv.conf that are used */
#define DNS_NAME_SERVER_SIZE 16 /* bytes for one server's address text, the NUL included */
#define DNS_MESSAGE_SIZE 1024   /* bytes that a query can have at the most */
#define DNS_PORT 53             /* UDP port of a name server */
#define DNS_QUERY_ID 0xA9FA     /* identifier of every query */
#define DNS_TYPE_A 1            /* QTYPE of a host address (RFC 1035, 3.2.2) */
#define DNS_TYPE_MX 15          /* QTYPE of a mail exchange */

/* One address found. */
typedef struct tDnsAddrEntry {
    uint8_t valid;      /* 1: the entry holds an address, else 0 */
    uint8_t name_ofs;   /* MX: low byte of the pointer to the exchanger's name, else 0 */
    uint8_t preference; /* MX: low byte of the exchanger's preference, lowest first, else 0 */
    uint8_t type;       /* 15: of an MX answer; 1: of an A answer or a dotted address */
    uint32_t addr;      /* IPv4 address in network byte order */
} tDnsAddrEntry;

static_assert(sizeof(tDnsAddrEntry) == 8, "one result is 8 bytes");
static_assert(offsetof(tDnsAddrEntry, name_ofs) == 1, "offset of name_ofs");
static_assert(offsetof(tDnsAddrEntry, preference) == 2, "offset of preference");
static_assert(offsetof(tDnsAddrEntry, type) == 3, "offset of type");
static_assert(offsetof(tDnsAddrEntry, addr) == 4, "offset of addr");

/* ---- Lookups (lookup.cpp) ---- */

/* Finds the IPv4 addresses of a host.
 *
 *   pDomainName  host name or mail address with at least one "." anywhere. A dotted address as
 *                inet_addr reads it is the result itself: nothing is read or sent.
 *                255.255.255.255 cannot be told from an error there and is looked up as a name.
 *   pResult      10 entries
 *   timeout      seconds for each wait
 *
 * The servers are asked in the order of the file, once each, until one answers.
 * Returns 0 when the last response held addresses (were they all 0.0.0.0, no entry is valid), else
 * the failure code of the last server, -1 or -2; -1 when there is no server. A name that no message
 * can hold (more than 1006 bytes behind the "@") is logged as invalid and is -1, and nothing is
 * sent. Once the name was looked at as a dotted address, entry 0's addr holds what inet_addr made
 * of it, 255.255.255.255 for a name, until an answer is stored. */
int DNS_GetA(const char *pDomainName, tDnsAddrEntry *pResult, int timeout);

/* Finds the addresses of the mail exchangers of a domain, lowest preference first; where a server
 * has none to tell, the addresses of the domain itself.
 *
 * Arguments and result as with DNS_GetA; each server is asked for MX records up to twice, then once
 * for A records. The entries' type tells which answer they come from. */
int DNS_GetMX(const char *pDomainName, tDnsAddrEntry *pResult, int timeout);

/* DNS_GetA from one server.
 *
 *   pNameServer  dotted address of the server
 *   pDomainName  name to ask for; it is not tried as a dotted address
 *
 * Returns 0, or the query's failure code: -1 (also when no socket could be made), -2. */
int DNS_GetAviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                          int timeout);

/* DNS_GetMX from one server; the A query goes over the same socket as the MX query.
 * Returns 0, or the failure code of the last query made. */
int DNS_GetMXviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                           int timeout);

/* Reads the name servers of /etc/resolv.conf (resolv.conf(5)).
 *
 *   pServers  four texts of 16 bytes; each server found is stored with its NUL, cut to 15
 *             characters. The others stay as they are.
 *
 * A line, of which 79 bytes are read at a time, counts when its first ten characters are
 * "nameserver"; the address is its second word. Words are parted by blanks, not by tabs.
 * Returns the number of servers found, 0 to 4; 0 when the file cannot be opened. */
int DNS_GetNameServer(char pServers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE]);

/* ---- Queries (query.cpp) ---- */

/* Builds a query with recursion desired (RFC 1035, 4.1).
 *
 *   pDomainName  name or mail address. It is parted into labels at each "."; the last character
 *                always closes the last label, also when it is a ".". Two "." in a row make a label
 *                of no bytes. The length byte of a label is the low byte of its length.
 *   pMessage     1024 bytes, of which the message takes as many as the result says
 *   type         QTYPE
 *
 * Returns the length of the message, which is the length of the name asked for plus 18, or -1 with
 * pMessage as it was when that is more than 1024. */
int DNS_BuildQuery(const char *pDomainName, uint8_t *pMessage, uint16_t type);

/* Asks once for A records and stores what DNS_ParserA finds.
 *
 *   fd       open UDP socket, any number; it stays open
 *   pServer  where the query goes: IPv4 address and port 53
 *
 * Returns 0; -1 when no usable answer came (in time, or the server knows no such name); -2 when the
 * query could not be sent. */
int DNS_SendAQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                   tDnsAddrEntry *pResult, int timeout);

/* Asks for MX records, a second time where the first brought no response with answers, and stores
 * what DNS_ParserMX finds.
 *
 * Arguments as with DNS_SendAQuery. A send that fails with an error counts as sent, so that the
 * wait for the response follows all the same. Returns 0, or the failure of the last attempt, -1 or
 * -2. */
int DNS_SendMXQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                    tDnsAddrEntry *pResult, int timeout);

/* ---- Responses (parser.cpp) ---- */

/* Takes the addresses out of a response to an A query; the layout it relies on is at the head of
 * this file.
 *
 *   pResponse, length  the bytes received
 *   pResult            10 entries; as many as the answer count says (its low byte, 10 at the most)
 *                      are stored, those without an address zeroed
 *
 * Returns 0, also when each address found is 0.0.0.0 and no entry is valid, or -1, with pResult as
 * it was, when there are less than 18 bytes, no answers, or no place that looks like an address. Of
 * an address that the end of the response cuts, the missing bytes are 0. */
int DNS_ParserA(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult);

/* Takes the addresses of the exchangers out of the additional section of a response to an MX query,
 * sorted by preference; exchangers of the same preference stand in any order.
 *
 *   pResponse, length  the bytes received
 *   pResult            10 entries; of more exchangers, those of the lowest preferences are stored
 *
 * A preference that would stand outside the response, or before its start, is 0. Returns 0, or -1,
 * with pResult as it was, when the additional section is empty or does not leave a byte of the
 * response ahead of it. */
int DNS_ParserMX(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult);

/* Tells whether a response to an MX query is worth a look: 0 when the low byte of its answer count
 * is not 0, else -1.
 *
 *   pResponse, length  the bytes received
 *   queryLength        length of the query, where the answers begin behind the echoed question. The
 *                      check needs the header alone: the answers are not looked at. */
int DNS_CheckMXAnswer(const uint8_t *pResponse, int length, int queryLength);

/* Writes a name of a response as text, each label with a "." before it, closed by ",":
 * ".mx1.example.com,". With the name_ofs of an MX entry it tells the exchanger.
 *
 *   pResponse, length  the bytes received
 *   offset             where the name, or a compression pointer to it, stands
 *   pText, size        receives the text with its NUL; what does not fit is cut
 *
 * Bytes above 29 are characters, also those that are lengths of labels of 30 bytes and more; bytes
 * of 192 and more are pointers, of which the second byte alone is the target.
 * Returns the number of characters without the NUL, or -1 when the name does not end: it leaves the
 * response, its pointers go round, or the text is full. pText then holds what came before. */
int DNS_ExpandPointer(const uint8_t *pResponse, int length, int offset, char *pText, int size);

/* Comparator of two tDnsAddrEntry for qsort: preference of the first less that of the second. */
int DNS_CmpPreference(const void *pFirst, const void *pSecond);

#ifdef __cplusplus
}
#endif

#endif
