#include "common/file_content.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "common/unit_info.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/file_size_limit.h"
#include "support/opened.h"
#include "support/private_world.h"
#include "support/scripted_writes.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

std::string Pointers(const char *pFunction, const void *pPath, const void *pBuf) {
    char text[160];
    snprintf(text, sizeof text, "COMMON:%s(): input error : (pFileName, pBuf) = (%p, %p)",
             pFunction, pPath, pBuf);
    return text;
}

// What a call reads into an empty buffer of exactly `len` bytes.
std::string Read(const std::string &path, int len, int expected = 0) {
    const CanaryBuf buf{static_cast<size_t>(len)};
    buf.text()[0] = '\0';
    EXPECT_EQ(expected, COM_GetFileContent(path.c_str(), buf.text(), len));
    return buf.text();
}

std::string Content(const std::string &content, int len, int expected = 0) {
    const TempDir dir;
    WriteFile(dir / "file", content);
    return Read(dir / "file", len, expected);
}

TEST(GetFileContent, ReadsAShortLineWithoutItsEnd) {
    EXPECT_EQ("8080", Content("8080\n", 16));
    EXPECT_EQ("8080", Content("8080", 16));
    EXPECT_EQ("8080", Content("8080\r\n", 16));
    EXPECT_EQ("8080", Content("8080\r", 16));
    EXPECT_EQ("a", Content("a\nb\n", 16));
    EXPECT_EQ("a b\t", Content("a b\t\n", 16));
}

TEST(GetFileContent, ReturnsAnEmptyTextForAnEmptyFirstLine) {
    EXPECT_EQ("", Content("\n8080\n", 16));
}

TEST(GetFileContent, EndsALineAtANulByte) {
    EXPECT_EQ("ab", Content(std::string{"ab\0cd\n", 6}, 16));
}

TEST(GetFileContent, TruncatesToTheSize) {
    EXPECT_EQ("1234567", Content("12345678\n", 8));
    EXPECT_EQ("12345678", Content("12345678\n", 9));
    EXPECT_EQ("12345678", Content("12345678\n", 10));
    EXPECT_EQ("1", Content("12345678\n", 2));
    EXPECT_EQ("1", Content("1", 2));
}

TEST(GetFileContent, ReadsEveryLengthAroundTheBlock) {
    for (const size_t length : {2, 3, 253, 254, 255, 256, 257, 509, 510, 511, 765, 766}) {
        const std::string text(length, 'x');
        EXPECT_EQ(text, Content(text, 1024)) << length;
        EXPECT_EQ(text, Content(text, static_cast<int>(length) + 1)) << length;
        EXPECT_EQ(text.substr(1), Content(text + "yy", static_cast<int>(length))) << length;
    }
}

// A block is 255 bytes: "one\n" and 251 more.
TEST(GetFileContent, KeepsOnlyTheFirstLineOfEachBlock) {
    EXPECT_EQ("onetwo", Content("one\n" + std::string(251, 'x') + "two\nrest\n", 300));
    EXPECT_EQ("8080", Content(std::string(3 * 255, '\n') + "8080\n", 16));
}

TEST(GetFileContent, ReadsUpTo4096BlocksInARowWithoutACharacterToKeep) {
    const std::string first = "a" + std::string(254, '\n');
    EXPECT_EQ("ab", Content(first + std::string(4095 * 255, '\n') + "b", 16));
    EXPECT_EQ("a", Content(first + std::string(4096 * 255, '\n') + "b", 16));
}

TEST(GetFileContent, AppendsToTheTextInTheBuffer) {
    const TempDir dir;
    WriteFile(dir / "file", "12345678\n");
    for (const int len : {2, 8, 9, 10}) {
        const CanaryBuf buf{static_cast<size_t>(len) + 5};
        strcpy(buf.text(), "port=");
        EXPECT_EQ(0, COM_GetFileContent((dir / "file").c_str(), buf.text(), len));
        EXPECT_EQ("port=" + std::string{"12345678"}.substr(0, static_cast<size_t>(len) - 1),
                  buf.text());
    }
}

TEST(GetFileContent, ReturnsUnknownForAMissingFileWithoutALogLine) {
    const TempDir dir;
    const std::string word = "unknown";
    for (const int len : {1, 2, 5, 6, 7, 8, 9, 16}) {
        const size_t shown = std::min<size_t>(static_cast<size_t>(len), word.size());
        const CanaryBuf buf{std::max(static_cast<size_t>(len), shown + 1)};
        strcpy(buf.text(), "");
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(-1, COM_GetFileContent((dir / "none").c_str(), buf.text(), len));
                  }));
        EXPECT_EQ(word.substr(0, shown), buf.text());
        EXPECT_TRUE(buf.UntouchedFrom(shown + 1));
    }
}

TEST(GetFileContent, LogsOtherFailuresToOpen) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    const std::string path = dir / "file/below";
    char buf[8] = "old";
    EXPECT_EQ(
        Lines{"COMMON:COM_GetFileContent(): open(" + path + ") error : Not a directory"},
        CaptureLog([&] { EXPECT_EQ(-1, COM_GetFileContent(path.c_str(), buf, sizeof buf)); }));
    EXPECT_STREQ("unknown", buf);
}

TEST(GetFileContent, ReturnsUnknownForAnUnreadableFileWithoutALogLine) {
    EXPECT_EQ(Lines{}, CaptureLog([] {
                  EXPECT_EQ("unknown", Content("", 16, -1));
                  const TempDir dir;
                  EXPECT_EQ("unknown", Read(dir.path(), 16, -1));
              }));
}

