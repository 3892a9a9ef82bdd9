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
    void (*make)(Objects &at);
};

constexpr Call kCalls[] = {
    // lookup.h
    {"DNS_GetA", [](Objects &at) { DNS_GetA("a.example", at.results.entries, at.timeout); }},
    {"DNS_GetA, long name",
     [](Objects &at) { DNS_GetA(at.name.c_str(), at.results.entries, at.timeout); }},
    {"DNS_GetA, too long",
     [](Objects &at) { DNS_GetA(at.tooLong.c_str(), at.results.entries, at.timeout); }},
    {"DNS_GetA, address",
     [](Objects &at) { DNS_GetA("127.0.0.1", at.results.entries, at.timeout); }},
    {"DNS_GetA, no name", [](Objects &at) { DNS_GetA(nullptr, at.results.entries, at.timeout); }},
    {"DNS_GetMX", [](Objects &at) { DNS_GetMX("u@a.example", at.results.entries, at.timeout); }},
    {"DNS_GetAviaNameServer",
     [](Objects &at) {
         DNS_GetAviaNameServer(kServer, "a.example", at.results.entries, at.timeout);
     }},
    {"DNS_GetAviaNameServer, no address",
     [](Objects &at) { DNS_GetAviaNameServer("x", "a.example", at.results.entries, at.timeout); }},
    {"DNS_GetMXviaNameServer",
     [](Objects &at) {
         DNS_GetMXviaNameServer(kServer, "a.example", at.results.entries, at.timeout);
     }},
    // name_server.h
    {"DNS_GetNameServer",
     [](Objects & /*at*/) {
         char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
         EXPECT_EQ(2, DNS_GetNameServer(servers));
     }},
    // query.h
    {"DNS_BuildQuery",
     [](Objects &at) {
         static uint8_t message[DNS_MESSAGE_SIZE];
         EXPECT_LT(0, DNS_BuildQuery(at.name.c_str(), message, DNS_TYPE_A));
     }},
    {"DNS_SendAQuery",
     [](Objects &at) {
         DNS_SendAQuery(at.fd, &at.server, "a.example", at.results.entries, at.timeout);
     }},
    {"DNS_SendMXQuery",
     [](Objects &at) {
         DNS_SendMXQuery(at.fd, &at.server, "a.example", at.results.entries, at.timeout);
     }},
    {"DNS_SendAQuery, no socket",
     [](Objects &at) {
         DNS_SendAQuery(-1, &at.server, "a.example", at.results.entries, at.timeout);
     }},
    // parser.h
    {"DNS_ParserA, DNS_ParserMX, DNS_CheckMXAnswer, DNS_ExpandPointer, DNS_CmpPreference",
     [](Objects &at) {
         const Bytes query = QueryFor("a.example", DNS_TYPE_MX);
         Builder response{query};
         const size_t exchanger = response.Mx(10, "mail");
         response.A(Builder::kAdditional, exchanger, "192.0.2.1");
         const uint8_t *pBytes = response.bytes().data();
         const int length = static_cast<int>(response.bytes().size());
         EXPECT_EQ(DNS_OK, DNS_ParserMX(pBytes, length, at.results.entries));
         DNS_ParserA(pBytes, length, at.results.entries);
         DNS_CheckMXAnswer(pBytes, length, static_cast<int>(query.size()));
         char text[64];
         DNS_ExpandPointer(pBytes, length, static_cast<int>(exchanger), text, sizeof text);
         DNS_CmpPreference(&at.results[0], &at.results[1]);
     }},
};

void MakeCalls(int timeout) {
    for (const Call &call : kCalls) {
        Objects at{timeout};
        size_t use = 0;
        Capture([&] { use = StackUse([&] { call.make(at); }); });
        EXPECT_LE(use, kPromise) << call.name;
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
        MakeCalls(1);
        EXPECT_FALSE(server.Queries().empty());
    });
}

TEST(Stack, IsNoMoreThanPromisedWithoutAServer) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    RunWithResolvConf(kResolvConf, [] { MakeCalls(0); });
}

}  // namespace
