#ifndef TALVEK_COMMON_INTERNAL_CASE_SEARCH_H
#define TALVEK_COMMON_INTERNAL_CASE_SEARCH_H

#include <stddef.h>

namespace talvek {

// The first place of the key in a NUL-terminated text, ignoring ASCII case, or null. The cost is
// linear in the text read, whatever both texts are, and no byte behind the text's NUL is read.
const char *FindIgnoringCase(const char *pText, const char *pKey, size_t keySize);

}  // namespace talvek

#endif
