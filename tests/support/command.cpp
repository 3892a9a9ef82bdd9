#include "support/command.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <sstream>

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

bool HasCommand(const std::string &name) {
    FILE *pipe =
        popen(("PATH=$PATH:/usr/sbin:/sbin; command -v " + name + " >/dev/null").c_str(), "re");
    return pipe != nullptr && pclose(pipe) == 0;
}

// readelf lists "0x00000001 (NEEDED)  Shared library: [libc.so.6]".
std::vector<std::string> NeededLibraries(const std::string &program) {
    std::vector<std::string> names;
    std::istringstream listing{RunCommand("readelf -d " + program)};
    for (std::string line; std::getline(listing, line);) {
        const size_t begin = line.find('[');
        if (line.find("(NEEDED)") != std::string::npos && line.compare(begin, 4, "[ld-") != 0) {
            names.push_back(line.substr(begin + 1, line.find(']') - begin - 1));
        }
    }
    return names;
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
