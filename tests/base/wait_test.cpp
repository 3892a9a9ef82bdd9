#include "base/wait.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/unique_fd.h"

namespace {

using talvek::Deadline;
using talvek::UniqueFd;
using talvek::WaitReady;

struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
    }
    UniqueFd reader;
    UniqueFd writer;
};

TEST(WaitReady, DistinguishesReadyFromTimeout) {
    Pipe pipe;
    EXPECT_EQ(0, WaitReady(pipe.reader.get(), POLLIN, 0));
    EXPECT_EQ(0, WaitReady(pipe.reader.get(), POLLIN, 1));
    EXPECT_EQ(1, WaitReady(pipe.writer.get(), POLLOUT, -1));
    EXPECT_EQ(1, write(pipe.writer.get(), "x", 1));
    EXPECT_EQ(1, WaitReady(pipe.reader.get(), POLLIN, -1));
}

TEST(WaitReady, IsReadyWhenThePeerHasGone) {
    Pipe pipe;
    pipe.writer.Reset();
    EXPECT_EQ(1, WaitReady(pipe.reader.get(), POLLIN, -1));
}

TEST(WaitReady, FailsWithoutAnOpenDescriptor) {
    for (const int fd : {-1, 1'000'000}) {
        errno = 0;
        EXPECT_EQ(-1, WaitReady(fd, POLLIN, -1));
        EXPECT_EQ(EBADF, errno);
    }
}

TEST(WaitReady, UnblocksSignalsByItsMask) {
    const Pipe pipe;
    struct sigaction note = {};
    note.sa_handler = [](int) {};
    sigaction(SIGUSR1, &note, nullptr);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    raise(SIGUSR1);
    EXPECT_EQ(0, WaitReady(pipe.reader.get(), POLLIN, 1)) << "the caller's mask holds";
    sigdelset(&before, SIGUSR1);
    EXPECT_EQ(-1, WaitReady(pipe.reader.get(), POLLIN, -1, &before));
    EXPECT_EQ(EINTR, errno);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(Deadline, RoundsUpAndStopsAtZero) {
    EXPECT_EQ(0, Deadline{0}.LeftMs());
    EXPECT_EQ(0, Deadline{-5}.LeftMs());
    const int64_t left = Deadline{1000}.LeftMs();
    EXPECT_GT(left, 0);
    EXPECT_LE(left, 1000);
    const Deadline soon{1};
    while (soon.LeftMs() > 0) {
    }
    EXPECT_EQ(0, soon.LeftMs());
}

}  // namespace
