#include "service/package.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "service/support/wire.h"
#include "support/canary.h"
#include "support/capture.h"

namespace {

bool g_sendsNothing = false;  // a write returns 0

}  // namespace

extern "C" {
ssize_t __real_send(int fd, const void *pBytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *pBytes, size_t size, int flags);
}
ssize_t __wrap_send(int fd, const void *pBytes, size_t size, int flags) {
    return g_sendsNothing ? 0 : __real_send(fd, pBytes, size, flags);
}

namespace {

using namespace talvek::test;

// Checks bytes that end at the end of readable memory.
int Check(const std::string &bytes) {
    const GuardedCopy copy{bytes.data(), bytes.size()};
    return TALVEK_CheckPkgHeader(reinterpret_cast<const tTalvekPkg *>(copy.bytes()),
                                 static_cast<uint32_t>(bytes.size()));
}

// 01 11 00 00 | 00 00 00 00 | 00 00 | 01 00 | 10 00 | chksum 0x1110
const std::string kSmallest{"\x01\x11\0\0\0\0\0\0\0\0\x01\0\x10\0\x10\x11", 16};

TEST(PkgLayout, FieldsHaveTheirOffsets) {
    tTalvekPkg pkg = {};
    pkg.ver_fragement = 0x81;
    pkg.pkg_cnt_idx = 0x32;
    pkg.reserved = 0x0403;
    pkg.session = 0x08070605;
    pkg.sn = 0x0A09;
    pkg.type = 0x0C0B;
    pkg.sz = 0x0E0D;
    pkg.chksum = 0x100F;
    const std::string bytes{reinterpret_cast<const char *>(&pkg), sizeof pkg};
    EXPECT_EQ("81 32 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 ", Hex(bytes));
    EXPECT_EQ(1152, TALVEK_PKG_MAX);
    EXPECT_EQ(1, TALVEK_PKG_VERSION);
    EXPECT_EQ(0x11, TALVEK_PKG_SINGLE);
    EXPECT_EQ(1, TALVEK_PKG_REGISTER);
    EXPECT_EQ(2, TALVEK_PKG_COMMAND);
    EXPECT_EQ(5, TALVEK_PKG_RESULT);
}

// 0x1101 ^ 0x0001 ^ 0x0010 = 0x1110
TEST(CalcPkgChecksum, IsTheExclusiveOrOfTheSevenWordsBeforeIt) {
    const auto *pPkg = reinterpret_cast<const tTalvekPkg *>(kSmallest.data());
    EXPECT_EQ(0x1110, TALVEK_CalcPkgChecksum(pPkg));
    Pkg pkg;
    pkg.reserved = 0x8000;
    pkg.session = 0xDEAD0BEE;  // 0xDEAD ^ 0x0BEE = 0xD543
    pkg.sn = 0x0102;
    pkg.type = 2;
    pkg.sz = 20;
    const std::string bytes = pkg.Bytes();
    EXPECT_EQ(0x1101 ^ 0x8000 ^ 0xD543 ^ 0x0102 ^ 2 ^ 20,
              TALVEK_CalcPkgChecksum(reinterpret_cast<const tTalvekPkg *>(bytes.data())));
    EXPECT_EQ(0, TALVEK_CalcPkgChecksum(nullptr));
}

TEST(CheckPkgHeader, ReturnsTheTypeOfAGoodHeader) {
    EXPECT_EQ("", Capture([] {
                  EXPECT_EQ(1, Check(kSmallest));
                  for (const int type : {1, 2, 3, 4, 5, 6, 0x7FFF, 0x8000, 0xFFFF}) {
                      Pkg pkg;
                      pkg.type = static_cast<uint16_t>(type);
                      EXPECT_EQ(type, Check(pkg.Bytes()));
                  }
              }));
}

TEST(CheckPkgHeader, ReturnsZeroForTypeZeroWithoutADump) {
    EXPECT_EQ("", Capture([] { EXPECT_EQ(0, Check(Pkg{}.Bytes())); }));
}

TEST(CheckPkgHeader, DoesNotDumpLessThanAHeader) {
    EXPECT_EQ("", Capture([] {
                  EXPECT_EQ(0, TALVEK_CheckPkgHeader(nullptr, 16));
                  EXPECT_EQ(0, TALVEK_CheckPkgHeader(nullptr, 0));
                  for (size_t length = 0; length < 16; ++length) {
                      EXPECT_EQ(0, Check(kSmallest.substr(0, length)));
                      EXPECT_EQ(0, Check(std::string(length, '\xFF')));
                  }
              }));
}

TEST(CheckPkgHeader, DumpsABadChecksumInSixLines) {
    Pkg pkg;
    pkg.session = 0xABC;
    pkg.sn = 0x12;
    pkg.type = 1;
    pkg.chksum = 0x1111;
    // Computed: 0x1101 ^ 0x0ABC ^ 0x0012 ^ 0x0001 ^ 0x0010 = 0x1BBE
    EXPECT_EQ((Lines{"TALVEK: Fail to check tTalvekPkg header:", "=========================",
                     "TALVEK: (ver, fragement) = (1, 0)", "TALVEK: (pkg_cnt, pkg_idx) = (1, 1)",
                     "TALVEK: (session, sn) = (0x00000ABC, 0x0012)",
                     "TALVEK: (chksum, type, sz) = (0x1111/0x1BBE, 1, 16)",
                     "TALVEK: ========================"}),
              CaptureLog([&] { EXPECT_EQ(0, Check(pkg.Bytes())); }));
}

TEST(CheckPkgHeader, DumpsTheBitFieldsOneByOne) {
    Pkg pkg;
    pkg.byte0 = 0xFF;
    pkg.byte1 = 0xE3;
    pkg.session = 0xFFFFFFFF;
    pkg.sn = 0xFFFF;
    pkg.type = 0xFFFF;
    pkg.sz = 0xFFFF;
    pkg.chksum = 0;
    // Computed: 0xE3FF ^ 0 ^ 0xFFFF ^ 0xFFFF ^ 0xFFFF ^ 0xFFFF ^ 0xFFFF = 0x1C00
    const Lines lines = CaptureLog([&] { EXPECT_EQ(0, Check(pkg.Bytes())); });
    ASSERT_EQ(7u, lines.size());
    EXPECT_EQ("TALVEK: (ver, fragement) = (127, 1)", lines[2]);
    EXPECT_EQ("TALVEK: (pkg_cnt, pkg_idx) = (3, 14)", lines[3]);
    EXPECT_EQ("TALVEK: (session, sn) = (0xFFFFFFFF, 0xFFFF)", lines[4]);
    EXPECT_EQ("TALVEK: (chksum, type, sz) = (0x0000/0x1C00, 65535, 65535)", lines[5]);
}

TEST(CheckPkgHeader, ChecksTheFirstTwoBytes) {
    const auto judge = [](uint8_t byte0, uint8_t byte1) {
        Pkg pkg;
        pkg.byte0 = byte0;
        pkg.byte1 = byte1;
        pkg.type = 2;
        return Check(pkg.Bytes());
    };
    Capture([&] {
        EXPECT_EQ(0, judge(0x02, 0x11)) << "version 2";
        EXPECT_EQ(0, judge(0x00, 0x11)) << "version 0";
        EXPECT_EQ(0, judge(0x81, 0x11)) << "a fragment of one package";
        EXPECT_EQ(0, judge(0x81, 0x32)) << "index 3 of 2";
        EXPECT_EQ(2, judge(0x81, 0x22)) << "the second of two";
        EXPECT_EQ(0, judge(0x01, 0x12)) << "two packages, not fragmented";
        EXPECT_EQ(0, judge(0x01, 0x10)) << "no package";
        EXPECT_EQ(0, judge(0x01, 0x21)) << "index 2 of 1";
        EXPECT_EQ(2, judge(0x01, 0x01)) << "index 0 is not above the count";
        EXPECT_EQ(2, judge(0x81, 0xFF)) << "the fifteenth of fifteen";
    });
}

// All 65,536 first words against the rule in another form: the masked word, or a fragment of two or
// more.
TEST(CheckPkgHeader, ChecksEveryFirstWord) {
    int good = 0;
    Capture([&] {
        for (unsigned word = 0; word < 0x10000; ++word) {
            Pkg pkg;
            pkg.byte0 = static_cast<uint8_t>(word & 0xFF);
            pkg.byte1 = static_cast<uint8_t>(word >> 8);
            pkg.type = 7;
            const std::string bytes = pkg.Bytes();
            const int type =
                TALVEK_CheckPkgHeader(reinterpret_cast<const tTalvekPkg *>(bytes.data()), 16);
            const bool single = (word & 0x0F80) == 0x0100;
            const bool fragment = (word & 0x80) != 0 && (word >> 8 & 0xF) >= 2;
            const bool expected =
                (word & 0x7F) == 1 && (single || fragment) && (word >> 12) <= (word >> 8 & 0xF);
            ASSERT_EQ(expected ? 7 : 0, type) << word;
            good += expected;
        }
    });
    // Single: index 0 and 1. Fragments of n = 2..15: n + 1 indices each, 3 + ... + 16 = 133.
    EXPECT_EQ(2 + 133, good);
}

TEST(CheckPkgHeader, DetectsEverySingleBitError) {
    Capture([] {
        for (size_t bit = 0; bit < 16 * 8; ++bit) {
            std::string bytes = kSmallest;
            bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
            EXPECT_EQ(0, Check(bytes)) << "bit " << bit;
        }
    });
}

TEST(CheckPkgHeader, DoesNotCheckPayloadReservedBytesAndSize) {
    EXPECT_EQ("", Capture([] {
                  EXPECT_EQ(1, Check(kSmallest + "payload"));
                  EXPECT_EQ(1, Check(kSmallest + "changed"));
                  for (const int sz : {0, 1, 15, 16, 1152, 1153, 0xFFFF}) {
                      Pkg pkg;
                      pkg.type = 3;
                      pkg.sz = sz;
                      pkg.reserved = 0xBEEF;
                      EXPECT_EQ(3, Check(pkg.Bytes()));
                  }
              }));
}

class SendPkg : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_));
    }
    void TearDown() override {
        close(fds_[0]);
        close(fds_[1]);
    }
    int Send(const std::string &bytes) {
        tTalvekClient client = {};
        client.fd = fds_[0];
        return TALVEK_SendPkg(&client, reinterpret_cast<const tTalvekPkg *>(bytes.data()),
                              static_cast<uint32_t>(bytes.size()));
    }
    int fds_[2];
};

