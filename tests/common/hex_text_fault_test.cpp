#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/hex_text.h"
#include "support/capture.h"
#include "support/faults.h"

extern "C" off_t __real_lseek(int fd, off_t offset, int whence);

namespace {

using namespace talvek::test;

constexpr int kSize = 10000;  // the block grows twice

int LargeFile() {
    const int fd = memfd_create("hex text", MFD_CLOEXEC);
    const std::string content(kSize, 'a');
    EXPECT_EQ(kSize, write(fd, content.data(), content.size()));
    return fd;
}

// lseek itself, so that the call is not counted as one of the code under test.
void Rewind(int fd) {
    __real_lseek(fd, 0, SEEK_SET);
}

TEST(ReadHexDataFault, ReturnsNullWhicheverCallFails) {
    const int fd = LargeFile();
    Capture([&] {
        EXPECT_GT(EveryCallFails(ENOMEM,
                                 [&] {
                                     Rewind(fd);
                                     int length = -77;
                                     char *pText = COM_ReadHexDataInStrFormat(fd, &length);
                                     EXPECT_EQ(Fault::Tripped(), pText == nullptr);
                                     EXPECT_EQ(Fault::Tripped() ? -77 : kSize, length);
                                     free(pText);
                                 }),
                  5);
    });
    close(fd);
}

TEST(ReadHexDataFault, LogsThatThereIsNoMemory) {
    const int fd = LargeFile();
    for (int nth = 0; nth < 3; ++nth) {
        EXPECT_EQ(Lines{"COMMON:COM_ReadHexDataInStrFormat(): REALLOC() failed : Cannot allocate "
                        "memory"},
                  CaptureLog([&] {
                      Rewind(fd);
                      const Fault fault{"realloc", nth, ENOMEM};
                      EXPECT_EQ(nullptr, COM_ReadHexDataInStrFormat(fd, nullptr));
                  }));
    }
    close(fd);
}

}  // namespace
