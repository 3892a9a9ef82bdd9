// Signals and cancellations that come in the middle of a stream: no text is lost or half written,
// and nothing blocks.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "common/file.h"
#include "common/internal/unique_fd.h"
#include "common/process.h"
#include "support/interruptions.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

// The thread whose next fflush or rewind cancels it, so that the first call below that can be
// cancelled is inside.
thread_local bool g_cancelAtFlush = false;
thread_local bool g_cancelAtRewind = false;

}  // namespace

extern "C" int __real_fflush(FILE *pStream);
extern "C" int __wrap_fflush(FILE *pStream);
int __wrap_fflush(FILE *pStream) {
    if (g_cancelAtFlush) {
        pthread_cancel(pthread_self());
    }
    return __real_fflush(pStream);
}

extern "C" void __real_rewind(FILE *pStream);
extern "C" void __wrap_rewind(FILE *pStream);
void __wrap_rewind(FILE *pStream) {
    if (g_cancelAtRewind) {
        pthread_cancel(pthread_self());
    }
    __real_rewind(pStream);
}

namespace {

namespace fs = std::filesystem;
using talvek::UniqueFd;
using talvek::test::Interruptions;
using talvek::test::kMounts;
using talvek::test::MountTmpfs;
using talvek::test::ReadFile;
using talvek::test::RunInPrivateWorld;
using talvek::test::TempDir;
using talvek::test::WriteFile;
using Lines = std::vector<std::string>;

class Thread {
  public:
    explicit Thread(std::function<void()> body) : body_(std::move(body)) {
        EXPECT_EQ(0, pthread_create(&thread_, nullptr, Run, &body_));
    }
    // Whether it ended within `seconds`, and was cancelled.
    [[nodiscard]] bool EndsCancelled(int seconds) const {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += seconds;
        void *result = nullptr;
        return pthread_timedjoin_np(thread_, &result, &until) == 0 && result == PTHREAD_CANCELED;
    }
    void Join() const { pthread_join(thread_, nullptr); }

  private:
    static void *Run(void *pBody) {
        (*static_cast<std::function<void()> *>(pBody))();
        return nullptr;
    }

    std::function<void()> body_;
    pthread_t thread_;
};

// A pipe that is full: the text cannot be written, neither at once nor again while the thread
// unwinds.
TEST(Cancellation, DropsAPidThatCannotBeWritten) {
    const TempDir dir;
    const std::string path = dir / "pipe";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    const UniqueFd pipe{open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)};
    ASSERT_TRUE(pipe);
    const std::string block(4096, 'x');
    while (write(pipe.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(EAGAIN, errno);
    const Thread thread{[&path] {
        g_cancelAtFlush = true;
        COM_SavePid(path.c_str());
    }};
    const bool ended = thread.EndsCancelled(10);
    EXPECT_TRUE(ended);
    if (!ended) {
        char drain[65536];
        while (read(pipe.get(), drain, sizeof drain) > 0) {
        }
        thread.Join();
    }
}

TEST(Cancellation, LeavesAnEditedFileWhole) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        const std::string rest(100000, 'r');
        WriteFile("/var/file", "a=1\ndelete " + rest.substr(0, 200) + "\n" + rest + "\n");
        tFileItem items[2] = {};
        items[0] = {2, "a=", "a=one"};
        items[1] = {6, "delete", ""};
        tFileItemRequest request = {2, 0, 0, 0, items};
        const Thread thread{[&request] {
            g_cancelAtRewind = true;
            COM_ReplaceItemsInFile("/var/file", &request);
            pthread_testcancel();
        }};
        EXPECT_TRUE(thread.EndsCancelled(10));
        EXPECT_EQ("a=one\n" + rest + "\n", ReadFile("/var/file"));
        EXPECT_EQ(1, std::distance(fs::directory_iterator("/var"), {})) << "no copy is left";
    });
}

TEST(Cancellation, LeavesAFileThatIsStillReadAsItWas) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        WriteFile("/var/file", "a=1\nb=2\n");
        tFileItem item = {2, "a=", "a=one"};
        tFileItemRequest request = {1, 0, 0, 0, &item};
        const Thread thread{[&request] {
            g_cancelAtFlush = true;  // the flush of the copy
            COM_ReplaceItemsInFile("/var/file", &request);
        }};
        EXPECT_TRUE(thread.EndsCancelled(10));
        EXPECT_EQ("a=1\nb=2\n", ReadFile("/var/file"));
        EXPECT_EQ(1, std::distance(fs::directory_iterator("/var"), {})) << "no copy is left";
    });
}

TEST(Interruption, KeepsThePartOfALineThatWasRead) {
    RunInPrivateWorld(kMounts, [] {
        const Interruptions often{10};
        Lines lines;
        EXPECT_EQ(0, COM_PopenRead("printf par; sleep 0.2; echo tial; printf end", nullptr, &lines,
                                   [](const char *pLine, void *pUser) {
                                       if (pLine != nullptr) {
                                           static_cast<Lines *>(pUser)->push_back(pLine);
                                       }
                                   }));
        EXPECT_EQ((Lines{"partial\n", "end"}), lines);
    });
}

}  // namespace
