#!/bin/sh
# The project's commands: ./do help lists them. Each installs the Debian packages that it needs.
set -eu
cd "$(dirname "$0")"

usage() {
    cat <<'EOF'
./do run       build the program, start a daemon in the build folder, send it a few commands
./do build     set up and build the program and the libraries in build/
./do test      set up, build and run all tests
./do sanitize  all tests under AddressSanitizer and UndefinedBehaviorSanitizer
./do thread    the tests of what runs in threads under ThreadSanitizer
./do arm       build for 32-bit ARM and run the test programs under qemu
./do lint      format, static analysis, manual pages
./do bench     measure speed and memory next to other programs
./do coverage  lines and branches that the tests reach
./do clean     remove build/
./do help      this list
EOF
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "root or sudo is needed for: $*" >&2
        return 1
    fi
}

# Packages of the sections named in packages.txt that are not installed yet.
missing_packages() {
    for section in "$@"; do
        sed -n "/^\[$section\]/,/^\[/p" packages.txt | grep -v -e '^\[' -e '^#' -e '^$'
    done | sort -u | while read -r package; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
            echo "$package"
    done
}

# The servers among the packages are there for the tests to start; installing them starts none.
need() {
    packages=$(missing_packages "$@")
    [ -n "$packages" ] || return 0
    echo "Installing:" $packages
    as_root sh -c '
        policy=/usr/sbin/policy-rc.d
        if [ ! -e $policy ]; then
            printf "#!/bin/sh\nexit 101\n" >$policy
            chmod 755 $policy
            trap "rm -f $policy" EXIT INT TERM
        fi
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq &&
            apt-get install -y -qq --no-install-recommends "$@" >/dev/null' sh $packages
}

build() {
    need build
    cmake --preset default >/dev/null
    cmake --build --preset default
}

run() {
    build
    # A path relative to here fits the address of a socket wherever the checkout lies.
    socket=build/talvek.sock
    log=build/talvek.log
    echo
    echo "\$ build/talvek -D -s $socket"
    build/talvek -D -s $socket >$log 2>&1
    daemon=$(sed -n 's/.*Master\[[0-9]*\] is leaving.*\[\([0-9]*\)\]$/\1/p' $log)
    trap 'kill "$daemon" 2>/dev/null || :' EXIT
    trap 'exit 1' INT TERM
    tries=0
    # The file is there a moment before the socket listens (flag 00010000, __SO_ACCEPTCON).
    until [ -S $socket ] && grep -q " 00010000 .* $socket\$" /proc/net/unix; do
        tries=$((tries + 1))
        [ $tries -lt 50 ] || { echo "the daemon did not start:" >&2; cat $log >&2; exit 1; }
        sleep 0.1
    done

    failed=0
    # Shows and runs a command line that is to end with a status.
    ask() {
        echo "\$ $2"
        status=0
        sh -c "$2" || status=$?
        echo "exit status $status"
        [ "$status" -eq "$1" ] || { echo "expected $1" >&2; failed=1; }
    }
    client="build/talvek -C -s $socket"
    ask 0 "$client -f 'echo this line is printed by the daemon'"
    # Of a large environment only the first 1136 bytes would go over.
    ask 0 "env -i GREETING=hello $client -f 'echo the command sees \$GREETING'"
    ask 7 "$client -f 'exit 7'"
    ask 255 "$client -f 'kill -KILL \$\$'"

    kill "$daemon"
    tries=0
    while [ -S $socket ] && [ $tries -lt 50 ]; do
        tries=$((tries + 1))
        sleep 0.1
    done
    trap - EXIT INT TERM
    echo
    echo "The daemon's log:"
    sed 's/^/    /' $log
    echo
    [ $failed -eq 0 ] || exit 1
    echo "From here: 'build/talvek -D -s $socket' starts the daemon, '$client -f \"<command>\"' has it run a command; man -l docs/talvek.8 tells the rest."
}

run_tests() {
    preset=$1
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    shift
    ctest --preset "$preset" -j "$(nproc)" "$@"
}

lint() {
    need build lint
    cmake --preset default >/dev/null
    git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format-14 --dry-run --Werror
    git ls-files 'service/*.cpp' 'common/*.cpp' 'dev/*.cpp' 'dns/*.cpp' |
        xargs -P "$(nproc)" -n 2 clang-tidy-14 -p build --quiet
    for page in docs/*.[1-8]; do
        mandoc -T lint -W warning "$page"
    done
    echo "lint: nothing found"
}

case ${1:-help} in
run) run ;;
build) build ;;
test)
    need build test
    run_tests test
    ;;
sanitize)
    need build test
    run_tests asan
    ;;
thread)
    need build test
    run_tests tsan -L thread
    ;;
arm)
    need build arm
    run_tests arm
    ;;
lint) lint ;;
bench)
    need build bench
    cmake --preset bench >/dev/null
    cmake --build --preset bench
    bench/run
    ;;
coverage)
    need build test coverage
    # Counts of an earlier build belong to other lines.
    [ ! -d build/coverage ] || find build/coverage -name '*.gcda' -delete
    run_tests coverage
    gcovr --root . --object-directory build/coverage --filter '(service|common|dev|dns)/' \
        --exclude-throw-branches --exclude-unreachable-branches --txt
    ;;
clean) rm -rf build ;;
help) usage ;;
*)
    usage >&2
    exit 2
    ;;
esac
