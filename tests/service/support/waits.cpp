#include "service/support/waits.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <utility>

namespace talvek::test {
namespace {

int g_timeouts = 0;
int g_error = 0;
std::vector<Waits::Wait> g_timedOut;

}  // namespace

void Waits::TimeOut(int count) {
    g_timeouts = count;
}

void Waits::Fail(int error) {
    g_error = error;
}

std::vector<Waits::Wait> Waits::TimedOut() {
    return std::exchange(g_timedOut, {});
}

}  // namespace talvek::test

using talvek::test::g_error;
using talvek::test::g_timedOut;
using talvek::test::g_timeouts;

#if __SIZEOF_POINTER__ == 4
#define REAL_PPOLL __real___ppoll64
#define WRAP_PPOLL __wrap___ppoll64
#else
#define REAL_PPOLL __real_ppoll
#define WRAP_PPOLL __wrap_ppoll
#endif

extern "C" {
int REAL_PPOLL(pollfd *pFds, nfds_t count, const timespec *pTime, const sigset_t *pMask);
int WRAP_PPOLL(pollfd *pFds, nfds_t count, const timespec *pTime, const sigset_t *pMask);
}

int WRAP_PPOLL(pollfd *pFds, nfds_t count, const timespec *pTime, const sigset_t *pMask) {
    if (g_error != 0) {
        errno = g_error;
        return -1;
    }
    if (g_timeouts == 0) {
        const bool onlyLooks = pTime->tv_sec == 0 && pTime->tv_nsec == 0;
        return REAL_PPOLL(pFds, count, onlyLooks ? pTime : nullptr, pMask);
    }
    --g_timeouts;
    g_timedOut.push_back(
        {pFds[0].events, int64_t{pTime->tv_sec} * 1000 + pTime->tv_nsec / 1'000'000});
    return 0;
}
