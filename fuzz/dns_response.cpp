// The parsers of DNS responses, against plain readings of what their headers say.
//
//   1 byte   bit 0: the rest is the message; without it the rest builds one
//            (support/dns_message.h); bits 1 to 3: upper bits of an offset in the message; bit 4:
//            the offset is negative
//   1 byte   the offset's lower bits
//   1 byte   the size of the text that a name is expanded into

#include <string.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "dns/DNS.h"
#include "fuzz/support/dns_message.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

namespace {

using talvek::fuzz::Block;
using talvek::fuzz::Bytes;
using talvek::fuzz::Out;

using Entries = std::vector<tDnsAddrEntry>;

constexpr size_t kRecordSize = 16;

uint8_t ByteAt(Bytes message, size_t at) {
    return at < message.size() ? message[at] : uint8_t{0};
}

uint32_t AddressAt(Bytes message, size_t at) {
    const uint8_t bytes[4] = {ByteAt(message, at), ByteAt(message, at + 1), ByteAt(message, at + 2),
                              ByteAt(message, at + 3)};
    uint32_t addr;
    memcpy(&addr, bytes, sizeof addr);
    return addr;
}

Entries PlainA(Bytes message) {
    size_t at = 17;
    while (at < message.size() && (message[at - 2] != 0 || message[at - 1] != 4)) {
        ++at;
    }
    if (at >= message.size()) {
        return {};
    }
    Entries entries(std::min<size_t>(message[7], DNS_MAX_ENTRIES));
    for (tDnsAddrEntry &entry : entries) {
        const uint32_t addr = AddressAt(message, at);
        if (addr == 0) {
            break;
        }
        entry = {1, 0, 0, DNS_TYPE_A, addr};
        at += kRecordSize;
    }
    return entries;
}

// All exchangers, in the order of the message.
Entries PlainMx(Bytes message) {
    const int authorities = ByteAt(message, 9);
    const int additional = ByteAt(message, 11);
    const size_t size = kRecordSize * static_cast<size_t>(additional);
    if (size == 0 || size >= message.size()) {
        return {};
    }
    Entries entries(static_cast<size_t>(std::max(additional - authorities, 1)));
    size_t at = message.size() - size;
    for (tDnsAddrEntry &entry : entries) {
        const uint8_t name = message[at + 1];
        const uint8_t preference = name > 0 ? ByteAt(message, name - 1u) : uint8_t{0};
        entry = {1, name, preference, DNS_TYPE_MX, AddressAt(message, at + 12)};
        at += kRecordSize;
    }
    return entries;
}

bool Precedes(const tDnsAddrEntry &first, const tDnsAddrEntry &second) {
    const auto key = [](const tDnsAddrEntry &entry) {
        return std::tuple{entry.preference, entry.name_ofs, entry.addr, entry.valid, entry.type};
    };
    return key(first) < key(second);
}

// What a parser stored, from the first entry on. The rest is unchanged.
Entries Stored(const Out &out, int result, size_t count) {
    count = std::min<size_t>(count, DNS_MAX_ENTRIES);
    REQUIRE(result == (count > 0 ? DNS_OK : DNS_NO_ANSWER));
    REQUIRE(out.Untouched(0xA5, count * sizeof(tDnsAddrEntry)));
    const auto *entries = reinterpret_cast<const tDnsAddrEntry *>(out.bytes());
    return {entries, entries + count};
}

void ParseA(Bytes message) {
    Out out{sizeof(tDnsAddrEntry) * DNS_MAX_ENTRIES};
    const int result = DNS_ParserA(message.data(), static_cast<int>(message.size()),
                                   reinterpret_cast<tDnsAddrEntry *>(out.bytes()));
    const Entries expected = PlainA(message);
    const Entries stored = Stored(out, result, expected.size());
    REQUIRE(expected.empty() ||
            memcmp(stored.data(), expected.data(), expected.size() * sizeof expected[0]) == 0);
}

void ParseMx(Bytes message) {
    Out out{sizeof(tDnsAddrEntry) * DNS_MAX_ENTRIES};
    const int result = DNS_ParserMX(message.data(), static_cast<int>(message.size()),
                                    reinterpret_cast<tDnsAddrEntry *>(out.bytes()));
    Entries expected = PlainMx(message);
    Entries stored = Stored(out, result, expected.size());
    std::sort(expected.begin(), expected.end(), Precedes);
    for (size_t i = 0; i < stored.size(); ++i) {
        REQUIRE(stored[i].preference == expected[i].preference);
    }
    // Those of one preference are in any order.
    std::sort(stored.begin(), stored.end(), Precedes);
    REQUIRE(
        std::includes(expected.begin(), expected.end(), stored.begin(), stored.end(), Precedes));
}

// A name as text, up to where it ends, runs out of the message or comes to a byte again.
struct PlainName {
    PlainName(Bytes message, size_t at) {
        std::vector<bool> seen(message.size());
        while (at < message.size() && !ring && !whole) {
            const uint8_t byte = message[at];
            ring = seen[at];
            seen[at] = true;
            whole = byte == 0;
            if (byte >= 192) {
                at = at + 1 < message.size() ? message[at + 1] : message.size();
            } else if (!ring) {
                text += whole ? ',' : byte < 30 ? '.' : static_cast<char>(byte);
                ++at;
            }
        }
    }
    std::string text;
    bool whole = false;
    bool ring = false;
};

void Expand(Bytes message, int offset, size_t size) {
    Out out{size};
    const int count = DNS_ExpandPointer(message.data(), static_cast<int>(message.size()), offset,
                                        out.text(), static_cast<int>(size));
    if (size == 0) {
        REQUIRE(count == -1);
        return;
    }
    REQUIRE(out.IsText());
    const PlainName name{message, offset >= 0 ? static_cast<size_t>(offset) : message.size()};
    const bool fits = name.text.size() < size;
    REQUIRE(count == (name.whole && fits ? static_cast<int>(name.text.size()) : -1));
    const std::string expected = name.text.substr(0, size - 1);
    const std::string text = out.text();
    REQUIRE(name.ring ? text.starts_with(expected) : text == expected);
}

}  // namespace

FUZZ_TARGET(dns_response) {
    const int how = in.U8();
    const int offset = in.U8() | (how & 0x0E) << 7;
    const size_t size = in.U8();
    const Block block{(how & 1) != 0 ? in.Rest() : Bytes{talvek::fuzz::BuildDnsMessage(in)}};
    const Bytes message{block.data(), block.size()};
    ParseA(message);
    ParseMx(message);
    const int length = static_cast<int>(message.size());
    REQUIRE(DNS_CheckMXAnswer(message.data(), length, 30) ==
            (ByteAt(message, 7) != 0 ? DNS_OK : DNS_NO_ANSWER));
    Expand(message, (how & 0x10) != 0 ? -offset : offset, size);
}
