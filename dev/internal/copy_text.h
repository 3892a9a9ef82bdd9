#ifndef TALVEK_DEV_INTERNAL_COPY_TEXT_H
#define TALVEK_DEV_INTERNAL_COPY_TEXT_H

#include <stdio.h>
#include <string.h>

#include "dev/internal/module_log.h"

namespace talvek {

// Copies a text into `size` bytes, the NUL counted. Returns false when it does not fit, with its
// first part copied and its length logged for the entry `pFunction`.
inline bool CopyText(const char *pFunction, char *pDst, size_t size, const char *pSrc) {
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