TEST(GetFileContent, ReturnsUnknownWithoutRoomForACharacter) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    const CanaryBuf buf{2};
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(-1, COM_GetFileContent((dir / "file").c_str(), buf.text(), 1));
              }));
    EXPECT_STREQ("u", buf.text());
}

TEST(GetFileContent, RefusesWrongArguments) {
    struct Case {
        const char *path;
        int len;
        const char *left;
    };
    for (const auto &[path, len, left] : {Case{nullptr, 16, "unknown"}, Case{nullptr, 3, "unk"},
                                          Case{"/etc", 0, ""}, Case{"/etc", -1, "unknown"}}) {
        const CanaryBuf buf{8};
        char expected[160];
        snprintf(expected, sizeof expected,
                 "COMMON:COM_GetFileContent(): input error : (pFileName, pBuf, len) = (%p, %p, %d)",
                 static_cast<const void *>(path), static_cast<void *>(buf.text()), len);
        EXPECT_EQ(Lines{expected}, CaptureLog([&, p = path, n = len] {
                      EXPECT_EQ(-1, COM_GetFileContent(p, buf.text(), n));
                  }));
        EXPECT_STREQ(left, buf.text());
        EXPECT_TRUE(buf.UntouchedFrom(strlen(left) + 1));
    }
}

TEST(GetFileContent, WritesNothingWithoutABuffer) {
    char expected[160];
    const char *path = "/etc/hostname";
    snprintf(expected, sizeof expected,
             "COMMON:COM_GetFileContent(): input error : (pFileName, pBuf, len) = (%p, (nil), 16)",
             static_cast<const void *>(path));
    EXPECT_EQ(Lines{expected},
              CaptureLog([&] { EXPECT_EQ(-1, COM_GetFileContent(path, nullptr, 16)); }));
}

TEST(GetFileContent, GivesUpOnAnEndlessFile) {
    EXPECT_EQ("", Read("/dev/zero", 16));
    const std::string block(255, '\n');
    std::string content;
    for (int i = 0; i < 4095; ++i) {
        content += block;
    }
    EXPECT_EQ("8080", Content(content + "8080\n", 16));
    EXPECT_EQ("", Content(content + block + "8080\n", 16));
}

TEST(SetFileContent, ReplacesTheContent) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(0, COM_SetFileContent(path.c_str(), "a longer text\n"));
    EXPECT_EQ(0, COM_SetFileContent(path.c_str(), "8080"));
    EXPECT_EQ("8080", ReadFile(path));
}

TEST(SetFileContent, FailsForAnEmptyTextAndEmptiesTheFile) {
    const TempDir dir;
    const std::string path = dir / "file";
    WriteFile(path, "content");
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, COM_SetFileContent(path.c_str(), "")); }));
    EXPECT_EQ("", ReadFile(path));
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

TEST(AppendFileContent, AppendsAtTheEnd) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(0, COM_AppendFileContent(path.c_str(), "one\n"));
    EXPECT_EQ(0, COM_AppendFileContent(path.c_str(), "two"));
    EXPECT_EQ(-1, COM_AppendFileContent(path.c_str(), ""));
    EXPECT_EQ("one\ntwo", ReadFile(path));
}

TEST(SetFileContent, LogsNullArguments) {
    const char *text = "text";
    EXPECT_EQ((Lines{Pointers("COM_SetFileContent", nullptr, text),
                     Pointers("COM_SetFileContent", text, nullptr),
                     Pointers("COM_AppendFileContent", nullptr, text),
                     Pointers("COM_AppendFileContent", text, nullptr)}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, COM_SetFileContent(nullptr, text));
                  EXPECT_EQ(-1, COM_SetFileContent(text, nullptr));
                  EXPECT_EQ(-1, COM_AppendFileContent(nullptr, text));
                  EXPECT_EQ(-1, COM_AppendFileContent(text, nullptr));
              }));
    EXPECT_EQ(-1, access(text, F_OK));
}

TEST(SetFileContent, LogsAPathThatCannotBeOpened) {
    const TempDir dir;
    const std::string path = dir / "none/file";
    EXPECT_EQ(
        (Lines{
            "COMMON:COM_SetFileContent(): open(" + path + ") error : No such file or directory",
            "COMMON:COM_AppendFileContent(): open(" + path + ") error : No such file or directory",
        }),
        CaptureLog([&] {
            EXPECT_EQ(-1, COM_SetFileContent(path.c_str(), "x"));
            EXPECT_EQ(-1, COM_AppendFileContent(path.c_str(), "x"));
        }));
}

TEST(SetFileContent, ContinuesAWriteThatIsCutShort) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  g_writes = {1, 2};
                  EXPECT_EQ(0, COM_SetFileContent(path.c_str(), "text"));
                  g_writes = {1, 2};
                  EXPECT_EQ(0, COM_AppendFileContent(path.c_str(), " more"));
              }));
    EXPECT_EQ("text more", ReadFile(path));
}

TEST(SetFileContent, SucceedsForAPartOfTheText) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  g_writes = {1, -ENOSPC};
                  EXPECT_EQ(0, COM_SetFileContent(path.c_str(), "text"));
                  g_writes = {2, 0};
                  EXPECT_EQ(0, COM_AppendFileContent(path.c_str(), "more"));
              }));
    EXPECT_EQ("tmo", ReadFile(path));
}

TEST(SetFileContent, FailsWithoutALogLineWhenNothingIsWritten) {
    const TempDir dir;
    const std::string path = dir / "file";
    g_writes = {-ENOSPC};
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(-1, COM_SetFileContent(path.c_str(), "x")); }));
    g_writes = {0};
    EXPECT_EQ(-1, COM_AppendFileContent(path.c_str(), "x"));
}

