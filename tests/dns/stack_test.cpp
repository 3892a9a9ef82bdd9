// The stack that DNS.h promises.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/capture.h"
#include "support/stack_use.h"

namespace {

using namespace talvek::test;

constexpr size_t kPromise = 8 << 10;  // bytes
constexpr const char *kServer = "127.0.0.1";

// What a call works on.
struct Objects {
    explicit Objects(int seconds) : timeout(seconds) {}
    ~Objects() { close(fd); }
    Objects(const Objects &) = delete;
    Objects &operator=(const Objects &) = delete;

    const int timeout;
    const std::string name = "user@" + std::string(DNS_MAX_NAME - 8, 'x') + ".example";
    const std::string tooLong = std::string(DNS_MAX_NAME, 'x') + ".example";
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in server = ServerAddress(kServer);
    Results results;
};

struct Call {
    const char *name;
    int (*make)(Objects &at);
    int answered;    // the result with a server
    int unanswered;  // and without one
};

constexpr Call kCalls[] = {
    // lookup.h
    {"DNS_GetA", [](Objects &at) { return DNS_GetA("a.example", at.results.entries, at.timeout); },
     DNS_OK, DNS_NO_ANSWER},
    {"DNS_GetA, long name, whose response is cut",
     [](Objects &at) { return DNS_GetA(at.name.c_str(), at.results.entries, at.timeout); },
     DNS_NO_ANSWER, DNS_NO_ANSWER},
    {"DNS_GetA, too long",
     [](Objects &at) { return DNS_GetA(at.tooLong.c_str(), at.results.entries, at.timeout); },
     DNS_NO_ANSWER, DNS_NO_ANSWER},
    {"DNS_GetA, address",
     [](Objects &at) { return DNS_GetA("127.0.0.1", at.results.entries, at.timeout); }, DNS_OK,
     DNS_OK},
    {"DNS_GetA, no name",
     [](Objects &at) { return DNS_GetA(nullptr, at.results.entries, at.timeout); }, DNS_NO_ANSWER,
     DNS_NO_ANSWER},
    {"DNS_GetMX",
     [](Objects &at) { return DNS_GetMX("u@a.example", at.results.entries, at.timeout); }, DNS_OK,
     DNS_NO_ANSWER},
    {"DNS_GetAviaNameServer",
     [](Objects &at) {
         return DNS_GetAviaNameServer(kServer, "a.example", at.results.entries, at.timeout);
     },
     DNS_OK, DNS_NO_ANSWER},
    {"DNS_GetAviaNameServer, no address",
     [](Objects &at) {
         return DNS_GetAviaNameServer("x", "a.example", at.results.entries, at.timeout);
     },
     DNS_NO_ANSWER, DNS_NO_ANSWER},
    {"DNS_GetMXviaNameServer",
     [](Objects &at) {
         return DNS_GetMXviaNameServer(kServer, "a.example", at.results.entries, at.timeout);
     },
     DNS_OK, DNS_NO_ANSWER},
    // name_server.h
    {"DNS_GetNameServer",
     [](Objects & /*at*/) {
         char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
         return DNS_GetNameServer(servers);
     },
     2, 2},
    // query.h
    {"DNS_BuildQuery",
     [](Objects & /*at*/) {
         static uint8_t message[DNS_MESSAGE_SIZE];
         return DNS_BuildQuery("a.example", message, DNS_TYPE_A);
     },
     9 + 18, 9 + 18},
    {"DNS_SendAQuery",
     [](Objects &at) {
         return DNS_SendAQuery(at.fd, &at.server, "a.example", at.results.entries, at.timeout);
     },
     DNS_OK, DNS_NO_ANSWER},
    {"DNS_SendMXQuery, without exchangers",
     [](Objects &at) {
         return DNS_SendMXQuery(at.fd, &at.server, "a.example", at.results.entries, at.timeout);
     },
     DNS_NO_ANSWER, DNS_NO_ANSWER},
    {"DNS_SendAQuery, no socket",
     [](Objects &at) {
         return DNS_SendAQuery(-1, &at.server, "a.example", at.results.entries, at.timeout);
     },
     DNS_NOT_SENT, DNS_NOT_SENT},
    // parser.h
    {"DNS_ParserA, DNS_ParserMX, DNS_CheckMXAnswer, DNS_ExpandPointer, DNS_CmpPreference",
     [](Objects &at) {
         const Bytes query = QueryFor("a.example", DNS_TYPE_MX);
         Builder response{query};
         const size_t exchanger = response.Mx(10, "mail");
         response.A(Builder::kAdditional, exchanger, "192.0.2.1");
         const uint8_t *pBytes = response.bytes().data();
         const int length = static_cast<int>(response.bytes().size());
         char text[64];
         EXPECT_EQ(DNS_OK, DNS_ParserA(pBytes, length, at.results.entries));
         EXPECT_EQ(DNS_OK, DNS_CheckMXAnswer(pBytes, length, static_cast<int>(query.size())));
         EXPECT_EQ(
             16, DNS_ExpandPointer(pBytes, length, static_cast<int>(exchanger), text, sizeof text));
         EXPECT_EQ(0, DNS_CmpPreference(&at.results[1], &at.results[2]));
         return DNS_ParserMX(pBytes, length, at.results.entries);
     },
     DNS_OK, DNS_OK},
};

void MakeCalls(bool answered) {
    for (const Call &call : kCalls) {
        Objects at{answered ? 1 : 0};
        int result = 1;
        size_t use = 0;
        Capture([&] { use = StackUse([&] { result = call.make(at); }); });
        EXPECT_LE(use, kPromise) << call.name;
        EXPECT_EQ(answered ? call.answered : call.unanswered, result) << call.name;
    }
}

constexpr const char *kResolvConf = "nameserver 127.0.0.1\nnameserver 127.0.0.2\n";

TEST(Stack, IsNoMoreThanPromised) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    RunWithResolvConf(kResolvConf, [] {
        ScriptedServer server{kServer, [](const Bytes &query, int /*nth*/) {
                                  Builder response{query};
                                  response.A(Builder::kAnswer, Builder::kQuestion, "192.0.2.1");
                                  return std::vector<Bytes>{response.bytes()};
                              }};
        MakeCalls(true);
        EXPECT_FALSE(server.Queries().empty());
    });
}

TEST(Stack, IsNoMoreThanPromisedWithoutAServer) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    RunWithResolvConf(kResolvConf, [] { MakeCalls(false); });
}

}  // namespace
