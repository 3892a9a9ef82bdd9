#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;
using Via = int (*)(const char *, const char *, tDnsAddrEntry *, int);

// No server runs: with a time-out of 0 a query is sent, and the wait for its response ends at once.

TEST(LookupFault, LogsAFailedSocket) {
    RunWithResolvConf("", [] {
        for (const auto &entry : {std::pair<Via, std::string>{DNS_GetAviaNameServer, "A"},
                                  {DNS_GetMXviaNameServer, "MX"}}) {
            Results results;
            for (const std::string call : {"socket", "bind"}) {
                EXPECT_EQ((Lines{"DNS:DNS_Get" + entry.second + "viaNameServer(): " + call +
                                 "() error : Too many open files"}),
                          CaptureLog([&] {
                              const int fds = HeldFds();
                              const Fault fault{call.c_str(), 0, EMFILE};
                              EXPECT_EQ(-1,
                                        entry.first("127.0.0.1", "ex.test", results.entries, 0));
                              EXPECT_EQ(fds, HeldFds());
                          }));
                EXPECT_TRUE(results.UntouchedFrom(0));
            }
        }
    });
}

TEST(LookupFault, LogsFailedWaits) {
    RunWithResolvConf("", [] {
        Results results;
        const auto ask = [&results](int nth, const char *pCall, Via via) {
            return CaptureLog([&] {
                const Fault fault{pCall, nth, ENOMEM};
                EXPECT_EQ(nth == 0 ? -2 : -1, via("127.0.0.1", "ex.test", results.entries, 0));
                EXPECT_TRUE(Fault::Tripped());
            });
        };
        const Lines unwritable = ask(0, "ppoll", DNS_GetAviaNameServer);
        ASSERT_EQ(2u, unwritable.size());
        EXPECT_EQ(0u, unwritable[0].find("DNS:DNS_SendAQuery(): select(writeset:"));
        EXPECT_NE(std::string::npos, unwritable[0].find(") timeout! : Cannot allocate memory"));
        EXPECT_EQ((Lines{"DNS:DNS_SendAQuery(): [0] select() error : Cannot allocate memory",
                         "DNS:DNS_GetAviaNameServer(): A record not found!"}),
                  ask(1, "ppoll", DNS_GetAviaNameServer));
    });
}

TEST(LookupFault, MakesASecondMxAttemptAfterAFailedWait) {
    RunWithResolvConf("", [] {
        Results results;
        const Lines log = CaptureLog([&] {
            const Fault fault{"ppoll", 0, ENOMEM};
            EXPECT_EQ(-1, DNS_GetMXviaNameServer("127.0.0.1", "ex.test", results.entries, 0));
        });
        EXPECT_EQ((Lines{"DNS:DNS_SendMXQuery(): select(&writeset) timeout!",
                         "DNS:DNS_SendMXQuery(): select(&readset) timeout!",
                         "DNS:DNS_GetMXviaNameServer(): MX record not found! Try A record.",
                         "DNS:DNS_SendAQuery(): [0] select() timeout",
                         "DNS:DNS_GetMXviaNameServer(): A record not found!"}),
                  log);
    });
}

TEST(LookupFault, LogsAFileThatCannotBeOpened) {
    char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
    EXPECT_EQ((Lines{"DNS:DNS_GetNameServer(): fopen(/etc/resolv.conf) error : Permission denied"}),
              CaptureLog([&] {
                  const Fault fault{"fopen", 0, EACCES};
                  EXPECT_EQ(0, DNS_GetNameServer(servers));
              }));
}

TEST(LookupFault, ReleasesEverythingWhicheverCallFails) {
    RunWithResolvConf("nameserver 127.0.0.1\n", [] {
        for (const auto lookup : {DNS_GetA, DNS_GetMX}) {
            int calls = 0;
            const std::string output = Capture([&] {
                calls = EveryCallFails(EIO, [lookup] {
                    Results results;
                    EXPECT_GT(0, lookup("www.ex.test", results.entries, 0));
                    EXPECT_TRUE(results.UntouchedFrom(1));
                });
            });
            EXPECT_LT(5, calls) << output;
            EXPECT_FALSE(::testing::Test::HasFailure()) << output;
        }
    });
}

// The answer is in the socket before the query is sent, so that each run can succeed.
TEST(LookupFault, ReceivesOrFailsWhicheverCallFails) {
    RunWithResolvConf("", [] {
        const struct sockaddr_in server = ServerAddress("127.0.0.1");
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in own = server;
        own.sin_port = 0;
        socklen_t size = sizeof own;
        ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&own), size));
        ASSERT_EQ(0, getsockname(fd, reinterpret_cast<struct sockaddr *>(&own), &size));
        const Bytes response = Builder{QueryFor("www.ex.test", DNS_TYPE_A)}
                                   .A(Builder::kAnswer, 12, "10.0.0.1")
                                   .bytes();
        for (int i = 0; i < 20; ++i) {  // one for each run
            sendto(fd, response.data(), response.size(), 0,
                   reinterpret_cast<struct sockaddr *>(&own), sizeof own);
        }
        int calls = 0;
        const std::string output = Capture([&] {
            calls = EveryCallFails(EIO, [&] {
                Results results;
                const int result = DNS_SendAQuery(fd, &server, "www.ex.test", results.entries, 0);
                if (result == 0) {
                    EXPECT_EQ(Address("10.0.0.1"), results[0].addr);
                } else {
                    EXPECT_GT(0, result);
                    EXPECT_TRUE(results.UntouchedFrom(0));
                }
            });
        });
        // Two waits, the send, the receive, and the log line of each that fails.
        EXPECT_LE(4, calls) << output;
        EXPECT_FALSE(::testing::Test::HasFailure()) << output;
        close(fd);
    });
}

}  // namespace
