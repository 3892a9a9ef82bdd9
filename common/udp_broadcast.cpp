// One UDP datagram with IPv4 and UDP headers of our own, through a packet socket.

#include "common/udp_broadcast.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "base/byte_writer.h"
#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "common/internal/module_log.h"
#include "common/media.h"

namespace {

using talvek::BigEndianWriter;
using talvek::Shown;
using talvek::UniqueFd;

constexpr const char *kFunction = "COM_SendUdpPackage";
constexpr size_t kIpHeader = 20;
constexpr size_t kUdpHeader = 8;
constexpr size_t kHeaders = kIpHeader + kUdpHeader;
constexpr size_t kMaxPacket = kHeaders + COM_UDP_MAX_PAYLOAD;

// Offsets in the packet (RFC 791, RFC 768).
constexpr size_t kVersionAndLength = 0;
constexpr size_t kTotalLength = 2;
constexpr size_t kTimeToLive = 8;
constexpr size_t kProtocol = 9;
constexpr size_t kHeaderChecksum = 10;
constexpr size_t kSource = 12;
constexpr size_t kDestination = 16;
constexpr size_t kSourcePort = kIpHeader;
constexpr size_t kDestinationPort = kIpHeader + 2;
constexpr size_t kUdpLength = kIpHeader + 4;
constexpr size_t kUdpChecksum = kIpHeader + 6;

constexpr uint8_t kIpv4WithoutOptions = 0x45;
constexpr uint8_t kHops = 64;

struct LinkDestination {
    uint32_t mode;
    uint8_t address[ETH_ALEN];
};

constexpr LinkDestination kLinkDestinations[] = {
    {COM_UDP_TO_ALL, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    {COM_UDP_TO_MULTICAST, {0x01, 0x00, 0x5E, 0x7F, 0xFF, 0xFA}},
};

struct Datagram {
    uint32_t source;  // network byte order
    uint32_t destination;
    uint16_t sourcePort;
    uint16_t destinationPort;
    const void *data;
    size_t size;
};

void StoreChecksum(uint8_t *pPacket, size_t summed, size_t offset) {
    // The sum is taken over words in memory order and stored in memory order (RFC 1071, 2 (B)).
    const uint16_t sum = COM_CheckSum16(pPacket, static_cast<int>(summed));
    memcpy(pPacket + offset, &sum, sizeof sum);
}

// `packet` is zeroed. The IPv4 header first serves as the pseudo-header of the UDP checksum. It
// then holds the protocol, the addresses, and the UDP length in place of the total length, so its
// sum is that of the pseudo-header of RFC 768.
void BuildPacket(const Datagram &datagram, uint8_t (&packet)[kMaxPacket]) {
    const size_t size = kHeaders + datagram.size;
    const auto udpLength = static_cast<uint16_t>(kUdpHeader + datagram.size);
    BigEndianWriter out{packet, size};
    out.U16(kTotalLength, udpLength);
    out.U8(kProtocol, IPPROTO_UDP);
    out.Copy(kSource, &datagram.source, sizeof datagram.source);
    out.Copy(kDestination, &datagram.destination, sizeof datagram.destination);
    out.U16(kSourcePort, datagram.sourcePort);
    out.U16(kDestinationPort, datagram.destinationPort);
    out.U16(kUdpLength, udpLength);
    out.Copy(kHeaders, datagram.data, datagram.size);
    StoreChecksum(packet, size, kUdpChecksum);

    out.U16(kTotalLength, static_cast<uint16_t>(size));
    out.U8(kVersionAndLength, kIpv4WithoutOptions);
    out.U8(kTimeToLive, kHops);
    StoreChecksum(packet, kIpHeader, kHeaderChecksum);
}

int InterfaceIndex(const UniqueFd &fd, const char *pIfName) {
    if (pIfName == nullptr) {
        return 0;
    }
    ifreq request = {};
    snprintf(request.ifr_name, sizeof request.ifr_name, "%s", pIfName);
    if (ioctl(fd.get(), SIOCGIFINDEX, &request) == -1) {
        LOG_ERRNO_AS(kFunction, "failed to retrieve ifindex of [%s] : %s\n", pIfName);
        return 0;
    }
    return request.ifr_ifindex;
}

sockaddr_ll LinkAddress(int index, uint32_t mode) {
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = index;
    address.sll_halen = ETH_ALEN;
    for (const LinkDestination &destination : kLinkDestinations) {
        if (destination.mode == mode) {
            memcpy(address.sll_addr, destination.address, ETH_ALEN);
        }
    }
    return address;
}

int SendPacket(const UniqueFd &fd, const char *pIfName, uint32_t mode, const Datagram &datagram) {
    uint8_t packet[kMaxPacket] = {};
    BuildPacket(datagram, packet);
    const sockaddr_ll link = LinkAddress(InterfaceIndex(fd, pIfName), mode);
    const auto *pLink = reinterpret_cast<const sockaddr *>(&link);
    // sendto has the same address, so the packet can be sent even if bind fails.
    if (bind(fd.get(), pLink, sizeof link) == -1) {
        LOG_ERRNO_AS(kFunction, "bind([%d][%s]) failed! : %s\n", link.sll_ifindex, Shown(pIfName));
    }
    if (sendto(fd.get(), packet, kHeaders + datagram.size, MSG_NOSIGNAL, pLink, sizeof link) ==
        -1) {
        if (pIfName != nullptr) {
            LOG_ERRNO_AS(kFunction, "sendto(%s:%d) error : %s\n", pIfName,
                         datagram.destinationPort);
        }
        return -1;
    }
    return 0;
}

}  // namespace

int COM_SendUdpPackage(const char *pIfName, uint32_t mode, uint32_t source, uint32_t destination,
                       uint16_t sourcePort, uint16_t destinationPort, const void *pData,
                       uint32_t size) {
    const talvek::CancelGuard guard;
    if (size > COM_UDP_MAX_PAYLOAD) {
        LOG("data_sz[%d] exceed limit[%d]!\n", static_cast<int>(size), COM_UDP_MAX_PAYLOAD);
        return -1;
    }
    if (pData == nullptr && size > 0) {
        return -1;
    }
    const UniqueFd fd{socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP))};
    if (!fd) {
        LOG_ERRNO("socket(SOCK_DGRAM) failed : %s\n");
        return -1;
    }
    const int on = 1;
    const int result = setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    if (result == -1) {
        LOG_ERRNO("setsockopt(SOL_SOCKET(%d), SO_BROADCAST(%d)) error : %s\n", SOL_SOCKET,
                  SO_BROADCAST);
        return result;
    }
    return SendPacket(fd, pIfName, mode,
                      {source, destination, sourcePort, destinationPort, pData, size});
}

int COM_SendUdpBroadcast(const char *pIfName, uint16_t sourcePort, uint16_t destinationPort,
                         const void *pData, uint32_t size) {
    return COM_SendUdpPackage(pIfName, COM_UDP_TO_ALL, INADDR_ANY, INADDR_BROADCAST, sourcePort,
                              destinationPort, pData, size);
}
