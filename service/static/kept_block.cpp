// musl maps pages for the blocks of a size and unmaps them with the last of these blocks. The log
// allocates and frees one block a line, so every line would cost two system calls and two page
// faults. One block of the same size that stays keeps the pages.

#include <stdlib.h>

namespace {

constexpr size_t kLogBlock = 256;  // what COM_Log allocates for a message of up to 255 characters

void *volatile g_kept = nullptr;  // volatile: the allocation is not optimised away

__attribute__((constructor)) void KeepBlock() {
    g_kept = malloc(kLogBlock);
}

}  // namespace
