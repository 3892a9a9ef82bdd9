// The listening process: its socket, its children, its signals.

#include "service/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "service/client.h"
#include "service/handler.h"
#include "service/internal/session_table.h"
#include "service/session.h"
#include "service/support/program.h"
#include "service/support/waits.h"
#include "service/support/wire.h"
#include "support/capture.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

// For a daemon in a child of this program: the calls that fail or raise a signal, and what it did.
// In shared memory.
struct Script {
    int failingAccepts = 0;
    int acceptError = 0;
    int signalAfterAccept = 0;
    int signalAfterBind = 0;

    unsigned addressRoom = 0;  // bytes for the client's address
    int rounds = 0;
    int pauses = 0;
    int pausesMs[16] = {};
    std::atomic<int> closes = 0;  // of connections, by the daemon
    int logged = 0;               // bytes of the log that nobody had read at the last one
};
Script *g_script = nullptr;
bool g_scripted = false;  // in the daemon and its children

// In a child of the daemon: the handler's argument, and what it found when it ran.
tTalvekClient g_handled = {};
int g_listening = -1;  // number of listening sockets
int g_session = -1;    // the number that it would register; -1 also when the table is locked

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

#if __SIZEOF_POINTER__ == 4
#define REAL_NANOSLEEP __real___nanosleep64
#define WRAP_NANOSLEEP __wrap___nanosleep64
#else
#define REAL_NANOSLEEP __real_nanosleep
#define WRAP_NANOSLEEP __wrap_nanosleep
#endif

extern "C" {
int __wrap_TALVEK_DaemonHandler(tTalvekClient *pClient);
int __real_accept4(int fd, sockaddr *pPeer, socklen_t *pLength, int flags);
int __wrap_accept4(int fd, sockaddr *pPeer, socklen_t *pLength, int flags);
int __real_bind(int fd, const sockaddr *pAddress, socklen_t length);
int __wrap_bind(int fd, const sockaddr *pAddress, socklen_t length);
int __real_COM_CloseFd(int *pFd);
int __wrap_COM_CloseFd(int *pFd);
int REAL_NANOSLEEP(const timespec *pTime, timespec *pLeft);
int WRAP_NANOSLEEP(const timespec *pTime, timespec *pLeft);
}

int __wrap_accept4(int fd, sockaddr *pPeer, socklen_t *pLength, int flags) {
    if (g_scripted && g_script->failingAccepts > 0) {
        --g_script->failingAccepts;
        errno = g_script->acceptError;
        return -1;
    }
    if (g_scripted) {
        g_script->addressRoom = *pLength;
    }
    const int client = __real_accept4(fd, pPeer, pLength, flags);
    if (g_scripted && g_script->signalAfterAccept != 0) {
        raise(g_script->signalAfterAccept);
    }
    return client;
}

int __wrap_bind(int fd, const sockaddr *pAddress, socklen_t length) {
    const int result = __real_bind(fd, pAddress, length);
    if (g_scripted && result == 0 && g_script->signalAfterBind != 0) {
        raise(g_script->signalAfterBind);
    }
    return result;
}

int __wrap_COM_CloseFd(int *pFd) {
    if (g_scripted && *pFd >= 0) {
        ioctl(STDOUT_FILENO, FIONREAD, &g_script->logged);
        ++g_script->closes;
    }
    return __real_COM_CloseFd(pFd);
}

int WRAP_NANOSLEEP(const timespec *pTime, timespec *pLeft) {
    if (!g_scripted) {
        return REAL_NANOSLEEP(pTime, pLeft);
    }
    const auto at = static_cast<size_t>(g_script->pauses++);
    g_script->pausesMs[at % 16] =
        static_cast<int>(pTime->tv_sec * 1000 + pTime->tv_nsec / 1'000'000);
    return 0;
}

