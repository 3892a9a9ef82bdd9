// Copies of whole files.

#include "common/file_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/heap_buf.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "common/file.h"
#include "common/internal/module_log.h"

namespace talvek {
namespace {

constexpr size_t kCopyBlock = size_t{64} * 1024;
constexpr size_t kAppendBlock = 4096;
constexpr size_t kCopyPathSize = 128;
constexpr mode_t kNewDirMode = 0755;

// Makes the directory in which a path lies. Of a path that does not fit the scratch, the directory
// of its cut form is made: the same one or one on the way to it.
template <size_t kSize>
void MakeParentDir(const char *pPath) {
    char scratch[kSize];
    snprintf(scratch, kSize, "%s", pPath);
    COM_Mkdir(dirname(scratch), kNewDirMode);
}

UniqueFd OpenCopy(const char *pDst) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME;
    constexpr mode_t kMode = 0664;
    UniqueFd fd{OpenPath(pDst, kFlags, kMode)};
    if (!fd && errno == ENOENT) {
        MakeParentDir<kCopyPathSize>(pDst);
        fd.Reset(OpenPath(pDst, kFlags, kMode));
    }
    return fd;
}

// How many bytes an append may take: those that the source holds now when it is the destination,
// as what is appended would be read again and again.
int64_t AppendLimit(int dst, int src) {
    struct stat from;
    struct stat to;
    const bool same = fstat(src, &from) == 0 && fstat(dst, &to) == 0 && S_ISREG(from.st_mode) &&
                      from.st_dev == to.st_dev && from.st_ino == to.st_ino;
    return same ? int64_t{from.st_size} : INT64_MAX;
}

}  // namespace
}  // namespace talvek

int COM_CopyFile(const char *pDst, const char *pSrc) {
    const talvek::UniqueFd src{talvek::OpenPath(pSrc, O_RDONLY | O_NOATIME)};
    if (!src) {
        LOG_ERRNO("open(pSrv : %s) failed : %s\n", talvek::Shown(pSrc));
    }
    // The destination is opened, and so emptied, whatever became of the source.
    // Held by CopyFile.EmptiesTheDestinationWhenTheSourceIsMissing.
    const talvek::UniqueFd dst = talvek::OpenCopy(pDst);
    if (!dst) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pDst));
    }
    if (!src || !dst) {
        return -1;
    }
    posix_fadvise(src.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    char block[talvek::kCopyBlock];
    for (;;) {
        const ssize_t count = read(src.get(), block, sizeof block);
        if (count <= 0) {
            return static_cast<int>(count);
        }
        errno = 0;  // a short write has no error of its own
        if (write(dst.get(), block, static_cast<size_t>(count)) != count) {
            LOG_ERRNO("write(%s,%d) failed : %s\n", pDst, dst.get());
            return -1;
        }
    }
}

int COM_CopyAndLink(const char *pTarget, const char *pLink) {
    struct stat link;
    struct stat target;
    if (talvek::StatPath(pLink, &link) != 0) {
        if (errno != ENOENT) {
            return -1;
        }
        talvek::MakeParentDir<PATH_MAX>(pLink);
    } else if (talvek::StatPath(pTarget, &target) != 0) {
        if (errno != ENOENT) {
            return -1;
        }
        talvek::MakeParentDir<PATH_MAX>(pTarget);
        if ((!S_ISREG(link.st_mode) && !S_ISLNK(link.st_mode)) ||
            COM_CopyFile(pTarget, pLink) != 0) {
            return -1;
        }
    }
    return COM_CreateSymbolLink(1, pTarget, pLink);
}

int COM_AppendFileToFile(const char *pDst, const char *pSrc) {
    if (pDst == nullptr || pSrc == nullptr) {
        return -1;
    }
    const talvek::UniqueFd dst{talvek::OpenPath(pDst, O_RDWR | O_CREAT | O_APPEND, 0777)};
    if (!dst) {
        LOG_ERRNO("open(%s) error:%s\n", pDst);
        return -1;
    }
    const talvek::UniqueFd src{talvek::OpenPath(pSrc, O_RDONLY)};
    if (!src) {
        LOG_ERRNO("open(%s) error:%s\n", pSrc);
        return -1;
    }
    const auto block = talvek::HeapBuf<char>::Zeroed(talvek::kAppendBlock);
    if (!block) {
        LOG_ERRNO("CALLOC(1, %d) error:%s\n", static_cast<int>(talvek::kAppendBlock));
        return -1;
    }
    int64_t left = talvek::AppendLimit(dst.get(), src.get());
    int total = 0;
    while (left > 0) {
        const size_t room = left < static_cast<int64_t>(talvek::kAppendBlock)
                                ? static_cast<size_t>(left)
                                : talvek::kAppendBlock;
        const ssize_t count = read(src.get(), block.get(), room);
        if (count <= 0) {
            break;
        }
        errno = 0;  // a short write has no error of its own
        if (write(dst.get(), block.get(), static_cast<size_t>(count)) != count) {
            LOG_ERRNO("[%s] -> [%s] : write(%d, %d) failed : %s\n", pSrc, pDst, total,
                      static_cast<int>(count));
            return -1;
        }
        total = total > INT_MAX - count ? INT_MAX : total + static_cast<int>(count);
        left -= count;
    }
    return total > 0 ? total : -1;
}
