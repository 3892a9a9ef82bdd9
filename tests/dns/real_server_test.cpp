// Lookups with the name servers of the distribution, compared with dig's answers.
//
// The servers run in the foreground in a private network and end with the test. Where the resolver
// differs from dig, since it does not walk the records, the test says why.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/await.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr char kDig[] = "/usr/bin/dig";

// ---- The zones ----

struct ZoneRecord {
    std::string name;  // relative to ex.test unless it ends in "."
    std::string type;
    int preference;
    std::string data;
};

std::string Whole(const std::string &name) {
    return name.back() == '.' ? name.substr(0, name.size() - 1) : name + ".ex.test";
}

std::vector<ZoneRecord> Records() {
    std::vector<ZoneRecord> records = {
        {"www", "A", 0, "10.0.0.1"},      {"alias", "CNAME", 0, "www"},
        {"x", "CNAME", 0, "y"},           {"y", "A", 0, "10.0.0.9"},
        {"one", "MX", 10, "mx1.one"},     {"mx1.one", "A", 0, "10.1.0.1"},
        {"three", "MX", 20, "b.three"},   {"three", "MX", 10, "a.three"},
        {"three", "MX", 30, "c.three"},   {"three", "A", 0, "10.1.3.99"},
        {"a.three", "A", 0, "10.1.3.10"}, {"b.three", "A", 0, "10.1.3.20"},
        {"c.three", "A", 0, "10.1.3.30"}, {"foreign", "MX", 10, "mail.other.test."},
        {"foreign", "A", 0, "10.0.0.7"},  {"mail.other.test.", "A", 0, "10.2.0.1"},
    };
    for (int i = 1; i <= 12; ++i) {
        const std::string number = std::to_string(i);
        const std::string letter(1, static_cast<char>('a' + i - 1));
        if (i <= 10) {
            records.push_back({"ten", "A", 0, "10.0.1." + number});
            const std::string name = "exchanger-" + letter + ".far";
            records.push_back({"far", "MX", i, name});
            records.push_back({name, "A", 0, "10.1.10." + number});
        }
        records.push_back({"twelve", "A", 0, "10.0.2." + number});
        records.push_back({"dozen", "MX", i * 10, letter + ".dozen"});
        records.push_back({letter + ".dozen", "A", 0, "10.1.12." + number});
    }
    return records;
}

// Zone files (RFC 1035, 5): ex.test.zone and other.test.zone.
void WriteZones(const std::string &dir) {
    const std::string head =
        "$TTL 3600\n"
        "@ IN SOA ns1.ex.test. admin.ex.test. 1 3600 600 86400 300\n"
        "@ IN NS ns1.ex.test.\n";
    std::string ex = head + "ns1 IN A 10.0.9.9\n";
    std::string other = head;
    for (const ZoneRecord &record : Records()) {
        const bool outside = record.name.back() == '.';
        (outside ? other : ex) += record.name + " IN " + record.type + " " +
                                  (record.type == "MX" ? std::to_string(record.preference) : "") +
                                  " " + record.data + "\n";
    }
    WriteFile(dir + "/ex.test.zone", ex);
    WriteFile(dir + "/other.test.zone", other);
}

// ---- The servers ----

struct Kind {
    std::string name;
    std::string program;
    std::vector<std::string> arguments;
    std::function<std::string(const std::string &dir)> config;

    friend std::ostream &operator<<(std::ostream &out, const Kind &kind) {
        return out << kind.name;
    }
};

std::string BindConfig(const std::string &dir, const std::string &responses) {
    return "options { directory \"" + dir +
           "\"; listen-on port 53 { 127.0.0.1; }; listen-on-v6 { none; }; pid-file none; "
           "session-keyfile none; lock-file none; dnssec-validation no; recursion yes; "
           "servfail-ttl 0; " +
           responses +
           "};\n"
           "controls {};\n"
           "zone \"ex.test\" { type primary; file \"ex.test.zone\"; };\n"
           "zone \"other.test\" { type primary; file \"other.test.zone\"; };\n";
}

