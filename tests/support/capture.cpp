#include "support/capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <regex>
#include <sstream>

namespace talvek::test {
namespace {

std::string Written(int fd) {
    std::string text;
    char block[4096];
    ssize_t count;
    while ((count = pread(fd, block, sizeof block, static_cast<off_t>(text.size()))) > 0) {
        text.append(block, static_cast<size_t>(count));
    }
    return text;
}

std::string CaptureFds(const std::function<void()> &body, bool errors) {
    fflush(nullptr);
    const bool failedBefore = ::testing::Test::HasFailure();
    // Several processes write here at once; a file in memory keeps their order only by O_APPEND.
    const int sink = memfd_create("capture", MFD_CLOEXEC);
    EXPECT_EQ(0, fcntl(sink, F_SETFL, O_APPEND));
    const int savedOut = dup(STDOUT_FILENO);
    const int savedErr = dup(STDERR_FILENO);
    EXPECT_GE(sink, 0);
    dup2(sink, STDOUT_FILENO);
    if (errors) {
        dup2(sink, STDERR_FILENO);
    }
    body();
    fflush(nullptr);
    dup2(savedOut, STDOUT_FILENO);
    dup2(savedErr, STDERR_FILENO);
    close(savedOut);
    close(savedErr);

    const std::string text = Written(sink);
    close(sink);
    // Assertions that failed inside wrote to the stream that was captured.
    if (!failedBefore && ::testing::Test::HasFailure()) {
        fprintf(stderr, "captured before the failure:\n%s\n", text.c_str());
    }
    return text;
}

}  // namespace

std::string Capture(const std::function<void()> &body) {
    return CaptureFds(body, false);
}

std::string CaptureAll(const std::function<void()> &body) {
    return CaptureFds(body, true);
}

std::string CapturedSoFar() {
    return Written(STDOUT_FILENO);
}

std::vector<std::string> LogLines(const std::string &output) {
    static const std::regex prefix{"^(COMMON|DEV|DNS|TALVEK),[0-9]+:"};
    std::vector<std::string> lines;
    std::istringstream in{output};
    for (std::string line; std::getline(in, line);) {
        lines.push_back(std::regex_replace(line, prefix, "$1:"));
    }
    return lines;
}

std::vector<std::string> CaptureLog(const std::function<void()> &body) {
    return LogLines(Capture(body));
}

}  // namespace talvek::test
