#ifndef TALVEK_SERVICE_STATIC_HEAP_H
#define TALVEK_SERVICE_STATIC_HEAP_H

#include <stddef.h>

// The heap of the static program (docs/decisions/static-program.md).
namespace talvek::heap {

// The first blocks lie in this much of the program's data. When it is used up, further memory of
// this size is mapped.
constexpr size_t kSize = 32768;
// A block that takes more, with its header, has a mapping of its own.
constexpr size_t kLargest = 4096;

// As malloc, calloc, free, realloc and malloc_usable_size (C17 7.22.3, malloc_usable_size(3)).
// Releasing what is not a block in use ends the program.
void *Allocate(size_t size);
void *AllocateZeroed(size_t count, size_t size);
void Release(void *block);
void *Resize(void *block, size_t size);
size_t SizeOf(const void *block);

}  // namespace talvek::heap

#endif
