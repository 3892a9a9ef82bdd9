// Lookups with scripted servers on port 53 of a private network.

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/await.h"
#include "support/cancellation.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

using Lookup = int (*)(const char *, tDnsAddrEntry *, int);

struct Outcome {
    int result;
    Lines log;
    Results results;
};

Outcome Look(Lookup lookup, const char *pName, int timeout = 60) {
    Outcome outcome{};
    outcome.log =
        CaptureLog([&] { outcome.result = lookup(pName, outcome.results.entries, timeout); });
    return outcome;
}

using Via = int (*)(const char *, const char *, tDnsAddrEntry *, int);

Outcome LookVia(Via via, const char *pServer, const char *pName, int timeout = 60) {
    Outcome outcome{};
    outcome.log =
        CaptureLog([&] { outcome.result = via(pServer, pName, outcome.results.entries, timeout); });
    return outcome;
}

tDnsAddrEntry EntryA(const char *pAddress) {
    return {1, 0, 0, DNS_TYPE_A, Address(pAddress)};
}

uint8_t TypeOf(const Bytes &query) {
    return query[query.size() - 3];
}

ScriptedServer::Script Answering(const std::vector<std::string> &addresses) {
    return [addresses](const Bytes &query, int) {
        Builder response{query};
        for (const std::string &address : addresses) {
            response.A(Builder::kAnswer, Builder::kQuestion, address.c_str());
        }
        return std::vector<Bytes>{response.bytes()};
    };
}

// Answers MX queries with exchangers a, b, ... at 10.0.1.1, 10.0.1.2, ..., and A queries
// with 10.0.0.1.
ScriptedServer::Script Exchanging(const std::vector<int> &preferences) {
    return [preferences](const Bytes &query, int) {
        Builder response{query};
        if (TypeOf(query) == DNS_TYPE_A) {
            response.A(Builder::kAnswer, Builder::kQuestion, "10.0.0.1");
            return std::vector<Bytes>{response.bytes()};
        }
        std::vector<size_t> names;
        for (size_t i = 0; i < preferences.size(); ++i) {
            names.push_back(response.Mx(static_cast<uint16_t>(preferences[i]),
                                        std::string(1, static_cast<char>('a' + i))));
        }
        for (size_t i = 0; i < names.size(); ++i) {
            response.A(Builder::kAdditional, names[i], ("10.0.1." + std::to_string(i + 1)).c_str());
        }
        return std::vector<Bytes>{response.bytes()};
    };
}

std::vector<Bytes> NoAnswers(const Bytes &query, int /*nth*/) {
    return {Builder{query}.bytes()};
}

int BoundSocket(const char *pAddress) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in address = ServerAddress(pAddress);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address));
    return fd;
}

constexpr char kOneServer[] = "nameserver 127.0.0.1\n";

const Lookup kBoth[] = {DNS_GetA, DNS_GetMX};

// ---- Without a query ----

TEST(GetA, ReturnsADottedAddressWithoutAQuery) {
    RunInPrivateWorld(kMounts | kNetwork, [] {
        FreshEtc();
        for (const Lookup lookup : kBoth) {
            for (const char *pName : {"10.1.2.3", "mail@10.1.2.3", "first.last@10.1.2.3"}) {
                Outcome outcome = Look(lookup, pName);
                EXPECT_EQ(0, outcome.result);
                EXPECT_EQ(Lines{}, outcome.log) << "resolv.conf is not opened";
                EXPECT_EQ(EntryA("10.1.2.3"), outcome.results[0]);
                EXPECT_TRUE(outcome.results.UntouchedFrom(1));
            }
        }
    });
}

TEST(GetA, RefusesANameWithoutADot) {
    for (const char *pName : {"localhost", "", "user@localhost"}) {
        const Outcome outcome = Look(DNS_GetA, pName);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{std::string{"DNS:DNS_GetA(): invalid pDomainName ["} + pName + "]"},
                  outcome.log);
        EXPECT_TRUE(outcome.results.UntouchedFrom(0));
        const Outcome mx = Look(DNS_GetMX, pName);
        EXPECT_EQ(-1, mx.result);
        EXPECT_EQ(Lines{"DNS:DNS_GetMX(): invalid pDomainName"}, mx.log);
        EXPECT_TRUE(mx.results.UntouchedFrom(0));
    }
}