TEST_F(SendPkg, WritesHeaderAndPayload) {
    const std::string bytes = kSmallest + std::string(1136, 'p');
    EXPECT_EQ(0, Send(bytes));
    EXPECT_EQ(bytes, Take(fds_[1], bytes.size()));
}

TEST_F(SendPkg, WritesUntilEverythingIsWritten) {
    const std::string bytes(4 << 20, 'x');  // more than a socket buffers
    std::string received;
    std::thread reader{[&] { received = Take(fds_[1], bytes.size()); }};
    EXPECT_EQ(0, Send(bytes));
    reader.join();
    EXPECT_TRUE(bytes == received);
}

TEST_F(SendPkg, WritesNothingForNothing) {
    EXPECT_EQ(0, Send(""));
    EXPECT_TRUE(Quiet(fds_[1]));
}

TEST_F(SendPkg, FailsWithoutSIGPIPEWhenThePeerHasClosed) {
    signal(SIGPIPE, SIG_DFL);
    shutdown(fds_[1], SHUT_RD);
    EXPECT_EQ(-1, Send(kSmallest));
    EXPECT_EQ(EPIPE, errno);
}

TEST_F(SendPkg, FailsWhenAWriteFails) {
    ASSERT_EQ(0, fcntl(fds_[0], F_SETFL, O_NONBLOCK));
    EXPECT_EQ(-1, Send(std::string(4 << 20, 'x')));
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(SendPkg, FailsWhenAWriteWritesNothing) {
    g_sendsNothing = true;
    EXPECT_EQ(-1, Send(kSmallest));
    g_sendsNothing = false;
}

TEST_F(SendPkg, FailsWithoutClientPackageOrDescriptor) {
    tTalvekClient client = {};
    client.fd = -1;
    const auto *pPkg = reinterpret_cast<const tTalvekPkg *>(kSmallest.data());
    EXPECT_EQ(-1, TALVEK_SendPkg(&client, pPkg, 16));
    EXPECT_EQ(-1, TALVEK_SendPkg(nullptr, pPkg, 16));
    client.fd = fds_[0];
    EXPECT_EQ(-1, TALVEK_SendPkg(&client, nullptr, 16));
}

TEST(SendPkgToPipe, WritesToAnyDescriptor) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    tTalvekClient client = {};
    client.fd = ends[1];
    EXPECT_EQ(0,
              TALVEK_SendPkg(&client, reinterpret_cast<const tTalvekPkg *>(kSmallest.data()), 16));
    EXPECT_EQ(kSmallest, Take(ends[0], 16));
    close(ends[0]);
    close(ends[1]);
}