TEST(FileContent, OpensWithExactlyItsFlags) {
    struct Case {
        const char *name;
        int flags;
        mode_t mode;
        std::function<void(const char *)> call;
    };
    char buf[16] = "";
    const Case cases[] = {
        {"SaveData", O_WRONLY | O_CREAT | O_TRUNC, 0664,
         [](const char *path) { COM_SaveDataIntoFile(path, "x", 1); }},
        {"Set", O_WRONLY | O_CREAT | O_TRUNC, 0664,
         [](const char *path) { COM_SetFileContent(path, "x"); }},
        {"SaveRing", O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME, 0664,
         [](const char *path) { COM_SaveRingBufDataIntoFile(path, "x", 0, 1, 1); }},
        {"Append", O_WRONLY | O_CREAT | O_APPEND, 0664,
         [](const char *path) { COM_AppendFileContent(path, "x"); }},
        {"Get", O_RDONLY, 0, [&](const char *path) { COM_GetFileContent(path, buf, sizeof buf); }},
        {"Load", O_RDONLY, 0,
         [&](const char *path) { COM_LoadDataFromFile(path, buf, sizeof buf); }},
    };
    const mode_t old = umask(0);
    for (const Case &c : cases) {
        const TempDir dir;
        const std::string path = dir / "file";
        if (c.mode == 0) {
            WriteFile(path, "x");
        }
        OpenedFiles().clear();
        c.call(path.c_str());
        ASSERT_EQ(1U, OpenedFiles().size()) << c.name;
        EXPECT_EQ(c.flags | O_CLOEXEC, OpenedFiles()[0].flags) << c.name;
        EXPECT_EQ(c.mode, OpenedFiles()[0].mode) << c.name;
        if (c.mode != 0) {
            EXPECT_EQ(S_IFREG | c.mode, ModeOf(path)) << c.name;
        }
    }
    umask(old);
}

TEST(SaveDataIntoFile, WritesBytesOfAnyKind) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string data{"a\0b\n", 4};
    EXPECT_EQ(0, COM_SaveDataIntoFile(path.c_str(), "longer than that", 16));
    EXPECT_EQ(0, COM_SaveDataIntoFile(path.c_str(), data.data(), 4));
    EXPECT_EQ(data, ReadFile(path));
    EXPECT_EQ(0, COM_SaveDataIntoFile(path.c_str(), data.data(), 0));
    EXPECT_EQ("", ReadFile(path));
}

TEST(SaveDataIntoFile, ContinuesAWriteThatIsCutShort) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  g_writes = {3, 1};
                  EXPECT_EQ(0, COM_SaveDataIntoFile(path.c_str(), "12345", 5));
              }));
    EXPECT_EQ("12345", ReadFile(path));
}

TEST(SaveDataIntoFile, DistinguishesAPartialWriteFromNone) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ((Lines{"COMMON:COM_SaveDataIntoFile(): write(" + path +
                         ") size failed - 3/5 - No space left on device",
                     "COMMON:COM_SaveDataIntoFile(): write(" + path +
                         ") size failed - 4/5 - Input/output error"}),
              CaptureLog([&] {
                  g_writes = {3, -ENOSPC};
                  EXPECT_EQ(int{COM_DATA_PARTIAL}, COM_SaveDataIntoFile(path.c_str(), "12345", 5));
                  EXPECT_EQ("123", ReadFile(path));
                  g_writes = {4, 0};
                  EXPECT_EQ(1, COM_SaveDataIntoFile(path.c_str(), "12345", 5));
              }));
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  g_writes = {0};
                  EXPECT_EQ(0, COM_SaveDataIntoFile(path.c_str(), "12345", 5));
                  g_writes = {-EIO};
                  EXPECT_EQ(-1, COM_SaveDataIntoFile(path.c_str(), "12345", 5));
                  EXPECT_EQ(-1, COM_SaveDataIntoFile(path.c_str(), nullptr, 5));
                  EXPECT_EQ(-1, COM_SaveDataIntoFile(path.c_str(), "12345", -1));
              }));
}

TEST(SaveDataIntoFile, LogsAPathThatCannotBeOpened) {
    EXPECT_EQ((Lines{"COMMON:COM_SaveDataIntoFile(): open(/proc) fail : Is a directory",
                     "COMMON:COM_SaveDataIntoFile(): open((null)) fail : Bad address"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, COM_SaveDataIntoFile("/proc", "x", 1));
                  EXPECT_EQ(-1, COM_SaveDataIntoFile(nullptr, "x", 1));
              }));
}

// A ring of 100 bytes with the values 0 to 99.
std::string Ring() {
    std::string ring;
    for (int i = 0; i < 100; ++i) {
        ring += static_cast<char>(i);
    }
    return ring;
}

struct Saved {
    int result;
    std::string content;
    Lines log;
};

Saved SaveRing(int start, int ringSize, int len, const std::deque<ssize_t> &writes = {}) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string ring = Ring();
    Saved saved;
    saved.log = CaptureLog([&] {
        g_writes = writes;
        saved.result = COM_SaveRingBufDataIntoFile(path.c_str(), ring.data(), start, ringSize, len);
        g_writes.clear();
    });
    saved.content = ReadFile(path);
    for (std::string &line : saved.log) {
        const size_t at = line.find(path);
        if (at != std::string::npos) {
            line.replace(at, path.size(), "FILE");
        }
    }
    return saved;
}

