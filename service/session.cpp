// The table of session numbers.

#include "service/session.h"

#include <pthread.h>

#include <array>

#include "base/mutex_lock.h"
#include "service/internal/session_table.h"

namespace talvek {
namespace {

using Slots = std::array<int32_t, TALVEK_SESSIONS>;

constexpr Slots AllFree() {
    Slots slots{};
    for (int32_t &slot : slots) {
        slot = kFreeSession;
    }
    return slots;
}

// Ready before the daemon sets them up, so that a handler can be run without one.
constinit Slots g_slots = AllFree();
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

void InitSessions() {
    pthread_mutex_init(&g_mutex, nullptr);
    g_slots = AllFree();
}

int32_t &SessionSlot(uint32_t session) {
    return g_slots[session];
}

}  // namespace talvek

int TALVEK_RegSession() {
    for (uint32_t session = 0; session < TALVEK_SESSIONS; ++session) {
        const talvek::MutexLock lock{talvek::g_mutex};
        if (talvek::SessionSlot(session) == talvek::kFreeSession) {
            return static_cast<int>(session);
        }
    }
    return -1;
}

int TALVEK_UnRegSession(uint32_t session) {
    if (session >= TALVEK_SESSIONS) {
        return -1;
    }
    const talvek::MutexLock lock{talvek::g_mutex};
    talvek::SessionSlot(session) = talvek::kFreeSession;
    return 0;
}
