// Mounting by the file-system table, by detection and through /bin/mount; unmounting.

#include "dev/mount.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>

#include <array>

#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "dev/internal/fs_table.h"
#include "dev/internal/module_log.h"
#include "dev/internal/nfs_umount.h"
#include "dev/mount_table.h"

namespace talvek {
namespace {

// The upper half that mount(2) asked for before Linux 2.4 and has ignored since.
constexpr unsigned long kMountMagic = 0xC0ED0000;
static_assert(kMountMagic == MS_MGC_VAL);

constexpr const char *kMountProgram = "/bin/mount";

bool EndsInDigit(const char *pText) {
    const size_t length = strlen(pText);
    return length > 0 && pText[length - 1] >= '0' && pText[length - 1] <= '9';
}

// A device and, when its name does not end in a digit, nine partitions ahead of it.
class Candidates {
  public:
    Candidates(const char *pSrc, char firstDigit) : src_(pSrc), firstDigit_(firstDigit) {
        partitions_ = EndsInDigit(pSrc) ? 0 : 9;
    }

    [[nodiscard]] int count() const { return partitions_ + 1; }

    // The name of a candidate; NULL when it is longer than any path. Holds until the next call.
    const char *Name(int i) {
        if (i == partitions_) {
            return src_;
        }
        const int length = snprintf(name_, sizeof name_, "%s%c", src_, firstDigit_ + i);
        return length > 0 && static_cast<size_t>(length) < sizeof name_ ? name_ : nullptr;
    }

    static constexpr int kMost = 10;

  private:
    const char *src_;
    char firstDigit_;
    int partitions_;
    char name_[PATH_MAX];
};

bool MountAs(const char *pSrc, const char *pDir, const tFsEntry &row) {
    return pSrc != nullptr &&
           mount(pSrc, pDir, row.name, row.mountFlags | kMountMagic, row.mountData) == 0;
}

int MountKnown(const char *pSrc, const char *pDir, const tFsEntry &row) {
    Candidates candidates{pSrc, '0'};
    for (int i = 0; i < candidates.count(); ++i) {
        if (MountAs(candidates.Name(i), pDir, row)) {
            return 0;
        }
    }
    return -1;
}

// The partitions count from 1 here and from 0 where the file system is known.
// Held by MountDetect.TriesPartitions1To9AndThenTheDiskForEachFileSystem and
// MountKnown.TriesPartitions0To8AndThenTheDisk.
int MountDetecting(const char *pSrc, const char *pDir) {
    Candidates candidates{pSrc, '1'};
    std::array<bool, Candidates::kMost> confirmed{};
    for (int i = 0; i < candidates.count(); ++i) {
        confirmed[static_cast<size_t>(i)] = Dev_CheckPartition(candidates.Name(i)) == 0;
    }
    for (uint32_t index = 0; index < DEV_FS_COUNT; ++index) {
        if (FsCaps(index) == 0) {
            continue;
        }
        for (int i = 0; i < candidates.count(); ++i) {
            if (confirmed[static_cast<size_t>(i)] &&
                MountAs(candidates.Name(i), pDir, FsRow(index))) {
                return 0;
            }
        }
    }
    return -1;
}

// Builds a command line; what would pass the end of the block is left out and told by fits().
class CommandLine {
  public:
    CommandLine(char *pBlock, size_t size) : block_(pBlock), size_(size) {}

    void Put(char c) {
        if (used_ + 1 < size_) {
            block_[used_] = c;
            block_[used_ + 1] = '\0';
        }
        ++used_;
    }
    void Put(const char *pText) {
        while (*pText != '\0') {
            Put(*pText++);
        }
    }

    // One word of the command. In single quotes a shell takes every character as it is; the quote
    // itself is put between two quoted pieces.
    void PutWord(const char *pWord) {
        if (IsPlain(pWord)) {
            Put(pWord);
            return;
        }
        Put('\'');
        for (; *pWord != '\0'; ++pWord) {
            if (*pWord == '\'') {
                Put("'\\''");
            } else {
                Put(*pWord);
            }
        }
        Put('\'');
    }

