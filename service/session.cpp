// Session numbers.

#include "service/session.h"

#include "base/mutex_lock.h"
#include "service/internal/session_table.h"

using talvek::kFreeSession;
using talvek::MutexLock;
using talvek::SessionMutex;
using talvek::SessionSlot;

int TALVEK_RegSession() {
    for (uint32_t session = 0; session < TALVEK_SESSIONS; ++session) {
        const MutexLock lock{SessionMutex()};
        if (SessionSlot(session) == kFreeSession) {
            return static_cast<int>(session);
        }
    }
    return TALVEK_NO_SESSION;
}

int TALVEK_UnRegSession(uint32_t session) {
    if (session >= TALVEK_SESSIONS) {
        return -1;
    }
    const MutexLock lock{SessionMutex()};
    SessionSlot(session) = kFreeSession;
    return 0;
}
