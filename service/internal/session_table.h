#ifndef TALVEK_SERVICE_INTERNAL_SESSION_TABLE_H
#define TALVEK_SERVICE_INTERNAL_SESSION_TABLE_H

#include <stdint.h>

#include "base/mutex_lock.h"

namespace talvek {

constexpr int32_t kFreeSession = -1;

// Initialises the mutex and marks every number as free. No other thread may use the table
// meanwhile.
void InitSessions();

// Guards the slots.
Mutex &SessionMutex();

// The slot of a session number below TALVEK_SESSIONS.
int32_t &SessionSlot(uint32_t session) TALVEK_REQUIRES(SessionMutex());

}  // namespace talvek

#endif
