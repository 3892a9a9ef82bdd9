#include "common/io.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/child_process.h"
#include "support/interruptions.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

ChildProcess SleeperNamed(const std::string &name) {
    return ChildProcess{"/bin/sleep", {name, "1234"}};
}

TEST(CheckProcExist, FindsAProcessByAPartOfItsName) {
    RunInPrivateWorld(kPids, [] {
        EXPECT_EQ(-1, COM_CheckProcExist("exportd"));
        ChildProcess sleeper = SleeperNamed("/opt/exportd");
        EXPECT_EQ(0, COM_CheckProcExist("exportd"));
        EXPECT_EQ(0, COM_CheckProcExist("/opt/ex"));
        EXPECT_EQ(-1, COM_CheckProcExist("Exportd"));
        EXPECT_EQ(-1, COM_CheckProcExist("exportd 1234"));
        kill(sleeper.pid(), SIGKILL);
        sleeper.Wait();
        EXPECT_EQ(-1, COM_CheckProcExist("exportd"));
    });
}

TEST(CheckProcExist, ComparesNoArguments) {
    RunInPrivateWorld(kPids, [] {
        const ChildProcess sleeper = SleeperNamed("sleeper-name");
        EXPECT_EQ(0, COM_CheckProcExist("sleeper-name"));
        EXPECT_EQ(-1, COM_CheckProcExist("1234"));
    });
}

TEST(CheckProcExist, ComparesTheFirstLineOnly) {
    RunInPrivateWorld(kPids, [] {
        const ChildProcess sleeper = SleeperNamed("first-line\nsecond-line");
        EXPECT_EQ(0, COM_CheckProcExist("first-line\n"));
        EXPECT_EQ(-1, COM_CheckProcExist("second-line"));
    });
}

// 120 characters, and seven of the ten that follow.
TEST(CheckProcExist, ComparesTheFirst127Characters) {
    RunInPrivateWorld(kPids, [] {
        const ChildProcess sleeper = SleeperNamed(std::string(120, 'n') + "ABCDEFGHIJ");
        EXPECT_EQ(0, COM_CheckProcExist("nABCDEF"));
        EXPECT_EQ(0, COM_CheckProcExist("nABCDEFG"));
        EXPECT_EQ(-1, COM_CheckProcExist("nABCDEFGH"));
    });
}

TEST(CheckProcExist, AnEmptyTextIsInEveryName) {
    EXPECT_EQ(0, COM_CheckProcExist(""));
}

TEST(CheckProcExist, FailsWithoutATextOrProcesses) {
    EXPECT_EQ(-1, COM_CheckProcExist(nullptr));
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        EXPECT_EQ(-1, COM_CheckProcExist(""));
    });
}

// Only directories whose name begins with a digit are processes.
TEST(CheckProcExist, TakesOnlyNumbersForProcesses) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        talvek::test::WriteFile("/proc/self/cmdline", "recorder");
        talvek::test::WriteFile("/proc/" + std::string(200, '1') + "/cmdline", "recorder");
        EXPECT_EQ(-1, COM_CheckProcExist("recorder"));
        talvek::test::WriteFile("/proc/77/cmdline", "recorder");
        EXPECT_EQ(0, COM_CheckProcExist("recorder"));
    });
}

std::string Decode(const std::string &text) {
    const GuardedCopy source{text.c_str()};
    const CanaryBuf buf{text.size()};
    const int count = COM_DecodeHexEscape(buf.text(), source.text());
    EXPECT_GE(count, 0);
    EXPECT_TRUE(buf.UntouchedFrom(static_cast<size_t>(count))) << "no NUL is added";
    return {buf.text(), static_cast<size_t>(count)};
}

TEST(DecodeHexEscape, DecodesEscapesAndCopiesTheRest) {
    EXPECT_EQ("a=1", Decode("a=3D1"));
    EXPECT_EQ("", Decode(""));
    EXPECT_EQ("plain text", Decode("plain text"));
    EXPECT_EQ("AB", Decode("=41=42"));
    EXPECT_EQ("=41", Decode("=3D41")) << "the result is not decoded again";
    EXPECT_EQ((std::string{"\0x", 2}), Decode("=00x"));
}

