// What an NFS server is told when its export is unmounted. The kernel of a test machine may have no
// NFS, so /proc/mounts is of the test's own and umount only said to have worked; the servers and
// the wire are real.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/byte_reader.h"
#include "dev/mount.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

int g_umountResult = 0;

}  // namespace

extern "C" {
int __wrap_umount(const char *pDir);
int __wrap_umount(const char *) {
    errno = EBUSY;
    return g_umountResult;
}
int __wrap_umount2(const char *pDir, int flags);
int __wrap_umount2(const char *, int) {
    errno = EBUSY;
    return g_umountResult;
}
}

namespace {

void Put32(Bytes &bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

uint32_t Get32(const Bytes &bytes, size_t at) {
    return talvek::BigEndianReader{bytes.data(), bytes.size()}.U32(at);
}

// A reply to a call (RFC 5531, 9): same xid, REPLY, accepted, an empty verifier, the status, and
// what belongs to it.
Bytes Reply(const Bytes &call, uint32_t acceptStatus, const std::vector<uint32_t> &result = {}) {
    Bytes reply;
    for (const uint32_t word : {Get32(call, 0), 1u, 0u, 0u, 0u, acceptStatus}) {
        Put32(reply, word);
    }
    for (const uint32_t word : result) {
        Put32(reply, word);
    }
    return reply;
}

using Answer = std::function<std::optional<Bytes>(const Bytes &call)>;

std::optional<Bytes> Accept(const Bytes &call) {
    return Reply(call, 0);
}
std::optional<Bytes> StaySilent(const Bytes &) {
    return std::nullopt;
}

sockaddr_in Loopback(in_port_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    at.sin_port = htons(port);
    return at;
}

// An RPC server on loopback that notes what it is sent and answers as it is told.
class RpcPeer {
  public:
    RpcPeer(int type, in_port_t port, Answer answer) : type_(type), answer_(std::move(answer)) {
        socket_ = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in at = Loopback(port);
        EXPECT_EQ(0, bind(socket_, reinterpret_cast<const sockaddr *>(&at), sizeof at))
            << strerror(errno);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(0, listen(socket_, 5));
        }
        EXPECT_EQ(0, pipe2(stop_, O_CLOEXEC));
        thread_ = std::thread{[this] { Serve(); }};
    }
    ~RpcPeer() {
        close(stop_[1]);
        thread_.join();
        close(stop_[0]);
        close(socket_);
    }
    RpcPeer(const RpcPeer &) = delete;
    RpcPeer &operator=(const RpcPeer &) = delete;

    std::vector<Bytes> Calls() {
        const std::lock_guard lock{mutex_};
        return calls_;
    }
    [[nodiscard]] in_port_t sourcePort() const { return sourcePort_; }
    [[nodiscard]] int connections() const { return connections_; }

  private:
    bool Wait(int fd) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
        while (poll(fds, 2, -1) < 0) {
        }
        return fds[1].revents == 0;
    }

    void Serve() {
        while (Wait(socket_)) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            auto *pFrom = reinterpret_cast<sockaddr *>(&from);
            if (type_ == SOCK_STREAM) {
                const int fd = accept4(socket_, pFrom, &size, SOCK_CLOEXEC);
                sourcePort_ = ntohs(from.sin_port);
                ++connections_;
                ServeStream(fd);
                close(fd);
            } else {
                Bytes call(9000);
                const ssize_t count = recvfrom(socket_, call.data(), call.size(), 0, pFrom, &size);
                sourcePort_ = ntohs(from.sin_port);
                call.resize(static_cast<size_t>(count));
                if (const std::optional<Bytes> reply = Take(call)) {
                    sendto(socket_, reply->data(), reply->size(), 0, pFrom, size);
                }
            }
        }
    }

    // Records have a mark of four bytes before them: the last-fragment bit and the size (RFC 5531,
    // 11).
    void ServeStream(int fd) {
        Bytes bytes;
        while (Wait(fd)) {
            uint8_t block[4096];
            const ssize_t count = read(fd, block, sizeof block);
            if (count <= 0) {
                return;
            }
            bytes.insert(bytes.end(), block, block + count);
            if (bytes.size() < 4 || bytes.size() < 4 + (Get32(bytes, 0) & 0x7FFFFFFF)) {
                continue;
            }
            EXPECT_EQ(0x80000000u | (bytes.size() - 4), Get32(bytes, 0));
            if (const std::optional<Bytes> reply = Take({bytes.begin() + 4, bytes.end()})) {
                Bytes record;
                Put32(record, 0x80000000u | static_cast<uint32_t>(reply->size()));
                record.insert(record.end(), reply->begin(), reply->end());
                EXPECT_EQ(ssize_t(record.size()), write(fd, record.data(), record.size()));
            }
            bytes.clear();
        }
    }

    std::optional<Bytes> Take(const Bytes &call) {
        const std::lock_guard lock{mutex_};
        calls_.push_back(call);
        return answer_(call);
    }

    int type_;
    Answer answer_;
    int socket_;
    int stop_[2];
    std::mutex mutex_;
    std::vector<Bytes> calls_;
    std::atomic<in_port_t> sourcePort_ = 0;
    std::atomic<int> connections_ = 0;
    std::thread thread_;
};