TEST(GetA, RefusesNull) {
    EXPECT_EQ(-1, Look(DNS_GetA, nullptr).result);
    EXPECT_EQ(Lines{"DNS:DNS_GetA(): pDomainName is NULL!"}, Look(DNS_GetA, nullptr).log);
    EXPECT_EQ(-1, Look(DNS_GetMX, nullptr).result);
    EXPECT_EQ(Lines{"DNS:DNS_GetMX(): invalid pDomainName"}, Look(DNS_GetMX, nullptr).log);
    EXPECT_EQ("", Capture([] {
                  EXPECT_EQ(-1, DNS_GetA("www.ex.test", nullptr, 0));
                  EXPECT_EQ(-1, DNS_GetMX("www.ex.test", nullptr, 0));
              }));
}

TEST(GetA, FailsWithoutANameServer) {
    RunInPrivateWorld(kMounts | kNetwork, [] {
        FreshEtc();
        EXPECT_EQ((Lines{"DNS:DNS_GetNameServer(): fopen(/etc/resolv.conf) error : No such file or "
                         "directory",
                         "DNS:DNS_GetA(): no nameserver found"}),
                  Look(DNS_GetA, "www.ex.test").log);
        WriteFile("/etc/resolv.conf", "search test\n");
        EXPECT_EQ(-1, Look(DNS_GetA, "www.ex.test").result);
        EXPECT_EQ(Lines{"DNS:DNS_GetA(): no nameserver found"}, Look(DNS_GetA, "www.ex.test").log);
        EXPECT_EQ(-1, Look(DNS_GetMX, "www.ex.test").result);
        EXPECT_EQ(Lines{"DNS:DNS_GetMX(): no nameserver found"},
                  Look(DNS_GetMX, "www.ex.test").log);
    });
}

TEST(GetA, LeavesTheErrorOfInetAddrInTheFirstEntry) {
    RunWithResolvConf("", [] {
        for (const Lookup lookup : kBoth) {
            Outcome outcome = Look(lookup, "www.ex.test");
            EXPECT_EQ(0xFFFFFFFFu, outcome.results[0].addr);
            EXPECT_EQ(Results::kFill, outcome.results[0].valid);
            EXPECT_TRUE(outcome.results.UntouchedFrom(1));
        }
    });
}

TEST(GetA, SendsNothingForANameThatFitsNoMessage) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1"})};
        const std::string tooLong = "a." + std::string(1005, 'b');
        Outcome outcome = Look(DNS_GetA, tooLong.c_str());
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_GetA(): invalid pDomainName [" + tooLong + "]"}, outcome.log);
        EXPECT_TRUE(outcome.results.UntouchedFrom(1));
        outcome = Look(DNS_GetMX, ("user@" + tooLong).c_str());
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_GetMX(): invalid pDomainName"}, outcome.log);
        EXPECT_TRUE(server.Queries().empty());
        // A long user name is not part of the message.
        EXPECT_EQ(0, Look(DNS_GetA, (std::string(5000, 'u') + "@ex.test").c_str()).result);
        EXPECT_EQ(std::vector<Bytes>{QueryFor("ex.test", DNS_TYPE_A)}, server.Queries());
    });
}

// ---- Addresses of a host ----

TEST(GetA, StoresTheAddressesOfAResponse) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1", "10.0.0.2"})};
        Outcome outcome = Look(DNS_GetA, "www.ex.test");
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(Lines{}, outcome.log);
        EXPECT_EQ(EntryA("10.0.0.1"), outcome.results[0]);
        EXPECT_EQ(EntryA("10.0.0.2"), outcome.results[1]);
        EXPECT_TRUE(outcome.results.UntouchedFrom(2));
        EXPECT_EQ(std::vector<Bytes>{QueryFor("www.ex.test", DNS_TYPE_A)}, server.Queries());
    });
}

TEST(GetA, AsksForTheDomainOfAMailAddress) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1"})};
        EXPECT_EQ(0, Look(DNS_GetA, "first.last@ex.test").result);
        EXPECT_EQ(std::vector<Bytes>{QueryFor("ex.test", DNS_TYPE_A)}, server.Queries());
    });
}

// A "." in the user's name is enough.
TEST(GetA, AsksForADomainWithoutADotWhenTheUserHasOne) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1"})};
        EXPECT_EQ(0, Look(DNS_GetA, "first.last@localhost").result);
        EXPECT_EQ(std::vector<Bytes>{QueryFor("localhost", DNS_TYPE_A)}, server.Queries());
        Look(DNS_GetMX, "first.last@localhost");
        ASSERT_LE(2u, server.Queries().size());
        EXPECT_EQ(QueryFor("localhost", DNS_TYPE_MX), server.Queries()[1]);
    });
}