// Replaces the handler and serves nothing. The daemon does not use the result.
int __wrap_TALVEK_DaemonHandler(tTalvekClient *pClient) {
    g_handled = *pClient;
    g_listening = CountListening();
    if (talvek::SessionMutex().TryLock()) {
        talvek::SessionMutex().Unlock();
        g_session = TALVEK_RegSession();
    }
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

// A command that waits for a file, longer than a test waits for anything.
std::string Until(const std::string &path) {
    return "for i in $(seq 10000); do test -e " + path + " && break; sleep 0.01; done; ";
}

// Runs a command, which may be longer than the program's limit, and returns its status.
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
    const std::vector<pid_t> children = daemon.Children();
    ASSERT_EQ(1u, children.size());
    close(fd);
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); }));
    const std::string line = ": PID[" + std::to_string(daemon.pid()) + "][" +
                             std::to_string(children[0]) + "] fork() to handle client()\n";
    EXPECT_TRUE(daemon.Logs(line));
    EXPECT_EQ(1u, CountIn(daemon.log(), "fork()"));
}

TEST(DaemonTest, ServesClientsSideBySide) {
    const Daemon daemon;
    const std::string go = daemon.dir() / "go";
    const int slow = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(slow, CommandPkg(Until(go))));
    const int silent = ConnectTo(daemon.socket());
    EXPECT_EQ(5, daemon.Client("exit 5").exitStatus());
    EXPECT_TRUE(Quiet(slow)) << "still at its command";
    WriteFile(go, "");
    EXPECT_EQ(Hex(ResultPkg(0, 0, 1)), Hex(Take(slow, 20)));
    EXPECT_TRUE(Eventually([&] { return daemon.Children().size() == 2; }));
    close(slow);
    close(silent);
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); })) << "and no zombie";
}

// Every child starts with session 0, sequence number 0 and the daemon's environment.
TEST(DaemonTest, ClientsDoNotAffectEachOther) {
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

// What a child of the daemon reports after TALVEK_Daemon has returned in it.
struct Returned {
    int result;
    pid_t parent;
    tTalvekClient client;
    bool connected;  // the client's descriptor is open
    int listening;   // sockets that listened while the handler ran
    int session;     // what the handler would register
    long drawn;      // the next random number
    bool blocked;    // a signal that the daemon's starter had blocked
    bool ends;       // SIGTERM has its default action
};

// Leaves the session table as a process might that has used it: locked, and without a free number.
void UseUpSessions() {
    talvek::SessionMutex().Lock();
    for (uint32_t session = 0; session < TALVEK_SESSIONS; ++session) {
        talvek::SessionSlot(session) = 1;
    }
}

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
            signal(SIGTERM, SIG_IGN);
            sigset_t mask;
            sigemptyset(&mask);
            sigaddset(&mask, SIGUSR2);
            sigprocmask(SIG_BLOCK, &mask, nullptr);
            alarm(60);
            UseUpSessions();
            Returned returned = {};
            returned.result = TALVEK_Daemon(path.c_str());
            sigprocmask(SIG_BLOCK, nullptr, &mask);
            returned.blocked = sigismember(&mask, SIGUSR2) != 0;
            struct sigaction action;
            sigaction(SIGTERM, nullptr, &action);
            returned.ends = action.sa_handler == SIG_DFL;
            returned.parent = getppid();
            returned.client = g_handled;
            returned.connected = fcntl(g_handled.fd, F_GETFD) != -1;
            returned.listening = g_listening;
            returned.session = g_session;
            returned.drawn = random();
            const bool sent = write(ends[1], &returned, sizeof returned) == sizeof returned;
            _exit(sent ? 0 : 1);
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
            EXPECT_EQ(0, returned.session) << "the daemon frees all numbers and the mutex";
            EXPECT_FALSE(returned.blocked);
            EXPECT_TRUE(returned.ends);
            // The generator was seeded with the time of the start.
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

// While the daemon accepts nobody, Linux queues one client more than the backlog of 1
// (net/unix/af_unix.c: unix_recvq_full); the next one gets EAGAIN.
TEST(DaemonTest, QueuesTwoClientsWhileItIsBusy) {
    const Daemon daemon;
    ASSERT_EQ(0, kill(daemon.pid(), SIGSTOP));
    ASSERT_TRUE(Eventually([&] { return StateOf(daemon.pid()) == 'T'; }));
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

TEST(DaemonTest, RemovesTheFileAtItsPath) {
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

// The target of a link is removed, the link stays, and a socket cannot be bound to it.
TEST(DaemonTest, FollowsALinkToTheFileThatItRemoves) {
    const TempDir dir;
    WriteFile(dir / "target", "");
    ASSERT_EQ(0, symlink((dir / "target").c_str(), (dir / "socket").c_str()));
    Daemon::Options options;
    options.dir = &dir;
    options.waitForSocket = false;
    const Daemon daemon{options};
    EXPECT_TRUE(daemon.Logs(", " + std::to_string(daemon.socket().size() + 2) +
                            ") failed : " + ProgramErrorText(EADDRINUSE) + "\n"));
    EXPECT_FALSE(Exists(dir / "target"));
    EXPECT_TRUE(Exists(dir / "socket"));
}

TEST(DaemonTest, AFailedBindRemovesNothing) {
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
        for (int start = 0; start < 2; ++start) {  // the second finds the socket of the first
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

TEST(DaemonTest, UsesTheDefaultPathForNull) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/var");
        ASSERT_EQ(0, mkdir("/var/run", 0755));
        Capture([] {
            const pid_t daemon = fork();
            if (daemon == 0) {
                signal(SIGCHLD, SIG_IGN);
                alarm(60);
                TALVEK_Daemon(nullptr);
                _exit(0);
            }
            EXPECT_TRUE(Eventually([] {
                const int fd = ConnectTo(TALVEK_SOCKET_PATH);
                close(fd);
                return fd >= 0;
            }));
            kill(daemon, SIGTERM);
            EXPECT_TRUE(EndedBy(WaitFor(daemon), SIGTERM));
        });
        EXPECT_FALSE(Exists(TALVEK_SOCKET_PATH));
    });
}

// The kernel would choose an address that no client knows.
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
    EXPECT_EQ("0\n1\n2\n3\n", ReadFile(path)) << "3 is that of ls itself";
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
        {"-C", "-s", daemon.socket(), "-f", "echo $PPID $$ >x; mv x mark; exec sleep 1000"},
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
    // Nothing else ends the command.
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

// ---- Signals ----

void BlockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
}

// Signals that the daemon's starter has blocked.
TEST(DaemonTest, HandlersAndCommandsStartWithAnEmptySignalMask) {
    Daemon::Options options;
    options.prepare = BlockAllSignals;
    const Daemon daemon{options};
    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, RegisterPkg()));
    Take(fd, 16);
    const std::vector<pid_t> handlers = daemon.Children();
    ASSERT_EQ(1u, handlers.size());
    EXPECT_EQ(0u, SignalMask("/proc/" + std::to_string(handlers[0]) + "/status", "SigBlk:"));
    const std::string status = daemon.dir() / "status";
    ASSERT_TRUE(Put(fd, CommandPkg("exec cat /proc/self/status >" + status)));
    EXPECT_EQ(0u, U32(Take(fd, 20), 16));
    EXPECT_EQ(0u, SignalMask(status, "SigBlk:"));
    close(fd);
}

