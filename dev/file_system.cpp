// The file systems that can be mounted and maintained, and which of them this machine supports.

#include "dev/file_system.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <array>
#include <atomic>

#include "common/file.h"
#include "dev/internal/fs_table.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr const char *kKernelList = "/proc/filesystems";

constexpr uint32_t kUsable = 1u << 0;
constexpr uint32_t kMarked = kUsable | 1u << DEV_FS_CAP_MARK;

// "nobh" and "barrier=0" are of older kernels; today's take them and log that they do.
constexpr const char *kExt4Data = "data=writeback,barrier=0,nobh";
constexpr const char *kNfsData = "rw,rsize=1048576,wsize=1048576,soft,tcp,nolock";

constexpr tFsTool Make(const char *pPath, const char *pOptions) {
    return {DEV_FS_CAP_MAKE, pPath, pOptions, nullptr};
}
constexpr tFsTool Label(const char *pPath, const char *pRead, const char *pSet) {
    return {DEV_FS_CAP_LABEL, pPath, pRead, pSet};
}
constexpr tFsTool Check(const char *pPath, const char *pAuto, const char *pYes) {
    return {DEV_FS_CAP_CHECK, pPath, pAuto, pYes};
}

constexpr tFsTool kExtLabel = Label("/sbin/tune2fs", " -l ", " -L '%s'");
constexpr tFsTool kExtCheck = Check("/sbin/e2fsck", "-pv%c", "-yv%c");

using FsTable = std::array<tFsEntry, DEV_FS_COUNT>;

constexpr FsTable kInitialTable{{
    {0,
     kMarked,
     "xfs",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mkfs.xfs", " -f "),
      Label("/sbin/xfs_db", " -r -c label ", " -x -c 'label \"%s\"'"),
      Check("/sbin/xfs_repair", nullptr, "-L")}},
    {1,
     kMarked,
     "ext4",
     MS_NOATIME,
     kExt4Data,
     {Make("/sbin/mke2fs", " -F -T ext4 -m 0 "), kExtLabel, kExtCheck}},
    {2,
     kMarked,
     "ext3",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mke2fs", " -F -j -m 0 "), kExtLabel, kExtCheck}},
    {3,
     kUsable,
     "ext2",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mke2fs", " -F -m 0 "), kExtLabel, kExtCheck}},
    {4,
     kUsable,
     "vfat",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mkfs.vfat", " -v "), Check("/sbin/dosfsck", "-av%c", "-yv%c")}},
    {5, kUsable, "fat", MS_NOATIME, nullptr, {}},
    {6, kUsable, "jffs2", MS_NOATIME, nullptr, {}},
    {7, kUsable, "iso9660", MS_RDONLY, nullptr, {}},
    {8, kUsable, "smbfs", MS_NOATIME, nullptr, {}},
    {9, kUsable, "nfs", MS_NOATIME, kNfsData, {}},
    {10, kUsable, "tmpfs", MS_NOATIME, nullptr, {}},
}};
static_assert(MS_NOATIME == 0x400 && MS_RDONLY == 0x001);

// Of a row only the mask changes; it is read and written whole, so that one thread may recompute
// while others look.
constinit FsTable g_table = kInitialTable;
std::atomic<bool> g_initialised = false;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

uint32_t LoadCaps(uint32_t index) {
    return std::atomic_ref{g_table[index].caps}.load(std::memory_order_relaxed);
}

// One pass over the kernel's list for all rows. A name counts where it begins behind a tab, so that
// "nfsd" is taken for "nfs" too.
std::array<bool, DEV_FS_COUNT> KnownToKernel() {
    std::array<tFileItem, DEV_FS_COUNT> items{};
    for (const tFsEntry &row : kInitialTable) {
        tFileItem &item = items[row.index];
        item.key_len = snprintf(item.key, sizeof item.key, "\t%s", row.name);
    }
    tFileItemRequest request{};
    request.count = DEV_FS_COUNT;
    request.find_only = 1;
    request.match_substring = 1;
    request.pItems = items.data();
    COM_ReplaceItemsInFile(kKernelList, &request);

    std::array<bool, DEV_FS_COUNT> known{};
    for (size_t i = 0; i < known.size(); ++i) {
        known[i] = items[i].key_len == 0;
    }
    return known;
}

bool OwnerMayExecute(const char *pPath) {
    struct stat st;
    return stat(pPath, &st) == 0 && (st.st_mode & S_IXUSR) != 0;
}

uint32_t SupportedCaps(const tFsEntry &row) {
    uint32_t caps = row.caps;
    for (const tFsTool &tool : row.tools) {
        if (tool.path != nullptr && OwnerMayExecute(tool.path)) {
            caps |= 1u << tool.capBit;
        }
    }
    return caps;
}

// DEV_FS_COUNT when there is no such row.
uint32_t RowOfName(const char *pName) {
    for (const tFsEntry &row : kInitialTable) {
        if (pName != nullptr && strcmp(row.name, pName) == 0) {
            return row.index;
        }
    }
    return DEV_FS_COUNT;
}

}  // namespace

const tFsEntry &FsRow(uint32_t index) {
    return g_table[index];
}

void EnsureFsTable() {
    if (!g_initialised.load(std::memory_order_acquire)) {
        pthread_once(&g_once, Dev_InitFsArray);
    }
}

uint32_t FsCaps(uint32_t index) {
    EnsureFsTable();
    return LoadCaps(index);
}

}  // namespace talvek

void Dev_InitFsArray(void) {
    using namespace talvek;
    const std::array<bool, DEV_FS_COUNT> known = KnownToKernel();
    for (const tFsEntry &row : kInitialTable) {
        const uint32_t caps = known[row.index] ? SupportedCaps(row) : 0;
        std::atomic_ref{g_table[row.index].caps}.store(caps, std::memory_order_relaxed);
        LOG("[%d] %s - %s[0x%04X]\n", static_cast<int>(row.index), row.name,
            caps != 0 ? "Enable" : "Disable", caps);
    }
    g_initialised.store(true, std::memory_order_release);
}

int Dev_FsCheckFlag(const char *pName, int mode) {
    using namespace talvek;
    const uint32_t row = RowOfName(pName);
    const uint32_t caps = row < DEV_FS_COUNT ? FsCaps(row) : 0;
    if (caps == 0) {
        return -1;
    }
    const bool marked = (caps & 1u << DEV_FS_CAP_MARK) != 0;
    switch (mode) {
        case 0:
            return marked ? -1 : 0;
        case 1:
            return marked ? 0 : -1;
        default:
            return 0;
    }
}

const tFsTool *Dev_GetFsTool(const char *pName, uint32_t capBit) {
    return Dev_GetFsToolByIndex(talvek::RowOfName(pName), capBit);
}

const tFsTool *Dev_GetFsToolByIndex(uint32_t index, uint32_t capBit) {
    using namespace talvek;
    if (index >= DEV_FS_COUNT || capBit < DEV_FS_CAP_MAKE || capBit > DEV_FS_CAP_MARK ||
        (FsCaps(index) & 1u << capBit) == 0) {
        return nullptr;
    }
    for (const tFsTool &tool : kInitialTable[index].tools) {
        if (tool.capBit == capBit) {
            return &tool;
        }
    }
    return nullptr;
}
