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
./do i686      the tests as 32-bit x86 programs, which run without an emulator
./do unsigned-char
               the tests with a char that is unsigned (-funsigned-char)
./do compilers [builds]: with clang, other flags and other processors (tools/compilers)
./do abi       [record]: compare the shared libraries with the recorded interface (tools/abi)
./do package   [architectures]: Debian packages, and archives of the program (tools/package)
./do package-test  make the packages and test them: contents, a second build, installation and
               upgrade on a Debian of their own (packaging/test/run)
./do board     [programs | shell | times]: the test programs on a 32-bit ARM Linux in an emulator
               (docs/board.md)
./do faults    [expression]: every call of the C library fails in turn, in all scenarios or those
               that match
./do mutants   [count] [files] [sample]: which changes of the source the tests notice
./do coverage  lines and branches that the tests reach, and the aims
./do lint      format, static analysis, manual pages, spelling, phrases
./do analyse   more static analysis, of tests, benchmarks and fuzz targets too
./do torture   what hostile peers and commands do to the daemon, in large crowds
./do soak      [minutes [commands]]: calls and kills without a pause; the daemon must not grow
./do valgrind  [programs]: the test programs under memcheck, those with threads under helgrind
./do fuzz      [seconds] [targets]: hostile bytes for everything that reads bytes from outside;
               "long" in place of the seconds takes hours
./do words     phrases that make a reader stop, in the tree or in the files named
./do docs      the documents as a site in build/docs/site; a browser without a window checks it
./do bench     [programs]: speed and memory next to other programs (docs/performance.md)
./do clean     remove build/
./do help      this list

docs/reliability.md says more about faults, mutants, coverage, torture, soak, valgrind and fuzz.

test, sanitize, thread, arm, i686, unsigned-char and coverage take the test programs to build and
run as a regular expression, and after it the cases as a GoogleTest filter:
    ./do test common_            everything of common/
    ./do test service_handler 'Handler.Serves*'
tests/common/file_test.cpp is the program common_file_test.
EOF
}

fail() {
    echo "$*" >&2
    exit 1
}

# Servers and administrators' tools lie there, outside the path of an ordinary user.
export PATH="$PATH:/usr/sbin:/sbin"

