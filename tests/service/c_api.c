/* service/TALVEK.h as a C program sees it: every entry is declared and can be called. */

#include "service/TALVEK.h"

#include <stddef.h>
#include <string.h>

#include "support/c_api.h"

static const tCEntry kEntries[] = {
    C_ENTRY(TALVEK_CalcPkgChecksum), C_ENTRY(TALVEK_CheckPkgHeader), C_ENTRY(TALVEK_Client),
    C_ENTRY(TALVEK_Daemon),          C_ENTRY(TALVEK_DaemonHandler),  C_ENTRY(TALVEK_RegSession),
    C_ENTRY(TALVEK_RunCommand),      C_ENTRY(TALVEK_SendPkg),        C_ENTRY(TALVEK_SetEnvFromPkg),
    C_ENTRY(TALVEK_UnRegSession),
};

static int CallThrough(void) {
    tTalvekPkg pkg = {.ver_fragement = 1, .pkg_cnt_idx = 0x11, .type = 1, .sz = 16};
    pkg.chksum = TALVEK_CalcPkgChecksum(&pkg);
    return pkg.chksum == 0x1110 && TALVEK_CheckPkgHeader(&pkg, sizeof pkg) == 1;
}

const tCModule kModuleInC = {
    kEntries, sizeof kEntries / sizeof kEntries[0], NULL, 0, CallThrough,
};
