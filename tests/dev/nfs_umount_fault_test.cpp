// Every call of the C library fails in turn while an NFS server is notified of an unmount.

#include "dev/internal/nfs_umount.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "rpc_peer.h"
#include "support/capture.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

constexpr in_port_t kPort = 20048;

// Runs `body` with servers over TCP and UDP in another process, where no call is made to fail.
void WithServer(const std::function<void()> &body) {
    WithLoopback([&] {
        int ready[2];
        ASSERT_EQ(0, pipe(ready));
        const pid_t server = fork();
        if (server == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // the server ends even when the body crashes
            const RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
            const RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
            close(ready[1]);
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        char none;
        ASSERT_EQ(0, read(ready[0], &none, 1));
        close(ready[0]);
        body();
        kill(server, SIGKILL);
        waitpid(server, nullptr, 0);
    });
}

talvek::NfsMount Mount(const char *pOptions) {
    talvek::NfsMount mount{};
    strcpy(mount.entry.device, "srv:/export");
    strcpy(mount.entry.type, "nfs");
    strcpy(mount.entry.options, pOptions);
    return mount;
}

constexpr const char *kOverTcp = "tcp,mountport=20048,addr=127.0.0.1";
constexpr const char *kOverUdp = "udp,mountport=20048,addr=127.0.0.1";

// What the server's notification prints while the nth call of a function fails.
std::string NotifyWith(const char *pOptions, const char *pCall, int nth, int error) {
    return CaptureAll([&] {
        const Fault fault{pCall, nth, error};
        talvek::NotifyNfsServer("Dev_uMount", Mount(pOptions));
        EXPECT_TRUE(Fault::Tripped()) << pCall;
    });
}

TEST(NfsUmountFault, SurvivesEveryFailure) {
    WithServer([] {
        CaptureAll([] {
            for (const char *pOptions : {kOverTcp, kOverUdp}) {
                const int failed = EveryCallFails(
                    EIO, [&] { talvek::NotifyNfsServer("Dev_uMount", Mount(pOptions)); });
                EXPECT_GE(failed, 10);
            }
        });
    });
}

// The first failure ends the call over TCP. The call is repeated over UDP only when nothing can
// have reached the server.
TEST(NfsUmountFault, FallsBackToUdpWhenThereIsNoConnection) {
    for (const char *pCall : {"socket", "connect", "getsockopt", "ppoll"}) {
        WithServer([&] {
            EXPECT_EQ("Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - Input/output error\n",
                      NotifyWith(kOverTcp, pCall, 0, EIO));
        });
    }
}

TEST(NfsUmountFault, ReportsAFailureAfterTheConnection) {
    WithServer([] {
        const std::string send = "Bad UMNT RPC: RPC: Unable to send; errno = Input/output error\n";
        const std::string receive =
            "Bad UMNT RPC: RPC: Unable to receive; errno = Input/output error\n";
        EXPECT_EQ(send, NotifyWith(kOverTcp, "send", 0, EIO));
        EXPECT_EQ(receive, NotifyWith(kOverTcp, "ppoll", 1, EIO));  // the first one connects
        EXPECT_EQ(receive, NotifyWith(kOverTcp, "recv", 0, EIO));
        EXPECT_EQ(send, NotifyWith(kOverUdp, "connect", 0, EIO));
        EXPECT_EQ(send, NotifyWith(kOverUdp, "send", 0, EIO));
        EXPECT_EQ(receive, NotifyWith(kOverUdp, "ppoll", 0, EIO));
        EXPECT_EQ(receive, NotifyWith(kOverUdp, "recv", 0, EIO));
        EXPECT_EQ("Cannot MOUNTPROG RPC: RPC: Remote system error - Input/output error\n",
                  NotifyWith(kOverUdp, "socket", 0, EIO));
    });
}

// The portmapper's socket is the one that fails.
TEST(NfsUmountFault, ReportsThatThePortmapperCannotBeAsked) {
    WithServer([] {
        EXPECT_EQ("Cannot MOUNTPROG RPC: RPC: Remote system error - Input/output error\n",
                  NotifyWith("addr=127.0.0.1", "socket", 0, EIO));
        EXPECT_EQ(
            "Cannot MOUNTPROG RPC: RPC: Port mapper failure - Unable to send: errno 5 "
            "(Input/output error)\n",
            NotifyWith("addr=127.0.0.1", "send", 0, EIO));
    });
}

// The server is notified even when these calls fail.
TEST(NfsUmountFault, NeedsNoReservedPortAndNoFullCredential) {
    WithServer([] {
        for (const char *pOptions : {kOverTcp, kOverUdp}) {
            EXPECT_EQ("", NotifyWith(pOptions, "bind", 0, EACCES));
            EXPECT_EQ("", NotifyWith(pOptions, "bind", 0, EADDRINUSE));
            EXPECT_EQ("", NotifyWith(pOptions, "gethostname", 0, ENAMETOOLONG));
            EXPECT_EQ("", NotifyWith(pOptions, "getgroups", 0, EIO));
        }
    });
}

TEST(NfsUmountFault, ContinuesToWaitAfterASignalOrAnEmptyRead) {
    WithServer([] {
        for (const char *pOptions : {kOverTcp, kOverUdp}) {
            EXPECT_EQ("", NotifyWith(pOptions, "ppoll", 0, EINTR));
            EXPECT_EQ("", NotifyWith(pOptions, "recv", 0, EAGAIN));
        }
    });
}

TEST(NfsUmountFault, LogsANameThatCannotBeLookedUp) {
    EXPECT_EQ(
        (Lines{"DEV:Dev_uMount(): the server of srv:/export was not notified : no IPv4 address"}),
        LogLines(NotifyWith(kOverTcp, "getaddrinfo", 0, EAGAIN)));
}

}  // namespace
