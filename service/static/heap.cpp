// A block takes a power of two of bytes; released ones are kept in a list for each power.

#include "service/static/heap.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "base/mutex_lock.h"

// Common storage comes after all other data, so that the first blocks lie in the same page as the
// variables that are always in use. C++ has no common variables; the assembler has.
static_assert(talvek::heap::kSize == 32768 && alignof(max_align_t) <= 16);
asm(".comm talvek_heap_memory, 32768, 16");
extern "C" char talvek_heap_memory[talvek::heap::kSize];

namespace talvek::heap {
namespace {

// Lies before each block and keeps it aligned for every type.
struct alignas(max_align_t) Header {
    size_t bytes;  // with the header
    uint32_t state;
};

// Values that are unlikely in other data.
constexpr uint32_t kUsed = 0x7553ED01;
constexpr uint32_t kMapped = 0x7553ED02;

struct Free {
    Header header;
    Free *next;
};

constinit Mutex g_mutex;
Free *g_free[std::bit_width(kLargest)] TALVEK_GUARDED_BY(g_mutex);  // by power of two
char *g_memory TALVEK_GUARDED_BY(g_mutex) = talvek_heap_memory;     // not a block yet
size_t g_left TALVEK_GUARDED_BY(g_mutex) = kSize;

Header *HeaderOf(void *block) {
    Header *header = static_cast<Header *>(block) - 1;
    if (header->state != kUsed && header->state != kMapped) {
        abort();
    }
    return header;
}

// Map and Take return null, with errno ENOMEM, when there is no memory.
void *Map(size_t bytes) {
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? memory : nullptr;
}

void *Take(size_t bytes) {
    const MutexLock lock{g_mutex};
    Free *&list = g_free[std::countr_zero(bytes)];
    if (list != nullptr) {
        return std::exchange(list, list->next);
    }
    if (g_left < bytes) {
        void *memory = Map(kSize);
        if (memory == nullptr) {
            return nullptr;
        }
        g_memory = static_cast<char *>(memory);
        g_left = kSize;
    }
    g_left -= bytes;
    return std::exchange(g_memory, g_memory + bytes);
}

}  // namespace

void *Allocate(size_t size) {
    if (size > PTRDIFF_MAX - sizeof(Header)) {
        errno = ENOMEM;
        return nullptr;
    }
    size_t bytes = std::max(size + sizeof(Header), sizeof(Free));
    const bool mapped = bytes > kLargest;
    bytes = mapped ? bytes : std::bit_ceil(bytes);
    auto *header = static_cast<Header *>(mapped ? Map(bytes) : Take(bytes));
    if (header == nullptr) {
        return nullptr;
    }
    *header = {bytes, mapped ? kMapped : kUsed};
    return header + 1;
}

void *AllocateZeroed(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = Allocate(bytes);
    return block != nullptr ? memset(block, 0, bytes) : nullptr;
}

void Release(void *block) {
    if (block == nullptr) {
        return;
    }
    Header *header = HeaderOf(block);
    if (header->state == kMapped) {
        munmap(header, header->bytes);
        return;
    }
    const MutexLock lock{g_mutex};
    Free *&list = g_free[std::countr_zero(header->bytes)];
    header->state = 0;
    auto *entry = reinterpret_cast<Free *>(header);
    entry->next = std::exchange(list, entry);
}

void *Resize(void *block, size_t size) {
    const size_t before = SizeOf(block);
    if (block != nullptr && size <= before) {
        return block;
    }
    void *larger = Allocate(size);
    if (larger != nullptr && block != nullptr) {
        memcpy(larger, block, before);
        Release(block);
    }
    return larger;
}

size_t SizeOf(const void *block) {
    return block != nullptr ? HeaderOf(const_cast<void *>(block))->bytes - sizeof(Header) : 0;
}

}  // namespace talvek::heap