// Holds a call against RFC 5531, 9 (call body), appendix A (AUTH_SYS) and RFC 1813, 5.2.3 (UMNT).
void ExpectUmntOf(const std::string &path, const Bytes &call) {
    ASSERT_GE(call.size(), 40u);
    EXPECT_EQ(0u, Get32(call, 4));        // CALL
    EXPECT_EQ(2u, Get32(call, 8));        // RPC version
    EXPECT_EQ(100005u, Get32(call, 12));  // MOUNT
    EXPECT_EQ(3u, Get32(call, 16));       // version
    EXPECT_EQ(3u, Get32(call, 20));       // UMNT
    EXPECT_EQ(1u, Get32(call, 24));       // AUTH_SYS
    const uint32_t credentialSize = Get32(call, 28);
    size_t at = 32;
    char host[256] = "";
    gethostname(host, sizeof host);
    const std::string name = host;
    EXPECT_EQ(name.size(), Get32(call, at + 4));  // behind the stamp
    EXPECT_EQ(name, std::string(reinterpret_cast<const char *>(&call[at + 8]), name.size()));
    const size_t ids = at + 8 + (name.size() + 3) / 4 * 4;
    EXPECT_EQ(geteuid(), Get32(call, ids));
    EXPECT_EQ(getegid(), Get32(call, ids + 4));
    at += credentialSize;
    EXPECT_EQ(0u, Get32(call, at));  // an empty verifier
    EXPECT_EQ(0u, Get32(call, at + 4));
    EXPECT_EQ(path.size(), Get32(call, at + 8));
    ASSERT_EQ(at + 12 + (path.size() + 3) / 4 * 4, call.size());
    EXPECT_EQ(path, std::string(reinterpret_cast<const char *>(&call[at + 12]), path.size()));
}

constexpr in_port_t kPort = 20048;

bool RpcLibraryIsLoaded() {
    return ReadFile("/proc/self/maps").find("libtirpc") != std::string::npos;
}

// The file that the library is loaded from, empty without one. Asked in a child, so that this
// process does not have it yet.
std::string RpcLibraryPath() {
    return Capture([] {
        const pid_t child = fork();
        if (child == 0) {
            void *pLibrary = dlopen("libtirpc.so.3", RTLD_NOW);
            Dl_info info;
            if (pLibrary != nullptr && dladdr(dlsym(pLibrary, "clnt_perror"), &info) != 0) {
                printf("%s", info.dli_fname);
                fflush(stdout);
            }
            _exit(0);
        }
        waitpid(child, nullptr, 0);
    });
}

bool RpcLibraryIsInstalled() {
    return !RpcLibraryPath().empty();
}

// The tests of how the library is found need a program that is not linked with it.
#ifdef RPC_LIBRARY_IS_LINKED
#define SKIP_WHEN_LINKED() GTEST_SKIP() << "a sanitized program has the RPC library from its start"
#else
#define SKIP_WHEN_LINKED() static_cast<void>(0)
#endif

class NfsUmount : public ::testing::Test {
  protected:
    // Runs `body` with a network that has loopback alone.
    static void Run(const std::function<void()> &body) {
        if (!RpcLibraryIsInstalled()) {
            GTEST_SKIP() << "no libtirpc for this processor";
        }
        RunInPrivateWorld(kMounts | kNetwork, [&] {
            RunCommand("ip link set lo up");
            FreshEtc();
            WriteFile("/etc/netconfig",
                      "udp tpi_clts v inet udp - -\ntcp tpi_cots_ord v inet tcp "
                      "- -\n");
            body();
        });
    }
};

// An NFS mount on /mnt with this device and these options is unmounted in a child that has the
// /proc it takes. Returns what was written on standard output and standard error.
std::string UnmountWith(const std::string &device, const std::string &options,
                        int (*pUnmount)(const char *) = Dev_uMount) {
    return CaptureAll([&] {
        const pid_t child = fork();
        if (child == 0) {
            const int held = static_cast<int>(
                std::distance(std::filesystem::directory_iterator{"/proc/self/fd"}, {}));
            ASSERT_EQ(0, unshare(CLONE_NEWNS));
            // The files of the process itself stay to be looked at.
            MountTmpfs("/mnt");
            std::filesystem::create_directories("/mnt/real");
            ASSERT_EQ(0, mount("/proc", "/mnt/real", nullptr, MS_BIND | MS_REC, nullptr));
            ReplaceDir("/proc");
            WriteFile("/proc/mounts", device + " /mnt nfs " + options + " 0 0\n");
            EXPECT_EQ(0, pUnmount("/mnt"));
            const std::string own = "/mnt/real/" + std::to_string(getpid());
            EXPECT_EQ(held, std::distance(std::filesystem::directory_iterator{own + "/fd"}, {}));
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            EXPECT_EQ(0, sigismember(&mask, SIGPIPE));
            int state;
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
            EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state);
            fflush(nullptr);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    });
}

