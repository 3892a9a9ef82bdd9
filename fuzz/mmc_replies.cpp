// Every command to a drive on its own: 1 byte for the command, the disc's record of 64 bytes, then
// the drive's answers (support/drive.h).

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "dev/DEV.h"
#include "fuzz/support/drive.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

constexpr const char *kPath = "/dev/sg0";

using Query = int (*)(const char *, int, tDiscInfo *);
constexpr Query kQueries[] = {Dev_GetConfiguration, Dev_ReadDiscInfo,       Dev_ReadTrackInfo,
                              Dev_ReadDvdStruct,    Dev_ReadFormatCapacity, Dev_ReadCdATIP,
                              Dev_ReadCdToc,        Dev_ReadDvdRToc,        Dev_GetCdInfo};

}  // namespace

FUZZ_TARGET(mmc_replies) {
    const size_t which = in.U8() % (std::size(kQueries) + 3);
    talvek::fuzz::Out out{sizeof(tDiscInfo), 0};
    auto *disc = reinterpret_cast<tDiscInfo *>(out.bytes());
    const talvek::fuzz::Bytes before = in.Take(sizeof *disc);
    std::copy(before.begin(), before.end(), out.bytes());
    const talvek::fuzz::World world;
    const talvek::fuzz::Drive drive{in};
    const int fd = talvek::fuzz::OpenMemory({});
    int result = DEV_QUERY_FAILED;
    if (which < std::size(kQueries)) {
        result = kQueries[which](kPath, fd, disc);
    } else if (which == std::size(kQueries)) {
        result = Dev_ReadBufferCapacity(kPath, fd);
    } else if (which == std::size(kQueries) + 1) {
        result = Dev_TestUnitReady(kPath, fd);
    } else {
        talvek::fuzz::Out model{DEV_MODEL_SIZE};
        result = Dev_Inquiry(kPath, fd, model.text());
        REQUIRE(result == DEV_QUERY_OK ? model.IsText() : model.Untouched());
    }
    REQUIRE(result == DEV_QUERY_OK || result == DEV_QUERY_FAILED);
    close(fd);
}
