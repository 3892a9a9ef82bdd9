#include "common/digest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/await.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/stack_use.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr char kEmptyMd5[] = "d41d8cd98f00b204e9800998ecf8427e";
constexpr char kEmptySha1[] = "da39a3ee5e6b4b0d3255bfef95601890afd80709";

static_assert(sizeof(tMd5Ctx) == 88 && offsetof(tMd5Ctx, bits) == 16 &&
              offsetof(tMd5Ctx, block) == 24);
static_assert(sizeof(tSha1Ctx) == 92 && offsetof(tSha1Ctx, state) == 8 &&
              offsetof(tSha1Ctx, block) == 28);

// Outputs are written to a buffer of exactly their size.
std::string TextOf(const CanaryBuf &out) {
    return {out.text(), out.size()};
}

std::string Sha1Text(const uint8_t *pDigest) {
    const CanaryBuf hex{COM_SHA1_HEX_SIZE};
    COM_Sha1DigestToHex(hex.text(), pDigest);
    return TextOf(hex);
}

std::string Md5(const std::string &data) {
    const GuardedCopy in{data.data(), data.size()};
    const CanaryBuf hex{COM_MD5_HEX_SIZE};
    COM_MakeBufMD5(hex.text(), in.bytes(), in.size());
    return TextOf(hex);
}

std::string Sha1(const std::string &data) {
    const GuardedCopy in{data.data(), data.size()};
    const CanaryBuf digest{COM_SHA1_SIZE};
    EXPECT_EQ(digest.bytes(), COM_MakeBufSHA1(digest.bytes(), in.bytes(), in.size()));
    return Sha1Text(digest.bytes());
}

std::string FileMd5(const std::string &path) {
    const CanaryBuf hex{COM_MD5_HEX_SIZE};
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_MakeFileMD5(hex.text(), path.c_str())); }))
        << path;
    return TextOf(hex);
}

std::string FileSha1(const std::string &path) {
    const CanaryBuf digest{COM_SHA1_SIZE};
    const Lines log =
        CaptureLog([&] { EXPECT_EQ(0, COM_MakeFileSHA1(digest.bytes(), path.c_str())); });
    const std::string hex = Sha1Text(digest.bytes());
    EXPECT_EQ((Lines{"COMMON:COM_MakeFileSHA1(): Digest = [" + hex + "]"}), log) << path;
    return hex;
}

std::string Pattern(size_t size) {
    std::string data(size, '\0');
    uint32_t x = 12345;
    for (char &c : data) {
        x = x * 1664525 + 1013904223;
        c = static_cast<char>(x >> 24);
    }
    return data;
}

// ---- Published vectors ----

struct Vector {
    std::string message;
    std::string digest;
};

constexpr char kVectorDir[] = "/usr/lib/python3/dist-packages/cryptography_vectors/hashes/";

std::string Unhex(const std::string &hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

// Lines of "Len = <bits>", "Msg = <hex>" and "MD = <hex>"; the message of 0 bits is written as
// "00".
std::vector<Vector> ReadVectors(const std::string &path) {
    std::vector<Vector> vectors;
    std::ifstream in{path};
    std::string message;
    size_t length = 0;
    std::string key;
    std::string equals;
    std::string value;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words{line};
        if (!(words >> key >> equals >> value) || equals != "=") {
            continue;
        }
        if (key == "Len") {
            length = std::stoul(value) / 8;
        } else if (key == "Msg") {
            message = Unhex(value).substr(0, length);
            EXPECT_EQ(length, message.size());
        } else if (key == "MD") {
            vectors.push_back({message, value});
        }
    }
    return vectors;
}

#define SKIP_WITHOUT_VECTORS()                                                          \
    if (access(kVectorDir, R_OK) != 0) {                                                \
        GTEST_SKIP() << "python3-cryptography-vectors is not installed (packages.txt)"; \
    }

