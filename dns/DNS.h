#ifndef TALVEK_DNS_DNS_H
#define TALVEK_DNS_DNS_H

/* A small stub resolver: IPv4 addresses of a host name, or of the mail exchangers of a domain,
 * over UDP from the name servers of /etc/resolv.conf (RFC 1035). docs/dns-message.md draws the
 * messages.
 *
 * Conventions that hold for every entry:
 *
 *   - Results are signed 32-bit integers: DNS_OK, or a negative code for failure (result.h). A NULL
 *     argument is a failure, which is logged only for a name or the text of a server's address.
 *   - Other failures are logged on standard output with the module name DNS and the name of the
 *     function, unless the entry says otherwise. errno has no meaning after a failure.
 *   - A name is a NUL-terminated text: a host name, a dotted address, or a mail address, of which
 *     only the text after the first "@" is used.
 *   - A result array has DNS_MAX_ENTRIES entries. A call writes entries from the first on and
 *     leaves the rest unchanged: clear the array before the call, and look for entries with
 *     `valid` after it.
 *   - A time-out is in seconds and applies to each wait: 0 does not wait, a negative one waits
 *     for DNS_DEFAULT_TIMEOUT. A signal handler that interrupts a wait makes that wait fail.
 *   - There is no state: each query opens and closes its own socket, and each lookup reads
 *     /etc/resolv.conf. Calls may run in several threads at once.
 *   - Executed programs do not inherit sockets and files (FD_CLOEXEC).
 *   - Cancellation of a thread waits until a call is over.
 *   - No entry uses more than 8 KiB of stack.
 *
 * Limits of this resolver, which matter on an untrusted network:
 *
 *   - Every query has the same identifier. Neither the identifier nor the sender of a response is
 *     checked: any program that can send a datagram to the socket can answer, and the first
 *     datagram is the response.
 *   - There is no retry over TCP: a truncated response (TC) is used as it is, and a datagram is
 *     cut to DNS_MAX_RESPONSE bytes.
 *   - Answers are not walked record by record, and CNAME records are not followed. The first
 *     address is expected after the first bytes 00 04 (an RDLENGTH of 4) at offset 15 or later, and
 *     each further one 16 bytes later, as in responses with compressed owner names. An earlier
 *     00 04, for example in a time to live of 4 seconds, is mistaken for the length. Every record
 *     in the answer count is expected to be an address: with an alias, entries after the host's
 *     addresses hold whatever follows them in the response.
 *   - Only the low byte of a compression pointer is read: a name beyond offset 255 of the
 *     response is misread, and with it the preference of the exchanger. Only the low byte of a
 *     preference is read.
 *   - Addresses of mail exchangers are read only from the additional section. It is expected to end
 *     the response and to hold only A records of 16 bytes: first those of the exchangers, then one
 *     for each record of the authority section, which is skipped. Exchangers without an address
 *     there are not looked up. From a server with minimal responses the domain's own addresses are
 *     returned; if a server adds only the address of a name server, that address is returned. AAAA,
 *     OPT and signature records there are misread; the queries ask for none.
 *   - There is no search list, no "ndots", no /etc/hosts, no IPv6, and no check of the length of
 *     a label (63) or of a name (255). A name without any "." is refused. A "." at the end of a
 *     name is a character of the last label, so no server knows the name.
 *
 * Whatever a server sends, a call reads only the bytes received and ends within its time-outs. The
 * headers are plain C11 and can be read by C++. */

#include "../common/platform.h"
#include "../common/version.h"
#include "lookup.h"
#include "name_server.h"
#include "parser.h"
#include "query.h"
#include "result.h"

#endif
