#ifndef TALVEK_TESTS_FAULTS_HARNESS_H
#define TALVEK_TESTS_FAULTS_HARNESS_H

#include <limits.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

// What a scenario is made of. Each run of one has a process, mounts (/tmp, /var, /etc) and sockets
// of its own, so nothing is left from the run before.

namespace talvek::faults {

constexpr long kPositive = LONG_MAX;  // as a stated result: any number above 0

// A call of an entry of the library, or of a few that belong together.
struct Scenario {
    const char *name;
    // Makes what the entry works on. Nothing fails here.
    void (*prepare)();
    // Calls the entry and returns its result. What else the call gave is kept in g_ variables.
    long (*run)();
    // The result of a run in which nothing fails, then the results of the others.
    std::vector<long> stated;
    // Checks what the call left, and releases what it handed out. Nothing fails here.
    void (*verify)(long result) = nullptr;
    // Files that may exist afterwards and did not before.
    std::vector<std::string> makes = {};
    // The entry tries again until the call succeeds, so a failure for ever lasts five calls.
    bool triesAgain = false;
};

// A failure of the run when the condition does not hold.
void Check(bool holds, const char *pText);
#define CHECK(condition) ::talvek::faults::Check((condition), #condition)

// What a process holds: open descriptors, and blocks that the library handed out or keeps.
struct Held {
    int fds;
    long blocks;
};
Held HeldNow();

// Whether nothing has failed until now.
bool Undisturbed();

// Whether the plan has a failure with this error.
bool FailsWith(int error);

// Whether the plan makes a call of one of these functions fail.
bool FailsIn(std::initializer_list<const char *> names);

// Releases a block that the library handed out.
void Free(void *block);

// Runs `body` in a process that nothing is made to fail in, and that ends with the run.
int StartPeer(const std::function<void()> &body);

// The log of the run until now.
std::string LogSoFar();

std::vector<Scenario> CommonScenarios();
std::vector<Scenario> DevScenarios();
std::vector<Scenario> DnsScenarios();
std::vector<Scenario> ServiceScenarios();

}  // namespace talvek::faults

#endif
