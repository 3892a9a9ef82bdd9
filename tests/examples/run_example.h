#ifndef TALVEK_TESTS_EXAMPLES_RUN_EXAMPLE_H
#define TALVEK_TESTS_EXAMPLES_RUN_EXAMPLE_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "support/emulator.h"

// The example programs, run as users run them.

namespace talvek::test {

struct Ended {
    int status = -1;
    std::string output;
};

inline std::string ExamplePath(const std::string &name) {
    return std::string{TALVEK_BINARY_DIR} + "/examples/" + name;
}

// Runs a shell command line and collects its standard output.
inline Ended RunShell(const std::string &command) {
    Ended run;
    FILE *pPipe = popen(command.c_str(), "re");
    if (pPipe == nullptr) {
        return run;
    }
    char block[1024];
    size_t count;
    while ((count = fread(block, 1, sizeof block, pPipe)) > 0) {
        run.output.append(block, count);
    }
    run.status = WEXITSTATUS(pclose(pPipe));
    return run;
}

// An example's status and its standard output, which holds nothing but facts.
inline Ended RunExample(const std::string &name, const std::string &arguments) {
    return RunShell(LauncherText() + ExamplePath(name) + " " + arguments + " 2>/dev/null");
}

// Its status and its standard error.
inline Ended ErrorsOfExample(const std::string &name, const std::string &arguments) {
    return RunShell(LauncherText() + ExamplePath(name) + " " + arguments + " 2>&1 >/dev/null");
}

// What jq reads out of its JSON. The test fails when that is no JSON.
inline std::string JsonOf(const std::string &name, const std::string &arguments,
                          const std::string &filter) {
    const Ended run = RunShell(LauncherText() + ExamplePath(name) + " -j " + arguments +
                               " 2>/dev/null | jq -r -c '" + filter + "'");
    EXPECT_EQ(0, run.status) << name << " -j " << arguments << ": " << run.output;
    return run.output;
}

}  // namespace talvek::test

#endif
