// Files over 2 GiB and dates after January 2038, on a 32-bit kernel and C library.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "board/support/board.h"
#include "common/COMMON.h"
#include "service/support/program.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr off_t kFiveGiB = off_t{5} << 30;

// A file of 5 GiB and some bytes; the hole takes no space.
std::string LargeFile(const TempDir &dir) {
    const std::string path = dir / "large";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    EXPECT_EQ(5, pwrite(fd, "start", 5, 0));
    EXPECT_EQ(3, pwrite(fd, "end", 3, kFiveGiB));
    close(fd);
    return path;
}

std::string Tail(const std::string &path, off_t from) {
    char bytes[64] = "";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = pread(fd, bytes, sizeof bytes, from);
    close(fd);
    return {bytes, size > 0 ? size_t(size) : 0};
}

TEST(LargeFile, IsReadAndExtended) {
    TempDir dir;
    const std::string path = LargeFile(dir);
    WriteFile(dir / "small", "more");
    Capture([&] {
        char start[6] = "";
        EXPECT_EQ(0, COM_GetFileContent(path.c_str(), start, sizeof start));
        EXPECT_STREQ("start", start);
        EXPECT_EQ(0, COM_AppendFileContent(path.c_str(), ", "));
        EXPECT_EQ(4, COM_AppendFileToFile(path.c_str(), (dir / "small").c_str()));
    });
    EXPECT_EQ("end, more", Tail(path, kFiveGiB)) << std::filesystem::file_size(path);
}

TEST(LargeFile, IsReportedWithItsSize) {
    TempDir dir;
    const std::string path = LargeFile(dir);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(kFiveGiB, lseek(fd, kFiveGiB, SEEK_SET));
    const std::string text = Capture([&] { EXPECT_EQ(0, COM_GetFdInfo(fd, nullptr, 1)); });
    EXPECT_NE(std::string::npos, text.find("(size, cur_off) = (5368709123, 5368709120)")) << text;
    close(fd);
}

TEST(LargeFile, IsRemovedWithItsDirectory) {
    TempDir dir;
    LargeFile(dir);
    Capture([&] { EXPECT_EQ(1, _COM_RemoveFileInDir_(1, dir.path().c_str(), 0)); });
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

// The machine's clock in January 2040 while it lives, as far on as it would be afterwards.
class In2040 {
  public:
    In2040() {
        clock_gettime(CLOCK_REALTIME, &before_);
        clock_gettime(CLOCK_MONOTONIC, &start_);
        const struct timespec set = {kBegin, 0};
        EXPECT_EQ(0, clock_settime(CLOCK_REALTIME, &set)) << strerror(errno);
    }
    ~In2040() {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        before_.tv_sec += now.tv_sec - start_.tv_sec;
        clock_settime(CLOCK_REALTIME, &before_);
    }
    In2040(const In2040 &) = delete;
    In2040 &operator=(const In2040 &) = delete;

    static constexpr time_t kBegin = 2208988800;  // 2040-01-01 00:00:00 UTC

  private:
    struct timespec before_;
    struct timespec start_;
};

TEST(LateDate, IsPrintedByTheLogger) {
    NEEDS_EMULATED_BOARD();
    In2040 clock;
    std::string text = Capture([] { EXPECT_EQ(0, COM_PrintTimeStamp("TEST", 1)); });
    EXPECT_EQ("TEST,1: [2040/01/01 00:", text.substr(0, 23)) << text;
    char buf[64] = "";
    EXPECT_EQ(0, COM_TimeToStr(buf, time(nullptr)));
    EXPECT_EQ("2040/01/01 00:", std::string{buf}.substr(0, 14)) << buf;
}

TEST(LateDate, OfAFileIsKept) {
    TempDir dir;
    const std::string path = dir / "late";
    WriteFile(path, "text");
    const struct timespec times[2] = {{In2040::kBegin, 0}, {In2040::kBegin, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
    struct stat st = {};
    EXPECT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(In2040::kBegin, st.st_mtime);
    char text[16] = "";
    Capture([&] { EXPECT_EQ(0, COM_GetFileContent(path.c_str(), text, sizeof text)); });
    EXPECT_STREQ("text", text);
}

TEST(LateDate, DoesNotMatterToTheService) {
    NEEDS_EMULATED_BOARD();
    In2040 clock;
    const Daemon daemon;
    EXPECT_EQ(7, daemon.Client("exit 7").exitStatus());
    EXPECT_EQ(0, daemon.Client("test $(date +%Y) = 2040").exitStatus());
}

}  // namespace
