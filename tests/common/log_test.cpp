#include "common/log.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"

namespace {

using namespace talvek::test;

// The sizes that the logger requests of realloc. Requests after the first g_granted fail.
std::vector<size_t> *g_pGrown = nullptr;
size_t g_granted = 0;

// The time of day that the logger sees, or NULL for the real one.
const struct timeval *g_pTimeOfDay = nullptr;

int TimeOfDay(struct timeval *pNow) {
    if (g_pTimeOfDay != nullptr) {
        *pNow = *g_pTimeOfDay;
        return 0;
    }
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    *pNow = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return 0;
}

}  // namespace

extern "C" {
void *__real_realloc(void *pBlock, size_t size);
void *__wrap_realloc(void *pBlock, size_t size);
int __wrap_gettimeofday(struct timeval *pNow, void *pZone);
int __wrap___gettimeofday64(struct timeval *pNow, void *pZone);

void *__wrap_realloc(void *pBlock, size_t size) {
    if (g_pGrown != nullptr) {
        g_pGrown->push_back(size);
        if (g_pGrown->size() > g_granted) {
            return nullptr;
        }
    }
    return __real_realloc(pBlock, size);
}

int __wrap_gettimeofday(struct timeval *pNow, void * /*pZone*/) {
    return TimeOfDay(pNow);
}

// The name of gettimeofday on 32-bit targets with a 64-bit time_t.
int __wrap___gettimeofday64(struct timeval *pNow, void * /*pZone*/) {
    return TimeOfDay(pNow);
}
}

