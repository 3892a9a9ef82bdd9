// One query on one socket: waits, sends and receives, and each of their failures.

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "dns/DNS.h"
#include "dns/scripted_server.h"
#include "support/await.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;

// The system calls of the test's thread: a clock that advances only in waits, waits that time out
// without taking the time, and sends with a given result.
struct Pretence {
    struct Wait {
        short events;
        int64_t ms;
        bool operator==(const Wait &other) const = default;
    };
    bool clock = false;      // every wait for a response times out
    int no_room = 0;         // so many waits for room time out
    bool fail_send = false;  // a send returns `sent`
    ssize_t sent = 0;
    int send_error = 0;

    std::vector<Wait> waits;
    int64_t ns = 1000000;
};
thread_local Pretence *t_pretence = nullptr;

std::ostream &operator<<(std::ostream &out, const Pretence::Wait &wait) {
    return out << (wait.events == POLLIN ? "read " : "write ") << wait.ms;
}

class Pretend : public Pretence {
  public:
    Pretend() { t_pretence = this; }
    ~Pretend() { t_pretence = nullptr; }
};

}  // namespace

// With times of 64 bits on 32-bit machines these functions have other names.
#if __SIZEOF_POINTER__ == 4
#define REAL_PPOLL __real___ppoll64
#define WRAP_PPOLL __wrap___ppoll64
#define REAL_CLOCK_GETTIME __real___clock_gettime64
#define WRAP_CLOCK_GETTIME __wrap___clock_gettime64
#else
#define REAL_PPOLL __real_ppoll
#define WRAP_PPOLL __wrap_ppoll
#define REAL_CLOCK_GETTIME __real_clock_gettime
#define WRAP_CLOCK_GETTIME __wrap_clock_gettime
#endif

extern "C" {
int REAL_PPOLL(struct pollfd *fds, nfds_t count, const struct timespec *time, const sigset_t *mask);
int WRAP_PPOLL(struct pollfd *fds, nfds_t count, const struct timespec *time, const sigset_t *mask);
ssize_t __real_sendto(int fd, const void *buf, size_t size, int flags, const struct sockaddr *addr,
                      socklen_t addrSize);
ssize_t __wrap_sendto(int fd, const void *buf, size_t size, int flags, const struct sockaddr *addr,
                      socklen_t addrSize);
int REAL_CLOCK_GETTIME(clockid_t clock, struct timespec *now);
int WRAP_CLOCK_GETTIME(clockid_t clock, struct timespec *now);
}

int WRAP_PPOLL(struct pollfd *fds, nfds_t count, const struct timespec *time,
               const sigset_t *mask) {
    Pretence *pPretence = t_pretence;
    if (pPretence == nullptr) {
        return REAL_PPOLL(fds, count, time, mask);
    }
    const int64_t ms = int64_t{time->tv_sec} * 1000 + time->tv_nsec / 1'000'000;
    pPretence->waits.push_back({fds[0].events, ms});
    const bool timesOut = fds[0].events == POLLIN ? pPretence->clock : pPretence->no_room-- > 0;
    if (timesOut) {
        pPretence->ns += ms * 1'000'000;
        return 0;
    }
    return REAL_PPOLL(fds, count, time, mask);
}

ssize_t __wrap_sendto(int fd, const void *buf, size_t size, int flags, const struct sockaddr *addr,
                      socklen_t addrSize) {
    if (t_pretence != nullptr && t_pretence->fail_send) {
        if (t_pretence->sent < 0) {
            errno = t_pretence->send_error;
        }
        return t_pretence->sent;
    }
    return __real_sendto(fd, buf, size, flags, addr, addrSize);
}

int WRAP_CLOCK_GETTIME(clockid_t clock, struct timespec *now) {
    if (t_pretence != nullptr && t_pretence->clock) {
        now->tv_sec = t_pretence->ns / 1000000000;
        now->tv_nsec = static_cast<long>(t_pretence->ns % 1000000000);
        return 0;
    }
    return REAL_CLOCK_GETTIME(clock, now);
}

namespace {

constexpr char kServer[] = "127.0.0.1";
constexpr char kName[] = "www.ex.test";

int Socket(int flags = 0) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0);
    struct sockaddr_in any = {};
    any.sin_family = AF_INET;
    EXPECT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof any));
    return fd;
}

