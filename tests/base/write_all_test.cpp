#include "base/write_all.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <string>

#include "base/unique_fd.h"
#include "support/file_size_limit.h"
#include "support/private_world.h"
#include "support/scripted_writes.h"
#include "support/temp_dir.h"

namespace {

using talvek::Interrupted;
using talvek::UniqueFd;
using talvek::WriteAll;
using talvek::Written;
using namespace talvek::test;

class WriteAllTest : public testing::Test {
  protected:
    // Writes "12345". `writes` is what each write does (scripted_writes.h); errno is 0 before.
    Written Write(const std::deque<ssize_t> &writes, int maxIdle = 1,
                  Interrupted interrupted = Interrupted::kRepeats) {
        fd_.Reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        g_writes = writes;
        errno = 0;
        const Written written = WriteAll(fd_.get(), "12345", 5, interrupted, maxIdle);
        EXPECT_TRUE(g_writes.empty()) << g_writes.size() << " writes are left";
        EXPECT_EQ(std::string{"12345"}.substr(0, static_cast<size_t>(written.done)),
                  ReadFile(path_));
        return written;
    }

    TempDir dir_;
    std::string path_ = dir_ / "file";
    UniqueFd fd_;
};

TEST_F(WriteAllTest, ContinuesAWriteThatIsCutShortOrInterrupted) {
    EXPECT_TRUE(Write({}).complete());
    EXPECT_TRUE(Write({1, 3, 1}).complete());
    EXPECT_TRUE(Write({-EINTR, 2, -EINTR, -EINTR, 3}).complete());
}

TEST_F(WriteAllTest, ReturnsWhatWasWrittenBeforeAFailure) {
    Written written = Write({3, -ENOSPC});
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(3, written.done);
    EXPECT_EQ(-1, written.last);
    EXPECT_FALSE(written.complete());
    written = Write({-EIO});
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, written.done);
    EXPECT_FALSE(written.complete());
}

TEST_F(WriteAllTest, FailsAfterAnInterruptionThatIsNotRepeated) {
    const Written written = Write({3, -EINTR}, 1, Interrupted::kFails);
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(3, written.done);
    EXPECT_FALSE(written.complete());
}

TEST_F(WriteAllTest, GivesUpAfterTheGivenNumberOfIdleWritesInARow) {
    EXPECT_TRUE(Write({0, 0, 1, 0, 0, 4}, 3).complete());
    const Written written = Write({0, 0, 1, 0, 0, 0}, 3);
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(1, written.done);
    EXPECT_EQ(0, written.last);
    EXPECT_FALSE(written.complete());
    EXPECT_EQ(0, Write({0}).done);
    EXPECT_EQ(EIO, errno);
}

TEST_F(WriteAllTest, MakesOneWriteForNoBytes) {
    g_writes = {0};
    const Written written = WriteAll(-1, nullptr, 0, Interrupted::kFails);
    EXPECT_TRUE(written.complete());
    EXPECT_EQ(0, written.last);
    EXPECT_TRUE(g_writes.empty());
    EXPECT_FALSE(WriteAll(-1, nullptr, 0, Interrupted::kFails).complete())
        << "the descriptor is examined";
    EXPECT_EQ(EBADF, errno);
}

TEST_F(WriteAllTest, RefusesANegativeSize) {
    const Written written = WriteAll(-1, "x", -1, Interrupted::kFails);
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, written.done);
    EXPECT_FALSE(written.complete());
}

// The kernel cuts the first write at the limit; the second one gets the signal.
TEST_F(WriteAllTest, FailsAtAFileSizeLimitWithoutASignal) {
    EXPECT_TRUE(UnderFileSizeLimit(3, [this] {
        const Written written = Write({});
        return errno == EFBIG && written.done == 3 && !written.complete();
    }));
    EXPECT_EQ("123", ReadFile(path_));
}

}  // namespace
