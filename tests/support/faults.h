#ifndef TALVEK_TESTS_SUPPORT_FAULTS_H
#define TALVEK_TESTS_SUPPORT_FAULTS_H

#include <functional>
#include <string>

// Makes calls of the C library fail on demand. Works in programs named <topic>_fault_test.cpp,
// whose link wraps every function listed in faults.cpp.

namespace talvek::test {

// While it lives, one call fails: the nth (from 0) of the function named, or of all wrapped
// functions together when `function` is null. The call sets errno and returns its failure value; a
// close, fclose, closedir or pclose that fails has closed all the same.
class Fault {
  public:
    Fault(const char *function, int nth, int error);
    ~Fault();
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;

    [[nodiscard]] static bool Tripped();
    // Name of the function that failed, empty if none did.
    [[nodiscard]] static std::string Which();
    // Calls that did not fail, until one does.
    [[nodiscard]] static int Passed();
};

// Heap blocks that calls made through the wrapped functions hold at this moment.
long HeldBlocks();

// Open descriptors of this process.
int HeldFds();

// Capture for bodies that run with a fault ahead: only calls of `body` count and fail, not those
// that capturing takes.
std::string CaptureUnderFault(const std::function<void()> &body);

// Runs `body` again and again, each time in a forked child of its own with the next call made to
// fail with `error`, until it runs through without meeting one. A run fails the test when it
// crashes, takes over 20 seconds, fails an assertion of its own, or does not release a descriptor
// or a heap block. Returns the number of calls that were made to fail.
int EveryCallFails(int error, const std::function<void()> &body);

}  // namespace talvek::test

#endif