// RFC 1321, A.5.
const Vector kRfc1321[] = {
    {"", kEmptyMd5},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

// FIPS 180-1, appendices A to C.
const Vector kFips180[] = {
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
};

TEST(Md5, ReturnsTheDigestsOfTheStandard) {
    for (const Vector &v : kRfc1321) {
        EXPECT_EQ(v.digest, Md5(v.message)) << v.message;
        const GuardedCopy text{v.message.c_str()};
        const CanaryBuf hex{COM_MD5_HEX_SIZE};
        COM_MakeStrMD5(hex.text(), text.text());
        EXPECT_EQ(v.digest, TextOf(hex)) << v.message;
    }
}

TEST(Sha1, ReturnsTheDigestsOfTheStandard) {
    for (const Vector &v : kFips180) {
        EXPECT_EQ(v.digest, Sha1(v.message));
        const GuardedCopy text{v.message.c_str()};
        const CanaryBuf digest{COM_SHA1_SIZE};
        EXPECT_EQ(digest.bytes(), COM_MakeStrSHA1(digest.bytes(), text.text()));
        EXPECT_EQ(v.digest, Sha1Text(digest.bytes()));
    }
}

TEST(Md5, ReturnsTheDigestsOfThePublishedVectors) {
    SKIP_WITHOUT_VECTORS();
    const std::vector<Vector> vectors = ReadVectors(std::string{kVectorDir} + "MD5/rfc-1321.txt");
    EXPECT_EQ(7U, vectors.size());
    for (const Vector &v : vectors) {
        EXPECT_EQ(v.digest, Md5(v.message));
    }
}

TEST(Sha1, ReturnsTheDigestsOfThePublishedVectors) {
    SKIP_WITHOUT_VECTORS();
    size_t count = 0;
    for (const char *pFile : {"SHA1/SHA1ShortMsg.rsp", "SHA1/SHA1LongMsg.rsp"}) {
        for (const Vector &v : ReadVectors(std::string{kVectorDir} + pFile)) {
            EXPECT_EQ(v.digest, Sha1(v.message)) << pFile << ", " << v.message.size() << " bytes";
            ++count;
        }
    }
    EXPECT_EQ(65U + 64U, count);
}

// SHAVS, 6.4: a hundred rounds of a thousand digests, each of the three digests before it.
TEST(Sha1, ReturnsTheDigestsOfTheMonteCarloTest) {
    SKIP_WITHOUT_VECTORS();
    std::string text = ReadFile(std::string{kVectorDir} + "SHA1/SHA1Monte.rsp");
    std::string seed = Unhex(text.substr(text.find("Seed = ") + 7, COM_SHA1_HEX_SIZE));
    ASSERT_EQ(size_t{COM_SHA1_SIZE}, seed.size());
    const std::vector<Vector> expected =
        ReadVectors(std::string{kVectorDir} + "SHA1/SHA1Monte.rsp");
    ASSERT_EQ(100U, expected.size());
    for (const Vector &v : expected) {
        std::string last = seed + seed + seed;
        for (int i = 0; i < 1000; ++i) {
            uint8_t digest[COM_SHA1_SIZE];
            COM_MakeBufSHA1(digest, last.data(), last.size());
            last.erase(0, COM_SHA1_SIZE).append(reinterpret_cast<char *>(digest), sizeof digest);
        }
        seed = last.substr(size_t{2} * COM_SHA1_SIZE);
        ASSERT_EQ(v.digest, Sha1Text(reinterpret_cast<const uint8_t *>(seed.data())));
    }
}

// ---- Contexts ----

TEST(Md5Update, AcceptsAMessageInPiecesOfAnySize) {
    const std::string message = Pattern(1000);
    const std::string whole = Md5(message);
    for (size_t size = 1; size <= message.size(); ++size) {
        tMd5Ctx ctx;
        COM_Md5Init(&ctx);
        for (size_t at = 0; at < message.size(); at += size) {
            const std::string piece = message.substr(at, size);
            const GuardedCopy in{piece.data(), piece.size()};
            COM_Md5Update(&ctx, in.bytes(), in.size());
        }
        const CanaryBuf digest{COM_MD5_SIZE};
        COM_Md5Final(digest.bytes(), &ctx);
        const CanaryBuf hex{COM_MD5_HEX_SIZE};
        COM_Md5DigestToHex(hex.text(), digest.bytes());
        ASSERT_EQ(whole, TextOf(hex)) << "pieces of " << size;
    }
}

TEST(Sha1Update, AcceptsAMessageInPiecesOfAnySize) {
    const std::string message = Pattern(1000);
    const std::string whole = Sha1(message);
    for (size_t size = 1; size <= message.size(); ++size) {
        tSha1Ctx ctx;
        COM_Sha1Init(&ctx);
        for (size_t at = 0; at < message.size(); at += size) {
            const std::string piece = message.substr(at, size);
            const GuardedCopy in{piece.data(), piece.size()};
            COM_Sha1Update(in.bytes(), in.size(), &ctx);
        }
        const CanaryBuf digest{COM_SHA1_SIZE};
        EXPECT_EQ(digest.bytes(), COM_Sha1Final(digest.bytes(), &ctx));
        ASSERT_EQ(whole, Sha1Text(digest.bytes())) << "pieces of " << size;
    }
}

// Three pieces, so that every fill level of the block meets every size of the next piece.
TEST(Update, AcceptsAMessageSplitAtAnyTwoPlaces) {
    const std::string message = Pattern(150);
    const std::string md5 = Md5(message);
    const std::string sha1 = Sha1(message);
    for (size_t i = 0; i <= message.size(); ++i) {
        for (size_t j = i; j <= message.size(); ++j) {
            tMd5Ctx md5Ctx;
            tSha1Ctx sha1Ctx;
            COM_Md5Init(&md5Ctx);
            COM_Sha1Init(&sha1Ctx);
            const size_t ends[] = {0, i, j, message.size()};
            for (size_t k = 0; k < 3; ++k) {
                COM_Md5Update(&md5Ctx, message.data() + ends[k], ends[k + 1] - ends[k]);
                COM_Sha1Update(message.data() + ends[k], ends[k + 1] - ends[k], &sha1Ctx);
            }
            uint8_t digest[COM_SHA1_SIZE];
            char hex[COM_MD5_HEX_SIZE];
            COM_Md5Final(digest, &md5Ctx);
            COM_Md5DigestToHex(hex, digest);
            ASSERT_EQ(md5, std::string(hex, sizeof hex)) << i << " " << j;
            ASSERT_EQ(sha1, Sha1Text(COM_Sha1Final(digest, &sha1Ctx))) << i << " " << j;
        }
    }
}

TEST(Md5Final, ZeroesTheWholeContext) {
    tMd5Ctx ctx;
    COM_Md5Init(&ctx);
    const std::string message = Pattern(100);
    COM_Md5Update(&ctx, message.data(), message.size());
    uint8_t digest[COM_MD5_SIZE];
    COM_Md5Final(digest, &ctx);
    const tMd5Ctx zero = {};
    EXPECT_EQ(0, memcmp(&zero, &ctx, sizeof ctx));
}

TEST(Sha1Final, LeavesAContextThatCanBeReused) {
    tSha1Ctx ctx;
    uint8_t digest[COM_SHA1_SIZE];
    for (int i = 0; i < 2; ++i) {
        COM_Sha1Init(&ctx);
        COM_Sha1Update("abc", 3, &ctx);
        EXPECT_EQ(kFips180[0].digest, Sha1Text(COM_Sha1Final(digest, &ctx)));
    }
}

// RFC 1321, 3.2 and FIPS 180-1, section 5 count in 64 bits. The contexts hold the low word first.
TEST(Update, CountsBitsAndBytesInTwoWords) {
    const std::string message = Pattern(200);
    tMd5Ctx md5;
    COM_Md5Init(&md5);
    COM_Md5Update(&md5, message.data(), 200);
    EXPECT_EQ(1600U, md5.bits[0]);
    EXPECT_EQ(0U, md5.bits[1]);
    md5.bits[0] = 0xFFFFFE00;  // a whole number of blocks
    COM_Md5Update(&md5, message.data(), 65);
    EXPECT_EQ(8U, md5.bits[0]);
    EXPECT_EQ(1U, md5.bits[1]);

    tSha1Ctx sha1;
    COM_Sha1Init(&sha1);
    COM_Sha1Update(message.data(), 200, &sha1);
    EXPECT_EQ(200U, sha1.bytes[0]);
    EXPECT_EQ(0U, sha1.bytes[1]);
    sha1.bytes[0] = 0xFFFFFFC0;
    COM_Sha1Update(message.data(), 65, &sha1);
    EXPECT_EQ(1U, sha1.bytes[0]);
    EXPECT_EQ(1U, sha1.bytes[1]);
}

TEST(Update, ReadsFromAnyAddress) {
    const std::string message = Pattern(256);
    const std::string md5 = Md5(message);
    const std::string sha1 = Sha1(message);
    alignas(16) char room[256 + 16];
    for (size_t shift = 0; shift < 16; ++shift) {
        std::copy(message.begin(), message.end(), room + shift);
        char hex[COM_MD5_HEX_SIZE];
        COM_MakeBufMD5(hex, room + shift, message.size());
        EXPECT_EQ(md5, std::string(hex, sizeof hex));
        uint8_t out[COM_SHA1_SIZE + 16];
        EXPECT_EQ(sha1, Sha1Text(COM_MakeBufSHA1(out + shift, room + shift, message.size())));
    }
}

TEST(DigestToHex, WritesEveryByteInLowerCaseWithoutATerminator) {
    for (int high = 0; high < 16; ++high) {
        uint8_t digest[COM_SHA1_SIZE];
        char expected[2 * COM_SHA1_SIZE + 1];
        for (int i = 0; i < COM_SHA1_SIZE; ++i) {
            digest[i] = static_cast<uint8_t>(high << 4 | (i & 15));
            snprintf(expected + 2 * i, 3, "%02x", digest[i]);
        }
        const GuardedCopy md5{digest, COM_MD5_SIZE};
        const CanaryBuf md5Hex{COM_MD5_HEX_SIZE};
        COM_Md5DigestToHex(md5Hex.text(), md5.bytes());
        EXPECT_EQ(std::string(expected, COM_MD5_HEX_SIZE), TextOf(md5Hex));
        const GuardedCopy sha1{digest, COM_SHA1_SIZE};
        EXPECT_EQ(expected, Sha1Text(sha1.bytes()));
    }
}

TEST(Digest, TreatsNullAsNoDataAndDoesNothingWithoutAnOutput) {
    const CanaryBuf hex{COM_MD5_HEX_SIZE};
    COM_MakeStrMD5(hex.text(), nullptr);
    EXPECT_EQ(kEmptyMd5, TextOf(hex));
    COM_MakeBufMD5(hex.text(), nullptr, 5);
    EXPECT_EQ(kEmptyMd5, TextOf(hex));
    uint8_t digest[COM_SHA1_SIZE];
    EXPECT_EQ(kEmptySha1, Sha1Text(COM_MakeStrSHA1(digest, nullptr)));
    EXPECT_EQ(kEmptySha1, Sha1Text(COM_MakeBufSHA1(digest, nullptr, 5)));

    COM_Md5Init(nullptr);
    COM_Md5Update(nullptr, "a", 1);
    COM_Md5Final(digest, nullptr);
    COM_Md5Final(nullptr, nullptr);
    COM_Md5DigestToHex(nullptr, digest);
    COM_Md5DigestToHex(hex.text(), nullptr);
    COM_MakeBufMD5(nullptr, "a", 1);
    COM_MakeStrMD5(nullptr, "a");
    EXPECT_EQ(-1, COM_MakeFileMD5(nullptr, "/dev/null"));
    COM_Sha1Init(nullptr);
    COM_Sha1Update("a", 1, nullptr);
    EXPECT_EQ(digest, COM_Sha1Final(digest, nullptr));
    EXPECT_EQ(nullptr, COM_Sha1Final(nullptr, nullptr));
    COM_Sha1DigestToHex(nullptr, digest);
    EXPECT_EQ(nullptr, COM_MakeBufSHA1(nullptr, "a", 1));
    EXPECT_EQ(nullptr, COM_MakeStrSHA1(nullptr, "a"));
    EXPECT_EQ(-1, COM_MakeFileSHA1(nullptr, "/dev/null"));
    EXPECT_EQ(-1, COM_CheckFileMD5(nullptr, nullptr));
    EXPECT_EQ(kEmptyMd5, TextOf(hex));
}

// ---- Files ----

// Hashes by file name, from the "hash  name" lines of md5sum and sha1sum.
std::map<std::string, std::string> Sums(const std::string &output) {
    std::map<std::string, std::string> sums;
    std::istringstream in{output};
    std::string hash;
    std::string name;
    while (in >> hash >> name) {
        sums[name] = hash;
    }
    return sums;
}

// Every size up to 300, and sizes around multiples of the block and of what is read at once.
std::vector<size_t> FileSizes() {
    std::vector<size_t> sizes;
    for (size_t size = 0; size <= 300; ++size) {
        sizes.push_back(size);
    }
    for (const size_t border : {512, 1024, 4096, 32768, 65536, 1048576}) {
        for (size_t size = border - 1; size <= border + 1; ++size) {
            sizes.push_back(size);
        }
        sizes.push_back(border + 55);  // the length still fits into the last block
        sizes.push_back(border + 56);
    }
    return sizes;
}

TEST(MakeFile, AgreesWithMd5sumAndSha1sumForEverySize) {
    const TempDir dir;
    for (const size_t size : FileSizes()) {
        WriteFile(dir / std::to_string(size), Pattern(size));
    }
    const auto md5 = Sums(RunCommand("cd " + dir.path() + " && md5sum *"));
    const auto sha1 = Sums(RunCommand("cd " + dir.path() + " && sha1sum *"));
    ASSERT_EQ(FileSizes().size(), md5.size());
    ASSERT_EQ(FileSizes().size(), sha1.size());
    EXPECT_EQ(kEmptyMd5, md5.at("0"));
    EXPECT_EQ(kEmptySha1, sha1.at("0"));
    for (const auto &[name, sum] : md5) {
        EXPECT_EQ(sum, FileMd5(dir / name)) << name << " bytes";
        EXPECT_EQ(sha1.at(name), FileSha1(dir / name)) << name << " bytes";
        const std::string data = Pattern(std::stoul(name));
        EXPECT_EQ(sum, Md5(data)) << name << " bytes";
        EXPECT_EQ(sha1.at(name), Sha1(data)) << name << " bytes";
    }
}

// Processor time that this build needs for 4 GiB on this machine.
double SecondsForBigFile(std::string (*sum)(const std::string &)) {
    constexpr size_t kSample = size_t{8} << 20;
    const TempDir dir;
    WriteFile(dir / "sample", std::string(kSample, '\0'));
    const clock_t before = clock();
    sum(dir / "sample");
    const double seconds = static_cast<double>(clock() - before) / CLOCKS_PER_SEC;
    return seconds * static_cast<double>(int64_t{1} << 32) / static_cast<double>(kSample);
}

// A file in memory with a hole of 4 GiB between two texts. From 512 MiB on the number of bits needs
// its high word, from 4 GiB on the number of bytes does.
int MakeBigFile() {
    const int fd = memfd_create("big", MFD_CLOEXEC);
    EXPECT_EQ(12, write(fd, "at the start", 12));
    EXPECT_EQ(12, pwrite(fd, "beyond 4 GiB", 12, off_t{1} << 32));
    return fd;
}

// Compares the digest with that of a tool, which runs at the same time.
void ExpectSumOfTool(const std::string &tool, std::string (*sum)(const std::string &)) {
    // Some 10 s on a PC; more on a slow processor and without optimisation.
    const double seconds = SecondsForBigFile(sum);
    if (seconds > 25) {
        GTEST_SKIP() << "4 GiB would take this build " << seconds << " s";
    }
    const int fd = MakeBigFile();
    const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
    std::string expected;
    std::thread peer{[&] { expected = RunCommand(tool + " < " + path); }};
    const std::string own = sum(path);
    peer.join();
    EXPECT_EQ(own + "  -", expected);
    close(fd);
}

TEST(MakeFileMD5, AgreesWithMd5sumOnMoreThanFourGigabytes) {
    ExpectSumOfTool("md5sum", FileMd5);
}

TEST(MakeFileSHA1, AgreesWithSha1sumOnMoreThanFourGigabytes) {
    ExpectSumOfTool("sha1sum", FileSha1);
}

TEST(MakeFile, ReadsAPipeInPieces) {
    const TempDir dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const std::string data = Pattern(5000);
    const auto feed = [&] {
        const int fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
        size_t at = 0;
        for (size_t size = 1; at < data.size(); size += 7) {
            const std::string piece = data.substr(at, size);
            EXPECT_EQ(ssize_t(piece.size()), write(fd, piece.data(), piece.size()));
            at += piece.size();
            ASSERT_TRUE(HasRead(fd));
        }
        close(fd);
    };
    std::thread first{feed};
    EXPECT_EQ(Md5(data), FileMd5(fifo));
    first.join();
    std::thread second{feed};
    EXPECT_EQ(Sha1(data), FileSha1(fifo));
    second.join();
}

TEST(MakeFile, RunsOnASmallStack) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string data = Pattern(100000);
    WriteFile(path, data);
    WriteFile(path + ".md5", Md5(data) + "  file\n");
    const std::function<void()> calls[] = {
        [&] {
            char hex[COM_MD5_HEX_SIZE];
            EXPECT_EQ(0, COM_MakeFileMD5(hex, path.c_str()));
        },
        [&] {
            uint8_t digest[COM_SHA1_SIZE];
            EXPECT_EQ(0, COM_MakeFileSHA1(digest, path.c_str()));
        },
        [&] { EXPECT_EQ(0, COM_CheckFileMD5(path.c_str(), nullptr)); },
    };
    CaptureLog([&] {
        for (const auto &call : calls) {
            RunOnStack(size_t{16} << 10, call);
            EXPECT_GE(8192U, StackUse(call)) << "call " << &call - calls;
        }
    });
}

