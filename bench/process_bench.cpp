// The cost of running one program and waiting for it, in a small process and in ones with much
// memory in use: a fork copies page tables, so that its cost grows with the caller.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <vector>

#include "bench/side_by_side.h"
#include "common/command.h"
#include "common/process.h"

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

// Times single calls. The time of an iteration is the median of its calls, as a busy machine delays
// some of them by much.
template <typename Call>
void TimeCalls(benchmark::State &state, Call call) {
    using Clock = std::chrono::steady_clock;
    const Ballast ballast{state};
    for (auto _ : state) {
        std::array<double, 25> seconds;
        for (double &one : seconds) {
            const Clock::time_point start = Clock::now();
            if (call() != 0) {
                state.SkipWithError("the program did not end with 0");
            }
            one = std::chrono::duration<double>(Clock::now() - start).count();
        }
        const auto middle = seconds.begin() + seconds.size() / 2;
        std::nth_element(seconds.begin(), middle, seconds.end());
        state.SetIterationTime(*middle);
    }
}

int SpawnAndWait(const char *pPath, const char *pOption, const char *pCommand) {
    const char *args[] = {pPath, pOption, pCommand, nullptr};
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, pPath, nullptr, nullptr, const_cast<char **>(args), environ) == 0) {
        waitpid(pid, &status, 0);
    }
    return status;
}

void ComSystem(benchmark::State &state) {
    TimeCalls(state, [] { return COM_System("/bin/true ", nullptr); });
}

void PosixSpawn(benchmark::State &state) {
    TimeCalls(state, [] { return SpawnAndWait("/bin/true", nullptr, nullptr); });
}

void LibcSystem(benchmark::State &state) {
    TimeCalls(state, [] { return system("/bin/true "); });
}

void ComPopenRead(benchmark::State &state) {
    TimeCalls(state, [] { return COM_PopenRead("true", nullptr, nullptr, nullptr); });
}

void PosixSpawnShell(benchmark::State &state) {
    TimeCalls(state, [] { return SpawnAndWait("/bin/sh", "-c", "true"); });
}

// MiB of ballast. Real time: most of the work is the child's.
void Sizes(benchmark::internal::Benchmark *bench) {
    bench->ArgName("MiB")->Arg(0)->Arg(64)->Arg(1024)->UseManualTime()->Iterations(4);
    bench->Unit(benchmark::kMicrosecond);
}

BENCHMARK(ComSystem)->Apply(Sizes);
BENCHMARK(PosixSpawn)->Apply(Sizes);
BENCHMARK(LibcSystem)->Apply(Sizes);
BENCHMARK(ComPopenRead)->Apply(Sizes);
BENCHMARK(PosixSpawnShell)->Apply(Sizes);

const SideBySide g_pairs[] = {
    {"ComSystem", "PosixSpawn", "both run /bin/true; ours splits a command and sets signals",
     "1.1"},
    {"ComSystem", "LibcSystem", "both run /bin/true; the peer starts a shell for it"},
    {"ComPopenRead", "PosixSpawnShell", "both run sh -c true; ours reads its output", "1.1"}};

}  // namespace
