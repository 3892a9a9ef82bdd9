#ifndef TALVEK_DEV_INTERNAL_PAUSE_H
#define TALVEK_DEV_INTERNAL_PAUSE_H

#include <time.h>

#include "common/command.h"

namespace talvek {

// Waits one second for a drive.
inline void PauseSecond() {
    constexpr timespec kSecond = {1, 0};
    constexpr int kMaxRounds = 1000;
    COM_SleepAtLeast(&kSecond, kMaxRounds);
}

}  // namespace talvek

#endif