std::string UnboundConfig(const std::string &dir, bool minimal) {
    std::string text =
        "server:\n"
        "  interface: 127.0.0.1\n"
        "  username: \"\"\n"
        "  chroot: \"\"\n"
        "  pidfile: \"\"\n"
        "  use-syslog: no\n"
        "  module-config: \"iterator\"\n"
        "  local-zone: \"test.\" nodefault\n"
        "  directory: \"" +
        dir + "\"\n" + (minimal ? "" : "  minimal-responses: no\n") +
        "remote-control:\n"
        "  control-enable: no\n";
    for (const std::string zone : {"ex.test", "other.test"}) {
        text += "auth-zone:\n  name: \"" + zone + "\"\n  zonefile: \"" + dir + "/" + zone +
                ".zone\"\n  for-downstream: no\n  for-upstream: yes\n";
    }
    return text;
}

std::string NsdConfig(const std::string &dir) {
    return "server:\n"
           "  ip-address: 127.0.0.1\n"
           "  username: \"\"\n"
           "  chroot: \"\"\n"
           "  database: \"\"\n"
           "  pidfile: \"\"\n"
           "  server-count: 1\n"
           "  zonesdir: \"" +
           dir + "\"\n  xfrdfile: \"" + dir + "/xfrd.state\"\n  xfrdir: \"" + dir +
           "\"\n  zonelistfile: \"" + dir +
           "/zone.list\"\n"
           "remote-control:\n"
           "  control-enable: no\n"
           "zone:\n  name: ex.test\n  zonefile: ex.test.zone\n"
           "zone:\n  name: other.test\n  zonefile: other.test.zone\n";
}

std::string KnotConfig(const std::string &dir) {
    return "server:\n"
           "  listen: 127.0.0.1@53\n"
           "  udp-workers: 1\n"
           "  tcp-workers: 1\n"
           "  background-workers: 1\n"
           "  rundir: " +
           dir + "\ndatabase:\n  storage: " + dir +
           "\nlog:\n  - target: stderr\n    any: warning\n"
           "template:\n"
           "  - id: default\n"
           "    file: \"%s.zone\"\n"
           "    zonefile-sync: -1\n"
           "    journal-content: none\n"
           "    storage: " +
           dir + "\nzone:\n  - domain: ex.test\n  - domain: other.test\n";
}

std::string DnsmasqConfig(const std::string & /*dir*/) {
    std::string text =
        "no-resolv\nno-hosts\nuser=root\ngroup=root\npid-file=\n"
        "listen-address=127.0.0.1\nbind-interfaces\nlocal=/test/\n";
    for (const ZoneRecord &record : Records()) {
        if (record.type == "A") {
            text += "host-record=" + Whole(record.name) + "," + record.data + "\n";
        } else if (record.type == "MX") {
            text += "mx-host=" + Whole(record.name) + "," + Whole(record.data) + "," +
                    std::to_string(record.preference) + "\n";
        } else {
            text += "cname=" + Whole(record.name) + "," + Whole(record.data) + "\n";
        }
    }
    return text;
}

const Kind kBind{"Bind", "/usr/sbin/named", {"-f", "-g", "-c", "CONFIG"}, [](const std::string &d) {
                     return BindConfig(d, "");
                 }};
const Kind kBindFull{"BindWithFullResponses",
                     "/usr/sbin/named",
                     {"-f", "-g", "-c", "CONFIG"},
                     [](const std::string &d) { return BindConfig(d, "minimal-responses no; "); }};
const Kind kBindMinimal{
    "BindWithMinimalResponses",
    "/usr/sbin/named",
    {"-f", "-g", "-c", "CONFIG"},
    [](const std::string &d) { return BindConfig(d, "minimal-responses yes; "); }};
const Kind kUnbound{
    "Unbound", "/usr/sbin/unbound", {"-d", "-c", "CONFIG"}, [](const std::string &d) {
        return UnboundConfig(d, false);
    }};
const Kind kUnboundMinimal{"UnboundWithMinimalResponses",
                           "/usr/sbin/unbound",
                           {"-d", "-c", "CONFIG"},
                           [](const std::string &d) { return UnboundConfig(d, true); }};
const Kind kNsd{"Nsd", "/usr/sbin/nsd", {"-d", "-c", "CONFIG"}, NsdConfig};
const Kind kKnot{"Knot", "/usr/sbin/knotd", {"-c", "CONFIG"}, KnotConfig};
const Kind kDnsmasq{"Dnsmasq", "/usr/sbin/dnsmasq", {"-k", "-C", "CONFIG"}, DnsmasqConfig};

