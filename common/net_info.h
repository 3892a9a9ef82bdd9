#ifndef TALVEK_COMMON_NET_INFO_H
#define TALVEK_COMMON_NET_INFO_H

/* What an IPv4 interface is and where its packets go: hardware address, a neighbour's hardware
 * address, address, broadcast address, netmask, gateway, name servers, MTU; each in the form that
 * the caller wants.
 *
 * A flag picks the item and its form:
 *
 *   flags                            served by           item
 *    0 to 10                         COM_GetMAC          hardware address of the interface
 *   11 to 19                         COM_GetArpMAC       hardware address of a neighbour
 *   20 text  21 padded  22, 23 binary  COM_SubGetNetInfo   address
 *   24 text  25 padded  26 binary      COM_SubGetNetInfo   broadcast address
 *   27 text  28 padded  29, 30 binary  COM_SubGetNetInfo   netmask
 *   31 text  32 padded  33, 34 binary  COM_SubGetGateway   default gateway
 *   35 text  36 padded  39, 41 binary  COM_GetDnsServer    first name server
 *   37 text  38 padded  40, 42 binary  COM_GetDnsServer    second name server
 *   43                                 COM_GetMTU          MTU
 *
 *   form of an address   bytes in the output         after a failure
 *   text                 16, with NUL: 192.168.1.5      "0.0.0.0"
 *   padded               16, with NUL: 192.168.001.005  "000.000.000.000"
 *   binary               4: the address in network byte order, as in struct in_addr;
 *                        the output may be unaligned    four zero bytes
 *
 *   form of a hardware address       interface flag (its bytes)    neighbour flag (its bytes)
 *   upper case hex    001122AABBCC    0 (0-5)  2 (2-5)  3 (3-5)        11 (0-5)  13 (2-5)  14 (3-5)
 *   lower case hex    001122aabbcc    1 (0-5)                        12 (0-5)
 *   colon   00:11:22:AA:BB:CC         4 (0-5)  5 (2-5)  6 (3-5)        15 (0-5)  16 (2-5)  17 (3-5)
 *   the bytes themselves, no NUL     7 (0-5)  8 (2-5)  9 (3-5)        18 (3-5)  19 (4-5)
 *                                   10 (4-5)
 *
 * A hex text takes two characters a byte and a NUL (at most 13 bytes of output), a colon text three
 * characters a byte less one and a NUL (at most 18 bytes). After a failure the hardware address is
 * 00:00:00:00:00:00 in the flag's form. So every output is well formed, whatever the result.
 *
 * Interface names are NUL-terminated and have at most 15 characters (IFNAMSIZ with the NUL); a
 * longer one is the name of no interface. Only COM_GetNetInfo knows the name "auto"; what a NULL
 * name means to the other entries is said with them. A flag that an entry does not serve is logged
 * and fails. A NULL output is a failure without a message. See netdevice(7) for the requests and
 * proc(5) for the tables. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Answers any flag.
 *
 *   flag   0 to 43, see above
 *   pName  interface; NULL or "auto" stands for the interface of the default route and, when there
 *          is none, for "eth0". For flags 11 to 19 the IPv4 address text of the neighbour.
 *   pOut   as the flag's form says: 16 bytes for addresses as text, 18 for a colon form, 8 at least
 *
 * Returns what the serving entry returns; any other flag stores the text "unknown" (8 bytes), logs
 * and returns -1. */
int COM_GetNetInfo(uint32_t flag, const char *pName, void *pOut);

/* Hardware address of an interface, flags 0 to 10 (SIOCGIFHWADDR). Returns 0, or -1 with a zero
 * address in pOut; a flag outside writes nothing. A NULL name is an unknown interface. */
int COM_GetMAC(uint32_t flag, const char *pIfName, void *pOut);

/* Hardware address of a neighbour as /proc/net/arp has it, flags 11 to 19. Flag 18 starts at byte
 * 3, unlike its counterpart 7.
 *
 *   pAddress  the neighbour's IPv4 address, spelled as in the table
 *
 * Returns -1 always, also when the neighbour was found: the output alone is the answer, and it is
 * the zero address when there is no such neighbour. A flag outside writes nothing. */
int COM_GetArpMAC(uint32_t flag, const char *pAddress, void *pOut);

/* Address, broadcast address or netmask of an interface, flags 20 to 30 (SIOCGIFADDR,
 * SIOCGIFBRDADDR, SIOCGIFNETMASK). Returns 0, or -1 with the failure text or value in pOut (four
 * zero bytes for a flag outside). An interface without an address fails without a message. A NULL
 * name is an unknown interface. */
int COM_SubGetNetInfo(uint32_t flag, const char *pIfName, void *pOut);

/* Default gateway, flags 31 to 34: the first default route of /proc/net/route that goes over
 * pIfName (any interface when NULL) and has a gateway. Without such a route the interface's
 * point-to-point peer (SIOCGIFDSTADDR); the kernel answers that with the interface's own address
 * where the link is not point-to-point.
 *
 * Returns 0, or -1 with the failure text or value in pOut (four zero bytes for a flag outside). */
int COM_SubGetGateway(uint32_t flag, const char *pIfName, void *pOut);

/* Name server that an interface should use, flags 35 to 42.
 *
 * The file read is /etc/resolv.conf.wan for "eth0" and /etc/resolv.conf.uplink for any other name,
 * provided that it and the file of that name under /mtd1 exist (that one marks the setting as kept;
 * its content does not matter); else, and for a NULL name, /etc/resolv.conf. An entry is the
 * word behind "nameserver", wherever that stands in a line: entries that are commented out count.
 *
 * Returns 0, or -1 with the failure text or value in pOut (four zero bytes for a flag outside) when
 * there is no such entry or it is no IPv4 address. */
int COM_GetDnsServer(uint32_t flag, const char *pIfName, void *pOut);

/* MTU of an interface in bytes (SIOCGIFMTU), as a 32-bit integer of the machine's byte order in
 * the 4 bytes of pOut, which may be unaligned. The flag is 43; others are served alike. Returns 0,
 * or -1 with zero in pOut. A NULL name is an unknown interface. */
int COM_GetMTU(uint32_t flag, const char *pIfName, void *pOut);

/* Name of the interface of the first default route of /proc/net/route that has a gateway.
 *
 *   pIfName  16 bytes with the NUL; untouched after a failure
 *
 * Returns 0 or -1. */
int COM_GetDefaultRoute(char *pIfName);

#ifdef __cplusplus
}
#endif

#endif
