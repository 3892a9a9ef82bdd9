// What a lookup costs against a local name server, beside glibc's getaddrinfo and c-ares, and what
// the parser costs alone.
//
// The program makes a network of its own with a small responder on port 53, so that nothing leaves
// the machine and all resolvers meet the same server. The runs of all benchmarks are shuffled.

#include <ares.h>
#include <ares_dns.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <errno.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/side_by_side.h"
#include "dns/DNS.h"

namespace {

constexpr char kName[] = "www.example.test";
constexpr char kServer[] = "127.0.0.1";
constexpr int kTimeout = 5;

using Bytes = std::vector<uint8_t>;

[[noreturn]] void Give(const char *pWhat) {
    fprintf(stderr, "dns_bench: %s : %s\n", pWhat, strerror(errno));
    exit(1);
}

// ---- The network and its server ----

void PutText(const char *pPath, const std::string &text) {
    FILE *pFile = fopen(pPath, "we");
    if (pFile == nullptr || fwrite(text.data(), 1, text.size(), pFile) != text.size() ||
        fclose(pFile) != 0) {
        Give(pPath);
    }
}

void EnterOwnNetwork() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | (uid != 0 ? CLONE_NEWUSER : 0)) != 0) {
        Give("unshare");
    }
    if (uid != 0) {
        PutText("/proc/self/setgroups", "deny");
        PutText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        PutText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/etc", "tmpfs", 0, "mode=755") != 0) {
        Give("mount");
    }
    PutText("/etc/resolv.conf", std::string{"nameserver "} + kServer + "\n");
    PutText("/etc/hosts", "127.0.0.1 localhost\n");
    PutText("/etc/nsswitch.conf", "hosts: dns\n");  // as the others: no look at /etc/hosts

    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
        Give("loopback");
    }
    close(fd);
}

struct sockaddr_in ServerAddress() {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(DNS_PORT);
    address.sin_addr.s_addr = inet_addr(kServer);
    return address;
}

void Put(Bytes &bytes, std::initializer_list<int> values) {
    for (const int value : values) {
        bytes.push_back(static_cast<uint8_t>(value));
    }
}

void PutA(Bytes &response, size_t owner, int last) {
    Put(response, {0xC0, static_cast<int>(owner), 0, 1, 0, 1, 0, 0, 14, 16, 0, 4, 10, 0, 0, last});
}

// The response to a query of one question: `count` addresses, or exchangers with their addresses.
Bytes Respond(const Bytes &query, int count) {
    Bytes response = query;
    response[2] = 0x81;
    response[3] = 0x80;
    response[7] = static_cast<uint8_t>(count);
    if (query[query.size() - 3] == DNS_TYPE_A) {
        for (int i = 1; i <= count; ++i) {
            PutA(response, 12, i);
        }
        return response;
    }
    std::vector<size_t> names;
    for (int i = 0; i < count; ++i) {
        Put(response, {0xC0, 12, 0, 15, 0, 1, 0, 0, 14, 16, 0, 6, 0, (count - i) * 10});
        names.push_back(response.size());
        Put(response, {1, 'a' + i, 0xC0, 12});
    }
    response[11] = static_cast<uint8_t>(count);
    for (int i = 0; i < count; ++i) {
        PutA(response, names[static_cast<size_t>(i)], i + 1);
    }
    return response;
}

[[noreturn]] void Serve(int fd) {
    for (;;) {
        Bytes query(512);
        struct sockaddr_in from = {};
        socklen_t size = sizeof from;
        const ssize_t count = recvfrom(fd, query.data(), query.size(), 0,
                                       reinterpret_cast<struct sockaddr *>(&from), &size);
        if (count < 18) {
            continue;
        }
        query.resize(static_cast<size_t>(count));
        const Bytes response = Respond(query, 3);
        sendto(fd, response.data(), response.size(), 0,
               reinterpret_cast<const struct sockaddr *>(&from), size);
    }
}

void StartServer() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in address = ServerAddress();
    if (bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) != 0) {
        Give("bind");
    }
    const pid_t child = fork();
    if (child == -1) {
        Give("fork");
    }
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Serve(fd);
    }
    close(fd);
}

// ---- Lookups ----