using Send = int (*)(int, const struct sockaddr_in *, const char *, tDnsAddrEntry *, int);

struct Outcome {
    int result;
    Lines log;
    Results results;
    int ms;
};

Outcome Ask(Send send, int fd, int timeout, const char *pName = kName) {
    Outcome outcome{};
    const struct sockaddr_in server = ServerAddress(kServer);
    const auto start = std::chrono::steady_clock::now();
    outcome.log = CaptureLog(
        [&] { outcome.result = send(fd, &server, pName, outcome.results.entries, timeout); });
    outcome.ms = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                      std::chrono::steady_clock::now() - start)
                                      .count());
    return outcome;
}

std::vector<Bytes> OneAddress(const Bytes &query, int /*nth*/) {
    return {Builder{query}.A(Builder::kAnswer, 12, "10.0.0.1").bytes()};
}

std::vector<Bytes> OneExchanger(const Bytes &query, int /*nth*/) {
    Builder response{query};
    const size_t name = response.Mx(10, "mx");
    return {response.A(Builder::kAdditional, name, "10.0.0.1").bytes()};
}

void InNetwork(const std::function<void()> &body) {
    RunWithResolvConf("nameserver 127.0.0.1\n", body);
}

// ---- The A exchange ----

TEST(SendAQuery, SendsTheQueryOnceAndStoresTheAnswer) {
    InNetwork([] {
        ScriptedServer server{kServer, OneAddress};
        const int fd = Socket();
        Outcome outcome = Ask(DNS_SendAQuery, fd, 60);
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(Lines{}, outcome.log);
        EXPECT_EQ((tDnsAddrEntry{1, 0, 0, 1, Address("10.0.0.1")}), outcome.results[0]);
        EXPECT_TRUE(outcome.results.UntouchedFrom(1));
        EXPECT_EQ(std::vector<Bytes>{QueryFor(kName, DNS_TYPE_A)}, server.Queries());
        EXPECT_EQ(0, close(fd)) << "the socket stays the caller's";
    });
}

TEST(SendAQuery, WaitsForTheGivenSecondsAndFor20WhenNegative) {
    InNetwork([] {
        const int fd = Socket();
        for (const auto &[timeout, ms] : {std::pair{0, int64_t{0}},
                                          {1, 1000},
                                          {7, 7000},
                                          {-1, 20000},
                                          {-5, 20000},
                                          {INT_MIN, 20000},
                                          {2147484, 2147484000},
                                          {INT_MAX, 2147483647000}}) {
            Pretend pretend;
            pretend.clock = true;
            const Outcome outcome = Ask(DNS_SendAQuery, fd, timeout);
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): [0] select() timeout"}, outcome.log);
            EXPECT_EQ((std::vector<Pretence::Wait>{{POLLOUT, ms}, {POLLIN, ms}}), pretend.waits)
                << timeout;
            EXPECT_TRUE(outcome.results.UntouchedFrom(0));
        }
    });
}

// The longest time-out must not overflow the system's times.
TEST(SendAQuery, ReceivesWithTheLongestTimeout) {
    InNetwork([] {
        ScriptedServer server{kServer, OneAddress};
        EXPECT_EQ(0, Ask(DNS_SendAQuery, Socket(), INT_MAX).result);
    });
}

TEST(SendAQuery, DoesNotWaitWithATimeoutOfZero) {
    InNetwork([] {
        ScriptedServer server{kServer, Deaf};
        Pretend pretend;
        const Outcome outcome = Ask(DNS_SendAQuery, Socket(), 0);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): [0] select() timeout"}, outcome.log);
        EXPECT_EQ((std::vector<Pretence::Wait>{{POLLOUT, 0}, {POLLIN, 0}}), pretend.waits);
    });
}

TEST(SendAQuery, WaitsOneSecondForASilentServer) {
    InNetwork([] {
        ScriptedServer server{kServer, Deaf};
        const Outcome outcome = Ask(DNS_SendAQuery, Socket(), 1);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): [0] select() timeout"}, outcome.log);
        EXPECT_LE(1000, outcome.ms);
        EXPECT_TRUE(Eventually([&] { return server.Queries().size() == 1; }));
    });
}

