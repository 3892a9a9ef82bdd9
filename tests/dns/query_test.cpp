#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/canary.h"

namespace {

using namespace talvek::test;

// The message for a name. The rest of its buffer must stay untouched.
Bytes Built(const std::string &name, uint16_t type) {
    const CanaryBuf message{DNS_MESSAGE_SIZE};
    const int length = DNS_BuildQuery(name.c_str(), message.bytes(), type);
    if (length < 0) {
        EXPECT_TRUE(message.UntouchedFrom(0));
        return {};
    }
    EXPECT_TRUE(message.UntouchedFrom(static_cast<size_t>(length)));
    return {message.bytes(), message.bytes() + length};
}

// RFC 1035, 4.1: header, QNAME, QTYPE, QCLASS.
TEST(BuildQuery, BuildsAnAQuery) {
    const Bytes expected = {
        0xA9, 0xFA,            // ID
        0x01, 0x00,            // flags: RD
        0x00, 0x01,            // QDCOUNT
        0x00, 0x00,            // ANCOUNT
        0x00, 0x00,            // NSCOUNT
        0x00, 0x00,            // ARCOUNT
        3,    'w',  'w', 'w',  //
        4,    't',  'e', 's', 't',
        0,           // root
        0x00, 0x01,  // QTYPE A
        0x00, 0x01,  // QCLASS IN
    };
    EXPECT_EQ(expected, Built("www.test", DNS_TYPE_A));
    EXPECT_EQ(std::string{"www.test"}.size() + 18, expected.size());
}

TEST(BuildQuery, BuildsAnMxQuery) {
    const Bytes expected = {0xA9, 0xFA, 1,   0,   0, 1,   0, 0, 0,  0, 0,
                            0,    2,    'e', 'x', 1, 'y', 0, 0, 15, 0, 1};
    EXPECT_EQ(expected, Built("ex.y", DNS_TYPE_MX));
}

TEST(BuildQuery, StoresTheTypeBigEndian) {
    const Bytes message = Built("a.b", 0x1234);
    EXPECT_EQ((Bytes{0x12, 0x34, 0, 1}), Bytes(message.end() - 4, message.end()));
}

TEST(BuildQuery, AsksForTheDomainOfAMailAddress) {
    EXPECT_EQ(QueryFor("ex.test", DNS_TYPE_MX), Built("user@ex.test", DNS_TYPE_MX));
    EXPECT_EQ(QueryFor("ex.test", DNS_TYPE_MX), Built("first.last@ex.test", DNS_TYPE_MX));
    EXPECT_EQ(QueryFor("ex.test", DNS_TYPE_MX), Built("@ex.test", DNS_TYPE_MX));
    // A second "@" is a character of a label.
    EXPECT_EQ(QueryFor("b@ex.test", DNS_TYPE_MX), Built("a@b@ex.test", DNS_TYPE_MX));
}

TEST(BuildQuery, KeepsATrailingDotInTheLastLabel) {
    const Bytes message = Built("ab.cd.", DNS_TYPE_A);
    EXPECT_EQ(6u + 18, message.size());
    EXPECT_EQ((Bytes{2, 'a', 'b', 3, 'c', 'd', '.', 0}),
              Bytes(message.begin() + 12, message.end() - 4));
    const Bytes dot = Built(".", DNS_TYPE_A);
    EXPECT_EQ((Bytes{1, '.', 0}), Bytes(dot.begin() + 12, dot.end() - 4));
}

TEST(BuildQuery, MakesEmptyLabels) {
    const Bytes twice = Built("a..b", DNS_TYPE_A);
    EXPECT_EQ((Bytes{1, 'a', 0, 1, 'b', 0}), Bytes(twice.begin() + 12, twice.end() - 4));
    const Bytes first = Built(".a", DNS_TYPE_A);
    EXPECT_EQ((Bytes{0, 1, 'a', 0}), Bytes(first.begin() + 12, first.end() - 4));
    const Bytes last = Built("a..", DNS_TYPE_A);
    EXPECT_EQ((Bytes{1, 'a', 1, '.', 0}), Bytes(last.begin() + 12, last.end() - 4));
    const Bytes empty = Built("", DNS_TYPE_A);
    EXPECT_EQ((Bytes{0, 0}), Bytes(empty.begin() + 12, empty.end() - 4));
    EXPECT_EQ(18u, empty.size());
}

// Labels of more than 63 bytes and names of more than 255 are built too. The length byte of a label
// is the low byte of its length.
TEST(BuildQuery, DoesNotCheckTheLengthOfLabelsAndNames) {
    for (const size_t length : {62, 63, 64, 191, 192, 255, 256, 257, 600}) {
        const std::string label(length, 'l');
        const Bytes message = Built(label + ".x", DNS_TYPE_A);
        ASSERT_EQ(length + 2 + 18, message.size());
        EXPECT_EQ(static_cast<uint8_t>(length), message[12]);
        EXPECT_EQ('l', message[12 + length]);
        EXPECT_EQ(1, message[13 + length]);
        EXPECT_EQ('x', message[14 + length]);
    }
}

// A message has at most 1024 bytes: 1006 of the name and 18 others.
TEST(BuildQuery, RefusesANameThatDoesNotFitTheMessage) {
    for (const size_t length : {1005, 1006}) {
        std::string name(length, 'n');
        name[7] = '.';
        EXPECT_EQ(QueryFor(name, DNS_TYPE_A), Built(name, DNS_TYPE_A)) << length;
        EXPECT_EQ(length + 18, Built("user@" + name, DNS_TYPE_A).size());
    }
    for (const size_t length : {1007, 1008, 1024, 5000}) {
        std::string name(length, 'n');
        name[7] = '.';
        EXPECT_EQ(Bytes{}, Built(name, DNS_TYPE_A)) << length;
        EXPECT_EQ(Bytes{}, Built("user@" + name, DNS_TYPE_A)) << length;
    }
    // The user of a mail address takes no room.
    EXPECT_EQ(QueryFor("ex.test", DNS_TYPE_A), Built(std::string(5000, 'u') + "@ex.test", 1));
}

TEST(BuildQuery, RefusesNull) {
    uint8_t message[DNS_MESSAGE_SIZE];
    EXPECT_EQ(-1, DNS_BuildQuery(nullptr, message, DNS_TYPE_A));
    EXPECT_EQ(-1, DNS_BuildQuery("a.b", nullptr, DNS_TYPE_A));
}

TEST(Constants, AreThoseOfTheProtocol) {
    EXPECT_EQ(10, DNS_MAX_ENTRIES);
    EXPECT_EQ(4, DNS_MAX_NAME_SERVERS);
    EXPECT_EQ(16, DNS_NAME_SERVER_SIZE);
    EXPECT_EQ(1024, DNS_MESSAGE_SIZE);
    EXPECT_EQ(1006, DNS_MAX_NAME);
    EXPECT_EQ(1023, DNS_MAX_RESPONSE);
    EXPECT_EQ(20, DNS_DEFAULT_TIMEOUT);
    EXPECT_EQ(0, DNS_OK);
    EXPECT_EQ(-1, DNS_NO_ANSWER);
    EXPECT_EQ(-2, DNS_NOT_SENT);
    EXPECT_EQ(53, DNS_PORT);
    EXPECT_EQ(0xA9FA, DNS_QUERY_ID);
    EXPECT_EQ(1, DNS_TYPE_A);
    EXPECT_EQ(15, DNS_TYPE_MX);
    EXPECT_EQ(8u, sizeof(tDnsAddrEntry));
}

}  // namespace
