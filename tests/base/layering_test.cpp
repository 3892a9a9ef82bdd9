// Dependencies between the folders run one way.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

const std::map<std::string, std::set<std::string>> kMayInclude{
    {"base", {"base"}},
    {"common", {"common", "base"}},
    {"dev", {"dev", "common", "base"}},
    {"dns", {"dns", "common", "base"}},
    {"service", {"service", "common", "base"}},
};

TEST(Layering, FoldersIncludeOnlyLowerOnes) {
    const std::regex include{"^\\s*#\\s*include\\s+\"([a-z]+)/.*"};
    int seen = 0;
    for (const auto &[folder, allowed] : kMayInclude) {
        const std::filesystem::path root = std::filesystem::path{TALVEK_SOURCE_DIR} / folder;
        for (const auto &entry : std::filesystem::recursive_directory_iterator{root}) {
            if (!entry.is_regular_file()) {
                continue;
            }
            std::ifstream in{entry.path()};
            std::smatch part;
            for (std::string line; std::getline(in, line);) {
                if (std::regex_match(line, part, include)) {
                    ++seen;
                    EXPECT_TRUE(allowed.contains(part[1])) << entry.path() << ": " << line;
                }
            }
        }
    }
    EXPECT_GT(seen, 10);
}

// Installed public headers have no base/ and internal/ beside them, and include each other relative
// to themselves, so that any prefix works.
TEST(Layering, PublicHeadersIncludeNothingInternal) {
    const std::regex internal{"^\\s*#\\s*include\\s+\"(.*/)?(internal|base)/.*"};
    const std::regex rooted{"^\\s*#\\s*include\\s+\"(common|dev|dns|service)/.*"};
    int seen = 0;
    for (const auto &[folder, allowed] : kMayInclude) {
        const std::filesystem::path root = std::filesystem::path{TALVEK_SOURCE_DIR} / folder;
        for (const auto &entry : std::filesystem::directory_iterator{root}) {
            if (entry.path().extension() != ".h" || folder == "base") {
                continue;
            }
            ++seen;
            std::ifstream in{entry.path()};
            for (std::string line; std::getline(in, line);) {
                EXPECT_FALSE(std::regex_match(line, internal)) << entry.path() << ": " << line;
                EXPECT_FALSE(std::regex_match(line, rooted)) << entry.path() << ": " << line;
            }
        }
    }
    EXPECT_GT(seen, 2);
}

}  // namespace
