#include "common/file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/internal/unique_fd.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using talvek::UniqueFd;
using talvek::test::CanaryBuf;
using talvek::test::CaptureLog;
using talvek::test::MountTmpfs;
using talvek::test::ReadFile;
using talvek::test::RunInPrivateWorld;
using talvek::test::TempDir;
using talvek::test::WriteFile;
using Lines = std::vector<std::string>;

// ---- COM_Mkdir ----

TEST(Mkdir, MakesEveryLevel) {
    const TempDir dir;
    for (const char *tail : {"a/b/c/", "d/e/f", "g", "h//i/"}) {
        const std::string path = dir / tail;
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_Mkdir(path.c_str(), 0755)); }));
        EXPECT_TRUE(fs::is_directory(path)) << path;
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_Mkdir(path.c_str(), 0755)); }))
            << "an existing tree is no failure";
    }
    EXPECT_TRUE(fs::is_directory(dir / "a/b"));
}

TEST(CloseFd, StoresMinusOneAndReturnsWhatCloseReturned) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int closed = fd;
    EXPECT_EQ(0, COM_CloseFd(&fd));
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(-1, COM_CloseFd(&fd)) << "nothing is held any more";
    fd = closed;
    errno = 0;
    EXPECT_EQ(-1, COM_CloseFd(&fd)) << "not open";
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(-1, COM_CloseFd(nullptr));
}

}  // namespace
