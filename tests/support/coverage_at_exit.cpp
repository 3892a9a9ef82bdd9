// Linked into every program of a build that measures coverage: processes that end without leaving
// main, or by a signal of their own, report what they reached too.

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

extern "C" {
void __gcov_dump();
void __gcov_reset();
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);
[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
int __real_raise(int number);
int __wrap_raise(int number);
}

// The files of the counts lie below the root that the program was built under. A test that has
// changed its root mostly still has its working directory outside.
static void ReturnToRoot() {
    for (int level = 0; level < 32 && chdir("..") == 0; ++level) {
    }
    [[maybe_unused]] const bool returned = chroot(".") == 0;
}

// The limit under which a test looks at the code is not for the files of the counts. Who may not
// lift it must not report: a file that is cut is lost for all programs.
static bool LiftFileSizeLimit() {
    const struct rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    return setrlimit(RLIMIT_FSIZE, &none) == 0;
}

// After main, the counts are reported by a destructor of the compiler's, which comes later.
__attribute__((destructor)) static void LiftFileSizeLimitAfterMain() {
    LiftFileSizeLimit();
}

void __wrap__exit(int status) {
    if (LiftFileSizeLimit()) {
        ReturnToRoot();
        __gcov_dump();
        __gcov_reset();  // after vfork, the memory is that of the parent, which reports the rest
    }
    __real__exit(status);
}

void __wrap_abort() {
    __gcov_dump();
    __real_abort();
}

int __wrap_raise(int number) {
    if (LiftFileSizeLimit()) {
        __gcov_dump();
    }
    __gcov_reset();  // it may live on, and reports the rest later
    return __real_raise(number);
}