// As nohup starts it.
TEST(DaemonTest, SignalsThatItsStarterIgnoresStayIgnoredInCommands) {
    if (Emulated()) {
        GTEST_SKIP() << "an emulator has a handler for an ignored signal, which execution resets";
    }
    Daemon::Options options;
    options.prepare = [] { signal(SIGHUP, SIG_IGN); };
    const Daemon daemon{options};
    const std::string status = daemon.dir() / "status";
    EXPECT_EQ(0, Ask(daemon, "cat /proc/self/status >" + status));
    EXPECT_EQ(SignalBits({SIGHUP}), SignalMask(status, "SigIgn:") & SignalBits({SIGHUP}));
}

class StoppingSignal : public ::testing::TestWithParam<int> {};

const auto kSignalName = [](const ::testing::TestParamInfo<int> &param) {
    return std::string{param.param == SIGTERM ? "Term" : "Int"};
};
INSTANTIATE_TEST_SUITE_P(Each, StoppingSignal, ::testing::Values(SIGTERM, SIGINT), kSignalName);

TEST_P(StoppingSignal, RemovesTheSocketAndEndsByTheSignal) {
    Daemon daemon;
    const std::string path = daemon.socket();
    EXPECT_EQ(0, daemon.Client("true").exitStatus());
    const int status = daemon.Stop(GetParam());
    EXPECT_TRUE(EndedBy(status, GetParam()));
    EXPECT_FALSE(Exists(path));
}