// A server in the foreground, as a child of the test.
class RealServer {
  public:
    explicit RealServer(const Kind &kind) {
        WriteZones(dir_.path());
        WriteFile(dir_ / "config", kind.config(dir_.path()));
        pid_ = fork();
        if (pid_ == 0) {
            Exec(kind);
        }
        EXPECT_TRUE(Answers()) << kind.name << " does not answer: " << ReadFile(dir_ / "log");
    }
    ~RealServer() {
        kill(pid_, SIGTERM);
        WaitFor(pid_);
    }
    RealServer(const RealServer &) = delete;
    RealServer &operator=(const RealServer &) = delete;

  private:
    [[noreturn]] void Exec(const Kind &kind) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int log = open((dir_ / "log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        std::vector<std::string> arguments = kind.arguments;
        std::replace(arguments.begin(), arguments.end(), std::string{"CONFIG"}, dir_ / "config");
        arguments.insert(arguments.begin(), kind.program);
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        execv(kind.program.c_str(), argv.data());
        _exit(127);
    }

    // Asks until the zone is loaded.
    static bool Answers() {
        const struct sockaddr_in server = ServerAddress("127.0.0.1");
        const Bytes query = QueryFor("www.ex.test", DNS_TYPE_A);
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0,
                  connect(fd, reinterpret_cast<const struct sockaddr *>(&server), sizeof server));
        const bool answered = Eventually([&] {
            uint8_t response[512] = {};
            send(fd, query.data(), query.size(), 0);
            return Readable(fd, 100) && recv(fd, response, sizeof response, MSG_DONTWAIT) > 12 &&
                   response[7] > 0;
        });
        close(fd);
        return answered;
    }

    TempDir dir_;
    pid_t pid_ = -1;
};

void WithServer(const Kind &kind, const std::function<void()> &body) {
    for (const std::string &program : {kind.program, std::string{kDig}}) {
        if (access(program.c_str(), X_OK) != 0) {
            GTEST_SKIP() << program << " is not installed";
        }
    }
    RunWithResolvConf(
        "nameserver 127.0.0.1\n",
        [&] {
            const RealServer server{kind};
            if (!::testing::Test::HasFailure()) {
                body();
            }
        },
        kPids);
}

// ---- The answers of dig ----

struct Answer {
    std::string owner;
    std::string type;
    std::string data;  // "10 mx1.ex.test" for an exchanger, without the "." of the root
};

std::vector<Answer> Dig(const std::vector<std::string> &names, const std::string &type) {
    std::string command = std::string{kDig} + " @127.0.0.1 +noedns +noall +answer +time=60";
    for (const std::string &name : names) {
        command += " " + name + " " + type;
    }
    FILE *pPipe = popen(command.c_str(), "re");
    std::string text;
    char block[4096];
    size_t count;
    while (pPipe != nullptr && (count = fread(block, 1, sizeof block, pPipe)) > 0) {
        text.append(block, count);
    }
    EXPECT_EQ(0, pclose(pPipe)) << command << "\n" << text;
    std::vector<Answer> answers;
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields{line};
        Answer answer;
        std::string ttl;
        std::string kind;
        fields >> answer.owner >> ttl >> kind >> answer.type >> std::ws;
        std::getline(fields, answer.data);
        if (answer.data.ends_with('.')) {
            answer.data.pop_back();
        }
        answers.push_back(answer);
    }
    return answers;
}

std::multiset<uint32_t> DigAddresses(const std::string &name) {
    std::multiset<uint32_t> addresses;
    for (const Answer &answer : Dig({name}, "A")) {
        if (answer.type == "A") {
            addresses.insert(Address(answer.data.c_str()));
        }
    }
    return addresses;
}

// The address of each exchanger by preference, from an MX query and an A query for each exchanger.
std::map<int, uint32_t> DigExchangers(const std::string &name) {
    std::map<std::string, int> preferences;
    std::vector<std::string> names;
    for (const Answer &answer : Dig({name}, "MX")) {
        const size_t blank = answer.data.find(' ');
        names.push_back(answer.data.substr(blank + 1));
        preferences[names.back() + "."] = std::stoi(answer.data);
    }
    std::map<int, uint32_t> exchangers;
    for (const Answer &answer : Dig(names, "A")) {
        exchangers[preferences.at(answer.owner)] = Address(answer.data.c_str());
    }
    return exchangers;
}

