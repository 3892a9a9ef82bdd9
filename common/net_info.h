#ifndef TALVEK_COMMON_NET_INFO_H
#define TALVEK_COMMON_NET_INFO_H

/* Facts about an IPv4 interface: hardware address, address, broadcast address, netmask, gateway,
 * name servers and MTU, and the hardware address of a neighbour. The sources are the interface
 * requests of netdevice(7), the tables of proc(5) and the files of resolv.conf(5).
 *
 * A flag selects the fact and its form. The forms of an address:
 *
 *   form     bytes written                               after a failure
 *   TEXT     at most 16 with the NUL: 192.168.1.5        "0.0.0.0"
 *   PADDED   16 with the NUL: 192.168.001.005            "000.000.000.000"
 *   U32      4: the address in network byte order, as    four zero bytes
 *            in struct in_addr
 *   RAW      the same 4 bytes                            four zero bytes
 *
 * The forms of a hardware address, here of 00:11:22:AA:BB:CC. LAST4, LAST3 and LAST2 give only
 * the last four, three or two bytes:
 *
 *   form       bytes written
 *   HEX        at most 13 with the NUL: 001122AABBCC
 *   HEX_LOWER  13 with the NUL: 001122aabbcc
 *   COLON      at most 18 with the NUL: 00:11:22:AA:BB:CC
 *   BYTES      at most 6: the bytes themselves, without a NUL
 *
 * After a failure the hardware address is 00:00:00:00:00:00 in the flag's form. So the output of
 * every flag that the entry serves is well formed, whatever the result. Outputs may be unaligned.
 *
 * Interface names are NUL-terminated and have at most 15 characters. A longer name matches no
 * interface, nor does a NULL name, unless the entry says otherwise. Only COM_GetNetInfo knows the
 * name "auto". A flag that an entry does not serve is logged and fails. A NULL output is a failure
 * that is not logged.
 *
 * The kernel's tables are read in lines of at most 255 characters and resolv.conf files in lines
 * of at most 159; what follows in a longer line counts as the next line. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Flags. */
enum {
    /* Hardware address of an interface: COM_GetMAC. */
    COM_NET_MAC_HEX = 0,
    COM_NET_MAC_HEX_LOWER = 1,
    COM_NET_MAC_HEX_LAST4 = 2,
    COM_NET_MAC_HEX_LAST3 = 3,
    COM_NET_MAC_COLON = 4,
    COM_NET_MAC_COLON_LAST4 = 5,
    COM_NET_MAC_COLON_LAST3 = 6,
    COM_NET_MAC_BYTES = 7,
    COM_NET_MAC_BYTES_LAST4 = 8,
    COM_NET_MAC_BYTES_LAST3 = 9,
    COM_NET_MAC_BYTES_LAST2 = 10,

    /* Hardware address of a neighbour: COM_GetArpMAC. There is no BYTES of all six. */
    COM_NET_ARP_HEX = 11,
    COM_NET_ARP_HEX_LOWER = 12,
    COM_NET_ARP_HEX_LAST4 = 13,
    COM_NET_ARP_HEX_LAST3 = 14,
    COM_NET_ARP_COLON = 15,
    COM_NET_ARP_COLON_LAST4 = 16,
    COM_NET_ARP_COLON_LAST3 = 17,
    COM_NET_ARP_BYTES_LAST3 = 18,
    COM_NET_ARP_BYTES_LAST2 = 19,

    /* Address, broadcast address and netmask of an interface: COM_SubGetNetInfo. */
    COM_NET_IP_TEXT = 20,
    COM_NET_IP_PADDED = 21,
    COM_NET_IP_U32 = 22,
    COM_NET_IP_RAW = 23,
    COM_NET_BROADCAST_TEXT = 24,
    COM_NET_BROADCAST_PADDED = 25,
    COM_NET_BROADCAST_U32 = 26,
    COM_NET_NETMASK_TEXT = 27,
    COM_NET_NETMASK_PADDED = 28,
    COM_NET_NETMASK_U32 = 29,
    COM_NET_NETMASK_RAW = 30,

    /* Default gateway: COM_SubGetGateway. */
    COM_NET_GATEWAY_TEXT = 31,
    COM_NET_GATEWAY_PADDED = 32,
    COM_NET_GATEWAY_U32 = 33,
    COM_NET_GATEWAY_RAW = 34,

    /* First and second name server: COM_GetDnsServer. */
    COM_NET_DNS1_TEXT = 35,
    COM_NET_DNS1_PADDED = 36,
    COM_NET_DNS2_TEXT = 37,
    COM_NET_DNS2_PADDED = 38,
    COM_NET_DNS1_U32 = 39,
    COM_NET_DNS2_U32 = 40,
    COM_NET_DNS1_RAW = 41,
    COM_NET_DNS2_RAW = 42,

