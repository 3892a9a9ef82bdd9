// The listening process: its socket, its children, its signals.

#include "service/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "service/handler.h"
#include "service/support/program.h"
#include "service/support/wire.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

// What the daemon has called the handler with, in a child of this very program.
tTalvekClient g_handled = {};
int g_listening = -1;  // sockets that listen, meanwhile

int CountListening() {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd) {
        int listening = 0;
        socklen_t size = sizeof listening;
        getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size);
        count += listening;
    }
    return count;
}

}  // namespace

extern "C" int __wrap_TALVEK_DaemonHandler(tTalvekClient *pClient);

// Stands in for the handler: serves nothing, and the result is of no interest to the daemon.
int __wrap_TALVEK_DaemonHandler(tTalvekClient *pClient) {
    g_handled = *pClient;
    g_listening = CountListening();
    return 5;
}

namespace {

using namespace std::string_literals;
using namespace talvek::test;

bool Exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool IsSocket(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

size_t CountIn(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        ++count;
    }
    return count;
}

// Processor time that a process has used, in clock ticks.
long Ticks(pid_t pid) {
    std::ifstream in{"/proc/" + std::to_string(pid) + "/stat"};
    std::string text;
    std::getline(in, text);
    std::istringstream fields{text.substr(text.rfind(')') + 2)};
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
}

bool IsStopped(pid_t pid) {
    const std::string text = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t name = text.rfind(')');  // may hold anything; the state stands behind it
    return name != std::string::npos && text.compare(name, 3, ") T") == 0;
}

// A command that waits for a file to appear, and not for ever.
std::string Until(const std::string &path) {
    return "for i in $(seq 1000); do test -e " + path + " && break; sleep 0.01; done; ";
}

// Runs a command that may be longer than the program's own limit; its status.
int32_t Ask(const Daemon &daemon, const std::string &command) {
    const int fd = ConnectTo(daemon.socket());
    EXPECT_TRUE(Put(fd, CommandPkg(command)));
    const std::string reply = Take(fd, 20);
    close(fd);
    EXPECT_EQ(20u, reply.size());
    return static_cast<int32_t>(U32(reply, 16));
}

TEST(DaemonTest, ServesARawPeer) {
    const Daemon daemon;
    const int fd = ConnectTo(daemon.socket());
    ASSERT_LE(0, fd);
    ASSERT_TRUE(Put(fd, RegisterPkg("NAME=raw\0"s)));
    EXPECT_EQ(Hex(RegisterPkg("NAME=raw\0"s)), Hex(Take(fd, 25)));
    ASSERT_TRUE(Put(fd, CommandPkg("test $NAME = raw && exit 33")));
    EXPECT_EQ(Hex(ResultPkg(33)), Hex(Take(fd, 20)));
    close(fd);
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); }));
    const std::string pid = std::to_string(daemon.pid());
    const std::string log = daemon.log();
    EXPECT_EQ(1u, CountIn(log, "PID[" + pid + "]["));
    EXPECT_EQ(1u, CountIn(log, "] fork() to handle client()\n"));
}

TEST(DaemonTest, ServesClientsSideBySide) {
    const Daemon daemon;
    const std::string go = daemon.dir() / "go";
    const int slow = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(slow, CommandPkg(Until(go))));
    const int silent = ConnectTo(daemon.socket());
    EXPECT_EQ(5, daemon.Client("exit 5").exitStatus());
    EXPECT_TRUE(Quiet(slow, 0)) << "still at its command";
    WriteFile(go, "");
    EXPECT_EQ(Hex(ResultPkg(0, 0, 1)), Hex(Take(slow, 20)));
    EXPECT_TRUE(Eventually([&] { return daemon.Children().size() == 2; }));
    close(slow);
    close(silent);
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); })) << "and no zombie";
}

// The listening process wakes every five seconds and has nothing to tell then.
TEST(DaemonTest, IsSilentWhileNobodyComes) {
    const Daemon daemon;
    const std::string log = daemon.log();
    usleep(5300 * 1000);
    EXPECT_EQ(log, daemon.log());
    EXPECT_EQ(4, daemon.Client("exit 4").exitStatus());
}

