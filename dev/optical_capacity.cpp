// Used capacity of a rewritable disc, measured by mounting it.

#include "dev/optical_capacity.h"

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "base/cancel_guard.h"
#include "base/scope_exit.h"
#include "common/file.h"
#include "dev/file_system.h"
#include "dev/internal/module_log.h"
#include "dev/internal/pause.h"
#include "dev/mount.h"

namespace {

constexpr mode_t kDirMode = 0755;

// One kind of disc: the entry that measures it and the directory that it is mounted on.
struct Measurement {
    const char *function;
    const char *dir;
};

// Makes the directory. With a link in its place, a user who may write in /var would choose what is
// unmounted and mounted over.
bool MakeMountDir(const char *pDir) {
    struct stat st;
    if (COM_Mkdir(pDir, kDirMode) != 0) {
        return false;
    }
    if (lstat(pDir, &st) == 0 && S_ISLNK(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

bool MeasureMounted(const Measurement &what, tDevInfo &dev) {
    struct statfs fs = {};
    if (statfs(what.dir, &fs) != 0) {
        LOG_ERRNO_AS(what.function, "statfs(%s,%s) error : %s\n", dev.devPath, what.dir);
        return false;
    }
    // The size of the file system counts, not its used blocks.
    // Tested by RewritableCapacity.CountsTheWholeFileSystem.
    dev.u.disc.usedKB = (static_cast<uint64_t>(fs.f_bsize) * fs.f_blocks) >> 10;
    LOG_AS(what.function, "(%s) : used_capacity = %llu\n", dev.devPath,
           static_cast<unsigned long long>(dev.u.disc.usedKB));
    return true;
}

bool MountAndMeasure(const Measurement &what, tDevInfo &dev) {
    if (Dev_Mount(dev.devPath, what.dir, DEV_FS_ISO9660) != 0) {
        LOG_ERRNO_AS(what.function, "Dev_Mount(%s, %s) error : %s\n", dev.devPath, what.dir);
        return false;
    }
    bool done = false;
    {
        const talvek::ScopeExit unmount{[&what] { Dev_uMount(what.dir); }};
        done = MeasureMounted(what, dev);
    }
    talvek::PauseSecond();
    return done;
}

int Measure(const Measurement &what, tDevInfo *pDev) {
    const talvek::CancelGuard guard;
    if (pDev == nullptr) {
        LOG_AS(what.function, "Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    if (!MakeMountDir(what.dir)) {
        LOG_ERRNO_AS(what.function, "COM_Mkdir(%s) error : %s\n", what.dir);
        return DEV_QUERY_FAILED;
    }
    umount(what.dir);
    return MountAndMeasure(what, *pDev) ? DEV_QUERY_OK : DEV_QUERY_FAILED;
}

}  // namespace

int Dev_GetDvdPlusRwInfo(tDevInfo *pDev) {
    return Measure({__func__, "/var/dvd_plus_rw"}, pDev);
}

int Dev_GetDvdMinusRwInfo(tDevInfo *pDev) {
    return Measure({__func__, "/var/dvd_minus_rw"}, pDev);
}

int Dev_GetBDReInfo(tDevInfo *pDev) {
    return Measure({__func__, "/var/bd_re"}, pDev);
}
