// The heap of the static program (docs/decisions/static-program.md): first fit in one piece of
// memory.

#include "service/static/heap.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

#include "base/mutex_lock.h"

namespace talvek::heap {
namespace {

enum class State : uint32_t { kFree, kUsed, kMapped };

// Lies in front of each block and keeps it aligned for every type.
struct alignas(max_align_t) Header {
    size_t size;  // of the block; of the whole mapping where it has one
    State state;

    [[nodiscard]] void *block() { return this + 1; }
    [[nodiscard]] Header *next() {
        return reinterpret_cast<Header *>(static_cast<char *>(block()) + size);
    }
};

alignas(max_align_t) char g_memory[kSize];
char *g_top = g_memory;  // what lies above is not in use
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

Header *HeaderOf(void *block) {
    return static_cast<Header *>(block) - 1;
}

Header *Top() {
    return reinterpret_cast<Header *>(g_top);
}

// Joins a free block with the free ones after it.
void Join(Header *header) {
    while (header->next() != Top() && header->next()->state == State::kFree) {
        header->size += sizeof(Header) + header->next()->size;
    }
}

// Cuts a block to a size and leaves the rest free.
void Split(Header *header, size_t size) {
    if (header->size - size <= sizeof(Header)) {
        return;
    }
    const size_t rest = header->size - size - sizeof(Header);
    header->size = size;
    *header->next() = {rest, State::kFree};
}

// `size` is a multiple of the alignment. Null when there is no room.
void *Fit(size_t size) {
    for (Header *header = reinterpret_cast<Header *>(g_memory); header != Top();
         header = header->next()) {
        if (header->state == State::kFree) {
            Join(header);
            if (header->next() == Top()) {
                g_top = reinterpret_cast<char *>(header);
                break;
            }
            if (header->size >= size) {
                Split(header, size);
                header->state = State::kUsed;
                return header->block();
            }
        }
    }
    if (static_cast<size_t>(g_memory + kSize - g_top) < sizeof(Header) + size) {
        return nullptr;
    }
    Header *header = Top();
    *header = {size, State::kUsed};
    g_top += sizeof(Header) + size;
    return header->block();
}

void *Map(size_t size) {
    void *mapping = mmap(nullptr, sizeof(Header) + size, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) {
        return nullptr;
    }
    auto *header = static_cast<Header *>(mapping);
    *header = {sizeof(Header) + size, State::kMapped};
    return header->block();
}

}  // namespace

void *Allocate(size_t size) {
    if (size > PTRDIFF_MAX - 2 * sizeof(Header)) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t rounded =
        (std::max(size, size_t{1}) + alignof(Header) - 1) & ~(alignof(Header) - 1);
    {
        const MutexLock lock{g_mutex};
        if (void *block = Fit(rounded); block != nullptr) {
            return block;
        }
    }
    return Map(rounded);
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
    if (header->state == State::kMapped) {
        munmap(header, header->size);
        return;
    }
    const MutexLock lock{g_mutex};
    header->state = State::kFree;
}

void *Resize(void *block, size_t size) {
    if (block != nullptr && size <= SizeOf(block)) {
        return block;
    }
    void *larger = Allocate(size);
    if (larger != nullptr && block != nullptr) {
        memcpy(larger, block, SizeOf(block));
        Release(block);
    }
    return larger;
}

size_t SizeOf(const void *block) {
    if (block == nullptr) {
        return 0;
    }
    const Header *header = static_cast<const Header *>(block) - 1;
    return header->state == State::kMapped ? header->size - sizeof(Header) : header->size;
}

}  // namespace talvek::heap
