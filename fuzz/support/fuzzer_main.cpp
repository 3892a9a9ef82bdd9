// What the fuzzer calls, in a program of one target.

#include "fuzz/support/target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    talvek::fuzz::Run(*talvek::fuzz::Targets(), {pData, size});
    return 0;
}
