// Routes, neighbours and name servers: 1 byte for the fact, a line with the interface or the
// neighbour's address, a piece with the kernel's table, then a resolver's file.

#include <string.h>

#include "common/net_info.h"
#include "dns/name_server.h"
#include "fuzz/support/drive.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

// Bytes that a fact takes at most.
size_t SizeOf(uint32_t fact) {
    const bool mac = fact <= COM_NET_ARP_BYTES_LAST2;
    return mac ? COM_NET_MAC_COLON_SIZE : COM_NET_ADDRESS_TEXT_SIZE;
}

}  // namespace

FUZZ_TARGET(network_tables) {
    const uint32_t fact = in.U8();
    const talvek::fuzz::Text name{in.Line()};
    const talvek::fuzz::Bytes table = in.Piece();
    talvek::fuzz::World world;
    world.AddFile("/proc/net/route", table);
    world.AddFile("/proc/net/arp", table);
    const talvek::fuzz::Bytes resolver = in.Rest();
    world.AddFile("/etc/resolv.conf", resolver);
    talvek::fuzz::Input answers{table};
    const talvek::fuzz::Drive kernel{answers};

    talvek::fuzz::Out out{SizeOf(fact)};
    const int result = COM_GetNetInfo(fact, name.get(), out.bytes());
    REQUIRE(result == 0 || result == -1);
    REQUIRE(!out.Untouched());

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
