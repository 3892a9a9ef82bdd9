#ifndef TALVEK_TESTS_SUPPORT_OPENED_H
#define TALVEK_TESTS_SUPPORT_OPENED_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace talvek::test {

// A call of open by the code under test.
struct Opened {
    std::string path;
    int flags;  // without O_LARGEFILE
    mode_t mode;
};

// The calls of open so far, in a program that wraps open and open64.
std::vector<Opened> &OpenedFiles();

}  // namespace talvek::test

#endif