// inet_addr returns this value for an error too.
TEST(GetA, LooksUp255255255255AsAName) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1"})};
        EXPECT_EQ(0, Look(DNS_GetA, "255.255.255.255").result);
        EXPECT_EQ(std::vector<Bytes>{QueryFor("255.255.255.255", DNS_TYPE_A)}, server.Queries());
    });
}

TEST(GetA, LogsThatNoRecordWasFound) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", NoAnswers};
        const Outcome outcome = Look(DNS_GetA, "www.ex.test");
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_GetAviaNameServer(): A record not found!"}, outcome.log);
        EXPECT_EQ(1u, server.Queries().size());
    });
}

TEST(GetA, AsksTheServersInOrderUntilOneAnswers) {
    RunWithResolvConf(
        "nameserver 127.0.0.1\nnameserver 127.0.0.2\nnameserver 127.0.0.3\nnameserver 127.0.0.4\n",
        [] {
            ScriptedServer first{"127.0.0.1", NoAnswers};
            ScriptedServer second{"127.0.0.2", Deaf};
            ScriptedServer third{"127.0.0.3", Answering({"10.0.0.3"})};
            ScriptedServer fourth{"127.0.0.4", Answering({"10.0.0.4"})};
            Outcome outcome = Look(DNS_GetA, "www.ex.test", 1);
            EXPECT_EQ(0, outcome.result);
            EXPECT_EQ((Lines{"DNS:DNS_GetAviaNameServer(): A record not found!",
                             "DNS:DNS_SendAQuery(): [0] select() timeout",
                             "DNS:DNS_GetAviaNameServer(): A record not found!"}),
                      outcome.log);
            EXPECT_EQ(EntryA("10.0.0.3"), outcome.results[0]);
            EXPECT_EQ(1u, first.Queries().size());
            EXPECT_TRUE(Eventually([&] { return second.Queries().size() == 1; }));
            EXPECT_EQ(1u, third.Queries().size());
            EXPECT_EQ(0u, fourth.Queries().size());
        });
}

TEST(GetA, AsksAtMostFourServers) {
    std::string resolvConf;
    for (int i = 1; i <= 5; ++i) {
        resolvConf += "nameserver 127.0.0." + std::to_string(i) + "\n";
    }
    RunWithResolvConf(resolvConf, [] {
        ScriptedServer fourth{"127.0.0.4", NoAnswers};
        ScriptedServer fifth{"127.0.0.5", Answering({"10.0.0.5"})};
        const Outcome outcome = Look(DNS_GetA, "www.ex.test", 0);
        EXPECT_EQ(-1, outcome.result);
        // One line for each server that was asked, even if it had no time to answer.
        EXPECT_EQ(4, std::count(outcome.log.begin(), outcome.log.end(),
                                "DNS:DNS_GetAviaNameServer(): A record not found!"));
        EXPECT_EQ(0u, fifth.Queries().size());
    });
}

TEST(GetA, AsksTheNextServerWhenOneClosesItsSocket) {
    RunWithResolvConf("nameserver 127.0.0.1\nnameserver 127.0.0.2\n", [] {
        std::thread closing{[fd = BoundSocket("127.0.0.1")] {
            char byte;
            EXPECT_EQ(1, recv(fd, &byte, 1, 0));
            close(fd);
        }};
        ScriptedServer second{"127.0.0.2", Answering({"10.0.0.2"})};
        Outcome outcome = Look(DNS_GetA, "www.ex.test", 1);
        closing.join();
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ((Lines{"DNS:DNS_SendAQuery(): [0] select() timeout",
                         "DNS:DNS_GetAviaNameServer(): A record not found!"}),
                  outcome.log);
        EXPECT_EQ(EntryA("10.0.0.2"), outcome.results[0]);
    });
}

