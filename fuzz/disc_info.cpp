// A whole identification (Dev_GetDiscInfo) or enumeration (Dev_Get): 1 byte whose low bit chooses
// the enumeration, 8 bytes for the size of the file system on a disc, then the drive's answers
// (support/drive.h).

#include <string.h>

#include "dev/DEV.h"
#include "fuzz/support/drive.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

bool HasText(const char *pText, size_t size) {
    return memchr(pText, 0, size) != nullptr;
}

// The caller's record with what an identification reads; it sets `ready` and u.disc alone.
void Identify() {
    talvek::fuzz::Out out{sizeof(tDevInfo)};
    auto *dev = reinterpret_cast<tDevInfo *>(out.bytes());
    dev->isOptical = 1;
    strcpy(dev->sgPath, "/dev/sg0");
    strcpy(dev->devPath, "/dev/sr0");
    tDevInfo expected = *dev;
    const int result = Dev_GetDiscInfo(dev);
    expected.ready = result != DEV_DISC_INFO_NOT_READY ? 1 : 0;
    expected.u.disc = dev->u.disc;
    REQUIRE(result == DEV_DISC_INFO_OK || result == DEV_DISC_INFO_NOT_READY ||
            result == DEV_DISC_INFO_UNSUPPORTED);
    REQUIRE(memcmp(dev, &expected, sizeof expected) == 0);
    REQUIRE(dev->u.disc.discClass <= DEV_CLASS_BD && dev->u.disc.mediaKind <= DEV_MEDIA_RAM);
    REQUIRE(dev->u.disc.discStatus <= DEV_DISC_RANDOM_ACCESS && dev->u.disc.reserved == 0);
}

void Enumerate() {
    talvek::fuzz::Out out{sizeof(tDevInfo) * DEV_MAX_DEVICES, 0};
    auto *devs = reinterpret_cast<tDevInfo *>(out.bytes());
    const int count = Dev_Get(devs);
    REQUIRE(count >= 0 && count <= DEV_MAX_DEVICES);
    REQUIRE(out.Untouched(0, static_cast<size_t>(count) * sizeof *devs));
    for (int i = 0; i < count; ++i) {
        REQUIRE(HasText(devs[i].model, sizeof devs[i].model));
        REQUIRE(HasText(devs[i].devPath, sizeof devs[i].devPath));
        REQUIRE(HasText(devs[i].sgPath, sizeof devs[i].sgPath));
        REQUIRE(HasText(devs[i].mountPoint, sizeof devs[i].mountPoint));
        REQUIRE(devs[i].busType <= DEV_BUS_ESATA && devs[i].ready <= 1);
    }
}

}  // namespace

FUZZ_TARGET(disc_info) {
    const bool enumerate = (in.U8() & 1) != 0;
    talvek::fuzz::World world;
    world.space.f_bsize = static_cast<decltype(world.space.f_bsize)>(in.U32());
    world.space.f_blocks = in.U32();
    world.AddFiles(
        {"/dev/sg0", "/dev/sg1", "/dev/sr0", "/dev/sda", "/proc/mounts", "/proc/partitions"}, {});
    const talvek::fuzz::Drive drive{in};
    if (enumerate) {
        Enumerate();
    } else {
        Identify();
    }
}
