#include "service/internal/session_table.h"

#include <array>

#include "service/session.h"

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

// Initialised before InitSessions too: a handler may run in a program without a daemon.
constinit Slots g_slots = AllFree();
constinit Mutex g_mutex;

}  // namespace

void InitSessions() {
    g_mutex.Reset();
    g_slots.fill(kFreeSession);
}

Mutex &SessionMutex() {
    return g_mutex;
}

int32_t &SessionSlot(uint32_t session) {
    return g_slots[session];
}

}  // namespace talvek
