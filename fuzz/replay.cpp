// Runs every stored input of every target once: the seeds of the fuzzers, and what they have found.

#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/support/target.h"

namespace {

using talvek::fuzz::Target;

class Replay : public testing::Test {
  public:
    Replay(const Target &target, std::filesystem::path path)
        : target_(target), path_(std::move(path)) {}

    void TestBody() override {
        std::ifstream file{path_, std::ios::binary};
        ASSERT_TRUE(file.is_open()) << path_;
        const std::string content{std::istreambuf_iterator<char>{file}, {}};
        ASSERT_FALSE(file.bad()) << path_;
        const talvek::fuzz::Block block{
            {reinterpret_cast<const uint8_t *>(content.data()), content.size()}};
        talvek::fuzz::Input in{{block.data(), block.size()}};
        // A finding ends the program; the name of the case is the last line of its output then.
        target_.run(in);
    }

  private:
    const Target &target_;
    std::filesystem::path path_;
};

std::vector<std::filesystem::path> InputsOf(const Target &target) {
    std::vector<std::filesystem::path> paths;
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator{
             std::filesystem::path{TALVEK_INPUTS} / target.name, missing}) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace

TEST(Inputs, ExistForEveryTarget) {
    for (const Target *target = talvek::fuzz::Targets(); target != nullptr; target = target->next) {
        EXPECT_FALSE(InputsOf(*target).empty()) << target->name;
    }
}

int main(int argc, char **argv) {
    for (const Target *target = talvek::fuzz::Targets(); target != nullptr; target = target->next) {
        for (const std::filesystem::path &path : InputsOf(*target)) {
            testing::RegisterTest(target->name, path.filename().c_str(), nullptr, nullptr, __FILE__,
                                  __LINE__, [target, path]() -> Replay * {
                                      return new Replay{*target, path};
                                  });
        }
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