TEST(DecodeHexEscape, DecodesEveryByteInBothCases) {
    for (int value = 0; value < 256; ++value) {
        for (const char *format : {"=%02X", "=%02x"}) {
            char text[8];
            snprintf(text, sizeof text, format, value);
            EXPECT_EQ(std::string(1, static_cast<char>(value)), Decode(text));
        }
    }
    EXPECT_EQ("\xAB\xAB", Decode("=aB=Ab"));
}

TEST(DecodeHexEscape, CopiesWhatIsNoEscape) {
    for (const char *text :
         {"=zz", "=",   "==",  "=4",  "=4g", "=g4", "=/0",   "=:0",   "=@0",  "=G0", "=`0",
          "=0/", "=0:", "=0@", "=0G", "=0`", "=\n", "a=\nb", "=\r\n", "= 41", "=-1", "text="}) {
        EXPECT_EQ(text, Decode(text));
    }
    EXPECT_EQ("=A", Decode("==41")) << "only the first sign is copied";
    EXPECT_EQ("=4A", Decode("=4=41"));
}

TEST(DecodeHexEscape, StaysInsideEveryTruncatedText) {
    const std::string text = "a=3D=4=41=\r\n=z=e4";
    const char *const expected[] = {"",
                                    "a",
                                    "a=",
                                    "a=3",
                                    "a=",
                                    "a==",
                                    "a==4",
                                    "a==4=",
                                    "a==4=4",
                                    "a==4A",
                                    "a==4A=",
                                    "a==4A=\r",
                                    "a==4A=\r\n",
                                    "a==4A=\r\n=",
                                    "a==4A=\r\n=z",
                                    "a==4A=\r\n=z=",
                                    "a==4A=\r\n=z=e",
                                    "a==4A=\r\n=z\xE4"};
    ASSERT_EQ(text.size() + 1, sizeof expected / sizeof expected[0]);
    for (size_t length = 0; length <= text.size(); ++length) {
        EXPECT_EQ(expected[length], Decode(text.substr(0, length))) << length;
    }
}

TEST(DecodeHexEscape, WorksInPlace) {
    char text[] = "=61=62c";
    EXPECT_EQ(3, COM_DecodeHexEscape(text, text));
    EXPECT_EQ("abc", std::string(text, 3));
}

TEST(DecodeHexEscape, RefusesNull) {
    char buf[4];
    EXPECT_EQ(-1, COM_DecodeHexEscape(nullptr, "x"));
    EXPECT_EQ(-1, COM_DecodeHexEscape(buf, nullptr));
}

class SocketPair : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_));
    }
    void TearDown() override {
        close(ends_[0]);
        ClosePeer();
    }
    void ClosePeer() {
        if (ends_[1] >= 0) {
            close(std::exchange(ends_[1], -1));
        }
    }
    std::string ReceiveAll() {
        std::string all;
        char block[4096];
        ssize_t count;
        while ((count = read(ends_[1], block, sizeof block)) > 0) {
            all.append(block, static_cast<size_t>(count));
        }
        return all;
    }
    int ends_[2] = {-1, -1};
};

using SendAll = SocketPair;

TEST_F(SendAll, SendsEverythingInAsManyCallsAsItTakes) {
    std::string data(4 << 20, 'x');
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i % 251);
    }
    std::string received;
    std::thread reader{[&] { received = ReceiveAll(); }};
    EXPECT_EQ(0, COM_SendAll(ends_[0], data.data(), static_cast<int>(data.size())));
    shutdown(ends_[0], SHUT_WR);
    reader.join();
    EXPECT_TRUE(data == received);
}

TEST_F(SendAll, ReturnsASizeBelowOne) {
    EXPECT_EQ(0, COM_SendAll(ends_[0], "x", 0));
    EXPECT_EQ(-5, COM_SendAll(ends_[0], "x", -5));
    EXPECT_EQ(INT_MIN, COM_SendAll(-1, nullptr, INT_MIN));
    shutdown(ends_[0], SHUT_WR);
    EXPECT_EQ("", ReceiveAll());
}

// SIGPIPE has its default action here: it would end the test program.
TEST_F(SendAll, GetsAnErrorAndNoSignalFromAClosedPeer) {
    ClosePeer();
    EXPECT_EQ(4, COM_SendAll(ends_[0], "text", 4));
    EXPECT_EQ(EPIPE, errno);
}

