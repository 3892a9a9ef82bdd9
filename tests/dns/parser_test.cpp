#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/canary.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;

tDnsAddrEntry EntryA(const char *pAddress) {
    return {1, 0, 0, DNS_TYPE_A, Address(pAddress)};
}

tDnsAddrEntry EntryMx(size_t nameOfs, uint8_t preference, const char *pAddress) {
    return {1, static_cast<uint8_t>(nameOfs), preference, DNS_TYPE_MX, Address(pAddress)};
}

constexpr tDnsAddrEntry kEmpty = {};

int ParseA(const Bytes &response, Results &results) {
    const GuardedCopy copy{response.data(), response.size()};
    return DNS_ParserA(copy.bytes(), static_cast<int>(copy.size()), results.entries);
}

int ParseMx(const Bytes &response, Results &results) {
    const GuardedCopy copy{response.data(), response.size()};
    return DNS_ParserMX(copy.bytes(), static_cast<int>(copy.size()), results.entries);
}

Builder AnswersFor(int count) {
    Builder response{QueryFor("www.ex.test", DNS_TYPE_A)};
    for (int i = 1; i <= count; ++i) {
        response.A(Builder::kAnswer, Builder::kQuestion, ("10.0.0." + std::to_string(i)).c_str());
    }
    return response;
}

// ---- DNS_ParserA ----

TEST(ParserA, ReadsEachAddress16BytesAfterTheOneBefore) {
    for (const int count : {1, 2, 9, 10}) {
        Results results;
        ASSERT_EQ(0, ParseA(AnswersFor(count).bytes(), results)) << count;
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(EntryA(("10.0.0." + std::to_string(i + 1)).c_str()),
                      results[static_cast<size_t>(i)]);
        }
        EXPECT_TRUE(results.UntouchedFrom(static_cast<size_t>(count)));
    }
}

TEST(ParserA, StoresTheFirstTenOfMore) {
    const CanaryBuf buffer{sizeof(tDnsAddrEntry) * DNS_MAX_ENTRIES};
    const Bytes response = AnswersFor(12).bytes();
    const auto entries = reinterpret_cast<tDnsAddrEntry *>(buffer.bytes());
    ASSERT_EQ(0, DNS_ParserA(response.data(), static_cast<int>(response.size()), entries));
    EXPECT_EQ(EntryA("10.0.0.1"), entries[0]);
    EXPECT_EQ(EntryA("10.0.0.10"), entries[9]);
}

TEST(ParserA, ReadsTheLowByteOfTheAnswerCount) {
    Bytes response = AnswersFor(2).bytes();
    response[6] = 0xFF;
    Results results;
    EXPECT_EQ(0, ParseA(response, results));
    EXPECT_TRUE(results.UntouchedFrom(2));
    response[7] = 0;
    EXPECT_EQ(-1, ParseA(response, results));
}

TEST(ParserA, ZeroesEntriesAfterTheEndOfTheResponse) {
    Bytes response = AnswersFor(2).bytes();
    response[7] = 5;
    Results results;
    ASSERT_EQ(0, ParseA(response, results));
    EXPECT_EQ(EntryA("10.0.0.2"), results[1]);
    for (size_t i = 2; i < 5; ++i) {
        EXPECT_EQ(kEmpty, results[i]);
    }
    EXPECT_TRUE(results.UntouchedFrom(5));
}

// The offset does not advance over a zero address.
TEST(ParserA, ReadsNothingAfterAZeroAddress) {
    Builder response{QueryFor("www.ex.test", DNS_TYPE_A)};
    response.A(Builder::kAnswer, 12, "10.0.0.1")
        .A(Builder::kAnswer, 12, "0.0.0.0")
        .A(Builder::kAnswer, 12, "10.0.0.3");
    Results results;
    ASSERT_EQ(0, ParseA(response.bytes(), results));
    EXPECT_EQ(EntryA("10.0.0.1"), results[0]);
    EXPECT_EQ(kEmpty, results[1]);
    EXPECT_EQ(kEmpty, results[2]);
    EXPECT_TRUE(results.UntouchedFrom(3));
}

TEST(ParserA, SucceedsWithoutAValidEntryForAZeroAddress) {
    Builder response{QueryFor("www.ex.test", DNS_TYPE_A)};
    response.A(Builder::kAnswer, 12, "0.0.0.0");
    Results results;
    EXPECT_EQ(0, ParseA(response.bytes(), results));
    EXPECT_EQ(kEmpty, results[0]);
    EXPECT_TRUE(results.UntouchedFrom(1));
}