TEST_P(StoppingSignal, EndsADaemonWhoseStarterIgnoredIt) {
    Daemon::Options options;
    options.prepare = [] {
        signal(SIGTERM, SIG_IGN);
        signal(SIGINT, SIG_IGN);
    };
    Daemon daemon{options};
    const std::string path = daemon.dir() / "status";
    EXPECT_EQ(0, Ask(daemon, "cat /proc/self/status >" + path));
    const uint64_t bits = SignalBits({SIGTERM, SIGINT, SIGPIPE, SIGXFSZ, SIGCHLD});
    EXPECT_EQ(0u, SignalMask(path, "SigIgn:") & bits)
        << "commands start with their default actions";
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_FALSE(Exists(daemon.socket()));
}

TEST_P(StoppingSignal, EndsADaemonWhoseStarterBlockedIt) {
    Daemon::Options options;
    options.prepare = BlockAllSignals;
    Daemon daemon{options};

    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, RegisterPkg()));
    Take(fd, 16);
    for (const pid_t child : daemon.Children()) {
        kill(child, GetParam());
    }
    EXPECT_TRUE(AtEnd(fd)) << "it ends handlers too";
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

TEST_P(StoppingSignal, EndsADaemonWhoseSocketWasRemoved) {
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
    EXPECT_TRUE(Quiet(fd));
    WriteFile(go, "");
    EXPECT_EQ(Hex(ResultPkg(44, 0, 1)), Hex(Take(fd, 20)));
    close(fd);
    EXPECT_TRUE(Eventually([&] { return Gone(handlers[0]); }))
        << "the handler ends with its client";
    // An emulator may have given it to another parent.
    if (int status = 0; waitpid(handlers[0], &status, 0) == handlers[0]) {
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(255, WEXITSTATUS(status)) << "of TALVEK_Daemon's -1";
    }
}

// While a client is always waiting, the daemon never sleeps.
TEST_P(StoppingSignal, EndsADaemonUnderSteadyLoad) {
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

TEST_P(StoppingSignal, EndsADaemonWhoseLogIsStalled) {
    Daemon::Options options;
    options.logToPipe = true;
    Daemon daemon{options};
    daemon.StallLog();
    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, CommandPkg("exit 6")));
    EXPECT_TRUE(BlockedOn(daemon.pid(), STDOUT_FILENO)) << "logs the fork";
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_FALSE(Exists(daemon.socket()));
    EXPECT_TRUE(Eventually([&] {
        daemon.DrainLog();
        return !Quiet(fd);
    })) << "the client is served all the same";
    EXPECT_EQ(6u, U32(Take(fd, 20), 16));
    close(fd);
}

// The log is a terminal, which its user has stopped with ^S.
TEST_P(StoppingSignal, EndsADaemonAndAHandlerWhoseTerminalIsStopped) {
    Daemon::Options options;
    options.logToTerminal = true;
    Daemon daemon{options};
    daemon.ControlTerminal(TCOOFF);
    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, CommandPkg("exit 6")));
    EXPECT_TRUE(BlockedOn(daemon.pid(), STDOUT_FILENO)) << "logs the fork";
    const std::vector<pid_t> handlers = daemon.Children();
    ASSERT_EQ(1u, handlers.size());
    EXPECT_TRUE(BlockedOn(handlers[0], STDOUT_FILENO)) << "logs the command";
    EXPECT_TRUE(Quiet(fd));
    kill(handlers[0], GetParam());
    EXPECT_TRUE(AtEnd(fd));
    close(fd);
    EXPECT_TRUE(EndedBy(daemon.Stop(GetParam()), GetParam()));
    EXPECT_FALSE(Exists(daemon.socket()));
}

TEST(DaemonTest, CallsWaitUntilAStoppedTerminalGoesOn) {
    Daemon::Options options;
    options.logToTerminal = true;
    const Daemon daemon{options};
    daemon.ControlTerminal(TCOOFF);
    const int first = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(first, CommandPkg("exit 6")));
    EXPECT_TRUE(BlockedOn(daemon.pid(), STDOUT_FILENO));
    const int second = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(second, CommandPkg("exit 7")));
    EXPECT_TRUE(Quiet(first));
    daemon.ControlTerminal(TCOON);
    EXPECT_EQ(6u, U32(Take(first, 20), 16));
    EXPECT_EQ(7u, U32(Take(second, 20), 16));
    close(first);
    close(second);
}