TEST(SendAQuery, FailsWhenTheSocketDoesNotBecomeWritable) {
    InNetwork([] {
        const int fd = Socket();
        Pretend pretend;
        pretend.no_room = 2;
        const Outcome outcome = Ask(DNS_SendAQuery, fd, 3);
        EXPECT_EQ(-2, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): select(writeset:" + std::to_string(fd) +
                        ") timeout! : Connection timed out"},
                  outcome.log);
    });
}

TEST(SendAQuery, FailsOnADescriptorThatIsNotOpen) {
    InNetwork([] {
        for (const int fd : {-1, INT_MIN, 999}) {
            const Outcome outcome = Ask(DNS_SendAQuery, fd, -1);
            EXPECT_EQ(-2, outcome.result);
            EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): select(writeset:" + std::to_string(fd) +
                            ") timeout! : Bad file descriptor"},
                      outcome.log);
        }
    });
}

TEST(SendAQuery, FailsOnAShortSend) {
    InNetwork([] {
        Pretend pretend;
        pretend.fail_send = true;
        for (const auto &[sent, error, text] :
             {std::tuple{ssize_t{-1}, ENETUNREACH, "-1/29 - Network is unreachable"},
              {ssize_t{0}, 0, "0/29 - Success"},
              {ssize_t{28}, 0, "28/29 - Success"}}) {
            pretend.sent = sent;
            pretend.send_error = error;
            const Outcome outcome = Ask(DNS_SendAQuery, Socket(), 3);
            EXPECT_EQ(-2, outcome.result);
            EXPECT_EQ(Lines{std::string{"DNS:DNS_SendAQuery(): sendto() error : "} + text},
                      outcome.log);
        }
    });
}

// Signals are sent until the call is over, so that one meets the wait.
Outcome AskUnderSignals(Send send, int timeout) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    const int fd = Socket();
    std::atomic<bool> over{false};
    std::thread sender{[&over, self = pthread_self()] {
        while (!over) {
            std::this_thread::sleep_for(std::chrono::milliseconds{30});
            pthread_kill(self, SIGUSR1);
        }
    }};
    Outcome outcome = Ask(send, fd, timeout);
    over = true;
    sender.join();
    return outcome;
}

TEST(SendAQuery, FailsWhenASignalInterruptsTheWait) {
    InNetwork([] {
        ScriptedServer server{kServer, Deaf};
        const Outcome outcome = AskUnderSignals(DNS_SendAQuery, INT_MAX);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): [0] select() error : Interrupted system call"},
                  outcome.log);
    });
}

TEST(SendAQuery, FailsOnANameErrorWithoutParsingIt) {
    InNetwork([] {
        ScriptedServer server{
            kServer, [](const Bytes &query, int) -> std::vector<Bytes> {
                return {Builder{query, 0x8183}.A(Builder::kAnswer, 12, "10.0.0.1").bytes()};
            }};
        const Outcome outcome = Ask(DNS_SendAQuery, Socket(), 60);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{}, outcome.log);
        EXPECT_TRUE(outcome.results.UntouchedFrom(0));
        EXPECT_EQ(1u, server.Queries().size());
    });
}

// All four bytes must match: with another identifier, the AA bit or another RCODE the answers are
// read.
TEST(SendAQuery, ParsesAnyOtherResponse) {
    InNetwork([] {
        ScriptedServer server{
            kServer, [](const Bytes &query, int nth) -> std::vector<Bytes> {
                static constexpr uint32_t kHeads[] = {0xA9FA8182, 0xA9FA8583, 0xA9FA8103,
                                                      0xA9FB8183, 0x00FA8183, 0xA9FA0183};
                Bytes response = Builder{query, 0x8180}.A(Builder::kAnswer, 12, "10.0.0.1").bytes();
                for (size_t i = 0; i < 4; ++i) {
                    response[i] = static_cast<uint8_t>(kHeads[nth] >> (24 - 8 * i));
                }
                return {response};
            }};
        for (int i = 0; i < 6; ++i) {
            Outcome outcome = Ask(DNS_SendAQuery, Socket(), 60);
            EXPECT_EQ(0, outcome.result) << i;
            EXPECT_EQ(Address("10.0.0.1"), outcome.results[0].addr);
        }
    });
}

