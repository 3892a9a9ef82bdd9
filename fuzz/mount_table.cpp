// The kernel's tables of mounts, partitions and file systems: 1 byte for the length of a device's
// name that is compared; a line with the device, a line with the mount point; then the table.

#include <string.h>

#include "dev/file_system.h"
#include "dev/mount_table.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

using talvek::fuzz::Out;

void CheckText(const Out &out, int result) {
    REQUIRE(result == 0 ? out.IsText() : result == -1 && out.Untouched());
}

}  // namespace

FUZZ_TARGET(mount_table) {
    const unsigned length = in.U8();
    const talvek::fuzz::Text device{in.Line()};
    const talvek::fuzz::Text mountPoint{in.Line()};
    const talvek::fuzz::Bytes table = in.Rest();
    talvek::fuzz::World world;
    world.AddFiles({"/proc/mounts", "/proc/partitions", "/proc/filesystems"}, table);
    {
        Out out{DEV_MOUNT_TEXT_SIZE};
        CheckText(out, Dev_nGetMPT(device.get(), out.text(), length));
    }
    {
        Out out{DEV_MOUNT_TEXT_SIZE};
        CheckText(out, Dev_GetDevViaMount(out.text(), mountPoint.get()));
    }
    Out entry{sizeof(tMountEntry)};
    auto *found = reinterpret_cast<tMountEntry *>(entry.bytes());
    const int result = Dev_GetEntryViaMtab(mountPoint.get(), found);
    if (result == 0) {
        REQUIRE(memchr(found->device, 0, sizeof found->device) != nullptr);
        REQUIRE(memchr(found->mountPoint, 0, sizeof found->mountPoint) != nullptr);
        REQUIRE(memchr(found->type, 0, sizeof found->type) != nullptr);
        REQUIRE(memchr(found->options, 0, sizeof found->options) != nullptr);
    } else {
        REQUIRE(result == -1 && entry.Untouched());
    }
    const int partition = Dev_CheckPartition(device.get());
    REQUIRE(partition == 0 || partition == -1);
    Dev_InitFsArray();
    for (unsigned row = 0; row < DEV_FS_COUNT; ++row) {
        Dev_GetFsToolByIndex(row, DEV_FS_CAP_MAKE);
    }
    const std::vector<uint8_t> after = world.Content("/proc/filesystems");
    REQUIRE(after == std::vector<uint8_t>(table.begin(), table.end()));
}