// Every child begins where the daemon stands: session 0, sequence 0, the daemon's environment.
TEST(DaemonTest, ClientsDoNotSeeEachOther) {
    const Daemon daemon;
    for (int i = 0; i < 3; ++i) {
        const int fd = ConnectTo(daemon.socket());
        ASSERT_TRUE(Put(fd, CommandPkg("exit ${LEFT:-1}")));
        EXPECT_EQ(Hex(ResultPkg(1, 0, 1)), Hex(Take(fd, 20)));
        ASSERT_TRUE(Put(fd, RegisterPkg("LEFT=2\0"s)));
        EXPECT_EQ(0u, U32(Take(fd, 23), 4));
        close(fd);
    }
}

// A child of the daemon comes back to the caller once its handler has returned.
struct Returned {
    int result;
    pid_t parent;
    tTalvekClient client;
    bool connected;  // the client's descriptor is open
    int listening;   // sockets that listened while the handler ran
    long drawn;      // from the random generator
};

TEST(DaemonTest, ReturnsMinusOneInEachChildAfterItsHandler) {
    const TempDir dir;
    const std::string path = dir / "socket";
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const time_t before = time(nullptr);
    Capture([&] {
        const pid_t daemon = fork();
        if (daemon == 0) {
            signal(SIGCHLD, SIG_IGN);
            alarm(20);
            Returned returned = {};
            returned.result = TALVEK_Daemon(path.c_str());
            returned.parent = getppid();
            returned.client = g_handled;
            returned.connected = fcntl(g_handled.fd, F_GETFD) != -1;
            returned.listening = g_listening;
            returned.drawn = random();
            const bool told = write(ends[1], &returned, sizeof returned) == sizeof returned;
            _exit(told ? 0 : 1);
        }
        for (int number = 1; number <= 3; ++number) {
            int fd = -1;
            EXPECT_TRUE(Eventually([&] { return (fd = ConnectTo(path)) >= 0; }));
            const std::string bytes = Take(ends[0], sizeof(Returned));
            ASSERT_EQ(sizeof(Returned), bytes.size());
            Returned returned;
            memcpy(&returned, bytes.data(), sizeof returned);
            EXPECT_EQ(-1, returned.result);
            EXPECT_EQ(daemon, returned.parent);
            EXPECT_EQ(daemon, returned.client.daemon_pid);
            EXPECT_EQ(number, returned.client.number);
            EXPECT_EQ(0, returned.client.session);
            EXPECT_EQ(0, returned.client.sn);
            EXPECT_TRUE(returned.connected);
            EXPECT_EQ(0, returned.listening);
            // The generator stands where a seed of the time of the start puts it.
            bool seeded = false;
            for (time_t seed = before; seed <= time(nullptr); ++seed) {
                srandom(static_cast<unsigned>(seed));
                seeded = seeded || random() == returned.drawn;
            }
            EXPECT_TRUE(seeded);
            close(fd);
        }
        kill(daemon, SIGTERM);
        EXPECT_TRUE(EndedBy(WaitFor(daemon), SIGTERM));
    });
    close(ends[0]);
    close(ends[1]);
}