    /* MTU in bytes, an int32_t: COM_GetMTU. */
    COM_NET_MTU = 43
};

/* Sizes of outputs in bytes, including the NUL. */
enum {
    COM_NET_ADDRESS_TEXT_SIZE = 16, /* TEXT and PADDED */
    COM_NET_MAC_HEX_SIZE = 13,      /* HEX and HEX_LOWER */
    COM_NET_MAC_COLON_SIZE = 18,    /* COLON; holds every form */
    COM_NET_MAC_BYTES_SIZE = 6,     /* BYTES, which have no NUL */
    COM_NET_UNKNOWN_SIZE = 8,       /* the text "unknown" for a flag that does not exist */
    COM_NET_IF_NAME_SIZE = 16       /* an interface name */
};

/* Reads the fact that a flag selects; all flags are served.
 *
 *   flag   COM_NET_...
 *   pName  interface; NULL and "auto" name the interface of the default route or, when there is
 *          none, "eth0". For COM_NET_ARP_... the neighbour's IPv4 address as text; NULL matches no
 *          neighbour
 *   pOut   room for the flag's form and for COM_NET_UNKNOWN_SIZE bytes
 *
 * Returns the result of the entry that serves the flag. A number that is no flag is logged, the
 * output is the text "unknown", and the result is -1. */
int COM_GetNetInfo(uint32_t flag, const char *pName, void *pOut);

/* Hardware address of an interface (SIOCGIFHWADDR), COM_NET_MAC_... Returns 0; -1 with the zero
 * address in pOut, or, for a flag of another entry, with pOut unchanged. */
int COM_GetMAC(uint32_t flag, const char *pIfName, void *pOut);

/* Hardware address of a neighbour from /proc/net/arp, COM_NET_ARP_...
 *
 *   pAddress  the neighbour's IPv4 address, spelled as in the table
 *
 * Returns -1 always, also when the neighbour was found: read the output, which is the zero
 * address when the table has no such neighbour. Another flag leaves pOut unchanged. */
int COM_GetArpMAC(uint32_t flag, const char *pAddress, void *pOut);

/* Address, broadcast address or netmask of an interface (SIOCGIFADDR, SIOCGIFBRDADDR,
 * SIOCGIFNETMASK), COM_NET_IP_..., COM_NET_BROADCAST_..., COM_NET_NETMASK_... An interface without
 * an address is a failure that is not logged.
 *
 * Returns 0; -1 with the form's failure value in pOut (four zero bytes for another flag). */
int COM_SubGetNetInfo(uint32_t flag, const char *pIfName, void *pOut);

/* Default gateway, COM_NET_GATEWAY_...: that of the first default route in /proc/net/route which
 * leaves through pIfName (through any interface when it is NULL) and has a gateway. Without such
 * a route, the point-to-point peer of the interface (SIOCGIFDSTADDR); where the link is not
 * point-to-point, the kernel answers with the interface's own address.
 *
 * Returns 0; -1 with the form's failure value in pOut (four zero bytes for another flag). */
int COM_SubGetGateway(uint32_t flag, const char *pIfName, void *pOut);

/* Name server for an interface, COM_NET_DNS1_... and COM_NET_DNS2_...
 *
 * The file is /etc/resolv.conf.wan for "eth0" and /etc/resolv.conf.uplink for any other name, if
 * it exists and a file of the same name exists under /mtd1. That second file only marks the
 * setting as saved; it is not read. Otherwise, and for a NULL name, the file is /etc/resolv.conf.
 * An entry is the word after "nameserver" anywhere in a line, so entries in comments count.
 *
 * Returns 0; -1 when the file has no such entry or the entry is no IPv4 address, with the form's
 * failure value in pOut (four zero bytes for another flag). */
int COM_GetDnsServer(uint32_t flag, const char *pIfName, void *pOut);

/* MTU of an interface in bytes (SIOCGIFMTU), as an int32_t in the 4 bytes of pOut. The flag is
 * not checked. Returns 0; -1 with zero in pOut. */
int COM_GetMTU(uint32_t flag, const char *pIfName, void *pOut);

/* Name of the interface of the first default route in /proc/net/route that has a gateway.
 *
 *   pIfName  COM_NET_IF_NAME_SIZE bytes; unchanged after a failure
 *
 * Returns 0 or -1. */
int COM_GetDefaultRoute(char *pIfName);

#ifdef __cplusplus
}
#endif

#endif
