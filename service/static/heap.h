#ifndef TALVEK_SERVICE_STATIC_HEAP_H
#define TALVEK_SERVICE_STATIC_HEAP_H

#include <stddef.h>

namespace talvek::heap {

// Blocks lie one after another in this many bytes of the program's data; its pages take memory when
// they are first written.
constexpr size_t kSize = 32768;

// As malloc, calloc, free, realloc and malloc_usable_size do (C17 7.22.3, malloc_usable_size(3)). A
// block for which there is no room gets a mapping of its own.
void *Allocate(size_t size);
void *AllocateZeroed(size_t count, size_t size);
void Release(void *block);
void *Resize(void *block, size_t size);
size_t SizeOf(const void *block);

}  // namespace talvek::heap

#endif
