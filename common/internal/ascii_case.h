#ifndef TALVEK_COMMON_INTERNAL_ASCII_CASE_H
#define TALVEK_COMMON_INTERNAL_ASCII_CASE_H

#include <stddef.h>
#include <string.h>

namespace talvek {

// Upper and lower case of the letters of ASCII, and of no others. The C library's own functions go
// by the locale that the program has set; in a Turkish one "LI" is not "li".
// Held by AsciiCase.IsTheSameInEveryLocale.

constexpr char LowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr char UpperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Whether a NUL-terminated text begins with `size` characters, none of them a NUL.
inline bool BeginsIgnoringCase(const char *pText, const char *pBeginning, size_t size) {
    size_t i = 0;
    while (i < size && LowerCase(pText[i]) == LowerCase(pBeginning[i])) {
        ++i;
    }
    return i == size;
}

inline bool EqualsIgnoringCase(const char *pText, const char *pOther) {
    const size_t size = strlen(pOther);
    return BeginsIgnoringCase(pText, pOther, size) && pText[size] == '\0';
}

}  // namespace talvek

#endif
