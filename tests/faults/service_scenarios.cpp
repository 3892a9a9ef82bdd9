// Scenarios of service/: a client, a handler, a listener, and the program's two modes.

#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "faults/harness.h"
#include "faults/wrappers.h"
#include "service/TALVEK.h"
#include "service/support/wire.h"
#include "support/private_world.h"

// The program's main, which is compiled under this name.
int TalvekMain(int argc, char **argv);

namespace talvek::faults {
namespace {

using namespace std::string_literals;
using test::CommandPkg;
using test::ConnectTo;
using test::Put;
using test::RegisterPkg;
using test::ResultPkg;
using test::Take;
using test::TakePkg;
using test::U32;

std::string g_path = "/tmp/talvek.sock";
std::string g_tooMuch;  // of the path that the daemon is given
constexpr const char *kSocket = "/tmp/talvek.sock";
int g_pair[2] = {-1, -1};
std::string g_reply;

// A daemon that answers each client with 5.
void StartAnswering() {
    const int listener = test::ListenAt(kSocket);
    StartPeer([listener] {
        for (;;) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            Put(fd, TakePkg(fd));
            TakePkg(fd);
            Put(fd, ResultPkg(5));
            close(fd);
        }
    });
    close(listener);
}

void StartClient(const std::string &bytes) {
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pair) == 0);
    Put(g_pair[1], bytes);
    shutdown(g_pair[1], SHUT_WR);
}

long Handle() {
    tTalvekClient client = {};
    client.fd = dup(g_pair[0]);
    const int result = TALVEK_DaemonHandler(&client);
    if (client.fd >= 0) {  // the caller's, after -1 alone
        CHECK(result == -1);
        close(client.fd);
    }
    return result;
}

void TakeReply(long /*result*/) {
    shutdown(g_pair[0], SHUT_WR);
    g_reply = Take(g_pair[1], 4096);
}

// The status is 127 when the shell cannot be executed, and then only.
void CheckNoShell(long result) {
    const bool noShell =
        FailsWith(ENOENT) || FailsWith(EACCES) || FailsWith(ENOEXEC) || FailsWith(E2BIG);
    CHECK((result == 127) == noShell);
}

// Whether no failure of the plan is for ever.
bool Passes() {
    for (int i = 0; i < g_run->planned; ++i) {
        if (g_run->plan[i].until == UINT32_MAX) {
            return false;
        }
    }
    return true;
}

constexpr int kNobodyListens = -2;

// The result of a command that the daemon at g_path runs, kNobodyListens, or -1 without an answer.
int Ask(int ms) {
    // The queue of a listener that accepts nobody is full soon, and connect must not wait then.
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = test::AddressOf(g_path);
    int result = -1;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        result = errno == EAGAIN ? -1 : kNobodyListens;
    } else if (Put(fd, CommandPkg("exit 6"))) {
        pollfd entry = {fd, POLLIN, 0};
        if (poll(&entry, 1, ms) > 0) {
            const std::string reply = Take(fd, 20);
            result = reply.size() == 20 ? static_cast<int>(U32(reply, 16)) : -1;
        }
    }
    close(fd);
    return result;
}

// Whether a client gets its answer from the daemon; with failures for ever, ten clients try.
bool IsServed(pid_t daemon) {
    // Whether the program's own daemon has ended is not known; it may never listen.
    int waits = daemon > 0 || g_run->planned == 0 ? 2000 : 100;
    for (int tries = Passes() ? 500 : 10; tries > 0 && waits > 0; --waits) {
        const int result = Ask(Passes() ? 1000 : 50);
        if (result == 6) {
            return true;
        }
        tries -= result != kNobodyListens;
        siginfo_t info = {};
        const auto id = static_cast<id_t>(daemon);
        if (daemon > 0 && waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid == daemon) {
            return false;
        }
        usleep(2000);
    }
    return false;
}

// The listener at its end, or a handler at its. A handler has inherited what the listener left over
// from the clients before.
void CheckHeld(const Held &before) {
    const Held now = HeldNow();
    // A handler without memory leaves the connection to its caller. The program opens what seems to
    // be missing of the standard streams.
    CHECK(now.fds == before.fds || FailsIn({"calloc", "fcntl"}));
    CHECK(now.blocks == before.blocks);
}

// 0: served clients and ended by SIGTERM; 1: ended by itself with -1; 2: served nobody.
long RunDaemon() {
    const pid_t daemon = fork();
    if (daemon == 0) {
        signal(SIGCHLD, SIG_IGN);
        const pid_t listener = getpid();
        const Held before = HeldNow();
        const int result = TALVEK_Daemon((g_path + g_tooMuch).c_str());
        CheckHeld(before);
        _exit(getpid() != listener ? 0 : result == -1 ? 77 : 1);
    }
    const bool served = IsServed(daemon);
    if (served && g_run->planned > 0) {
        IsServed(daemon);  // the handler of one more client counts what the failure left over
    }
    kill(daemon, SIGTERM);
    int status = 0;
    waitpid(daemon, &status, 0);
    if (WIFEXITED(status)) {
        CHECK(WEXITSTATUS(status) == 77);
        return WEXITSTATUS(status) == 77 ? 1 : served ? 0 : 2;
    }
    CHECK(WTERMSIG(status) == SIGTERM);
    return served ? 0 : 2;
}

