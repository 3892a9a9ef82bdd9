#include "service/client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "service/package.h"
#include "service/support/program.h"
#include "service/support/waits.h"
#include "service/support/wire.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

// How many of the client's next writes the socket accepts in part, and what was to be written.
std::vector<size_t> g_accepted;
std::vector<size_t> g_written;

}  // namespace

extern "C" {
ssize_t __real_send(int fd, const void *pBytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *pBytes, size_t size, int flags);
}

// A real socket accepts a whole package in one write.
ssize_t __wrap_send(int fd, const void *pBytes, size_t size, int flags) {
    if (g_accepted.empty()) {
        return __real_send(fd, pBytes, size, flags);
    }
    g_written.push_back(size);
    const size_t accepted = g_accepted.front();
    g_accepted.erase(g_accepted.begin());
    return accepted == 0 ? 0 : __real_send(fd, pBytes, accepted, flags);
}

namespace {

using namespace std::string_literals;
using namespace talvek::test;

// A daemon in a thread that runs a script for each connection.
class FakeDaemon {
  public:
    using Script = std::function<void(int fd)>;

    explicit FakeDaemon(const Script &script, int connections = 1)
        : path_(dir_ / "socket"), listener_(ListenAt(path_)) {
        thread_ = std::thread{[this, script, connections] {
            for (int i = 0; i < connections; ++i) {
                const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                script(fd);
                close(fd);
            }
        }};
    }
    ~FakeDaemon() {
        thread_.join();
        close(listener_);
    }
    FakeDaemon(const FakeDaemon &) = delete;
    FakeDaemon &operator=(const FakeDaemon &) = delete;

    [[nodiscard]] int Ask(const std::string &command) const {
        return TALVEK_Client(path_.c_str(), command.c_str());
    }

  private:
    TempDir dir_;
    std::string path_;
    int listener_;
    std::thread thread_;
};

// The daemon's reply to a registration.
std::string Echo(const std::string &request, uint32_t session) {
    Pkg reply;
    reply.session = session;
    reply.type = 1;
    reply.payload = request.substr(16);
    return reply.Bytes();
}

// Answers the registration and returns the command package.
std::string TakeCommand(int fd, uint32_t session = 0) {
    Put(fd, Echo(TakePkg(fd), session));
    return TakePkg(fd);
}

// Sets the environment of this process for a scope.
class Environment {
  public:
    explicit Environment(const Lines &strings) : saved_(environ), strings_(strings) {
        for (std::string &string : strings_) {
            pointers_.push_back(string.data());
        }
        pointers_.push_back(nullptr);
        environ = pointers_.data();
    }
    ~Environment() { environ = saved_; }
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

  private:
    char **saved_;
    Lines strings_;
    std::vector<char *> pointers_;
};

TEST(Client, SendsTheEnvironmentInOrderThenTheCommand) {
    const Environment environment{{"B=2", "A=1", "EMPTY=", "noequal"}};
    std::string first;
    std::string second;
    const FakeDaemon daemon{[&](int fd) {
        first = TakePkg(fd);
        EXPECT_TRUE(Quiet(fd)) << "waits for the reply";
        Put(fd, Echo(first, 0x01020304));
        second = Take(fd, 16 + 8);
        EXPECT_TRUE(Quiet(fd)) << "waits for the result";
        Put(fd, ResultPkg(3));
        EXPECT_TRUE(AtEnd(fd)) << "closes after the result";
    }};
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(3, daemon.Ask("echo hi")); }));
    // sz = 16 + 4 + 4 + 7 + 8 = 39 = 0x27; 0x1101 ^ 0x0001 ^ 0x0027 = 0x1127
    EXPECT_EQ(Hex("\x01\x11\0\0\0\0\0\0\0\0\x01\0\x27\0\x27\x11"s + "B=2\0A=1\0EMPTY=\0noequal\0"s),
              Hex(first));
    // sz = 16 + 8 = 24 = 0x18; 0x1101 ^ 0x0304 ^ 0x0102 ^ 0x0001 ^ 0x0002 ^ 0x0018 = 0x131C
    EXPECT_EQ(Hex("\x01\x11\0\0\x04\x03\x02\x01\x01\0\x02\0\x18\0\x1C\x13"s + "echo hi\0"s),
              Hex(second));
}

