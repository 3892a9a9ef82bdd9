#ifndef TALVEK_SERVICE_INTERNAL_WAIT_ROUND_H
#define TALVEK_SERVICE_INTERNAL_WAIT_ROUND_H

#include <stdint.h>

namespace talvek {

// Length of one round of a wait. Every wait of the service is repeated until its event comes.
constexpr int64_t kWaitRoundMs = 5000;

}  // namespace talvek

#endif