// A socket's file may stay where the call that removes it failed.
void CheckDaemon(long result) {
    CHECK(result != 2 || !Passes());
}

void EndDaemons() {
    pid_t child;
    std::ifstream children{"/proc/thread-self/children"};
    while (children >> child) {
        kill(child, SIGTERM);
    }
}

long RunMain(std::vector<std::string> words) {
    std::vector<char *> arguments;
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    optind = 1;
    const int next = dup(STDIN_FILENO);
    close(next);
    const pid_t self = getpid();
    const Held before = HeldNow();
    const int result = TalvekMain(static_cast<int>(arguments.size()), arguments.data());
    if (getpid() != self) {
        CheckHeld(before);
        _exit(result == -1 ? 0 : 1);
    }
    // What the program opened for standard streams that seemed to be missing stays open.
    for (int fd = next; fd < next + 3 && FailsWith(EBADF); ++fd) {
        close(fd);
    }
    return result;
}

}  // namespace

std::vector<Scenario> ServiceScenarios() {
    return {
        {"TALVEK_Client",
         StartAnswering,
         [] { return long{TALVEK_Client(kSocket, "true")}; },
         {5, -1, 1}},
        {"TALVEK_Client, no daemon",
         nullptr,
         [] { return long{TALVEK_Client("/tmp/none", "true")}; },
         {-1}},
        {"TALVEK_Client, refused",
         nullptr,
         [] {
             const std::string wide(TALVEK_PKG_MAX, 'x');
             return long{TALVEK_Client(kSocket, wide.c_str())};
         },
         {-1}},
        {"handler", [] { StartClient(RegisterPkg("A=1\0B=2\0"s)); }, Handle, {0, 1, -1}, TakeReply},
        {"handler, command",
         [] { StartClient(CommandPkg("exit 3")); },
         Handle,
         {0, 1, -1},
         [](long result) {
             TakeReply(result);
             CHECK(!Undisturbed() || U32(g_reply, 16) == 3);
         }},
        {"handler, unknown package",
         [] {
             test::Pkg package;
             package.type = 9;
             StartClient(package.Bytes());
         },
         Handle,
         {1, 0, -1},
         TakeReply},
        {"handler, too long",
         [] {
             test::Pkg package;
             package.sz = TALVEK_PKG_MAX + 1;
             StartClient(package.Bytes());
         },
         Handle,
         {1, 0, -1},
         TakeReply},
        {"TALVEK_RunCommand",
         nullptr,
         [] { return long{TALVEK_RunCommand("exit 3")}; },
         {3, 127, -1},
         CheckNoShell},
        {"TALVEK_RunCommand, signal",
         nullptr,
         [] { return long{TALVEK_RunCommand("kill -9 $$")}; },
         {-1, 127},
         CheckNoShell},
        {"TALVEK_SendPkg, no socket",
         [] { CHECK(pipe2(g_pair, O_CLOEXEC) == 0); },
         [] {
             tTalvekClient client = {};
             client.fd = g_pair[1];
             tTalvekPkg package = {};
             return long{TALVEK_SendPkg(&client, &package, sizeof package)};
         },
         {0, -1}},
        {"TALVEK_Daemon", nullptr, RunDaemon, {0, 1, 2}, CheckDaemon, {kSocket}},
        {"TALVEK_Daemon, earlier socket",
         [] { close(test::ListenAt(kSocket)); },
         RunDaemon,
         {0, 1, 2},
         CheckDaemon},
        {"TALVEK_Daemon, long path",
         [] {
             g_path = "/tmp/" + std::string(102, 'x');
             close(test::ListenAt(g_path));
             g_tooMuch = "more";
         },
         RunDaemon,
         {0, 1, 2},
         CheckDaemon},
        {"client program",
         StartAnswering,
         [] {
             return RunMain({"talvek", "-C", "-s", kSocket, "-f", "true"});
         },
         {5, -1, 1}},
        {"daemon program",
         nullptr,
         [] {
             const long result = RunMain({"talvek", "-D", "-s", kSocket});
             const bool served = IsServed(0);
             CHECK(served || !Undisturbed());
             EndDaemons();
             return result;
         },
         {0, 1},
         // The program leaves its child to itself, and SIGCHLD ignored.
         [](long /*result*/) {
             while (waitpid(-1, nullptr, 0) > 0) {
             }
             signal(SIGCHLD, SIG_DFL);
         },
         {kSocket}},
        {"program, no mode",
         nullptr,
         [] {
             return RunMain({"talvek", "-f", std::string(100, 'x')});
         },
         {0, 1}},
    };
}

}  // namespace talvek::faults