    [[nodiscard]] bool fits() const { return used_ < size_; }

    static constexpr size_t kMostPerCharacter = 4;

  private:
    static bool IsPlain(const char *pWord) {
        constexpr const char *kPlain =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,@%+=";
        return *pWord != '\0' && pWord[strspn(pWord, kPlain)] == '\0';
    }

    char *block_;
    size_t size_;
    size_t used_ = 0;
};

int MountExport(const char *pSrc, const char *pDir) {
    const char *pOptions = FsRow(DEV_FS_NFS).mountData;
    const size_t size = strlen(kMountProgram) + strlen(pOptions) +
                        CommandLine::kMostPerCharacter * (strlen(pSrc) + strlen(pDir)) + 64;
    const HeapBuf<char> block{static_cast<char *>(malloc(size))};
    if (!block) {
        LOG_ERRNO_AS("Dev_Mount", "malloc(%zu) error : %s\n", size);
        return -1;
    }
    CommandLine command{block.get(), size};
    command.Put(kMountProgram);
    command.Put(" -t nfs -o ");
    command.Put(pOptions);
    command.Put(pSrc[0] == '-' || pDir[0] == '-' ? " -- " : " ");
    command.PutWord(pSrc);
    command.Put(' ');
    command.PutWord(pDir);
    if (!command.fits()) {
        return -1;
    }
    fflush(stdout);
    return system(block.get());
}

bool IsMountable(const char *pSrc, const char *pDir) {
    if (pSrc == nullptr) {
        LOG_AS("Dev_Mount", "pSrc == NULL\n");
        return false;
    }
    if (pSrc[0] == '\0') {
        LOG_AS("Dev_Mount", "strlen(pSrc) == 0\n");
        return false;
    }
    if (pDir == nullptr) {
        LOG_AS("Dev_Mount", "pDst == NULL\n");
        return false;
    }
    return true;
}

// Unmounts by `unmount`, whose failure is logged under `pCall`, and notifies an NFS server.
template <typename Unmount>
int UnmountAndNotify(const char *pFunction, const char *pCall, const char *pDir, Unmount unmount) {
    if (pDir == nullptr) {
        return -1;
    }
    const CancelGuard guard;
    NfsMount mount;
    const bool found = FindMountEntry(pDir, mount.entry, mount.cut);
    const int result = unmount(pDir);
    if (result != 0) {
        LOG_ERRNO_AS(pFunction, "%s(%s) failed : %s\n", pCall, pDir);
    } else if (found && strcmp(mount.entry.type, "nfs") == 0) {
        NotifyNfsServer(pFunction, mount);
    }
    return result;
}

}  // namespace
}  // namespace talvek

int Dev_Mount(const char *pSrc, const char *pDir, unsigned fsIndex) {
    using namespace talvek;
    if (!IsMountable(pSrc, pDir)) {
        return -1;
    }
    const bool isExport = strchr(pSrc, ':') != nullptr;
    if (fsIndex >= DEV_FS_DETECT) {
        EnsureFsTable();
        return isExport ? MountExport(pSrc, pDir) : MountDetecting(pSrc, pDir);
    }
    if (fsIndex != DEV_FS_NFS) {
        return MountKnown(pSrc, pDir, FsRow(fsIndex));
    }
    if (!isExport) {
        LOG("Try mount pSrc(%s) with wrong fs type(NFS)\n", pSrc);
        return -1;
    }
    return MountExport(pSrc, pDir);
}

int Dev_uMount(const char *pDir) {
    return talvek::UnmountAndNotify(__func__, "umount", pDir,
                                  [](const char *pPath) { return umount(pPath); });
}

int Dev_uMount_Force(const char *pDir) {
    return talvek::UnmountAndNotify(__func__, "umount2(forced umount)", pDir,
                                  [](const char *pPath) { return umount2(pPath, MNT_FORCE); });
}
