#ifndef TALVEK_BENCH_SIDE_BY_SIDE_H
#define TALVEK_BENCH_SIDE_BY_SIDE_H

#include <initializer_list>
#include <string>
#include <vector>

// One side of a comparison: its name and what was measured, in order. Values of the two sides with
// the same index were taken at about the same time.
struct Side {
    std::string name;
    std::vector<double> values;
};

// Adds a row to the report: our median, the peer's, their ratio, and how far the ratio spreads over
// the run. `pWork` says what both sides do and where one of them does more; `pAim` is a ratio, or
// an amount with its unit, that our side is not to exceed.
void AddRow(const Side &ours, const Side &peer, const char *pUnit, const char *pWork,
            const char *pAim = "");

// Prints the rows, and appends them as JSON to the file that TALVEK_BENCH_ROWS names, one a line.
void PrintRows(const char *pSubject);

// A row of two benchmarks of this program, for each of the arguments that both have:
// SideBySide("Mine", "Theirs", ...) compares Mine/10 with Theirs/10 and so on. A benchmark whose
// work is done by other processes counts their processor time in a counter "cpu_s"; the row is of
// that time then.
//
//     const SideBySide g_pairs[] = {{"KeySearch", "KeySearchStrcasestr", "both find ..."}};
class SideBySide {
  public:
    SideBySide(const char *pMine, const char *pTheirs, const char *pWork, const char *pAim = "");
};

// Runs the program's benchmarks, repeated and in shuffled order so that what else the machine does
// meets all alike, and prints the rows, or the medians where a program compares nothing. `defaults`
// and then the command line may set other options. Returns the exit status. A program without a
// main of its own does just this.
int RunBenchmarks(int argc, char *argv[], std::initializer_list<const char *> defaults = {});

#endif
