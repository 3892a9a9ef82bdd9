// Routes, neighbours and name servers: 1 byte for the fact, whose high bit gives each interface a
// resolver's file of its own; a line with the interface or the neighbour's address, a piece that is
// both the kernel's table and its answers to ioctl, then a resolver's file.

#include <string.h>

#include <iterator>

#include "common/net_info.h"
#include "dns/name_server.h"
#include "fuzz/support/drive.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

// Bytes that each fact takes at most, in the order of the flags.
constexpr size_t kSizes[] = {
    13, 13, 9,  7,  18, 12, 9, 6,  4,  3, 2,  // hardware address
    13, 13, 9,  7,  18, 12, 9, 3,  2,         // of a neighbour
    16, 16, 4,  4,  16, 16, 4, 16, 16, 4, 4,  // address, broadcast address, netmask
    16, 16, 4,  4,                            // gateway
    16, 16, 16, 16, 4,  4,  4, 4,             // name servers
    4                                         // MTU
};
static_assert(std::size(kSizes) == COM_NET_MTU + 1);

}  // namespace

FUZZ_TARGET(network_tables) {
    const uint8_t which = in.U8();
    const uint32_t fact = which & 0x7FU;
    const talvek::fuzz::Text name{in.Line()};
    const talvek::fuzz::Bytes table = in.Piece();
    talvek::fuzz::World world;
    world.AddFiles({"/proc/net/route", "/proc/net/arp"}, table);
    const talvek::fuzz::Bytes resolver = in.Rest();
    world.AddFile("/etc/resolv.conf", resolver);
    if ((which & 0x80) != 0) {
        world.AddFiles({"/etc/resolv.conf.wan", "/mtd1/resolv.conf.wan", "/etc/resolv.conf.uplink",
                        "/mtd1/resolv.conf.uplink"},
                       resolver);
    }
    talvek::fuzz::Input answers{table};
    const talvek::fuzz::Drive kernel{answers};

    const size_t size = fact < std::size(kSizes) ? kSizes[fact] : size_t{COM_NET_UNKNOWN_SIZE};
    talvek::fuzz::Out out{size};
    const int result = COM_GetNetInfo(fact, name.get(), out.bytes());
    REQUIRE(result == 0 || result == -1);
    // Bytes of an address may be what the buffer held before.
    REQUIRE(size <= COM_NET_MAC_BYTES_SIZE || !out.Untouched());

    talvek::fuzz::Out interface { COM_NET_IF_NAME_SIZE };
    const int route = COM_GetDefaultRoute(interface.text());
    REQUIRE(route == 0 ? interface.IsText() : route == -1 && interface.Untouched());

    talvek::fuzz::Out servers{size_t{DNS_MAX_NAME_SERVERS} * DNS_NAME_SERVER_SIZE};
    auto *texts = reinterpret_cast<char(*)[DNS_NAME_SERVER_SIZE]>(servers.bytes());
    const int count = DNS_GetNameServer(texts);
    REQUIRE(count >= 0 && count <= DNS_MAX_NAME_SERVERS);
    for (int i = 0; i < count; ++i) {
        REQUIRE(memchr(texts[i], 0, DNS_NAME_SERVER_SIZE) != nullptr);
    }
    REQUIRE(servers.Untouched(0xA5, static_cast<size_t>(count) * DNS_NAME_SERVER_SIZE));
}
