#ifndef TALVEK_TESTS_SUPPORT_LOOP_DEVICE_H
#define TALVEK_TESTS_SUPPORT_LOOP_DEVICE_H

#include <string>

namespace talvek::test {

// Whether this process may attach loop devices; if not, `reason` says why.
bool LoopDevicesWork(std::string &reason);

// A file attached to a free loop device, its partitions scanned (/dev/loop0p1 ...). It is detached
// when neither this object nor a mount uses it any more, also when the process dies.
class LoopDevice {
  public:
    explicit LoopDevice(const std::string &image, bool readOnly = false);
    ~LoopDevice();
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }

  private:
    std::string path_;
    int fd_ = -1;
};

// Makes a sparse file.
void MakeImage(const std::string &path, long long size);

}  // namespace talvek::test

#endif