double Seconds(const std::function<void()> &body) {
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST_F(NfsUmount, TellsTheServerOverTcp) {
    Run([] {
        RpcPeer tcp{SOCK_STREAM, kPort, Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        EXPECT_EQ("", UnmountWith("srv:/export/a\\040b",
                                  "rw,proto=tcp,mountport=20048,"
                                  "mountproto=udp,addr=127.0.0.1"));
        ASSERT_EQ(1u, tcp.Calls().size());
        ExpectUmntOf("/export/a b", tcp.Calls()[0]);
        EXPECT_EQ(0u, udp.Calls().size());
        EXPECT_LT(tcp.sourcePort(), 1024);
    });
}

TEST_F(NfsUmount, SendsOneUmntCall) {
    Run([] {
        // 253 characters and "s:" fill the entry.
        for (const std::string &path : {std::string{"/e"}, std::string{"/exp"}, std::string{""},
                                        "/" + std::string(252, 'p')}) {
            RpcPeer tcp{SOCK_STREAM, kPort, Accept};
            EXPECT_EQ("", UnmountWith("s:" + path, "tcp,mountport=20048,addr=127.0.0.1"));
            ASSERT_EQ(1u, tcp.Calls().size());
            ExpectUmntOf(path, tcp.Calls()[0]);
        }
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        EXPECT_EQ("", UnmountWith("s:/a:b", "rw,mountport=20048,addr=127.0.0.1"));
        ASSERT_EQ(1u, udp.Calls().size());
        ExpectUmntOf("/a:b", udp.Calls()[0]);
        EXPECT_LT(udp.sourcePort(), 1024);
    });
}

TEST_F(NfsUmount, TellsTheServerAfterAForcedUnmountToo) {
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        EXPECT_EQ("", UnmountWith("s:/x", "mountport=20048,addr=127.0.0.1", Dev_uMount_Force));
        EXPECT_EQ(1u, udp.Calls().size());
    });
}

struct ProtocolCase {
    const char *options;
    bool overTcp;
};

TEST_F(NfsUmount, UsesTcpWhenTheOptionsHoldIt) {
    constexpr ProtocolCase kCases[] = {
        {"rw,tcp", true}, {"rw,proto=tcp", true}, {"mountproto=tcp", true}, {"rw,proto=udp", false},
        {"rw", false},    {"rw,notcp", false},    {"tcp,notcp", false},
    };
    Run([&] {
        RpcPeer tcp{SOCK_STREAM, kPort, Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        size_t overTcp = 0;
        size_t overUdp = 0;
        for (const ProtocolCase &one : kCases) {
            EXPECT_EQ("", UnmountWith("s:/x", std::string{one.options} +
                                                  ",mountport=20048,addr=127.0.0.1"));
            overTcp += one.overTcp;
            overUdp += !one.overTcp;
            EXPECT_EQ(overTcp, tcp.Calls().size()) << one.options;
            EXPECT_EQ(overUdp, udp.Calls().size()) << one.options;
        }
    });
}

TEST_F(NfsUmount, FindsTheServersAddress) {
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        const Lines mounts[] = {
            // addr= itself, wherever it stands, and not the one inside mountaddr=
            {"none:/x", "addr=127.0.0.1,mountport=20048"},
            {"none:/x", "rw,mountport=20048,mountaddr=192.0.2.1,addr=127.0.0.1"},
            {"none:/x", "rw,addr=127.0.0.1,x=addr=192.0.2.1,mountport=20048"},
            {"none:/x", "rw,addr=localhost,mountport=20048"},
            // the host of the device
            {"127.0.0.1:/x", "rw,mountport=20048"},
            {"localhost:/x", "rw,mountport=20048"},
            {"localhost:/x", "rw,mountport=20048,xaddr=192.0.2.1"},
        };
        size_t count = 0;
        for (const Lines &one : mounts) {
            EXPECT_EQ("", UnmountWith(one[0], one[1]));
            EXPECT_EQ(++count, udp.Calls().size()) << one[1];
        }
    });
}

