#ifndef TALVEK_TESTS_FAULTS_WRAPPERS_H
#define TALVEK_TESTS_FAULTS_WRAPPERS_H

#include <stdint.h>

#include <sys/types.h>

#include <atomic>
#include <set>
#include <vector>

// The calls that the library makes of the C library, each of which asks here whether it fails.

namespace talvek::faults {

// Beside the numbers of <errno.h>.
constexpr int kShort = -1001;  // a transfer of one byte
constexpr int kEnd = -1002;    // the end of the data, or of a wait, before its time

constexpr int kMostSites = 2048;

// A call site that fails, from its `from`th call in a run (from 0) up to before its `until`th.
struct Fault {
    int site;
    int error;
    uint32_t from;
    uint32_t until;
};

// What the processes of a run share.
struct Run {
    Fault plan[4];
    int planned;
    std::atomic<bool> armed;
    std::atomic<uint32_t> calls[kMostSites];  // by site
    std::atomic<bool> failed[kMostSites];
    std::atomic<int64_t> skippedNs;  // by which the clocks are ahead
    char verdict[1024];              // empty: passed
};
extern Run *g_run;

constexpr uintptr_t kThroughPointer = UINTPTR_MAX;

// What the library holds in this process.
extern std::atomic<long> g_blocks;

// The processes that the library started in this one.
extern std::set<pid_t> g_children;

struct Site {
    uintptr_t returns;  // address after the call, or kThroughPointer
    int callee;
    const char *function;  // that holds it, as the linker names it
};

// Finds the call sites in a program by its disassembly, and adds one for each function that may be
// called through a pointer.
std::vector<Site> FindSites(const char *pProgram);
extern std::vector<Site> g_sites;

const char *CalleeName(int callee);
const std::vector<int> &ErrorsOf(int callee);

}  // namespace talvek::faults

#endif
