#ifndef TALVEK_BENCH_QUIET_H
#define TALVEK_BENCH_QUIET_H

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

// Sends standard output to /dev/null for a scope: what is measured logs, and its lines would be
// between the results. Making and writing them is part of the cost.
class Quiet {
  public:
    Quiet() : kept_(dup(STDOUT_FILENO)) {
        fflush(stdout);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~Quiet() {
        fflush(stdout);
        dup2(kept_, STDOUT_FILENO);
        close(kept_);
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

  private:
    int kept_;
};

#endif