// Where a stopped daemon accepts nobody, Linux queues one client more than the backlog of 1
// (net/unix/af_unix.c: unix_recvq_full), and tells the next one to try again.
TEST(DaemonTest, QueuesTwoClientsWhileItIsBusy) {
    const Daemon daemon;
    ASSERT_EQ(0, kill(daemon.pid(), SIGSTOP));
    ASSERT_TRUE(Eventually([&] { return IsStopped(daemon.pid()); }));
    const sockaddr_un address = AddressOf(daemon.socket());
    std::vector<int> clients;
    for (const int expected : {0, 0, EAGAIN}) {
        clients.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const int result =
            connect(clients.back(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        EXPECT_EQ(expected, result == 0 ? 0 : errno);
    }
    kill(daemon.pid(), SIGCONT);
    for (const int fd : {clients[0], clients[1]}) {
        ASSERT_TRUE(Put(fd, CommandPkg("exit 5")));
        EXPECT_EQ(5u, U32(Take(fd, 20), 16));
    }
    for (const int fd : clients) {
        close(fd);
    }
}

TEST(DaemonTest, SocketFollowsTheUmask) {
    Daemon::Options options;
    options.prepare = [] { umask(0027); };
    const Daemon daemon{options};
    struct stat st;
    ASSERT_EQ(0, stat(daemon.socket().c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0750u, st.st_mode & 07777);
}

TEST(DaemonTest, RemovesWhatThePathNames) {
    const TempDir dir;
    Daemon::Options options;
    options.dir = &dir;
    close(ListenAt(dir / "socket"));  // a stale socket
    {
        const Daemon daemon{options};
        EXPECT_EQ(3, daemon.Client("exit 3").exitStatus());
        EXPECT_EQ(0u, CountIn(daemon.log(), "COM_RemoveRealFile"));
    }
    EXPECT_TRUE(IsSocket(dir / "socket")) << "a killed daemon leaves it";
    {
        const Daemon daemon{options};
        EXPECT_EQ(4, daemon.Client("exit 4").exitStatus());
    }
    unlink((dir / "socket").c_str());
    WriteFile(dir / "socket", "an ordinary file\n");
    {
        const Daemon daemon{options};
        EXPECT_EQ(5, daemon.Client("exit 5").exitStatus());
    }
}

// The link's target goes, the link stays, and nothing can be bound at a link.
TEST(DaemonTest, FollowsOneLinkToWhatItRemoves) {
    const TempDir dir;
    WriteFile(dir / "target", "");
    ASSERT_EQ(0, symlink((dir / "target").c_str(), (dir / "socket").c_str()));
    Daemon::Options options;
    options.dir = &dir;
    options.waitForSocket = false;
    const Daemon daemon{options};
    EXPECT_TRUE(daemon.Logs(", " + std::to_string(daemon.socket().size() + 2) +
                            ") failed : Address already in use\n"));
    EXPECT_FALSE(Exists(dir / "target"));
    EXPECT_TRUE(Exists(dir / "socket"));
}

TEST(DaemonTest, AFailedBindLeavesWhatIsThere) {
    const TempDir dir;
    ASSERT_EQ(0, mkdir((dir / "socket").c_str(), 0755));
    Daemon::Options options;
    options.dir = &dir;
    options.waitForSocket = false;
    Daemon daemon{options};
    EXPECT_TRUE(daemon.Logs("bind(" + daemon.socket()));
    daemon.Stop(0);  // it ends by itself
    EXPECT_TRUE(Exists(dir / "socket"));
}

TEST(DaemonTest, CutsAPathTo107Characters) {
    const TempDir dir;
    for (const size_t length : {size_t{107}, size_t{108}, size_t{120}}) {
        std::string path = dir / "";
        path.resize(length, 'p');
        const std::string cut = path.substr(0, 107);
        Daemon::Options options;
        options.dir = &dir;
        options.socket = path;
        options.waitForSocket = false;
        for (int start = 0; start < 2; ++start) {  // the second meets what the first has left
            const Daemon daemon{options};
            EXPECT_TRUE(Eventually([&] {
                const int fd = ConnectTo(cut);
                close(fd);
                return fd >= 0;
            })) << daemon.log();
            EXPECT_EQ(6, daemon.Client("exit 6").exitStatus());
        }
        unlink(cut.c_str());
        unlink((dir / "log").c_str());
    }
    std::string path = dir / "missing/";
    path.resize(110, 'p');
    Daemon::Options options;
    options.dir = &dir;
    options.socket = path;
    options.waitForSocket = false;
    const Daemon daemon{options};
    EXPECT_TRUE(daemon.Logs("bind(" + path.substr(0, 107) + ", 109) failed"));
}

// The kernel would choose an address that no client can know.
TEST(DaemonTest, RefusesAnEmptyPath) {
    Daemon::Options options;
    options.socket = "";
    options.waitForSocket = false;
    Daemon daemon{options};
    EXPECT_TRUE(daemon.Logs("bind(, 2) failed : Invalid argument\n"));
    daemon.Stop(0);  // it ends by itself
}

TEST(DaemonTest, CommandsInheritNoDescriptorOfTheService) {
    const Daemon daemon;
    const int other = ConnectTo(daemon.socket());  // a second handler's
    const std::string path = daemon.dir() / "fds";
    EXPECT_EQ(0, Ask(daemon, "ls /proc/self/fd >" + path));
    EXPECT_EQ("0\n1\n2\n3\n", ReadFile(path)) << "3 is the listing's own";
    close(other);
}

TEST(DaemonTest, AKilledHandlerClosesItsConnectionAlone) {
    const Daemon daemon;
    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, RegisterPkg()));
    Take(fd, 16);
    const std::vector<pid_t> children = daemon.Children();
    ASSERT_EQ(1u, children.size());
    kill(children[0], SIGKILL);
    EXPECT_TRUE(AtEnd(fd));
    close(fd);
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); }));
    EXPECT_EQ(7, daemon.Client("exit 7").exitStatus());
}

