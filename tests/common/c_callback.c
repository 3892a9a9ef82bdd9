/* A callback as C programs on the device have it: compiled without unwind tables. */

#include "c_callback.h"

#include <pthread.h>
#include <time.h>

static void SleepLong(void) {
#ifdef __SANITIZE_THREAD__
    /* A thread that is cancelled in an intercepted sleep has its further locks ignored. */
    for (;;) {
        pthread_testcancel();
    }
#else
    /* Static: AddressSanitizer goes on guarding the variables of a frame that cancellation
     * leaves. */
    static const struct timespec minute = {60, 0};
    nanosleep(&minute, NULL);
#endif
}

int SleepInC(void *pArg) {
    __atomic_store_n((int *)pArg, 1, __ATOMIC_RELEASE);
    SleepLong();
    return 0;
}
