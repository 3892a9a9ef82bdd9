#ifndef TALVEK_BENCH_SIDE_BY_SIDE_H
#define TALVEK_BENCH_SIDE_BY_SIDE_H

#include <initializer_list>

// What is printed when all has run: how the medians of one benchmark relate to those of another in
// the same run. Each name means the benchmark with all its arguments: SideBySide("Mine", "Theirs")
// compares Mine/10 with Theirs/10 and so on. A benchmark whose work is done by other processes
// counts their processor time in a counter "cpu_s".
//
//     const SideBySide g_pairs[] = {{"KeySearch", "KeySearchStrcasestr"}};
class SideBySide {
  public:
    SideBySide(const char *pMine, const char *pTheirs);
};

// Runs the program's benchmarks, repeated and in shuffled order so that what else the machine does
// meets all alike, and prints medians and ratios. `defaults` and then the command line may say
// otherwise. Returns the exit status. A program without a main of its own does just this.
int RunBenchmarks(int argc, char *argv[], std::initializer_list<const char *> defaults = {});

#endif