TEST(DaemonTest, AClientWhoseHandlerIsKilledEndsWithOne) {
    const TempDir dir;
    Daemon::Options options;
    options.prepare = [&] { static_cast<void>(chdir(dir.path().c_str())); };
    const Daemon daemon{options};
    const pid_t client = StartProgram(
        {"-C", "-s", daemon.socket(), "-f", "echo $PPID $$ >x; mv x mark; exec sleep 20"},
        STDOUT_FILENO);
    ASSERT_TRUE(Eventually([&] { return Exists(dir / "mark"); }));
    std::istringstream mark{ReadFile(dir / "mark")};
    pid_t handler = 0;
    pid_t command = 0;
    mark >> handler >> command;
    kill(handler, SIGKILL);
    const int status = WaitFor(client);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
    // The command has no parent that would end it.
    kill(command, SIGKILL);
    EXPECT_TRUE(Eventually([&] { return Gone(command); }));
    waitpid(command, nullptr, 0);
}

TEST(DaemonTest, ServesAgainAfterItWasKilled) {
    const TempDir dir;
    Daemon::Options options;
    options.dir = &dir;
    {
        Daemon first{options};
        EXPECT_EQ(1, first.Client("exit 1").exitStatus());
        EXPECT_TRUE(EndedBy(first.Stop(SIGKILL), SIGKILL));
        EXPECT_TRUE(IsSocket(first.socket()));
        EXPECT_EQ(255, first.Client("true").exitStatus()) << "nobody listens";
    }
    unlink((dir / "log").c_str());
    const Daemon second{options};
    EXPECT_EQ(2, second.Client("exit 2").exitStatus());
}

class StoppingSignal : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Each, StoppingSignal, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto &param) {
                             return param.param == SIGTERM ? std::string{"Term"}
                                                           : std::string{"Int"};
                         });

TEST_P(StoppingSignal, RemovesTheSocketAndEndsByTheSignal) {
    Daemon daemon;
    const std::string path = daemon.socket();
    EXPECT_EQ(0, daemon.Client("true").exitStatus());
    const int status = daemon.Stop(GetParam());
    EXPECT_TRUE(EndedBy(status, GetParam()));
    EXPECT_FALSE(Exists(path));
}

TEST_P(StoppingSignal, EndsADaemonThatWasStartedWithItIgnored) {
    Daemon::Options options;
    options.prepare = [] {
        signal(SIGTERM, SIG_IGN);
        signal(SIGINT, SIG_IGN);
    };
    Daemon daemon{options};
    const std::string path = daemon.dir() / "status";
    EXPECT_EQ(0, Ask(daemon, "cat /proc/self/status >" + path));
    const uint64_t bits = SignalBits({SIGTERM, SIGINT, SIGPIPE, SIGCHLD});
    EXPECT_EQ(0u, SignalMask(path, "SigIgn:") & bits) << "commands find them at their defaults";
    EXPECT_EQ(0u, SignalMask(path, "SigBlk:") & bits);
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_FALSE(Exists(daemon.socket()));
}