TEST_F(SendAll, ReturnsHowMuchAFullSocketLeft) {
    ASSERT_EQ(0, fcntl(ends_[0], F_SETFL, O_NONBLOCK));
    const std::string data(16 << 20, 'x');
    const int size = static_cast<int>(data.size());
    const int left = COM_SendAll(ends_[0], data.data(), size);
    EXPECT_GT(left, 0);
    EXPECT_LT(left, size);
    shutdown(ends_[0], SHUT_WR);
    EXPECT_EQ(static_cast<size_t>(size - left), ReceiveAll().size());
}

TEST_F(SendAll, FailsOnABadSocketOrAddress) {
    EXPECT_EQ(3, COM_SendAll(-1, "abc", 3));
    EXPECT_EQ(3, COM_SendAll(ends_[0], nullptr, 3));
}

TEST(ReadRingBuf, CopiesAroundTheEnd) {
    const GuardedCopy ring{"01234567", 8};
    const CanaryBuf out{4};
    COM_ReadRingBuf(out.bytes(), ring.bytes(), 6, 8, 4);
    EXPECT_EQ("6701", std::string(out.text(), 4));
}

// Every offset and length of a ring of eight bytes.
TEST(ReadRingBuf, CopiesFromEveryOffsetEveryLength) {
    const std::string text = "01234567";
    const GuardedCopy ring{text.data(), text.size()};
    for (int offset = 0; offset <= 8; ++offset) {
        for (int len = 0; len <= 8; ++len) {
            const CanaryBuf out{8};
            COM_ReadRingBuf(out.bytes(), ring.bytes(), offset, 8, len);
            const auto count = static_cast<size_t>(len);
            const std::string expected =
                (text + text + text).substr(static_cast<size_t>(offset), count);
            EXPECT_EQ(expected, std::string(out.text(), count)) << offset << ' ' << len;
            EXPECT_TRUE(out.UntouchedFrom(count));
        }
    }
}

TEST(WriteRingBuf, CopiesToEveryOffsetEveryLength) {
    const GuardedCopy source{"abcdefgh", 8};
    for (int offset = 0; offset <= 8; ++offset) {
        for (int len = 0; len <= 8; ++len) {
            const CanaryBuf ring{8, '.'};
            COM_WriteRingBuf(ring.bytes(), offset, 8, source.bytes(), len);
            std::string expected = "........";
            for (int i = 0; i < len; ++i) {
                expected[static_cast<size_t>((offset + i) % 8)] = source.text()[i];
            }
            EXPECT_EQ(expected, std::string(ring.text(), 8)) << offset << ' ' << len;
        }
    }
}

TEST(RingBuf, OfOneByteKeepsTheLastAndRefusesAnOffsetAfterIt) {
    const CanaryBuf ring{1, '.'};
    COM_WriteRingBuf(ring.bytes(), 2, 1, "x", 1);
    EXPECT_TRUE(ring.UntouchedFrom(0));
    COM_WriteRingBuf(ring.bytes(), 1, 1, "ab", 2);
    EXPECT_EQ('b', ring.text()[0]);
    EXPECT_TRUE(ring.Intact());
}

TEST(RingBuf, IsAPlainBufferWithoutARingSize) {
    for (const int size : {0, -1, INT_MIN}) {
        const GuardedCopy plain{"01234567", 8};
        const CanaryBuf out{2};
        COM_ReadRingBuf(out.bytes(), plain.bytes(), 6, size, 2);
        EXPECT_EQ("67", std::string(out.text(), 2));
        const CanaryBuf in{8, '.'};
        COM_WriteRingBuf(in.bytes(), 6, size, "xy", 2);
        EXPECT_EQ("......xy", std::string(in.text(), 8));
    }
}

TEST(RingBuf, GoesRoundAgainForALongerCopy) {
    const GuardedCopy ring{"abc", 3};
    const CanaryBuf out{8};
    COM_ReadRingBuf(out.bytes(), ring.bytes(), 1, 3, 8);
    EXPECT_EQ("bcabcabc", std::string(out.text(), 8));
    const CanaryBuf in{3};
    COM_WriteRingBuf(in.bytes(), 1, 3, "01234567", 8);
    EXPECT_EQ("567", std::string(in.text(), 3));
}

