// What hostile and broken peers, and commands, can do to the daemon. After each case the listening
// process serves a good client, has the descriptors of the start and no child, and does not work.
//
// With TALVEK_TORTURE in the environment (`./do torture`) the crowds are large, and the good client
// must be served within a second.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "service/package.h"
#include "service/support/program.h"
#include "service/support/wire.h"
#include "support/emulator.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

class Torture : public ::testing::Test {
  protected:
    explicit Torture(const Daemon::Options &options = {}) : daemon_{InOwnDir(options)} {}

    // A daemon of any user can make its socket there.
    Daemon::Options InOwnDir(Daemon::Options options) const {
        EXPECT_EQ(0, chmod(dir_.path().c_str(), 0777));
        options.dir = &dir_;
        return options;
    }

    void TearDown() override { ExpectNothingLeft(daemon_, descriptors_); }

    void Serves() const { ExpectServes(daemon_); }

    int Connect() {
        const int fd = ConnectTo(daemon_.socket());
        EXPECT_GE(fd, 0);
        return fd;
    }

    const TempDir dir_;
    Daemon daemon_;
    int descriptors_ = daemon_.Descriptors();
};

// Sends bytes, ends the sending and returns what comes back until the handler closes.
std::string Talk(int fd, const std::string &bytes) {
    EXPECT_TRUE(Put(fd, bytes));
    EXPECT_EQ(0, shutdown(fd, SHUT_WR));
    std::string replies = Take(fd, 65536);
    close(fd);
    return replies;
}

TEST_F(Torture, EachBitOfAHeaderFlipped) {
    for (size_t bit = 0; bit < 128; ++bit) {
        std::string bytes = RegisterPkg(std::string{"A=1\0", 4});
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
        EXPECT_EQ("", Talk(Connect(), bytes)) << "bit " << bit;
    }
}

TEST_F(Torture, EachTruncation) {
    const std::string bytes = RegisterPkg(std::string{"A=1\0", 4});
    for (size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_EQ("", Talk(Connect(), bytes.substr(0, size))) << size;
    }
    EXPECT_EQ(bytes.size(), Talk(Connect(), bytes).size());
}

TEST_F(Torture, PeersThatSendAByteAtATime) {
    const std::string bytes = CommandPkg("exit 9");
    std::vector<int> slow;
    for (int i = 0; i < 5; ++i) {
        slow.push_back(Connect());
    }
    for (size_t i = 0; i < bytes.size(); ++i) {
        for (const int fd : slow) {
            ASSERT_TRUE(Put(fd, bytes.substr(i, 1)));
            ASSERT_TRUE(HasRead(fd));
        }
        if (i % 8 == 0) {
            Serves();
        }
    }
    for (const int fd : slow) {
        EXPECT_EQ(9u, U32(Take(fd, 20), 16));
        close(fd);
    }
}

// The handler of such a peer waits in its write; the others do not notice.
TEST_F(Torture, PeersThatNeverRead) {
    // Each read of the handler takes one package, the largest, also when several have arrived.
    const std::string bytes = RegisterPkg(std::string(1133, 'x') + std::string{"=1\0", 3});
    ASSERT_EQ(size_t{TALVEK_PKG_MAX}, bytes.size());
    std::vector<int> deaf;
    for (int i = 0; i < 10; ++i) {
        const int fd = Connect();
        ASSERT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));
        // Until neither end takes any more, which the handler's sleep shows.
        EXPECT_TRUE(Eventually([&] {
            while (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
            }
            const bool full = errno == EAGAIN;
            const std::vector<pid_t> handlers = daemon_.Children();
            return full && handlers.size() == deaf.size() + 1 && StateOf(handlers.back()) == 'S';
        }));
        deaf.push_back(fd);
    }
    Serves();
    for (const int fd : deaf) {
        close(fd);
    }
}

TEST_F(Torture, PeersThatEndTheirSendingFirst) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(static_cast<uint32_t>(i),
                  U32(Talk(Connect(), CommandPkg("exit " + std::to_string(i))), 16));
    }
}

TEST_F(Torture, AFloodOfPackages) {
    Pkg unknown;
    unknown.type = 9;
    std::string flood;
    for (int i = 0; i < (Torturing() ? 100000 : 2000); ++i) {
        flood += unknown.Bytes();
    }
    EXPECT_EQ("", Talk(Connect(), flood));
}