// ---- The answers of the resolver ----

struct Found {
    int result;
    std::vector<tDnsAddrEntry> entries;  // the valid ones

    [[nodiscard]] std::multiset<uint32_t> Addresses() const {
        std::multiset<uint32_t> addresses;
        for (const tDnsAddrEntry &entry : entries) {
            addresses.insert(entry.addr);
        }
        return addresses;
    }
};

Found Look(int (*lookup)(const char *, tDnsAddrEntry *, int), const std::string &name) {
    tDnsAddrEntry entries[DNS_MAX_ENTRIES] = {};
    Found found{};
    Capture([&] { found.result = lookup(name.c_str(), entries, 60); });
    for (const tDnsAddrEntry &entry : entries) {
        if (entry.valid) {
            found.entries.push_back(entry);
        }
    }
    return found;
}

std::multiset<uint32_t> DigAddressesOf(const std::map<int, uint32_t> &exchangers) {
    std::multiset<uint32_t> addresses;
    for (const auto &[preference, address] : exchangers) {
        addresses.insert(address);
    }
    return addresses;
}

// The entries for `name` must be the first `count` of the exchangers that dig finds for the domain.
void ExpectExchangers(const std::string &name, const std::string &domain, size_t count) {
    const std::map<int, uint32_t> expected = DigExchangers(domain);
    ASSERT_LE(count, expected.size()) << domain;
    const Found found = Look(DNS_GetMX, name);
    ASSERT_EQ(0, found.result);
    ASSERT_EQ(count, found.entries.size()) << name;
    auto next = expected.begin();
    for (const tDnsAddrEntry &entry : found.entries) {
        EXPECT_EQ(DNS_TYPE_MX, entry.type);
        EXPECT_EQ(next->first, entry.preference);
        EXPECT_EQ(next->second, entry.addr);
        ++next;
    }
}

// ---- All servers ----

class RealServerTest : public ::testing::TestWithParam<Kind> {};

TEST_P(RealServerTest, FindsTheAddressesThatDigFinds) {
    WithServer(GetParam(), [] {
        for (const std::string name : {"www.ex.test", "ten.ex.test"}) {
            const Found found = Look(DNS_GetA, name);
            EXPECT_EQ(0, found.result);
            EXPECT_EQ(DigAddresses(name), found.Addresses()) << name;
        }
        EXPECT_EQ(1u, Look(DNS_GetA, "www.ex.test").entries.size());
        EXPECT_EQ(10u, Look(DNS_GetA, "ten.ex.test").entries.size());
        EXPECT_EQ(DigAddresses("www.ex.test"), Look(DNS_GetA, "user@www.ex.test").Addresses());
        // Ten of the twelve that dig finds.
        const Found twelve = Look(DNS_GetA, "twelve.ex.test");
        const std::multiset<uint32_t> all = DigAddresses("twelve.ex.test");
        const std::multiset<uint32_t> some = twelve.Addresses();
        EXPECT_EQ(12u, all.size());
        EXPECT_EQ(10u, some.size());
        EXPECT_TRUE(std::includes(all.begin(), all.end(), some.begin(), some.end()));
    });
}

TEST_P(RealServerTest, FailsForAnUnknownName) {
    WithServer(GetParam(), [] {
        EXPECT_TRUE(Dig({"nobody.ex.test"}, "A").empty());
        EXPECT_EQ(-1, Look(DNS_GetA, "nobody.ex.test").result);
        EXPECT_EQ(-1, Look(DNS_GetMX, "nobody.ex.test").result);
        EXPECT_EQ(-1, Look(DNS_GetMX, "user@nobody.ex.test").result);
        // A "." at the end is a character of the last label.
        EXPECT_EQ(-1, Look(DNS_GetA, "www.ex.test.").result);
    });
}

TEST_P(RealServerTest, FindsTheAddressOfAHostWithoutExchangers) {
    WithServer(GetParam(), [] {
        EXPECT_TRUE(Dig({"www.ex.test"}, "MX").empty());
        const Found found = Look(DNS_GetMX, "user@www.ex.test");
        EXPECT_EQ(0, found.result);
        ASSERT_EQ(1u, found.entries.size());
        EXPECT_EQ(DNS_TYPE_A, found.entries[0].type);
        EXPECT_EQ(DigAddresses("www.ex.test"), found.Addresses());
    });
}

