// An installation: what is copied where, what the shared libraries export, and programs of a user
// in C and C++ that are linked with it by hand, by pkg-config and by CMake, with both compilers.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "common/version.h"
#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

const std::string kBuild{TALVEK_BINARY_DIR};
const std::string kConsumer{TALVEK_SOURCE_DIR "/tests/install/consumer"};
const char *const kModules[] = {"common", "dev", "dns", "service"};

// The last line of what the user's program prints, after the libraries' log lines.
const std::string kGreeting = std::string{TALVEK_VERSION} + " 1 -1 0 7";

std::string LastLine(const std::string &text) {
    return text.substr(text.rfind('\n') + 1);
}

std::string FileText(const std::string &path) {
    std::ifstream in{path};
    EXPECT_TRUE(in) << path;
    return {std::istreambuf_iterator<char>{in}, {}};
}

std::set<std::string> Words(const std::string &text) {
    std::istringstream in{text};
    return {std::istream_iterator<std::string>{in}, {}};
}

// One installation for all cases.
class Install : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new TempDir;
        RunCommand("cmake --install " + kBuild + " --prefix " + Prefix());
        lib_ = Prefix() + "/" +
               RunCommand("cd " + Prefix() +
                          " && ls -d lib/*/pkgconfig lib*/pkgconfig"
                          " 2>/dev/null | head -n 1");
        lib_.resize(lib_.rfind('/'));
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }

    static std::string Prefix() { return *dir_ / "prefix"; }
    static const std::string &Lib() { return lib_; }
    static std::string Shared(const std::string &module) {
        return lib_ + "/libtalvek_" + module + ".so";
    }
    static std::string PkgConfig(const std::string &arguments) {
        return "$(PKG_CONFIG_PATH=" + lib_ + "/pkgconfig pkg-config " + arguments +
               " talvek-service talvek-dev talvek-dns talvek-common)";
    }

    // Builds the user's program by a command line that takes its source and name, and runs it.
    static void BuildAndRun(const std::string &compiler, const std::string &options,
                            const std::string &libraries) {
        const TempDir dir;
        const std::string program = dir / "consumer";
        RunCommand(compiler + " -Wall -Wextra -Wpedantic -Werror " + options + " " + kConsumer +
                   "/consumer.c -x none " + libraries + " -o " + program);
        EXPECT_EQ(kGreeting, LastLine(RunCommand("LD_LIBRARY_PATH=" + Lib() + " " + program)))
            << compiler << " " << options << " " << libraries;
    }

    static inline TempDir *dir_;
    static inline std::string lib_;
};

constexpr const char *kCompilers[] = {"gcc -std=c11 -x c", "g++ -std=c++11 -x c++",
                                      "clang-14 -std=c11 -x c", "clang++-14 -std=c++11 -x c++"};

TEST_F(Install, CopiesWhatEachPartNeeds) {
    std::string missing;
    const auto expect = [&missing](const std::string &path) {
        if (!std::filesystem::exists(path)) {
            missing += path + "\n";
        }
    };
    for (const char *name :
         {"bin/talvek", "share/man/man8/talvek.8", "share/man/man8/talvek-listener.8",
          "share/man/man3/COM_GetMTU.3", "share/man/man3/talvek_common_net_info.3",
          "libexec/talvek-listener", "lib/systemd/system/talvek.service",
          "share/talvek/init.d/talvek", "share/talvek/logrotate.d/talvek",
          "share/doc/talvek/examples/dns_lookup.c", "share/doc/talvek/examples/facts.h",
          "share/doc/talvek/examples/net_facts.py", "include/talvek/common/COMMON.h",
          "include/talvek/dev/DEV.h", "include/talvek/dns/DNS.h",
          "include/talvek/service/TALVEK.h"}) {
        expect(Prefix() + "/" + name);
    }
    for (const std::string module : kModules) {
        expect(Shared(module));
        expect(Shared(module) + "." + std::to_string(TALVEK_VERSION_MAJOR));
        expect(Shared(module) + "." + TALVEK_VERSION);
        expect(Lib() + "/libtalvek_" + module + ".a");
        expect(Lib() + "/pkgconfig/talvek-" + module + ".pc");
    }
    expect(Lib() + "/cmake/talvek/talvekConfig.cmake");
    EXPECT_EQ("", missing);
    EXPECT_EQ("", RunCommand("cd " + Prefix() +
                             "/include && find . -type d -name internal -o -name base"));
    // Without the uninstalled files' paths in them.
    EXPECT_EQ("", RunCommand("! grep -rlI -e " TALVEK_SOURCE_DIR " " + Prefix()));
}

TEST_F(Install, PutsAllFilesBelowDestdir) {
    const TempDir dir;
    RunCommand("DESTDIR=" + dir.path() + " cmake --install " + kBuild + " --prefix /opt/talvek");
    EXPECT_EQ("opt", RunCommand("ls " + dir.path()));
    EXPECT_EQ("talvek", RunCommand("ls " + dir.path() + "/opt"));
    EXPECT_EQ(RunCommand("cd " + Prefix() + " && find . ! -type d | sort"),
              RunCommand("cd " + dir.path() + "/opt/talvek && find . ! -type d | sort"));
    EXPECT_FALSE(std::filesystem::exists("/opt/talvek"));
    // The manifest that CMake leaves in the build folder is what is to be removed.
    RunCommand("cd " + dir.path() + " && sed \"s|^|$PWD|\" " + kBuild +
               "/install_manifest.txt | xargs rm");
    EXPECT_EQ("", RunCommand("find " + dir.path() + " ! -type d"));
}