// The first two bytes 00 04 from offset 15 on are those of a time to live of 4 seconds here, so the
// "address" begins with the RDLENGTH.
TEST(ParserA, MistakesEarlierBytes0004ForTheLength) {
    Builder response{QueryFor("www.ex.test", DNS_TYPE_A)};
    response.A(Builder::kAnswer, 12, "10.0.0.1", 4);
    Results results;
    ASSERT_EQ(0, ParseA(response.bytes(), results));
    EXPECT_EQ(EntryA("0.4.10.0"), results[0]);
}

// A CNAME record is skipped as long as it holds no 00 04.
TEST(ParserA, FindsTheAddressAfterACname) {
    Builder response{QueryFor("www.ex.test", DNS_TYPE_A)};
    response.Record(Builder::kAnswer, 12, 5, 3600, {3, 'w', 'e', 'b', 0xC0, 0x10});
    response.A(Builder::kAnswer, 41, "10.0.0.1");
    Results results;
    ASSERT_EQ(0, ParseA(response.bytes(), results));
    EXPECT_EQ(EntryA("10.0.0.1"), results[0]);
    EXPECT_EQ(kEmpty, results[1]) << "the answer count includes the CNAME";
}

// 00 04 at offsets 15 and 16 is a length, at 14 and 15 it is not.
TEST(ParserA, SearchesTheLengthFromOffset15) {
    Bytes response(40, 0xAA);
    response[7] = 1;
    response[15] = 0;
    response[16] = 4;
    Results results;
    ASSERT_EQ(0, ParseA(response, results));
    EXPECT_EQ(EntryA("170.170.170.170"), results[0]);
    response[14] = 0;
    response[15] = 4;
    response[16] = 0xAA;
    EXPECT_EQ(-1, ParseA(response, results));
}

TEST(ParserA, NeedsAByteOfTheAddressInTheResponse) {
    Bytes response(40, 0xAA);
    response[7] = 1;
    response[38] = 0;
    response[39] = 4;
    Results results;
    EXPECT_EQ(-1, ParseA(response, results)) << "00 04 are the last bytes";
    EXPECT_TRUE(results.UntouchedFrom(0));
    response.push_back(9);
    ASSERT_EQ(0, ParseA(response, results));
    EXPECT_EQ(EntryA("9.0.0.0"), results[0]) << "bytes after the end are zero";
}

TEST(ParserA, RefusesFewerThan18Bytes) {
    Bytes response = {0xA9, 0xFA, 0x81, 0x80, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 4, 77};
    Results results;
    ASSERT_EQ(18u, response.size());
    EXPECT_EQ(0, ParseA(response, results));
    EXPECT_EQ(EntryA("77.0.0.0"), results[0]);
    for (size_t length = 0; length < 18; ++length) {
        Results none;
        EXPECT_EQ(-1, ParseA(Bytes(response.begin(), response.begin() + ptrdiff_t(length)), none));
        EXPECT_TRUE(none.UntouchedFrom(0));
    }
}

TEST(ParserA, RefusesNullAndNegativeLengths) {
    const Bytes response = AnswersFor(1).bytes();
    Results results;
    EXPECT_EQ(-1, DNS_ParserA(nullptr, 40, results.entries));
    EXPECT_EQ(-1, DNS_ParserA(response.data(), 40, nullptr));
    EXPECT_EQ(-1, DNS_ParserA(response.data(), -1, results.entries));
    EXPECT_TRUE(results.UntouchedFrom(0));
}

// ---- DNS_ParserMX ----

struct MxResponse {
    Builder builder{QueryFor("ex.test", DNS_TYPE_MX)};
    std::vector<size_t> names;

    explicit MxResponse(const std::vector<int> &preferences) {
        for (size_t i = 0; i < preferences.size(); ++i) {
            names.push_back(builder.Mx(static_cast<uint16_t>(preferences[i]),
                                       std::string(1, static_cast<char>('a' + i))));
        }
    }
    MxResponse &Addresses() {
        for (size_t i = 0; i < names.size(); ++i) {
            builder.A(Builder::kAdditional, names[i], ("10.0.1." + std::to_string(i + 1)).c_str());
        }
        return *this;
    }
};