// Reading a directory fails, and so does reading memory at an address that is not mapped.
TEST(MakeFile, ReturnsTheDigestOfNoDataForAnUnreadableFile) {
    for (const char *pPath : {"/proc/self", "/proc/self/mem"}) {
        EXPECT_EQ(kEmptyMd5, FileMd5(pPath));
        EXPECT_EQ(kEmptySha1, FileSha1(pPath));
    }
}

// Expects "open(<path>) fail : <text>", its number of characters as the result, and unchanged
// outputs.
void ExpectOpenFails(const char *pPath, const std::string &shown, const std::string &error) {
    const CanaryBuf hex{COM_MD5_HEX_SIZE};
    const CanaryBuf digest{COM_SHA1_SIZE};
    int md5 = 0;
    int sha1 = 0;
    const std::string md5Text = Capture([&] { md5 = COM_MakeFileMD5(hex.text(), pPath); });
    const std::string sha1Text = Capture([&] { sha1 = COM_MakeFileSHA1(digest.bytes(), pPath); });
    const std::string message = "open(" + shown + ") fail : " + error;
    EXPECT_EQ((Lines{"COMMON:COM_MakeFileMD5(): " + message}), talvek::test::LogLines(md5Text));
    EXPECT_EQ((Lines{"COMMON:COM_MakeFileSHA1(): " + message}), talvek::test::LogLines(sha1Text));
    EXPECT_EQ(md5Text.size(), static_cast<size_t>(md5));
    EXPECT_EQ(sha1Text.size(), static_cast<size_t>(sha1));
    EXPECT_TRUE(hex.UntouchedFrom(0));
    EXPECT_TRUE(digest.UntouchedFrom(0));
}