TEST(DaemonTest, SignalsEndAHandlerAlone) {
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
    EXPECT_TRUE(IsSocket(daemon.socket())) << "only the listening process removes it";
    EXPECT_EQ(0, daemon.Client("true").exitStatus());
}

// The C library's system ignores SIGINT while a command runs.
TEST(DaemonTest, SIGINTEndsNoHandlerWhoseCommandRuns) {
    const Daemon daemon;
    EXPECT_EQ(3, daemon.Client("kill -INT $PPID; exit 3").exitStatus());
}

TEST(DaemonTest, SIGTERMEndsAHandlerAndLeavesItsCommandRunning) {
    const Daemon daemon;
    const TempDir dir;
    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(
        Put(fd, CommandPkg("kill -TERM $PPID; " + Until(dir / "go") + "echo >" + (dir / "done"))));
    EXPECT_TRUE(AtEnd(fd));
    close(fd);
    WriteFile(dir / "go", "");
    EXPECT_TRUE(Eventually([&] { return Exists(dir / "done"); }));
}

TEST(DaemonTest, ServesAfterTheReaderOfItsLogHasClosed) {
    Daemon::Options options;
    options.logToPipe = true;
    Daemon daemon{options};
    daemon.CloseLog();
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(i, daemon.Client("exit " + std::to_string(i)).exitStatus());
    }
    EXPECT_EQ(255, daemon.Client("kill -PIPE $$").exitStatus()) << "commands do not ignore SIGPIPE";
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
}

// A few lines fill the log up to the limit; the next ones are lost.
TEST(DaemonTest, ServesAfterItsLogHasReachedTheLimitOfAFilesSize) {
    static constexpr rlim_t kLimit = 1024;
    Daemon::Options options;
    options.prepare = [] {
        const rlimit limit{kLimit, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    Daemon daemon{options};
    for (int i = 1; i <= 20; ++i) {
        EXPECT_EQ(i, daemon.Client("exit " + std::to_string(i)).exitStatus());
    }
    EXPECT_EQ(kLimit, daemon.log().size());
    const std::string file = daemon.dir() / "file";
    EXPECT_EQ(-1, Ask(daemon, "exec head -c 4096 /dev/zero >" + file))
        << "a signal kills a command at the limit";
    EXPECT_EQ(kLimit, ReadFile(file).size());
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
    EXPECT_FALSE(Exists(daemon.socket()));
}

TEST(DaemonTest, ServesWhileTheDiskOfItsLogIsFull) {
    const TempDir dir;
    RunInPrivateWorld(kMounts | kPids, [&dir] {
        MountTmpfs(dir.path(), "size=64k");
        Daemon::Options options;
        options.dir = &dir;
        Daemon daemon{options};
        const std::string path = dir / "log";
        const int log = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        // Whole pages first, then what is left of the last one.
        for (const size_t size : {size_t{4096}, size_t{1}}) {
            while (write(log, std::string(size, '.').data(), size) > 0) {
            }
            EXPECT_EQ(ENOSPC, errno);
        }
        const size_t full = daemon.log().size();
        for (int i = 1; i <= 20; ++i) {
            EXPECT_EQ(i, daemon.Client("exit " + std::to_string(i)).exitStatus());
        }
        EXPECT_EQ(full, daemon.log().size());

        ASSERT_EQ(0, ftruncate(log, 0));
        close(log);
        EXPECT_EQ(21, daemon.Client("exit 21").exitStatus());
        EXPECT_TRUE(daemon.Logs("Command => [exit 21]\n"));
        EXPECT_EQ(std::string::npos, daemon.log().find("[exit 20]")) << "lost lines stay lost";
        EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
        EXPECT_FALSE(Exists(daemon.socket()));
    });
}

TEST(DaemonTest, ServesWithinSmallLimits) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs more memory";
#endif
    Daemon::Options options;
    options.prepare = [] {
        const std::pair<__rlimit_resource, rlim_t> limits[] = {{RLIMIT_STACK, 128 * 1024},
                                                               {RLIMIT_DATA, 1024 * 1024},
                                                               {RLIMIT_CORE, 0},
                                                               {RLIMIT_MEMLOCK, 0},
                                                               {RLIMIT_SIGPENDING, 0}};
        for (const auto &[resource, most] : limits) {
            const rlimit limit{most, most};
            if (setrlimit(resource, &limit) != 0) {
                _exit(125);
            }
        }
    };
    Daemon daemon{options};
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(i, daemon.Client("exit " + std::to_string(i)).exitStatus());
    }
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
    EXPECT_FALSE(Exists(daemon.socket()));
}

