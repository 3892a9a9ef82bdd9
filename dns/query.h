#ifndef TALVEK_DNS_QUERY_H
#define TALVEK_DNS_QUERY_H

/* One question to one name server. */

#include <netinet/in.h>

#include "result.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DNS_PORT 53            /* UDP port of a name server */
#define DNS_QUERY_ID 0xA9FA    /* identifier of every query */
#define DNS_MESSAGE_SIZE 1024  /* bytes of the longest query */
#define DNS_MAX_NAME 1006      /* characters of the longest name that fits a query */
#define DNS_MAX_RESPONSE 1023  /* bytes of a response that are received */
#define DNS_DEFAULT_TIMEOUT 20 /* seconds, for a negative time-out */

/* Builds a query with recursion desired (RFC 1035, 4.1).
 *
 *   pDomainName  name or mail address. Each "." separates two labels, except one at the end, which
 *                is a character of the last label. Two "." in a row make an empty label. The length
 *                byte of a label is the low byte of its length
 *   pMessage     out: DNS_MESSAGE_SIZE bytes
 *   type         QTYPE, DNS_TYPE_...
 *
 * Returns the length of the message, which is the length of the name plus 18. Returns -1, with
 * pMessage unchanged and nothing logged, for a name of more than DNS_MAX_NAME characters and for
 * NULL. */
int DNS_BuildQuery(const char *pDomainName, uint8_t *pMessage, uint16_t type);

/* Asks once for A records and stores what DNS_ParserA finds.
 *
 *   fd           open UDP socket; it stays open
 *   pServer      IPv4 address and port to send the query to
 *   pDomainName  name or mail address
 *   pResult      result array
 *   timeout      seconds for each of the two waits, for sending and for the response
 *
 * Returns DNS_OK; DNS_NO_ANSWER when no usable answer came in time, or the server knows no such
 * name; DNS_NOT_SENT. */
int DNS_SendAQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                   tDnsAddrEntry *pResult, int timeout);

/* Asks for MX records, up to twice until a response holds answers, and stores what DNS_ParserMX
 * finds. Arguments as for DNS_SendAQuery.
 *
 * A send that fails with an error counts as sent: the wait for the response follows. Returns
 * DNS_OK, or the failure of the last attempt: DNS_NO_ANSWER or DNS_NOT_SENT. */
int DNS_SendMXQuery(int fd, const struct sockaddr_in *pServer, const char *pDomainName,
                    tDnsAddrEntry *pResult, int timeout);

#ifdef __cplusplus
}
#endif

#endif