// They are silent until all are there; then each has its command run, a hundred at a time.
TEST_F(Torture, ACrowdOfPeers) {
    const size_t count = Torturing() ? 5000 : 200;
    rlimit files;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
    const rlimit enough{std::max<rlim_t>(files.rlim_cur, count + 100), files.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
    std::vector<int> peers;
    for (size_t i = 0; i < count; ++i) {
        peers.push_back(Connect());
    }
    EXPECT_TRUE(Eventually([&] { return daemon_.Children().size() == count; }));
    Serves();
    for (size_t first = 0; first < count; first += 100) {
        for (size_t i = first; i < first + 100; ++i) {
            EXPECT_TRUE(Put(peers[i], CommandPkg("exit " + std::to_string(1 + i % 255))));
        }
        for (size_t i = first; i < first + 100; ++i) {
            EXPECT_EQ(1 + i % 255, U32(Take(peers[i], 20), 16)) << i;
            close(peers[i]);
        }
    }
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &files));
}

TEST_F(Torture, HandlersAndCommandsKilledAtRandom) {
    std::mt19937 random{20};
    for (int i = 0; i < (Torturing() ? 1000 : 60); ++i) {
        switch (random() % 3) {
            case 0:  // the command's parent is its handler
                EXPECT_EQ(1, daemon_.Client("kill -KILL $PPID").exitStatus());
                break;
            case 1:
                EXPECT_EQ(255, daemon_.Client("kill -KILL $$").exitStatus());
                break;
            default:
                EXPECT_EQ(7, daemon_.Client("exit 7").exitStatus());
                break;
        }
    }
}

// The children that are left have the daemon's output and every other descriptor of a command.
TEST_F(Torture, CommandsThatLeaveChildren) {
    const std::string list = daemon_.dir() / "children";
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(5, daemon_.Client("sleep 1000 & echo $! >>" + list + "; exit 5").exitStatus());
    }
    Serves();
    std::ifstream children{list};
    int count = 0;
    for (pid_t child = 0; children >> child; ++count) {
        EXPECT_EQ(0, kill(child, SIGKILL));
        EXPECT_TRUE(Eventually([child] { return Gone(child); }));
    }
    EXPECT_EQ(10, count);
}

TEST_F(Torture, TheSocketRemovedAndReplaced) {
    const std::string &path = daemon_.socket();
    const std::string kept = daemon_.dir() / "kept";
    const int before = Connect();
    ASSERT_EQ(0, link(path.c_str(), kept.c_str()));
    ASSERT_EQ(0, unlink(path.c_str()));
    EXPECT_EQ(255, daemon_.Client("exit 6").exitStatus()) << "no socket";
    std::ofstream{path} << "a file";
    EXPECT_EQ(255, daemon_.Client("exit 6").exitStatus()) << "a file";
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, symlink("nothing", path.c_str()));
    EXPECT_EQ(255, daemon_.Client("exit 6").exitStatus()) << "a link to nothing";
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, symlink("kept", path.c_str()));
    Serves();  // through a link
    EXPECT_EQ(8u, U32(Talk(before, CommandPkg("exit 8")), 16)) << "a connection from before";
    ASSERT_EQ(0, rename(kept.c_str(), path.c_str()));
}

// The second daemon takes the path. The first goes on with the connections that it has.
TEST_F(Torture, TheSocketTakenByAnotherDaemon) {
    const std::string &path = daemon_.socket();
    const std::string kept = daemon_.dir() / "kept";
    const int before = Connect();
    ASSERT_EQ(0, link(path.c_str(), kept.c_str()));
    {
        Daemon::Options options;
        options.dir = &daemon_.dir();
        Daemon second{options};
        Serves();
        EXPECT_TRUE(daemon_.Logs("PID[" + std::to_string(second.pid()) + "]["));
        EXPECT_TRUE(EndedBy(second.Stop(SIGTERM), SIGTERM));
    }
    EXPECT_EQ(255, daemon_.Client("exit 6").exitStatus()) << "the second has removed its socket";
    EXPECT_EQ(8u, U32(Talk(before, CommandPkg("exit 8")), 16)) << "a connection from before";
    ASSERT_EQ(0, rename(kept.c_str(), path.c_str()));
}