TEST_F(Install, HasOneVersion) {
    EXPECT_EQ(TALVEK_VERSION, std::to_string(TALVEK_VERSION_MAJOR) + "." +
                                  std::to_string(TALVEK_VERSION_MINOR) + "." +
                                  std::to_string(TALVEK_VERSION_PATCH));
    for (const std::string module : kModules) {
        EXPECT_EQ(TALVEK_VERSION,
                  RunCommand("PKG_CONFIG_PATH=" + Lib() +
                             "/pkgconfig pkg-config --modversion talvek-" + module));
    }
    for (const std::string page : {"talvek", "talvek-listener"}) {
        EXPECT_NE(std::string::npos, FileText(Prefix() + "/share/man/man8/" + page + ".8")
                                         .find("\n.Os talvek " TALVEK_VERSION "\n"))
            << page;
    }
}

// Every exported name is an entry of the module's public headers, and every entry that the archive
// defines is exported.
TEST_F(Install, ExportsThePublicEntriesAlone) {
    for (const std::string module : kModules) {
        const std::string listed = RunCommand("nm -D --defined-only " + Shared(module) +
                                              " | awk 'NF == 3 { print $3 }' | sort -u");
        const std::set<std::string> exported = Words(listed);
        EXPECT_EQ(exported,
                  Words(RunCommand("nm -g --defined-only " + Lib() + "/libtalvek_" + module +
                                   ".a | awk 'NF == 3 { print $3 }' | grep -v ^_Z | sort -u")))
            << module;
        EXPECT_GE(exported.size(), 10U) << module;
        const std::string headers =
            RunCommand("cat " + Prefix() + "/include/talvek/" + module + "/*.h");
        for (const std::string &name : exported) {
            EXPECT_TRUE(std::regex_search(headers, std::regex{"\\b" + name + "[(\\[]"}))
                << name << " is exported by " << module << " and in no header";
        }
    }
}

TEST_F(Install, SharedLibrariesNeedTheCLibraryAlone) {
    const std::string major = ".so." + std::to_string(TALVEK_VERSION_MAJOR);
    for (const std::string module : kModules) {
        for (const std::string &needed : NeededLibraries(Shared(module))) {
            EXPECT_TRUE(needed == "libc.so.6" ||
                        (module != "common" && needed == "libtalvek_common" + major))
                << module << " needs " << needed;
        }
        EXPECT_NE("", RunCommand("readelf -d " + Shared(module) + " | grep 'soname: .libtalvek_" +
                                 module + major + "]'"));
        EXPECT_NE("", RunCommand("readelf -d " + Shared(module) +
                                 " | grep 'runpath: .$ORIGIN]'"
                                 " || test " +
                                 module + " = common && echo none needed"));
    }
}

TEST_F(Install, LinksByHand) {
    const std::string modules = " -ltalvek_service -ltalvek_dev -ltalvek_dns -ltalvek_common";
    for (const char *compiler : kCompilers) {
        const std::string include = "-I " + Prefix() + "/include";
        BuildAndRun(compiler, include, "-L " + Lib() + modules);
        BuildAndRun(compiler, include, "-static -L " + Lib() + modules + " -pthread");
    }
}

TEST_F(Install, LinksByPkgConfig) {
    for (const char *compiler : kCompilers) {
        BuildAndRun(compiler, PkgConfig("--cflags"), PkgConfig("--libs"));
        BuildAndRun(compiler, PkgConfig("--cflags"), "-static " + PkgConfig("--static --libs"));
    }
}

TEST_F(Install, LinksByFindPackage) {
    for (const std::string compiler : {"gcc", "clang-14"}) {
        const bool gcc = compiler == "gcc";
        for (const std::string language : {"C", "CXX"}) {
            const std::string command = language == "C" ? compiler : gcc ? "g++" : "clang++-14";
            for (const std::string kind : {"OFF", "ON"}) {
                const TempDir dir;
                RunCommand("cmake -G Ninja -S " + kConsumer + " -B " + dir.path() +
                           " -DLANGUAGE=" + language + " -DCMAKE_" + language +
                           "_COMPILER=" + command + " -DCMAKE_PREFIX_PATH=" + Prefix() +
                           " -Dtalvek_USE_STATIC_LIBS=" + kind + " && cmake --build " + dir.path());
                const std::string program = dir / "consumer";
                EXPECT_EQ(kGreeting, LastLine(RunCommand(program)));
                if (language == "C") {
                    const size_t libraries = NeededLibraries(program).size();
                    EXPECT_EQ(kind == "ON" ? 1U : 5U, libraries) << "libc.so.6 and ours";
                }
            }
        }
    }
}

TEST_F(Install, ExamplesCompileWithTheInstalledHeaders) {
    RunCommand("cd " + Prefix() +
               "/share/doc/talvek/examples && for source in *.c; do "
               "[ $source = facts.c ] || gcc -std=c11 -D_GNU_SOURCE -I " +
               Prefix() + "/include $source facts.c -L " + Lib() +
               " -ltalvek_service -ltalvek_dev -ltalvek_dns -ltalvek_common -o example || exit; "
               "done");
}

// A plug-in, for example.
TEST_F(Install, ArchivesFitIntoASharedObject) {
    const TempDir dir;
    for (const char *compiler : {"gcc", "clang-14"}) {
        RunCommand(std::string{compiler} + " -shared -o " + (dir / "plugin.so") +
                   " -Wl,-z,defs,-z,text,--whole-archive " + Lib() + "/libtalvek_service.a " +
                   Lib() + "/libtalvek_dev.a " + Lib() + "/libtalvek_dns.a " + Lib() +
                   "/libtalvek_common.a -Wl,--no-whole-archive");
        EXPECT_EQ(1U, NeededLibraries(dir / "plugin.so").size()) << compiler;
    }
}

}  // namespace
