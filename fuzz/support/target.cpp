#include "fuzz/support/target.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fuzz/support/oracle.h"

namespace talvek::fuzz {
namespace {

Target *g_first = nullptr;

}  // namespace

Target::Target(const char *pName, void (*pRun)(Input &)) : name(pName), run(pRun), next(g_first) {
    g_first = this;
}

Target *Targets() {
    return g_first;
}

void Fail(const char *pFile, int line, const char *pWhat) {
    // Not through stderr: a target may have redirected it.
    dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", pFile, line, pWhat);
    abort();
}

}  // namespace talvek::fuzz
