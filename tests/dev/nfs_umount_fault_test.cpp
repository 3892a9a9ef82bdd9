// Every call of the C library fails in turn while an NFS server is told of an unmount.

#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "dev/internal/nfs_umount.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;
using Lines = std::vector<std::string>;

constexpr in_port_t kPort = 20048;

int BoundSocket(int type) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    at.sin_port = htons(kPort);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at));
    return fd;
}

// The answer to a call: its xid, then REPLY, accepted, no verifier, success (RFC 5531, 9).
std::vector<uint8_t> AnswerTo(const uint8_t *xid) {
    std::vector<uint8_t> reply(24, 0);
    memcpy(reply.data(), xid, 4);
    reply[7] = 1;
    return reply;
}

// Answers over TCP and UDP until it is killed. It is a process of its own, in which no call fails.
void Serve(int tcp, int udp) {
    for (;;) {
        pollfd fds[2] = {{tcp, POLLIN, 0}, {udp, POLLIN, 0}};
        poll(fds, 2, -1);
        uint8_t call[1000];
        sockaddr_in from{};
        socklen_t size = sizeof from;
        auto *pFrom = reinterpret_cast<sockaddr *>(&from);
        if (fds[1].revents != 0 && recvfrom(udp, call, sizeof call, 0, pFrom, &size) > 4) {
            const std::vector<uint8_t> reply = AnswerTo(call);
            sendto(udp, reply.data(), reply.size(), 0, pFrom, size);
        }
        if (fds[0].revents != 0) {
            const int fd = accept(tcp, nullptr, nullptr);
            if (read(fd, call, sizeof call) > 8) {
                std::vector<uint8_t> record = {0x80, 0, 0, 24};
                const std::vector<uint8_t> reply = AnswerTo(call + 4);
                record.insert(record.end(), reply.begin(), reply.end());
                if (write(fd, record.data(), record.size()) < 0) {
                    _exit(1);
                }
            }
            close(fd);
        }
    }
}

void WithServer(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts | kNetwork, [&] {
        RunCommand("ip link set lo up");
        const int tcp = BoundSocket(SOCK_STREAM);
        const int udp = BoundSocket(SOCK_DGRAM);
        EXPECT_EQ(0, listen(tcp, 5));
        const pid_t server = fork();
        if (server == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // the server ends with a body that crashes too
            Serve(tcp, udp);
        }
        close(tcp);
        close(udp);
        body();
        kill(server, SIGKILL);
        waitpid(server, nullptr, 0);
    });
}

tMountEntry Entry(const char *pOptions) {
    tMountEntry entry{};
    strcpy(entry.device, "srv:/export");
    strcpy(entry.type, "nfs");
    strcpy(entry.options, pOptions);
    return entry;
}

void ExpectThreadAsBefore() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(0, sigismember(&mask, SIGPIPE));
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state);
}

TEST(NfsUmountFault, SurvivesEveryFailure) {
    WithServer([] {
        CaptureAll([] {
            for (const char *pOptions :
                 {"tcp,mountport=20048,addr=127.0.0.1", "udp,mountport=20048,addr=127.0.0.1"}) {
                EXPECT_GT(EveryCallFails(EIO,
                                         [&] {
                                             talvek::TellNfsServer("Dev_uMount", Entry(pOptions));
                                             ExpectThreadAsBefore();
                                         }),
                          12);
            }
        });
    });
}

TEST(NfsUmountFault, FallsBackToUdpWhateverTcpMeets) {
    for (const char *pCall : {"socket", "connect", "getsockopt", "poll", "fcntl", "socketpair"}) {
        WithServer([&] {
            const std::string text = CaptureAll([&] {
                const Fault fault{pCall, 0, EIO};
                talvek::TellNfsServer("Dev_uMount", Entry("tcp,mountport=20048,addr=127.0.0.1"));
                // A connection to loopback may come about at once, without being waited for.
                EXPECT_TRUE(Fault::Tripped() || std::string{pCall} == "poll" ||
                            std::string{pCall} == "getsockopt");
            });
            EXPECT_TRUE(text.empty() ||
                        text ==
                            "Cannot MOUNTPROG RPC (tcp): RPC: Remote system error - "
                            "Input/output error\n")
                << pCall << " " << text;
        });
    }
}

TEST(NfsUmountFault, NeedsNoReservedPort) {
    WithServer([] {
        EXPECT_EQ("", CaptureAll([] {
                      const Fault fault{"bindresvport", 0, EACCES};
                      talvek::TellNfsServer("Dev_uMount",
                                            Entry("tcp,mountport=20048,addr=127.0.0.1"));
                      EXPECT_TRUE(Fault::Tripped());
                  }));
    });
}

TEST(NfsUmountFault, WaitsOnAfterASignal) {
    WithServer([] {
        EXPECT_EQ("", CaptureAll([] {
                      const Fault fault{"poll", 0, EINTR};
                      talvek::TellNfsServer("Dev_uMount",
                                            Entry("tcp,mountport=20048,addr=127.0.0.1"));
                      EXPECT_TRUE(Fault::Tripped());
                  }));
    });
}

// A SIGPIPE that the caller itself holds back is still there afterwards.
TEST(NfsUmountFault, LeavesASignalOfTheCallerPending) {
    WithServer([] {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &pipe, nullptr));
        ASSERT_EQ(0, raise(SIGPIPE));
        EXPECT_EQ("", CaptureAll([] {
                      talvek::TellNfsServer("Dev_uMount",
                                            Entry("tcp,mountport=20048,addr=127.0.0.1"));
                  }));
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(1, sigismember(&mask, SIGPIPE));
        const timespec noWait{0, 0};
        EXPECT_EQ(SIGPIPE, sigtimedwait(&pipe, nullptr, &noWait));
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    });
}

// Where the library is linked, the first look-up finds it.
#ifdef RPC_LIBRARY_IS_LINKED
constexpr bool kLinked = true;
#else
constexpr bool kLinked = false;
#endif

TEST(NfsUmountFault, LogsALibraryWithoutTheCalls) {
    WithServer([] {
        const Lines lines = CaptureLog([] {
            // The first look-up asks whether the C library has them, the second is of libtirpc.
            const Fault fault{"dlsym", 1, ENOENT};
            talvek::TellNfsServer("Dev_uMount", Entry("tcp,mountport=20048,addr=127.0.0.1"));
            EXPECT_TRUE(Fault::Tripped());
        });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(0u, lines[0].find("DEV:Dev_uMount(): the server of srv:/export was not told : "));
    });
}

TEST(NfsUmountFault, LogsALibraryThatCannotBeLoaded) {
    if (kLinked) {
        GTEST_SKIP() << "a sanitized program has the RPC library from its start";
    }
    const Lines lines = CaptureLog([] {
        const Fault fault{"dlopen", 0, ENOMEM};
        talvek::TellNfsServer("Dev_uMount_Force", Entry("tcp,addr=127.0.0.1"));
    });
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u,
              lines[0].find("DEV:Dev_uMount_Force(): the server of srv:/export was not told : "));
}

}  // namespace