TEST(SendAQuery, AcceptsTheFirstDatagramFromAnySender) {
    InNetwork([] {
        ScriptedServer server{kServer, Deaf};
        const int fd = Socket();
        struct sockaddr_in own = {};
        socklen_t size = sizeof own;
        ASSERT_EQ(0, getsockname(fd, reinterpret_cast<struct sockaddr *>(&own), &size));
        own.sin_addr.s_addr = Address("127.0.0.9");
        Bytes response = OneAddress(QueryFor("other.test", DNS_TYPE_A), 0)[0];
        response[0] = 0x12;  // another identifier, another question, another sender
        const int stranger = Socket();
        ASSERT_EQ(ssize_t(response.size()),
                  sendto(stranger, response.data(), response.size(), 0,
                         reinterpret_cast<struct sockaddr *>(&own), sizeof own));
        Outcome outcome = Ask(DNS_SendAQuery, fd, 60);
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(Address("10.0.0.1"), outcome.results[0].addr);
    });
}

TEST(SendAQuery, FailsAtOnceOnNoise) {
    InNetwork([] {
        ScriptedServer server{kServer, [](const Bytes & /*query*/, int nth) -> std::vector<Bytes> {
                                  // 0 to 17 bytes, then longer ones without 00 04
                                  const size_t size = nth < 18 ? size_t(nth) : size_t(nth) * 40;
                                  return {Bytes(size, 0xFF)};
                              }};
        const int fd = Socket();
        for (int nth = 0; nth < 30; ++nth) {
            const Outcome outcome = Ask(DNS_SendAQuery, fd, 20);
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(Lines{}, outcome.log);
            EXPECT_TRUE(outcome.results.UntouchedFrom(0));
        }
    });
}

// At most 1023 bytes are received; the rest of a longer datagram is lost.
TEST(SendAQuery, CutsADatagramTo1023Bytes) {
    InNetwork([] {
        ScriptedServer server{kServer, [](const Bytes & /*query*/, int nth) -> std::vector<Bytes> {
                                  Bytes response(2000, 0xAA);
                                  response[7] = 2;
                                  const size_t length = nth == 0 ? 1023 : 1022;
                                  response[length - 2] = 0;
                                  response[length - 1] = 4;
                                  return {response};
                              }};
        EXPECT_EQ(-1, Ask(DNS_SendAQuery, Socket(), 60).result);
        Outcome outcome = Ask(DNS_SendAQuery, Socket(), 60);
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ((tDnsAddrEntry{1, 0, 0, 1, Address("170.0.0.0")}), outcome.results[0]);
        EXPECT_EQ(tDnsAddrEntry{}, outcome.results[1]);
        EXPECT_TRUE(outcome.results.UntouchedFrom(2));
    });
}

// Only a connected socket is notified that nobody listens.
TEST(SendAQuery, TimesOutWhenNobodyListens) {
    InNetwork([] {
        const Outcome outcome = Ask(DNS_SendAQuery, Socket(), 1);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): [0] select() timeout"}, outcome.log);
        EXPECT_LE(1000, outcome.ms);
    });
}

TEST(SendAQuery, LogsAFailedReceive) {
    InNetwork([] {
        const int fd = Socket();
        const struct sockaddr_in server = ServerAddress(kServer);
        ASSERT_EQ(0,
                  connect(fd, reinterpret_cast<const struct sockaddr *>(&server), sizeof server));
        const Outcome outcome = Ask(DNS_SendAQuery, fd, INT_MAX);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): recvfrom() error : Connection refused"},
                  outcome.log);
    });
}

TEST(SendAQuery, AcceptsDescriptorsAboveFdSetsize) {
    InNetwork([] {
        struct rlimit limit = {4096, 4096};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            GTEST_SKIP() << "the limit of descriptors cannot be raised";
        }
        ScriptedServer server{kServer, OneAddress};
        for (const int number : {FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 1, 4000}) {
            ASSERT_EQ(number, dup2(Socket(), number));
            EXPECT_EQ(0, Ask(DNS_SendAQuery, number, 60).result);
        }
    });
}

// Sends a datagram with a bad checksum. The kernel drops it in the wait of a blocking socket, and
// in the receive of a non-blocking one. (Short ones are dropped on arrival.)
void SendBadDatagram(uint16_t port) {
    struct {
        struct udphdr udp;
        uint8_t data[400];
    } packet = {};
    packet.udp.source = htons(53);
    packet.udp.dest = htons(port);
    packet.udp.len = htons(sizeof packet);
    packet.udp.check = htons(0xDEAD);
    const int raw = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
    ASSERT_GE(raw, 0) << strerror(errno);
    const struct sockaddr_in to = ServerAddress(kServer);
    ASSERT_EQ(ssize_t{sizeof packet},
              sendto(raw, &packet, sizeof packet, 0, reinterpret_cast<const struct sockaddr *>(&to),
                     sizeof to));
    close(raw);
}

