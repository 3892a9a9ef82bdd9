// What an NFS server gets when its export is unmounted. The kernel of a test machine may lack NFS,
// so the test writes /proc/mounts itself and replaces umount by a function that succeeds. The
// servers and the network are real.

#include "dev/internal/nfs_umount.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "dev/mount.h"
#include "pretended_time.h"
#include "rpc_peer.h"
#include "support/await.h"
#include "support/cancellation.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;

int g_umountResult = 0;
std::function<void()> g_duringLookUp;

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
int __real_getaddrinfo(const char *pName, const char *pService, const addrinfo *pHints,
                       addrinfo **ppFound);
int __wrap_getaddrinfo(const char *pName, const char *pService, const addrinfo *pHints,
                       addrinfo **ppFound);
int __wrap_getaddrinfo(const char *pName, const char *pService, const addrinfo *pHints,
                       addrinfo **ppFound) {
    if (g_duringLookUp) {
        g_duringLookUp();
    }
    return __real_getaddrinfo(pName, pService, pHints, ppFound);
}
}

namespace {

constexpr in_port_t kPort = 20048;
constexpr in_port_t kPortmapPort = 111;

// Compares a call with RFC 5531, 9 (call body), appendix A (AUTH_SYS) and RFC 1813, appendix I
// (UMNT).
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
    EXPECT_EQ(name.size(), Get32(call, at + 4));  // after the stamp
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

// Runs `body` with loopback, and an /etc that resolves no other name than localhost.
void InWorld(const std::function<void()> &body) {
    WithLoopback([&] {
        FreshEtc();
        body();
    });
}

// Unmounts an NFS mount on /mnt with this device and these options, in a child with its own
// /proc/mounts. Returns what was written to standard output and standard error.
std::string UnmountWith(const std::string &device, const std::string &options,
                        const std::function<int(const char *)> &unmount = Dev_uMount) {
    return CaptureAll([&] {
        const pid_t child = fork();
        if (child == 0) {
            const int held = static_cast<int>(
                std::distance(std::filesystem::directory_iterator{"/proc/self/fd"}, {}));
            EXPECT_EQ(0, unshare(CLONE_NEWNS));
            // The files of the process itself stay visible.
            MountTmpfs("/mnt");
            std::filesystem::create_directories("/mnt/real");
            EXPECT_EQ(0, mount("/proc", "/mnt/real", nullptr, MS_BIND | MS_REC, nullptr));
            ReplaceDir("/proc");
            WriteFile("/proc/mounts", device + " /mnt nfs " + options + " 0 0\n");
            {
                const PretendedTime time;  // an answer may take as long as it likes
                EXPECT_EQ(0, unmount("/mnt"));
            }
            const std::string own = "/mnt/real/" + std::to_string(getpid());
            EXPECT_EQ(held, std::distance(std::filesystem::directory_iterator{own + "/fd"}, {}));
            fflush(nullptr);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    });
}

// Notifies the server from this process, so that a test can pretend time.
std::string Notify(const std::string &device, const std::string &options) {
    talvek::NfsMount mount{};
    snprintf(mount.entry.device, sizeof mount.entry.device, "%s", device.c_str());
    snprintf(mount.entry.options, sizeof mount.entry.options, "%s", options.c_str());
    return CaptureAll([&] { talvek::NotifyNfsServer("Dev_uMount", mount); });
}

constexpr const char *kOverTcp = "tcp,mountport=20048,addr=127.0.0.1";
constexpr const char *kOverUdp = "mountport=20048,addr=127.0.0.1";

TEST(NfsUmount, NotifiesTheServerOverTcp) {
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        EXPECT_EQ("", UnmountWith("srv:/export/a\\040b",
                                  "rw,proto=tcp,mountport=20048,"
                                  "mountproto=udp,addr=127.0.0.1"));
        ASSERT_EQ(1u, tcp.Calls().size());
        ExpectUmntOf("/export/a b", tcp.Calls()[0]);
        EXPECT_EQ(0u, udp.Calls().size());
        EXPECT_LT(tcp.sourcePort(), 1024);
    });
}