// What a command's shell gets, in the kernel's copy.
TEST_F(Torture, EnvironmentsWithHostileNames) {
    const std::vector<std::string> strings = {
        "PATH=/nowhere",
        "IFS=/et",
        "ENV=/nowhere",
        "PS4=$(exit 9)",
        "LD_PRELOAD=/nowhere.so",
        "BASH_FUNC_talvek%%=() { echo never; }",
        "SHELLOPTS=posix",
        "A B\nC=1",
        "\xFF\x80=\xC3\x28",
        "X==y=",
        "EMPTY=",
        std::string(400, 'n') + "=" + std::string(200, 'v'),
    };
    std::string payload;
    for (const std::string &string : strings) {
        payload += string + '\0';
        payload.append("=a name is missing\0", 19);
    }
    payload.append("no equals sign\0AFTER=1\0", 23);
    ASSERT_LE(payload.size(), 1136u);
    const std::string file = daemon_.dir() / "environment";
    const int fd = Connect();
    ASSERT_TRUE(Put(fd, RegisterPkg(payload)));
    EXPECT_EQ(Hex(RegisterPkg(payload)), Hex(TakePkg(fd))) << "the reply is the same package";
    ASSERT_TRUE(Put(fd, CommandPkg("/bin/cat /proc/$$/environ >" + file + "; exit 6")));
    EXPECT_EQ(6u, U32(Take(fd, 20), 16));
    close(fd);
    const std::string environment = ReadFile(file);
    for (const std::string &string : strings) {
        const size_t at = ('\0' + environment).find('\0' + string + '\0');
        EXPECT_NE(std::string::npos, at) << Hex(string) << " is not in " << Hex(environment);
    }
    EXPECT_EQ(std::string::npos, environment.find("a name is missing"));
    EXPECT_EQ(std::string::npos, environment.find("AFTER")) << "the list ends without an =";
    EXPECT_EQ(0, daemon_.Client("test -z \"$EMPTY$X\" && cat /dev/null").exitStatus())
        << "the next client has an environment of its own";
}

// The clients wait in the queue; the daemon takes a pause after each attempt.
TEST_F(Torture, DescriptorsUsedUp) {
    rlimit before;
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_NOFILE, nullptr, &before));
    const rlimit none{static_cast<rlim_t>(descriptors_), before.rlim_max};
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_NOFILE, &none, nullptr));
    const int first = Connect();
    const int second = Connect();
    EXPECT_TRUE(daemon_.Logs("accept() failed"));
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_NOFILE, &before, nullptr));
    for (const int fd : {first, second}) {
        EXPECT_EQ(8u, U32(Talk(fd, CommandPkg("exit 8")), 16));
    }
}

// Its client sends more variables than a handler without memory can keep: each package is answered
// all the same, and a command fails, since a shell has no memory either.
TEST_F(Torture, MemoryUsedUp) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer ends the program when there is no memory";
#endif
    if (Emulated()) {
        GTEST_SKIP() << "an emulator needs memory itself";
    }
    rlimit before;
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_AS, nullptr, &before));
    const rlimit none{4096, before.rlim_max};
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_AS, &none, nullptr));
    const int fd = Connect();
    for (int i = 0; i < 300; ++i) {
        const std::string variable = "NAME" + std::to_string(i) + "=" + std::string(1100, 'x');
        const std::string package = RegisterPkg(variable + '\0');
        ASSERT_TRUE(Put(fd, package));
        ASSERT_EQ(package.size(), TakePkg(fd).size()) << variable;
    }
    const std::string result = Talk(fd, CommandPkg("exit 8"));
    ASSERT_EQ(20u, result.size());
    EXPECT_TRUE(U32(result, 16) == 127 || U32(result, 16) == UINT32_MAX) << U32(result, 16);
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_AS, &before, nullptr));
}

// ---- A daemon whose log nobody reads ----

class TortureByTheLog : public Torture {
  protected:
    TortureByTheLog() : Torture{ToAPipe()} {}

    static Daemon::Options ToAPipe() {
        Daemon::Options options;
        options.logToPipe = true;
        return options;
    }
};

TEST_F(TortureByTheLog, StallsAndGoesOn) {
    daemon_.StallLog();
    std::vector<int> waiting;
    for (int i = 0; i < 3; ++i) {  // one is accepted, two fill the queue
        waiting.push_back(Connect());
        ASSERT_TRUE(Put(waiting.back(), CommandPkg("exit 8")));
        EXPECT_TRUE(BlockedOn(daemon_.pid(), STDOUT_FILENO));
    }
    for (const int fd : waiting) {
        EXPECT_TRUE(Eventually([&] {
            daemon_.DrainLog();
            return !Quiet(fd);
        }));
        EXPECT_EQ(8u, U32(Take(fd, 20), 16));
        close(fd);
    }
    daemon_.DrainLog();
}

// ---- A daemon of a user who may have few processes ----

class TortureByProcesses : public Torture {
  protected:
    TortureByProcesses() : Torture{OfAUser()} {}