TEST_P(RealServerTest, FindsTheExchangersThatDigFinds) {
    WithServer(GetParam(), [] {
        ExpectExchangers("one.ex.test", "one.ex.test", 1);
        ExpectExchangers("three.ex.test", "three.ex.test", 3);
        ExpectExchangers("user@three.ex.test", "three.ex.test", 3);
    });
}

const auto kKindName = [](const ::testing::TestParamInfo<Kind> &info) { return info.param.name; };

INSTANTIATE_TEST_SUITE_P(Servers, RealServerTest,
                         ::testing::Values(kBind, kBindFull, kUnbound, kNsd, kKnot, kDnsmasq),
                         kKindName);

// ---- What differs between them ----

// The answer count includes the alias. The last entry is read 16 bytes after the address, where
// these responses have ended.
class AliasTest : public ::testing::TestWithParam<Kind> {};

TEST_P(AliasTest, FindsTheAddressesThatDigFinds) {
    WithServer(GetParam(), [] {
        const Found found = Look(DNS_GetA, "alias.ex.test");
        EXPECT_EQ(0, found.result);
        EXPECT_EQ(DigAddresses("alias.ex.test"), found.Addresses());
    });
}

INSTANTIATE_TEST_SUITE_P(Servers, AliasTest, ::testing::Values(kBind, kUnbound, kKnot, kDnsmasq),
                         kKindName);

class AliasWithAuthorityTest : public ::testing::TestWithParam<Kind> {};

TEST_P(AliasWithAuthorityTest, DiffersFromDigWhenTheAuthoritySectionIsReadAsAnAddress) {
    WithServer(GetParam(), [] {
        const Found found = Look(DNS_GetA, "alias.ex.test");
        EXPECT_EQ(0, found.result);
        ASSERT_EQ(2u, found.entries.size());
        EXPECT_EQ(std::multiset<uint32_t>{found.entries[0].addr}, DigAddresses("alias.ex.test"));
    });
}

INSTANTIATE_TEST_SUITE_P(Servers, AliasWithAuthorityTest, ::testing::Values(kBindFull, kNsd),
                         kKindName);

// Servers that compress the names in records; dnsmasq does not.
class CompressingTest : public ::testing::TestWithParam<Kind> {};

// "x" is an alias of "y": the data of the CNAME record is 4 bytes long (01 'y' and a pointer), so
// it is mistaken for an address. The real one follows after 16 bytes.
TEST_P(CompressingTest, DiffersFromDigWhenACnameHasFourBytes) {
    WithServer(GetParam(), [] {
        const Found found = Look(DNS_GetA, "x.ex.test");
        EXPECT_EQ(0, found.result);
        ASSERT_EQ(2u, found.entries.size());
        uint8_t first[4];
        memcpy(first, &found.entries[0].addr, 4);
        EXPECT_EQ(1, first[0]);
        EXPECT_EQ('y', first[1]);
        EXPECT_EQ(0xC0, first[2]);
        EXPECT_EQ(std::multiset<uint32_t>{found.entries[1].addr}, DigAddresses("x.ex.test"));
    });
}

// Only the low byte of a pointer is read: of ten exchangers with long names the last two are beyond
// offset 255, and their preferences are wrong.
TEST_P(CompressingTest, DiffersFromDigOnPreferencesOfNamesBeyondOffset255) {
    WithServer(GetParam(), [] {
        const std::map<int, uint32_t> expected = DigExchangers("far.ex.test");
        const Found found = Look(DNS_GetMX, "far.ex.test");
        EXPECT_EQ(0, found.result);
        EXPECT_EQ(DigAddressesOf(expected), found.Addresses());
        int right = 0;
        for (const tDnsAddrEntry &entry : found.entries) {
            const auto at = expected.find(entry.preference);
            right += at != expected.end() && at->second == entry.addr;
        }
        EXPECT_EQ(8, right);
    });
}

TEST_P(CompressingTest, FindsTheFirstTenOfTwelveExchangers) {
    WithServer(GetParam(), [] { ExpectExchangers("dozen.ex.test", "dozen.ex.test", 10); });
}

INSTANTIATE_TEST_SUITE_P(Servers, CompressingTest,
                         ::testing::Values(kBind, kBindFull, kUnbound, kNsd, kKnot), kKindName);

