#include "base/wait.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "support/interruptions.h"

namespace {

using talvek::UniqueFd;
using talvek::WaitReady;
using namespace talvek::test;

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

TEST(WaitReady, EndsAtASignalHandler) {
    const Pipe pipe;
    const Interruptions often{10};
    EXPECT_EQ(-1, WaitReady(pipe.reader.get(), POLLIN, -1));
    EXPECT_EQ(EINTR, errno);
}

}  // namespace
