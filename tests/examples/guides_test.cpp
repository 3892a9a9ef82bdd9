// The programs of the guides: each is taken out of its page, built with the command that the page
// shows, and gives the output that the page shows.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>

#include "run_example.h"
#include "support/command.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

// The text of the first block that begins with this fence and these characters.
std::string Block(const std::string &page, const std::string &fence, const std::string &start) {
    const size_t begin = page.find("\n" + fence + "\n" + start);
    if (begin == std::string::npos) {
        ADD_FAILURE() << "no block " << fence << " with " << start;
        return "";
    }
    const size_t from = begin + fence.size() + 2;
    return page.substr(from, page.find("\n```", from) + 1 - from);
}

// A folder in which the paths of a page lead to this tree and this build.
void LinkTree(const TempDir &folder) {
    for (const char *room : {"common", "dev", "dns", "service"}) {
        std::filesystem::create_directory_symlink(TALVEK_SOURCE_DIR + ("/" + std::string{room}),
                                                  folder / room);
    }
    std::filesystem::create_directory(folder / "build");
    for (const char *file : {"talvek", "libtalvek_common.a", "libtalvek_dev.a", "libtalvek_dns.a",
                             "libtalvek_service.a"}) {
        std::filesystem::create_symlink(TALVEK_BINARY_DIR + ("/" + std::string{file}),
                                        folder / ("build/" + std::string{file}));
    }
}

// The log's lines, "COMMON,406:...", without the source line, which changes.
std::string WithoutLineNumbers(const std::string &text) {
    return std::regex_replace(text, std::regex{"([A-Z]+),[0-9]+:"}, "$1:");
}

void TestGuide(const std::string &module) {
    const std::string page = ReadFile(TALVEK_SOURCE_DIR "/docs/guides/" + module + ".md");
    // The lines that begin with "$ " are commands, the others what they print.
    const std::string shown = Block(page, "```", "$ cc ");
    std::string script = "set -e\n";
    std::string expected;
    std::istringstream lines{shown};
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("$ ", 0) != 0) {
            expected += line + "\n";
        } else if (line.find(" ./") != std::string::npos) {
            // The exit status of the program is its own matter.
            script += line.substr(2) + " || :\n";
        } else {
            script += line.substr(2) + "\n";
        }
        if (line.find("talvek -D -s ") != std::string::npos) {
            // Nobody types so fast that the daemon does not listen yet (flag __SO_ACCEPTCON).
            script +=
                "until grep -q ' 00010000 .* build/ask.sock$' /proc/net/unix; do sleep 0.1; done\n";
        }
    }
    const size_t source = shown.find("cc -I. ") + 7;
    RunInPrivateWorld(kMounts | kPids, [&] {
        const TempDir folder;
        LinkTree(folder);
        WriteFile(folder / shown.substr(source, shown.find(' ', source) - source),
                  Block(page, "```c", "#include"));
        WriteFile(folder / "script", script);
        // The daemon keeps standard error, so it is no pipe that is read to its end.
        const Ended run = RunShell("cd " + folder.path() + " && sh ./script 2>errors");
        EXPECT_EQ(0, run.status) << script << ReadFile(folder / "errors");
        EXPECT_EQ(WithoutLineNumbers(expected), WithoutLineNumbers(run.output));
    });
}

class Guide : public ::testing::TestWithParam<const char *> {};

TEST_P(Guide, GivesWhatItShows) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the archives need the sanitizer's runtime";
#endif
    if (Foreign() || !HasCommand("cc")) {
        GTEST_SKIP() << "no compiler here for the processor of the archives";
    }
    TestGuide(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Modules, Guide, ::testing::Values("service", "common", "dev", "dns"),
                         [](const auto &guide) { return std::string{guide.param}; });

}  // namespace