namespace {

// The sizes that `log` requests when the first `granted` requests succeed.
std::vector<size_t> Growth(size_t granted, const std::function<void()> &log) {
    std::vector<size_t> sizes;
    g_granted = granted;
    g_pGrown = &sizes;
    log();
    g_pGrown = nullptr;
    return sizes;
}

TEST(Log, WritesModuleAndLineWithoutFunction) {
    int count = 0;
    EXPECT_EQ("COMMON,12: x=5\n",
              Capture([&] { count = COM_Log("COMMON", 12, nullptr, "x=%d\n", 5); }));
    EXPECT_EQ(15, count);
}

TEST(Log, WritesModuleLineAndFunction) {
    int count = 0;
    EXPECT_EQ("TALVEK,7:TALVEK_Client(): hi\n",
              Capture([&] { count = COM_Log("TALVEK", 7, "TALVEK_Client", "hi\n"); }));
    EXPECT_EQ(29, count);
}

TEST(Log, AddsNoNewlineOfItsOwn) {
    EXPECT_EQ("DEV,1: a", Capture([] { COM_Log("DEV", 1, nullptr, "a"); }));
}

// Up to 255 characters fit into the first block; longer messages are formatted a second time.
TEST(Log, WritesMessagesOfEveryLengthWhole) {
    for (const size_t length : {0, 1, 254, 255, 256, 257, 511, 512, 1000, 70000}) {
        const std::string text(length, 'm');
        int count = 0;
        EXPECT_EQ("DNS,3: " + text,
                  Capture([&] { count = COM_Log("DNS", 3, nullptr, "%s", text.c_str()); }));
        EXPECT_EQ(static_cast<int>(length) + 7, count);
    }
}

TEST(Log, GrowsToTheLengthOfTheMessageAndItsNul) {
    Capture([] {
        for (const size_t length : {255, 256, 1000}) {
            const std::string text(length, 'm');
            const std::vector<size_t> sizes =
                Growth(9, [&] { COM_Log("DNS", 3, nullptr, "%s", text.c_str()); });
            const std::vector<size_t> once{length + 1};
            EXPECT_EQ(length < 256 ? std::vector<size_t>{} : once, sizes);
        }
    });
}

// The "C" locale cannot encode this wide character, so vsnprintf fails and reports no length.
TEST(Log, DoublesTheBlockForAMessageOfUnknownLength) {
    const wchar_t text[] = {0x263A, 0};
    const std::string output = Capture([&text] {
        const std::vector<size_t> sizes =
            Growth(3, [&text] { COM_Log("COMMON", 1, "wide", "%ls\n", text); });
        EXPECT_EQ((std::vector<size_t>{512, 1024, 2048, 4096}), sizes);
    });
    EXPECT_EQ("COMMON,1:wide(): Failed to print", output);
}

TEST(Log, KeepsErrno) {
    Capture([] {
        errno = ENOTDIR;
        COM_Log("COMMON", 1, nullptr, "%s\n", std::string(1000, 'x').c_str());
        EXPECT_EQ(ENOTDIR, errno);
        COM_LogColor("COMMON", 1, nullptr, "x\n");
        EXPECT_EQ(ENOTDIR, errno);
        COM_PrintTimeStamp("COMMON", 1);
        EXPECT_EQ(ENOTDIR, errno);
    });
}

// A line longer than the buffer of the stream is written, and fails, within printf.
TEST(Log, ReturnsTheFailureOfPrintf) {
    const pid_t child = fork();
    if (child == 0) {
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, STDOUT_FILENO);
        const std::string text(70000, 'x');
        const bool failed = COM_Log("M", 1, "f", "%s", text.c_str()) < 0 &&
                            COM_Log("M", 1, nullptr, "%s", text.c_str()) < 0 &&
                            COM_LogColor("M", 1, "f", "%s", text.c_str()) < 0;
        _exit(failed ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST(LogColor, EnclosesTheLineInYellow) {
    int count = 0;
    EXPECT_EQ("\033[33mCOMMON,12: x=5\n\033[0m",
              Capture([&] { count = COM_LogColor("COMMON", 12, nullptr, "x=%d\n", 5); }));
    EXPECT_EQ(15 + 5 + 4, count);
    EXPECT_EQ("\033[33mTALVEK,7:main(): hi\n\033[0m",
              Capture([] { COM_LogColor("TALVEK", 7, "main", "hi\n"); }));
}

// A line is written before the call returns, so a child that is forked next does not write it
// again.
TEST(Log, IsWrittenAtOnceAndOnceAroundFork) {
    EXPECT_EQ("COMMON,1: one\nCOMMON,2: two\nCOMMON,3: three\n", Capture([] {
                  COM_Log("COMMON", 1, nullptr, "one\n");
                  const pid_t child = fork();
                  if (child == 0) {
                      COM_Log("COMMON", 2, nullptr, "two\n");
                      exit(0);  // flushes the stream
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
    EXPECT_EQ(output.size(), length) << "something else than whole lines was written";
}

TEST(PrintTimeStamp, WritesUtcWithMicroseconds) {
    setenv("TZ", "XXX-5", 1);  // must not have an effect
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

// 2 January 2031, 03:04:05 and 6 microseconds.
TEST(PrintTimeStamp, FillsEveryFieldWithZerosToItsWidth) {
    struct tm calendar = {};
    calendar.tm_year = 2031 - 1900;
    calendar.tm_mday = 2;
    calendar.tm_hour = 3;
    calendar.tm_min = 4;
    calendar.tm_sec = 5;
    const struct timeval pretended = {timegm(&calendar), 6};
    g_pTimeOfDay = &pretended;
    const std::string plain = Capture([] { EXPECT_EQ(0, COM_PrintTimeStamp(nullptr, 9)); });
    const std::string named = Capture([] { EXPECT_EQ(0, COM_PrintTimeStamp("DNS", -9)); });
    g_pTimeOfDay = nullptr;
    EXPECT_EQ("[2031/01/02 03:04:05.000006] ", plain);
    EXPECT_EQ("DNS,-9: [2031/01/02 03:04:05.000006] ", named);
}

TEST(PrintTimeStamp, WritesModuleAndLineFirst) {
    const std::string text = Capture([] { EXPECT_EQ(0, COM_PrintTimeStamp("TALVEK", 42)); });
    EXPECT_TRUE(
        std::regex_match(text, std::regex{"TALVEK,42: \\[[0-9/]{10} [0-9:]{8}\\.\\d{6}\\] "}))
        << text;
}

}  // namespace
