// musl relocates a static program at its start and leaves the relocated tables writable. This makes
// them read-only, as the loader does with those of a dynamic program.

#include <link.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

// The linker's name for the first byte of the loaded file.
extern "C" __attribute__((visibility("hidden"))) const ElfW(Ehdr) __ehdr_start;

namespace talvek {
namespace {

__attribute__((constructor)) void ProtectRelocatedTables() {
    const char *base = reinterpret_cast<const char *>(&__ehdr_start);
    const auto *segments = reinterpret_cast<const ElfW(Phdr) *>(base + __ehdr_start.e_phoff);
    const auto page = static_cast<uintptr_t>(getpagesize());
    for (unsigned i = 0; i < __ehdr_start.e_phnum; ++i) {
        if (segments[i].p_type == PT_GNU_RELRO) {
            const uintptr_t at = reinterpret_cast<uintptr_t>(base) + segments[i].p_vaddr;
            const uintptr_t begin = at / page * page;
            const uintptr_t end = (at + segments[i].p_memsz) / page * page;
            if (mprotect(reinterpret_cast<void *>(begin), end - begin, PROT_READ) != 0) {
                abort();
            }
        }
    }
}

}  // namespace
}  // namespace talvek
