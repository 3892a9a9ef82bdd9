#ifndef TALVEK_TESTS_SUPPORT_C_API_H
#define TALVEK_TESTS_SUPPORT_C_API_H

/* What a module's c_api.c finds in the module's chief header. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tCEntry {
    const char *pName;
    void (*pAddress)(void);
} tCEntry;

#define C_ENTRY(name) \
    { #name, (void (*)(void))(name) }

typedef struct tCTable {
    const char *pName;
    const void *pAddress;
} tCTable;

typedef struct tCModule {
    const tCEntry *pEntries;
    size_t entries;
    const tCTable *pTables;
    size_t tables;
    int (*pCallThrough)(void); /* not 0 when the calls gave the right results */
} tCModule;

/* Defined by the c_api.c of the module under test. */
extern const tCModule kModuleInC;

#ifdef __cplusplus
}

namespace talvek::test {

// Fails the test unless the public names in the library's archive are those of kModuleInC. Skips it
// without nm.
void ExpectEveryEntryInC(const char *pArchive);

}  // namespace talvek::test
#endif

#endif
