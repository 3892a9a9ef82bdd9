/* Loaded into the dynamic program, makes the time of day jump at each call: by decades, to before
 * 1970 and after 2038, back by a second. The monotonic clock stays, as the kernel promises. */

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static time_t Jump(void) {
    static const long long kJumps[] = {0, 1000000000, -1000000000, 1, -1, -1900000000, 2000000000};
    static unsigned calls;
    return (time_t)kJumps[calls++ % (sizeof kJumps / sizeof kJumps[0])];
}

int clock_gettime(clockid_t clock, struct timespec *now) {
#ifdef SYS_clock_gettime64
    const long result = syscall(SYS_clock_gettime64, clock, now);
#else
    const long result = syscall(SYS_clock_gettime, clock, now);
#endif
    if (result == 0 && clock == CLOCK_REALTIME) {
        now->tv_sec += Jump();
    }
    return (int)result;
}

time_t time(time_t *seconds) {
    struct timespec now = {0, 0};
    clock_gettime(CLOCK_REALTIME, &now);
    if (seconds != NULL) {
        *seconds = now.tv_sec;
    }
    return now.tv_sec;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone) {
    (void)zone;
    now->tv_usec = 0;
    now->tv_sec = time(NULL);
    return 0;
}