TEST(MakeFile, ReturnsTheResultOfTheLogWhenTheFileCannotBeOpened) {
    const TempDir dir;
    const std::string missing = dir / "missing";
    ExpectOpenFails(missing.c_str(), missing, "No such file or directory");
    ExpectOpenFails("", "", "No such file or directory");
    ExpectOpenFails(nullptr, "(null)", "Bad address");

    const std::string locked = dir / "locked";
    WriteFile(locked, "text");
    ASSERT_EQ(0, chmod(locked.c_str(), 0));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    const uid_t own = geteuid();
    if (own == 0) {
        ASSERT_EQ(0, seteuid(65534));
    }
    ExpectOpenFails(locked.c_str(), locked, "Permission denied");
    ASSERT_EQ(0, seteuid(own));
}

// ---- Side files ----

class CheckFileMD5 : public ::testing::Test {
  protected:
    void SetUp() override { WriteFile(Path(), data_); }

    [[nodiscard]] std::string Path() const { return dir_ / "image.bin"; }
    void Side(const std::string &text, const std::string &suffix = ".md5") const {
        WriteFile(Path() + suffix, text);
    }

    // Expects a result and the lines that are logged or printed.
    void Expect(int result, const Lines &log, const char *pSuffix = nullptr) const {
        EXPECT_EQ(
            log, CaptureLog([&] { EXPECT_EQ(result, COM_CheckFileMD5(Path().c_str(), pSuffix)); }));
    }
    void ExpectPassed(const char *pSuffix = nullptr) const {
        Expect(0, {"COMMON:COM_CheckFileMD5(): md5sum(" + Path() + ") passed"}, pSuffix);
    }
    void ExpectFailed(const std::string &expected) const {
        const GuardedCopy path{Path().c_str()};
        EXPECT_EQ(
            "COM_CheckFileMD5(" + Path() + ") failed\n  => [" + hash_ + "] vs [" + expected + "]\n",
            Capture([&] { EXPECT_EQ(-1, COM_CheckFileMD5(path.text(), nullptr)); }));
    }
    void ExpectUnreadable(const char *pSuffix, const std::string &name) const {
        Expect(-1, {"COMMON:COM_CheckFileMD5(): Can't read md5 in [" + name + "]"}, pSuffix);
    }
    void Run(const std::string &command) const {
        RunCommand("cd " + dir_.path() + " && " + command);
    }