TEST(SaveRingBufDataIntoFile, UnwrapsTheRing) {
    const std::string ring = Ring();
    const Saved wrapped = SaveRing(90, 100, 30);
    EXPECT_EQ(0, wrapped.result);
    EXPECT_EQ(ring.substr(90, 10) + ring.substr(0, 20), wrapped.content);
    EXPECT_EQ(Lines{}, wrapped.log);

    const Saved straight = SaveRing(10, 100, 30);
    EXPECT_EQ(0, straight.result);
    EXPECT_EQ(ring.substr(10, 30), straight.content);
}

TEST(SaveRingBufDataIntoFile, WrapsOnlyAfterTheLastByte) {
    const std::string ring = Ring();
    for (const int len : {29, 30, 31}) {
        const Saved saved = SaveRing(70, 100, len);
        EXPECT_EQ(0, saved.result);
        EXPECT_EQ((ring + ring).substr(70, static_cast<size_t>(len)), saved.content) << len;
    }
}

TEST(SaveRingBufDataIntoFile, SavesAPlainBufferWithoutARingSize) {
    for (const int size : {0, -1}) {
        const Saved saved = SaveRing(90, size, 10);
        EXPECT_EQ(0, saved.result);
        EXPECT_EQ(Ring().substr(90, 10), saved.content);
    }
}

TEST(SaveRingBufDataIntoFile, SucceedsForNoBytes) {
    const Saved saved = SaveRing(10, 100, 0);
    EXPECT_EQ(0, saved.result);
    EXPECT_EQ("", saved.content);
}

TEST(SaveRingBufDataIntoFile, FailsWithAStartAtTheEndOfTheRing) {
    const Saved saved = SaveRing(100, 100, 5);
    EXPECT_EQ(-1, saved.result);
    EXPECT_EQ("", saved.content);
    EXPECT_EQ(Lines{}, saved.log);
}

TEST(SaveRingBufDataIntoFile, ContinuesPartialAndEmptyWrites) {
    const Saved straight = SaveRing(10, 100, 30, {1, 0, 0, 5, 0});
    EXPECT_EQ(0, straight.result);
    EXPECT_EQ(Ring().substr(10, 30), straight.content);
    const Saved wrapped = SaveRing(90, 100, 30, {4, 0, 6, 0, 7});
    EXPECT_EQ(0, wrapped.result);
    EXPECT_EQ((Ring() + Ring()).substr(90, 30), wrapped.content);
    EXPECT_EQ(Lines{}, wrapped.log);
}

TEST(SaveRingBufDataIntoFile, SucceedsAndLogsWhenNothingOfAPlainBufferIsWritten) {
    const Saved saved = SaveRing(10, 100, 30, {-EIO});
    EXPECT_EQ(0, saved.result);
    EXPECT_EQ(
        Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(0, 30) error : Input/output error"},
        saved.log);
}

TEST(SaveRingBufDataIntoFile, ReportsAPartOfAPlainBuffer) {
    const Saved saved = SaveRing(10, 100, 30, {12, -ENOSPC});
    EXPECT_EQ(1, saved.result);
    EXPECT_EQ(Ring().substr(10, 12), saved.content);
    EXPECT_EQ(
        (Lines{
            "COMMON:COM_SaveRingBufDataIntoFile(): write(12, 18) error : No space left on device",
            "COMMON:COM_SaveRingBufDataIntoFile(): write(FILE) size failed - 12/[10,100]/30 - "
            "No space left on device"}),
        saved.log);
}

TEST(SaveRingBufDataIntoFile, FailsWhenThePartUpToTheEndOfTheRingFails) {
    const Saved saved = SaveRing(90, 100, 30, {4, -EIO});
    EXPECT_EQ(-1, saved.result);
    EXPECT_EQ(Ring().substr(90, 4), saved.content);
    EXPECT_EQ(Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(4, 6) error : Input/output error"},
              saved.log);
}

TEST(SaveRingBufDataIntoFile, ReportsAPartOfAWrappedRing) {
    const Saved saved = SaveRing(90, 100, 30, {10, 7, -EIO});
    EXPECT_EQ(1, saved.result);
    EXPECT_EQ((Ring() + Ring()).substr(90, 17), saved.content);
    EXPECT_EQ(
        (Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(7, 13) error : Input/output error",
               "COMMON:COM_SaveRingBufDataIntoFile(): write(FILE) size failed - 17/[90,100]/30 - "
               "Input/output error"}),
        saved.log);
}

TEST(SaveRingBufDataIntoFile, ReportsThePartUpToTheEndOfTheRingAlone) {
    std::deque<ssize_t> empty(1000, 0);
    empty.push_front(10);
    for (const std::deque<ssize_t> &writes : {std::deque<ssize_t>{10, -EIO}, empty}) {
        const Saved saved = SaveRing(90, 100, 30, writes);
        EXPECT_EQ(1, saved.result);
        EXPECT_EQ(Ring().substr(90), saved.content);
        EXPECT_EQ(
            (Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(0, 20) error : Input/output error",
                   "COMMON:COM_SaveRingBufDataIntoFile(): write(FILE) size failed - "
                   "10/[90,100]/30 - Input/output error"}),
            saved.log);
    }
}

TEST(SaveRingBufDataIntoFile, FailsAfterAThousandEmptyWritesBeforeTheEndOfTheRing) {
    std::deque<ssize_t> writes(1000, 0);
    writes.push_front(4);
    const Saved saved = SaveRing(90, 100, 30, writes);
    EXPECT_EQ(-1, saved.result);
    EXPECT_EQ(Ring().substr(90, 4), saved.content);
    EXPECT_EQ(Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(4, 6) error : Input/output error"},
              saved.log);
}

