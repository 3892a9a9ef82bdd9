// The example program, run as users run it.

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/emulator.h"

namespace {

using namespace talvek::test;

struct Ended {
    int status;
    std::string output;
};

Ended RunExample(const std::string &arguments) {
    const std::string command =
        LauncherText() + TALVEK_BINARY_DIR + "/examples/dns_lookup " + arguments + " 2>&1";
    FILE *pPipe = popen(command.c_str(), "re");
    Ended run{-1, ""};
    if (pPipe == nullptr) {
        return run;
    }
    char block[1024];
    size_t count;
    while ((count = fread(block, 1, sizeof block, pPipe)) > 0) {
        run.output.append(block, count);
    }
    run.status = WEXITSTATUS(pclose(pPipe));
    return run;
}

TEST(Example, PrintsTheAddressesOfAHostAndOfExchangers) {
    RunWithResolvConf("nameserver 127.0.0.1\n", [] {
        ScriptedServer server{"127.0.0.1", [](const Bytes &query, int) -> std::vector<Bytes> {
                                  Builder response{query};
                                  if (query[query.size() - 3] == DNS_TYPE_A) {
                                      response.A(Builder::kAnswer, 12, "10.0.0.1")
                                          .A(Builder::kAnswer, 12, "10.0.0.2");
                                      return {response.bytes()};
                                  }
                                  const size_t second = response.Mx(20, "b");
                                  const size_t first = response.Mx(10, "a");
                                  response.A(Builder::kAdditional, second, "10.1.0.20")
                                      .A(Builder::kAdditional, first, "10.1.0.10");
                                  return {response.bytes()};
                              }};
        Ended run = RunExample("www.ex.test");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(" 1  10.0.0.1         A\n 2  10.0.0.2         A\n", run.output);
        run = RunExample("-t 3 someone@ex.test");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(
            " 1  10.1.0.10        MX, preference 10\n 2  10.1.0.20        MX, preference 20\n",
            run.output);
    });
}

TEST(Example, ReportsFailures) {
    const Ended run = RunExample("localhost");
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.output.find("localhost: no address found\n"));
    RunWithResolvConf("nameserver 127.0.0.1\n", [] {
        ScriptedServer server{
            "127.0.0.1", [](const Bytes &query, int) -> std::vector<Bytes> {
                return {Builder{query}.A(Builder::kAnswer, 12, "0.0.0.0").bytes()};
            }};
        const Ended zero = RunExample("www.ex.test");
        EXPECT_EQ(1, zero.status) << "an answer without a valid entry";
        EXPECT_EQ("www.ex.test: no address found\n", zero.output);
    });
    for (const char *pArguments : {"", "-t x a.b", "-t -1 a.b", "-t 3", "a.b c.d"}) {
        EXPECT_EQ(2, RunExample(pArguments).status) << pArguments;
    }
}

}  // namespace
