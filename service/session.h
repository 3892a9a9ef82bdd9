#ifndef TALVEK_SERVICE_SESSION_H
#define TALVEK_SERVICE_SESSION_H

/* The table of 256 session numbers. It belongs to one process: every handler has the copy that it
 * got from the daemon by fork, in which all numbers are free. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Session numbers are 0 to 255. */
#define TALVEK_SESSIONS 256

/* Returns the lowest free session number, or -1 when none is free. The number is only looked up,
 * not taken: the next call returns the same one. */
int TALVEK_RegSession(void);

/* Frees a session number. Returns 0, or -1 for a number above 255. */
int TALVEK_UnRegSession(uint32_t session);

#ifdef __cplusplus
}
#endif

#endif