TEST(Client, KeepsTheFirstBytesOfTheReplyInTheCommand) {
    const FakeDaemon daemon{[](int fd) {
        TakePkg(fd);
        Pkg reply;
        reply.byte0 = 0x81;
        reply.byte1 = 0x23;
        reply.reserved = 0x5678;
        reply.session = 9;
        reply.sn = 40;
        reply.type = 1;
        Put(fd, reply.Bytes());
        Pkg command = reply;
        command.sn = 1;
        command.type = 2;
        command.payload = "x\0"s;
        EXPECT_EQ(Hex(command.Bytes()), Hex(Take(fd, 18)));
        Put(fd, ResultPkg(0));
    }};
    EXPECT_EQ(0, daemon.Ask("x"));
}

TEST(Client, ReturnsWhateverStatusTheDaemonReports) {
    for (const int status : {0, 1, 3, 255, -1, 300, 0x7FFFFFFF, -0x7FFFFFFF - 1}) {
        const FakeDaemon daemon{[status](int fd) {
            TakeCommand(fd);
            Put(fd, ResultPkg(status));
        }};
        EXPECT_EQ(status, daemon.Ask("true"));
    }
}

TEST(Client, AcceptsAResultInsteadOfARegisterReply) {
    const FakeDaemon daemon{[](int fd) {
        TakePkg(fd);
        Put(fd, ResultPkg(12));
    }};
    EXPECT_EQ(12, daemon.Ask("true"));
}

TEST(Client, ReceivesAReplyInSeveralReadsAfterItsHeader) {
    const Environment environment{{"A=" + std::string(500, 'a')}};
    const FakeDaemon daemon{[](int fd) {
        const std::string reply = Echo(TakePkg(fd), 1);
        Put(fd, reply.substr(0, 16));
        for (size_t at = 16; at < reply.size(); at += 100) {
            EXPECT_TRUE(HasRead(fd));
            Put(fd, reply.substr(at, 100));
        }
        Take(fd, 21);
        Put(fd, ResultPkg(6).substr(0, 17));
        EXPECT_TRUE(HasRead(fd));
        Put(fd, ResultPkg(6).substr(17, 2));
        EXPECT_TRUE(HasRead(fd));
        Put(fd, ResultPkg(6).substr(19));
    }};
    EXPECT_EQ(6, daemon.Ask("true"));
}

TEST(Client, DropsBytesAfterAReply) {
    const Environment environment{{"A=1"}};  // one read holds the reply and the rest
    const FakeDaemon daemon{[](int fd) {
        Put(fd, Echo(TakePkg(fd), 0) + ResultPkg(9));
        Take(fd, 21);
        Put(fd, ResultPkg(4) + "more");
    }};
    EXPECT_EQ(4, daemon.Ask("true"));
}

// What a faulty daemon may do. The client returns 1 for each, and does not wait for more.
struct Fault {
    const char *name;
    FakeDaemon::Script script;
    bool dumps = false;
};

void PrintTo(const Fault &fault, std::ostream *out) {
    *out << fault.name;
}

std::string Modified(std::string bytes, size_t at, char value) {
    bytes[at] = value;
    return bytes;
}

std::string Sized(uint16_t type, int sz, const std::string &payload) {
    Pkg pkg;
    pkg.type = type;
    pkg.sz = sz;
    pkg.payload = payload;
    return pkg.Bytes();
}

// Answers the registration with bytes and waits until the client closes.
FakeDaemon::Script First(const std::string &bytes) {
    return [bytes](int fd) {
        TakePkg(fd);
        Put(fd, bytes);
        EXPECT_TRUE(AtEnd(fd)) << "the client goes on";
    };
}

