// The program's file: what it needs to run and how it is protected.

#include <elf.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "service/support/program.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// The built file's headers; it has the word size of this test.
class ProgramFile {
  public:
    ProgramFile() {
        std::ifstream in{ProgramPath(), std::ios::binary};
        bytes_.assign(std::istreambuf_iterator<char>{in}, {});
        EXPECT_GT(bytes_.size(), sizeof(ElfW(Ehdr))) << ProgramPath();
        const auto header = At<ElfW(Ehdr)>(0);
        type_ = header.e_type;
        EXPECT_EQ(sizeof(ElfW(Phdr)), header.e_phentsize);
        for (unsigned i = 0; i < header.e_phnum; ++i) {
            segments_.push_back(At<ElfW(Phdr)>(header.e_phoff + i * sizeof(ElfW(Phdr))));
        }
    }

    [[nodiscard]] unsigned type() const { return type_; }

    [[nodiscard]] std::vector<ElfW(Phdr)> Segments(unsigned type) const {
        std::vector<ElfW(Phdr)> found;
        std::copy_if(segments_.begin(), segments_.end(), std::back_inserter(found),
                     [type](const ElfW(Phdr) & segment) { return segment.p_type == type; });
        return found;
    }

    // The values of the dynamic section's entries with a tag; strings as their offset.
    [[nodiscard]] std::vector<size_t> Dynamic(long tag) const {
        std::vector<size_t> values;
        for (const ElfW(Phdr) & segment : Segments(PT_DYNAMIC)) {
            for (size_t at = 0; at + sizeof(ElfW(Dyn)) <= segment.p_filesz;
                 at += sizeof(ElfW(Dyn))) {
                const auto entry = At<ElfW(Dyn)>(segment.p_offset + at);
                if (entry.d_tag == tag) {
                    values.push_back(entry.d_un.d_val);
                }
            }
        }
        return values;
    }

    // The names of the shared libraries that it needs.
    [[nodiscard]] std::vector<std::string> Needed() const {
        std::vector<std::string> names;
        for (const size_t offset : Dynamic(DT_NEEDED)) {
            names.emplace_back(bytes_.c_str() + FileOffset(Dynamic(DT_STRTAB).at(0)) + offset);
        }
        return names;
    }

  private:
    template <typename Record>
    [[nodiscard]] Record At(size_t offset) const {
        Record record{};
        if (offset + sizeof record > bytes_.size()) {
            ADD_FAILURE() << "the file ends before " << offset + sizeof record;
            return record;
        }
        memcpy(&record, bytes_.data() + offset, sizeof record);
        return record;
    }
    [[nodiscard]] size_t FileOffset(size_t address) const {
        for (const ElfW(Phdr) & segment : Segments(PT_LOAD)) {
            if (address >= segment.p_vaddr && address < segment.p_vaddr + segment.p_filesz) {
                return address - segment.p_vaddr + segment.p_offset;
            }
        }
        ADD_FAILURE() << "nothing is loaded at " << address;
        return 0;
    }

    std::string bytes_;
    unsigned type_ = 0;
    std::vector<ElfW(Phdr)> segments_;
};

TEST(ProgramFile, StaticOneNeedsNoLoaderAndNoLibrary) {
    if (!StaticProgram()) {
        GTEST_SKIP() << "this build's program is linked dynamically";
    }
    const ProgramFile file;
    EXPECT_TRUE(file.Segments(PT_INTERP).empty());
    EXPECT_TRUE(file.Needed().empty());
}

TEST(ProgramFile, DynamicOneNeedsTheCLibraryAlone) {
    if (StaticProgram()) {
        GTEST_SKIP() << "this build's program is static";
    }
    if (kSanitized) {
        GTEST_SKIP() << "a sanitized program needs the sanitizer's library";
    }
    const ProgramFile file;
    EXPECT_EQ(1U, file.Segments(PT_INTERP).size());
    std::vector<std::string> needed = file.Needed();
    // On ARM the loader is needed too: it has functions that the compiler's output calls.
    needed.erase(std::remove(needed.begin(), needed.end(), "ld-linux-armhf.so.3"), needed.end());
    EXPECT_EQ(std::vector<std::string>{"libc.so.6"}, needed);
}

TEST(ProgramFile, IsPositionIndependentWithoutTextRelocations) {
    const ProgramFile file;
    EXPECT_EQ(unsigned{ET_DYN}, file.type());
    EXPECT_TRUE(file.Dynamic(DT_TEXTREL).empty());
    const std::vector<size_t> flags = file.Dynamic(DT_FLAGS_1);
    ASSERT_EQ(1U, flags.size());
    EXPECT_TRUE(flags[0] & DF_1_PIE);
    EXPECT_TRUE(flags[0] & DF_1_NOW);
}

TEST(ProgramFile, NothingIsWritableAndExecutable) {
    const ProgramFile file;
    for (const ElfW(Phdr) & segment : file.Segments(PT_LOAD)) {
        EXPECT_NE(unsigned{PF_W | PF_X}, segment.p_flags & (PF_W | PF_X));
    }
    const std::vector<ElfW(Phdr)> stack = file.Segments(PT_GNU_STACK);
    ASSERT_EQ(1U, stack.size());
    EXPECT_EQ(0U, stack[0].p_flags & PF_X);
}