// There is no route to 10.9.9.9: the query cannot be sent.
TEST(GetA, ReturnsTheFailureOfTheLastServer) {
    RunWithResolvConf("nameserver 127.0.0.1\nnameserver 10.9.9.9\n", [] {
        ScriptedServer server{"127.0.0.1", NoAnswers};
        const Outcome outcome = Look(DNS_GetA, "www.ex.test");
        EXPECT_EQ(-2, outcome.result);
        EXPECT_EQ((Lines{"DNS:DNS_GetAviaNameServer(): A record not found!",
                         "DNS:DNS_SendAQuery(): sendto() error : -1/29 - Network is unreachable",
                         "DNS:DNS_GetAviaNameServer(): A record not found!"}),
                  outcome.log);
        WriteFile("/etc/resolv.conf", "nameserver 10.9.9.9\nnameserver 127.0.0.1\n");
        EXPECT_EQ(-1, Look(DNS_GetA, "www.ex.test").result);
    });
}

TEST(GetAviaNameServer, RefusesAServerThatIsNotAnAddress) {
    RunWithResolvConf("nameserver fe80::1\nnameserver 127.0.0.1\n", [] {
        for (const char *pServer : {"ns.ex.test", "", "fe80::1", "255.255.255.255", "1.2.3.4.5"}) {
            for (const auto &[via, function] :
                 {std::pair<Via, const char *>{DNS_GetAviaNameServer, "DNS_GetAviaNameServer"},
                  {DNS_GetMXviaNameServer, "DNS_GetMXviaNameServer"}}) {
                const Outcome outcome = LookVia(via, pServer, "www.ex.test");
                EXPECT_EQ(-1, outcome.result);
                EXPECT_EQ(Lines{std::string{"DNS:"} + function + "(): inet_addr(" + pServer +
                                ") error : Invalid argument"},
                          outcome.log);
                EXPECT_TRUE(outcome.results.UntouchedFrom(0));
            }
        }
        const Outcome null = LookVia(DNS_GetAviaNameServer, nullptr, "www.ex.test");
        EXPECT_EQ(-1, null.result);
        EXPECT_EQ(Lines{"DNS:DNS_GetAviaNameServer(): inet_addr((null)) error : Invalid argument"},
                  null.log);
        EXPECT_EQ(-1, LookVia(DNS_GetMXviaNameServer, nullptr, "www.ex.test").result);
        // A lookup asks the next server.
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1"})};
        EXPECT_EQ(0, Look(DNS_GetA, "www.ex.test").result);
    });
}

TEST(GetAviaNameServer, AsksForADottedAddressToo) {
    RunWithResolvConf("", [] {
        ScriptedServer server{"127.0.0.1", Answering({"10.0.0.1"})};
        Outcome outcome = LookVia(DNS_GetAviaNameServer, "127.0.0.1", "10.1.2.3");
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(EntryA("10.0.0.1"), outcome.results[0]);
        EXPECT_EQ(1u, server.Queries().size());
    });
}

// ---- Mail exchangers ----

TEST(GetMX, OrdersTheExchangersByPreference) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", Exchanging({20, 10, 30})};
        for (const char *pName : {"ex.test", "user@ex.test"}) {
            Outcome outcome = Look(DNS_GetMX, pName);
            EXPECT_EQ(0, outcome.result);
            EXPECT_EQ(Lines{}, outcome.log);
            const char *const kAddresses[] = {"10.0.1.2", "10.0.1.1", "10.0.1.3"};
            for (size_t i = 0; i < 3; ++i) {
                EXPECT_EQ(1, outcome.results[i].valid);
                EXPECT_EQ(DNS_TYPE_MX, outcome.results[i].type);
                EXPECT_EQ(10 * (i + 1), outcome.results[i].preference);
                EXPECT_EQ(Address(kAddresses[i]), outcome.results[i].addr);
            }
            EXPECT_TRUE(outcome.results.UntouchedFrom(3));
        }
        EXPECT_EQ(std::vector<Bytes>(2, QueryFor("ex.test", DNS_TYPE_MX)), server.Queries());
    });
}

TEST(GetMX, StoresTenOfTwelveExchangers) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1",
                              Exchanging({120, 110, 100, 90, 80, 70, 60, 50, 40, 30, 20, 10})};
        Outcome outcome = Look(DNS_GetMX, "ex.test");
        EXPECT_EQ(0, outcome.result);
        for (size_t i = 0; i < 10; ++i) {
            EXPECT_EQ(10 * (i + 1), outcome.results[i].preference);
            EXPECT_EQ(Address(("10.0.1." + std::to_string(12 - i)).c_str()),
                      outcome.results[i].addr);
        }
    });
}

