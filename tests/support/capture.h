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

// What has been written so far, for a call in the body of a capture or in another thread.
std::string CapturedSoFar();

// The lines of an output, log lines without their line numbers: "COMMON:COM_Mkdir(): text" or
// "COMMON: text". Other lines are unchanged.
Lines LogLines(const std::string &output);

// "COMMON:function(): message" lines of what `body` logs, each with its newline cut off.
Lines CaptureLog(const std::function<void()> &body);

}  // namespace talvek::test

#endif
