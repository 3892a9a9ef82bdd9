// What ./do says where it cannot go on: one clear message for each reason.

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

// A checkout that holds what ./do reads before it builds, and a folder of tools in place of the
// system's.
class Do : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root to become another user";
        }
        for (const char *file : {"do", "packages.txt"}) {
            std::filesystem::copy(std::filesystem::path{TALVEK_SOURCE_DIR} / file,
                                  std::filesystem::path{checkout_.path()} / file);
        }
        for (const char *tool : {"awk", "dirname", "find", "id", "mkdir", "sh", "sort"}) {
            for (const char *folder : {"/usr/bin/", "/bin/"}) {
                if (std::filesystem::exists(folder + std::string{tool})) {
                    std::filesystem::create_symlink(folder + std::string{tool}, tools_ / tool);
                    break;
                }
            }
        }
        for (const TempDir *dir : {&checkout_, &tools_}) {
            std::filesystem::permissions(dir->path(), std::filesystem::perms{0755});
        }
    }

    // Makes an empty program, so that the tool counts as installed.
    void AddTool(const std::string &name) {
        WriteFile(tools_ / name, "#!/bin/sh\n");
        std::filesystem::permissions(tools_ / name, std::filesystem::perms{0755});
    }

    // What it prints for a user without rights; it must fail.
    std::string Fails(const std::string &arguments) {
        const std::string command =
            "cd " + checkout_.path() +
            " && setpriv --reuid 65533 --clear-groups env PATH=" + tools_.path() + " ./do " +
            arguments + " 2>&1";
        FILE *pPipe = popen(command.c_str(), "re");
        EXPECT_NE(nullptr, pPipe);
        std::string output;
        char block[1024];
        size_t count;
        while ((count = fread(block, 1, sizeof block, pPipe)) > 0) {
            output.append(block, count);
        }
        EXPECT_EQ(1, WEXITSTATUS(pclose(pPipe))) << output;
        return output;
    }

    TempDir checkout_;
    TempDir tools_;
};

TEST_F(Do, ShowsALineToPasteWithoutRootAndSudo) {
    AddTool("apt-get");
    for (const char *tool : {"cmake", "ninja"}) {
        AddTool(tool);
    }
    const std::string output = Fails("build");
    EXPECT_EQ("Packages are missing. As root, then ./do again:\n",
              output.substr(0, output.find('\n') + 1));
    const std::string line = output.substr(output.find('\n') + 1);
    EXPECT_EQ(0U, line.find("apt-get update && apt-get install --no-install-recommends g++"))
        << line;
    EXPECT_EQ(line.size(), line.find('\n') + 1) << "one line";
}

TEST_F(Do, NamesThePackagesWhereThereIsNoAptGet) {
    const std::string output = Fails("build");
    EXPECT_EQ(0U, output.find("Please install what these Debian packages hold")) << output;
    EXPECT_NE(std::string::npos, output.find(" cmake ")) << output;
}

// From here on everything is installed: the paths in packages.txt that are no commands are taken
// out of the copy.
TEST_F(Do, SaysThatTheBuildFolderIsAnothersOrCannotBeWritten) {
    WriteFile(checkout_ / "packages.txt", "[build]\ncmake\n");
    AddTool("cmake");
    EXPECT_EQ(checkout_.path() + " cannot be written: copy it to where you can write.\n",
              Fails("build"));
    WriteFile(checkout_ / "build/x", "");
    EXPECT_EQ("build belongs to another user: remove build/ or work in a checkout of your own.\n",
              Fails("build"));
}

}  // namespace