uint16_t PortOf(int fd) {
    struct sockaddr_in own = {};
    socklen_t size = sizeof own;
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<struct sockaddr *>(&own), &size));
    return ntohs(own.sin_port);
}

// Waits until the kernel has dropped a datagram of a socket: the last column of /proc/net/udp.
bool AwaitDrop(uint16_t port) {
    char local[16];
    snprintf(local, sizeof local, ":%04X", unsigned{port});
    return Eventually([&local] {
        std::ifstream in{"/proc/net/udp"};
        for (std::string line; std::getline(in, line);) {
            if (line.find(local) != std::string::npos &&
                std::stoi(line.substr(line.find_last_of(' ', line.find_last_not_of(' ')))) > 0) {
                return true;
            }
        }
        return false;
    });
}

TEST(SendAQuery, WaitsOnAfterADatagramThatTheKernelDrops) {
    InNetwork([] {
        for (const int flags : {0, int{SOCK_NONBLOCK}}) {
            const int fd = Socket(flags);
            const uint16_t port = PortOf(fd);
            ScriptedServer server{kServer, [port](const Bytes &query, int) {
                                      EXPECT_TRUE(AwaitDrop(port));
                                      return OneAddress(query, 0);
                                  }};
            SendBadDatagram(port);
            Outcome outcome = Ask(DNS_SendAQuery, fd, 60);
            EXPECT_EQ(0, outcome.result);
            EXPECT_EQ(Lines{}, outcome.log);
            EXPECT_EQ(Address("10.0.0.1"), outcome.results[0].addr);
        }
    });
}

TEST(SendAQuery, KeepsItsTimeoutWhenTheKernelDropsADatagram) {
    InNetwork([] {
        const int fd = Socket(SOCK_NONBLOCK);
        ScriptedServer server{kServer, Deaf};
        SendBadDatagram(PortOf(fd));
        Pretend pretend;
        const Outcome outcome = Ask(DNS_SendAQuery, fd, 1);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): [0] select() timeout"}, outcome.log);
        EXPECT_LE(1000, outcome.ms);
        ASSERT_EQ(3u, pretend.waits.size());
        EXPECT_EQ((Pretence::Wait{POLLIN, 1000}), pretend.waits[1]);
        EXPECT_GE(1000, pretend.waits[2].ms) << "the rest of the second";
    });
}

// A socket that was shut down is readable for ever and has no datagram.
TEST(SendAQuery, DoesNotSpinOnASocketThatIsReadableAndEmpty) {
    InNetwork([] {
        const int fd = Socket();
        shutdown(fd, SHUT_RD);
        const Pretend pretend;
        const Outcome outcome = Ask(DNS_SendAQuery, fd, INT_MAX);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(
            Lines{"DNS:DNS_SendAQuery(): recvfrom() error : Resource temporarily unavailable"},
            outcome.log);
        EXPECT_EQ(1u + 17, pretend.waits.size()) << "one to send, and one for each read";
    });
}

TEST(SendAQuery, RefusesInvalidArguments) {
    InNetwork([] {
        ScriptedServer server{kServer, OneAddress};
        const struct sockaddr_in address = ServerAddress(kServer);
        const int fd = Socket();
        Results results;
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): pDomainName is NULL!"}, CaptureLog([&] {
                      EXPECT_EQ(-1, DNS_SendAQuery(fd, &address, nullptr, results.entries, 1));
                  }));
        const std::string tooLong = "a." + std::string(1005, 'b');
        EXPECT_EQ(Lines{"DNS:DNS_SendAQuery(): invalid pDomainName [" + tooLong + "]"},
                  Ask(DNS_SendAQuery, fd, 1, tooLong.c_str()).log);
        EXPECT_EQ(-1, DNS_SendAQuery(fd, nullptr, kName, results.entries, 1));
        EXPECT_EQ(-1, DNS_SendAQuery(fd, &address, kName, nullptr, 1));
        EXPECT_TRUE(server.Queries().empty());
        // A name with one character less is sent; its answer begins after the 1023 bytes that are
        // received.
        EXPECT_EQ(-1, Ask(DNS_SendAQuery, fd, 5, tooLong.substr(1).c_str()).result);
        EXPECT_EQ(1024u, server.Queries().at(0).size());
    });
}

