#include "support/command.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

namespace talvek::test {

std::string RunCommand(const std::string &command) {
    fflush(nullptr);
    const std::string line = "PATH=$PATH:/usr/sbin:/sbin; exec 2>&1; " + command;
    FILE *pipe = popen(line.c_str(), "re");
    if (pipe == nullptr) {
        ADD_FAILURE() << "popen: " << command;
        return "";
    }
    std::string output;
    char block[4096];
    for (size_t size = 0; (size = fread(block, 1, sizeof block, pipe)) > 0;) {
        output.append(block, size);
    }
    const int status = pclose(pipe);
    EXPECT_EQ(0, status) << command << "\n" << output;
    while (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    return output;
}

std::string JsonValue(const std::string &json, const std::string &key) {
    const std::string name = "\"" + key + "\":";
    size_t at = json.find(name);
    if (at == std::string::npos) {
        return "";
    }
    at += name.size();
    if (json[at] == '"') {
        ++at;
        return json.substr(at, json.find('"', at) - at);
    }
    return json.substr(at, json.find_first_of(",}]", at) - at);
}

}  // namespace talvek::test
