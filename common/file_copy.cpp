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

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/file_limit_guard.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "base/write_all.h"
#include "common/file.h"
#include "common/internal/module_log.h"

namespace {

constexpr size_t kCopyBlock = size_t{64} * 1024;
constexpr size_t kAppendBlock = 4096;
constexpr size_t kCopyPathSize = 128;
// Longer than any path that COM_Mkdir makes.
constexpr size_t kLinkPathSize = 1024;
constexpr mode_t kNewDirMode = 0755;

// Makes the directory of a path. If the path does not fit, the directory of its first kSize - 1
// characters is made: the same one or one above it.
template <size_t kSize>
void MakeParentDir(const char *pPath) {
    char scratch[kSize];
    snprintf(scratch, kSize, "%s", pPath);
    COM_Mkdir(dirname(scratch), kNewDirMode);
}

talvek::UniqueFd OpenCopy(const char *pDst) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME;
    constexpr mode_t kMode = 0664;
    talvek::UniqueFd fd{talvek::OpenPath(pDst, kFlags, kMode)};
    if (!fd && errno == ENOENT) {
        MakeParentDir<kCopyPathSize>(pDst);
        fd.Reset(talvek::OpenPath(pDst, kFlags, kMode));
    }
    return fd;
}

// Lets the kernel copy what it can. The files share blocks where the file system supports it;
// elsewhere the data does not pass through this process. An error ends it: the next read or write
// meets the same error, or succeeds where the kernel cannot copy.
void CopyInKernel(int src, int dst) {
    constexpr size_t kMost = size_t{1} << 30;
    posix_fadvise(src, 0, 0, POSIX_FADV_SEQUENTIAL);
    const talvek::FileLimitGuard limit;
    while (copy_file_range(src, nullptr, dst, nullptr, kMost, 0) > 0) {
    }
}

// How many bytes an append may read. If the source is the destination, only what it holds now:
// otherwise the appended bytes would be read again and again.
int64_t AppendLimit(int dst, int src) {
    struct stat from;
    struct stat to;
    const bool same = fstat(src, &from) == 0 && fstat(dst, &to) == 0 && S_ISREG(from.st_mode) &&
                      talvek::IsSameFile(from, to);
    return same ? int64_t{from.st_size} : INT64_MAX;
}

}  // namespace

int COM_CopyFile(const char *pDst, const char *pSrc) {
    const talvek::CancelGuard guard;
    const talvek::UniqueFd src{talvek::OpenPath(pSrc, O_RDONLY | O_NOATIME)};
    if (!src) {
        LOG_ERRNO("open(pSrv : %s) failed : %s\n", talvek::Shown(pSrc));
    }
    // The destination is opened, and so emptied, even if the source cannot be opened.
    // Tested by CopyFile.EmptiesTheDestinationWhenTheSourceIsMissing.
    talvek::UniqueFd dst = OpenCopy(pDst);
    if (!dst) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pDst));
    }
    if (!src || !dst) {
        return -1;
    }
    CopyInKernel(src.get(), dst.get());
    talvek::HeapBuf<char> block;
    if (!block.Resize(kCopyBlock)) {
        LOG_ERRNO("malloc(%d) error : %s\n", static_cast<int>(kCopyBlock));
        return -1;
    }
    for (;;) {
        const ssize_t count = read(src.get(), block.get(), kCopyBlock);
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        if (!talvek::WriteAll(dst.get(), block.get(), count, talvek::Interrupted::kRepeats)
                 .complete()) {
            LOG_ERRNO("write(%s,%d) failed : %s\n", pDst, dst.get());
            return -1;
        }
    }
    // Some file systems report only here that there was no room.
    if (dst.Close() != 0) {
        LOG_ERRNO("close(%s) failed : %s\n", pDst);
        return -1;
    }
    return 0;
}

int COM_CopyAndLink(const char *pTarget, const char *pLink) {
    const talvek::CancelGuard guard;
    struct stat link;
    struct stat target;
    if (talvek::StatPath(pLink, &link) != 0) {
        if (errno != ENOENT) {
            return -1;
        }
        MakeParentDir<kLinkPathSize>(pLink);
    } else if (talvek::StatPath(pTarget, &target) != 0) {
        if (errno != ENOENT) {
            return -1;
        }
        MakeParentDir<kLinkPathSize>(pTarget);
        if (!S_ISREG(link.st_mode) && !S_ISLNK(link.st_mode)) {
            return -1;
        }
        // False for a link to nothing, and for a file that exists and whose path goes through a
        // directory that was missing.
        const bool isNew = lstat(pTarget, &target) != 0 && errno == ENOENT;
        if (COM_CopyFile(pTarget, pLink) != 0) {
            if (isNew) {
                unlink(pTarget);  // the next call would take a part for the whole file
            }
            return -1;
        }
    }
    return COM_CreateSymbolLink(COM_LINK_REPLACE, pTarget, pLink);
}

int COM_AppendFileToFile(const char *pDst, const char *pSrc) {
    const talvek::CancelGuard guard;
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
    const auto block = talvek::HeapBuf<char>::Zeroed(kAppendBlock);
    if (!block) {
        LOG_ERRNO("CALLOC(1, %d) error:%s\n", static_cast<int>(kAppendBlock));
        return -1;
    }
    int64_t left = AppendLimit(dst.get(), src.get());
    int total = 0;
    while (left > 0) {
        const auto room = static_cast<size_t>(std::min<int64_t>(left, kAppendBlock));
        const ssize_t count = read(src.get(), block.get(), room);
        if (count <= 0) {
            break;
        }
        if (!talvek::WriteAll(dst.get(), block.get(), count, talvek::Interrupted::kRepeats)
                 .complete()) {
            LOG_ERRNO("[%s] -> [%s] : write(%d, %d) failed : %s\n", pSrc, pDst, total,
                      static_cast<int>(count));
            return -1;
        }
        total = total > INT_MAX - count ? INT_MAX : total + static_cast<int>(count);
        left -= count;
    }
    return total > 0 ? total : -1;
}
