#include "support/loop_device.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace talvek::test {
namespace {

// Opens a free device and attaches the file; -1 with errno set. Another test may take the device
// between the two steps, then the next one is asked for.
int Attach(int file, bool readOnly, std::string &path) {
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control < 0) {
        return -1;
    }
    int fd = -1;
    for (int tries = 0; tries < 50 && fd < 0; ++tries) {
        const int number = ioctl(control, LOOP_CTL_GET_FREE);
        if (number < 0) {
            break;
        }
        path = "/dev/loop" + std::to_string(number);
        fd = open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
        struct loop_config config = {};
        config.fd = static_cast<__u32>(file);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_PARTSCAN;
        if (readOnly) {
            config.info.lo_flags |= LO_FLAGS_READ_ONLY;
        }
        if (fd >= 0 && ioctl(fd, LOOP_CONFIGURE, &config) != 0) {
            const int error = errno;
            close(fd);
            fd = -1;
            errno = error;
            if (error != EBUSY) {
                break;
            }
        }
    }
    const int error = errno;
    close(control);
    errno = error;
    return fd;
}

}  // namespace

bool LoopDevicesWork(std::string &reason) {
    const int file = memfd_create("loop", MFD_CLOEXEC);
    if (ftruncate(file, 1 << 20) != 0) {
        reason = "no file in memory";
        return false;
    }
    std::string path;
    const int fd = Attach(file, false, path);
    if (fd < 0) {
        reason = std::string{"no loop device can be attached : "} + strerror(errno);
    }
    close(fd);
    close(file);
    return fd >= 0;
}

LoopDevice::LoopDevice(const std::string &image, bool readOnly) {
    const int file = open(image.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    EXPECT_GE(file, 0) << image << " : " << strerror(errno);
    fd_ = Attach(file, readOnly, path_);
    EXPECT_GE(fd_, 0) << image << " : " << strerror(errno);
    close(file);
}

LoopDevice::~LoopDevice() {
    close(fd_);
}

void MakeImage(const std::string &path, long long size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    EXPECT_EQ(0, ftruncate(fd, size));
    close(fd);
}

}  // namespace talvek::test
