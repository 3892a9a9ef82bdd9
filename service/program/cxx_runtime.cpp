// The part of the C++ runtime that the program would carry without a use.
//
// Nothing here throws. The runtime is linked in for one reason: a thread that is cancelled unwinds
// through the destructors, which takes the personality routine of the C++ ABI. That routine can
// itself throw and end the program, so it brings a demangler for the last words of std::terminate,
// and a reserve of 73 kB, set up at every start, for exceptions that are thrown when there is no
// memory. These definitions stand in for both. Only the program is linked with them; a C++ program
// that uses the libraries keeps its own runtime.

#include <stddef.h>
#include <stdlib.h>

namespace __gnu_cxx {
void __verbose_terminate_handler();
void __verbose_terminate_handler() {
    abort();
}
}  // namespace __gnu_cxx

// Itanium C++ ABI, 2.4: storage of an exception. None is ever thrown.
extern "C" {
void *__cxa_allocate_exception(size_t size) noexcept;
void __cxa_free_exception(void *exception) noexcept;
void *__cxa_allocate_dependent_exception() noexcept;
void __cxa_free_dependent_exception(void *exception) noexcept;

void *__cxa_allocate_exception(size_t) noexcept {
    abort();
}
void __cxa_free_exception(void *) noexcept {}
void *__cxa_allocate_dependent_exception() noexcept {
    abort();
}
void __cxa_free_dependent_exception(void *) noexcept {}
}