// ---- The MX exchange ----

TEST(SendMXQuery, SendsTheQueryOnceWhenItIsAnswered) {
    InNetwork([] {
        ScriptedServer server{kServer, OneExchanger};
        Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 60);
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(Lines{}, outcome.log);
        EXPECT_EQ(DNS_TYPE_MX, outcome.results[0].type);
        EXPECT_EQ(10, outcome.results[0].preference);
        EXPECT_EQ(Address("10.0.0.1"), outcome.results[0].addr);
        EXPECT_EQ(std::vector<Bytes>{QueryFor(kName, DNS_TYPE_MX)}, server.Queries());
    });
}

TEST(SendMXQuery, AsksTwiceWhenThereAreNoAnswers) {
    InNetwork([] {
        ScriptedServer server{kServer, [](const Bytes &query, int nth) -> std::vector<Bytes> {
                                  return nth == 1 ? OneExchanger(query, nth)
                                                  : std::vector<Bytes>{Builder{query}.bytes()};
                              }};
        Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 60);
        EXPECT_EQ(0, outcome.result) << "the second attempt was answered";
        EXPECT_EQ(2u, server.Queries().size());
        outcome = Ask(DNS_SendMXQuery, Socket(), 60);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{}, outcome.log);
        EXPECT_EQ((std::vector<Bytes>(4, QueryFor(kName, DNS_TYPE_MX))), server.Queries());
    });
}

// A response with answers ends the attempts, whatever its additional section holds.
TEST(SendMXQuery, DoesNotAskAgainForAddresses) {
    InNetwork([] {
        ScriptedServer server{kServer, [](const Bytes &query, int nth) -> std::vector<Bytes> {
                                  Builder response{query};
                                  response.Mx(10, "mx");
                                  Bytes bytes = response.bytes();
                                  bytes[11] = nth == 0 ? 0 : 60;
                                  return {bytes};
                              }};
        Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 60);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{}, outcome.log);
        EXPECT_EQ(1u, server.Queries().size());
        outcome = Ask(DNS_SendMXQuery, Socket(), 60);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines{"DNS:DNS_ParserMX(): Packet Size error!"}, outcome.log);
        EXPECT_EQ(2u, server.Queries().size());
    });
}

// Unlike an A query, an MX query does not check for a name error.
TEST(SendMXQuery, ReadsTheAnswersOfANameError) {
    InNetwork([] {
        ScriptedServer server{kServer, [](const Bytes &query, int nth) -> std::vector<Bytes> {
                                  Bytes response = OneExchanger(query, nth)[0];
                                  response[3] = 0x83;
                                  return {response};
                              }};
        Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 60);
        EXPECT_EQ(0, outcome.result);
        EXPECT_EQ(Address("10.0.0.1"), outcome.results[0].addr);
        EXPECT_EQ(1u, server.Queries().size());
    });
}

// The answer count is byte 7: a response of fewer than 8 bytes has no answers.
TEST(SendMXQuery, AsksAgainAfterAResponseWithoutACount) {
    InNetwork([] {
        for (const size_t size : {0, 7, 8}) {
            ScriptedServer server{kServer, [size](const Bytes & /*query*/, int /*nth*/) {
                                      return std::vector<Bytes>(1, Bytes(size, 0xFF));
                                  }};
            const Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 60);
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(Lines{}, outcome.log);
            EXPECT_TRUE(outcome.results.UntouchedFrom(0));
            EXPECT_EQ(size < 8 ? 2u : 1u, server.Queries().size());
        }
    });
}

// A connected socket is notified that nobody listens, at each attempt.
TEST(SendMXQuery, AsksAgainWhenTheReceiveFails) {
    InNetwork([] {
        const int fd = Socket();
        const struct sockaddr_in server = ServerAddress(kServer);
        ASSERT_EQ(0,
                  connect(fd, reinterpret_cast<const struct sockaddr *>(&server), sizeof server));
        const Outcome outcome = Ask(DNS_SendMXQuery, fd, INT_MAX);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): recvfrom() error : Connection refused"),
                  outcome.log);
        EXPECT_TRUE(outcome.results.UntouchedFrom(0));
    });
}

