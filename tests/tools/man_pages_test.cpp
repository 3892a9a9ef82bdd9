// The manual pages of section 3 that tools/docs/man-pages makes from the headers.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>

#include "support/command.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

const std::string kMakePages = "cd " TALVEK_SOURCE_DIR " && tools/docs/man-pages ";

// Each function that the shared libraries export has a page of its name, which leads to the page of
// its topic, and that one names it.
TEST(ManPages, DescribeEveryExportedFunction) {
    if (Emulated() || !HasCommand("nm") || !HasCommand("perl")) {
        GTEST_SKIP() << "needs nm and perl for the processor of the libraries";
    }
    const TempDir pages;
    RunCommand(kMakePages + pages.path());
    int seen = 0;
    for (const char *module : {"common", "dev", "dns", "service"}) {
        const std::string library =
            std::string{TALVEK_BINARY_DIR "/shared/libtalvek_"} + module + ".so";
        if (!std::filesystem::exists(library)) {
            GTEST_SKIP() << "this build has no shared libraries";
        }
        std::istringstream names{
            RunCommand("nm -D --defined-only --format=posix " + library + " | awk '$2 == \"T\"'")};
        for (std::string line; std::getline(names, line);) {
            const std::string name = line.substr(0, line.find_first_of(" @"));
            if (name[0] == '_') {
                continue;  // _COM_RemoveFileInDir_ is on the page of its topic alone
            }
            ++seen;
            const std::string alias = ReadFile(pages / (name + ".3"));
            std::smatch topic;
            ASSERT_TRUE(
                std::regex_match(alias, topic, std::regex{"\\.so man3/(talvek_\\w+\\.3)\n"}))
                << name << ": " << alias;
            const std::string page = ReadFile(pages / topic[1]);
            EXPECT_NE(std::string::npos, page.find("\n.Nm " + name)) << topic[1];
            EXPECT_TRUE(std::regex_search(page, std::regex{"\n\\.Ss [^\n]*\\b" + name + "\\b"}))
                << name << " has no entry in " << topic[1];
        }
    }
    EXPECT_GT(seen, 150);
}

TEST(ManPages, AreWithoutFault) {
    if (!HasCommand("mandoc") || !HasCommand("perl")) {
        GTEST_SKIP() << "needs mandoc and perl";
    }
    const TempDir pages;
    RunCommand(kMakePages + pages.path());
    EXPECT_EQ("", RunCommand("mandoc -T lint -W warning " + pages.path() + "/talvek_*.3 2>&1"));
}

// What an entry says is in the page, in the form of its header.
TEST(ManPages, KeepArgumentsAndCode) {
    if (!HasCommand("perl")) {
        GTEST_SKIP() << "needs perl";
    }
    const TempDir pages;
    RunCommand(kMakePages + pages.path());
    const std::string page = ReadFile(pages / "talvek_dev_mount.3");
    EXPECT_NE(std::string::npos,
              page.find("int Dev_Mount(const char *pSrc, const char *pDir, unsigned fsIndex);"));
    EXPECT_NE(std::string::npos, page.find(".It \"pDir\"\nan existing directory\n"));
    EXPECT_NE(std::string::npos, page.find("struct statfs st;\n"))
        << "indented code stays as it is";
}

}  // namespace
