#ifndef TALVEK_SERVICE_SESSION_H
#define TALVEK_SERVICE_SESSION_H

/* The table of session numbers. It belongs to its process: every handler has the copy that it
 * inherited from the daemon, in which all numbers are free. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TALVEK_SESSIONS 256    /* session numbers are 0 to 255 */
#define TALVEK_NO_SESSION (-1) /* no number: none is free, or the client's has been released */

/* Returns the lowest free session number, or TALVEK_NO_SESSION (not logged). The number is looked
 * up, not taken: the next call returns the same number. */
int TALVEK_RegSession(void);

/* Frees a session number. Returns 0, or -1 for a number above 255 (not logged). */
int TALVEK_UnRegSession(uint32_t session);

#ifdef __cplusplus
}
#endif

#endif
