#include "bench/side_by_side.h"

int main(int argc, char *argv[]) {
    return RunBenchmarks(argc, argv);
}
