#ifndef TALVEK_TESTS_SUPPORT_C_API_H
#define TALVEK_TESTS_SUPPORT_C_API_H

/* What a C file of the tests tells about the library that it was compiled against. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tCEntry {
    const char *pName;
    void (*pAddress)(void);
} tCEntry;

#define C_ENTRY(name) \
    { #name, (void (*)(void))name }

typedef struct tCTable {
    const char *pName;
    const void *pAddress;
} tCTable;

typedef struct tCModule {
    const char *pName;
    const tCEntry *pEntries;
    size_t entries;
    const tCTable *pTables;
    size_t tables;
    int (*pCallThrough)(void); /* not 0 when calls gave what they should */
} tCModule;

#ifdef __cplusplus
}
#endif

#endif
