#ifndef TALVEK_COMMON_UDP_BROADCAST_H
#define TALVEK_COMMON_UDP_BROADCAST_H

/* UDP datagrams from an interface that has no IPv4 address yet. The IPv4 and UDP headers are
 * built here, and the packet is sent through a packet socket (packet(7), needs CAP_NET_RAW). */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Link-layer destinations (the argument `mode`). Any other number is the destination
 * 00:00:00:00:00:00. */
enum {
    COM_UDP_TO_ALL = 0,      /* ff:ff:ff:ff:ff:ff */
    COM_UDP_TO_MULTICAST = 1 /* 01:00:5e:7f:ff:fa, of the group 239.255.255.250 (RFC 1112) */
};

#define COM_UDP_MAX_PAYLOAD 1500 /* bytes */

/* Sends one datagram (RFC 791, RFC 768).
 *
 *   pIfName          interface to send from, truncated to 15 characters; NULL for none. Without an
 *                    interface, or when it does not exist (logged), the interface index is 0, for
 *                    which current kernels find no device (ENXIO)
 *   mode             COM_UDP_TO_...
 *   source,          IPv4 addresses in network byte order, as in struct in_addr
 *   destination
 *   sourcePort,      ports in host byte order
 *   destinationPort
 *   pData            payload; may be NULL when size is 0
 *   size             bytes of the payload, at most COM_UDP_MAX_PAYLOAD. The limit is that of the
 *                    payload alone: the largest packet has 1528 bytes, which an interface with an
 *                    MTU of 1500 does not send (EMSGSIZE)
 *
 * The packet is not fragmented. A UDP checksum of 0 is sent as 0, which the receiver reads as "no
 * checksum".
 *
 * Returns 0 when the packet was handed to the interface, else -1. A failed send is logged only
 * when an interface was named. */
int COM_SendUdpPackage(const char *pIfName, uint32_t mode, uint32_t source, uint32_t destination,
                       uint16_t sourcePort, uint16_t destinationPort, const void *pData,
                       uint32_t size);

/* COM_SendUdpPackage from 0.0.0.0 to 255.255.255.255 with COM_UDP_TO_ALL. */
int COM_SendUdpBroadcast(const char *pIfName, uint16_t sourcePort, uint16_t destinationPort,
                         const void *pData, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