// Answers the command with bytes and waits until the client closes.
FakeDaemon::Script Second(const std::string &bytes) {
    return [bytes](int fd) {
        TakeCommand(fd);
        Put(fd, bytes);
        EXPECT_TRUE(AtEnd(fd)) << "the client goes on";
    };
}

std::vector<Fault> Faults() {
    return {
        {"ClosesAtOnce", [](int) {}},
        {"ClosesAfterTheRegistration", [](int fd) { TakePkg(fd); }},
        {"ClosesInsideTheHeader",
         [](int fd) {
             TakePkg(fd);
             Put(fd, ResultPkg(0).substr(0, 15));
         }},
        {"ClosesInsideTheRegisterReply",
         [](int fd) {
             TakePkg(fd);
             Put(fd, Sized(1, 100, "A=1"));
         }},
        {"SendsNoMoreInsideTheRegisterReply",
         [](int fd) {
             TakePkg(fd);
             Put(fd, Sized(1, 100, "A=1"));
             shutdown(fd, SHUT_WR);
             EXPECT_TRUE(AtEnd(fd)) << "the client goes on";
         }},
        {"ClosesAfterTheCommand", [](int fd) { TakeCommand(fd); }},
        {"ClosesInsideTheResult",
         [](int fd) {
             TakeCommand(fd);
             Put(fd, ResultPkg(0).substr(0, 19));
         }},
        {"ShortFirstReply", First(ResultPkg(0).substr(0, 10))},
        {"OneByteOfAReply", First("\x01")},
        {"ShortSecondReply", Second(ResultPkg(0).substr(0, 15))},
        {"BadChecksum", First(Modified(ResultPkg(0), 14, 0x55)), true},
        {"BadChecksumOfTheResult", Second(Modified(ResultPkg(0), 14, 0x55)), true},
        {"BadVersion", First(Modified(ResultPkg(0), 0, 0x02)), true},
        {"TypeZero", First(Sized(0, -1, ""))},
        {"TypeTwo", First(Sized(2, -1, "true\0"s))},
        {"TypeFour", First(Sized(4, -1, ""))},
        {"TypeSix", Second(Sized(6, -1, std::string(4, '\0')))},
        {"TypeFourAfterTheCommand", Second(Sized(4, -1, std::string(4, '\0')))},
        {"ASecondRegisterReply", Second(Sized(1, -1, ""))},
        {"ResultWithoutStatus", Second(Sized(5, 16, ""))},
        {"ResultWithAPieceOfAStatus", Second(Sized(5, 19, "\0\0\0"s))},
        {"ResultWithoutStatusButWithBytesAfterIt", Second(Sized(5, 16, std::string(16, '\x07')))},
        {"ResultThatIsSmallerThanAHeader", Second(Sized(5, 0, std::string(16, '\x07')))},
        {"AnnouncesMoreThanFits", First(Sized(1, 1153, ""))},
        {"SendsMoreThanFits", First(Sized(1, 1153, std::string(1137, 'x')))},
        {"AnnouncesTheMost", Second(Sized(5, 65535, std::string(1136, 'x')))},
    };
}

class ClientAndFaultyDaemon : public ::testing::TestWithParam<Fault> {};

TEST_P(ClientAndFaultyDaemon, ReturnsOne) {
    const Environment environment{{"A=1"}};
    const FakeDaemon daemon{GetParam().script};
    const Lines lines = CaptureLog([&] { EXPECT_EQ(1, daemon.Ask("true")); });
    if (GetParam().dumps) {
        ASSERT_EQ(7u, lines.size());
        EXPECT_EQ("TALVEK: Fail to check tTalvekPkg header:", lines[0]);
    } else {
        EXPECT_EQ(Lines{}, lines);
    }
}

