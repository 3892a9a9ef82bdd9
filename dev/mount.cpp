// Mounting by the file-system table, by detection and with /bin/mount; unmounting.

#include "dev/mount.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>

#include <array>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/heap_buf.h"
#include "dev/internal/fs_table.h"
#include "dev/internal/module_log.h"
#include "dev/internal/nfs_umount.h"
#include "dev/mount_table.h"

namespace {

using talvek::FsRow;

// The magic that mount(2) needed before Linux 2.4 and has ignored since.
constexpr unsigned long kMountMagic = 0xC0ED0000;
static_assert(kMountMagic == MS_MGC_VAL);

bool EndsInDigit(const char *pText) {
    const size_t length = strlen(pText);
    return length > 0 && talvek::IsDigit(pText[length - 1]);
}

// The names to mount a device by: its nine partitions, unless its name ends in a digit, and then
// the name itself.
class Candidates {
  public:
    static constexpr int kMaxCount = 10;

    Candidates(const char *pSrc, char firstDigit) : src_(pSrc), firstDigit_(firstDigit) {
        partitions_ = EndsInDigit(pSrc) ? 0 : kMaxCount - 1;
    }

    [[nodiscard]] int count() const { return partitions_ + 1; }

    // The name of a candidate, valid until the next call; NULL when it is longer than any path.
    const char *Name(int i) {
        if (i == partitions_) {
            return src_;
        }
        const int length = snprintf(name_, sizeof name_, "%s%c", src_, firstDigit_ + i);
        return length > 0 && static_cast<size_t>(length) < sizeof name_ ? name_ : nullptr;
    }

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

// Partitions are numbered from 1 here, and from 0 where the file system is given.
// Tested by MountDetect.TriesPartitions1To9AndThenTheDiskForEachFileSystem and
// MountKnown.TriesPartitions0To8AndThenTheDisk.
int MountDetecting(const char *pSrc, const char *pDir) {
    Candidates candidates{pSrc, '1'};
    std::array<bool, Candidates::kMaxCount> exists{};
    for (int i = 0; i < candidates.count(); ++i) {
        exists[static_cast<size_t>(i)] = Dev_CheckPartition(candidates.Name(i)) == 0;
    }
    for (uint32_t index = 0; index < DEV_FS_COUNT; ++index) {
        if (talvek::FsCaps(index) == 0) {
            continue;
        }
        for (int i = 0; i < candidates.count(); ++i) {
            if (exists[static_cast<size_t>(i)] && MountAs(candidates.Name(i), pDir, FsRow(index))) {
                return 0;
            }
        }
    }
    return -1;
}

constexpr size_t kQuotedMost = 4;  // bytes that PutWord writes for a character, "'\\''"

// Writes one word of a shell command and its NUL. Returns the end of the word. Between single
// quotes a shell leaves every character unchanged. A single quote itself is written as '\''.
char *PutWord(char *pOut, const char *pWord) {
    constexpr const char *kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,@%+=";
    if (*pWord != '\0' && pWord[strspn(pWord, kPlain)] == '\0') {
        return stpcpy(pOut, pWord);
    }
    *pOut++ = '\'';
    for (; *pWord != '\0'; ++pWord) {
        if (*pWord == '\'') {
            pOut = stpcpy(pOut, "'\\''");
        } else {
            *pOut++ = *pWord;
        }
    }
    return stpcpy(pOut, "'");
}

int MountExport(const char *pSrc, const char *pDir) {
    const char *pOptions = FsRow(DEV_FS_NFS).mountData;
    const size_t size = sizeof "/bin/mount -t nfs -o  -- '' ''" + strlen(pOptions) +
                        kQuotedMost * (strlen(pSrc) + strlen(pDir));
    talvek::HeapBuf<char> command;
    if (!command.Resize(size)) {
        LOG_ERRNO_AS("Dev_Mount", "malloc(%zu) error : %s\n", size);
        return -1;
    }
    char *pEnd = stpcpy(stpcpy(command.get(), "/bin/mount -t nfs -o "), pOptions);
    pEnd = stpcpy(pEnd, pSrc[0] == '-' || pDir[0] == '-' ? " -- " : " ");
    pEnd = stpcpy(PutWord(pEnd, pSrc), " ");
    PutWord(pEnd, pDir);
    fflush(stdout);
    return system(command.get());
}

bool IsMountable(const char *pSrc, const char *pDir) {
    constexpr const char *kFunction = "Dev_Mount";
    if (pSrc == nullptr) {
        LOG_AS(kFunction, "pSrc == NULL\n");
        return false;
    }
    if (pSrc[0] == '\0') {
        LOG_AS(kFunction, "strlen(pSrc) == 0\n");
        return false;
    }
    if (pDir == nullptr) {
        LOG_AS(kFunction, "pDst == NULL\n");
        return false;
    }
    return true;
}

// Calls pUnmount, which is called pCall in the log, and notifies the server of an NFS mount.
int UnmountAndNotify(const char *pFunction, const char *pCall, const char *pDir,
                     int (*pUnmount)(const char *)) {
    const talvek::CancelGuard guard;
    if (pDir == nullptr) {
        return -1;
    }
    talvek::NfsMount mount;
    const bool found = talvek::FindMountEntry(pDir, mount.entry, mount.cut);
    const int result = pUnmount(pDir);
    if (result != 0) {
        LOG_ERRNO_AS(pFunction, "%s(%s) failed : %s\n", pCall, pDir);
    } else if (found && strcmp(mount.entry.type, "nfs") == 0) {
        talvek::NotifyNfsServer(pFunction, mount);
    }
    return result;
}

}  // namespace

int Dev_Mount(const char *pSrc, const char *pDir, unsigned fsIndex) {
    const talvek::CancelGuard guard;
    if (!IsMountable(pSrc, pDir)) {
        errno = EINVAL;
        return -1;
    }
    const bool isExport = strchr(pSrc, ':') != nullptr;
    if (fsIndex >= DEV_FS_DETECT) {
        talvek::EnsureFsTable();
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
    return UnmountAndNotify(__func__, "umount", pDir, umount);
}

int Dev_uMount_Force(const char *pDir) {
    return UnmountAndNotify(__func__, "umount2(forced umount)", pDir,
                            [](const char *pPath) { return umount2(pPath, MNT_FORCE); });
}