// The compiler's guard calls this function when a stack has been overwritten. The program's own
// symbols are stripped, so the libraries that it is made of are read.
TEST(ProgramFile, FunctionsGuardTheirStack) {
    const std::string dir = std::string{TALVEK_BINARY_DIR} + (StaticProgram() ? "/musl" : "");
    for (const char *module : {"common", "dev", "dns", "service"}) {
        const std::string path = dir + "/libtalvek_" + module + ".a";
        std::ifstream in{path, std::ios::binary};
        const std::string library{std::istreambuf_iterator<char>{in}, {}};
        EXPECT_NE(std::string::npos, library.find("__stack_chk_fail")) << path;
    }
}

struct Mapping {
    uint64_t begin;
    uint64_t end;
    std::string rights;
    std::string file;
};

std::vector<Mapping> MappingsOf(pid_t pid) {
    std::vector<Mapping> mappings;
    std::ifstream in{"/proc/" + std::to_string(pid) + "/maps"};
    for (std::string line; std::getline(in, line);) {
        std::istringstream words{line};
        Mapping mapping;
        char dash;
        std::string skipped;
        words >> std::hex >> mapping.begin >> dash >> mapping.end >> mapping.rights >> skipped >>
            skipped >> skipped >> mapping.file;
        mappings.push_back(mapping);
    }
    return mappings;
}

// What the start relocates is read-only from then on: tables of pointers and the addresses of the C
// library's functions.
TEST(ProgramFile, RelocatedTablesAreReadOnlyInTheRunningDaemon) {
    if (Emulated()) {
        GTEST_SKIP() << "/proc shows the emulator's mappings";
    }
    const ProgramFile file;
    const std::vector<ElfW(Phdr)> relro = file.Segments(PT_GNU_RELRO);
    ASSERT_EQ(1U, relro.size());
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    EXPECT_EQ(0U, (relro[0].p_vaddr + relro[0].p_memsz) % page);

    const Daemon daemon;
    const std::vector<Mapping> mappings = MappingsOf(daemon.pid());
    const std::string path = std::filesystem::canonical(ProgramPath());
    const auto first = std::find_if(mappings.begin(), mappings.end(),
                                    [&](const Mapping &mapping) { return mapping.file == path; });
    ASSERT_NE(mappings.end(), first);
    const uint64_t begin = first->begin + relro[0].p_vaddr / page * page;
    const uint64_t end = first->begin + relro[0].p_vaddr + relro[0].p_memsz;
    uint64_t covered = 0;
    for (const Mapping &mapping : mappings) {
        const uint64_t from = std::max(begin, mapping.begin);
        const uint64_t to = std::min(end, mapping.end);
        if (from < to) {
            EXPECT_EQ("r--p", mapping.rights);
            covered += to - from;
        }
    }
    EXPECT_EQ(end - begin, covered);
}

// From now on, each mprotect of this process and of the programs that it executes fails.
void RefuseMprotect() {
    sock_filter instructions[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_mprotect, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {std::size(instructions), instructions};
    const rlimit noCore = {0, 0};
    if (setrlimit(RLIMIT_CORE, &noCore) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        _exit(125);
    }
}

TEST(ProgramFile, StaticOneDoesNotRunWithWritableTables) {
    if (!StaticProgram()) {
        GTEST_SKIP() << "the loader protects the tables of a dynamic program";
    }
    if (Emulated()) {
        GTEST_SKIP() << "the emulator would need mprotect too";
    }
    const int wait = RunProgram({"-h"}, RefuseMprotect).wait;
    EXPECT_TRUE(WIFSIGNALED(wait) && WTERMSIG(wait) == SIGABRT) << wait;
}

// A root directory with the program, a static shell and nothing else, as in an initramfs; then
// without the shell.
TEST(ProgramFile, StaticOneRunsInARootWithNothingButAShell) {
    if (!StaticProgram()) {
        GTEST_SKIP() << "this build's program is linked dynamically";
    }
    RunInPrivateWorld(kMounts, [] {
        namespace fs = std::filesystem;
        const TempDir root;
        fs::create_directory(root / "bin");
        fs::copy_file("/bin/busybox", root / "bin/sh");
        fs::copy_file(ProgramPath(), root / "talvek");
        if (Emulated()) {
            fs::create_directories(root / "usr/bin");
            fs::copy_file("/usr/bin/qemu-arm-static", root / "usr/bin/qemu-arm-static");
        }
        setenv("TALVEK_PROGRAM", "/talvek", 1);
        const auto enter = [&root] {
            if (chroot(root.path().c_str()) != 0 || chdir("/") != 0) {
                _exit(125);
            }
        };
        Daemon::Options options;
        options.socket = "/socket";
        options.prepare = enter;
        options.dir = &root;
        const Daemon daemon{options};
        const Arguments client = {"-C", "-s", "/socket", "-f", "ls -d /*; exit 7"};
        EXPECT_EQ(7, RunProgram(client, enter).exitStatus());
        EXPECT_TRUE(daemon.Logs(Emulated() ? "/bin\n/log\n/socket\n/talvek\n/usr\n"
                                           : "/bin\n/log\n/socket\n/talvek\n"))
            << daemon.log();
        fs::remove(root / "bin/sh");
        EXPECT_EQ(127, RunProgram(client, enter).exitStatus());
    });
}

}  // namespace