INSTANTIATE_TEST_SUITE_P(All, ClientAndFaultyDaemon, ::testing::ValuesIn(Faults()),
                         [](const auto &fault) { return std::string{fault.param.name}; });

TEST(Client, AcceptsARegisterReplyOf1152Bytes) {
    const FakeDaemon daemon{[](int fd) {
        TakePkg(fd);
        Put(fd, Sized(1, 1152, std::string(1136, 'x')));
        EXPECT_EQ(Hex(CommandPkg("true")), Hex(Take(fd, 21)));
        Put(fd, ResultPkg(2));
    }};
    EXPECT_EQ(2, daemon.Ask("true"));
}

TEST(Client, ReturnsOneWhenTheDaemonNoLongerReads) {
    signal(SIGPIPE, SIG_DFL);
    const FakeDaemon daemon{[](int fd) {
        const std::string request = TakePkg(fd);
        shutdown(fd, SHUT_RD);
        Put(fd, Echo(request, 0));
        EXPECT_TRUE(AtEnd(fd));
    }};
    EXPECT_EQ(1, daemon.Ask("true")) << "the write fails without SIGPIPE";
}

constexpr const char *kDefaultName = "/var/run/TALVEK";

// Strings that take `bytes` with their NULs.
Lines StringsOf(size_t bytes) {
    Lines strings;
    for (int i = 0; bytes > 0; ++i) {
        const size_t size = bytes > 200 ? 100 : bytes;
        std::string string = "N" + std::to_string(i) + "=";
        string.resize(size - 1, 'v');
        strings.push_back(string);
        bytes -= size;
    }
    return strings;
}

// The register package that a client with these strings sends.
std::string RegisterOf(const Lines &strings, Lines *pLog) {
    std::string request;
    const Environment environment{strings};
    const FakeDaemon daemon{[&](int fd) {
        request = TakePkg(fd);
        Put(fd, ResultPkg(0));
    }};
    *pLog = CaptureLog([&] { EXPECT_EQ(0, daemon.Ask("true")); });
    return request;
}

std::string Joined(const Lines &strings) {
    std::string joined;
    for (const std::string &string : strings) {
        joined += string + '\0';
    }
    return joined;
}

TEST(Client, SendsAnEnvironmentThatFillsThePackage) {
    for (const size_t bytes : {size_t{0}, size_t{1135}, size_t{1136}}) {
        const Lines strings = StringsOf(bytes);
        Lines log;
        EXPECT_EQ(RegisterPkg(Joined(strings)), RegisterOf(strings, &log));
        EXPECT_EQ(Lines{}, log);
    }
}

TEST(Client, CutsTheEnvironmentAtTheFirstStringThatDoesNotFit) {
    Lines strings = StringsOf(1137);
    strings.emplace_back("S=1");  // would fit, but comes later
    strings.emplace_back(std::string(5000, 'l'));
    Lines log;
    const std::string request = RegisterOf(strings, &log);
    strings.resize(strings.size() - 3);
    EXPECT_EQ(RegisterPkg(Joined(strings)), request);
    EXPECT_EQ((Lines{"TALVEK:TALVEK_Client(): Warning!!using size(1153) > CALLOC buf_sz(1152), "
                     "break loop"}),
              log);
}

TEST(Client, SendsAnEmptyEnvironmentWhenTheFirstStringDoesNotFit) {
    Lines log;
    EXPECT_EQ(RegisterPkg(), RegisterOf({"A=" + std::string(70000, 'a'), "B=1"}, &log));
    EXPECT_EQ((Lines{"TALVEK:TALVEK_Client(): Warning!!using size(70019) > CALLOC buf_sz(1152), "
                     "break loop"}),
              log);
}

TEST(Client, RunsWithoutAnEnvironment) {
    char **saved = environ;
    environ = nullptr;
    std::string request;
    {
        const FakeDaemon daemon{[&](int fd) {
            request = TakePkg(fd);
            Put(fd, ResultPkg(0));
        }};
        EXPECT_EQ(0, daemon.Ask("true"));
    }
    environ = saved;
    EXPECT_EQ(RegisterPkg(), request);
}

