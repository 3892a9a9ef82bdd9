#ifndef TALVEK_BASE_CHARACTERS_H
#define TALVEK_BASE_CHARACTERS_H

#include <stddef.h>
#include <string.h>

namespace talvek {

// Classes, digits and case of ASCII characters. The C library's functions depend on the program's
// locale: in a Turkish one "LI" and "li" differ. Tested by Characters.IsTheSameInEveryLocale.

constexpr bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool IsLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// White space as isspace has it in the "C" locale.
constexpr bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The value of a hexadecimal digit; -1 for any other character.
constexpr int HexValue(char c) {
    if (IsDigit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

constexpr char LowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether a NUL-terminated text begins with the first `size` characters of another, ignoring ASCII
// case. None of them may be a NUL.
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
