// The init script on BusyBox: in a folder that holds nothing but BusyBox, the program and the
// script, with processes, mounts and sockets of its own.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr const char *kStranger = "root:x:0:0::/:/bin/sh\nstranger:x:1002:1002::/:/bin/sh\n";

// What is installed, in a root of BusyBox.
class InitScript : public ::testing::Test {
  protected:
    InitScript() {
        RunCommand("DESTDIR=" + root_ + " cmake --install " TALVEK_BINARY_DIR);
        RunCommand("cd " + root_ +
                   " && mkdir -p bin proc tmp dev run etc/init.d etc/default var/log && "
                   "chmod 1777 tmp && ln -s ../run var/run && : >dev/null && "
                   "chmod 666 dev/null && "
                   "cp $(command -v busybox) bin/ && "
                   "for name in $(bin/busybox --list); do ln -s busybox bin/$name; done && "
                   "cp $(find . -path '*/init.d/talvek') etc/init.d/");
    }

    // What a script in the root prints, but for the process ids. `after` is a command of this
    // machine, and `last` a second script in the root. The root is a mount, without which BusyBox
    // makes no further mount namespace in it.
    [[nodiscard]] std::string Run(const std::string &script, const std::string &after = "",
                                  const std::string &last = "") const {
        const std::string begin = R"sh(set -eu
PATH=/bin:/usr/bin:/usr/local/bin
init=/etc/init.d/talvek
fail() { echo "failed: $*"; cat /var/log/talvek.log; exit 1; }
status() { code=0; $init status || code=$?; echo "status $code"; }
own_pid() { sed -n 's/.*on your own \[\(.*\)\]/\1/p' "$1"; }
)sh";
        WriteFile(root_ + "/script", begin + script);
        WriteFile(root_ + "/last", begin + last);
        const std::string chroot = "chroot " + root_ + " /bin/sh ";
        return RunCommand("unshare -" + std::string{getuid() == 0 ? "" : "r"} +
                          "mnpf sh -ec 'mount --rbind " + root_ + " " + root_ +
                          "; mount -t proc proc " + root_ + "/proc; " + chroot + "/script; " +
                          after + (after.empty() ? ":" : "; ") +
                          (last.empty() ? "" : chroot + "/last") + "' | sed '/^talvek runs: /d'");
    }

    [[nodiscard]] const std::string &root() const { return root_; }

  private:
    const TempDir dir_;
    const std::string root_ = dir_ / "root";
};

TEST_F(InitScript, StartsAndStopsTheDaemonAndSparesCommands) {
    EXPECT_EQ(
        "talvek does not run\nstatus 3\nthe command ends with 5\nthe next one ends with 6\n"
        "talvek does not run\nstatus 3",
        Run(R"sh(
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
)sh"));
}

TEST_F(InitScript, AdmitsTheGroupThatIsSetUp) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become two other users";
    }
    WriteFile(root() + "/etc/passwd",
              "root:x:0:0::/:/bin/sh\nmember:x:1001:1001::/:/bin/sh\n"
              "stranger:x:1002:1002::/:/bin/sh\n");
    WriteFile(root() + "/etc/group",
              "root:x:0:\nmember:x:1001:\nstranger:x:1002:\ncallers:x:1003:member\n");
    EXPECT_EQ(
        "member 255\nstranger 255\nmember 6\nstranger 255\nsocket srwxrwx--- root callers\n"
        "a file of a command -rw-rw----\nthe log -rw-------",
        Run(R"sh(
ask() {
    code=0
    call="/usr/local/bin/talvek -C -f 'echo >>/tmp/$1; exit 6' >/dev/null"
    su -s /bin/sh "$1" -c "$call" || code=$?
    echo "$1 $code"
}
$init start || fail start
ask member
ask stranger
[ ! -e /tmp/member ] || fail "a member called before the group was set up"
printf 'GROUP=callers\nUMASK=007\n' >/etc/default/talvek
$init restart || fail restart
ask member
ask stranger
[ ! -e /tmp/stranger ] || fail "a stranger called"
echo "socket $(ls -l /var/run/TALVEK | awk '{ print $1, $3, $4 }')"
echo "a file of a command $(ls -l /tmp/member | awk '{ print $1 }')"
echo "the log $(ls -l /var/log/talvek.log | awk '{ print $1 }')"
$init stop || fail stop
)sh"));
}

