#include "common/hex_text.h"

#include <ctype.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/cancellation.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

constexpr size_t kMaxFile = COM_HEX_TEXT_MAX_FILE;
static_assert(kMaxFile == 1048576);

// A file in memory, at its beginning.
class MemoryFile {
  public:
    explicit MemoryFile(const std::string &content) : fd_(memfd_create("hex text", MFD_CLOEXEC)) {
        EXPECT_GE(fd_, 0);
        EXPECT_EQ(ssize_t(content.size()), write(fd_, content.data(), content.size()));
        EXPECT_EQ(0, lseek(fd_, 0, SEEK_SET));
    }
    ~MemoryFile() { EXPECT_EQ(0, close(fd_)) << "the call closed the file"; }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    [[nodiscard]] int fd() const { return fd_; }

  private:
    int fd_;
};

constexpr const char *kNothing = "(no text)";

std::string TextOf(int fd) {
    int length = -77;
    const std::unique_ptr<char, decltype(&free)> text{COM_ReadHexDataInStrFormat(fd, &length),
                                                      &free};
    if (text == nullptr) {
        EXPECT_EQ(-77, length) << "written after a failure";
        return kNothing;
    }
    EXPECT_EQ(strlen(text.get()), static_cast<size_t>(length));
    return text.get();
}

std::string TextOf(const std::string &content) {
    const MemoryFile file{content};
    return TextOf(file.fd());
}

TEST(ReadHexData, RemovesWhiteSpaceOnly) {
    EXPECT_EQ("", TextOf(""));
    EXPECT_EQ("", TextOf(" \t\n\v\f\r"));
    EXPECT_EQ("0c5a3fff", TextOf("0c5a 3fff\n"));
    EXPECT_EQ("0c5a3fff", TextOf(" \t0c5a\v\f3f\r\nff"));
    std::string all;
    std::string kept;
    for (int byte = 1; byte < 256; ++byte) {
        all += static_cast<char>(byte);
        if (byte != ' ' && (byte < '\t' || byte > '\r')) {
            kept += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(kept, TextOf(all));
}

TEST(ReadHexData, CountsNulBytes) {
    const MemoryFile file{std::string{"ab\0 cd", 6}};
    int length = 0;
    const std::unique_ptr<char, decltype(&free)> text{
        COM_ReadHexDataInStrFormat(file.fd(), &length), &free};
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(5, length);
    EXPECT_EQ(0, memcmp("ab\0cd", text.get(), 6));
}

// Around each size of the growing block.
TEST(ReadHexData, ReadsFilesOfAnySize) {
    for (const size_t size : {4096u, 8192u, 16384u, 65536u, 524288u}) {
        for (size_t length = size - 2; length <= size + 2; ++length) {
            std::string content(length, '\0');
            for (size_t i = 0; i < length; ++i) {
                content[i] = "0123456789abcdef"[(i * 7 + i / 16) % 16];
            }
            const std::string text = TextOf(content);
            EXPECT_TRUE(content == text) << length << " characters became " << text.size();
            content[length / 2] = '\n';
            content[length - 1] = '\n';
            const std::string broken = TextOf(content);
            content.erase(std::remove(content.begin(), content.end(), '\n'), content.end());
            EXPECT_TRUE(content == broken) << length << " characters became " << broken.size();
        }
    }
}

TEST(ReadHexData, RefusesMoreThanAMebibyte) {
    EXPECT_EQ(kMaxFile - 1, TextOf(std::string(kMaxFile - 1, 'f')).size());
    EXPECT_EQ(kMaxFile, TextOf(std::string(kMaxFile, 'f')).size());
    // After 4094 digits, one more has room in the first block: the blanks are read one by one.
    const std::string digits(4094, 'f');
    for (const std::string &content :
         {std::string(kMaxFile + 1, 'f'), std::string(kMaxFile + 1, ' '),
          digits + std::string(kMaxFile + 1 - digits.size(), ' ')}) {
        const MemoryFile file{content};
        EXPECT_EQ(Lines{"COMMON:COM_ReadHexDataInStrFormat(): read(" + std::to_string(file.fd()) +
                        ") error : File too large"},
                  CaptureLog([&] { EXPECT_EQ(kNothing, TextOf(file.fd())); }));
    }
}

TEST(ReadHexData, RefusesAnEndlessFile) {
    const int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(1u, CaptureLog([&] { EXPECT_EQ(kNothing, TextOf(fd)); }).size());
    close(fd);
}

TEST(ReadHexData, ReadsFromTheFilesPositionToItsEnd) {
    const MemoryFile file{"00 11 22\n"};
    lseek(file.fd(), 3, SEEK_SET);
    EXPECT_EQ("1122", TextOf(file.fd()));
    EXPECT_EQ(9, lseek(file.fd(), 0, SEEK_CUR));
    EXPECT_EQ("", TextOf(file.fd()));
}

TEST(ReadHexData, AcceptsNullForTheLength) {
    const MemoryFile file{"a b"};
    char *pText = COM_ReadHexDataInStrFormat(file.fd(), nullptr);
    EXPECT_STREQ("ab", pText);
    free(pText);
}

// The files of the kernel report a size of 0.
TEST(ReadHexData, ReadsAFileOfTheKernel) {
    const int fd = open("/proc/version", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::string expected = ReadFile("/proc/version");
    expected.erase(std::remove_if(expected.begin(), expected.end(), isspace), expected.end());
    EXPECT_EQ(expected, TextOf(fd));
    close(fd);
}

TEST(ReadHexData, JoinsTheReadsOfAPipe) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    std::thread writer{[&] {
        for (const char *pPiece : {"0", "c5", "a ", "\n", "3f", "ff\n"}) {
            EXPECT_EQ(ssize_t(strlen(pPiece)), write(ends[1], pPiece, strlen(pPiece)));
            std::this_thread::yield();
        }
        close(ends[1]);
    }};
    EXPECT_EQ("0c5a3fff", TextOf(ends[0]));
    writer.join();
    close(ends[0]);
}

TEST(ReadHexData, OutlastsCancellation) {
    const MemoryFile file{"a b"};
    EXPECT_TRUE(OutlastsCancellation([&] { EXPECT_EQ("ab", TextOf(file.fd())); }));
}

TEST(ReadHexData, LogsWhyAFileCannotBeRead) {
    EXPECT_EQ(Lines{"COMMON:COM_ReadHexDataInStrFormat(): read(-1) error : Bad file descriptor"},
              CaptureLog([] { EXPECT_EQ(kNothing, TextOf(-1)); }));
    const int fd = open("/", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(Lines{"COMMON:COM_ReadHexDataInStrFormat(): read(" + std::to_string(fd) +
                    ") error : Is a directory"},
              CaptureLog([&] { EXPECT_EQ(kNothing, TextOf(fd)); }));
    close(fd);
}

}  // namespace