TEST_F(NfsUmount, LogsAServerWithoutIpv4Address) {
    Run([] {
        for (const char *pAddress :
             {"addr=fe80::1", "addr=", "addr=no.such.name.invalid", "addr=127.0.0.1.5"}) {
            const Lines lines = LogLines(UnmountWith("s:/x", pAddress));
            EXPECT_EQ(Lines{"DEV:Dev_uMount(): the server of s:/x was not told : no IPv4 address"},
                      lines)
                << pAddress;
        }
        EXPECT_EQ(Lines{"DEV:Dev_uMount(): the server of device was not told : no IPv4 address"},
                  LogLines(UnmountWith("device", "addr=127.0.0.1")));
        EXPECT_EQ(
            Lines{"DEV:Dev_uMount(): the server of [fe80::1]:/x was not told : no IPv4 address"},
            LogLines(UnmountWith("[fe80::1]:/x", "rw")));
        // Longer than any name, and than the buffer it goes to.
        EXPECT_EQ(1u, LogLines(UnmountWith("s:/x", "addr=" + std::string(900, '1'))).size());
    });
}

// The portmapper's GETPORT (RFC 1833, 3): program, version, protocol, port.
std::optional<Bytes> AnswerPort(const Bytes &call, uint32_t port) {
    EXPECT_EQ(100000u, Get32(call, 12));
    EXPECT_EQ(2u, Get32(call, 16));
    EXPECT_EQ(3u, Get32(call, 20));
    const size_t arguments = call.size() - 16;
    EXPECT_EQ(100005u, Get32(call, arguments));
    EXPECT_EQ(3u, Get32(call, arguments + 4));
    EXPECT_EQ(0u, Get32(call, arguments + 12));
    return Reply(call, 0, {port});
}

TEST_F(NfsUmount, AsksThePortmapperWhenTheOptionsHaveNoPort) {
    Run([] {
        RpcPeer portmapper{SOCK_DGRAM, 111,
                           [](const Bytes &call) { return AnswerPort(call, kPort); }};
        RpcPeer tcp{SOCK_STREAM, kPort, Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        for (const char *pOptions : {"tcp", "tcp,mountport=0", "tcp,mountport=65536",
                                     "tcp,mountport=-1", "tcp,mountport=x"}) {
            EXPECT_EQ("", UnmountWith("127.0.0.1:/x", pOptions));
        }
        EXPECT_EQ(5u, tcp.Calls().size());
        EXPECT_EQ("", UnmountWith("127.0.0.1:/x", "udp"));
        EXPECT_EQ(1u, udp.Calls().size());
        std::vector<uint32_t> protocols;
        for (const Bytes &call : portmapper.Calls()) {
            protocols.push_back(Get32(call, call.size() - 8));
        }
        EXPECT_EQ((std::vector<uint32_t>{IPPROTO_TCP, IPPROTO_TCP, IPPROTO_TCP, IPPROTO_TCP,
                                         IPPROTO_TCP, IPPROTO_UDP}),
                  protocols);
    });
}

TEST_F(NfsUmount, TakesEveryPortOfTheOptions) {
    Run([] {
        for (const in_port_t port : {in_port_t{1}, in_port_t{65535}}) {
            RpcPeer udp{SOCK_DGRAM, port, Accept};
            EXPECT_EQ("", UnmountWith("s:/x", "addr=127.0.0.1,mountport=" + std::to_string(port)));
            EXPECT_EQ(1u, udp.Calls().size()) << port;
        }
    });
}

TEST_F(NfsUmount, TellsWhenNoMountDaemonIsRegistered) {
    Run([] {
        RpcPeer portmapper{SOCK_DGRAM, 111, [](const Bytes &call) { return AnswerPort(call, 0); }};
        EXPECT_EQ(
            "Cannot MOUNTPROG RPC (tcp): RPC: Program not registered\n"
            "Cannot MOUNTPROG RPC: RPC: Program not registered\n",
            UnmountWith("127.0.0.1:/x", "tcp"));
        EXPECT_EQ(2u, portmapper.Calls().size());
    });
}

TEST_F(NfsUmount, TellsWhenThereIsNoPortmapper) {
    Run([] {
        const std::string text = UnmountWith("127.0.0.1:/x", "tcp");
        EXPECT_EQ(0u, text.find("Cannot MOUNTPROG RPC (tcp): RPC: Port mapper failure"));
        EXPECT_NE(std::string::npos, text.find("\nCannot MOUNTPROG RPC: RPC: Port mapper failure"));
        EXPECT_NE(std::string::npos, text.find("Connection refused"));
    });
}

TEST_F(NfsUmount, FallsBackToUdpWithoutATcpConnection) {
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        EXPECT_EQ("Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Connection refused\n",
                  UnmountWith("s:/x", "tcp,mountport=20048,addr=127.0.0.1"));
        EXPECT_EQ(1u, udp.Calls().size());
    });
}