TEST(ParserMx, SortsByPreference) {
    MxResponse response{{20, 10, 30}};
    response.Addresses();
    Results results;
    ASSERT_EQ(0, ParseMx(response.builder.bytes(), results));
    EXPECT_EQ(EntryMx(response.names[1], 10, "10.0.1.2"), results[0]);
    EXPECT_EQ(EntryMx(response.names[0], 20, "10.0.1.1"), results[1]);
    EXPECT_EQ(EntryMx(response.names[2], 30, "10.0.1.3"), results[2]);
    EXPECT_TRUE(results.UntouchedFrom(3));
}

TEST(ParserMx, StoresTheFirstTenAfterSorting) {
    MxResponse response{{120, 110, 100, 90, 80, 70, 60, 50, 40, 30, 20, 10}};
    response.Addresses();
    ASSERT_GT(256u, response.names.back());
    Results results;
    ASSERT_EQ(0, ParseMx(response.builder.bytes(), results));
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(10 * (i + 1), results[i].preference);
        EXPECT_EQ(EntryMx(response.names[11 - i], results[i].preference,
                          ("10.0.1." + std::to_string(12 - i)).c_str()),
                  results[i]);
    }
}

// Entries of the same preference may be in any order.
TEST(ParserMx, StoresEveryEntryOfEqualPreferences) {
    MxResponse response{{10, 10}};
    response.Addresses();
    response.builder.A(Builder::kAdditional, response.names[0], "10.0.1.3");
    Results results;
    ASSERT_EQ(0, ParseMx(response.builder.bytes(), results));
    std::vector<uint32_t> found;
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(10, results[i].preference);
        found.push_back(results[i].addr);
    }
    EXPECT_TRUE(std::is_permutation(
        found.begin(), found.end(),
        std::vector<uint32_t>{Address("10.0.1.1"), Address("10.0.1.2"), Address("10.0.1.3")}
            .begin()));
    EXPECT_TRUE(results.UntouchedFrom(3));
}

TEST(ParserMx, ReadsTheLowByteOfAPreference) {
    MxResponse response{{0x0105, 0x0004}};
    response.Addresses();
    Results results;
    ASSERT_EQ(0, ParseMx(response.builder.bytes(), results));
    EXPECT_EQ(EntryMx(response.names[1], 4, "10.0.1.2"), results[0]);
    EXPECT_EQ(EntryMx(response.names[0], 5, "10.0.1.1"), results[1]);
}

// The last addresses of the additional section are those of the servers in the authority section.
TEST(ParserMx, OmitsOneAddressForEachAuthorityRecord) {
    MxResponse response{{20, 10}};
    response.builder.Record(Builder::kAuthority, 12, 2, 3600, {2, 'n', 's', 0xC0, 12});
    const size_t server = response.builder.bytes().size() - 5;
    response.Addresses();
    response.builder.A(Builder::kAdditional, server, "10.0.9.9");
    Results results;
    ASSERT_EQ(0, ParseMx(response.builder.bytes(), results));
    EXPECT_EQ(EntryMx(response.names[1], 10, "10.0.1.2"), results[0]);
    EXPECT_EQ(EntryMx(response.names[0], 20, "10.0.1.1"), results[1]);
    EXPECT_TRUE(results.UntouchedFrom(2));
}

TEST(ParserMx, StoresAtLeastOneEntry) {
    for (const int authority : {1, 2, 255}) {
        MxResponse response{{20}};
        response.Addresses();
        Bytes bytes = response.builder.bytes();
        bytes[9] = static_cast<uint8_t>(authority);
        Results results;
        ASSERT_EQ(0, ParseMx(bytes, results));
        EXPECT_EQ(EntryMx(response.names[0], 20, "10.0.1.1"), results[0]);
        EXPECT_TRUE(results.UntouchedFrom(1));
    }
}

TEST(ParserMx, FailsWithoutAdditionalRecords) {
    MxResponse response{{20}};
    Results results;
    EXPECT_TRUE(
        CaptureLog([&] { EXPECT_EQ(-1, ParseMx(response.builder.bytes(), results)); }).empty());
    EXPECT_TRUE(results.UntouchedFrom(0));
}

