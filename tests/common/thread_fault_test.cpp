#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/thread.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// The optimiser makes malloc of a realloc without a block. The build for coverage has no optimiser,
// so there the name of the file comes first.
#ifdef TALVEK_COVERAGE
constexpr int kRegistryGrows = 1;
#else
constexpr int kRegistryGrows = 0;
#endif

TEST(ThreadFault, KeepsTheEntriesWithoutMemoryForAnother) {
    RunInPrivateWorld(talvek::test::kMounts, [] {
        MountTmpfs("/var");
        EXPECT_EQ(1, COM_LogThread("one"));
        const Lines log = CaptureLog([] {
            const Fault fault{"realloc", kRegistryGrows, ENOMEM};
            EXPECT_EQ(-1, COM_LogThread("two"));
        });
        // Three entries: the old one, the new one and the terminator.
        EXPECT_EQ((Lines{"COMMON:COM_ReallocAndCopyBuf(): REALLOC(" + std::to_string(3 * 88) +
                         ") failed : Cannot allocate memory"}),
                  log);
        EXPECT_EQ(1U, CaptureLog([] { COM_ShowThread(); }).size());
        EXPECT_EQ(2, COM_LogThread("three"));
    });
}

TEST(ThreadFault, LogsAPidFileThatCannotBeWritten) {
    RunInPrivateWorld(talvek::test::kMounts, [] {
        MountTmpfs("/var");
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): [one] fprintf() error : Input/output error"}),
                  CaptureLog([] {
                      const Fault fault{"fflush", 0, EIO};
                      EXPECT_EQ(1, COM_LogThread("one"));
                  }));
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : Too many "
                         "open files"}),
                  CaptureLog([] {
                      const Fault fault{"open", 0, EMFILE};
                      EXPECT_EQ(2, COM_LogThread("one"));
                  }));
        EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : Cannot "
                         "allocate memory"}),
                  CaptureLog([] {
                      const Fault fault{"fdopen", 0, ENOMEM};
                      EXPECT_EQ(3, COM_LogThread("one"));
                  }));
        int count = 3;
        for (const char *call : {"fstat", "ftruncate"}) {
            EXPECT_EQ((Lines{"COMMON:COM_LogThread(): fopen(/var/run/one.thread.pid) error : "
                             "Input/output error"}),
                      CaptureLog([&] {
                          const Fault fault{call, 0, EIO};
                          EXPECT_EQ(++count, COM_LogThread("one"));
                      }))
                << call;
        }
    });
}

TEST(ThreadFault, DoesNotStopAWatchdogThatDidNotStart) {
    const Lines log = CaptureLog([] {
        {
            const Fault fault{"pthread_create", 0, EAGAIN};
            EXPECT_EQ(EAGAIN, COM_CreateThreadWatchdog(1));
        }
        EXPECT_EQ(ESRCH, COM_DestroyThreadWatchdog());
    });
    EXPECT_EQ((Lines{"COMMON:COM_CreateThreadWatchdog(): pthread_create() error = " +
                         std::to_string(EAGAIN),
                     "COMMON:COM_DestroyThreadWatchdog(): pthread_cancel() error [" +
                         std::to_string(ESRCH) + "]"}),
              log);
}

// The registry keeps its block as long as the program runs: it is made before the count.
TEST(ThreadFault, KeepsNothingWhicheverCallFails) {
    RunInPrivateWorld(talvek::test::kMounts, [] {
        MountTmpfs("/var");
        COM_LogThread("first");
        int calls = 0;
        Capture([&] {
            calls = EveryCallFails(EIO, [] {
                COM_LogThread("swept");
                COM_LogThreadMemUsage(1);
                COM_ShowThread();
            });
        });
        EXPECT_GT(calls, 6);
    });
}

}  // namespace