// A socket's path may hold a newline, and /proc/net/unix shows it as it is: a line that names the
// init script's socket and the inode of a socket that root has. In mounts of one's own the path is
// free.
TEST_F(InitScript, NoOtherUserSaysWhichProcessIsTheDaemon) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    WriteFile(root() + "/etc/passwd", kStranger);
    std::string expected;
    for (const std::string process :
         {"another program", "another program by this name", "a handler", "a client",
          "another daemon", "a stranger's daemon"}) {
        expected += process + "\ntalvek does not run\nstatus 3\na command ends with 6\n" +
                    "talvek does not run\nstatus 3\n";
    }
    expected.pop_back();
    EXPECT_EQ(expected, Run(R"sh(
await() {
    tries=600
    until "$@"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || fail "not within a minute: $*"
        sleep 0.1
    done
}
shown() { grep -q "$1" /proc/net/unix; }
# A process that has just begun opens and closes descriptors while ls reads them.
socket_of() { ls -l "/proc/$1/fd" 2>/dev/null | sed -n 's/.* socket:\[\(.*\)\]$/\1/p' | tail -n 1; }
has_socket() { [ -n "$(socket_of "$1")" ]; }
# spared <text> <pid>: the process is no daemon at the socket and is not ended as one.
spared() {
    echo "$1"
    status
    $init start || fail start
    code=0
    talvek -C -f 'exit 6' >/tmp/client || code=$?
    echo "a command ends with $code"
    $init stop || fail stop
    status
    kill -0 "$2" || fail "$1 was ended"
}
# The stranger's socket pretends that the one of a process of root listens at the usual path.
pretend() {
    await has_socket "$2"
    line="0 0 0 00010000 0 0 $(socket_of "$2") /var/run/TALVEK"
    path="x
$line"
    su stranger -c "cd /tmp && mkdir -p '${path%/*}' && talvek -D -s '$path' >/tmp/pretended"
    await shown "^$line\$"
    spared "$@"
}
syslogd -n -O /tmp/syslog & pretend "another program" $!
ln -s /bin/busybox /tmp/talvek
(exec -a syslogd /tmp/talvek -n -O /tmp/syslog) & pretend "another program by this name" $!

$init start || fail start
mkfifo /tmp/go /tmp/running
talvek -C -f 'echo $PPID >/tmp/running; read line </tmp/go' >/tmp/waiting & client=$!
read -r handler </tmp/running
$init stop || fail stop
pretend "a handler" "$handler"
pretend "a client" $client

talvek -D -s /run/other >/tmp/other
pretend "another daemon" "$(/usr/local/libexec/talvek-listener /run/other 60)"

unshare -m sh -c 'mount -t tmpfs -o mode=777 none /run && exec su stranger -c "talvek -D"' \
    >/tmp/stranger
await shown " 00010000 .* /var/run/TALVEK\$"
spared "a stranger's daemon" "$(own_pid /tmp/stranger)"
)sh"));
}

// Also after the program has been replaced by a later version, and where a user sees no process of
// others.
TEST_F(InitScript, ListenerFindsTheDaemonOfTheCallerAndOfTheSocketsOwner) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    WriteFile(root() + "/etc/passwd", kStranger);
    EXPECT_EQ("", Run(R"sh(
listener=/usr/local/libexec/talvek-listener
mount -o remount,hidepid=2 /proc
su stranger -c "talvek -D -s /tmp/own >/tmp/log"
cp /usr/local/bin/talvek /usr/local/bin/later
mv /usr/local/bin/later /usr/local/bin/talvek
pid=$(own_pid /tmp/log)
[ "$($listener /tmp/own 60)" = "$pid" ] || fail "not found by root"
[ "$(su stranger -c "$listener /tmp/own")" = "$pid" ] || fail "not found by its user"
$init start || fail start
chown stranger /var/run/TALVEK
$init status || fail "not found at a socket that was given away"
rm /var/run/TALVEK
$init status || fail "not found without its socket's file"
$init stop || fail stop
)sh"));
}

// A later daemon takes the path. The kernel lists both sockets with it; one that listens has the
// flag 00010000.
TEST_F(InitScript, ListenerFindsTheDaemonThatWasStartedLast) {
    EXPECT_EQ("", Run(R"sh(
listener=/usr/local/libexec/talvek-listener
talvek -D >/tmp/0
$listener /var/run/TALVEK 60 >/dev/null || fail "the first daemon"
for i in 1 2 3 4 5 6; do
    talvek -D >/tmp/$i
    last=$(own_pid /tmp/$i)
    tries=600
    until [ "$(grep -c ' 00010000 .* /var/run/TALVEK$' /proc/net/unix)" = $((i + 1)) ]; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || fail "daemon $i does not listen"
        sleep 0.1
    done
    found=$($listener /var/run/TALVEK)
    [ "$found" = "$last" ] || fail "$found found, not $last"
done
)sh"));
}

// Not less, and where sleep takes no fractions, with no more pauses of a second than seconds.
TEST_F(InitScript, ListenerWaitsForSoManySeconds) {
    EXPECT_EQ("status 1", Run(R"sh(
: >/tmp/pauses
seconds() { cut -d . -f 1 /proc/uptime; }
begin=$(seconds)
code=0
(
    sleep() {
        [ "$1" = 1 ] || return 1
        echo >>/tmp/pauses
        busybox sleep 1
    }
    set -- /run/nobody 3
    . /usr/local/libexec/talvek-listener
) || code=$?
echo "status $code"
[ $(($(seconds) - begin)) -ge 3 ] || fail "it did not wait"
pauses=$(wc -l </tmp/pauses)
[ "$pauses" -le 3 ] || fail "$pauses pauses"
)sh"));
}

TEST_F(InitScript, ItsLogIsRotatedUnderTheDaemon) {
    const std::string log = root() + "/var/log/talvek.log";
    const std::string rules = root() + "/rules";
    RunCommand("sed 's|^/var/log/|" + root() + "/var/log/|' $(find " + root() +
               " -path '*/logrotate.d/talvek') >" + rules);
    EXPECT_EQ("", Run(R"sh(
$init start || fail start
talvek -C -f 'exit 6 # earlier' >/dev/null || :
)sh",
                      "logrotate --force --state " + root() + "/state " + rules,
                      R"sh(
talvek -C -f 'exit 6 # later' >/dev/null || :
$init stop || fail stop
)sh"));
    const std::string earlier = RunCommand("zcat " + log + ".1.gz");
    EXPECT_NE(std::string::npos, earlier.find("Command => [exit 6 # earlier]")) << earlier;
    // Without a gap at its beginning: the daemon appends.
    const std::string later = ReadFile(log);
    EXPECT_EQ(0U, later.find("TALVEK")) << later;
    EXPECT_NE(std::string::npos, later.find("Command => [exit 6 # later]")) << later;
    EXPECT_EQ(std::string::npos, later.find("earlier")) << later;
}

}  // namespace
