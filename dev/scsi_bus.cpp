// The SCSI hosts of the unit.

#include "dev/scsi_bus.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "base/unique_dir.h"
#include "base/unique_fd.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr char kHosts[] = "/sys/class/scsi_host";
constexpr char kEverything[] = "- - -";

bool ScanHost(const char *pHost) {
    constexpr const char *kEntry = "Dev_RescanScsiBus";
    char path[320];
    snprintf(path, sizeof path, "%s/%s/scan", kHosts, pHost);
    const UniqueFd fd{open(path, O_WRONLY | O_CLOEXEC)};
    if (!fd) {
        LOG_ERRNO_AS(kEntry, "open(%s) error : %s\n", path);
        return false;
    }
    if (write(fd.get(), kEverything, sizeof kEverything - 1) < 0) {
        LOG_ERRNO_AS(kEntry, "write(%s) error : %s\n", path);
        return false;
    }
    return true;
}

}  // namespace
}  // namespace talvek

int Dev_RescanScsiBus(void) {
    const talvek::UniqueDir hosts{opendir(talvek::kHosts)};
    if (!hosts) {
        LOG_ERRNO("opendir(%s) error : %s\n", talvek::kHosts);
        return -1;
    }
    int asked = 0;
    while (const struct dirent *pEntry = readdir(hosts.get())) {
        if (pEntry->d_name[0] != '.' && talvek::ScanHost(pEntry->d_name)) {
            ++asked;
        }
    }
    return asked;
}
