// The init script on the board starts, looks at and stops the service as an init system does.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "board/support/board.h"
#include "support/command.h"

namespace {

using namespace talvek::test;

// The status with which the script ends (LSB 5.0, 22.2: "status" gives 0 for a running program and
// 3 for one that does not run).
int Script(const std::string &path, const std::string &action) {
    return atoi(RunCommand(path + " " + action + " >/dev/null 2>&1 </dev/null; echo $?").c_str());
}

TEST(InitScript, StartsAndStopsTheService) {
    NEEDS_EMULATED_BOARD();
    const std::string checkout = BoardVariable("BOARD_CHECKOUT");
    const std::string script = checkout + "/packaging/init.d/talvek";
    if (!std::filesystem::exists(script)) {
        GTEST_SKIP() << "there is no packaging/init.d/talvek";
    }
    // What is put there is gone when the board is switched off.
    RunCommand("install -D " + script + " /etc/init.d/talvek");
    for (const char *pDir : {"/usr/bin", "/usr/sbin"}) {
        RunCommand("install " + checkout + "/build/arm/talvek " + pDir + "/talvek");
    }
    const std::string installed = "/etc/init.d/talvek";
    EXPECT_EQ(3, Script(installed, "status"));
    EXPECT_EQ(0, Script(installed, "start"));
    EXPECT_EQ(0, Script(installed, "status"));
    EXPECT_EQ("7", RunCommand("talvek -C -f 'exit 7' >/dev/null; echo $?"));
    EXPECT_EQ(0, Script(installed, "start")) << "started twice";
    EXPECT_EQ("7", RunCommand("talvek -C -f 'exit 7' >/dev/null; echo $?"));
    EXPECT_EQ(0, Script(installed, "restart"));
    EXPECT_EQ("7", RunCommand("talvek -C -f 'exit 7' >/dev/null; echo $?"));
    EXPECT_EQ(0, Script(installed, "stop"));
    EXPECT_EQ(3, Script(installed, "status"));
    EXPECT_FALSE(std::filesystem::exists("/var/run/TALVEK"));
}

}  // namespace