class SetEnvFromPkg : public ::testing::Test {
  protected:
    void SetUp() override { clearenv(); }

    // The payload ends at the end of readable memory, and is not changed.
    static void Apply(const std::string &payload) {
        const GuardedCopy copy{payload.data(), payload.size()};
        TALVEK_SetEnvFromPkg(copy.text(), static_cast<uint32_t>(payload.size()));
        EXPECT_EQ(payload, std::string(copy.text(), copy.size()));
    }
    static Lines Environment() {
        Lines strings;
        for (char **ppString = environ; ppString != nullptr && *ppString != nullptr; ++ppString) {
            strings.emplace_back(*ppString);
        }
        return strings;
    }
};

TEST_F(SetEnvFromPkg, SetsEveryString) {
    using namespace std::string_literals;
    Apply("A=1\0LONGER_NAME=some value\0EMPTY=\0X==y=\0"s);
    EXPECT_EQ((Lines{"A=1", "LONGER_NAME=some value", "EMPTY=", "X==y="}), Environment());
}

TEST_F(SetEnvFromPkg, OverwritesValuesAndKeepsOtherNames) {
    using namespace std::string_literals;
    setenv("KEPT", "k", 1);
    setenv("A", "old", 1);
    Apply("A=new\0"s);
    EXPECT_EQ((Lines{"KEPT=k", "A=new"}), Environment());
}

