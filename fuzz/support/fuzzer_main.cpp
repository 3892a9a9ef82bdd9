// What the fuzzer calls, in a program of one target.

#include <stdio.h>

#include "fuzz/support/target.h"

extern "C" int LLVMFuzzerInitialize(int *pCount, char ***ppArguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size);

// The log is formatted and dropped without a system call for each line.
extern "C" int LLVMFuzzerInitialize(int * /*pCount*/, char *** /*ppArguments*/) {
    constexpr cookie_io_functions_t kDrop = {
        .read = nullptr,
        .write = [](void *, const char *, size_t size) { return static_cast<ssize_t>(size); },
        .seek = nullptr,
        .close = nullptr};
    stdout = fopencookie(nullptr, "w", kDrop);
    return stdout != nullptr ? 0 : -1;
}

// The fuzzer's block has exactly the bytes of the input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    talvek::fuzz::Input in{{pData, size}};
    talvek::fuzz::Targets()->run(in);
    return 0;
}
