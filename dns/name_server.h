#ifndef TALVEK_DNS_NAME_SERVER_H
#define TALVEK_DNS_NAME_SERVER_H

/* The name servers of this unit. */

#ifdef __cplusplus
extern "C" {
#endif

#define DNS_MAX_NAME_SERVERS 4  /* servers of /etc/resolv.conf that are used */
#define DNS_NAME_SERVER_SIZE 16 /* bytes of a server's address text, with its NUL */

/* Reads the name servers of /etc/resolv.conf (resolv.conf(5)).
 *
 *   pServers  out: the texts of the servers found, cut to 15 characters. The texts after them are
 *             unchanged
 *
 * The file is read in lines of at most 79 characters; the rest of a longer line counts as the
 * next line. A line counts when its first ten characters are "nameserver", and its second word is
 * the server. Words are separated by blanks, not by tabs.
 *
 * Returns the number of servers, 0 to DNS_MAX_NAME_SERVERS; 0 when the file cannot be opened and
 * for NULL (not logged). */
int DNS_GetNameServer(char pServers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE]);

#ifdef __cplusplus
}
#endif

#endif