    const TempDir dir_;
    const std::string data_ = Pattern(1000);
    const std::string hash_ = Md5(data_);
    const std::string other_ = Md5("something else");
};

TEST_F(CheckFileMD5, PassesForTheOutputOfMd5sum) {
    Run("md5sum image.bin > image.bin.md5");
    EXPECT_EQ(hash_ + "  image.bin\n", ReadFile(Path() + ".md5"));
    ExpectPassed();
    Run("md5sum ./image.bin > image.bin.md5");
    ExpectPassed();
    Run("md5sum " + Path() + " > image.bin.md5");
    ExpectPassed();
    Run("md5sum -b " + Path() + " > image.bin.md5");  // "hash */tmp/.../image.bin"
    ExpectPassed();
}

TEST_F(CheckFileMD5, PassesForEverySizeOfFile) {
    for (size_t size = 0; size <= 130; ++size) {
        WriteFile(Path(), Pattern(size));
        Side(Md5(Pattern(size)) + "  image.bin\n");
        ExpectPassed();
    }
    Run("md5sum image.bin > image.bin.md5");
    ExpectPassed();
}

TEST_F(CheckFileMD5, ComparesOnlyTheLastPathComponents) {
    Side(hash_ + "  /some/dir/image.bin\n");
    ExpectPassed();
    Side(hash_ + "  dir/image.bin\n");
    ExpectPassed();
    Side(hash_ + "  image.bin/\n");  // its last component is empty
    Expect(-1, {});
    Side(hash_ + "  myimage.bin\n");
    Expect(-1, {});
    Side(hash_ + "  image.bin.old\n");
    Expect(-1, {});
    Side(hash_ + "  Image.bin\n");
    Expect(-1, {});
}