TEST(SaveRingBufDataIntoFile, GivesUpAfterAThousandEmptyWrites) {
    const Saved saved = SaveRing(10, 100, 30, std::deque<ssize_t>(1000, 0));
    EXPECT_EQ(0, saved.result);
    EXPECT_EQ(
        Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(0, 30) error : Input/output error"},
        saved.log);
    EXPECT_EQ(30U, SaveRing(10, 100, 30, std::deque<ssize_t>(999, 0)).content.size());
}

TEST(SaveRingBufDataIntoFile, FailsWithTheErrorsOfTheKernel) {
    EXPECT_EQ((Lines{"COMMON:COM_SaveRingBufDataIntoFile(): open(/proc) fail : Is a directory",
                     "COMMON:COM_SaveRingBufDataIntoFile(): open((null)) fail : Bad address"}),
              CaptureLog([] {
                  EXPECT_EQ(-1, COM_SaveRingBufDataIntoFile("/proc", "x", 0, 1, 1));
                  EXPECT_EQ(-1, COM_SaveRingBufDataIntoFile(nullptr, "x", 0, 1, 1));
              }));
    const TempDir dir;
    EXPECT_EQ(
        (Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(0, 5) error : Bad address",
               "COMMON:COM_SaveRingBufDataIntoFile(): write(0, -5) error : Invalid argument",
               "COMMON:COM_SaveRingBufDataIntoFile(): write(0, -2) error : Invalid argument"}),
        CaptureLog([&] {
            const std::string path = dir / "file";
            EXPECT_EQ(0, COM_SaveRingBufDataIntoFile(path.c_str(), nullptr, 3, 10, 5));
            EXPECT_EQ(0, COM_SaveRingBufDataIntoFile(path.c_str(), "x", 0, 10, -5));
            EXPECT_EQ(-1, COM_SaveRingBufDataIntoFile(path.c_str(), "0123456789ab", 12, 10, -1));
        }));
}

// O_NOATIME is only permitted to the owner of a file and to privileged processes.
TEST(SaveRingBufDataIntoFile, FailsForAFileOfAnotherUser) {
    RunInPrivateWorld(
        kMounts,
        [] {
            MountTmpfs("/mnt", "mode=777");
            WriteFile("/mnt/other", "x");
            ASSERT_EQ(0, chmod("/mnt/other", 0666));
            ASSERT_EQ(0, setuid(65534));
            EXPECT_EQ(Lines{"COMMON:COM_SaveRingBufDataIntoFile(): open(/mnt/other) fail : "
                            "Operation not permitted"},
                      CaptureLog([] {
                          EXPECT_EQ(-1, COM_SaveRingBufDataIntoFile("/mnt/other", "y", 0, 0, 1));
                          EXPECT_EQ(0, COM_SaveRingBufDataIntoFile("/mnt/mine", "y", 0, 0, 1));
                          EXPECT_EQ(0, COM_SaveDataIntoFile("/mnt/other", "z", 1));
                      }));
            EXPECT_EQ("z", ReadFile("/mnt/other"));
        },
        true);
}

TEST(LoadDataFromFile, DistinguishesAllFromFewerBytes) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string data{
        "12\0"
        "45",
        5};
    WriteFile(path, data);
    for (const auto &[len, expected] :
         {std::pair<int, int>{4, 0}, {5, COM_DATA_COMPLETE}, {6, COM_DATA_PARTIAL}}) {
        const CanaryBuf buf{static_cast<size_t>(len)};
        EXPECT_EQ(expected, COM_LoadDataFromFile(path.c_str(), buf.text(), len));
        const size_t count = std::min<size_t>(static_cast<size_t>(len), 5);
        EXPECT_EQ(data.substr(0, count), std::string(buf.text(), count));
        EXPECT_TRUE(buf.UntouchedFrom(count)) << "a byte was added";
    }
}

TEST(LoadDataFromFile, ReturnsTheReadsResultWhenNothingIsRead) {
    const TempDir dir;
    const std::string path = dir / "file";
    WriteFile(path, "");
    const CanaryBuf buf{8};
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(0, COM_LoadDataFromFile(path.c_str(), buf.text(), 8));
                  EXPECT_EQ(-1, COM_LoadDataFromFile(dir.path().c_str(), buf.text(), 8));
                  WriteFile(path, "content");
                  EXPECT_EQ(0, COM_LoadDataFromFile(path.c_str(), buf.text(), 0));
                  EXPECT_EQ(-1, COM_LoadDataFromFile(path.c_str(), nullptr, 8));
                  EXPECT_EQ(-1, COM_LoadDataFromFile(path.c_str(), buf.text(), -1));
              }));
    EXPECT_TRUE(buf.UntouchedFrom(0));
}

TEST(LoadDataFromFile, LogsAPathThatCannotBeOpened) {
    const TempDir dir;
    const std::string path = dir / "none";
    char buf[8];
    EXPECT_EQ(
        (Lines{"COMMON:COM_LoadDataFromFile(): open(" + path + ") fail : No such file or directory",
               "COMMON:COM_LoadDataFromFile(): open((null)) fail : Bad address"}),
        CaptureLog([&] {
            EXPECT_EQ(-1, COM_LoadDataFromFile(path.c_str(), buf, 8));
            EXPECT_EQ(-1, COM_LoadDataFromFile(nullptr, buf, 8));
        }));
}

