/* Callbacks as C programs on the device have them: compiled without unwind tables. */

#include "c_callback.h"

#include <time.h>

static void SleepLong(void) {
    const struct timespec minute = {60, 0};
    nanosleep(&minute, NULL);
}

int SleepInC(void *pArg) {
    *(volatile int *)pArg = 1;
    SleepLong();
    return 0;
}

void SleepOnLineInC(const char *pLine, void *pUser) {
    if (pLine != NULL) {
        *(volatile int *)pUser = 1;
        SleepLong();
    }
}