TEST_F(CheckFileMD5, AcceptsAPathWithoutDirectories) {
    Side(hash_ + "  /some/dir/image.bin\n");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    EXPECT_EQ((Lines{"COMMON:COM_CheckFileMD5(): md5sum(image.bin) passed"}),
              CaptureLog([] { EXPECT_EQ(0, COM_CheckFileMD5("image.bin", nullptr)); }));
    std::filesystem::current_path(before);
}

TEST_F(CheckFileMD5, FindsTheFilesOwnLineAmongSeveral) {
    WriteFile(dir_ / "a", "one");
    WriteFile(dir_ / "b", "two");
    for (const char *pOrder : {"a b image.bin", "a image.bin b", "image.bin a b"}) {
        Run(std::string{"md5sum "} + pOrder + " > image.bin.md5");
        ExpectPassed();
    }
}

TEST_F(CheckFileMD5, StopsAtTheFirstNameThatMatches) {
    Side(other_ + "  old/image.bin\n" + hash_ + "  image.bin\n");
    ExpectFailed(other_);
    Side(hash_ + "  image.bin\n" + other_ + "  old/image.bin\n");
    ExpectPassed();
}

TEST_F(CheckFileMD5, SplitsAtBlanksTabsAndLineEnds) {
    Side(hash_ + "\timage.bin");
    ExpectPassed();
    Side(hash_ + " \t \t image.bin \t");
    ExpectPassed();
    Side(hash_ + "  image.bin\r\n");
    ExpectPassed();
    Side(hash_ + "\r\nimage.bin\r\n");
    ExpectPassed();
    Side(other_ + "  x\r\n" + hash_ + "  image.bin\r\n");
    ExpectPassed();
    Side(hash_ + "\vimage.bin\n");
    Expect(-1, {});
}

