// The init script on the board starts, looks at and stops the service as an init system does, also
// when the Debian package has brought it there.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "board/support/board.h"
#include "common/version.h"
#include "support/command.h"

namespace {

using namespace talvek::test;

// The status with which the script ends (LSB 5.0, 22.2: "status" gives 0 for a running program and
// 3 for one that does not run).
std::string Script(const std::string &shell, const std::string &action) {
    return RunCommand(shell + " /etc/init.d/talvek " + action +
                      " >/dev/null 2>&1 </dev/null; echo $?");
}

// What the daemon at the usual socket is asked.
std::string Asked() {
    return RunCommand("/usr/bin/talvek -C -f 'exit 7' >/dev/null; echo $?");
}

// Installs a file of packaging/ with the folders of an installation below /usr. What is put there
// is gone when the board is switched off.
void Install(const std::string &file, const std::string &path) {
    RunCommand("mkdir -p $(dirname " + path +
               ") && sed 's|@CMAKE_INSTALL_FULL_BINDIR@|/usr/bin|; "
               "s|@CMAKE_INSTALL_FULL_LIBEXECDIR@|/usr/libexec|' " +
               file + " >" + path + " && chmod 755 " + path);
}

TEST(InitScript, StartsAndStopsTheService) {
    NEEDS_EMULATED_BOARD();
    const std::string checkout = BoardVariable("BOARD_CHECKOUT");
    const std::string packaging = checkout + "/packaging";
    if (!std::filesystem::exists(packaging + "/init.d/talvek")) {
        GTEST_SKIP() << "there is no packaging/init.d/talvek";
    }
    Install(packaging + "/init.d/talvek", "/etc/init.d/talvek");
    Install(packaging + "/talvek-listener", "/usr/libexec/talvek-listener");
    RunCommand("install " + checkout + "/build/arm/talvek /usr/bin/talvek");
    for (const std::string shell : {"sh", "busybox sh"}) {
        SCOPED_TRACE(shell);
        EXPECT_EQ("3", Script(shell, "status"));
        EXPECT_EQ("0", Script(shell, "start")) << RunCommand("cat /var/log/talvek.log");
        EXPECT_EQ("0", Script(shell, "status"));
        EXPECT_EQ("7", Asked());
        EXPECT_EQ("0", Script(shell, "start")) << "started twice";
        EXPECT_EQ("7", Asked());
        EXPECT_EQ("0", Script(shell, "restart"));
        EXPECT_EQ("7", Asked());
        EXPECT_EQ("0", Script(shell, "stop"));
        EXPECT_EQ("3", Script(shell, "status"));
        EXPECT_FALSE(std::filesystem::exists("/var/run/TALVEK"));
    }
}

// The board's packages were unpacked, not installed, so dpkg's database is empty: ours needs no
// other.
TEST(InitScript, RunsTheServiceOfTheInstalledPackage) {
    NEEDS_EMULATED_BOARD();
    const std::string package =
        BoardVariable("BOARD_CHECKOUT") + "/build/packages/talvek_" TALVEK_VERSION "_armhf.deb";
    if (!std::filesystem::exists(package)) {
        GTEST_SKIP() << "./do package makes build/packages, which is not there";
    }
    RunCommand("rm -f /usr/bin/talvek /usr/libexec/talvek-listener /etc/init.d/talvek");
    RunCommand("touch /var/lib/dpkg/status && dpkg -i " + package);
    EXPECT_EQ("", RunCommand("dpkg --verify talvek"));
    RunCommand("cp /usr/share/talvek/init.d/talvek /etc/init.d/");
    EXPECT_EQ("0", Script("sh", "start")) << RunCommand("cat /var/log/talvek.log");
    EXPECT_EQ("7", Asked());
    EXPECT_EQ("0", Script("sh", "stop"));
    EXPECT_EQ("3", Script("sh", "status"));
    RunCommand("dpkg --purge talvek && rm /etc/init.d/talvek");
    EXPECT_EQ("", RunCommand("find /usr /lib /etc /var/lib/systemd -name '*talvek*' 2>/dev/null"));
}

}  // namespace
