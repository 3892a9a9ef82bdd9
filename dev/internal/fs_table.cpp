// The file-system table and the capability masks of this machine.

#include "dev/internal/fs_table.h"

#include <pthread.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <array>

#include "common/file.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr const char *kKernelList = "/proc/filesystems";

constexpr uint32_t kUsable = 1u << 0;
constexpr uint32_t kMarked = kUsable | 1u << DEV_FS_CAP_MARK;

// "barrier=0" turns write barriers off, so a power failure may damage the file system (ext4(5)).
// Today's kernels accept "nobh" and ignore it with a warning.
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

constexpr std::array<tFsEntry, DEV_FS_COUNT> kTable{{
    {DEV_FS_XFS,
     kMarked,
     "xfs",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mkfs.xfs", " -f "),
      Label("/sbin/xfs_db", " -r -c label ", " -x -c 'label \"%s\"'"),
      Check("/sbin/xfs_repair", nullptr, "-L")}},
    {DEV_FS_EXT4,
     kMarked,
     "ext4",
     MS_NOATIME,
     kExt4Data,
     {Make("/sbin/mke2fs", " -F -T ext4 -m 0 "), kExtLabel, kExtCheck}},
    {DEV_FS_EXT3,
     kMarked,
     "ext3",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mke2fs", " -F -j -m 0 "), kExtLabel, kExtCheck}},
    {DEV_FS_EXT2,
     kUsable,
     "ext2",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mke2fs", " -F -m 0 "), kExtLabel, kExtCheck}},
    {DEV_FS_VFAT,
     kUsable,
     "vfat",
     MS_NOATIME,
     nullptr,
     {Make("/sbin/mkfs.vfat", " -v "), Check("/sbin/dosfsck", "-av%c", "-yv%c")}},
    {DEV_FS_FAT, kUsable, "fat", MS_NOATIME, nullptr, {}},
    {DEV_FS_JFFS2, kUsable, "jffs2", MS_NOATIME, nullptr, {}},
    {DEV_FS_ISO9660, kUsable, "iso9660", MS_RDONLY, nullptr, {}},
    {DEV_FS_SMBFS, kUsable, "smbfs", MS_NOATIME, nullptr, {}},
    {DEV_FS_NFS, kUsable, "nfs", MS_NOATIME, kNfsData, {}},
    {DEV_FS_TMPFS, kUsable, "tmpfs", MS_NOATIME, nullptr, {}},
}};
static_assert(MS_NOATIME == 0x400 && MS_RDONLY == 0x001);

constinit std::array<uint32_t, DEV_FS_COUNT> g_caps{};
bool g_computed = false;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

// One pass over the kernel's list for all rows. A row is known when the list has a tab followed by
// its name; so "nfsd" counts as "nfs" too.
std::array<bool, DEV_FS_COUNT> KnownToKernel() {
    std::array<tFileItem, DEV_FS_COUNT> items{};
    for (const tFsEntry &row : kTable) {
        tFileItem &item = items[row.index];
        item.key_len = snprintf(item.key, sizeof item.key, "\t%s", row.name);
    }
    tFileItemRequest request{};
    request.count = DEV_FS_COUNT;
    request.find_only = 1;
    request.match_substring = 1;
    request.pItems = items.data();
    if (COM_ReplaceItemsInFile(kKernelList, &request) < 0) {
        return {};
    }

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

}  // namespace

const tFsEntry &FsRow(uint32_t index) {
    return kTable[index];
}

void UpdateFsTable(const char *pFunction) {
    const std::array<bool, DEV_FS_COUNT> known = KnownToKernel();
    for (const tFsEntry &row : kTable) {
        const uint32_t caps = known[row.index] ? SupportedCaps(row) : 0;
        __atomic_store_n(&g_caps[row.index], caps, __ATOMIC_RELAXED);
        LOG_AS(pFunction, "[%d] %s - %s[0x%04X]\n", static_cast<int>(row.index), row.name,
               caps != 0 ? "Enable" : "Disable", caps);
    }
    __atomic_store_n(&g_computed, true, __ATOMIC_RELEASE);
}

void EnsureFsTable() {
    if (!__atomic_load_n(&g_computed, __ATOMIC_ACQUIRE)) {
        pthread_once(&g_once, Dev_InitFsArray);
    }
}

uint32_t FsCaps(uint32_t index) {
    EnsureFsTable();
    return __atomic_load_n(&g_caps[index], __ATOMIC_RELAXED);
}

}  // namespace talvek