// At least one byte must precede the section.
TEST(ParserMx, RefusesAnAdditionalSectionThatDoesNotFit) {
    for (const int records : {1, 2, 63, 255}) {
        for (const int spare : {-1, 0, 1}) {
            if (records * 16 + spare < 12) {
                continue;
            }
            Bytes response(static_cast<size_t>(records * 16 + spare), 0);
            response[11] = static_cast<uint8_t>(records);
            Results results;
            const auto lines =
                CaptureLog([&] { EXPECT_EQ(spare < 1 ? -1 : 0, ParseMx(response, results)); });
            if (spare < 1) {
                EXPECT_EQ(std::vector<std::string>{"DNS:DNS_ParserMX(): Packet Size error!"},
                          lines);
                EXPECT_TRUE(results.UntouchedFrom(0));
            } else {
                EXPECT_TRUE(lines.empty());
            }
        }
    }
}

// There is no byte before offset 0 and none beyond the end.
TEST(ParserMx, ReadsAPreferenceOutsideTheResponseAsZero) {
    Bytes response(40, 0x77);
    response[9] = 0;
    response[11] = 1;
    for (const auto &[offset, preference] :
         {std::pair{0, 0}, {1, 0x77}, {40, 0x77}, {41, 0}, {255, 0}}) {
        response[25] = static_cast<uint8_t>(offset);
        Results results;
        ASSERT_EQ(0, ParseMx(response, results));
        EXPECT_EQ(offset, results[0].name_ofs);
        EXPECT_EQ(preference, results[0].preference);
    }
}

// Only the low byte of the pointer is read, so name and preference are looked for too early.
TEST(ParserMx, MisreadsNamesBeyondOffset255) {
    Builder builder{QueryFor("ex.test", DNS_TYPE_MX)};
    builder.Record(Builder::kAnswer, 12, 16, 3600, Bytes(240, 0x2A));  // a text that takes room
    const size_t name = builder.Mx(20, "a");
    ASSERT_LT(255u, name);
    builder.A(Builder::kAdditional, name, "10.0.1.1");
    Results results;
    ASSERT_EQ(0, ParseMx(builder.bytes(), results));
    EXPECT_EQ(name & 0xFF, results[0].name_ofs);
    EXPECT_EQ(builder.bytes()[(name & 0xFF) - 1], results[0].preference);
    EXPECT_NE(20, results[0].preference);
    EXPECT_EQ(Address("10.0.1.1"), results[0].addr);
}

TEST(ParserMx, RefusesFewerBytesThanAHeader) {
    const Bytes full(12, 0xFF);
    for (size_t length = 0; length < 12; ++length) {
        Results results;
        EXPECT_EQ(-1, ParseMx(Bytes(full.begin(), full.begin() + ptrdiff_t(length)), results));
        EXPECT_TRUE(results.UntouchedFrom(0));
    }
}

TEST(ParserMx, RefusesNullAndNegativeLengths) {
    const Bytes response(100, 1);
    Results results;
    EXPECT_EQ(-1, DNS_ParserMX(nullptr, 40, results.entries));
    EXPECT_EQ(-1, DNS_ParserMX(response.data(), 40, nullptr));
    EXPECT_EQ(-1, DNS_ParserMX(response.data(), -1, results.entries));
    EXPECT_TRUE(results.UntouchedFrom(0));
}

// ---- DNS_CheckMXAnswer ----

TEST(CheckMXAnswer, ChecksTheLowByteOfTheAnswerCount) {
    for (const auto &[high, low, result] :
         {std::tuple{0, 0, -1}, {0, 1, 0}, {0, 255, 0}, {1, 0, -1}, {1, 1, 0}}) {
        Bytes response(40, 0);
        response[6] = static_cast<uint8_t>(high);
        response[7] = static_cast<uint8_t>(low);
        for (const int queryLength : {0, 25, 1024, -1}) {
            EXPECT_EQ(result, DNS_CheckMXAnswer(response.data(), 40, queryLength));
        }
    }
}

TEST(CheckMXAnswer, RefusesResponsesWithoutACount) {
    const Bytes full(8, 0xFF);
    for (int length = -1; length < 8; ++length) {
        const GuardedCopy copy{full.data(), static_cast<size_t>(std::max(length, 0))};
        EXPECT_EQ(-1, DNS_CheckMXAnswer(copy.bytes(), length, 25));
    }
    EXPECT_EQ(0, DNS_CheckMXAnswer(full.data(), 8, 25));
    EXPECT_EQ(-1, DNS_CheckMXAnswer(nullptr, 8, 25));
}

