// The parsers of DNS responses. The first byte's low bit takes the rest as it is; without it the
// rest builds a message (support/dns_message.h).

#include <stdlib.h>
#include <string.h>

#include "dns/DNS.h"
#include "fuzz/support/dns_message.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

namespace {

using talvek::fuzz::Block;
using talvek::fuzz::Out;

constexpr uint8_t kFill = 0xA5;

// What a parser may have stored.
void CheckEntries(const Out &out, int result, int type) {
    if (result != DNS_OK) {
        REQUIRE(result == DNS_NO_ANSWER && out.Untouched());
        return;
    }
    const auto *entries = reinterpret_cast<const tDnsAddrEntry *>(out.bytes());
    bool stored = true;
    for (int i = 0; i < DNS_MAX_ENTRIES; ++i) {
        const tDnsAddrEntry &entry = entries[i];
        stored = stored && entry.valid != kFill;
        if (!stored) {  // entries are stored from the first on, and the rest is unchanged
            REQUIRE(out.Untouched(kFill, static_cast<size_t>(i) * sizeof entry));
            return;
        }
        REQUIRE(entry.valid <= 1 && entry.type == (entry.valid != 0 ? type : 0));
        REQUIRE(i == 0 || entries[i - 1].preference <= entry.preference || entry.valid == 0);
    }
}

void ParseAll(const Block &message) {
    const int length = static_cast<int>(message.size());
    {
        Out out{sizeof(tDnsAddrEntry) * DNS_MAX_ENTRIES};
        const int result =
            DNS_ParserA(message.data(), length, reinterpret_cast<tDnsAddrEntry *>(out.bytes()));
        CheckEntries(out, result, DNS_TYPE_A);
    }
    {
        Out out{sizeof(tDnsAddrEntry) * DNS_MAX_ENTRIES};
        const int result =
            DNS_ParserMX(message.data(), length, reinterpret_cast<tDnsAddrEntry *>(out.bytes()));
        CheckEntries(out, result, DNS_TYPE_MX);
    }
    const int answers = DNS_CheckMXAnswer(message.data(), length, 30);
    REQUIRE(answers == (length > 7 && message.data()[7] != 0 ? DNS_OK : DNS_NO_ANSWER));
}

void Expand(const Block &message, int offset, int size) {
    Out text{static_cast<size_t>(size)};
    const int count = DNS_ExpandPointer(message.data(), static_cast<int>(message.size()), offset,
                                        text.text(), size);
    if (size > 0) {
        REQUIRE(text.IsText());
    }
    if (count >= 0) {
        REQUIRE(static_cast<size_t>(count) == strlen(text.text()) && count < size);
        REQUIRE(text.text()[count - 1] == ',');
    } else {
        REQUIRE(count == -1);
    }
}

}  // namespace

FUZZ_TARGET(dns_response) {
    const bool raw = (in.U8() & 1) != 0;
    const int offset = in.U8();
    const int size = in.U8();
    const std::vector<uint8_t> built =
        raw ? std::vector<uint8_t>{} : talvek::fuzz::BuildDnsMessage(in);
    const Block message{raw ? in.Rest() : talvek::fuzz::Bytes{built}};
    ParseAll(message);
    Expand(message, offset, size);
}