TEST_F(SetEnvFromPkg, StopsAtAStringWithoutAnEqualsSign) {
    using namespace std::string_literals;
    Apply("A=1\0nothing\0B=2\0"s);
    EXPECT_EQ((Lines{"A=1"}), Environment());
    Apply("\0C=3\0"s);
    EXPECT_EQ((Lines{"A=1"}), Environment()) << "an empty string has no equals sign";
}

TEST_F(SetEnvFromPkg, SkipsAnEmptyName) {
    using namespace std::string_literals;
    Apply("A=1\0=value\0B=2\0"s);
    EXPECT_EQ((Lines{"A=1", "B=2"}), Environment());
}

TEST_F(SetEnvFromPkg, SetsNothingForAnEmptyPayload) {
    Apply("");
    TALVEK_SetEnvFromPkg(nullptr, 5);
    EXPECT_EQ(Lines{}, Environment());
}

// No byte after the payload is read, whatever its length.
TEST_F(SetEnvFromPkg, EndsWithThePayloadAtEveryLength) {
    using namespace std::string_literals;
    const std::string payload = "AB=12\0CD=34\0"s;
    const Lines expected[] = {{},
                              {},
                              {},
                              {"AB="},
                              {"AB=1"},
                              {"AB=12"},
                              {"AB=12"},
                              {"AB=12"},
                              {"AB=12"},
                              {"AB=12", "CD="},
                              {"AB=12", "CD=3"},
                              {"AB=12", "CD=34"},
                              {"AB=12", "CD=34"}};
    for (size_t length = 0; length <= payload.size(); ++length) {
        clearenv();
        Apply(payload.substr(0, length));
        EXPECT_EQ(expected[length], Environment()) << length;
    }
}

TEST_F(SetEnvFromPkg, SetsAPackageFullOfStrings) {
    std::string payload;
    Lines expected;
    for (int i = 0; i < 142; ++i) {  // 142 * 8 = 1136
        char text[32];
        snprintf(text, sizeof text, "N%03d=%02d", i, i % 100);
        expected.emplace_back(text);
        payload.append(text, 8);
    }
    ASSERT_EQ(1136u, payload.size());
    Apply(payload);
    EXPECT_EQ(expected, Environment());
}

}  // namespace