TEST_P(StoppingSignal, EndsADaemonThatWasStartedWithItBlocked) {
    Daemon::Options options;
    options.prepare = [] {
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGTERM);
        sigaddset(&both, SIGINT);
        sigprocmask(SIG_BLOCK, &both, nullptr);
    };
    Daemon daemon{options};
    const std::string path = daemon.dir() / "status";
    EXPECT_EQ(0, Ask(daemon, "cat /proc/self/status >" + path));
    EXPECT_EQ(0u, SignalMask(path, "SigBlk:") & SignalBits({SIGTERM, SIGINT}))
        << "commands can be ended";

    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, RegisterPkg()));
    Take(fd, 16);
    for (const pid_t child : daemon.Children()) {
        kill(child, GetParam());
    }
    EXPECT_TRUE(AtEnd(fd)) << "and so can handlers";
    close(fd);

    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_FALSE(Exists(daemon.socket()));
}

TEST_P(StoppingSignal, LeavesASocketThatIsNotItsOwn) {
    Daemon daemon;
    unlink(daemon.socket().c_str());
    const int other = ListenAt(daemon.socket());
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_TRUE(IsSocket(daemon.socket()));
    close(other);
}

TEST_P(StoppingSignal, DoesNotMindASocketThatHasGone) {
    Daemon daemon;
    unlink(daemon.socket().c_str());
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
}

TEST_P(StoppingSignal, LetsRunningCommandsFinish) {
    Daemon daemon;
    const int fd = ConnectTo(daemon.socket());
    const std::string mark = daemon.dir() / "mark";
    const std::string go = daemon.dir() / "go";
    ASSERT_TRUE(Put(fd, CommandPkg("echo >" + mark + "; " + Until(go) + "exit 44")));
    ASSERT_TRUE(Eventually([&] { return Exists(mark); }));
    const std::vector<pid_t> handlers = daemon.Children();
    ASSERT_EQ(1u, handlers.size());
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_TRUE(Quiet(fd, 0));
    WriteFile(go, "");
    EXPECT_EQ(Hex(ResultPkg(44, 0, 1)), Hex(Take(fd, 20)));
    close(fd);
    EXPECT_TRUE(Eventually([&] { return Gone(handlers[0]); })) << "it ends with its client";
    waitpid(handlers[0], nullptr, 0);
}

// While there is always a client waiting, a wait never lets a signal in.
TEST_P(StoppingSignal, ComesThroughUnderSteadyLoad) {
    Daemon daemon;
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&] {
            while (!stop) {
                const int fd = ConnectTo(daemon.socket());
                close(fd);
            }
        });
    }
    EXPECT_TRUE(Eventually([&] { return CountIn(daemon.log(), "fork()") > 20; }));
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    stop = true;
    for (std::thread &caller : callers) {
        caller.join();
    }
    EXPECT_FALSE(Exists(daemon.socket()));
}

TEST(DaemonTest, HandlersEndByTheirSignals) {
    const Daemon daemon;
    for (const int signal : {SIGTERM, SIGINT}) {
        const int fd = ConnectTo(daemon.socket());
        ASSERT_TRUE(Put(fd, RegisterPkg()));
        Take(fd, 16);
        for (const pid_t child : daemon.Children()) {
            kill(child, signal);
        }
        EXPECT_TRUE(AtEnd(fd));
        close(fd);
    }
    EXPECT_TRUE(IsSocket(daemon.socket())) << "a handler does not remove it";
    EXPECT_EQ(0, daemon.Client("true").exitStatus());
}

TEST(DaemonTest, OutlivesTheReaderOfItsLog) {
    Daemon::Options options;
    options.logToPipe = true;
    Daemon daemon{options};
    daemon.CloseLog();
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(i, daemon.Client("exit " + std::to_string(i)).exitStatus());
    }
    EXPECT_EQ(255, daemon.Client("kill -PIPE $$").exitStatus()) << "commands do not ignore it";
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
}

