#ifndef TALVEK_TESTS_SUPPORT_COMMAND_H
#define TALVEK_TESTS_SUPPORT_COMMAND_H

#include <string>
#include <vector>

namespace talvek::test {

// Runs a shell command line with the system tools in its path and returns what it printed, without
// the last newline. The test fails when the command does not end with status 0; what it said on
// standard error is then part of the message.
std::string RunCommand(const std::string &command);

// Whether a command is installed where RunCommand looks for it.
bool HasCommand(const std::string &name);

// The libraries that a dynamic program names, but for the loader. Needs readelf.
std::vector<std::string> NeededLibraries(const std::string &program);

// The value after the first "key": in a JSON text (as `ip -json` prints it), a text without its
// quotes; empty when there is none.
std::string JsonValue(const std::string &json, const std::string &key);

}  // namespace talvek::test

#endif
