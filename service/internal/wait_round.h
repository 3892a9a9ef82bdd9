#ifndef TALVEK_SERVICE_INTERNAL_WAIT_ROUND_H
#define TALVEK_SERVICE_INTERNAL_WAIT_ROUND_H

#include <stdint.h>

namespace talvek {

// Every wait of the service ends after this time and starts again.
constexpr int64_t kWaitRoundMs = 5000;

}  // namespace talvek

#endif
