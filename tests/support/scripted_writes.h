#ifndef TALVEK_TESTS_SUPPORT_SCRIPTED_WRITES_H
#define TALVEK_TESTS_SUPPORT_SCRIPTED_WRITES_H

#include <sys/types.h>

#include <deque>

namespace talvek::test {

// What the next calls of write do in a program that wraps it: a negative entry fails with that
// errno, another one is the number of bytes that the call writes at most. Without an entry it
// writes all.
extern std::deque<ssize_t> &g_writes;

}  // namespace talvek::test

#endif
