/* dev/DEV.h as a C program sees it: every entry is declared and can be called. */

#include "dev/DEV.h"

#include <stddef.h>
#include <string.h>

#include "support/c_api.h"

static const tCEntry kEntries[] = {
    C_ENTRY(Dev_BuildSgMap),
    C_ENTRY(Dev_CheckPartition),
    C_ENTRY(Dev_ConvertMajorMinor),
    C_ENTRY(Dev_ExecMMC),
    C_ENTRY(Dev_FsCheckFlag),
    C_ENTRY(Dev_Get),
    C_ENTRY(Dev_GetBDReInfo),
    C_ENTRY(Dev_GetCdInfo),
    C_ENTRY(Dev_GetConfiguration),
    C_ENTRY(Dev_GetDevIdentify),
    C_ENTRY(Dev_GetDevViaMount),
    C_ENTRY(Dev_GetDiscInfo),
    C_ENTRY(Dev_GetDvdMinusRwInfo),
    C_ENTRY(Dev_GetDvdPlusRwInfo),
    C_ENTRY(Dev_GetEntryViaMtab),
    C_ENTRY(Dev_GetFsTool),
    C_ENTRY(Dev_GetFsToolByIndex),
    C_ENTRY(Dev_GetHDStat),
    C_ENTRY(Dev_GetIDViaMount),
    C_ENTRY(Dev_GetMPT),
    C_ENTRY(Dev_GetSmartValue),
    C_ENTRY(Dev_GetUSBFlashDevice),
    C_ENTRY(Dev_InitFsArray),
    C_ENTRY(Dev_Inquiry),
    C_ENTRY(Dev_MakeDevName),
    C_ENTRY(Dev_Mount),
    C_ENTRY(Dev_PrintTestMenu),
    C_ENTRY(Dev_ReadBufferCapacity),
    C_ENTRY(Dev_ReadCdATIP),
    C_ENTRY(Dev_ReadCdToc),
    C_ENTRY(Dev_ReadDiscInfo),
    C_ENTRY(Dev_ReadDvdRToc),
    C_ENTRY(Dev_ReadDvdStruct),
    C_ENTRY(Dev_ReadFormatCapacity),
    C_ENTRY(Dev_ReadTrackInfo),
    C_ENTRY(Dev_RescanScsiBus),
    C_ENTRY(Dev_RunTestMenu),
    C_ENTRY(Dev_SdToSg),
    C_ENTRY(Dev_SgToSd),
    C_ENTRY(Dev_TestUnitReady),
    C_ENTRY(Dev_nGetMPT),
    C_ENTRY(Dev_uMount),
    C_ENTRY(Dev_uMount_Force),
};

static int CallThrough(void) {
    char name[12] = "";
    Dev_MakeDevName(name, 3, 1);
    return strcmp(name, "/dev/sg3") == 0 && Dev_Get(NULL) == 0;
}

const tCModule kModuleInC = {
    kEntries, sizeof kEntries / sizeof kEntries[0], NULL, 0, CallThrough,
};
