// Options of AddressSanitizer, built into every test program that runs under it.

extern "C" const char *__asan_default_options();

// A cancelled thread leaves the sanitizer's marks of its frames on its stack. Taking the thread's
// signal stack away at its end, the sanitizer would stumble over them itself.
extern "C" const char *__asan_default_options() {
    return "use_sigaltstack=0";
}
