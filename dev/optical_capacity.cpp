// Used capacity of a rewritable disc, measured by mounting it.

#include "dev/optical_capacity.h"

#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <time.h>

#include "base/scope_exit.h"
#include "common/command.h"
#include "common/file.h"
#include "dev/internal/module_log.h"
#include "dev/mount.h"

namespace talvek {
namespace {

constexpr unsigned kIso9660 = 7;  // its row in the file-system table
constexpr mode_t kDirMode = 0755;
constexpr timespec kPause = {1, 0};
constexpr int kPauseRounds = 1000;

// One kind of disc: the entry that measures it and the directory it is mounted on.
struct Measurement {
    const char *entry;
    const char *dir;
};

bool MeasureMounted(const Measurement &what, tDevInfo &dev) {
    struct statfs fs = {};
    if (statfs(what.dir, &fs) != 0) {
        LOG_ERRNO_AS(what.entry, "statfs(%s,%s) error : %s\n", dev.devPath, what.dir);
        return false;
    }
    // The size of the file system counts, not its used blocks.
    // Held by RewritableCapacity.CountsTheWholeFileSystem.
    dev.u.disc.usedKB = (static_cast<uint64_t>(fs.f_bsize) * fs.f_blocks) >> 10;
    LOG_AS(what.entry, "(%s) : used_capacity = %llu\n", dev.devPath,
           static_cast<unsigned long long>(dev.u.disc.usedKB));
    return true;
}

bool MountAndMeasure(const Measurement &what, tDevInfo &dev) {
    if (Dev_Mount(dev.devPath, what.dir, kIso9660) != 0) {
        LOG_ERRNO_AS(what.entry, "Dev_Mount(%s, %s) error : %s\n", dev.devPath, what.dir);
        return false;
    }
    bool done = false;
    {
        const ScopeExit unmount{[&what] { Dev_uMount(what.dir); }};
        done = MeasureMounted(what, dev);
    }
    COM_SleepAtLeast(&kPause, kPauseRounds);
    return done;
}

int Measure(const Measurement &what, tDevInfo *pDev) {
    if (pDev == nullptr) {
        LOG_AS(what.entry, "Get Null ptr\n");
        return 0;
    }
    if (COM_Mkdir(what.dir, kDirMode) != 0) {
        LOG_ERRNO_AS(what.entry, "COM_Mkdir(%s) error : %s\n", what.dir);
        return 0;
    }
    umount(what.dir);
    return MountAndMeasure(what, *pDev) ? 1 : 0;
}

}  // namespace
}  // namespace talvek

int Dev_GetDvdPlusRwInfo(tDevInfo *dev) {
    return talvek::Measure({__func__, "/var/dvd_plus_rw"}, dev);
}

int Dev_GetDvdMinusRwInfo(tDevInfo *dev) {
    return talvek::Measure({__func__, "/var/dvd_minus_rw"}, dev);
}

int Dev_GetBDReInfo(tDevInfo *dev) {
    return talvek::Measure({__func__, "/var/bd_re"}, dev);
}