void DnsGetA(benchmark::State &state) {
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    for (auto _ : state) {
        if (DNS_GetA(kName, entries, kTimeout) != 0) {
            state.SkipWithError("no answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// Without the look at /etc/resolv.conf, which c-ares and glibc take once.
void DnsGetAviaNameServer(benchmark::State &state) {
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    for (auto _ : state) {
        if (DNS_GetAviaNameServer(kServer, kName, entries, kTimeout) != 0) {
            state.SkipWithError("no answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void DnsGetMX(benchmark::State &state) {
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    for (auto _ : state) {
        if (DNS_GetMX(kName, entries, kTimeout) != 0) {
            state.SkipWithError("no answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void GlibcGetaddrinfo(benchmark::State &state) {
    struct addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    for (auto _ : state) {
        struct addrinfo *pFound = nullptr;
        if (getaddrinfo(kName, nullptr, &hints, &pFound) != 0) {
            state.SkipWithError("no answer");
            break;
        }
        freeaddrinfo(pFound);
    }
    state.SetItemsProcessed(state.iterations());
}

class Ares {
  public:
    Ares() {
        static char lookups[] = "b";  // the name server alone, not /etc/hosts
        struct ares_options options = {};
        options.lookups = lookups;
        valid_ = ares_init_options(&channel_, &options, ARES_OPT_LOOKUPS) == ARES_SUCCESS;
    }
    ~Ares() {
        if (valid_) {
            ares_destroy(channel_);
        }
    }
    Ares(const Ares &) = delete;
    Ares &operator=(const Ares &) = delete;

    // Addresses of the host, with the program's own poll as the loop that c-ares asks for.
    bool LookUp() {
        bool found = false;
        if (!valid_) {
            return false;
        }
        ares_gethostbyname(
            channel_, kName, AF_INET,
            [](void *pFound, int status, int, struct hostent *) {
                *static_cast<bool *>(pFound) = status == ARES_SUCCESS;
            },
            &found);
        for (;;) {
            ares_socket_t sockets[ARES_GETSOCK_MAXNUM];
            const int bits = ares_getsock(channel_, sockets, ARES_GETSOCK_MAXNUM);
            if (!ARES_GETSOCK_READABLE(bits, 0)) {
                return found;
            }
            struct pollfd entry = {sockets[0], POLLIN, 0};
            poll(&entry, 1, kTimeout * 1000);
            ares_process_fd(channel_, sockets[0], ARES_SOCKET_BAD);
        }
    }

  private:
    ares_channel channel_ = nullptr;
    bool valid_ = false;
};

// A channel that is kept: the name servers are read once.
void CaresKeptChannel(benchmark::State &state) {
    Ares ares;
    for (auto _ : state) {
        if (!ares.LookUp()) {
            state.SkipWithError("no answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// A channel for each lookup: like DNS_GetA, the name servers are read again.
void CaresNewChannel(benchmark::State &state) {
    for (auto _ : state) {
        Ares ares;
        if (!ares.LookUp()) {
            state.SkipWithError("no answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// What no resolver can go below: one datagram to the responder and one back over a kept socket.
void RoundTripAlone(benchmark::State &state) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in server = ServerAddress();
    uint8_t query[DNS_MESSAGE_SIZE];
    const int length = DNS_BuildQuery(kName, query, DNS_TYPE_A);
    if (connect(fd, reinterpret_cast<const struct sockaddr *>(&server), sizeof server) != 0) {
        state.SkipWithError("connect");
    }
    for (auto _ : state) {
        uint8_t response[512];
        send(fd, query, static_cast<size_t>(length), 0);
        if (recv(fd, response, sizeof response, 0) <= 0) {
            state.SkipWithError("no answer");
            break;
        }
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(RoundTripAlone)->UseRealTime();
BENCHMARK(DnsGetA)->UseRealTime();
BENCHMARK(DnsGetAviaNameServer)->UseRealTime();
BENCHMARK(DnsGetMX)->UseRealTime();
BENCHMARK(CaresKeptChannel)->UseRealTime();
BENCHMARK(CaresNewChannel)->UseRealTime();
BENCHMARK(GlibcGetaddrinfo)->UseRealTime();
BENCHMARK(DnsGetA)->UseRealTime()->Threads(8);
BENCHMARK(CaresKeptChannel)->UseRealTime()->Threads(8);
BENCHMARK(GlibcGetaddrinfo)->UseRealTime()->Threads(8);

// ---- The parser alone ----

Bytes ResponseWith(int count, uint16_t type) {
    Bytes query(DNS_MESSAGE_SIZE);
    query.resize(static_cast<size_t>(DNS_BuildQuery(kName, query.data(), type)));
    return Respond(query, count);
}

void DnsBuildQuery(benchmark::State &state) {
    uint8_t query[DNS_MESSAGE_SIZE];
    for (auto _ : state) {
        benchmark::DoNotOptimize(DNS_BuildQuery(kName, query, DNS_TYPE_A));
        benchmark::ClobberMemory();
    }
}

void DnsParserA(benchmark::State &state) {
    const Bytes response = ResponseWith(static_cast<int>(state.range(0)), DNS_TYPE_A);
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            DNS_ParserA(response.data(), static_cast<int>(response.size()), entries));
        benchmark::ClobberMemory();
    }
}

void DnsParserMX(benchmark::State &state) {
    const Bytes response = ResponseWith(static_cast<int>(state.range(0)), DNS_TYPE_MX);
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            DNS_ParserMX(response.data(), static_cast<int>(response.size()), entries));
        benchmark::ClobberMemory();
    }
}

void CaresParseA(benchmark::State &state) {
    const Bytes response = ResponseWith(static_cast<int>(state.range(0)), DNS_TYPE_A);
    for (auto _ : state) {
        struct ares_addrttl addresses[DNS_MAX_ENTRIES];
        int count = DNS_MAX_ENTRIES;
        benchmark::DoNotOptimize(ares_parse_a_reply(
            response.data(), static_cast<int>(response.size()), nullptr, addresses, &count));
        benchmark::ClobberMemory();
    }
}

BENCHMARK(DnsBuildQuery);
BENCHMARK(DnsParserA)->Arg(1)->Arg(10);
BENCHMARK(CaresParseA)->Arg(1)->Arg(10);
BENCHMARK(DnsParserMX)->Arg(1)->Arg(3)->Arg(10);

const SideBySide g_pairs[] = {
    {"DnsGetA", "CaresKeptChannel", "one query; the peer has read the name servers before"},
    {"DnsGetA", "CaresNewChannel", "one query, the name servers are read each time"},
    {"DnsGetA", "GlibcGetaddrinfo", "one query; the peer reads /etc/hosts too"},
    {"DnsGetA", "RoundTripAlone",
     "the peer sends one datagram and receives one, and parses nothing"},
    {"DnsParserA", "CaresParseA", "both parse one response; the peer allocates a list"}};

}  // namespace

int main(int argc, char *argv[]) {
    EnterOwnNetwork();
    StartServer();
    ares_library_init(ARES_LIB_INIT_ALL);
    return RunBenchmarks(argc, argv, {"--benchmark_repetitions=25", "--benchmark_min_time=0.03"});
}
