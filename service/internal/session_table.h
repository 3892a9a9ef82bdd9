#ifndef TALVEK_SERVICE_INTERNAL_SESSION_TABLE_H
#define TALVEK_SERVICE_INTERNAL_SESSION_TABLE_H

#include <stdint.h>

namespace talvek {

constexpr int32_t kFreeSession = -1;

// Makes the mutex of the table anew and frees every number. Only while no other thread uses them.
void InitSessions();

// The slot of a session number (0 to 255).
int32_t &SessionSlot(uint32_t session);

}  // namespace talvek

#endif