// ---- DNS_ExpandPointer ----

struct Expanded {
    int result;
    std::string text;
    bool operator==(const Expanded &other) const = default;
};

std::ostream &operator<<(std::ostream &out, const Expanded &expanded) {
    return out << expanded.result << " \"" << expanded.text << "\"";
}

Expanded Expand(const Bytes &response, int offset, size_t size = 256) {
    const GuardedCopy copy{response.data(), response.size()};
    const CanaryBuf text{size};
    const int result = DNS_ExpandPointer(copy.bytes(), static_cast<int>(copy.size()), offset,
                                         text.text(), static_cast<int>(size));
    EXPECT_NE(nullptr, memchr(text.text(), '\0', size));
    const size_t used = strnlen(text.text(), size);
    EXPECT_TRUE(text.UntouchedFrom(used + 1));
    return {result, text.text()};
}

TEST(ExpandPointer, WritesADotForEachLength) {
    const Bytes name = {3, 'm', 'x', '1', 2, 'e', 'x', 4, 't', 'e', 's', 't', 0};
    EXPECT_EQ((Expanded{13, ".mx1.ex.test,"}), Expand(name, 0));
    EXPECT_EQ((Expanded{9, ".ex.test,"}), Expand(name, 4));
    EXPECT_EQ((Expanded{1, ","}), Expand(name, 12));
}

TEST(ExpandPointer, WritesTheExchangerOfAnEntry) {
    MxResponse response{{20, 10}};
    response.Addresses();
    Results results;
    ASSERT_EQ(0, ParseMx(response.builder.bytes(), results));
    EXPECT_EQ((Expanded{11, ".b.ex.test,"}), Expand(response.builder.bytes(), results[0].name_ofs));
    // The owner of the additional record is a pointer to the same name.
    const int record = static_cast<int>(response.builder.bytes().size()) - 16;
    EXPECT_EQ((Expanded{11, ".b.ex.test,"}), Expand(response.builder.bytes(), record));
}

TEST(ExpandPointer, FollowsTheSecondByteOfAPointer) {
    const Bytes name = {1, 'a', 0, 2, 'b', 'b', 0xC0, 0, 0xFF, 3};
    EXPECT_EQ((Expanded{6, ".bb.a,"}), Expand(name, 3));
    EXPECT_EQ((Expanded{6, ".bb.a,"}), Expand(name, 8)) << "the bits of the first byte are ignored";
}

// Lengths of 1 to 29 become "."; longer ones are mistaken for characters.
TEST(ExpandPointer, ReadsLengthsFrom30OnAsCharacters) {
    for (int byte = 1; byte < 192; ++byte) {
        const char c = byte > 29 ? static_cast<char>(byte) : '.';
        EXPECT_EQ((Expanded{2, std::string{c} + ","}), Expand({static_cast<uint8_t>(byte), 0}, 0));
    }
    for (int byte = 192; byte < 256; ++byte) {
        EXPECT_EQ((Expanded{1, ","}), Expand({static_cast<uint8_t>(byte), 2, 0}, 0));
    }
}

TEST(ExpandPointer, EndsInARingOfPointers) {
    EXPECT_EQ((Expanded{-1, ""}), Expand({0xC0, 0}, 0)) << "a pointer to itself";
    EXPECT_EQ((Expanded{-1, ""}), Expand({0xC0, 2, 0xC0, 4, 0xC0, 0}, 0));
    // A ring with a character in it ends after 256 pointers or when the text is full.
    const Expanded ring = Expand({1, 'a', 0xC0, 0}, 0, 4096);
    EXPECT_EQ(-1, ring.result);
    EXPECT_EQ(2u * 257, ring.text.size());
    EXPECT_EQ(15u, Expand({1, 'a', 0xC0, 0}, 0, 16).text.size());
}

// 127 pointers, each to the next one.
TEST(ExpandPointer, FollowsAChainOfPointersToItsEnd) {
    Bytes chain(256);
    for (size_t i = 0; i + 2 < 256; i += 2) {
        chain[i] = 0xC0;
        chain[i + 1] = static_cast<uint8_t>(i + 2);
    }
    EXPECT_EQ((Expanded{1, ","}), Expand(chain, 0));
}

