#ifndef TALVEK_TESTS_SUPPORT_EMULATOR_H
#define TALVEK_TESTS_SUPPORT_EMULATOR_H

#include <string>
#include <vector>

// A test program for another processor may run on that processor or under a user-mode emulator.

namespace talvek::test {

// Whether this process runs under an emulator.
bool Emulated();

// Whether this process is for another processor than the machine's own programs, its compilers and
// interpreters among them: under an emulator, and as a 32-bit program of a 64-bit machine.
bool Foreign();

// The words that go before a program of this build to run it: the emulator and its options when
// this process runs under one, else nothing.
const std::vector<std::string> &Launcher();

// The same for a shell command line, with a blank after each word.
std::string LauncherText();

}  // namespace talvek::test

#endif
