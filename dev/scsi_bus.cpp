// The SCSI hosts of the unit.

#include "dev/scsi_bus.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_dir.h"
#include "base/unique_fd.h"
#include "dev/internal/module_log.h"

namespace {

constexpr char kHosts[] = "/sys/class/scsi_host";
constexpr char kScan[] = "/scan";
constexpr char kEverything[] = "- - -";  // all channels, ids and units

bool ScanHost(const char *pFunction, const char *pHost) {
    char path[sizeof kHosts + 1 + NAME_MAX + sizeof kScan];
    snprintf(path, sizeof path, "%s/%s%s", kHosts, pHost, kScan);
    const talvek::UniqueFd fd{talvek::OpenPath(path, O_WRONLY)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "open(%s) error : %s\n", path);
        return false;
    }
    // The kernel takes the text whole; the rest of a short write would be another request.
    if (write(fd.get(), kEverything, sizeof kEverything - 1) < 0) {
        LOG_ERRNO_AS(pFunction, "write(%s) error : %s\n", path);
        return false;
    }
    return true;
}

}  // namespace

int Dev_RescanScsiBus(void) {
    const talvek::CancelGuard guard;
    const talvek::UniqueDir hosts{opendir(kHosts)};
    if (!hosts) {
        LOG_ERRNO("opendir(%s) error : %s\n", kHosts);
        return -1;
    }
    int scanned = 0;
    while (const struct dirent *pHost = readdir(hosts.get())) {
        if (pHost->d_name[0] != '.' && ScanHost(__func__, pHost->d_name)) {
            ++scanned;
        }
    }
    return scanned;
}
