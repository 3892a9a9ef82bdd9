#ifndef TALVEK_FUZZ_SUPPORT_TARGET_H
#define TALVEK_FUZZ_SUPPORT_TARGET_H

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// A target runs the code under test with one input. A fuzzer's program has one target, the program
// that replays the stored inputs has all.
struct Target {
    Target(const char *pName, void (*pRun)(Input &));

    const char *name;
    void (*run)(Input &in);
    Target *next;
};

// The targets of this program; NULL ends them.
Target *Targets();

}  // namespace talvek::fuzz

// Defines the target of a file; the name is that of the file.
#define FUZZ_TARGET(name)                                         \
    static void RunTarget(talvek::fuzz::Input &in);               \
    static const talvek::fuzz::Target g_target{#name, RunTarget}; \
    static void RunTarget(talvek::fuzz::Input &in)

#endif
