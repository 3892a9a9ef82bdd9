#ifndef TALVEK_BENCH_SIDE_BY_SIDE_H
#define TALVEK_BENCH_SIDE_BY_SIDE_H

#include <initializer_list>

// What is told when all has run: how the medians of one benchmark relate to those of another in the
// same run. Both names stand for all their arguments: SideBySide("Mine", "Theirs") tells of Mine/10
// beside Theirs/10 and so on. A benchmark whose work is done by other processes counts their
// processor time in a counter "cpu_s".
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
