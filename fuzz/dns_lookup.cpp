// A whole look-up: the name, the servers of /etc/resolv.conf, and the datagrams that arrive.
//
//   1 byte    bit 0: MX; bits 1 and 2: seconds of the time-out
//   a line    the name
//   piece     /etc/resolv.conf
//   pieces    the datagrams

#include <string.h>

#include "dns/DNS.h"
#include "fuzz/support/network.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

FUZZ_TARGET(dns_lookup) {
    const int flags = in.U8();
    const int timeout = flags >> 1 & 3;
    const talvek::fuzz::Text name{in.Line()};
    talvek::fuzz::World world;
    world.AddFile("/etc/resolv.conf", in.Piece());
    talvek::fuzz::Internet internet;
    internet.Receive(in);

    talvek::fuzz::Out out{sizeof(tDnsAddrEntry) * DNS_MAX_ENTRIES};
    auto *entries = reinterpret_cast<tDnsAddrEntry *>(out.bytes());
    const int result = (flags & 1) != 0 ? DNS_GetMX(name.get(), entries, timeout)
                                        : DNS_GetA(name.get(), entries, timeout);
    REQUIRE(result == DNS_OK || result == DNS_NO_ANSWER || result == DNS_NOT_SENT);
    // Three questions to each of four servers at most, each within its time-out.
    REQUIRE(internet.sends <= 3 * DNS_MAX_NAME_SERVERS);
    REQUIRE(internet.waited <= int64_t{internet.sends} * timeout * 1000000000);
    if (internet.sends > 0) {
        REQUIRE(internet.sent.size() >= 18 && internet.sent.size() <= DNS_MESSAGE_SIZE);
    }
    if (result == DNS_OK) {
        REQUIRE(entries[0].valid <= 1);
    } else {
        const bool asked = strchr(name.get(), '.') != nullptr;
        REQUIRE(entries[0].addr == (asked ? 0xFFFFFFFF : 0xA5A5A5A5));
        REQUIRE(out.Untouched(0xA5, sizeof *entries));
    }
}
