// The C library's allocation functions for the static program. musl calls these where a program
// defines them.

#include <malloc.h>
#include <stdlib.h>

#include "service/static/heap.h"

extern "C" {

void *malloc(size_t size) {
    return talvek::heap::Allocate(size);
}

void free(void *block) {
    talvek::heap::Release(block);
}

void *calloc(size_t count, size_t size) {
    return talvek::heap::AllocateZeroed(count, size);
}

void *realloc(void *block, size_t size) {
    return talvek::heap::Resize(block, size);
}

size_t malloc_usable_size(void *block) {
    return talvek::heap::SizeOf(block);
}

// musl's own sources call these two, which would link its allocator in (8 kB).
void *__libc_malloc(size_t size);
void __libc_free(void *block);

void *__libc_malloc(size_t size) {
    return talvek::heap::Allocate(size);
}

void __libc_free(void *block) {
    talvek::heap::Release(block);
}
}
