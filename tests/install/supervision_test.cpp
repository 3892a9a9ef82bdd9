// The init script on BusyBox: in a folder that holds nothing but BusyBox, the program and the
// script, with processes, mounts and sockets of its own.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

TEST(InitScript, StartsAndStopsTheDaemonAndSparesCommands) {
    const TempDir dir;
    const std::string root = dir / "root";
    RunCommand("DESTDIR=" + root + " cmake --install " TALVEK_BINARY_DIR);
    RunCommand("cd " + root +
               " && mkdir -p bin proc tmp dev run etc/init.d var/log && "
               "ln -s ../run var/run && : >dev/null && cp $(command -v busybox) bin/ && "
               "for name in $(bin/busybox --list); do ln -s busybox bin/$name; done && "
               "mv $(find . -path '*/init.d/talvek') etc/init.d/");
    WriteFile(root + "/script", R"sh(set -eu
PATH=/bin:/usr/bin:/usr/local/bin
init=/etc/init.d/talvek
fail() { echo "failed: $*"; cat /var/log/talvek.log; exit 1; }
status() { code=0; $init status || code=$?; echo "status $code"; }
status
$init start || fail start
first=$($init status)
$init start | grep -q "runs already" || fail "a second start"
session() { cut -d ' ' -f 6 "/proc/$1/stat"; }
[ "$(session "${first##* }")" != "$(session $$)" ] || fail "the session is the starter's"
mkfifo /tmp/go /tmp/running
code=0
talvek -C -f 'echo >/tmp/running; read line </tmp/go; exit 5' >/tmp/client & client=$!
read -r line </tmp/running
$init restart || fail restart
second=$($init status)
[ "$first" != "$second" ] || fail "the same daemon after a restart"
echo >/tmp/go
wait $client || code=$?
echo "the command ends with $code"
code=0
talvek -C -f 'exit 6' >/tmp/client || code=$?
echo "the next one ends with $code"
$init stop || fail stop
status
[ ! -e /var/run/TALVEK ] || fail "the socket is left"
)sh");
    const std::string output =
        RunCommand("unshare -rmnpf sh -c 'mount -t proc proc " + root + "/proc && exec chroot " +
                   root + " /bin/sh /script' | grep -v 'talvek runs: '");
    EXPECT_EQ(
        "talvek does not run\nstatus 3\nthe command ends with 5\nthe next one ends with 6\n"
        "talvek does not run\nstatus 3",
        output);
}

}  // namespace