TEST(ExpandPointer, StopsAtTheEndOfTheResponse) {
    EXPECT_EQ((Expanded{-1, ""}), Expand({}, 0));
    EXPECT_EQ((Expanded{-1, ".a"}), Expand({1, 'a'}, 0));
    EXPECT_EQ((Expanded{-1, ".a"}), Expand({1, 'a', 0xC0}, 0)) << "half a pointer";
    EXPECT_EQ((Expanded{-1, ".a"}), Expand({1, 'a', 0xC0, 4}, 0)) << "a pointer beyond the end";
    EXPECT_EQ((Expanded{-1, ""}), Expand({1, 'a', 0}, 3));
    EXPECT_EQ((Expanded{-1, ""}), Expand({1, 'a', 0}, -1));
    EXPECT_EQ((Expanded{-1, ""}), Expand({1, 'a', 0}, 0x7FFFFFFF));
}

TEST(ExpandPointer, CutsTheTextToItsSize) {
    const Bytes name = {3, 'm', 'x', '1', 0};
    EXPECT_EQ((Expanded{5, ".mx1,"}), Expand(name, 0, 7));
    EXPECT_EQ((Expanded{5, ".mx1,"}), Expand(name, 0, 6));
    EXPECT_EQ((Expanded{-1, ".mx1"}), Expand(name, 0, 5));
    EXPECT_EQ((Expanded{-1, "."}), Expand(name, 0, 2));
    EXPECT_EQ((Expanded{-1, ""}), Expand(name, 0, 1));
    char text[1];
    EXPECT_EQ(-1, DNS_ExpandPointer(name.data(), 5, 0, text, 0));
    EXPECT_EQ(-1, DNS_ExpandPointer(name.data(), 5, 0, nullptr, 16));
    EXPECT_EQ(-1, DNS_ExpandPointer(nullptr, 5, 0, text, 1));
}

// ---- DNS_CmpPreference ----

TEST(CmpPreference, IsTheDifference) {
    for (const auto &[a, b] : {std::pair{0, 0}, {0, 255}, {255, 0}, {20, 10}, {7, 7}}) {
        const tDnsAddrEntry first = {1, 0, static_cast<uint8_t>(a), 15, 0};
        const tDnsAddrEntry second = {1, 0, static_cast<uint8_t>(b), 15, 0};
        EXPECT_EQ(a - b, DNS_CmpPreference(&first, &second));
    }
    const tDnsAddrEntry entry = {};
    EXPECT_EQ(0, DNS_CmpPreference(nullptr, &entry));
    EXPECT_EQ(0, DNS_CmpPreference(&entry, nullptr));
}

// ---- Whatever a server sends ----

// The rules in their simplest form, over a copy of the response with zeros after it.
struct Reference {
    std::vector<uint8_t> buf;
    int length;

    explicit Reference(const uint8_t *pResponse, size_t size) : buf(16384, 0) {
        memcpy(buf.data(), pResponse, size);
        length = static_cast<int>(size);
    }

    int A(tDnsAddrEntry *pResult) const {
        const int n = buf[7] < 10 ? buf[7] : 10;
        if (length < 18 || n == 0) {
            return -1;
        }
        size_t p = 17;
        while (!(buf[p - 2] == 0 && buf[p - 1] == 4)) {
            if (++p == size_t(length)) {
                return -1;
            }
        }
        tDnsAddrEntry entries[10];
        memset(entries, 0, sizeof entries);
        for (int i = 0; i < n; ++i) {
            if (p >= size_t(length)) {
                break;
            }
            memcpy(&entries[i].addr, &buf[p], 4);
            if (entries[i].addr != 0) {
                entries[i].valid = 1;
                entries[i].type = 1;
                p += 16;
            }
        }
        memcpy(pResult, entries, size_t(n) * 8);
        return 0;
    }

    // Returns the number of entries, which are not sorted, or -1.
    int Mx(std::vector<tDnsAddrEntry> &entries) const {
        const int ar = buf[11];
        if (ar == 0 || length - 16 * ar < 1) {
            return -1;
        }
        const int n = ar - buf[9] > 1 ? ar - buf[9] : 1;
        for (int i = 0; i < n; ++i) {
            const uint8_t *pRecord = buf.data() + length - 16 * ar + 16 * i;
            tDnsAddrEntry entry = {1, pRecord[1], 0, 15, 0};
            entry.preference = pRecord[1] > 0 ? buf[pRecord[1] - 1u] : uint8_t{0};
            memcpy(&entry.addr, pRecord + 12, 4);
            entries.push_back(entry);
        }
        return n;
    }
};

