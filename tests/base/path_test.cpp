#include "base/path.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using talvek::IsSameFile;
using talvek::LastComponent;
using talvek::OpenPath;
using talvek::OpenStream;
using talvek::Shown;
using talvek::StatPath;
using talvek::StreamOn;
using talvek::UniqueFd;
using talvek::UniqueFile;
using namespace talvek::test;

TEST(Path, RefusesNullAsTheKernelDoes) {
    struct stat st;
    errno = 0;
    EXPECT_EQ(-1, OpenPath(nullptr, O_RDONLY));
    EXPECT_EQ(EFAULT, errno);
    errno = 0;
    EXPECT_EQ(nullptr, OpenStream(nullptr, "r"));
    EXPECT_EQ(EFAULT, errno);
    errno = 0;
    EXPECT_EQ(-1, StatPath(nullptr, &st));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_STREQ("(null)", Shown(nullptr));
    EXPECT_STREQ("x", Shown("x"));
}

TEST(Path, OpensWithCloseOnExec) {
    const TempDir dir;
    const std::string path = dir / "file";
    const UniqueFd fd{OpenPath(path.c_str(), O_WRONLY | O_CREAT, 0600)};
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd.get(), F_GETFD));
    for (const char *mode : {"r", "w", "r+", "w+"}) {
        const UniqueFile stream{OpenStream(path.c_str(), mode)};
        ASSERT_TRUE(stream) << mode;
        EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(stream.get()), F_GETFD)) << mode;
        const int access = fcntl(fileno(stream.get()), F_GETFL) & O_ACCMODE;
        EXPECT_EQ(mode[1] == '+' ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY, access) << mode;
    }
}

TEST(Path, StreamIsClosedWithItsData) {
    const TempDir dir;
    const std::string path = dir / "file";
    WriteFile(path, "before");
    {
        const UniqueFile stream{OpenStream(path.c_str(), "w")};
        fputs("data", stream.get());
    }
    EXPECT_EQ("data", ReadFile(path));
}

TEST(Path, StreamTakesOverADescriptor) {
    const TempDir dir;
    const int fd = OpenPath((dir / "file").c_str(), O_WRONLY | O_CREAT, 0600);
    UniqueFile stream{StreamOn(fd, "w")};
    ASSERT_TRUE(stream);
    EXPECT_EQ(fd, fileno(stream.get()));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(0, stream.Close());
    errno = ELOOP;
    EXPECT_EQ(nullptr, StreamOn(-1, "w"));
    EXPECT_EQ(ELOOP, errno) << "why there is no descriptor";
    EXPECT_EQ(fd, OpenPath((dir / "file").c_str(), O_RDONLY));
    EXPECT_EQ(nullptr, StreamOn(fd, "no mode"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "a failure closes it";
}

TEST(IsSameFile, ComparesTheFilesAndNotTheirNames) {
    const TempDir dir;
    WriteFile(dir / "file", "x");
    WriteFile(dir / "other", "x");
    ASSERT_EQ(0, link((dir / "file").c_str(), (dir / "name").c_str()));
    struct stat file;
    struct stat other;
    struct stat name;
    struct stat elsewhere;
    ASSERT_EQ(0, StatPath((dir / "file").c_str(), &file));
    ASSERT_EQ(0, StatPath((dir / "other").c_str(), &other));
    ASSERT_EQ(0, StatPath((dir / "name").c_str(), &name));
    EXPECT_TRUE(IsSameFile(file, name));
    EXPECT_FALSE(IsSameFile(file, other));
    elsewhere = file;
    ++elsewhere.st_dev;
    EXPECT_FALSE(IsSameFile(file, elsewhere));
}

TEST(LastComponent, FollowsTheLastSlash) {
    EXPECT_STREQ("sda1", LastComponent("/dev/sda1"));
    EXPECT_STREQ("sda1", LastComponent("sda1"));
    EXPECT_STREQ("", LastComponent("/dev/"));
    EXPECT_STREQ("", LastComponent(""));
}

}  // namespace