// The file system has two pages of 4 KiB.
TEST(FileContent, ReportsAFullFileSystem) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/mnt", "size=8k");
        const std::string data(10000, 'x');
        EXPECT_EQ(
            (Lines{"COMMON:COM_SaveDataIntoFile(): write(/mnt/data) size failed - 8192/10000 - "
                   "No space left on device"}),
            CaptureLog(
                [&] { EXPECT_EQ(1, COM_SaveDataIntoFile("/mnt/data", data.data(), 10000)); }));
        EXPECT_EQ((Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(0, 10) error : No space left "
                         "on device"}),
                  CaptureLog([&] {
                      EXPECT_EQ(-1, COM_SaveDataIntoFile("/mnt/more", "x", 1));
                      EXPECT_EQ(-1, COM_SetFileContent("/mnt/more", "x"));
                      EXPECT_EQ(0, COM_SaveRingBufDataIntoFile("/mnt/more", data.data(), 0, 0, 10));
                  }));
        EXPECT_EQ(0, unlink("/mnt/data"));
        EXPECT_EQ(
            (Lines{"COMMON:COM_SaveRingBufDataIntoFile(): write(8192, 1808) error : No space left "
                   "on device",
                   "COMMON:COM_SaveRingBufDataIntoFile(): write(/mnt/more) size failed - "
                   "8192/[0,10000]/10000 - No space left on device"}),
            CaptureLog([&] {
                EXPECT_EQ(1,
                          COM_SaveRingBufDataIntoFile("/mnt/more", data.data(), 0, 10000, 10000));
            }));
    });
}

TEST(FileContent, ReportsAReadOnlyFileSystem) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/mnt");
        RemountReadOnly("/mnt");
        EXPECT_EQ(
            (Lines{"COMMON:COM_SetFileContent(): open(/mnt/f) error : Read-only file system",
                   "COMMON:COM_AppendFileContent(): open(/mnt/f) error : Read-only file system",
                   "COMMON:COM_SaveDataIntoFile(): open(/mnt/f) fail : Read-only file system",
                   "COMMON:COM_SaveRingBufDataIntoFile(): open(/mnt/f) fail : Read-only file "
                   "system",
                   "COMMON:COM_MakeNode(): mknod(/mnt/f) fail : Read-only file system"}),
            CaptureLog([] {
                EXPECT_EQ(-1, COM_SetFileContent("/mnt/f", "x"));
                EXPECT_EQ(-1, COM_AppendFileContent("/mnt/f", "x"));
                EXPECT_EQ(-1, COM_SaveDataIntoFile("/mnt/f", "x", 1));
                EXPECT_EQ(-1, COM_SaveRingBufDataIntoFile("/mnt/f", "x", 0, 1, 1));
                EXPECT_EQ(-1, COM_MakeNode("/mnt/f", S_IFIFO | 0600, 0));
            }));
    });
}

TEST(GetPort, ReadsThePort) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        WriteFile("/etc/Port", "8080\n");
        char buf[8] = "";
        EXPECT_EQ(0, COM_GetPort(buf, sizeof buf));
        EXPECT_STREQ("8080", buf);
    });
}

TEST(GetPort, ReturnsEightyAndFailsWithoutAFile) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      for (const int size : {1, 2, 3, 7, 8, 9}) {
                          const CanaryBuf buf{std::max<size_t>(static_cast<size_t>(size),
                                                               size < 7 ? size_t(size) + 1 : 8)};
                          buf.text()[0] = '\0';
                          EXPECT_EQ(-1, COM_GetPort(buf.text(), size));
                          EXPECT_EQ(std::string{"80"}.substr(0, static_cast<size_t>(size) - 1),
                                    buf.text());
                      }
                  }));
        WriteFile("/etc/Port", "");
        char buf[8] = "";
        EXPECT_EQ(-1, COM_GetPort(buf, sizeof buf));
        EXPECT_STREQ("80", buf);
    });
}

TEST(GetPort, WritesNoMoreThanTheFailureTextForInvalidSizes) {
    const Lines log = CaptureLog([] {
        const CanaryBuf buf{8};
        EXPECT_EQ(-1, COM_GetPort(buf.text(), 0));
        EXPECT_STREQ("", buf.text());
        EXPECT_TRUE(buf.UntouchedFrom(1));
        EXPECT_EQ(-1, COM_GetPort(buf.text(), -1));
        EXPECT_STREQ("80", buf.text());
        EXPECT_EQ(-1, COM_GetPort(nullptr, 8));
    });
    EXPECT_EQ(3U, log.size());
}

TEST(SetPort, WritesTheDecimalText) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        for (const auto &[port, text] : {std::pair{80, "80"},
                                         {65535, "65535"},
                                         {0, "0"},
                                         {-1, "-1"},
                                         {1234567, "1234567"},
                                         {12345678, "1234567"},
                                         {INT32_MIN, "-214748"}}) {
            EXPECT_EQ(0, COM_SetPort(port));
            EXPECT_EQ(text, ReadFile("/etc/Port"));
        }
    });
}

TEST(SetHostName, SetsTheKernelsNameAndTheFile) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        EXPECT_EQ(0, COM_SetHostName("recorder-7"));
        char name[65] = "";
        EXPECT_EQ(0, gethostname(name, sizeof name));
        EXPECT_STREQ("recorder-7", name);
        EXPECT_EQ("recorder-7", ReadFile("/etc/hostname"));
    });
}

// The kernel accepts names of up to 64 characters.
TEST(SetHostName, LeavesBothUnchangedWhenTheKernelRefuses) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        EXPECT_EQ(0, COM_SetHostName(std::string(64, 'n').c_str()));
        EXPECT_EQ(-1, COM_SetHostName(std::string(65, 'm').c_str()));
        EXPECT_EQ(-1, COM_SetHostName(nullptr));
        EXPECT_EQ(std::string(64, 'n'), ReadFile("/etc/hostname"));
        char name[65] = "";
        EXPECT_EQ(0, gethostname(name, sizeof name));
        EXPECT_EQ(std::string(64, 'n'), name);
    });
}

