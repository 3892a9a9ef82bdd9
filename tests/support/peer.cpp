#include "support/peer.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

namespace talvek::test {

std::string RunPeer(const std::string &command) {
    FILE *pipe = popen((command + " 2>&1").c_str(), "re");
    if (pipe == nullptr) {
        return "";
    }
    std::string text;
    char block[4096];
    size_t count;
    while ((count = fread(block, 1, sizeof block, pipe)) > 0) {
        text.append(block, count);
    }
    const int status = pclose(pipe);
    constexpr int kNotFound = 127;
    return WIFEXITED(status) && WEXITSTATUS(status) == kNotFound ? "" : text;
}

std::string HexText(const std::vector<uint8_t> &bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[4];
        snprintf(hex, sizeof hex, "%02x", byte);
        text += (text.empty() ? "" : " ") + std::string{hex};
    }
    return text;
}

void WriteHex(const std::string &path, const std::vector<uint8_t> &bytes) {
    FILE *out = fopen(path.c_str(), "we");
    ASSERT_NE(nullptr, out) << path;
    for (size_t i = 0; i < bytes.size(); ++i) {
        fprintf(out, "%02x%c", bytes[i], i % 16 == 15 ? '\n' : ' ');
    }
    fclose(out);
}

}  // namespace talvek::test
