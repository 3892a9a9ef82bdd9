// musl relocates a static program at its start and leaves the relocated tables writable. This makes
// them read-only, as the loader does with those of a dynamic program.

#include <link.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

// The linker's name for the first byte of the loaded file.
extern "C" __attribute__((visibility("hidden"))) const ElfW(Ehdr) __ehdr_start;

namespace talvek {
namespace {

__attribute__((constructor)) void ProtectRelocatedTables() {
    char *base = reinterpret_cast<char *>(const_cast<ElfW(Ehdr) *>(&__ehdr_start));
    const auto *segments = reinterpret_cast<const ElfW(Phdr) *>(base + __ehdr_start.e_phoff);
    const auto page = static_cast<size_t>(getpagesize());
    for (unsigned i = 0; i < __ehdr_start.e_phnum; ++i) {
        const ElfW(Phdr) &segment = segments[i];
        if (segment.p_type == PT_GNU_RELRO) {
            const size_t begin = segment.p_vaddr / page * page;
            const size_t end = (segment.p_vaddr + segment.p_memsz) / page * page;
            if (mprotect(base + begin, end - begin, PROT_READ) != 0) {
                abort();
            }
        }
    }
}

}  // namespace
}  // namespace talvek
