// The example dns_lookup against a name server on loopback.

#include <gtest/gtest.h>

#include <string>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "run_example.h"

namespace {

using namespace talvek::test;

std::vector<Bytes> TwoOfEach(const Bytes &query, int) {
    Builder response{query};
    if (query[query.size() - 3] == DNS_TYPE_A) {
        response.A(Builder::kAnswer, 12, "10.0.0.1").A(Builder::kAnswer, 12, "10.0.0.2");
        return {response.bytes()};
    }
    const size_t second = response.Mx(20, "b");
    const size_t first = response.Mx(10, "a");
    response.A(Builder::kAdditional, second, "10.1.0.20")
        .A(Builder::kAdditional, first, "10.1.0.10");
    return {response.bytes()};
}

TEST(DnsLookup, ShowsTheAddressesOfAHostAndOfExchangers) {
    RunWithResolvConf("nameserver 127.0.0.1\n", [] {
        ScriptedServer server{"127.0.0.1", TwoOfEach};
        Ended run = RunExample("dns_lookup", "www.ex.test");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(
            "name                  www.ex.test\n"
            " 1  address 10.0.0.1\n"
            " 2  address 10.0.0.2\n",
            run.output);
        run = RunExample("dns_lookup", "-p -t 3 someone@ex.test");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(
            "name someone@ex.test\n"
            "addresses.1.address 10.1.0.10\naddresses.1.preference 10\n"
            "addresses.2.address 10.1.0.20\naddresses.2.preference 20\n",
            run.output);
        EXPECT_EQ("[{\"address\":\"10.0.0.1\"},{\"address\":\"10.0.0.2\"}]\n",
                  JsonOf("dns_lookup", "www.ex.test", ".addresses"));
    });
}

TEST(DnsLookup, ReportsFailures) {
    Ended run = ErrorsOfExample("dns_lookup", "localhost");
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.output.find("localhost: no address found\n"));
    RunWithResolvConf("nameserver 127.0.0.1\n", [] {
        ScriptedServer server{
            "127.0.0.1", [](const Bytes &query, int) -> std::vector<Bytes> {
                return {Builder{query}.A(Builder::kAnswer, 12, "0.0.0.0").bytes()};
            }};
        const Ended zero = ErrorsOfExample("dns_lookup", "www.ex.test");
        EXPECT_EQ(1, zero.status) << "an answer without a valid entry";
        EXPECT_EQ("www.ex.test: no address found\n", zero.output);
    });
    for (const char *pArguments : {"", "-t x a.b", "-t -1 a.b", "-t 3", "a.b c.d"}) {
        EXPECT_EQ(2, RunExample("dns_lookup", pArguments).status) << pArguments;
    }
}

}  // namespace
