#ifndef TALVEK_TESTS_DEV_DISC_TABLE_H
#define TALVEK_TESTS_DEV_DISC_TABLE_H

#include <stdint.h>

#include "dev/device.h"
#include "dev/optical_disc.h"

namespace talvek::test {

inline tDiscInfo Disc(uint32_t discClass, uint32_t mediaKind,
                      uint32_t recordMode = DEV_RECORD_NONE) {
    tDiscInfo info = {};
    info.discClass = discClass;
    info.mediaKind = mediaKind;
    info.recordMode = recordMode;
    return info;
}

// A disc of tests/dev/fixtures and the result of its identification.
struct ExpectedDisc {
    const char *fixture;
    int result;
    const char *opcodes;   // after TEST UNIT READY, INQUIRY and GET CONFIGURATION
    const char *mountDir;  // of the measurement; empty without one
    tDiscInfo info;
};

inline tDiscInfo Info(uint32_t discClass, uint32_t mediaKind, uint32_t recordMode, uint32_t status,
                      uint64_t totalKB, uint64_t usedKB) {
    tDiscInfo info = Disc(discClass, mediaKind, recordMode);
    info.discStatus = status;
    info.totalKB = totalKB;
    info.usedKB = usedKB;
    return info;
}

inline tDiscInfo Cd(tDiscInfo info, uint32_t subType, uint32_t sessions, uint32_t lastTrack,
                    uint32_t lastTrackStart, uint32_t nextLeadIn) {
    info.cdSubType = subType;
    info.sessions = sessions;
    info.lastTrack = lastTrack;
    info.lastTrackStart = lastTrackStart;
    info.nextLeadIn = nextLeadIn;
    return info;
}

inline tDiscInfo Track(tDiscInfo info, uint32_t lastTrack, uint32_t freeBlocks,
                       uint32_t trackSize) {
    info.lastTrack = lastTrack;
    info.freeBlocks = freeBlocks;
    info.trackSize = trackSize;
    return info;
}

// How the capacities are computed:
//   80 minutes   ((79 * 60 + 59) * 75 + 74) * 2 = 719998
//   74 minutes   (74 * 60 + 12) * 75 * 2 = 667800
//   open CD      2 * 188280 and 2 * 78750 (toc_test.cpp)
//   open DVD     nominal less 2 * free blocks: 4595776 - 2 * 1798400, 4595776 - 2 * 1997888,
//                4590208 - 2 * 2095104
//   rewritable   the 8 MiB of the mounted file system
inline const ExpectedDisc kDiscs[] = {
    {"cd_rom.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(1, 1)},
    {"cd_r_empty.hex", DEV_DISC_INFO_OK, "43 43 51 51", "",
     Cd(Info(1, 2, 0, 0, 719998, 0), 1, 1, 0, 0, 0)},
    {"cd_r_open.hex", DEV_DISC_INFO_OK, "43 43 51 51 43 43", "",
     Cd(Info(1, 2, 0, 1, 719998, 376560), 1, 3, 5, 158105, 188280)},
    {"cd_r_closed.hex", DEV_DISC_INFO_OK, "43 43 51 51", "",
     Cd(Info(1, 2, 0, 2, 719998, 719998), 1, 1, 0, 0, 0)},
    {"cd_rw_open.hex", DEV_DISC_INFO_OK, "43 43 51 51 43 43", "",
     Cd(Info(1, 3, 0, 1, 667800, 157500), 2, 1, 1, 0, 78750)},
    {"dvd_rom.hex", DEV_DISC_INFO_OK, "", "", Disc(2, 1)},
    {"dvd_ram.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(5, 4)},
    {"dvd_minus_r_open.hex", DEV_DISC_INFO_OK, "51 51 ad ad 52 52", "",
     Track(Info(3, 2, 0, 1, 4595776, 998976), 2, 1798400, 1798400)},
    {"dvd_minus_r_dual_layer.hex", DEV_DISC_INFO_OK, "51 51 ad ad 52 52", "",
     Track(Info(3, 2, 5, 2, 8343424, 8343424), 1, 0, 4171712)},
    {"dvd_minus_r_jump.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(3, 2, 6)},
    {"dvd_minus_rw_sequential.hex", DEV_DISC_INFO_OK, "51 51 23 23 52 52", "",
     Track(Info(3, 3, 1, 1, 4595776, 600000), 2, 1997888, 1997888)},
    {"dvd_minus_rw_overwrite.hex", DEV_DISC_INFO_OK, "51 51 23 23 52 52", "/var/dvd_minus_rw",
     Track(Info(3, 3, 2, 2, 4595776, 8192), 1, 0, 2297888)},
    {"dvd_plus_rw.hex", DEV_DISC_INFO_OK, "51 51 23 23 52 52", "/var/dvd_plus_rw",
     Track(Info(4, 3, 0, 2, 4590208, 8192), 1, 0, 2295104)},
    {"dvd_plus_rw_dual_layer.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(4, 3, 5)},
    {"dvd_plus_r_open.hex", DEV_DISC_INFO_OK, "51 51 ad ad 52 52", "",
     Track(Info(4, 2, 0, 1, 4590208, 400000), 2, 2095104, 2095104)},
    {"dvd_plus_r_dual_layer.hex", DEV_DISC_INFO_OK, "51 51 ad ad 52 52", "",
     Track(Info(4, 2, 5, 2, 8347648, 8347648), 1, 0, 4173824)},
    {"ddcd_rom.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(6, 1)},
    {"ddcd_r.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(6, 2)},
    {"ddcd_rw.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(6, 3)},
    {"bd_rom.hex", DEV_DISC_INFO_OK, "51 51", "", Track(Info(7, 1, 0, 2, 0, 0), 1, 0, 0)},
    {"bd_r.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(1, 1)},
    {"bd_re.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(1, 1)},
    {"hd_dvd_rom.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(1, 1)},
    {"no_disc.hex", DEV_DISC_INFO_UNSUPPORTED, "", "", Disc(1, 1)},
};

}  // namespace talvek::test

#endif