TEST(NfsUmount, SendsOneUmntCall) {
    InWorld([] {
        for (const std::string path : {"/e", "/exp", ""}) {
            RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
            EXPECT_EQ("", UnmountWith("s:" + path, "tcp,mountport=20048,addr=127.0.0.1"));
            ASSERT_EQ(1u, tcp.Calls().size());
            ExpectUmntOf(path, tcp.Calls()[0]);
        }
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        EXPECT_EQ("", UnmountWith("s:/a:b", "rw,mountport=20048,addr=127.0.0.1"));
        ASSERT_EQ(1u, udp.Calls().size());
        ExpectUmntOf("/a:b", udp.Calls()[0]);
        EXPECT_LT(udp.sourcePort(), 1024);
    });
}

TEST(NfsUmount, NotifiesTheServerAfterAForcedUnmount) {
    InWorld([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        EXPECT_EQ("", UnmountWith("s:/x", "mountport=20048,addr=127.0.0.1", Dev_uMount_Force));
        EXPECT_EQ(1u, udp.Calls().size());
    });
}

struct ProtocolCase {
    const char *options;
    bool overTcp;
};

TEST(NfsUmount, UsesTcpWhenTheOptionsHoldIt) {
    constexpr ProtocolCase kCases[] = {
        {"rw,tcp", true}, {"rw,proto=tcp", true}, {"mountproto=tcp", true}, {"rw,proto=udp", false},
        {"rw", false},    {"rw,notcp", false},    {"tcp,notcp", false},
    };
    InWorld([&] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
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

TEST(NfsUmount, FindsTheServersAddress) {
    InWorld([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        const Lines mounts[] = {
            // addr= itself, at any place, and not the one inside mountaddr=
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

TEST(NfsUmount, LogsAServerWithoutIpv4Address) {
    InWorld([] {
        for (const char *pAddress :
             {"addr=fe80::1", "addr=", "addr=no.such.name.invalid", "addr=127.0.0.1.5"}) {
            const Lines lines = LogLines(UnmountWith("s:/x", pAddress));
            EXPECT_EQ(
                Lines{"DEV:Dev_uMount(): the server of s:/x was not notified : no IPv4 address"},
                lines)
                << pAddress;
        }
        EXPECT_EQ(
            Lines{"DEV:Dev_uMount(): the server of device was not notified : no IPv4 address"},
            LogLines(UnmountWith("device", "addr=127.0.0.1")));
        EXPECT_EQ(
            Lines{
                "DEV:Dev_uMount(): the server of [fe80::1]:/x was not notified : no IPv4 address"},
            LogLines(UnmountWith("[fe80::1]:/x", "rw")));
        // Longer than any host name, and than the buffer that it is copied to.
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

TEST(NfsUmount, AsksThePortmapperWhenTheOptionsHaveNoPort) {
    InWorld([] {
        RpcPeer portmapper{SOCK_DGRAM, kPortmapPort,
                           [](const Bytes &call) { return AnswerPort(call, kPort); }};
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        for (const char *pOptions :
             {"tcp", "tcp,mountport=0", "tcp,mountport=65536", "tcp,mountport=85584",
              "tcp,mountport=-1", "tcp,mountport=x"}) {
            EXPECT_EQ("", UnmountWith("127.0.0.1:/x", pOptions));
        }
        EXPECT_EQ(6u, tcp.Calls().size());
        EXPECT_EQ("", UnmountWith("127.0.0.1:/x", "udp"));
        EXPECT_EQ(1u, udp.Calls().size());
        std::vector<uint32_t> protocols;
        for (const Bytes &call : portmapper.Calls()) {
            protocols.push_back(Get32(call, call.size() - 8));
        }
        EXPECT_EQ((std::vector<uint32_t>{IPPROTO_TCP, IPPROTO_TCP, IPPROTO_TCP, IPPROTO_TCP,
                                         IPPROTO_TCP, IPPROTO_TCP, IPPROTO_UDP}),
                  protocols);
    });
}

TEST(NfsUmount, TakesEveryPortOfTheOptions) {
    InWorld([] {
        for (const in_port_t port : {in_port_t{1}, in_port_t{65535}}) {
            RpcPeer udp{SOCK_DGRAM, port, RpcPeer::Accept};
            EXPECT_EQ("", UnmountWith("s:/x", "addr=127.0.0.1,mountport=" + std::to_string(port)));
            EXPECT_EQ(1u, udp.Calls().size()) << port;
        }
    });
}

TEST(NfsUmount, ReportsThatNoMountDaemonIsRegistered) {
    InWorld([] {
        for (const uint32_t port : {0u, 65536u, 0xFFFFFFFFu}) {
            RpcPeer portmapper{SOCK_DGRAM, kPortmapPort,
                               [&](const Bytes &call) { return AnswerPort(call, port); }};
            EXPECT_EQ(
                "Cannot MOUNTPROG RPC (tcp): RPC: Program not registered\n"
                "Cannot MOUNTPROG RPC: RPC: Program not registered\n",
                UnmountWith("127.0.0.1:/x", "tcp"));
            EXPECT_EQ(2u, portmapper.Calls().size());
        }
    });
}

TEST(NfsUmount, ReportsThatThereIsNoPortmapper) {
    InWorld([] {
        EXPECT_EQ(
            "Cannot MOUNTPROG RPC (tcp): RPC: Port mapper failure - Unable to receive: errno 111 "
            "(Connection refused)\n"
            "Cannot MOUNTPROG RPC: RPC: Port mapper failure - Unable to receive: errno 111 "
            "(Connection refused)\n",
            UnmountWith("127.0.0.1:/x", "tcp"));
    });
}

TEST(NfsUmount, ReportsWhatThePortmapperRefuses) {
    using Answer = std::function<Bytes(const Bytes &call)>;
    const std::pair<Answer, const char *> kAnswers[] = {
        {[](const Bytes &call) { return Reply(call, 0); }, "Can't decode result"},  // no port
        {[](const Bytes &call) { return Reply(call, 1); }, "Program unavailable"},
        {[](const Bytes &call) {
             return Reply(call, 2, {3, 4});
         },
         "Program/version mismatch"},
        {[](const Bytes &call) { return Reply(call, 5); }, "Remote system error"},
        {[](const Bytes &call) {
             return Denial(call, {1, 5});
         },
         "Authentication error"},
    };
    InWorld([&] {
        for (const auto &[answer, pReason] : kAnswers) {
            RpcPeer portmapper{SOCK_DGRAM, kPortmapPort, answer};
            EXPECT_EQ(
                std::string{"Cannot MOUNTPROG RPC: RPC: Port mapper failure - "} + pReason + "\n",
                UnmountWith("127.0.0.1:/x", "udp"));
        }
    });
}

// The call to the portmapper has no credential; RFC 1833, 3 requires none.
TEST(NfsUmount, AsksThePortmapperWithoutACredential) {
    InWorld([] {
        RpcPeer portmapper{SOCK_DGRAM, kPortmapPort,
                           [](const Bytes &call) { return AnswerPort(call, 0); }};
        UnmountWith("127.0.0.1:/x", "udp");
        const Bytes call = portmapper.AwaitCalls(1)[0];
        EXPECT_EQ(Words({Get32(call, 0), 0, 2, 100000, 2, 3, 0, 0, 0, 0, 100005, 3, 17, 0}), call);
    });
}

TEST(NfsUmount, FallsBackToUdpWithoutATcpConnection) {
    InWorld([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        EXPECT_EQ("Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Connection refused\n",
                  UnmountWith("s:/x", kOverTcp));
        EXPECT_EQ(1u, udp.Calls().size());
    });
}

TEST(NfsUmount, ReportsThatNobodyListens) {
    InWorld([] {
        EXPECT_EQ(
            "Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Connection refused\n"
            "Bad UMNT RPC: RPC: Unable to receive; errno = Connection refused\n",
            UnmountWith("s:/x", kOverTcp));
    });
}

// A refusal over TCP is the server's answer, so the call is not made again over UDP.
TEST(NfsUmount, ReportsWhatTheServerRefuses) {
    using Answer = std::function<Bytes(const Bytes &call)>;
    const std::pair<Answer, const char *> kAnswers[] = {
        {[](const Bytes &call) { return Reply(call, 1); }, "Program unavailable"},
        {[](const Bytes &call) {
             return Reply(call, 2, {1, 2});
         },
         "Program/version mismatch; low version = 1, high version = 2"},
        {[](const Bytes &call) { return Reply(call, 3); }, "Procedure unavailable"},
        {[](const Bytes &call) { return Reply(call, 4); }, "Server can't decode arguments"},
        {[](const Bytes &call) { return Reply(call, 5); }, "Remote system error"},
        {[](const Bytes &call) {
             return Denial(call, {0, 2, 2});
         },
         "Incompatible versions of RPC; low version = 2, high version = 2"},
        {[](const Bytes &call) {
             return Denial(call, {1, 5});
         },
         "Authentication error; why = Client credential too weak"},
        {[](const Bytes &call) {
             return Words({Get32(call, 0), 0});
         },
         "Can't decode result"},
    };
    InWorld([&] {
        RpcPeer udp{SOCK_DGRAM, kPort + 1, RpcPeer::Accept};
        for (const auto &[answer, pReason] : kAnswers) {
            const std::string expected = std::string{"Bad UMNT RPC: RPC: "} + pReason + "\n";
            {
                RpcPeer tcp{SOCK_STREAM, kPort, answer};
                EXPECT_EQ(expected, UnmountWith("s:/x", kOverTcp));
                EXPECT_EQ(1u, tcp.Calls().size());
            }
            RpcPeer peer{SOCK_DGRAM, kPort, answer};
            EXPECT_EQ(expected, UnmountWith("s:/x", kOverUdp));
            EXPECT_EQ(1u, peer.Calls().size());
        }
    });
}

// ---- Time

// The attempt to connect ends after 3 seconds.
TEST(NfsUmount, FallsBackToUdpWhenTheConnectionTakesTooLong) {
    InWorld([] {
        MakeFullListener(kPort);
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        PretendedTime time;
        time.inVain = [](short events) { return events == POLLOUT; };
        EXPECT_EQ("Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Connection timed out\n",
                  Notify("s:/x", kOverTcp));
        EXPECT_EQ(3000, time.ElapsedMs());
        EXPECT_EQ(1u, udp.Calls().size());
    });
}

TEST(NfsUmount, EndsTheCallOfASilentServerAfter3Seconds) {
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::StaySilent};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::StaySilent};
        for (const char *pOptions : {kOverTcp, kOverUdp}) {
            PretendedTime time;
            time.inVain = [](short events) { return events == POLLIN; };
            EXPECT_EQ("Bad UMNT RPC: RPC: Timed out\n", Notify("s:/x", pOptions));
            EXPECT_EQ(3000, time.ElapsedMs());
        }
        const std::vector<Bytes> calls = udp.AwaitCalls(2);  // at once and after a second
        EXPECT_EQ(calls[0], calls[1]);
    });
}

TEST(NfsUmount, GivesUpASilentPortmapperAfter3SecondsEachTime) {
    InWorld([] {
        RpcPeer portmapper{SOCK_DGRAM, kPortmapPort, RpcPeer::StaySilent};
        PretendedTime time;
        time.inVain = [](short) { return true; };
        EXPECT_EQ(
            "Cannot MOUNTPROG RPC (tcp): RPC: Port mapper failure - Timed out\n"
            "Cannot MOUNTPROG RPC: RPC: Port mapper failure - Timed out\n",
            Notify("127.0.0.1:/x", "tcp"));
        EXPECT_EQ(6000, time.ElapsedMs());
    });
}

// Three waits take 2.6 seconds each: for the TCP port, for the connection, which is refused, and
// for the UDP port. The last call has 1.2 seconds left.
TEST(NfsUmount, EndsAfter9SecondsAltogether) {
    InWorld([] {
        RpcPeer portmapper{SOCK_DGRAM, kPortmapPort,
                           [](const Bytes &call) { return AnswerPort(call, kPort); }};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::StaySilent};
        PretendedTime time;
        int waits = 0;
        // The portmapper's reply comes to the second datagram.
        time.inVain = [&](short) {
            const int wait = ++waits;
            time.readyMs = wait == 3 ? 2600 : 1600;
            return wait == 1 || wait == 4 || wait >= 6;
        };
        EXPECT_EQ(
            "Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Connection refused\n"
            "Bad UMNT RPC: RPC: Timed out\n",
            Notify("127.0.0.1:/x", "tcp"));
        EXPECT_EQ((std::vector<PretendedTime::Wait>{{POLLIN, 1000},
                                                    {POLLIN, 2000},
                                                    {POLLOUT, 3000},
                                                    {POLLIN, 1000},
                                                    {POLLIN, 2000},
                                                    {POLLIN, 1000},
                                                    {POLLIN, 200}}),
                  time.waits);
        EXPECT_EQ(9000, time.ElapsedMs());
    });
}

// A look-up has no deadline, but its time is subtracted from the 9 seconds.
TEST(NfsUmount, CountsTheLookUpOfAName) {
    InWorld([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::StaySilent};
        for (const int64_t ms : {8500, 60000}) {
            PretendedTime time;
            time.inVain = [](short) { return true; };
            g_duringLookUp = [&] { time.ns += ms * 1'000'000; };
            EXPECT_EQ("Bad UMNT RPC: RPC: Timed out\n",
                      Notify("s:/x", "mountport=20048,addr=localhost"));
            EXPECT_EQ(std::max<int64_t>(ms, 9000), time.ElapsedMs());
        }
    });
}

// ---- Cut texts

// "s:" and 253 characters fill the entry.
TEST(NfsUmount, SendsAPathWholeOrNotAtAll) {
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        const std::string fits = "/" + std::string(252, 'p');
        EXPECT_EQ("", UnmountWith("s:" + fits, kOverTcp));
        ASSERT_EQ(1u, tcp.Calls().size());
        ExpectUmntOf(fits, tcp.Calls()[0]);
        for (const size_t more : {1, 2, 1000}) {
            const std::string device = "s:" + fits + std::string(more, 'p');
            EXPECT_EQ(
                (Lines{"DEV:Dev_GetEntryViaMtab(): Warning! overflow (len, size) = (" +
                           std::to_string(255 + more) + ", 256)",
                       "DEV:Dev_uMount(): the server of s:" + fits +
                           " was not notified : its path is longer than a mount entry holds"}),
                LogLines(UnmountWith(device, kOverTcp)));
        }
        EXPECT_EQ(1, tcp.connections());
    });
}

constexpr size_t kOptionsHeld = sizeof(tMountEntry::options) - 1;

// Options of `length` characters: `begin`, filler, `end`.
std::string OptionsOf(size_t length, const std::string &begin, const std::string &end) {
    return begin + std::string(length - begin.size() - end.size(), 'x') + end;
}

TEST(NfsUmount, UsesAnAddressThatIsWholeOrNone) {
    InWorld([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        const std::string cut =
            "DEV:Dev_uMount(): the server of 127.0.0.1:/x was not notified : its "
            "addr= may be cut off";
        const auto notNotified = [&](const std::string &options) {
            const Lines lines = LogLines(UnmountWith("127.0.0.1:/x", options));
            ASSERT_EQ(2u, lines.size());
            EXPECT_EQ(0u, lines[0].find("DEV:Dev_GetEntryViaMtab(): Warning! overflow"));
            EXPECT_EQ(cut, lines[1]);
        };
        const std::string address = ",addr=127.0.0.1";
        EXPECT_EQ("", UnmountWith("none:/x", OptionsOf(kOptionsHeld, "mountport=20048,", address)));
        EXPECT_EQ(1u, udp.Calls().size());
        // First the digits are truncated, then "addr=" itself. The host of the device is not used
        // instead.
        for (size_t more = 1; more <= address.size(); ++more) {
            notNotified(OptionsOf(kOptionsHeld + more, "mountport=20048,", address));
        }
        // A comma ends the value, so it is whole.
        EXPECT_EQ(1u, LogLines(UnmountWith("none:/x",
                                           OptionsOf(2000, "mountport=20048,addr=127.0.0.1,", "")))
                          .size());
        EXPECT_EQ(2u, udp.Calls().size());
    });
}

TEST(NfsUmount, AsksForAPortThatMayBeCutOff) {
    InWorld([] {
        RpcPeer portmapper{SOCK_DGRAM, kPortmapPort,
                           [](const Bytes &call) { return AnswerPort(call, kPort); }};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        for (const size_t more : {1, 3, 5, 6}) {
            const Lines lines = LogLines(UnmountWith(
                "s:/x", OptionsOf(kOptionsHeld + more, "addr=127.0.0.1,", ",mountport=20048")));
            EXPECT_EQ(1u, lines.size());
        }
        EXPECT_EQ(4u, udp.Calls().size());
        EXPECT_EQ(4u, portmapper.Calls().size());
    });
}

// ---- The caller

// A server that closes the connection, with FIN or with RST, causes no SIGPIPE.
TEST(NfsUmount, SurvivesAServerThatHangsUp) {
    InWorld([] {
        for (const bool reset : {false, true}) {
            const int listener = BoundSocket(SOCK_STREAM, kPort);
            ASSERT_EQ(0, listen(listener, 5));
            std::thread server{[&] {
                const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                const struct linger hard = {1, 0};
                if (reset) {
                    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
                }
                close(fd);
            }};
            const std::string text = UnmountWith("s:/x", kOverTcp);
            server.join();
            close(listener);
            EXPECT_TRUE(text.find("Bad UMNT RPC: RPC: ") == 0 ||
                        text.find("Cannot MOUNTPROG RPC (tcp): RPC: ") == 0)
                << text;
        }
    });
}

TEST(NfsUmount, NotifiesTheServerBeforeACancellationActs) {
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        ReplaceDir("/proc");
        WriteFile("/proc/mounts", std::string{"s:/x /a nfs "} + kOverTcp + " 0 0\n" +
                                      "s:/x /b nfs " + kOverUdp + " 0 0\n");
        for (const char *pDir : {"/a", "/b"}) {
            EXPECT_TRUE(OutlastsCancellation([&] { EXPECT_EQ(0, Dev_uMount(pDir)); }));
        }
        EXPECT_EQ(1u, tcp.Calls().size());
        EXPECT_EQ(1u, udp.Calls().size());
    });
}

