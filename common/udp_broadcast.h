#ifndef TALVEK_COMMON_UDP_BROADCAST_H
#define TALVEK_COMMON_UDP_BROADCAST_H

/* UDP datagrams from an interface that has no IPv4 address yet: the IPv4 and UDP headers are made
 * here and leave through a packet socket (packet(7), needs CAP_NET_RAW). */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sends one datagram (RFC 791, RFC 768).
 *
 *   pIfName      interface to send from, of which 15 characters count; NULL for none. Without one,
 *                or when there is no such interface (logged), the interface index is 0, for which
 *                today's kernels find no device (ENXIO)
 *   mode         link-layer destination: 0 ff:ff:ff:ff:ff:ff, 1 01:00:5e:7f:ff:fa (of the group
 *                239.255.255.250), any other 00:00:00:00:00:00
 *   source       IPv4 addresses in network byte order, as in struct in_addr
 *   destination
 *   sourcePort   ports in host byte order
 *   destinationPort
 *   pData        payload of `size` bytes; may be NULL when size is 0
 *   size         at most 1500. This limit is of the payload alone: the largest packet has 1528
 *                bytes, which an interface with the usual MTU of 1500 does not take (EMSGSIZE)
 *
 * The packet is not fragmented. A UDP checksum that comes out as 0 is sent as 0, which tells the
 * receiver that there is none.
 *
 * Returns 0 when the packet was handed to the interface, else -1. A failed send is logged only when
 * an interface was named. */
int COM_SendUdpPackage(const char *pIfName, uint32_t mode, uint32_t source, uint32_t destination,
                       uint16_t sourcePort, uint16_t destinationPort, const void *pData,
                       uint32_t size);

/* COM_SendUdpPackage from 0.0.0.0 to 255.255.255.255 with mode 0. */
int COM_SendUdpBroadcast(const char *pIfName, uint16_t sourcePort, uint16_t destinationPort,
                         const void *pData, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
