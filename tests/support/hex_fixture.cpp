#include "support/hex_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace talvek::test {
namespace {

// Words of a header line: "51", "2=04". Words of the lines after it: "0C", "00*60".
void AddHeaderWord(const std::string &word, HexReply &reply) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
        reply.opcode = static_cast<uint8_t>(std::stoul(word, nullptr, 16));
    } else {
        reply.where[std::stoul(word)] =
            static_cast<uint8_t>(std::stoul(word.substr(equals + 1), nullptr, 16));
    }
}

void AddByteWord(const std::string &word, HexReply &reply) {
    const size_t star = word.find('*');
    EXPECT_EQ(2U, std::min(star, word.size())) << word;
    const size_t count = star == std::string::npos ? 1 : std::stoul(word.substr(star + 1));
    reply.data.insert(reply.data.end(), count,
                      static_cast<uint8_t>(std::stoul(word.substr(0, 2), nullptr, 16)));
}

}  // namespace

std::vector<HexReply> LoadHex(const std::string &fixture) {
    const std::string path = std::string{TALVEK_SOURCE_DIR} + "/tests/dev/fixtures/" + fixture;
    std::ifstream in{path};
    EXPECT_TRUE(in.good()) << path;
    std::vector<HexReply> replies;
    for (std::string line; std::getline(in, line);) {
        line = line.substr(0, line.find('#'));
        const bool header = line.rfind('[', 0) == 0;
        if (header) {
            replies.emplace_back();
            line = line.substr(1, line.find(']') - 1);
        }
        std::istringstream words{line};
        for (std::string word; words >> word;) {
            header ? AddHeaderWord(word, replies.back()) : AddByteWord(word, replies.back());
        }
    }
    return replies;
}

}  // namespace talvek::test
