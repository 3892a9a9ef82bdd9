// C programs that use the library as the README says: linked by plain cc, without a C++ runtime.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/command.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

const std::string kSources{TALVEK_SOURCE_DIR};
const std::string kBuild{TALVEK_BINARY_DIR};

struct Module {
    const char *name;
    const char *header;
    const char *call;      // an expression of type int that is 0
    const char *archives;  // in the order of the link line
};

constexpr Module kModules[] = {
    {"common", "common/COMMON.h", "COM_System(\"/bin/true\", NULL)", "common"},
    {"dev", "dev/DEV.h", "Dev_uMount(NULL) + 1", "dev common"},
    {"dns", "dns/DNS.h", "DNS_GetA(\"127.0.0.1\", (tDnsAddrEntry[DNS_MAX_ENTRIES]){{0}}, 1)",
     "dns common"},
    {"service", "service/TALVEK.h", "TALVEK_RunCommand(\"true\")", "service common"},
};

std::string ArchivePaths(const std::string &archives) {
    std::string paths;
    for (size_t at = 0; at < archives.size();) {
        const size_t end = std::min(archives.find(' ', at), archives.size());
        paths += " " + kBuild + "/libtalvek_" + archives.substr(at, end - at) + ".a";
        at = end + 1;
    }
    return paths;
}

// Builds and runs a program with each chief header.
void BuildAndRun(const std::string &compiler, const std::string &libraries) {
    const TempDir dir;
    for (const Module &module : kModules) {
        const std::string source = dir / (std::string{module.name} + ".c");
        const std::string program = dir / module.name;
        WriteFile(source, std::string{"#include <stddef.h>\n#include \""} + module.header +
                              "\"\nint main(void) { return " + module.call + "; }\n");
        RunCommand(compiler + " -std=c11 -Wall -Wextra -Wpedantic -Werror -I " + kSources + " " +
                   source + ArchivePaths(module.archives) + " " + libraries + " -o " + program);
        RunCommand(program);
    }
}

TEST(CProgram, LinksWithTheCLibraryAlone) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the archives need the sanitizer's runtime";
#elif defined(TALVEK_COVERAGE)
    GTEST_SKIP() << "the archives need the runtime of the counters";
#endif
    if (Foreign() || !HasCommand("gcc")) {
        GTEST_SKIP() << "no compiler here for the processor of the archives";
    }
    for (const char *compiler : {"gcc", "clang-14"}) {
        if (!HasCommand(compiler)) {
            ADD_FAILURE() << compiler << " is not installed (packages.txt)";
            continue;
        }
        BuildAndRun(compiler, "-lpthread");
        BuildAndRun(compiler, "-nodefaultlibs -lc -lgcc");
    }
}

// Every public header is complete by itself, in C11 and in C++.
TEST(PublicHeaders, CompileAlone) {
    if (!HasCommand("gcc")) {
        GTEST_SKIP() << "no compiler";
    }
    for (const char *room : {"common", "dev", "dns", "service"}) {
        for (const auto &entry : std::filesystem::directory_iterator{kSources + "/" + room}) {
            if (entry.path().extension() != ".h") {
                continue;
            }
            // A header may hold macros alone, which C does not accept as a whole program.
            const std::string program = "echo 'int main(void);' | ";
            const std::string options =
                " -fsyntax-only -Wall -Wextra -Wpedantic -Werror -include " +
                entry.path().string() + " -";
            RunCommand(program + "gcc -std=c11 -x c" + options);
            RunCommand(program + "g++ -std=c++11 -x c++" + options);
        }
    }
}

// Each of these headers refuses a 32-bit program whose time_t and off_t have 32 bits.
TEST(PublicHeaders, RefuseNarrowTypes) {
    const std::string compiler = "arm-linux-gnueabihf-gcc";
    if (!HasCommand(compiler)) {
        GTEST_SKIP() << "no compiler for 32-bit ARM (./do arm installs it)";
    }
    for (const char *header : {"common/COMMON.h", "common/command.h", "common/system_info.h"}) {
        const std::string compile =
            compiler + " -std=c11 -x c -fsyntax-only " + kSources + "/" + header;
        RunCommand(compile + " -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64");
        EXPECT_NE("", RunCommand(compile + " 2>&1 | grep 'compile with -D_FILE_OFFSET'")) << header;
    }
}

}  // namespace
