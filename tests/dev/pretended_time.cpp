#include "pretended_time.h"

#include <errno.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>

namespace {
thread_local talvek::test::PretendedTime *t_time = nullptr;
}

extern "C" {
ssize_t __real_recv(int fd, void *buf, size_t size, int flags);
ssize_t __wrap_recv(int fd, void *buf, size_t size, int flags);
int __wrap_ppoll(struct pollfd *fds, nfds_t count, const struct timespec *time,
                 const sigset_t *mask);
int __wrap___ppoll64(struct pollfd *fds, nfds_t count, const struct timespec *time,
                     const sigset_t *mask);
int __wrap_clock_gettime(clockid_t clock, struct timespec *now);
int __wrap___clock_gettime64(clockid_t clock, struct timespec *now);
#if __SIZEOF_POINTER__ == 4
int __real___ppoll64(struct pollfd *fds, nfds_t count, const struct timespec *time,
                     const sigset_t *mask);
int __real___clock_gettime64(clockid_t clock, struct timespec *now);
#define REAL_PPOLL __real___ppoll64
#define REAL_CLOCK_GETTIME __real___clock_gettime64
#else
int __real_ppoll(struct pollfd *fds, nfds_t count, const struct timespec *time,
                 const sigset_t *mask);
int __real_clock_gettime(clockid_t clock, struct timespec *now);
#define REAL_PPOLL __real_ppoll
#define REAL_CLOCK_GETTIME __real_clock_gettime
#endif
}

int __wrap_ppoll(struct pollfd *fds, nfds_t count, const struct timespec *time,
                 const sigset_t *mask) {
    talvek::test::PretendedTime *pTime = t_time;
    if (pTime == nullptr || time == nullptr) {
        return REAL_PPOLL(fds, count, time, mask);
    }
    const int64_t ms = int64_t{time->tv_sec} * 1000 + time->tv_nsec / 1'000'000;
    pTime->waits.push_back({fds[0].events, ms});
    if (pTime->inVain(fds[0].events) || pTime->readyMs > ms) {
        pTime->ns += ms * 1'000'000;
        return 0;
    }
    pTime->ns += pTime->readyMs * 1'000'000;
    return REAL_PPOLL(fds, count, nullptr, mask);
}

int __wrap___ppoll64(struct pollfd *fds, nfds_t count, const struct timespec *time,
                     const sigset_t *mask) {
    return __wrap_ppoll(fds, count, time, mask);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec *now) {
    if (t_time == nullptr || clock != CLOCK_MONOTONIC) {
        return REAL_CLOCK_GETTIME(clock, now);
    }
    now->tv_sec = static_cast<time_t>(t_time->ns / 1'000'000'000);
    now->tv_nsec = static_cast<long>(t_time->ns % 1'000'000'000);
    return 0;
}

int __wrap___clock_gettime64(clockid_t clock, struct timespec *now) {
    return __wrap_clock_gettime(clock, now);
}

ssize_t __wrap_recv(int fd, void *buf, size_t size, int flags) {
    const size_t most = t_time != nullptr ? t_time->mostReceived : SIZE_MAX;
    return __real_recv(fd, buf, std::min(size, most), flags);
}

namespace talvek::test {

PretendedTime::PretendedTime() {
    t_time = this;
}

PretendedTime::~PretendedTime() {
    t_time = nullptr;
}

}  // namespace talvek::test