TEST(SetHostName, SucceedsWithoutTheFile) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        EXPECT_EQ(0, mkdir("/etc/hostname", 0700));
        EXPECT_EQ(Lines{"COMMON:COM_SetFileContent(): open(/etc/hostname) error : Is a directory"},
                  CaptureLog([] { EXPECT_EQ(0, COM_SetHostName("unit")); }));
    });
}

TEST(UnitInfo, HasNoGaps) {
    EXPECT_EQ(304U, sizeof(tUnitInfo));
    EXPECT_EQ(0U, offsetof(tUnitInfo, model));
    EXPECT_EQ(32U, offsetof(tUnitInfo, project));
    EXPECT_EQ(64U, offsetof(tUnitInfo, host_name));
    EXPECT_EQ(240U, offsetof(tUnitInfo, note));
}

// The record of COM_GetUnitNetInfo can be passed as well.
TEST(UnitInfo, HasTheLayoutOfTheNetworkRecord) {
    EXPECT_EQ(offsetof(tUnitNetInfo, model), offsetof(tUnitInfo, model));
    EXPECT_EQ(offsetof(tUnitNetInfo, proj), offsetof(tUnitInfo, project));
    EXPECT_EQ(offsetof(tUnitNetInfo, name), offsetof(tUnitInfo, host_name));
    EXPECT_EQ(offsetof(tUnitNetInfo, note), offsetof(tUnitInfo, note));
    EXPECT_EQ(offsetof(tUnitNetInfo, mtu), sizeof(tUnitInfo));
}

TEST(SetUnitInfo, AcceptsAnEmptyHostName) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        WriteFile("/etc/hostname", "before");
        const tUnitInfo info = {"R-100", "harbour", "", "deck 3"};
        EXPECT_EQ(0, COM_SetUnitInfo(&info));
        char name[65] = "before";
        EXPECT_EQ(0, gethostname(name, sizeof name));
        EXPECT_STREQ("", name);
        EXPECT_EQ("", ReadFile("/etc/hostname"));
    });
}

TEST(SetUnitInfo, WritesAllFourFiles) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        const tUnitInfo info = {"R-100", "harbour", "unit-5", "deck 3"};
        EXPECT_EQ(0, COM_SetUnitInfo(&info));
        EXPECT_EQ("R-100", ReadFile("/etc/Model"));
        EXPECT_EQ("harbour", ReadFile("/etc/Proj"));
        EXPECT_EQ("unit-5", ReadFile("/etc/hostname"));
        EXPECT_EQ("deck 3", ReadFile("/etc/Note"));
    });
}

TEST(SetUnitInfo, CountsTheFailures) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        const tUnitInfo noNote = {"R-100", "harbour", "unit-5", ""};
        EXPECT_EQ(-1, COM_SetUnitInfo(&noNote));
        tUnitInfo longName = {"", "harbour", "", ""};
        memset(longName.host_name, 'h', 65);
        EXPECT_EQ(-3, COM_SetUnitInfo(&longName));
        EXPECT_EQ("harbour", ReadFile("/etc/Proj"));
        EXPECT_EQ("unit-5", ReadFile("/etc/hostname"));
        EXPECT_EQ(-1, COM_SetUnitInfo(nullptr));
    });
}

TEST(SetUnitInfo, ContinuesAfterEveryFailureInOrder) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        Lines expected;
        for (const char *name : {"Model", "Proj", "hostname", "Note"}) {
            const std::string path = std::string{"/etc/"} + name;
            EXPECT_EQ(0, mkdir(path.c_str(), 0700));
            expected.push_back("COMMON:COM_SetFileContent(): open(" + path +
                               ") error : Is a directory");
        }
        const tUnitInfo info = {"R-100", "harbour", "unit-5", "deck 3"};
        EXPECT_EQ(expected, CaptureLog([&] { EXPECT_EQ(-3, COM_SetUnitInfo(&info)); }))
            << "the host name's file does not count";
    });
}

TEST(SetUnitInfo, EndsAFieldWithoutANulAtItsWidth) {
    RunInPrivateWorld(kMounts | kHostname, [] {
        FreshEtc();
        const CanaryBuf record{sizeof(tUnitInfo), 'f'};
        EXPECT_EQ(-1, COM_SetUnitInfo(reinterpret_cast<const tUnitInfo *>(record.bytes())));
        EXPECT_EQ(std::string(32, 'f'), ReadFile("/etc/Model"));
        EXPECT_EQ(std::string(32, 'f'), ReadFile("/etc/Proj"));
        EXPECT_EQ(std::string(64, 'f'), ReadFile("/etc/Note"));
    });
}

TEST(MakeNode, MakesAFifo) {
    const TempDir dir;
    const std::string path = dir / "fifo";
    const mode_t old = umask(022);
    EXPECT_EQ(0, COM_MakeNode(path.c_str(), S_IFIFO | 0666, 0));
    umask(old);
    EXPECT_EQ(mode_t{S_IFIFO | 0644}, ModeOf(path));
}

TEST(MakeNode, MakesADevice) {
    RunInPrivateWorld(
        kMounts,
        [] {
            MountTmpfs("/mnt");
            EXPECT_EQ(0, COM_MakeNode("/mnt/tty", S_IFCHR | 0664, makedev(188, 3)));
            struct stat st = {};
            ASSERT_EQ(0, stat("/mnt/tty", &st));
            EXPECT_TRUE(S_ISCHR(st.st_mode));
            EXPECT_EQ(188U, major(st.st_rdev));
            EXPECT_EQ(3U, minor(st.st_rdev));
        },
        true);
}

