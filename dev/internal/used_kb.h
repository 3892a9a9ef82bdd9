#ifndef TALVEK_DEV_INTERNAL_USED_KB_H
#define TALVEK_DEV_INTERNAL_USED_KB_H

#include <stdint.h>

#include "dev/device.h"

namespace talvek {

// The used capacity by the disc's status; `incompleteKB` is that of an incomplete disc.
inline uint64_t UsedKB(const tDiscInfo &info, uint64_t incompleteKB) {
    switch (info.discStatus) {
        case DEV_DISC_INCOMPLETE:
            return incompleteKB;
        case DEV_DISC_FINALIZED:
            return info.totalKB;
        default:
            return 0;
    }
}

}  // namespace talvek

#endif
