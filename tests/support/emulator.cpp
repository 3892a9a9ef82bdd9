#include "support/emulator.h"

#include <elf.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace talvek::test {
namespace {

namespace fs = std::filesystem;

int MachineOf(const fs::path &program) {
    std::ifstream in{program, std::ios::binary};
    Elf32_Ehdr header = {};  // this field has the same place in the header of 64 bits
    in.read(reinterpret_cast<char *>(&header), sizeof header);
    return header.e_machine;
}

// An emulator shows itself as the program in /proc/self and /proc/<pid>; the entries of the threads
// are the kernel's. They are read before a test replaces /proc.
std::vector<std::string> FindLauncher() {
    const fs::path thread = "/proc/self/task/" + std::to_string(gettid());
    std::vector<std::string> words;
    if (MachineOf(thread / "exe") == MachineOf("/proc/self/exe")) {
        return words;
    }
    std::ifstream in{thread / "cmdline"};
    std::error_code none;
    const fs::path own = fs::read_symlink("/proc/self/exe", none);
    for (std::string word; std::getline(in, word, '\0') && !fs::equivalent(word, own, none);) {
        words.push_back(word);
    }
    return words;
}

const std::vector<std::string> g_launcher = FindLauncher();
const bool g_foreign = MachineOf("/proc/self/exe") != MachineOf("/bin/sh");

}  // namespace

bool Emulated() {
    return !g_launcher.empty();
}

bool Foreign() {
    return g_foreign;
}

const std::vector<std::string> &Launcher() {
    return g_launcher;
}

std::string LauncherText() {
    std::string text;
    for (const std::string &word : g_launcher) {
        text += word + " ";
    }
    return text;
}

}  // namespace talvek::test