TEST_F(NfsUmount, TellsWhenNobodyIsThere) {
    Run([] {
        const std::string text = UnmountWith("s:/x", "tcp,mountport=20048,addr=127.0.0.1");
        EXPECT_EQ(0u, text.find("Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - "
                                "Connection refused\nBad UMNT RPC: RPC: Unable to receive; errno = "
                                "Connection refused"))
            << text;
    });
}

TEST_F(NfsUmount, TellsWhatTheServerRefuses) {
    Run([] {
        RpcPeer tcp{SOCK_STREAM, kPort, [](const Bytes &call) { return Reply(call, 3); }};
        EXPECT_EQ("Bad UMNT RPC: RPC: Procedure unavailable\n",
                  UnmountWith("s:/x", "tcp,mountport=20048,addr=127.0.0.1"));
        EXPECT_EQ(1u, tcp.Calls().size());
    });
}

// A listener whose queue is full drops what comes; the connection is given up after 3 seconds.
TEST_F(NfsUmount, GivesUpAConnectionThatDoesNotComeAbout) {
    Run([] {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in at = Loopback(kPort);
        ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr *>(&at), sizeof at));
        ASSERT_EQ(0, listen(listener, 0));
        for (int i = 0; i < 3; ++i) {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            connect(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at);
        }
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        const double seconds = Seconds([&] {
            EXPECT_EQ(
                "Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Connection timed "
                "out\n",
                UnmountWith("s:/x", "tcp,mountport=20048,addr=127.0.0.1"));
        });
        EXPECT_EQ(1u, udp.Calls().size());
        EXPECT_GE(seconds, 2.9);
        EXPECT_LT(seconds, 6.0);
    });
}

// Lets one connection come, takes the call from it and hands it to `talk`, which answers as it
// likes.
class Listener {
  public:
    explicit Listener(std::function<void(int fd, const Bytes &call)> talk) {
        socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in at = Loopback(kPort);
        EXPECT_EQ(0, bind(socket_, reinterpret_cast<const sockaddr *>(&at), sizeof at));
        EXPECT_EQ(0, listen(socket_, 5));
        thread_ = std::thread{[this, talk = std::move(talk)] {
            const int fd = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
            Bytes call(4096);
            const ssize_t count = read(fd, call.data(), call.size());
            EXPECT_GT(count, 4);
            call.resize(static_cast<size_t>(count));
            call.erase(call.begin(), call.begin() + 4);
            talk(fd, call);
            close(fd);
        }};
    }
    ~Listener() {
        thread_.join();
        close(socket_);
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

  private:
    int socket_;
    std::thread thread_;
};

// False when the client has hung up.
bool Send(int fd, const Bytes &bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

Bytes Fragment(bool last, const Bytes &body) {
    Bytes fragment;
    Put32(fragment, (last ? 0x80000000u : 0u) | static_cast<uint32_t>(body.size()));
    fragment.insert(fragment.end(), body.begin(), body.end());
    return fragment;
}

constexpr const char *kOverTcp = "tcp,mountport=20048,addr=127.0.0.1";

// The time-out is that of the whole answer: bytes that begin to come, and go on, do not make it
// longer.
TEST_F(NfsUmount, GivesUpAServerThatDoesNotAnswerInTime) {
    Run([] {
        const Listener server{[](int fd, const Bytes &) {
            usleep(1500000);
            Bytes mark;
            Put32(mark, 0x80000000u | 900);
            Send(fd, mark);
            for (int i = 0; i < 60 && Send(fd, {0}); ++i) {
                usleep(100000);
            }
        }};
        const double seconds = Seconds(
            [] { EXPECT_EQ("Bad UMNT RPC: RPC: Timed out\n", UnmountWith("s:/x", kOverTcp)); });
        EXPECT_GE(seconds, 2.9);
        EXPECT_LT(seconds, 6.0);
    });
}

// Nor do answers to calls that were not made.
TEST_F(NfsUmount, GivesUpAServerThatFloods) {
    Run([] {
        const Listener server{[](int fd, const Bytes &call) {
            Bytes reply = Reply(call, 0);
            reply[0] ^= 0x40;
            while (Send(fd, Fragment(true, reply))) {
            }
        }};
        std::string text;
        EXPECT_LT(Seconds([&] { text = UnmountWith("s:/x", kOverTcp); }), 6.0);
        EXPECT_EQ(0u, text.find("Bad UMNT RPC: RPC: ")) << text;
    });
}

// A record is made of any number of fragments (RFC 5531, 11).
TEST_F(NfsUmount, TakesAnAnswerInPieces) {
    Run([] {
        {
            const Listener server{[](int fd, const Bytes &call) {
                for (const uint8_t byte : Fragment(true, Reply(call, 0))) {
                    Send(fd, {byte});
                    usleep(2000);
                }
            }};
            EXPECT_EQ("", UnmountWith("s:/x", kOverTcp));
        }
        const Listener server{[](int fd, const Bytes &call) {
            const Bytes reply = Reply(call, 0);
            Send(fd, Fragment(false, {reply.begin(), reply.begin() + 7}));
            usleep(2000);
            Send(fd, Fragment(true, {reply.begin() + 7, reply.end()}));
        }};
        EXPECT_EQ("", UnmountWith("s:/x", kOverTcp));
    });
}

// An answer may hold a verifier of 400 bytes (RFC 5531, 8.2).
TEST_F(NfsUmount, TakesTheLongestAnswer) {
    Run([] {
        const Listener server{[](int fd, const Bytes &call) {
            Bytes reply;
            for (const uint32_t word : {Get32(call, 0), 1u, 0u, 0u, 400u}) {
                Put32(reply, word);
            }
            reply.resize(reply.size() + 400, 'v');
            Put32(reply, 0);
            ASSERT_EQ(424u, reply.size());
            Send(fd, Fragment(true, reply));
        }};
        EXPECT_EQ("", UnmountWith("s:/x", kOverTcp));
    });
}

TEST_F(NfsUmount, TellsOfAnAnswerThatIsCut) {
    Run([] {
        const size_t whole = 4 + 24;
        for (const size_t length : {size_t{0}, size_t{3}, size_t{4}, size_t{8}, whole - 1}) {
            const Listener server{[&](int fd, const Bytes &call) {
                Bytes answer = Fragment(true, Reply(call, 0));
                ASSERT_EQ(whole, answer.size());
                answer.resize(length);
                Send(fd, answer);
            }};
            const std::string text = UnmountWith("s:/x", kOverTcp);
            EXPECT_EQ(0u, text.find("Bad UMNT RPC: RPC: ")) << length << text;
        }
    });
}

// No answer is as long as that; of a record without end only its beginning is taken.
TEST_F(NfsUmount, TellsOfAnAnswerThatIsTooLong) {
    Run([] {
        for (const uint32_t mark : {0x00000004u, 0x7FFFFFFFu, 0xFFFFFFFFu, 0x80000800u}) {
            const Listener server{[&](int fd, const Bytes &) {
                Bytes answer;
                for (int i = 0; i < 512; ++i) {
                    Put32(answer, mark);
                }
                Send(fd, answer);
                char byte;
                EXPECT_LE(read(fd, &byte, 1), 0);
            }};
            std::string text;
            EXPECT_LT(Seconds([&] { text = UnmountWith("s:/x", kOverTcp); }), 2.5);
            EXPECT_EQ(0u, text.find("Bad UMNT RPC: RPC: ")) << mark << text;
        }
    });
}

// Datagrams that answer no call do not make the time longer.
TEST_F(NfsUmount, GivesUpAServerThatAnswersOtherCalls) {
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, [](const Bytes &call) {
                        Bytes reply = Reply(call, 0);
                        reply[0] ^= 0x40;
                        return reply;
                    }};
        std::string text;
        EXPECT_LT(Seconds([&] { text = UnmountWith("s:/x", "mountport=20048,addr=127.0.0.1"); }),
                  6.0);
        EXPECT_EQ(0u, text.find("Bad UMNT RPC: RPC: ")) << text;
    });
}

