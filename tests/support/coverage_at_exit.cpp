// Linked into every program of a build that measures coverage: processes that end without leaving
// main, or by a signal of their own, report what they reached too.

#include <signal.h>
#include <unistd.h>

extern "C" {
void __gcov_dump();
void __gcov_reset();
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);
int __real_raise(int number);
int __wrap_raise(int number);
}

void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}

int __wrap_raise(int number) {
    __gcov_dump();
    __gcov_reset();  // it may live on, and reports the rest later
    return __real_raise(number);
}
