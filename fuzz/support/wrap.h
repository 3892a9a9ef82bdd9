#ifndef TALVEK_FUZZ_SUPPORT_WRAP_H
#define TALVEK_FUZZ_SUPPORT_WRAP_H

// Names of caught calls. On 32-bit targets the product calls the variants with 64-bit types, and
// so do the support files themselves; CMakeLists.txt has the same names.

#define FUZZ_JOIN_(a, b) a##b
#define FUZZ_JOIN(a, b) FUZZ_JOIN_(a, b)
#define WRAP(name) FUZZ_JOIN(__wrap_, name)
#define REAL(name) FUZZ_JOIN(__real_, name)

#if __SIZEOF_POINTER__ == 4
#define CALL_OPEN open64
#define CALL_FOPEN fopen64
#define CALL_READDIR readdir64
#define CALL_STAT __stat64_time64
#define CALL_STATFS statfs64
#define CALL_MKOSTEMP mkostemp64
#define CALL_TRUNCATE truncate64
#define CALL_IOCTL __ioctl_time64
#define CALL_PPOLL __ppoll64
#define CALL_CLOCK_GETTIME __clock_gettime64
#else
#define CALL_OPEN open
#define CALL_FOPEN fopen
#define CALL_READDIR readdir
#define CALL_STAT stat
#define CALL_STATFS statfs
#define CALL_MKOSTEMP mkostemp
#define CALL_TRUNCATE truncate
#define CALL_IOCTL ioctl
#define CALL_PPOLL ppoll
#define CALL_CLOCK_GETTIME clock_gettime
#endif

// Declares a caught call and the C library's own.
#define CAUGHT(result, name, arguments)     \
    extern "C" result REAL(name) arguments; \
    extern "C" result WRAP(name) arguments; \
    extern "C" result WRAP(name) arguments

#endif
