// The cost of running one program and waiting for it, in a small process and in one with memory
// that fork has to copy the tables of.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <vector>

#include "bench/side_by_side.h"
#include "common/command.h"

extern char **environ;

namespace {

// Touched memory of the calling process, as a recording program has it.
class Ballast {
  public:
    explicit Ballast(const benchmark::State &state)
        : bytes_(static_cast<size_t>(state.range(0)) << 20, 1) {
        benchmark::DoNotOptimize(bytes_.data());
    }

  private:
    std::vector<char> bytes_;
};

void Check(benchmark::State &state, int status) {
    if (status != 0) {
        state.SkipWithError("/bin/true did not end with 0");
    }
}

void ComSystem(benchmark::State &state) {
    const Ballast ballast{state};
    for (auto _ : state) {
        Check(state, COM_System("/bin/true ", nullptr));
    }
}

void PosixSpawn(benchmark::State &state) {
    const Ballast ballast{state};
    char path[] = "/bin/true";
    char *const args[] = {path, nullptr};
    for (auto _ : state) {
        pid_t pid = -1;
        int status = -1;
        if (posix_spawn(&pid, path, nullptr, nullptr, args, environ) == 0) {
            waitpid(pid, &status, 0);
        }
        Check(state, status);
    }
}

void LibcSystem(benchmark::State &state) {
    const Ballast ballast{state};
    for (auto _ : state) {
        Check(state, system("/bin/true "));
    }
}

// MiB of ballast. Real time: most of the work is the child's.
BENCHMARK(ComSystem)->ArgName("MiB")->Arg(0)->Arg(64)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PosixSpawn)
    ->ArgName("MiB")
    ->Arg(0)
    ->Arg(64)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(LibcSystem)
    ->ArgName("MiB")
    ->Arg(0)
    ->Arg(64)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

const SideBySide g_pairs[] = {{"ComSystem", "LibcSystem"}, {"ComSystem", "PosixSpawn"}};

}  // namespace
