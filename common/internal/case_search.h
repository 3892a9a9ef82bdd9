#ifndef TALVEK_COMMON_INTERNAL_CASE_SEARCH_H
#define TALVEK_COMMON_INTERNAL_CASE_SEARCH_H

#include <stddef.h>

namespace talvek {

// Finds the first occurrence of the key in a NUL-terminated text, ignoring ASCII case, or NULL.
// The cost is at most proportional to both lengths. No byte after the text's NUL is read.
const char *FindIgnoringCase(const char *pText, const char *pKey, size_t keySize);

}  // namespace talvek

#endif