TEST(Client, SendsCommandsOfUpTo1135Characters) {
    for (const size_t length : {size_t{0}, size_t{80}, size_t{1134}, size_t{1135}}) {
        const std::string command(length, 'c');
        const FakeDaemon daemon{[&](int fd) {
            EXPECT_EQ(Hex(CommandPkg(command, 5)), Hex(TakeCommand(fd, 5)));
            Put(fd, ResultPkg(0));
        }};
        EXPECT_EQ(0, daemon.Ask(command));
    }
}

TEST(Client, RefusesALongerCommandAndNull) {
    const TempDir dir;
    const std::string path = dir / "nobody";
    const Lines refusal{"TALVEK:TALVEK_Client(): a command of at most 1135 characters is needed"};
    EXPECT_EQ(refusal, CaptureLog([&] {
                  EXPECT_EQ(-1, TALVEK_Client(path.c_str(), std::string(1136, 'c').c_str()));
              }));
    EXPECT_EQ(refusal, CaptureLog([&] { EXPECT_EQ(-1, TALVEK_Client(path.c_str(), nullptr)); }));
}

TEST(Client, LogsAFailedConnectWithPathAndLength) {
    const TempDir dir;
    const std::string path = dir / "nobody";
    EXPECT_EQ((Lines{"TALVEK: connect(" + path + ", " + std::to_string(path.size() + 2) +
                     ") failed : No such file or directory"}),
              CaptureLog([&] { EXPECT_EQ(-1, TALVEK_Client(path.c_str(), "true")); }));
    close(ListenAt(path));
    EXPECT_EQ((Lines{"TALVEK: connect(" + path + ", " + std::to_string(path.size() + 2) +
                     ") failed : Connection refused"}),
              CaptureLog([&] { EXPECT_EQ(-1, TALVEK_Client(path.c_str(), "true")); }));
    EXPECT_EQ((Lines{"TALVEK: connect(, 2) failed : Invalid argument"}),
              CaptureLog([&] { EXPECT_EQ(-1, TALVEK_Client("", "true")); }));
}

TEST(Client, UsesTheDefaultPathForNull) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/var");
        const Lines lines = CaptureLog([&] { EXPECT_EQ(-1, TALVEK_Client(nullptr, "true")); });
        EXPECT_EQ((Lines{"TALVEK: connect("s + kDefaultName +
                         ", 17) failed : No such file or directory"}),
                  lines);
        mkdir("/var/run", 0755);
        const int listener = ListenAt(kDefaultName);
        std::thread daemon{[listener] {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            TakeCommand(fd);
            Put(fd, ResultPkg(11));
            close(fd);
        }};
        EXPECT_EQ(11, TALVEK_Client(nullptr, "true"));
        daemon.join();
        close(listener);
    });
    EXPECT_STREQ(kDefaultName, TALVEK_SOCKET_PATH);
    EXPECT_EQ(107, TALVEK_SOCKET_PATH_MAX);
    EXPECT_EQ(1135, TALVEK_COMMAND_MAX);
    EXPECT_EQ(1, TALVEK_NO_RESULT);
}

TEST(Client, CutsAPathTo107Characters) {
    const TempDir dir;
    for (const size_t length : {size_t{106}, size_t{107}, size_t{108}, size_t{127}, size_t{128}}) {
        std::string path = dir / "";
        path.resize(length, 'p');
        const std::string cut = path.substr(0, 107);
        EXPECT_EQ((Lines{"TALVEK: connect(" + cut + ", " + std::to_string(cut.size() + 2) +
                         ") failed : No such file or directory"}),
                  CaptureLog([&] { EXPECT_EQ(-1, TALVEK_Client(path.c_str(), "true")); }));
    }
    std::string path = dir / "";
    path.resize(107, 'p');
    const int listener = ListenAt(path);
    std::thread daemon{[listener] {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        TakeCommand(fd);
        Put(fd, ResultPkg(0));
        close(fd);
    }};
    EXPECT_EQ(0, TALVEK_Client((path + "more").c_str(), "true"));
    daemon.join();
    close(listener);
}