bool Less(const tDnsAddrEntry &a, const tDnsAddrEntry &b) {
    return std::tuple{a.preference, a.name_ofs, a.addr} <
           std::tuple{b.preference, b.name_ofs, b.addr};
}

// Compares all entries with the rules.
void CheckAll(const uint8_t *pResponse, size_t size) {
    const Reference reference{pResponse, size};
    const int length = static_cast<int>(size);

    Results expected;
    Results results;
    ASSERT_EQ(reference.A(expected.entries), DNS_ParserA(pResponse, length, results.entries));
    ASSERT_EQ(0, memcmp(expected.entries, results.entries, sizeof results.entries));

    std::vector<tDnsAddrEntry> all;
    Results mx;
    const int count = reference.Mx(all);
    ASSERT_EQ(count < 0 ? -1 : 0, DNS_ParserMX(pResponse, length, mx.entries));
    const size_t kept = count < 0 ? 0 : std::min<size_t>(static_cast<size_t>(count), 10);
    ASSERT_TRUE(mx.UntouchedFrom(kept));
    std::sort(all.begin(), all.end(), Less);
    std::vector<tDnsAddrEntry> found(mx.entries, mx.entries + kept);
    for (size_t i = 0; i < kept; ++i) {
        ASSERT_EQ(all[i].preference, found[i].preference);
    }
    std::sort(found.begin(), found.end(), Less);
    ASSERT_TRUE(std::includes(all.begin(), all.end(), found.begin(), found.end(), Less));

    ASSERT_EQ(size > 7 && pResponse[7] != 0 ? 0 : -1, DNS_CheckMXAnswer(pResponse, length, 25));
    char text[64];
    for (int offset = 0; offset <= length; offset += 5) {
        ASSERT_GT(64, DNS_ExpandPointer(pResponse, length, offset, text, sizeof text));
        ASSERT_GT(sizeof text, strlen(text));
    }
}

TEST(AnyResponse, WithOneByteChangedFollowsTheRules) {
    MxResponse mx{{20, 10, 30}};
    mx.Addresses();
    Capture([&] {
        for (const Bytes &response : {AnswersFor(3).bytes(), mx.builder.bytes()}) {
            const GuardedCopy copy{response.data(), response.size()};
            for (size_t at = 0; at < response.size(); ++at) {
                // Bytes that control nothing get a few values only.
                const int step = at < 12 || at >= response.size() - 48 ? 1 : 17;
                for (int value = 0; value < 256; value += step) {
                    copy.bytes()[at] = static_cast<uint8_t>(value);
                    CheckAll(copy.bytes(), copy.size());
                    if (HasFatalFailure()) {
                        return;
                    }
                }
                copy.bytes()[at] = response[at];
            }
        }
    });
}

TEST(AnyResponse, OfEveryLengthFollowsTheRules) {
    MxResponse mx{{20, 10, 30}};
    mx.Addresses();
    Capture([&] {
        for (const Bytes &response : {AnswersFor(12).bytes(), mx.builder.bytes()}) {
            for (size_t length = 0; length <= response.size(); ++length) {
                const GuardedCopy copy{response.data(), length};
                CheckAll(copy.bytes(), copy.size());
                if (HasFatalFailure()) {
                    return;
                }
            }
        }
    });
}

TEST(AnyResponse, OfRandomBytesFollowsTheRules) {
    std::mt19937 random{20260101};
    Capture([&] {
        for (int round = 0; round < 4000; ++round) {
            const CanaryBuf buffer{random() % 1024};
            for (size_t i = 0; i < buffer.size(); ++i) {
                // Many zeros, fours, pointers and small counts, to which the rules apply.
                static constexpr uint8_t kUsual[] = {0, 0, 0, 4, 4, 0xC0, 1, 12};
                const auto dice = static_cast<uint32_t>(random());
                buffer.bytes()[i] =
                    dice % 2 == 0 ? kUsual[dice / 2 % 8] : static_cast<uint8_t>(dice >> 8);
            }
            if (buffer.size() > 11) {
                buffer.bytes()[11] = static_cast<uint8_t>(random() % 70);
                buffer.bytes()[9] = static_cast<uint8_t>(random() % 4);
            }
            CheckAll(buffer.bytes(), buffer.size());
            if (HasFatalFailure()) {
                return;
            }
        }
    });
}

}  // namespace