TEST(GetMX, AsksTwiceAndThenForTheAddressOnTheSameSocket) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", [](const Bytes &query, int nth) {
                                  return TypeOf(query) == DNS_TYPE_MX
                                             ? NoAnswers(query, nth)
                                             : Answering({"10.0.0.1"})(query, nth);
                              }};
        Outcome outcome = Look(DNS_GetMX, "ex.test");
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_GetMXviaNameServer(): MX record not found! Try A record."},
                  outcome.log);
        EXPECT_EQ(EntryA("10.0.0.1"), outcome.results[0]);
        EXPECT_TRUE(outcome.results.UntouchedFrom(1));
        EXPECT_EQ(
            (std::vector<Bytes>{QueryFor("ex.test", DNS_TYPE_MX), QueryFor("ex.test", DNS_TYPE_MX),
                                QueryFor("ex.test", DNS_TYPE_A)}),
            server.Queries());
        EXPECT_EQ(std::vector<uint16_t>(3, server.FromPorts()[0]), server.FromPorts());
    });
}

TEST(GetMX, FailsWhenThereIsNeitherRecord) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", NoAnswers};
        const Outcome outcome = Look(DNS_GetMX, "ex.test");
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ((Lines{"DNS:DNS_GetMXviaNameServer(): MX record not found! Try A record.",
                         "DNS:DNS_GetMXviaNameServer(): A record not found!"}),
                  outcome.log);
        EXPECT_EQ(3u, server.Queries().size());
    });
}

// A datagram that the MX queries have left in the socket is the response of the A query.
TEST(GetMX, AcceptsALateResponseForItsNextQuery) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{
            "127.0.0.1", [](const Bytes &query, int nth) -> std::vector<Bytes> {
                if (nth != 1) {
                    return {};
                }
                // Two at once: the MX query reads the first, the A query the second.
                return {Builder{query}.bytes(), Answering({"10.0.0.7"})(query, nth)[0]};
            }};
        Outcome outcome = Look(DNS_GetMX, "ex.test", 1);
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(EntryA("10.0.0.7"), outcome.results[0]);
    });
}

TEST(GetMX, AsksTheNextServerWhenOneFails) {
    RunWithResolvConf("nameserver 127.0.0.1\nnameserver 127.0.0.2\n", [] {
        ScriptedServer first{"127.0.0.1", NoAnswers};
        ScriptedServer second{"127.0.0.2", Exchanging({5})};
        Outcome outcome = Look(DNS_GetMX, "ex.test");
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(5, outcome.results[0].preference);
        EXPECT_EQ(3u, first.Queries().size());
        EXPECT_EQ(1u, second.Queries().size());
    });
}

// A failed send counts as sent for the MX query, but not for the A query.
TEST(GetMX, ReturnsTheFailureOfItsLastQuery) {
    RunWithResolvConf("nameserver 10.9.9.9\n", [] {
        const Outcome outcome = Look(DNS_GetMX, "ex.test", 0);
        EXPECT_EQ(-2, outcome.result);
        EXPECT_EQ((Lines{"DNS:DNS_SendMXQuery(): select(&readset) timeout!",
                         "DNS:DNS_SendMXQuery(): select(&readset) timeout!",
                         "DNS:DNS_GetMXviaNameServer(): MX record not found! Try A record.",
                         "DNS:DNS_SendAQuery(): sendto() error : -1/25 - Network is unreachable",
                         "DNS:DNS_GetMXviaNameServer(): A record not found!"}),
                  outcome.log);
    });
}

// ---- Faulty servers, threads, descriptors ----

// Whatever arrives, a lookup ends within its waits and writes only its ten entries.
TEST(Noise, EndsALookupInTime) {
    RunWithResolvConf(kOneServer, [] {
        ScriptedServer server{"127.0.0.1", [](const Bytes &query, int nth) {
                                  Bytes noise(static_cast<size_t>(nth * 7 % 1400));
                                  unsigned seed = static_cast<unsigned>(nth) + 1;
                                  for (uint8_t &byte : noise) {
                                      seed = seed * 1103515245 + 12345;
                                      byte = static_cast<uint8_t>(seed >> 16);
                                  }
                                  if (nth % 2 == 0) {
                                      const size_t kept = std::min(query.size(), noise.size());
                                      std::copy_n(query.begin(), kept, noise.begin());
                                  }
                                  return std::vector<Bytes>(1, noise);
                              }};
        const std::string output = Capture([] {
            for (int i = 0; i < 200; ++i) {
                struct {
                    uint8_t before[64];
                    Results results;
                    uint8_t after[64];
                } guarded;
                memset(guarded.before, 0x3C, sizeof guarded.before);
                memset(guarded.after, 0x3C, sizeof guarded.after);
                DNS_GetA("www.ex.test", guarded.results.entries, 20);
                DNS_GetMX("www.ex.test", guarded.results.entries, 20);
                for (size_t k = 0; k < 64; ++k) {
                    ASSERT_EQ(0x3C, guarded.before[k]);
                    ASSERT_EQ(0x3C, guarded.after[k]);
                }
            }
        });
        // The first datagram ended each wait, whatever it held.
        EXPECT_EQ(std::string::npos, output.find("timeout"));
        EXPECT_LE(400u, server.Queries().size());
    });
}