TEST_F(CheckFileMD5, ReadsLinesAfterAnEmptyOne) {
    Side("\n" + hash_ + "  image.bin\n");
    ExpectPassed();
    Side("\r\n\r\n" + hash_ + "  image.bin\r\n");
    ExpectPassed();
}

TEST_F(CheckFileMD5, PrintsBothHashesWhenTheyDiffer) {
    Side(other_ + "  image.bin\n");
    ExpectFailed(other_);
    Side(hash_.substr(0, 31) + "  image.bin\n");
    ExpectFailed(hash_.substr(0, 31));
    Side(hash_ + "0  image.bin\n");
    ExpectFailed(hash_ + "0");
}

TEST_F(CheckFileMD5, NeverMatchesAHashInUpperCase) {
    std::string upper = hash_;
    for (char &c : upper) {
        c = static_cast<char>(toupper(c));
    }
    ASSERT_NE(hash_, upper);
    Side(upper + "  image.bin\n");
    ExpectFailed(upper);
}

TEST_F(CheckFileMD5, FailsWhenTheNameIsTheFirstWord) {
    Side("image.bin\n");
    ExpectFailed("");
    Side("image.bin " + hash_ + "\n");
    ExpectFailed("");
}

// The missing hash and the missing digest are both empty texts, which must not match.
TEST_F(CheckFileMD5, FailsWithoutHashAndFile) {
    Side("image.bin\n");
    ASSERT_EQ(0, unlink(Path().c_str()));
    Expect(-1, {"COMMON:COM_MakeFileMD5(): open(" + Path() + ") fail : No such file or directory",
                "COM_CheckFileMD5(" + Path() + ") failed", "  => [] vs []"});
}