// Without a free descriptor the client waits in the queue; the daemon says so once and rests.
TEST(DaemonTest, WaitsForRoomWhenDescriptorsRunOut) {
    Daemon daemon;
    rlimit before;
    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &before));
    const rlimit full{static_cast<rlim_t>(daemon.Descriptors()), before.rlim_max};
    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, &full, nullptr));
    const int fd = ConnectTo(daemon.socket());
    ASSERT_LE(0, fd);
    ASSERT_TRUE(Put(fd, CommandPkg("exit 8")));
    EXPECT_TRUE(daemon.Logs("TALVEK,"));
    EXPECT_TRUE(daemon.Logs("[" + daemon.socket() + "] : accept() failed : Too many open files\n"));
    const long ticks = Ticks(daemon.pid());
    EXPECT_TRUE(Quiet(fd, 500));
    EXPECT_GE(5, Ticks(daemon.pid()) - ticks) << "of 50 in that time";
    EXPECT_EQ(1u, CountIn(daemon.log(), "accept() failed"));

    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, &before, nullptr));
    EXPECT_EQ(8u, U32(Take(fd, 20), 16)) << "served as soon as there is room";
    close(fd);

    // The next time is told again, and a signal ends the rest.
    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, &full, nullptr));
    const int next = ConnectTo(daemon.socket());
    EXPECT_TRUE(Eventually([&] { return CountIn(daemon.log(), "accept() failed") == 2; }));
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
    EXPECT_FALSE(Exists(daemon.socket()));
    close(next);
}

// A starter that leaves more descriptors open than select has bits for: listener, handler and
// client have their sockets beyond them.
TEST(DaemonTest, ServesBehindAThousandOpenDescriptors) {
    constexpr int kMany = FD_SETSIZE + 16;
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_max < kMany + 100) {
        GTEST_SKIP() << "no process may have so many descriptors here";
    }
    limit.rlim_cur = kMany + 100;
    const auto openMany = [limit] {
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int fd = 3; fd < kMany; ++fd) {
            dup2(STDIN_FILENO, fd);
        }
    };
    Daemon::Options options;
    options.prepare = openMany;
    Daemon daemon{options};
    EXPECT_LT(kMany, daemon.Descriptors());
    const long ticks = Ticks(daemon.pid());
    usleep(300 * 1000);
    EXPECT_GE(5, Ticks(daemon.pid()) - ticks) << "of 30 in that time";
    const Outcome client = RunProgram({"-C", "-f", "exit 24", "-s", daemon.socket()}, openMany);
    EXPECT_EQ(24, client.exitStatus()) << client.output;
    EXPECT_EQ(0u, CountIn(daemon.log(), "select("));
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
    EXPECT_FALSE(Exists(daemon.socket()));
}

// A daemon of an ordinary user who may have three processes: itself and two handlers.
TEST(DaemonTest, AFailedForkClosesTheConnectionAlone) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user who runs nothing else";
    }
#ifdef __arm__
    GTEST_SKIP() << "the emulator starts threads of its own, which count as processes";
#endif
    const TempDir dir;
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    Daemon::Options options;
    options.dir = &dir;
    options.prepare = [] { BecomeUserWith(3); };
    const Daemon daemon{options};
    const int first = ConnectTo(daemon.socket());
    const int second = ConnectTo(daemon.socket());
    ASSERT_TRUE(Eventually([&] { return daemon.Children().size() == 2; }));
    const int third = ConnectTo(daemon.socket());
    EXPECT_TRUE(AtEnd(third));
    EXPECT_TRUE(daemon.Logs("Can't fork() child : Resource temporarily unavailable\n"));
    close(first);
    close(second);
    close(third);
    ASSERT_TRUE(Eventually([&] { return daemon.Children().empty(); }));
    EXPECT_EQ(9, daemon.Client("exit 9").exitStatus());
}

}  // namespace
