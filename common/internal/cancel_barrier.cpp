// Compiled with -fno-exceptions (CMakeLists.txt): only then is a clean-up handler a place that the
// C library jumps back to, whether or not the frames below it can be unwound. From here upwards the
// unwinding starts anew.

#include "common/internal/cancel_barrier.h"

#include <pthread.h>

#if defined(__EXCEPTIONS) && defined(__GNUC__)
#error "the handler below would depend on the unwind tables that the caller may not have"
#endif

namespace talvek {
namespace {

void DoNothing(void * /*pArg*/) {}

}  // namespace

int CallBehindBarrier(int (*pFn)(void *pArg), void *pArg) {
    int result;
    pthread_cleanup_push(DoNothing, nullptr);
    result = pFn(pArg);
    pthread_cleanup_pop(0);
    return result;
}

}  // namespace talvek