TEST(Threads, MayLookUpAtOnce) {
    RunWithResolvConf(kOneServer, [] {
        // Each thread has its own host: hostN.ex.test is 10.0.0.N.
        ScriptedServer server{"127.0.0.1", [](const Bytes &query, int nth) {
                                  const std::string digit(1, static_cast<char>(query[17]));
                                  if (TypeOf(query) == DNS_TYPE_MX) {
                                      Builder response{query};
                                      const size_t name = response.Mx(10, "m");
                                      response.A(Builder::kAdditional, name,
                                                 ("10.1.0." + digit).c_str());
                                      return std::vector<Bytes>{response.bytes()};
                                  }
                                  return Answering({"10.0.0." + digit})(query, nth);
                              }};
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int t = 1; t <= 8; ++t) {
            threads.emplace_back([t, &wrong] {
                const std::string digit = std::to_string(t);
                const std::string name = "host" + digit + ".ex.test";
                for (int i = 0; i < 50; ++i) {
                    Results a;
                    Results mx;
                    wrong += DNS_GetA(name.c_str(), a.entries, 20) != 0;
                    wrong += DNS_GetMX(("user@" + name).c_str(), mx.entries, 20) != 0;
                    wrong += a[0].addr != Address(("10.0.0." + digit).c_str());
                    wrong += mx[0].addr != Address(("10.1.0." + digit).c_str());
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(0, wrong);
        EXPECT_EQ(8u * 50 * 2, server.Queries().size());
    });
}

size_t OpenDescriptors() {
    const std::filesystem::directory_iterator fds{"/proc/self/fd"};
    return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

TEST(Cancellation, WaitsUntilACallIsOver) {
    RunWithResolvConf(kOneServer, [] {
        static Results results;
        static int fd = -1;
        static const struct sockaddr_in server = ServerAddress("127.0.0.1");
        fd = BoundSocket("127.0.0.2");
        void (*const calls[])() = {
            [] { EXPECT_EQ(-1, DNS_GetA("www.ex.test", results.entries, 0)); },
            [] { EXPECT_EQ(-1, DNS_GetMX("www.ex.test", results.entries, 0)); },
            [] {
                EXPECT_EQ(-1, DNS_GetAviaNameServer("127.0.0.1", "ex.test", results.entries, 0));
            },
            [] {
                EXPECT_EQ(-1, DNS_GetMXviaNameServer("127.0.0.1", "ex.test", results.entries, 0));
            },
            [] { EXPECT_EQ(-1, DNS_SendAQuery(fd, &server, "ex.test", results.entries, 0)); },
            [] { EXPECT_EQ(-1, DNS_SendMXQuery(fd, &server, "ex.test", results.entries, 0)); },
            [] {
                char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
                EXPECT_EQ(1, DNS_GetNameServer(servers));
            },
        };
        const size_t before = OpenDescriptors();
        Capture([&] {
            for (const auto &call : calls) {
                EXPECT_TRUE(OutlastsCancellation(call)) << "call " << &call - calls;
            }
        });
        EXPECT_EQ(before, OpenDescriptors());
        close(fd);
    });
}

TEST(Descriptors, AreAllClosedAfterALookup) {
    RunWithResolvConf("nameserver 10.9.9.9\nnameserver x\nnameserver 127.0.0.1\n", [] {
        ScriptedServer server{"127.0.0.1", NoAnswers};
        const size_t before = OpenDescriptors();
        Capture([] {
            Results results;
            for (int i = 0; i < 20; ++i) {
                DNS_GetA("www.ex.test", results.entries, 0);
                DNS_GetMX("www.ex.test", results.entries, 0);
            }
        });
        EXPECT_EQ(before, OpenDescriptors());
    });
}

}  // namespace
