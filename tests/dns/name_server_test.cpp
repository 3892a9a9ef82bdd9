#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "dns/DNS.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// The servers of a resolv.conf. The unused buffers must stay untouched.
std::vector<std::string> ServersOf(const std::string &resolvConf) {
    WriteFile("/etc/resolv.conf", resolvConf);
    const CanaryBuf buffers{size_t{DNS_MAX_NAME_SERVERS} * DNS_NAME_SERVER_SIZE};
    const auto servers = reinterpret_cast<char(*)[DNS_NAME_SERVER_SIZE]>(buffers.text());
    const int count = DNS_GetNameServer(servers);
    EXPECT_LE(0, count);
    EXPECT_GE(DNS_MAX_NAME_SERVERS, count);
    EXPECT_TRUE(buffers.UntouchedFrom(static_cast<size_t>(count) * DNS_NAME_SERVER_SIZE));
    std::vector<std::string> found;
    for (int i = 0; i < count; ++i) {
        EXPECT_NE(nullptr, memchr(servers[i], '\0', DNS_NAME_SERVER_SIZE));
        found.emplace_back(servers[i]);
    }
    return found;
}

using Names = std::vector<std::string>;

void InEtc(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        FreshEtc();
        EXPECT_EQ(Names{}, CaptureLog(body));
    });
}

TEST(GetNameServer, ReadsTheFileInOrder) {
    InEtc([] {
        EXPECT_EQ(Names{}, ServersOf(""));
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("nameserver 10.0.0.1\n"));
        EXPECT_EQ((Names{"10.0.0.2", "10.0.0.1"}),
                  ServersOf("nameserver 10.0.0.2\nnameserver 10.0.0.1\n"));
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("nameserver 10.0.0.1"));
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("nameserver 10.0.0.1\r\n"));
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("nameserver    10.0.0.1 # office\n"));
    });
}

TEST(GetNameServer, StopsAfterTheFourth) {
    InEtc([] {
        std::string text;
        Names first;
        for (int i = 1; i <= 6; ++i) {
            text += "nameserver 10.0.0." + std::to_string(i) + "\n";
            if (i <= 4) {
                first.push_back("10.0.0." + std::to_string(i));
            }
            if (i >= 3) {
                EXPECT_EQ(std::min<size_t>(static_cast<size_t>(i), 4), ServersOf(text).size());
            }
        }
        EXPECT_EQ(first, ServersOf(text));
    });
}

TEST(GetNameServer, SkipsOtherLines) {
    InEtc([] {
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("# nameserver 10.9.9.9\n"
                                               "domain test\n"
                                               "nameserver\n"
                                               "nameserver \n"
                                               " nameserver 10.8.8.8\n"
                                               "Nameserver 10.7.7.7\n"
                                               "nameserve 10.6.6.6\n"
                                               "\n"
                                               "options timeout:1\n"
                                               "nameserver 10.0.0.1\n"));
    });
}

TEST(GetNameServer, ComparesOnlyTheFirstTenCharacters) {
    InEtc([] {
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("nameservers 10.0.0.1\n"));
        EXPECT_EQ(Names{}, ServersOf("nameserver10.0.0.1\n"));
    });
}

// Only blanks and line ends separate words.
TEST(GetNameServer, DoesNotSeparateWordsAtTabs) {
    InEtc([] {
        EXPECT_EQ(Names{}, ServersOf("nameserver\t10.0.0.1\n"));
        EXPECT_EQ(Names{"10.0.0.1\t#"}, ServersOf("nameserver 10.0.0.1\t#\n"));
    });
}

TEST(GetNameServer, CutsAnAddressTo15Characters) {
    InEtc([] {
        EXPECT_EQ(Names{"10.100.100.100"}, ServersOf("nameserver 10.100.100.100\n"));
        EXPECT_EQ(Names{"100.100.100.100"}, ServersOf("nameserver 100.100.100.100\n"));
        EXPECT_EQ(Names{"100.100.100.100"}, ServersOf("nameserver 100.100.100.1001\n"));
        EXPECT_EQ(Names{"2001:0db8:0000:"}, ServersOf("nameserver 2001:0db8:0000:0000::1\n"));
    });
}

// A line has at most 79 characters; the rest counts as the next line.
TEST(GetNameServer, ReadsLinesOf79Characters) {
    InEtc([] {
        const std::string server = "nameserver 10.0.0.1";
        EXPECT_EQ(Names{}, ServersOf("#" + std::string(77, 'x') + server + "\n"));
        EXPECT_EQ(Names{"10.0.0.1"}, ServersOf("#" + std::string(78, 'x') + server + "\n"));
        EXPECT_EQ(Names{}, ServersOf("#" + std::string(79, 'x') + server + "\n"));
        // An address at the end of such a line is cut.
        EXPECT_EQ(Names{"10.0"}, ServersOf("nameserver" + std::string(65, ' ') + "10.0.0.1\n"));
    });
}

TEST(GetNameServer, LogsAMissingFile) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
        EXPECT_EQ((Names{"DNS:DNS_GetNameServer(): fopen(/etc/resolv.conf) error : No such file or "
                         "directory"}),
                  CaptureLog([&] { EXPECT_EQ(0, DNS_GetNameServer(servers)); }));
    });
}

TEST(GetNameServer, ReturnsZeroForADirectory) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        ASSERT_EQ(0, mkdir("/etc/resolv.conf", 0755));
        char servers[DNS_MAX_NAME_SERVERS][DNS_NAME_SERVER_SIZE];
        EXPECT_EQ(0, DNS_GetNameServer(servers));
    });
}

TEST(GetNameServer, ReturnsZeroForNull) {
    EXPECT_EQ(Names{}, CaptureLog([] { EXPECT_EQ(0, DNS_GetNameServer(nullptr)); }));
}

}  // namespace