TEST(RingBuf, CopiesNothingForWrongArguments) {
    const CanaryBuf buf{8};
    for (const auto &[offset, len] :
         {std::pair{0, 0}, {0, -1}, {0, INT_MIN}, {-1, 4}, {9, 4}, {INT_MAX, 4}, {INT_MIN, 4}}) {
        COM_ReadRingBuf(buf.bytes(), "01234567", offset, 8, len);
        COM_WriteRingBuf(buf.bytes(), offset, 8, "01234567", len);
    }
    COM_ReadRingBuf(buf.bytes(), nullptr, 0, 8, 4);
    COM_ReadRingBuf(nullptr, "01234567", 0, 8, 4);
    COM_WriteRingBuf(buf.bytes(), 0, 8, nullptr, 4);
    COM_WriteRingBuf(nullptr, 0, 8, "01234567", 4);
    EXPECT_TRUE(buf.UntouchedFrom(0));
}

TEST(SleepTrace, SleepsSilentlyWithoutATag) {
    EXPECT_EQ("", Capture([] {
                  const int64_t start = talvek::MonotonicNs();
                  EXPECT_EQ(0, COM_SleepTrace(0, 20000000, nullptr, 5));
                  EXPECT_LE(20000000, talvek::MonotonicNs() - start);
                  EXPECT_EQ(-1, COM_SleepTrace(0, 1000000000, nullptr, 5));
                  EXPECT_EQ(-1, COM_SleepTrace(-1, 0, nullptr, 5));
              }));
}

TEST(SleepTrace, WritesALineBeforeAndAfterWithATag) {
    EXPECT_EQ("[main, 42] : B4 0. 20000000 sec Sleep\n[main, 42] : After 0. 20000000 sec Sleep\n",
              Capture([] {
                  const int64_t start = talvek::MonotonicNs();
                  EXPECT_EQ(41, COM_SleepTrace(0, 20000000, "main", 42));
                  EXPECT_LE(20000000, talvek::MonotonicNs() - start);
              }));
    EXPECT_EQ("[, -1] : B4 -1. 0 sec Sleep\n[, -1] : After -1. 0 sec Sleep\n",
              Capture([] { EXPECT_EQ(31, COM_SleepTrace(-1, 0, "", -1)); }));
}

// The first line is in the pipe while the process still sleeps.
TEST(SleepTrace, WritesTheFirstLineBeforeTheSleep) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        COM_SleepTrace(100, 0, "t", 1);
        _exit(0);
    }
    const std::string expected = "[t, 1] : B4 100. 0 sec Sleep\n";
    char text[64] = "";
    EXPECT_EQ(static_cast<ssize_t>(expected.size()), read(ends[0], text, sizeof text - 1));
    EXPECT_EQ(expected, text);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(SleepTrace, EndsAtASignal) {
    const Interruptions often{10};
    EXPECT_EQ(-1, COM_SleepTrace(100, 0, nullptr, 1));
    EXPECT_EQ(EINTR, errno);
}

using SetSockTimeout = SocketPair;

TEST_F(SetSockTimeout, SetsBothTimeouts) {
    const struct timeval other = {7, 500000};
    for (const int seconds : {1, 20, 0, 3600}) {
        for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
            ASSERT_EQ(0, setsockopt(ends_[0], SOL_SOCKET, option, &other, sizeof other));
        }
        EXPECT_EQ(0, COM_SetSockTimeout(ends_[0], seconds));
        for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
            struct timeval time = {};  // the emulated ARM fills the lower half of each number
            socklen_t size = sizeof time;
            EXPECT_EQ(0, getsockopt(ends_[0], SOL_SOCKET, option, &time, &size));
            EXPECT_EQ(seconds, time.tv_sec);
            EXPECT_EQ(0, time.tv_usec);
        }
    }
}

TEST_F(SetSockTimeout, LogsTheOneThatFailed) {
    EXPECT_EQ(Lines{"COMMON:COM_SetSockTimeout(): setsockopt(-1, SO_SNDTIMEO, 7 sec) failed - Bad "
                    "file descriptor"},
              CaptureLog([] { EXPECT_EQ(-1, COM_SetSockTimeout(-1, 7)); }));
}

}  // namespace