TEST(SendMXQuery, WaitsForTheGivenSecondsInEachAttempt) {
    InNetwork([] {
        const int fd = Socket();
        for (const auto &[timeout, ms] :
             {std::pair{0, int64_t{0}}, {1, 1000}, {-1, 20000}, {INT_MAX, 2147483647000}}) {
            Pretend pretend;
            pretend.clock = true;
            const Outcome outcome = Ask(DNS_SendMXQuery, fd, timeout);
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): select(&readset) timeout!"), outcome.log);
            EXPECT_EQ((std::vector<Pretence::Wait>{
                          {POLLOUT, ms}, {POLLIN, ms}, {POLLOUT, ms}, {POLLIN, ms}}),
                      pretend.waits);
        }
    });
}

TEST(SendMXQuery, FailsWhenTheSocketDoesNotBecomeWritable) {
    InNetwork([] {
        Pretend pretend;
        pretend.no_room = 2;
        const Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 3);
        EXPECT_EQ(-2, outcome.result);
        EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): select(&writeset) timeout!"), outcome.log);
    });
}

TEST(SendMXQuery, FailsOnADescriptorThatIsNotOpen) {
    InNetwork([] {
        const Outcome outcome = Ask(DNS_SendMXQuery, -1, -1);
        EXPECT_EQ(-2, outcome.result);
        EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): select(&writeset) timeout!"), outcome.log);
    });
}

TEST(SendMXQuery, FailsOnASendOfZeroBytes) {
    InNetwork([] {
        Pretend pretend;
        pretend.fail_send = true;
        const Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 3);
        EXPECT_EQ(-2, outcome.result);
        EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): sendto() error : Success"), outcome.log);
    });
}

TEST(SendMXQuery, CountsASendErrorAsSent) {
    InNetwork([] {
        for (const ssize_t sent : {-1, 1}) {
            Pretend pretend;
            pretend.clock = true;
            pretend.fail_send = true;
            pretend.sent = sent;
            pretend.send_error = ENETUNREACH;
            const Outcome outcome = Ask(DNS_SendMXQuery, Socket(), 3);
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): select(&readset) timeout!"), outcome.log);
            EXPECT_EQ(4u, pretend.waits.size());
        }
    });
}

TEST(SendMXQuery, FailsAnAttemptWhenASignalInterruptsTheWait) {
    InNetwork([] {
        ScriptedServer server{kServer, Deaf};
        const Outcome outcome = AskUnderSignals(DNS_SendMXQuery, INT_MAX);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(Lines(2, "DNS:DNS_SendMXQuery(): select(&readset) timeout!"), outcome.log);
    });
}

// The result is that of the second attempt: not sent the first time, not answered the second.
TEST(SendMXQuery, ReturnsTheFailureOfTheLastAttempt) {
    InNetwork([] {
        const int fd = Socket();
        Pretend pretend;
        pretend.clock = true;
        pretend.no_room = 1;
        const Outcome outcome = Ask(DNS_SendMXQuery, fd, 1);
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ((Lines{"DNS:DNS_SendMXQuery(): select(&writeset) timeout!",
                         "DNS:DNS_SendMXQuery(): select(&readset) timeout!"}),
                  outcome.log);
    });
}

TEST(SendMXQuery, RefusesInvalidArguments) {
    InNetwork([] {
        ScriptedServer server{kServer, OneExchanger};
        const struct sockaddr_in address = ServerAddress(kServer);
        const int fd = Socket();
        Results results;
        const std::string tooLong = "a." + std::string(1005, 'b');
        for (const char *pName : {static_cast<const char *>(nullptr), tooLong.c_str()}) {
            const Outcome outcome = Ask(DNS_SendMXQuery, fd, 1, pName);
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(Lines{"DNS:DNS_SendMXQuery(): invalid pDomainName"}, outcome.log);
        }
        EXPECT_EQ(-1, DNS_SendMXQuery(fd, nullptr, kName, results.entries, 1));
        EXPECT_EQ(-1, DNS_SendMXQuery(fd, &address, kName, nullptr, 1));
        EXPECT_TRUE(server.Queries().empty());
    });
}

}  // namespace