TEST(DnsmasqTest, FindsTheAddressOfAShortAlias) {
    WithServer(kDnsmasq, [] {
        EXPECT_EQ(DigAddresses("x.ex.test"), Look(DNS_GetA, "x.ex.test").Addresses());
    });
}

// dnsmasq does not compress these names and limits a response to 512 bytes, so it adds only some of
// the twelve addresses. They are correct, but not the first ten.
TEST(DnsmasqTest, DiffersFromDigWhenTheServerAddsSomeOfTheAddresses) {
    WithServer(kDnsmasq, [] {
        const std::map<int, uint32_t> expected = DigExchangers("dozen.ex.test");
        EXPECT_EQ(12u, expected.size());
        const Found found = Look(DNS_GetMX, "dozen.ex.test");
        EXPECT_EQ(0, found.result);
        EXPECT_LT(0u, found.entries.size());
        EXPECT_GT(10u, found.entries.size());
        for (const tDnsAddrEntry &entry : found.entries) {
            const auto at = expected.find(entry.preference);
            ASSERT_NE(expected.end(), at);
            EXPECT_EQ(at->second, entry.addr);
        }
    });
}

// These servers add the address of an exchanger in another zone that they have.
class ForeignKnownTest : public ::testing::TestWithParam<Kind> {};

TEST_P(ForeignKnownTest, FindsTheExchangerInAnotherZoneThatDigFinds) {
    WithServer(GetParam(), [] { ExpectExchangers("foreign.ex.test", "foreign.ex.test", 1); });
}

INSTANTIATE_TEST_SUITE_P(Servers, ForeignKnownTest, ::testing::Values(kBindFull, kDnsmasq),
                         kKindName);

// These servers add only addresses of the zone asked for, so the additional section is empty. The
// exchanger is not looked up, and the domain's own address is returned.
class ForeignLeftOutTest : public ::testing::TestWithParam<Kind> {};

TEST_P(ForeignLeftOutTest, DiffersFromDigWhenTheServerAddsNoAddress) {
    WithServer(GetParam(), [] {
        EXPECT_EQ((std::map<int, uint32_t>{{10, Address("10.2.0.1")}}),
                  DigExchangers("foreign.ex.test"));
        const Found found = Look(DNS_GetMX, "foreign.ex.test");
        EXPECT_EQ(0, found.result);
        ASSERT_EQ(1u, found.entries.size());
        EXPECT_EQ((tDnsAddrEntry{1, 0, 0, DNS_TYPE_A, Address("10.0.0.7")}), found.entries[0]);
    });
}

INSTANTIATE_TEST_SUITE_P(Servers, ForeignLeftOutTest, ::testing::Values(kBind, kUnbound, kKnot),
                         kKindName);

// NSD adds the name server's address and not the exchanger's. One address less one authority record
// is none, but at least one entry is stored: the name server is mistaken for the exchanger.
TEST(ForeignOfNsdTest, DiffersFromDigWhenOnlyTheNameServerIsAdded) {
    WithServer(kNsd, [] {
        const Found found = Look(DNS_GetMX, "foreign.ex.test");
        EXPECT_EQ(0, found.result);
        ASSERT_EQ(1u, found.entries.size());
        EXPECT_EQ(DNS_TYPE_MX, found.entries[0].type);
        EXPECT_EQ(Address("10.0.9.9"), found.entries[0].addr);
    });
}

// With minimal responses, Unbound's default, no address is added.
class MinimalTest : public ::testing::TestWithParam<Kind> {};

TEST_P(MinimalTest, DiffersFromDigWhenResponsesAreMinimal) {
    WithServer(GetParam(), [] {
        EXPECT_EQ(3u, DigExchangers("three.ex.test").size());
        const Found found = Look(DNS_GetMX, "three.ex.test");
        EXPECT_EQ(0, found.result);
        ASSERT_EQ(1u, found.entries.size());
        EXPECT_EQ((tDnsAddrEntry{1, 0, 0, DNS_TYPE_A, Address("10.1.3.99")}), found.entries[0]);
        EXPECT_EQ(-1, Look(DNS_GetMX, "one.ex.test").result) << "a domain without an address";
    });
}

INSTANTIATE_TEST_SUITE_P(Servers, MinimalTest, ::testing::Values(kBindMinimal, kUnboundMinimal),
                         kKindName);

}  // namespace
