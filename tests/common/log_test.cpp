#include "common/log.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"

namespace {

using talvek::test::Capture;

TEST(Log, WritesModuleAndLineWithoutFunction) {
    int count = 0;
    EXPECT_EQ("COMMON,12: x=5\n",
              Capture([&] { count = COM_Log("COMMON", 12, nullptr, "x=%d\n", 5); }));
    EXPECT_EQ(15, count);
}

TEST(Log, WritesFunctionWithBrackets) {
    int count = 0;
    EXPECT_EQ("TALVEK,7:TALVEK_Client(): hi\n",
              Capture([&] { count = COM_Log("TALVEK", 7, "TALVEK_Client", "hi\n"); }));
    EXPECT_EQ(29, count);
}

TEST(Log, AddsNoNewlineOfItsOwn) {
    EXPECT_EQ("DEV,1: a", Capture([] { COM_Log("DEV", 1, nullptr, "a"); }));
}

// Up to 255 characters fit the first block; 256 and more are formatted a second time.
TEST(Log, KeepsMessagesOfEveryLengthWhole) {
    for (const size_t length : {0, 1, 254, 255, 256, 257, 511, 512, 1000, 70000}) {
        const std::string text(length, 'm');
        int count = 0;
        EXPECT_EQ("DNS,3: " + text,
                  Capture([&] { count = COM_Log("DNS", 3, nullptr, "%s", text.c_str()); }));
        EXPECT_EQ(static_cast<int>(length) + 7, count);
    }
}

TEST(Log, KeepsErrno) {
    Capture([] {
        errno = ENOTDIR;
        COM_Log("COMMON", 1, nullptr, "%s\n", std::string(1000, 'x').c_str());
        EXPECT_EQ(ENOTDIR, errno);
        COM_LogColor("COMMON", 1, nullptr, "x\n");
        EXPECT_EQ(ENOTDIR, errno);
    });
}

TEST(LogColor, EnclosesTheLineInYellow) {
    int count = 0;
    EXPECT_EQ("\033[33mCOMMON,12: x=5\n\033[0m",
              Capture([&] { count = COM_LogColor("COMMON", 12, nullptr, "x=%d\n", 5); }));
    EXPECT_EQ(15 + 5 + 4, count);
    EXPECT_EQ("\033[33mTALVEK,7:main(): hi\n\033[0m",
              Capture([] { COM_LogColor("TALVEK", 7, "main", "hi\n"); }));
}

// A line stands in the pipe before the call returns; a child that is forked behind it does not
// write it again.
TEST(Log, AppearsAtOnceAndOnceAroundFork) {
    EXPECT_EQ("COMMON,1: one\nCOMMON,2: two\nCOMMON,3: three\n", Capture([] {
                  COM_Log("COMMON", 1, nullptr, "one\n");
                  const pid_t child = fork();
                  if (child == 0) {
                      COM_Log("COMMON", 2, nullptr, "two\n");
                      exit(0);  // flushes what the stream would still hold
                  }
                  waitpid(child, nullptr, 0);
                  COM_Log("COMMON", 3, nullptr, "three\n");
              }));
}

TEST(Log, DoesNotMixLinesOfThreads) {
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    const std::string output = Capture([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                const std::string text(300, static_cast<char>('a' + t));
                for (int i = 0; i < kLines; ++i) {
                    COM_Log("COMMON", t, "thread", "%s\n", text.c_str());
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    });
    const std::regex whole{"COMMON,[0-7]:thread\\(\\): ([a-h])\\1{299}\n"};
    const auto begin = std::sregex_iterator(output.begin(), output.end(), whole);
    size_t length = 0;
    int lines = 0;
    for (auto it = begin; it != std::sregex_iterator(); ++it, ++lines) {
        length += static_cast<size_t>(it->length());
    }
    EXPECT_EQ(kThreads * kLines, lines);
    EXPECT_EQ(output.size(), length) << "nothing stands between whole lines";
}

TEST(PrintTimeStamp, WritesUtcWithMicroseconds) {
    setenv("TZ", "XXX-5", 1);  // local time is not asked for
    const time_t before = time(nullptr);
    const std::string plain = Capture([] { EXPECT_EQ(0, COM_PrintTimeStamp(nullptr, 9)); });
    const time_t after = time(nullptr);
    unsetenv("TZ");
    const std::regex form{"\\[(\\d{4})/(\\d\\d)/(\\d\\d) (\\d\\d):(\\d\\d):(\\d\\d)\\.\\d{6}\\] "};
    std::smatch part;
    ASSERT_TRUE(std::regex_match(plain, part, form)) << plain;
    struct tm calendar = {};
    calendar.tm_year = std::stoi(part[1]) - 1900;
    calendar.tm_mon = std::stoi(part[2]) - 1;
    calendar.tm_mday = std::stoi(part[3]);
    calendar.tm_hour = std::stoi(part[4]);
    calendar.tm_min = std::stoi(part[5]);
    calendar.tm_sec = std::stoi(part[6]);
    const time_t printed = timegm(&calendar);
    EXPECT_LE(before, printed);
    EXPECT_GE(after, printed);
}

TEST(PrintTimeStamp, PutsModuleAndLineAhead) {
    const std::string text = Capture([] { EXPECT_EQ(0, COM_PrintTimeStamp("TALVEK", 42)); });
    EXPECT_TRUE(
        std::regex_match(text, std::regex{"TALVEK,42: \\[[0-9/]{10} [0-9:]{8}\\.\\d{6}\\] "}))
        << text;
}

}  // namespace