    void SetUp() override {
        if (getuid() != 0) {
            GTEST_SKIP() << "needs root, to become a user without other processes";
        }
        if (Emulated()) {
            GTEST_SKIP() << "the threads of an emulator count as processes";
        }
        std::istringstream limits{ReadFile("/proc/" + std::to_string(daemon_.pid()) + "/limits")};
        std::string line;
        while (std::getline(limits, line) && line.rfind("Max processes", 0) != 0) {
        }
        const std::string most = std::to_string(kProcesses);
        ASSERT_NE(std::string::npos, line.find(" " + most + "  ")) << line;
        struct stat process;
        ASSERT_EQ(0, stat(("/proc/" + std::to_string(daemon_.pid())).c_str(), &process));
        ASSERT_NE(0u, process.st_uid);
        user_ = process.st_uid;
    }

    static Daemon::Options OfAUser() {
        Daemon::Options options;
        if (getuid() == 0) {
            options.prepare = [] { BecomeUserWith(kProcesses); };
        }
        return options;
    }

    [[nodiscard]] size_t ProcessesOfTheUser() const {
        size_t count = 0;
        for (const auto &entry : std::filesystem::directory_iterator{"/proc"}) {
            struct stat process;
            count += entry.path().filename().string().find_first_not_of("0123456789") ==
                         std::string::npos &&
                     stat(entry.path().c_str(), &process) == 0 && process.st_uid == user_;
        }
        return count;
    }

    // This process adopts what a command leaves; a zombie counts as a process of its user.
    void CollectOrphans() const {
        for (const pid_t child : ChildrenOf(getpid())) {
            if (child != daemon_.pid() && StateOf(child) == 'Z') {
                EXPECT_EQ(child, waitpid(child, nullptr, 0));
            }
        }
    }

    static constexpr unsigned kProcesses = 40;
    uid_t user_ = 0;
};

// Peers that find no process are sent away.
TEST_F(TortureByProcesses, UsedUp) {
    std::vector<int> peers;
    for (unsigned i = 0; i < kProcesses + 20; ++i) {
        peers.push_back(Connect());
    }
    EXPECT_TRUE(AtEnd(peers.back()));
    EXPECT_TRUE(daemon_.Logs("Can't fork() child"));
    for (const int fd : peers) {
        close(fd);
    }
    // Until the handlers have ended, there is no process for the good client either.
    EXPECT_TRUE(Eventually([this] { return daemon_.Children().empty(); }));
}

// The bomb explodes inside the limit: each shell forks without end, and one that cannot ends.
TEST_F(TortureByProcesses, AForkBombAsACommand) {
    const std::string stop = daemon_.dir() / "stop";
    const int fd = Connect();
    ASSERT_TRUE(Put(fd, CommandPkg("b() { until test -e " + stop + "; do b & done; exit; }; b")));
    EXPECT_TRUE(Eventually([&] {
        CollectOrphans();
        // Each peer is served or sent away.
        const int peer = Connect();
        const bool sent = Put(peer, RegisterPkg());
        const std::string reply = Take(peer, 16);
        EXPECT_TRUE(reply.empty() || (sent && reply.size() == 16)) << reply.size();
        close(peer);
        const std::string log = daemon_.log();  // with dash's words, and those of other shells
        return log.find("Cannot fork") != std::string::npos ||
               log.find("fork: ") != std::string::npos;
    }));
    WriteFile(stop, "");
    EXPECT_TRUE(Eventually([&] {
        CollectOrphans();
        return !Quiet(fd);
    })) << "the shell of the command ends";
    close(fd);
    EXPECT_TRUE(Eventually([&] {
        CollectOrphans();
        return ProcessesOfTheUser() == 1;
    })) << ProcessesOfTheUser();
}

// ---- A time of day that jumps ----

class TortureByTheClock : public Torture {
  protected:
    TortureByTheClock() : Torture{WithAClock()} {}

    static Daemon::Options WithAClock() {
        Daemon::Options options;
#ifdef TALVEK_CLOCK_PRELOAD
        options.prepare = [] { setenv("LD_PRELOAD", TALVEK_CLOCK_PRELOAD, 1); };
#endif
        return options;
    }
};

TEST_F(TortureByTheClock, JumpsForwardAndBack) {
#ifndef TALVEK_CLOCK_PRELOAD
    GTEST_SKIP() << "the replaced clock is of this machine's kind, and without a sanitizer";
#else
    if (StaticProgram()) {
        GTEST_SKIP() << "the dynamic program alone loads the replaced clock";
    }
    std::ifstream maps{"/proc/" + std::to_string(daemon_.pid()) + "/maps"};
    const std::string mapped{std::istreambuf_iterator<char>{maps}, {}};
    EXPECT_NE(std::string::npos, mapped.find(TALVEK_CLOCK_PRELOAD));
    const int silent = Connect();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(i, daemon_.Client("exit " + std::to_string(i)).exitStatus());
    }
    EXPECT_EQ(9u, U32(Talk(silent, CommandPkg("exit 9")), 16));
#endif
}

}  // namespace