TEST(MakeNode, LeavesAnExistingFileUnchanged) {
    const TempDir dir;
    const std::string path = dir / "file";
    WriteFile(path, "content");
    EXPECT_EQ(0, COM_MakeNode(path.c_str(), S_IFIFO | 0666, 0));
    EXPECT_TRUE(S_ISREG(ModeOf(path)));
    EXPECT_EQ("content", ReadFile(path));
}

TEST(MakeNode, LogsItsFailures) {
    const TempDir dir;
    WriteFile(dir / "file", "");
    const std::string below = dir / "file/node";
    const std::string missing = dir / "none/node";
    EXPECT_EQ(
        (Lines{"COMMON:COM_MakeNode(): stat(" + below + ") fail : Not a directory",
               "COMMON:COM_MakeNode(): mknod(" + missing + ") fail : No such file or directory",
               "COMMON:COM_MakeNode(): stat((null)) fail : Bad address"}),
        CaptureLog([&] {
            EXPECT_EQ(-1, COM_MakeNode(below.c_str(), S_IFIFO | 0666, 0));
            EXPECT_EQ(-1, COM_MakeNode(missing.c_str(), S_IFIFO | 0666, 0));
            EXPECT_EQ(-1, COM_MakeNode(nullptr, S_IFIFO | 0666, 0));
        }));
}

// Expects a revision for a content of /etc/SVN, in a buffer of the documented size.
void ExpectRevision(const std::string &content, const std::string &expected) {
    WriteFile("/etc/SVN", content);
    const CanaryBuf buf{COM_SVN_REVISION_SIZE};
    EXPECT_EQ(0, COM_GetSvnRevision(buf.text())) << content;
    EXPECT_EQ(expected, buf.text()) << content;
}

TEST(GetSvnRevision, ReadsLettersAndDigits) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        ExpectRevision("Path: .\nRevision: 12a4\nNode Kind: directory\n", "12a4");
        ExpectRevision("Revision: r7-x", "r7");
        ExpectRevision("Revision: a", "a");
        ExpectRevision("Revision: \n", "");
        ExpectRevision("Revision: 1\xE9", "0001");
    });
}

TEST(GetSvnRevision, WritesNumbersWithAtLeastFourDigits) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        ExpectRevision("Revision: 1", "0001");
        ExpectRevision("Revision: 123\n", "0123");
        ExpectRevision("Revision: 1234\n", "1234");
        ExpectRevision("Revision: 0123\n", "0123");
        ExpectRevision("Revision: 12345\n", "12345");
        ExpectRevision("Revision: 00123\n", "0123");
        ExpectRevision("Revision: 000\n", "0000");
        ExpectRevision("Revision: 00000\n", "0000");
        ExpectRevision("Revision: 99999999999999999999\n", "99999999999999999999");
    });
}

// 256 bytes are read: the ten of "Revision: " and 246 more.
TEST(GetSvnRevision, ReadsTheFirst256Bytes) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        for (const size_t length : {245, 246, 247, 1000}) {
            ExpectRevision("Revision: " + std::string(length, '7'),
                           std::string(std::min<size_t>(length, 246), '7'));
        }
    });
}

TEST(GetSvnRevision, FailsWithoutAFileARevisionOrABuffer) {
    RunInPrivateWorld(kMounts, [] {
        FreshEtc();
        const CanaryBuf buf{COM_SVN_REVISION_SIZE};
        EXPECT_EQ(
            Lines{"COMMON:COM_LoadDataFromFile(): open(/etc/SVN) fail : No such file or directory"},
            CaptureLog([&] { EXPECT_EQ(-1, COM_GetSvnRevision(buf.text())); }));
        for (const std::string content : {"", "Revision:12", "revision: 12", "12"}) {
            WriteFile("/etc/SVN", content);
            EXPECT_EQ(-1, COM_GetSvnRevision(buf.text())) << content;
        }
        // "Revision: " does not end within the first 256 bytes.
        WriteFile("/etc/SVN", std::string(247, 'x') + "Revision: 12");
        EXPECT_EQ(-1, COM_GetSvnRevision(buf.text()));
        EXPECT_TRUE(buf.UntouchedFrom(0));
        WriteFile("/etc/SVN", "Revision: 12");
        EXPECT_EQ(-1, COM_GetSvnRevision(nullptr));
    });
}

TEST(FileContent, ReportsAFileSizeLimitAsAFailedWrite) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_TRUE(UnderFileSizeLimit(
        4, [&] { return COM_SaveDataIntoFile(path.c_str(), "12345678", 8) == COM_DATA_PARTIAL; }));
    EXPECT_EQ("1234", ReadFile(path));
    EXPECT_TRUE(
        UnderFileSizeLimit(6, [&] { return COM_AppendFileContent(path.c_str(), "5678") == 0; }));
    EXPECT_EQ("123456", ReadFile(path));
    EXPECT_TRUE(
        UnderFileSizeLimit(5, [&] { return COM_SetFileContent(path.c_str(), "12345678") == 0; }));
    EXPECT_EQ("12345", ReadFile(path));
    EXPECT_TRUE(UnderFileSizeLimit(6, [&] {
        return COM_SaveRingBufDataIntoFile(path.c_str(), "12345678", 6, 8, 8) == COM_DATA_PARTIAL;
    }));
    EXPECT_EQ("781234", ReadFile(path));
}

}  // namespace