// A socket that has just been connected is writable at once, so the time-outs are simulated.
TEST(Client, WaitsForAWritableSocketInRoundsOfFiveSeconds) {
    const Environment environment{{"A=1"}};
    const FakeDaemon daemon{[](int fd) {
        TakeCommand(fd);
        Put(fd, ResultPkg(8));
    }};
    Waits::TimeOut(3);
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(8, daemon.Ask("true")); }));
    EXPECT_EQ((std::vector<Waits::Wait>(3, {POLLOUT, 5000})), Waits::TimedOut());
}

TEST(Client, WritesTheRestOfAPartialWrite) {
    const Environment environment{{"A=1"}};  // a package of 20 bytes
    const FakeDaemon daemon{[](int fd) {
        EXPECT_EQ(Hex(RegisterPkg("A=1\0"s)), Hex(Take(fd, 20)));
        Put(fd, RegisterPkg());
        EXPECT_EQ(Hex(CommandPkg("true")), Hex(Take(fd, 21)));
        Put(fd, ResultPkg(8));
    }};
    g_accepted = {1, 15, 4};
    EXPECT_EQ(8, daemon.Ask("true"));
    EXPECT_EQ((std::vector<size_t>{20, 19, 4}), g_written);
    g_written.clear();
}

// A write of 0 bytes inside a package is no failure: the whole package is sent again.
TEST(Client, SendsThePackageAgainWhenAWriteStopsInsideIt) {
    const Environment environment{{"A=1"}};
    const FakeDaemon daemon{[](int fd) {
        const std::string request = RegisterPkg("A=1\0"s);
        EXPECT_EQ(Hex(request.substr(0, 7) + request), Hex(Take(fd, 27)));
        Put(fd, ResultPkg(8));
    }};
    g_accepted = {5, 2, 0};
    EXPECT_EQ(8, daemon.Ask("true"));
    EXPECT_EQ((std::vector<size_t>{20, 15, 13}), g_written);
    g_written.clear();
}

TEST(Client, ReturnsOneWhenNothingIsWritten) {
    const Environment environment{{"A=1"}};
    const FakeDaemon daemon{[](int fd) { EXPECT_TRUE(AtEnd(fd)); }};
    g_accepted = {0};
    EXPECT_EQ(1, daemon.Ask("true"));
    EXPECT_EQ((std::vector<size_t>{20}), g_written);
    g_written.clear();
}

// Whether a thread of this process sleeps or has ended.
bool IsIdle(pid_t thread) {
    const char state = StateOf("/proc/self/task/" + std::to_string(thread));
    return state == 'S' || state == '\0';
}

// While one call has its connection, all others sleep, and none is in the daemon's queue.
TEST(Client, RunsCallsOfSeveralThreadsOneAfterAnother) {
    constexpr int kThreads = 8;
    const TempDir dir;
    const std::string path = dir / "socket";
    const int listener = ListenAt(path);
    std::atomic<pid_t> callers[kThreads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&callers, &path, t] {
            callers[t] = gettid();
            EXPECT_EQ(t, TALVEK_Client(path.c_str(), std::to_string(t).c_str()));
        });
    }
    for (int t = 0; t < kThreads; ++t) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const std::string command = TakeCommand(fd);
        EXPECT_TRUE(Eventually([&] {
            return std::all_of(std::begin(callers), std::end(callers),
                               [](pid_t caller) { return caller != 0 && IsIdle(caller); });
        }));
        EXPECT_TRUE(Quiet(listener)) << "a second connection";
        Put(fd, ResultPkg(command.at(16) - '0'));
        close(fd);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    close(listener);
}

}  // namespace
