#ifndef TALVEK_TESTS_SUPPORT_CAPTURE_H
#define TALVEK_TESTS_SUPPORT_CAPTURE_H

#include <functional>
#include <string>
#include <vector>

namespace talvek::test {

using Lines = std::vector<std::string>;

// Runs `body` with descriptor 1 on a file in memory and returns what was written there, by this
// process and by its children.
std::string Capture(const std::function<void()> &body);

// The same with descriptors 1 and 2 together.
std::string CaptureAll(const std::function<void()> &body);

// What was written until now, for the body of a capture or another thread meanwhile.
std::string CapturedSoFar();

// A log line without its line number: "COMMON:COM_Mkdir(): text" or "COMMON: text". Lines that do
// not look like one stay as they are.
Lines LogLines(const std::string &output);

// "COMMON:function(): message" lines of what `body` logs, each with its newline cut off.
Lines CaptureLog(const std::function<void()> &body);

}  // namespace talvek::test

#endif