// Nor do datagrams that come without end, whether they are answers to other calls or none at all.
TEST_F(NfsUmount, GivesUpAServerThatGoesOnSendingDatagrams) {
    Run([] {
        for (const size_t length : {size_t{24}, size_t{3}, size_t{0}}) {
            const int server = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            const sockaddr_in at = Loopback(kPort);
            ASSERT_EQ(0, bind(server, reinterpret_cast<const sockaddr *>(&at), sizeof at));
            std::atomic<bool> over = false;
            std::thread sender{[&] {
                Bytes call(9000);
                sockaddr_in from{};
                socklen_t size = sizeof from;
                auto *pFrom = reinterpret_cast<sockaddr *>(&from);
                recvfrom(server, call.data(), call.size(), 0, pFrom, &size);
                Bytes reply = Reply(call, 0);
                reply[0] ^= 0x40;
                for (int i = 0; i < 160 && !over; ++i) {
                    sendto(server, reply.data(), length, 0, pFrom, size);
                    usleep(50000);
                }
            }};
            std::string text;
            const double seconds =
                Seconds([&] { text = UnmountWith("s:/x", "mountport=20048,addr=127.0.0.1"); });
            over = true;
            sender.join();
            close(server);
            EXPECT_LT(seconds, 6.0) << length;
            EXPECT_EQ(0u, text.find("Bad UMNT RPC: RPC: ")) << length << text;
        }
    });
}