// The daemon blocks in the log line about the fork. Neither the end of the handler nor that of the
// daemon may depend on the reader.
TEST(DaemonTest, AHandlerEndsWhileTheLogIsStalled) {
    Daemon::Options options;
    options.logToPipe = true;
    Daemon daemon{options};
    daemon.StallLog();
    const int fd = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(fd, RegisterPkg()));
    EXPECT_EQ(Hex(RegisterPkg()), Hex(Take(fd, 16)));
    EXPECT_TRUE(BlockedOn(daemon.pid(), STDOUT_FILENO)) << "logs the fork";
    ASSERT_TRUE(Put(fd, CommandPkg("true")));
    const std::vector<pid_t> handlers = daemon.Children();
    ASSERT_EQ(1u, handlers.size());
    EXPECT_TRUE(BlockedOn(handlers[0], STDOUT_FILENO)) << "logs the command";
    kill(handlers[0], SIGTERM);
    EXPECT_TRUE(AtEnd(fd));
    close(fd);

    // The daemon goes on when its log is read again.
    const int next = ConnectTo(daemon.socket());
    ASSERT_TRUE(Put(next, CommandPkg("exit 9")));
    EXPECT_TRUE(Eventually([&] {
        daemon.DrainLog();
        return !Quiet(next);
    }));
    EXPECT_EQ(9u, U32(Take(next, 20), 16));
    close(next);
}

// Without a free descriptor the client waits in the queue, and the failure is logged once.
TEST(DaemonTest, ServesWaitingClientsWhenADescriptorIsFreeAgain) {
    Daemon daemon;
    rlimit before;
    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &before));
    const rlimit full{static_cast<rlim_t>(daemon.Descriptors()), before.rlim_max};
    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, &full, nullptr));
    const int fd = ConnectTo(daemon.socket());
    ASSERT_LE(0, fd);
    ASSERT_TRUE(Put(fd, CommandPkg("exit 8")));
    EXPECT_TRUE(daemon.Logs("TALVEK,"));
    EXPECT_TRUE(daemon.Logs("[" + daemon.socket() +
                            "] : accept() failed : " + ProgramErrorText(EMFILE) + "\n"));
    EXPECT_TRUE(Quiet(fd));

    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, &before, nullptr));
    EXPECT_EQ(8u, U32(Take(fd, 20), 16));
    EXPECT_EQ(1u, CountIn(daemon.log(), "accept() failed"));
    close(fd);

    // After a success the next failure is logged at once. A signal ends the pause.
    ASSERT_EQ(0, prlimit(daemon.pid(), RLIMIT_NOFILE, &full, nullptr));
    const int next = ConnectTo(daemon.socket());
    EXPECT_TRUE(Eventually([&] { return CountIn(daemon.log(), "accept() failed") == 2; }));
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
    EXPECT_FALSE(Exists(daemon.socket()));
    close(next);
}

// A starter that leaves more than FD_SETSIZE descriptors open, for which select has no bits.
TEST(DaemonTest, ServesWithSocketsAboveFdSetsize) {
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
    const Outcome client = RunProgram({"-C", "-f", "exit 24", "-s", daemon.socket()}, openMany);
    EXPECT_EQ(24, client.exitStatus()) << client.output;
    EXPECT_EQ(0u, CountIn(daemon.log(), "select("));
    EXPECT_TRUE(EndedBy(daemon.Stop(SIGTERM), SIGTERM));
    EXPECT_FALSE(Exists(daemon.socket()));
}

