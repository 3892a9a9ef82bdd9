// Compiled with -fno-exceptions (CMakeLists.txt): only then is a clean-up handler a place that the
// C library jumps back to, whether or not the frames below it can be unwound. From here upwards the
// unwinding starts anew.

#include "common/internal/cancel_barrier.h"

#include <pthread.h>
#include <stddef.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

#if defined(__EXCEPTIONS) && defined(__GNUC__)
#error "the handler below would depend on the unwind tables that the caller may not have"
#endif

namespace talvek {
namespace {

#ifdef __SANITIZE_ADDRESS__
// AddressSanitizer sees jumps that the program makes, but not this one of the C library: it still
// guards the variables of the frames that were left. They lie below the barrier's own.
void LeaveFrames(void *pFrame) {
    constexpr size_t kReach = 64 * 1024;
    __asan_unpoison_memory_region(static_cast<char *>(pFrame) - kReach, kReach);
}
#else
void LeaveFrames(void * /*pFrame*/) {}
#endif

}  // namespace

int CallBehindBarrier(int (*pFn)(void *pArg), void *pArg) {
    int result;
    pthread_cleanup_push(LeaveFrames, __builtin_frame_address(0));
    result = pFn(pArg);
    pthread_cleanup_pop(0);
    return result;
}

}  // namespace talvek
