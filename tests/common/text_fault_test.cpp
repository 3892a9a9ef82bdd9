#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/clock.h"
#include "base/unique_stream.h"
#include "common/settings.h"
#include "common/text.h"
#include "support/cancellation.h"
#include "support/capture.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

TEST(GetLineAfterKeyFault, LogsThatThereIsNoMemory) {
    char *line = nullptr;
    EXPECT_EQ((Lines{"COMMON:COM_GetLineAfterKey(): CALLOC(1, 4) error:Cannot allocate memory"}),
              CaptureLog([&] {
                  const Fault fault{"calloc", 0, ENOMEM};
                  EXPECT_EQ(nullptr, COM_GetLineAfterKey("k=abc\n", "k=", &line));
              }));
    EXPECT_EQ(nullptr, line);
}

std::string Replace(const std::string &text, const char *pOld, const char *pNew) {
    char *buf = COM_ReplaceStr(strdup(text.c_str()), pOld, pNew);
    std::string result{buf};
    free(buf);
    return result;
}

// "a-b-c" takes 6 bytes, and each replacement one more.
TEST(ReplaceStrFault, RetriesUntilTheBlockGrows) {
    for (int nth = 0; nth < 2; ++nth) {
        const long blocks = HeldBlocks();
        EXPECT_EQ(
            (Lines{"COMMON:COM_ReplaceStr(): REALLOC(" + std::to_string(7 + nth) + ") failed"}),
            CaptureLog([&] {
                const Fault fault{"realloc", nth, ENOMEM};
                EXPECT_EQ("a::b::c", Replace("a-b-c", "-", "::"));
            }));
        EXPECT_EQ(blocks, HeldBlocks());
    }
}

TEST(ReplaceStrFault, OutlastsCancellationWhileItWaits) {
    EXPECT_EQ(Lines{"COMMON:COM_ReplaceStr(): REALLOC(7) failed"}, CaptureLog([] {
                  EXPECT_TRUE(OutlastsCancellation([] {
                      const Fault fault{"realloc", 0, ENOMEM};
                      EXPECT_EQ("a::b::c", Replace("a-b-c", "-", "::"));
                  }));
              }));
}

TEST(ReplaceStrFault, WorksWithoutSpareRoom) {
    std::string text;
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        text += "-x";
        expected += "::x";
    }
    // The larger block is requested once, and trimmed to the text's size at the end.
    for (int nth = 0; nth < 2; ++nth) {
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      const Fault fault{"realloc", nth, ENOMEM};
                      EXPECT_EQ(expected, Replace(text, "-", "::"));
                      EXPECT_TRUE(Fault::Tripped());
                  }));
    }
}

// Without memory the call logs and pauses for 10 ms until there is some.
TEST(ReplaceStrFault, WaitsForMemoryWithoutFloodingTheLog) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer itself needs more memory than the limit";
#endif
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const int64_t start = talvek::MonotonicMs();
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        char *buf = strdup(std::string(100, '-').c_str());
        const std::string large(1 << 24, 'x');
        const struct rlimit limit = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_AS, &limit);
        setrlimit(RLIMIT_DATA, &limit);
        free(COM_ReplaceStr(buf, "-", large.c_str()));
        _exit(0);
    }
    close(ends[1]);
    const talvek::UniqueFile log{fdopen(ends[0], "r")};
    char line[200];
    ASSERT_NE(nullptr, fgets(line, sizeof line, log.get()));
    for (int i = 0; i < 10; ++i) {
        // The C library may have room for the first replacements, so the size can change.
        EXPECT_NE(nullptr, strstr(line, ":COM_ReplaceStr(): REALLOC(")) << line;
        ASSERT_NE(nullptr, fgets(line, sizeof line, log.get()));
    }
    EXPECT_LE(100, talvek::MonotonicMs() - start);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST(ScrapingFault, LeaksNothingWhicheverCallFails) {
    EXPECT_GE(EveryCallFails(ENOMEM,
                             [] {
                                 char dst[5];
                                 COM_GetStrInDoubleQuotes("k=\"abcdef\"", "k=", dst, 4);
                                 COM_GetStrBeforeSpace("k=abcdef ", "k=", dst, 4);
                                 COM_GetStrBeforeEOL("k=abcdef\n", "k=", dst, 4);
                                 COM_GetXMLData("<a>abcdef</a>", "a", dst, 4);
                                 COM_GetXMLData("<b>abcdef</b>", "a", dst, 4);
                                 char *line = nullptr;
                                 COM_GetLineAfterKey("k=abcdef\n", "k=", &line);
                                 free(line);
                                 tXmlDataItem item = {};
                                 strcpy(item.name, "A");
                                 EXPECT_EQ(0, COM_ParserXmlData(
                                                  "<DATA Name=\"A\" value=\"1\"></DATA>", &item));
                                 EXPECT_EQ(1, item.value);
                                 char *buf = strdup("a-b-c");
                                 if (buf != nullptr) {
                                     buf = COM_ReplaceStr(buf, "-", "::");
                                     EXPECT_STREQ("a::b::c", buf);
                                     free(buf);
                                 }
                             }),
              12);
}

}  // namespace
