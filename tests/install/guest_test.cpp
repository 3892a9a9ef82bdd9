// This tree inside another project: nothing of its settings reaches the host, and the host's win.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

const std::string kHost{TALVEK_SOURCE_DIR "/tests/install/guest"};

void Configure(const TempDir &dir, const std::string &options) {
    RunCommand("cmake -G Ninja -S " + kHost + " -B " + dir.path() +
               " -DTALVEK_TREE=" TALVEK_SOURCE_DIR " " + options);
}

// The lines of the compilation database that compile a file whose path ends so.
std::string Compilations(const TempDir &dir, const std::string &end) {
    std::ifstream in{dir / "compile_commands.json"};
    std::string found;
    for (std::string line; std::getline(in, line);) {
        if (line.find("\"command\"") != std::string::npos &&
            line.find(end + "\"") != std::string::npos) {
            found += line + "\n";
        }
    }
    return found;
}

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST(Guest, IsBuiltForTheHostAndChangesNothingOfIt) {
    const TempDir dir;
    Configure(dir,
              "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DCMAKE_BUILD_TYPE=Debug"
              " -DCMAKE_CXX_FLAGS_DEBUG=-Og -DCMAKE_C_FLAGS_DEBUG=-Og");
    const std::string host = Compilations(dir, "host.c");
    const std::string guest = Compilations(dir, "dns/lookup.cpp");
    ASSERT_TRUE(Has(host, "-Og"));
    for (const char *leak : {" -W", "-D", "-Os", "-O2", "-std=", " -fno-"}) {
        EXPECT_FALSE(Has(host, leak)) << leak << " in " << host;
    }
    EXPECT_TRUE(Has(guest, " -Og ")) << guest;
    for (const char *own : {"-Werror", "-Os", "-O2"}) {
        EXPECT_FALSE(Has(guest, own)) << own << " in " << guest;
    }
    const std::string targets = RunCommand("cmake --build " + dir.path() + " --target help");
    for (const char *own : {"devmenu", "dns_lookup", "talvek:", "_test:", "_musl:"}) {
        EXPECT_FALSE(Has(targets, own)) << own;
    }
    // The host has no install rules, so there is nothing to install.
    EXPECT_FALSE(Has(RunCommand("DESTDIR=" + (dir / "root") + " cmake --install " + dir.path()),
                     "Installing"));

    RunCommand("cmake --build " + dir.path());
    RunCommand(dir / "host");
    EXPECT_EQ(1U, NeededLibraries(dir / "host").size()) << "the C library";

    Configure(dir, "-DBUILD_SHARED_LIBS=ON");
    RunCommand("cmake --build " + dir.path());
    RunCommand(dir / "host");
    EXPECT_EQ("libtalvek_dns.so.1", NeededLibraries(dir / "host")[0]);
}

TEST(Guest, ComesByFetchContent) {
    const TempDir dir;
    Configure(dir, "-DWITH_FETCH_CONTENT=ON");
    const std::string targets = RunCommand("cmake --build " + dir.path() + " --target help");
    EXPECT_TRUE(Has(targets, "talvek_dns:"));
    EXPECT_FALSE(Has(targets, "devmenu"));
}

}  // namespace
