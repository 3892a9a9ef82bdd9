#include "support/canary.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace talvek::test {
namespace {

constexpr size_t kFront = 64;
constexpr uint8_t kPattern = 0x5C;

}  // namespace

CanaryBuf::CanaryBuf(size_t size, uint8_t fill) : size_(size), fill_(fill) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t room = (size + kFront + page - 1) / page * page;
    mapSize_ = room + page;
    void *map = mmap(nullptr, mapSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED || mprotect(static_cast<char *>(map) + room, page, PROT_NONE) != 0) {
        abort();
    }
    map_ = static_cast<uint8_t *>(map);
    memset(map_, kPattern, room - size);
    bytes_ = map_ + room - size;
    memset(bytes_, fill, size);
}

CanaryBuf::~CanaryBuf() {
    EXPECT_TRUE(Intact()) << "written before the start of a buffer";
    munmap(map_, mapSize_);
}

bool CanaryBuf::Intact() const {
    for (const uint8_t *at = map_; at < bytes_; ++at) {
        if (*at != kPattern) {
            return false;
        }
    }
    return true;
}

bool CanaryBuf::UntouchedFrom(size_t offset) const {
    for (size_t i = offset; i < size_; ++i) {
        if (bytes_[i] != fill_) {
            return false;
        }
    }
    return true;
}

GuardedCopy::GuardedCopy(const void *pBytes, size_t size) : buf_(size) {
    if (size > 0) {
        memcpy(buf_.bytes(), pBytes, size);
    }
}

GuardedCopy::GuardedCopy(const char *pText) : GuardedCopy(pText, strlen(pText) + 1) {}

}  // namespace talvek::test
