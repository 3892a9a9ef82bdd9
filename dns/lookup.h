#ifndef TALVEK_DNS_LOOKUP_H
#define TALVEK_DNS_LOOKUP_H

/* Lookups: from a name or mail address to IPv4 addresses. */

#include "result.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Finds the IPv4 addresses of a host.
 *
 *   pDomainName  host name or mail address with at least one "." anywhere. The result for a dotted
 *                address (inet_addr(3)) is that address itself, without a query. 255.255.255.255 is
 *                looked up as a name, since inet_addr returns the same value for an error
 *   pResult      result array
 *   timeout      seconds for each wait
 *
 * The name servers are asked in the order of the file, once each, until one answers.
 *
 * Returns DNS_OK when a response held addresses. No entry is valid if the first address of an A
 * response is 0.0.0.0. Returns the failure of the last server otherwise, and DNS_NO_ANSWER without
 * a query when there is no server or the name has no "." or more than DNS_MAX_NAME characters. NULL
 * and a name without "." leave pResult unchanged; after any other failure the addr of the first
 * entry is 255.255.255.255, which inet_addr returns for a name. */
int DNS_GetA(const char *pDomainName, tDnsAddrEntry *pResult, int timeout);

/* Finds the addresses of the mail exchangers of a domain, the lowest preference first. When a
 * server has none, finds the addresses of the domain itself; the entries' `type` shows which.
 *
 * Arguments and result as for DNS_GetA. Each server is asked for MX records up to twice and then
 * once for A records. */
int DNS_GetMX(const char *pDomainName, tDnsAddrEntry *pResult, int timeout);

/* DNS_GetA with one server.
 *
 *   pNameServer  dotted address of the server; 255.255.255.255 is refused
 *   pDomainName  name to ask for, even if it is a dotted address
 *
 * Returns the result of DNS_SendAQuery, or DNS_NO_ANSWER when pNameServer is not an address or
 * there is no socket. */
int DNS_GetAviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                          int timeout);

/* DNS_GetMX with one server. The A query uses the socket of the MX query.
 *
 * Returns the result of the last query made, or DNS_NO_ANSWER as DNS_GetAviaNameServer does. */
int DNS_GetMXviaNameServer(const char *pNameServer, const char *pDomainName, tDnsAddrEntry *pResult,
                           int timeout);

#ifdef __cplusplus
}
#endif

#endif