// A datagram may be lost: it is sent again each second, doubling.
TEST_F(NfsUmount, RepeatsADatagramThatIsNotAnswered) {
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, StaySilent};
        const double seconds = Seconds([] {
            EXPECT_EQ("Bad UMNT RPC: RPC: Timed out\n",
                      UnmountWith("s:/x", "mountport=20048,addr=127.0.0.1"));
        });
        EXPECT_GE(seconds, 2.9);
        EXPECT_LT(seconds, 6.0);
        EXPECT_GE(udp.Calls().size(), 2u);
        EXPECT_EQ(udp.Calls().front(), udp.Calls().back());
    });
}

// A server that hangs up, politely or by a reset, raises no SIGPIPE.
TEST_F(NfsUmount, SurvivesAServerThatHangsUp) {
    Run([] {
        for (const bool reset : {false, true}) {
            const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const int on = 1;
            setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            const sockaddr_in at = Loopback(kPort);
            ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr *>(&at), sizeof at));
            ASSERT_EQ(0, listen(listener, 5));
            std::thread server{[&] {
                const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                const struct linger hard = {1, 0};
                if (reset) {
                    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
                }
                close(fd);
            }};
            const std::string text = UnmountWith("s:/x", "tcp,mountport=20048,addr=127.0.0.1");
            server.join();
            close(listener);
            EXPECT_TRUE(text.find("Bad UMNT RPC: RPC: ") == 0 ||
                        text.find("Cannot MOUNTPROG RPC (tcp): RPC: ") == 0)
                << text;
        }
    });
}

TEST_F(NfsUmount, TellsNobodyOfOtherMountsAndOfFailures) {
    Run([] {
        RpcPeer tcp{SOCK_STREAM, kPort, Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        for (const char *pType : {"nfs4", "nfsd", "NFS", "ext4", "nf"}) {
            RunInPrivateWorld(kMounts, [&] {
                ReplaceDir("/proc");
                WriteFile("/proc/mounts", std::string{"s:/x /mnt "} + pType +
                                              " tcp,mountport=20048,addr=127.0.0.1 0 0\n");
                EXPECT_EQ("", CaptureAll([] { EXPECT_EQ(0, Dev_uMount("/mnt")); }));
            });
        }
        RunInPrivateWorld(kMounts, [] {
            ReplaceDir("/proc");
            WriteFile("/proc/mounts", "s:/x /mnt nfs mountport=20048,addr=127.0.0.1 0 0\n");
            EXPECT_EQ("", CaptureAll([] { EXPECT_EQ(0, Dev_uMount("/other")); }));
            g_umountResult = -1;
            EXPECT_EQ((Lines{"DEV:Dev_uMount(): umount(/mnt) failed : Device or resource busy"}),
                      LogLines(CaptureAll([] { EXPECT_EQ(-1, Dev_uMount("/mnt")); })));
        });
        EXPECT_EQ(0, tcp.connections());
        EXPECT_EQ(0u, udp.Calls().size());
    });
}

TEST_F(NfsUmount, LoadsTheLibraryForTheCallAndNoSooner) {
    SKIP_WHEN_LINKED();
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        EXPECT_FALSE(RpcLibraryIsLoaded());
        EXPECT_EQ(0, Dev_uMount("/mnt"));
        EXPECT_FALSE(RpcLibraryIsLoaded());
        MountTmpfs("/mnt");
        std::filesystem::create_directories("/mnt/real");
        ASSERT_EQ(0, mount("/proc", "/mnt/real", nullptr, MS_BIND | MS_REC, nullptr));
        ReplaceDir("/proc");
        WriteFile("/proc/mounts", "s:/x /mnt nfs mountport=20048,addr=127.0.0.1 0 0\n");
        const auto isLoaded = [&] {
            return ReadFile("/mnt/real/" + std::to_string(getpid()) + "/maps").find("libtirpc") !=
                   std::string::npos;
        };
        EXPECT_FALSE(isLoaded());
        EXPECT_EQ(0, Dev_uMount("/mnt"));
        EXPECT_TRUE(isLoaded());
        EXPECT_EQ(0, Dev_uMount("/mnt"));
        EXPECT_EQ(2u, udp.Calls().size());
    });
}

TEST_F(NfsUmount, UnmountsWithoutTheLibrary) {
    SKIP_WHEN_LINKED();
    Run([] {
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        const TempDir dir;
        WriteFile(dir / "none", "");
        ASSERT_EQ(
            0, mount((dir / "none").c_str(), RpcLibraryPath().c_str(), nullptr, MS_BIND, nullptr));
        const Lines lines = LogLines(UnmountWith("s:/x", "mountport=20048,addr=127.0.0.1"));
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_uMount(): the server of s:/x was not told : "))
            << lines[0];
        EXPECT_NE(std::string::npos, lines[0].find("libtirpc.so.3")) << lines[0];
        EXPECT_EQ(0u, udp.Calls().size());
    });
}

