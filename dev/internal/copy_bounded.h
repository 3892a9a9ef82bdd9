#ifndef TALVEK_DEV_INTERNAL_COPY_BOUNDED_H
#define TALVEK_DEV_INTERNAL_COPY_BOUNDED_H

#include <stddef.h>
#include <stdio.h>

#include "dev/internal/module_log.h"

namespace talvek {

// Copies a text into `size` bytes, including the NUL. A longer text is truncated, which is logged
// for the entry `pFunction`; the result is then false.
inline bool CopyBounded(const char *pFunction, char *pDst, size_t size, const char *pSrc) {
    const int length = snprintf(pDst, size, "%s", pSrc);
    if (length >= 0 && static_cast<size_t>(length) >= size) {
        LOG_AS(pFunction, "Warning! overflow (len, size) = (%d, %d)\n", length,
               static_cast<int>(size));
        return false;
    }
    return true;
}

}  // namespace talvek

#endif
