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
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "service/support/program.h"
#include "service/support/wire.h"

namespace {

using namespace talvek::test;

bool Torturing() {
    return getenv("TALVEK_TORTURE") != nullptr;
}

// Clock ticks of processor time that a process has used (proc(5), stat, fields 14 and 15).
long TicksOf(pid_t pid) {
    std::ifstream stat{"/proc/" + std::to_string(pid) + "/stat"};
    const std::string text{std::istreambuf_iterator<char>{stat}, {}};
    std::istringstream fields{text.substr(text.rfind(')') + 1)};
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    long user = -1;
    long system = -1;
    fields >> user >> system;
    EXPECT_GE(user, 0);
    return user + system;
}

class Torture : public ::testing::Test {
  protected:
    void TearDown() override {
        Serves();
        EXPECT_TRUE(Eventually([this] { return daemon_.Children().empty(); }))
            << daemon_.Children().size() << " children or zombies";
        EXPECT_TRUE(Eventually([this] { return daemon_.Descriptors() == descriptors_; }))
            << daemon_.Descriptors();
        // Half a second is the window in which the work is measured.
        const long before = TicksOf(daemon_.pid());
        usleep(500 * 1000);
        EXPECT_EQ(before, TicksOf(daemon_.pid())) << "works without a client";
    }

    // A good client is served.
    void Serves() {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(6, daemon_.Client("exit 6").exitStatus());
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        if (Torturing()) {
            EXPECT_LT(took.count(), 1.0);
            printf("a good client was served in %.3f s\n", took.count());
        }
    }

    int Connect() {
        const int fd = ConnectTo(daemon_.socket());
        EXPECT_GE(fd, 0);
        return fd;
    }

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
    const std::string bytes = RegisterPkg(std::string(1000, 'x') + std::string{"=1\0", 3});
    std::vector<int> deaf;
    for (int i = 0; i < 10; ++i) {
        const int fd = Connect();
        ASSERT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));
        // Until neither end takes any more, which the handler's sleep shows.
        EXPECT_TRUE(Eventually([&] {
            const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            return count < 0 && errno == EAGAIN && InState(daemon_.Children().back(), 'S');
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

TEST_F(Torture, ACrowdOfSilentPeers) {
    const size_t count = Torturing() ? 5000 : 200;
    rlimit files;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
    const rlimit enough{std::max<rlim_t>(files.rlim_cur, count + 100), files.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
    std::vector<int> silent;
    for (size_t i = 0; i < count; ++i) {
        silent.push_back(Connect());
    }
    EXPECT_TRUE(Eventually([&] { return daemon_.Children().size() == count; }));
    Serves();
    for (const int fd : silent) {
        close(fd);
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

// A handler without memory serves its client or closes the connection. No other client is affected.
TEST_F(Torture, MemoryUsedUp) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer ends the program when there is no memory";
#endif
    rlimit before;
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_AS, nullptr, &before));
    const rlimit none{4096, before.rlim_max};
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_AS, &none, nullptr));
    const std::string reply = Talk(Connect(), RegisterPkg());
    EXPECT_TRUE(reply.empty() || reply.size() == 16) << reply.size();
    ASSERT_EQ(0, prlimit(daemon_.pid(), RLIMIT_AS, &before, nullptr));
}

}  // namespace