TEST_F(NfsUmount, TellsTheServerFromManyThreads) {
    Run([] {
        RpcPeer tcp{SOCK_STREAM, kPort, Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, Accept};
        ReplaceDir("/proc");
        WriteFile("/proc/mounts",
                  "s:/x /a nfs tcp,mountport=20048,addr=127.0.0.1 0 0\n"
                  "s:/x /b nfs mountport=20048,addr=127.0.0.1 0 0\n");
        EXPECT_EQ("", CaptureAll([] {
                      std::vector<std::thread> threads;
                      for (int i = 0; i < 8; ++i) {
                          threads.emplace_back(
                              [i] { EXPECT_EQ(0, Dev_uMount(i % 2 == 0 ? "/a" : "/b")); });
                      }
                      for (std::thread &thread : threads) {
                          thread.join();
                      }
                  }));
        EXPECT_EQ(4u, tcp.Calls().size());
        EXPECT_EQ(4u, udp.Calls().size());
    });
}

// A real mount daemon with its portmapper. It keeps no list of mounts; its log tells the calls.
constexpr const char *kGaneshaConfig = R"(
NFS_CORE_PARAM {
    Protocols = 3; MNT_Port = 20048; Enable_NLM = false; Enable_RQUOTA = false;
}
NFSv4 { Graceless = true; }
EXPORT {
    Export_Id = 1; Path = /srv/export; Pseudo = /export; Protocols = 3; Transports = UDP, TCP;
    Access_Type = RW; Squash = none; SecType = sys; FSAL { Name = VFS; }
}
LOG { Default_Log_Level = EVENT; COMPONENTS { NFSPROTO = DEBUG; } }
)";

pid_t Start(const char *const *ppArguments) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execvp(ppArguments[0], const_cast<char *const *>(ppArguments));
        _exit(127);
    }
    return child;
}

void Stop(pid_t process) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

int CountUmnt(const std::string &log) {
    int count = 0;
    for (size_t at = 0; (at = log.find("MNT_UMNT path /srv/export", at)) != std::string::npos;
         ++at) {
        ++count;
    }
    return count;
}

bool Eventually(const std::function<bool()> &holds) {
    for (int tries = 0; tries < 100; ++tries) {
        if (holds()) {
            return true;
        }
        usleep(50000);
    }
    return false;
}

TEST_F(NfsUmount, TellsARealMountDaemon) {
    if (getuid() != 0) {
        GTEST_SKIP() << "the mount daemon needs root";
    }
    if (!RpcLibraryIsInstalled() || !std::filesystem::exists("/usr/bin/ganesha.nfsd")) {
        GTEST_SKIP() << "no mount daemon for this processor";
    }
    // The servers end with the process numbers of their own.
    RunInPrivateWorld(kMounts | kNetwork | kPids, [] {
        RunCommand("ip link set lo up");
        MountTmpfs("/run");
        MountTmpfs("/srv");
        MountTmpfs("/var/lib");
        for (const char *pDir :
             {"/run/rpcbind", "/run/ganesha", "/srv/export", "/var/lib/nfs/ganesha"}) {
            std::filesystem::create_directories(pDir);
        }
        WriteFile("/srv/ganesha.conf", kGaneshaConfig);
        const char *const kPortmapper[] = {"/sbin/rpcbind", "-f", "-i", nullptr};
        const char *const kDaemon[] = {
            "/usr/bin/ganesha.nfsd", "-F",   "-f", "/srv/ganesha.conf", "-L", "/srv/log", "-p",
            "/run/ganesha.pid",      nullptr};
        const pid_t portmapper = Start(kPortmapper);
        const auto registered = [](const char *pWhat) {
            return system((std::string{"rpcinfo -p 127.0.0.1 2>/dev/null | grep -q "} + pWhat)
                              .c_str()) == 0;
        };
        EXPECT_TRUE(Eventually([&] { return registered("portmapper"); }));
        const pid_t daemon = Start(kDaemon);
        EXPECT_TRUE(Eventually([&] { return registered("'3 *udp.*mountd'"); }));
        EXPECT_TRUE(Eventually([&] { return registered("'3 *tcp.*mountd'"); }));

        int count = 0;
        for (const char *pOptions : {"proto=tcp,mountport=20048,addr=127.0.0.1",
                                     "proto=udp,mountport=20048,addr=127.0.0.1",
                                     "proto=tcp,addr=127.0.0.1", "proto=udp,addr=127.0.0.1"}) {
            EXPECT_EQ("", UnmountWith("127.0.0.1:/srv/export", pOptions));
            ++count;
            EXPECT_TRUE(Eventually([&] { return CountUmnt(ReadFile("/srv/log")) == count; }))
                << pOptions << "\n"
                << ReadFile("/srv/log");
        }
        Stop(daemon);
        Stop(portmapper);
    });
}

}  // namespace