TEST(NfsUmount, NeedsNoPrivilege) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become an ordinary user";
    }
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        EXPECT_EQ("", UnmountWith("s:/x", kOverTcp, [](const char *pDir) {
                      EXPECT_EQ(0, seteuid(65533));
                      const int result = Dev_uMount(pDir);
                      EXPECT_EQ(0, seteuid(0));
                      return result;
                  }));
        EXPECT_EQ(1u, tcp.Calls().size());
        EXPECT_GE(tcp.sourcePort(), 1024);
    });
}

TEST(NfsUmount, NotifiesOnlyAfterASuccessfulUnmountOfTypeNfs) {
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
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

TEST(NfsUmount, NotifiesTheServerFromManyThreads) {
    InWorld([] {
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
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

// A real mount daemon with its portmapper. It keeps no list of mounts; its log has the calls.
constexpr const char *kGaneshaConfig = R"(
NFS_CORE_PARAM {
    Protocols = 3; MNT_Port = 20048; Enable_NLM = false; Enable_RQUOTA = false;
}
NFSv4 { Graceless = true; }
EXPORT {
    Export_Id = 1; Path = /mnt/export; Pseudo = /export; Protocols = 3; Transports = UDP, TCP;
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
    for (size_t at = 0; (at = log.find("MNT_UMNT path /mnt/export", at)) != std::string::npos;
         ++at) {
        ++count;
    }
    return count;
}

TEST(NfsUmount, NotifiesARealMountDaemon) {
    if (getuid() != 0) {
        GTEST_SKIP() << "the mount daemon needs root";
    }
    if (!std::filesystem::exists("/usr/bin/ganesha.nfsd")) {
        GTEST_SKIP() << "no mount daemon is installed";
    }
    // The servers end with their PID namespace.
    RunInPrivateWorld(kMounts | kNetwork | kPids, [] {
        RunCommand("ip link set lo up");
        MountTmpfs("/run");
        MountTmpfs("/mnt");
        MountTmpfs("/var/lib");
        for (const char *pDir :
             {"/run/rpcbind", "/run/ganesha", "/mnt/export", "/var/lib/nfs/ganesha"}) {
            std::filesystem::create_directories(pDir);
        }
        WriteFile("/mnt/ganesha.conf", kGaneshaConfig);
        const char *const kPortmapper[] = {"/sbin/rpcbind", "-f", "-i", nullptr};
        const char *const kDaemon[] = {
            "/usr/bin/ganesha.nfsd", "-F",   "-f", "/mnt/ganesha.conf", "-L", "/mnt/log", "-p",
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
            EXPECT_EQ("", UnmountWith("127.0.0.1:/mnt/export", pOptions));
            ++count;
            EXPECT_TRUE(Eventually([&] { return CountUmnt(ReadFile("/mnt/log")) == count; }))
                << pOptions << "\n"
                << ReadFile("/mnt/log");
        }
        Stop(daemon);
        Stop(portmapper);
    });
}

}  // namespace