// A user who may have so many processes, the daemon among them.
class DaemonOfAUser : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) {
            GTEST_SKIP() << "needs root, to become a user without other processes";
        }
        if (Emulated()) {
            GTEST_SKIP() << "the threads of an emulator count as processes";
        }
        ASSERT_EQ(0, chmod(dir_.path().c_str(), 0777));
    }

    [[nodiscard]] Daemon::Options With(unsigned processes) const {
        Daemon::Options options;
        options.dir = &dir_;
        options.prepare = [processes] {
            setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the leak check needs a process
            BecomeUserWith(processes);
        };
        return options;
    }

  private:
    const TempDir dir_;
};

// The third process is the second handler.
TEST_F(DaemonOfAUser, AFailedForkClosesThatConnectionOnly) {
    const Daemon daemon{With(3)};
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

// The second process is the handler; there is none for a shell.
TEST_F(DaemonOfAUser, AClientWhoseCommandFindsNoProcessEndsWith255) {
    const Daemon daemon{With(2)};
    EXPECT_EQ(255, daemon.Client("exit 3").exitStatus());
    EXPECT_TRUE(daemon.Logs("some error is occured in that shell command\n"));
}

// ---- A daemon in a child of this program ----

// Its handlers are replaced, and the script in shared memory says what its system calls do.
class ScriptedDaemon : public ::testing::TestWithParam<int> {
  protected:
    ScriptedDaemon() {
        void *pShared = mmap(nullptr, sizeof(Script), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        g_script = new (pShared) Script{};
        EXPECT_EQ(0, pipe2(log_, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(served_, O_CLOEXEC));
    }
    ~ScriptedDaemon() override {
        munmap(std::exchange(g_script, nullptr), sizeof(Script));
        for (const int fd : {log_[0], log_[1], served_[0], served_[1]}) {
            close(fd);
        }
    }

    // The starter has blocked all signals.
    void Start(const std::function<void()> &prepare = {}) {
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            g_scripted = true;
            alarm(60);
            dup2(log_[1], STDOUT_FILENO);
            signal(SIGCHLD, SIG_IGN);
            BlockAllSignals();
            if (prepare) {
                prepare();
            }
            TALVEK_Daemon(path().c_str());
            // In a child, after its handler.
            for (const Waits::Wait &wait : Waits::TimedOut()) {
                g_script->rounds += wait == Waits::Wait{POLLIN, 5000};
            }
            const char served = 's';
            _exit(write(served_[1], &served, 1) == 1 ? 0 : 1);
        }
    }
    void Connect() {
        EXPECT_TRUE(Eventually([&] {
            const int fd = ConnectTo(path());
            close(fd);  // the handler serves nothing
            return fd >= 0;
        }));
    }
    bool HasServed() { return Take(served_[0], 1) == "s"; }
    bool BlocksInItsLog() { return BlockedOn(pid_, STDOUT_FILENO); }
    // The rest of the log; only after the daemon has ended.
    std::string Log() { return Take(log_[0], 64 * 1024); }
    // Reads the log up to a text.
    bool ReadLogTo(const std::string &text) {
        std::string log;
        while (log.find(text) == std::string::npos) {
            const std::string next = Take(log_[0], 1);
            if (next.empty()) {
                return false;
            }
            log += next;
        }
        return true;
    }
    ::testing::AssertionResult EndsBy(int signal) {
        kill(pid_, signal);
        const ::testing::AssertionResult ended = EndedBy(WaitFor(pid_), signal);
        close(std::exchange(log_[1], -1));
        return ended;
    }
    [[nodiscard]] std::string path() const { return dir_ / "socket"; }

    TempDir dir_;
    int log_[2] = {-1, -1};
    int served_[2] = {-1, -1};
    pid_t pid_ = -1;
};

TEST_F(ScriptedDaemon, WaitsInRoundsOfFiveSecondsAndDoesNotLogThem) {
    Start([] { Waits::TimeOut(3); });
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_EQ(3, g_script->rounds);
    EXPECT_EQ(110u, g_script->addressRoom) << "sun_family and sun_path";
    EXPECT_TRUE(EndsBy(SIGTERM));
    EXPECT_EQ(std::string::npos, Log().find("select("));
}

TEST_F(ScriptedDaemon, DoublesItsPauseWhileThereIsNoRoomForAClient) {
    g_script->failingAccepts = 8;
    g_script->acceptError = EMFILE;
    Start();
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_EQ(8, g_script->pauses);
    const int expected[] = {10, 20, 40, 80, 160, 320, 640, 1000};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(expected[i], g_script->pausesMs[i]);
    }
    EXPECT_TRUE(EndsBy(SIGTERM));
    EXPECT_EQ(1u, CountIn(Log(), "accept() failed : Too many open files"));
}

TEST_F(ScriptedDaemon, LogsTheForkBeforeItClosesTheConnection) {
    Start();
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_TRUE(Eventually([] { return g_script->closes == 1; }));
    EXPECT_TRUE(EndsBy(SIGTERM));
    const std::string log = Log();
    EXPECT_TRUE(log.ends_with("] fork() to handle client()\n")) << log;
    EXPECT_EQ(log.size(), static_cast<size_t>(g_script->logged));
}

// Else the client would not notice its handler's end.
TEST_F(ScriptedDaemon, ClosesTheConnectionBeforeItLogsTheForkWhenTheLogIsStalled) {
    Start();
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_TRUE(ReadLogTo("fork() to handle client()\n"));
    FillPipe(log_[1]);
    int full = 0;
    ASSERT_EQ(0, ioctl(log_[0], FIONREAD, &full));
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_TRUE(Eventually([] { return g_script->closes == 2; }));
    EXPECT_EQ(full, g_script->logged);
    EXPECT_TRUE(BlocksInItsLog());
    EXPECT_TRUE(EndsBy(SIGTERM));
}

INSTANTIATE_TEST_SUITE_P(Each, ScriptedDaemon, ::testing::Values(SIGTERM, SIGINT), kSignalName);

// The signal arrives before the daemon has noted that the socket is its own.
TEST_P(ScriptedDaemon, RemovesASocketThatItHasBoundBeforeASignalEndsIt) {
    g_script->signalAfterBind = GetParam();
    Start();
    EXPECT_TRUE(EndedBy(WaitFor(pid_), GetParam()));
    EXPECT_FALSE(Exists(path()));
}

// The signal arrives between accept and fork.
TEST_P(ScriptedDaemon, ServesAClientThatItHasAcceptedBeforeASignalEndsIt) {
    g_script->signalAfterAccept = GetParam();
    Start();
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_TRUE(EndedBy(WaitFor(pid_), GetParam()));
    EXPECT_FALSE(Exists(path()));
}

// The next tests stop the reader of the log. A signal must end the daemon wherever it then blocks.

TEST_P(ScriptedDaemon, EndsWhileItLogsThatThereIsNoOldSocket) {
    FillPipe(log_[1]);
    Start();
    EXPECT_TRUE(BlocksInItsLog());
    EXPECT_TRUE(EndsBy(GetParam()));
    EXPECT_FALSE(Exists(path()));
}

TEST_P(ScriptedDaemon, EndsWhileItLogsAFork) {
    Start();
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_TRUE(ReadLogTo("fork() to handle client()\n"));
    FillPipe(log_[1]);
    Connect();
    EXPECT_TRUE(HasServed());
    EXPECT_TRUE(BlocksInItsLog());
    EXPECT_TRUE(EndsBy(GetParam()));
    EXPECT_FALSE(Exists(path()));
}

// The log fills up with messages of the failing call.
TEST_P(ScriptedDaemon, EndsWhileItLogsAFailedWait) {
    Start([] { Waits::Fail(EINVAL); });
    EXPECT_TRUE(BlocksInItsLog());
    EXPECT_TRUE(EndsBy(GetParam()));
    EXPECT_FALSE(Exists(path()));
    EXPECT_LT(100u, CountIn(Log(), "error : Invalid argument\n"));
}

TEST_P(ScriptedDaemon, EndsWhileItLogsAFailedAccept) {
    g_script->failingAccepts = 1'000'000;
    g_script->acceptError = EPROTO;
    Start();
    Connect();
    EXPECT_TRUE(Eventually([&] { return g_script->failingAccepts < 1'000'000; }));
    EXPECT_TRUE(BlocksInItsLog());
    EXPECT_TRUE(EndsBy(GetParam()));
    EXPECT_FALSE(Exists(path()));
    EXPECT_LT(100u, CountIn(Log(), "accept() failed : Protocol error\n"));
}

}  // namespace