TEST_F(CheckFileMD5, FailsForAMissingFile) {
    Side(hash_ + "  image.bin\n");
    ASSERT_EQ(0, unlink(Path().c_str()));
    Expect(-1, {"COMMON:COM_MakeFileMD5(): open(" + Path() + ") fail : No such file or directory",
                "COM_CheckFileMD5(" + Path() + ") failed", "  => [] vs [" + hash_ + "]"});
}

// A name that is only part of a word is not found.
TEST_F(CheckFileMD5, DoesNotFindANameWithAMarkOrInBrackets) {
    Run("md5sum -b image.bin > image.bin.md5");
    EXPECT_EQ(hash_ + " *image.bin\n", ReadFile(Path() + ".md5"));
    Expect(-1, {});
    Run("md5sum --tag image.bin > image.bin.md5");  // "MD5 (image.bin) = hash"
    Expect(-1, {});
}

TEST_F(CheckFileMD5, FailsSilentlyWhenNoNameMatches) {
    Side(hash_ + "\n");
    Expect(-1, {});
    Side(hash_ + "  other.bin\n");
    Expect(-1, {});
    Side(" \t\r\n");
    Expect(-1, {});
    Side(std::string("\0", 1) + hash_ + "  image.bin\n");  // a text ends with its NUL
    Expect(-1, {});
}

TEST_F(CheckFileMD5, LogsASideFileThatCannotBeRead) {
    ExpectUnreadable(nullptr, Path() + ".md5");
    ExpectUnreadable(".sum", Path() + ".sum");
    Side("");
    ExpectUnreadable(nullptr, Path() + ".md5");
    ASSERT_EQ(0, mkdir((Path() + ".d").c_str(), 0755));
    ExpectUnreadable(".d", Path() + ".d");
}

TEST_F(CheckFileMD5, AddsTheSuffixToTheWholePath) {
    Side(hash_ + "  image.bin\n", ".sum");
    ExpectPassed(".sum");
    Side(hash_ + "  image.bin\n", "-suffix without a dot");
    ExpectPassed("-suffix without a dot");
    // With an empty suffix the file is its own side file, which cannot contain its own hash.
    WriteFile(Path(), other_ + "  image.bin\n");
    const std::string own = Md5(ReadFile(Path()));
    Expect(-1,
           {"COM_CheckFileMD5(" + Path() + ") failed", "  => [" + own + "] vs [" + other_ + "]"},
           "");
}

TEST_F(CheckFileMD5, LogsASideFileWhoseNameIsTooLong) {
    const std::string suffix(5000, 's');
    const std::string side = Path() + suffix;
    Expect(-1,
           {"COMMON:COM_GetFileContent(): open(" + side + ") error : File name too long",
            "COMMON:COM_CheckFileMD5(): Can't read md5 in [" + side + "]"},
           suffix.c_str());
}

// Words after byte 256 are not read; a word that extends past it is truncated.
TEST_F(CheckFileMD5, ReadsTheFirst256BytesOfASideFile) {
    const std::string line = hash_ + "  image.bin";
    const size_t fits = 256 - line.size();
    for (size_t before = fits - 2; before <= fits; ++before) {
        Side(std::string(before - 1, 'x') + " " + line + "\n" + std::string(500, 'y'));
        ExpectPassed();
        Side(std::string(before - 1, '\n') + " " + line + "\n" + std::string(500, 'y'));
        ExpectPassed();
    }
    Side(std::string(fits, 'x') + " " + line + "\n");  // "image.bi"
    Expect(-1, {});
    Side(std::string(300, 'x') + " " + line + "\n");
    Expect(-1, {});
    Side(line + "\n" + std::string(100000, 'x'));
    ExpectPassed();
}

// A longer name that is truncated at byte 256 matches.
TEST_F(CheckFileMD5, TruncatesANameAtByte256) {
    const std::string line = hash_ + "  image.bin";
    Side(std::string(256 - line.size() - 1, 'x') + " " + line + ".old\n");
    ExpectPassed();
}

}  // namespace