# Whether a command, or a file that matches a pattern beginning with "/", is there.
is_there() {
    case $1 in
    /*)
        for file in $1; do
            [ ! -e "$file" ] || return 0
        done
        return 1
        ;;
    *) command -v "$1" >/dev/null ;;
    esac
}

# The packages of the sections $1 of packages.txt that are not there; of a section that belongs to
# test programs only when one of them is in $2.
missing_packages() {
    awk -v sections="$1" -v programs="$2" '
        BEGIN {
            split(sections, list)
            for (i in list) wanted[list[i]] = 1
            count = split(programs, program)
        }
        /^\[/ {
            gsub(/[][]/, "")
            use = NF == 1 && ($1 in wanted)
            if ($1 in wanted)
                for (i = 2; i <= NF; i++)
                    for (k = 1; k <= count; k++)
                        if (index(program[k], $i "_") == 1) use = 1
            next
        }
        use && NF > 0 && !/^#/ { print $1, (NF > 1 ? $2 : $1) }' packages.txt |
        while read -r package mark; do
            is_there "$mark" || echo "$package"
        done | sort -u
}

# need "<sections>" ["<test programs>"] installs what is missing.
need() {
    set -- $(missing_packages "$1" "${2:-}")
    [ $# -gt 0 ] || return 0
    command -v apt-get >/dev/null ||
        fail "Please install what these Debian packages hold; there is no apt-get here: $*"
    if [ "$(id -u)" -eq 0 ]; then
        as_root=
    elif command -v sudo >/dev/null; then
        as_root=sudo
    else
        fail "Packages are missing. As root, then $0 again:
apt-get update && apt-get install --no-install-recommends $*"
    fi
    echo "Installing: $*"
    # The tests start the servers among the packages themselves; installing them starts none.
    $as_root sh -c '
        policy=/usr/sbin/policy-rc.d
        if [ ! -e $policy ]; then
            printf "#!/bin/sh\nexit 101\n" >$policy
            chmod 755 $policy
            trap "rm -f $policy" EXIT INT TERM
        fi
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq &&
            apt-get install -y -qq --no-install-recommends "$@" >/dev/null' sh "$@" ||
        fail "The packages could not be installed; as root: apt-get install --no-install-recommends $*"
}

# Makes build/ and says so when nothing can be written there.
writable() {
    mkdir build 2>/dev/null || :
    if [ "$(id -u)" -ne 0 ] && [ -d build ]; then
        foreign=$(find build ! -user "$(id -u)" -print -quit)
        [ -z "$foreign" ] ||
            fail "$foreign belongs to another user: remove build/ or work in a checkout of your own."
    fi
    [ -w build ] || fail "$PWD cannot be written: copy it to where you can write."
}

# Sets up build/ for a preset.
configure() {
    writable
    cmake --preset "$1" >/dev/null
}

# compile <preset> [<target>...]: the progress is one line of a terminal, or nothing.
compile() {
    preset=$1
    shift
    if [ -t 1 ]; then
        cmake --build --preset "$preset" ${1:+--target "$@"}
    else
        cmake --build --preset "$preset" ${1:+--target "$@"} -- --quiet
    fi
}

build() {
    need build
    configure default
    compile default
}

run() {
    build
    # A path relative to here fits the address of a socket wherever the checkout lies.
    socket=build/talvek.sock
    log=build/talvek.log
    echo
    echo "\$ build/talvek -D -s $socket"
    # The daemon removes the socket of an earlier one, and logs a failed stat where there is none.
    [ -e $socket ] || : >$socket
    build/talvek -D -s $socket >$log 2>&1
    daemon=$(sed -n 's/.*Master\[[0-9]*\] is leaving.*\[\([0-9]*\)\]$/\1/p' $log)
    trap 'kill "$daemon" 2>/dev/null || :' EXIT
    trap 'exit 1' INT TERM
    tries=0
    # The file is there a moment before the socket listens (flag 00010000, __SO_ACCEPTCON).
    until [ -S $socket ] && grep -q " 00010000 .* $socket\$" /proc/net/unix; do
        tries=$((tries + 1))
        [ $tries -lt 600 ] && kill -0 "$daemon" 2>/dev/null ||
            { echo "the daemon did not start:" >&2; cat $log >&2; exit 1; }
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
    # Of a large environment only the first 1136 bytes would be sent.
    ask 0 "env -i GREETING=hello $client -f 'echo the command sees \$GREETING'"
    ask 7 "$client -f 'exit 7'"
    ask 255 "$client -f 'kill -KILL \$\$'"

    kill "$daemon"
    tries=0
    while [ -S $socket ] && [ $tries -lt 600 ]; do
        tries=$((tries + 1))
        sleep 0.1
    done
    trap - EXIT INT TERM
    echo
    echo "The daemon's log:"
    sed 's/^/    /' $log
    echo
    [ $failed -eq 0 ] || exit 1
    echo "From here: 'build/talvek -D -s $socket' starts the daemon, '$client -f \"<command>\"' has it run a command; man -l docs/talvek.8 is the manual page."
}

test_programs() {
    find tests -name '*_test.cpp' | sed 's|^tests/\(.*\)/\(.*\)\.cpp$|\1_\2|'
}

# run_tests <preset> "<sections>" [<programs> [<cases>]]
run_tests() {
    preset=$1
    filter=${3:-}
    if [ -n "${4:-}" ]; then
        export GTEST_FILTER="$4"
    fi
    need "$2" "$(test_programs | grep -E -e "$filter" || :)"
    # The C library of the static program.
    case $preset in
    arm) writable && cmake/fetch-deb armhf build/arm/debs musl-dev ;;
    i686) writable && cmake/fetch-deb i386 build/i686/debs musl-dev ;;
    esac
    configure "$preset"
    programs=
    if [ -n "$filter" ]; then
        programs=$(ctest --preset "$preset" -N -R "$filter" |
            sed -n 's/\.valgrind$//; s/\.dynamic$//; s/^ *Test *#[0-9]*: //p' | sort -u)
        [ -n "$programs" ] || fail "No test program matches \"$filter\"."
    fi
    compile "$preset" $programs
    folder=build
    [ "$preset" = test ] || folder=build/$preset
    echo "Running the test programs in $folder/tests"
    {
        failed=0
        ctest --preset "$preset" ${filter:+-R "$filter"} -j "$(nproc)" --no-label-summary || failed=1
        echo $failed >$folder/ctest.failed
    } 2>&1 | tests/report $folder/Testing/Temporary/LastTest.log
    read -r failed <$folder/ctest.failed
    [ "$failed" -eq 0 ] || exit 1
}

# Failing calls take ways that the tests do not, so their scenarios count too.
coverage() {
    # Counts of an earlier build belong to other lines.
    [ ! -d build/coverage ] || find build/coverage -name '*.gcda' -delete
    run_tests coverage "build test coverage" "$@"
    if [ -n "$1" ]; then
        tools/coverage part
        return
    fi
    compile coverage faults
    build/coverage/tests/faults/faults .
    tools/coverage
}

# Source files of the folders that are ours, whether or not git is here.
sources() {
    find base bench common dev dns examples fuzz service tests "$@"
}

# Every name of the C library that the library imports is in calls.def or excused.txt.
check_imports() {
    nm -u build/faults/tests/faults/lib*_renamed.a | sed -n 's/^ *[Uw] //p' | sort -u |
        grep -vE '^(__wrap_|_Z|_?COM_|Dev_|DNS_|TALVEK_|__tsan_init$)' >build/faults/imports.txt || :
    grep -v '^#' tests/faults/excused.txt | tr ' ' '\n' | sort -u >build/faults/excused.txt
    missing=$(comm -23 build/faults/imports.txt build/faults/excused.txt)
    [ -z "$missing" ] || fail "Neither in calls.def nor in excused.txt of tests/faults:" $missing
}

faults() {
    need "build test"
    configure faults
    compile faults faults
    check_imports
    build/faults/tests/faults/faults "$@"
}

lint() {
    need "build lint"
    configure default
    sources -name '*.h' -o -name '*.cpp' -o -name '*.c' | xargs clang-format-14 --dry-run --Werror
    # The formatter does not wrap comments, because it would join the items of a list.
    sources -name '*.h' -o -name '*.cpp' -o -name '*.c' |
        xargs awk 'length > 100 { print FILENAME ":" FNR ": more than 100 characters"; bad = 1 } END { exit bad }'
    find base common dev dns service -name '*.cpp' |
        xargs -P "$(nproc)" -n 2 sh -c 'found=$(clang-tidy-14 -p build --quiet "$@" 2>&1) ||
            { echo "$found"; exit 1; }' sh
    # It reads no header of the C library. Reports that are wrong are in tools/lint/cppcheck.txt.
    cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability -j "$(nproc)" \
        --language=c++ --std=c++20 -D_GNU_SOURCE -D__BYTE_ORDER__=1234 \
        -D__ORDER_LITTLE_ENDIAN__=1234 -D'timercmp(a,b,op)=((a)->tv_sec op (b)->tv_sec)' \
        --suppressions-list=tools/lint/cppcheck.txt -I. \
        base bench common dev dns examples fuzz service
    # The pages of section 3 are made from the headers when build/ is set up.
    for page in docs/*.[1-8] build/man3/talvek_*.3; do
        mandoc -T lint -W warning "$page"
    done
    codespell --skip './.git*,./build,./fuzz/inputs' --ignore-words tools/lint/codespell-ignore.txt .
    tools/lint/words
    echo "lint: nothing found"
}

# More than lint: the checks of cert and concurrency, the benchmarks, fuzz targets, examples and tests.
# What is left out:
#   cert-err33-c, cert-env33-c    a text that cannot be written to the log has no other place to go;
#                                 running a command line with the shell is what the service does
#   cert-dcl37-c, cert-dcl51-cpp  one public name begins with "_COM_"
#   concurrency-mt-unsafe         names strerror, readdir and the like, which glibc and musl document
#                                 as safe in threads
# and for the benchmarks and targets, which only test the product:
#   cert-err58-cpp                they register themselves before main; an exception there ends the
#                                 program, which is right
#   cert-msc32-c, cert-msc51-cpp  a fixed seed makes a run repeatable
#   cert-err34-c                  sscanf reads what the kernel printed
#   performance-inefficient-vector-operation, clang-analyzer-deadcode.DeadStores,
#   clang-analyzer-cplusplus.NewDeleteLeaks
#                                 the short form; the loop variable of a benchmark; what GoogleTest
#                                 keeps of a registered case
# and for the tests, of which bugprone, cert, concurrency and performance are asked, further
#   bugprone-implicit-widening-of-multiplication-result
#                                 the factors are small constants
#   bugprone-suspicious-missing-comma
#                                 lists of log lines, of which one is longer than a line
#   bugprone-suspicious-memory-comparison, cert-exp42-c, cert-flp37-c
#                                 a record is unchanged when each byte is, padding included
#   performance-inefficient-string-concatenation, performance-no-automatic-move
#                                 the short form; the time of a test is that of its calls
# The board's own tests (tests/board) are compiled for ARM alone, so nothing here has their commands.
# Single reports that are wrong are named with their reason at the line (NOLINT).
analyse() {
    need "build test bench analyse"
    configure analyse
    checks='cert-*,concurrency-*,-cert-err33-c,-cert-env33-c,-cert-dcl37-c,-cert-dcl51-cpp'
    checks="$checks,-concurrency-mt-unsafe"
    find base common dev dns service -name '*.cpp' | tidy -checks="$checks"
    checks="$checks,-cert-err58-cpp,-cert-msc32-c,-cert-msc51-cpp,-cert-err34-c"
    checks="$checks,-performance-inefficient-vector-operation,-clang-analyzer-deadcode.DeadStores"
    checks="$checks,-clang-analyzer-cplusplus.NewDeleteLeaks"
    find bench fuzz examples -name '*.cpp' -o -name '*.c' | tidy -checks="$checks"
    for check in implicit-widening-of-multiplication-result suspicious-missing-comma \
        suspicious-memory-comparison easily-swappable-parameters reserved-identifier branch-clone; do
        checks="$checks,-bugprone-$check"
    done
    checks="$checks,-cert-exp42-c,-cert-flp37-c,-performance-inefficient-string-concatenation"
    checks="$checks,-performance-no-automatic-move,-performance-noexcept-move-constructor"
    checks="-*,bugprone-*,performance-*,$checks"
    # gcc warns of what it finds there; clang's warnings differ.
    find tests -name '*.cpp' | grep -v '^tests/board' |
        tidy -checks="$checks" --extra-arg=-w --header-filter='/(base|common|dev|dns|service|tests)/'
    echo "analyse: nothing found"
}

# tidy <option>...: clang-tidy on the files that standard input lists.
tidy() {
    xargs -P "$(nproc)" -n 2 sh -fc '
        found=$(clang-tidy-14 -p build/analyse --quiet $0 "$@" 2>&1) ||
            { echo "$found"; exit 1; }' "$*"
}

# The documents as a site. A browser opens each page, follows the links and searches.
docs() {
    need docs
    writable
    rm -rf build/docs
    mkdir -p build/docs/man3 build/docs/site
    tools/docs/man-pages build/docs/man3
    tools/docs/site build/docs/man3 build/docs/site
    tools/docs/check build/docs/site
    echo "The site begins at $PWD/build/docs/site/index.html"
}

case ${1:-help} in
run) run ;;
build) build ;;
test) run_tests test "build test" "${2:-}" "${3:-}" ;;
sanitize) run_tests asan "build test" "${2:-}" "${3:-}" ;;
thread) run_tests tsan "build test" "${2:-}" "${3:-}" ;;
arm) run_tests arm "build test arm" "${2:-}" "${3:-}" ;;
i686) run_tests i686 "build test i686" "${2:-}" "${3:-}" ;;
unsigned-char) run_tests unsigned-char "build test" "${2:-}" "${3:-}" ;;
board)
    # With hardware of one's own there is no emulator.
    need "build arm $([ -n "${BOARD_SSH-}" ] || echo board)"
    writable
    cmake/fetch-deb armhf build/arm/debs musl-dev
    configure arm
    compile arm
    shift
    board/run "$@"
    ;;
docs) docs ;;
lint) lint ;;
analyse) analyse ;;
torture)
    export TALVEK_TORTURE=1
    run_tests test "build test" '^service_(torture|load)_test'
    ;;
fuzz)
    need "build fuzz"
    for preset in fuzz $([ "${2-}" != long ] || echo fuzz-long); do
        configure $preset
        compile $preset
    done
    shift
    fuzz/run "$@"
    ;;
soak)
    need "build test"
    configure test
    compile test soak
    shift
    build/tests/soak "$@"
    ;;
valgrind)
    need "build test valgrind" "$(test_programs | grep -E -e "${2:-}" || :)"
    configure test
    shift
    tools/valgrind/run "$@"
    ;;
words)
    shift
    tools/lint/words "$@"
    ;;
bench)
    need "build bench"
    configure bench
    compile bench
    bench/run "${2:-}"
    ;;
compilers)
    need "build compilers"
    shift
    tools/compilers "$@"
    ;;
abi)
    need "build abi"
    writable
    shift
    tools/abi "$@"
    ;;
faults)
    shift
    faults "$@"
    ;;
mutants)
    need "build test mutants" "$(test_programs)"
    configure mutants
    compile mutants
    shift
    tools/mutants/run "$@"
    ;;
package)
    need "build package"
    writable
    shift
    tools/package "$@"
    ;;
package-test)
    need "build package package-test"
    writable
    packaging/test/run
    ;;
coverage) coverage "${2:-}" "${3:-}" ;;
clean) rm -rf build ;;
help) usage ;;
*)
    usage >&2
    exit 2
    ;;
esac
