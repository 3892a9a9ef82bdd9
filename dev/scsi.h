#ifndef TALVEK_DEV_SCSI_H
#define TALVEK_DEV_SCSI_H

/* SCSI requests through the Linux generic driver: the routine that executes them, with its
 * diagnostics, and the two simplest commands.
 *
 * `fd` is a descriptor of a /dev/sg* node, or of a block or optical node, opened for reading and
 * writing and non-blocking. */

#include <assert.h>
#include <scsi/sg.h>
#include <stddef.h>

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DEV_LABEL_SIZE 64        /* bytes of tMmcCmd.label */
#define DEV_MODEL_SIZE 25        /* bytes for the model that Dev_Inquiry gives */
#define DEV_MMC_TIMEOUT_MS 20000 /* hdr.timeout of every command */
#define DEV_SENSE_SIZE 64        /* hdr.mx_sb_len of every command */
#define DEV_REPLY_SIZE 0x10000   /* the largest reply buffer, in bytes */

/* One request. The caller zeroes it whole and fills label and hdr. The CDB, sense and reply buffers
 * that hdr points to belong to the caller. */
typedef struct tMmcCmd {
    char label[DEV_LABEL_SIZE]; /* "(<device path>) <COMMAND>", for the log lines */
    sg_io_hdr_t hdr;            /* Linux <scsi/sg.h> */
} tMmcCmd;

static_assert(offsetof(tMmcCmd, hdr) == 64, "tMmcCmd");
static_assert(sizeof(void *) != 4 || sizeof(tMmcCmd) == 128, "tMmcCmd");

/* Results of Dev_ExecMMC. */
enum {
    DEV_MMC_OK = 0,
    DEV_MMC_NO_VERSION = -1,      /* the driver's version cannot be read, or there is no request */
    DEV_MMC_OLD_DRIVER = -2,      /* the driver is older than 3.0 (version 30000) */
    DEV_MMC_IOCTL_FAILED = -3,    /* the SG_IO ioctl failed */
    DEV_MMC_CHECK_CONDITION = -4, /* the device reported a failure with sense data */
};

/* Argument `verbose` of Dev_ExecMMC. */
enum {
    DEV_MMC_QUIET = 0,   /* one line for a failure, none for a success without a CHECK CONDITION */
    DEV_MMC_VERBOSE = 1, /* also sense bytes and SCSI, host and driver status of a failure, and a
                            hex dump of dxfer_len bytes of the reply */
};

/* Executes one request, once.
 *
 *   pCmd     hdr.interface_id 'S'; hdr.dxfer_direction SG_DXFER_FROM_DEV or SG_DXFER_NONE; hdr.cmdp
 *            and cmd_len the CDB; hdr.sbp and mx_sb_len a zeroed sense buffer; hdr.dxferp and
 *            dxfer_len a zeroed reply buffer, dxfer_len being the CDB's allocation length;
 *            hdr.timeout in milliseconds. The driver stores its results in hdr (info, status ...).
 *   verbose  DEV_MMC_QUIET or DEV_MMC_VERBOSE
 *
 * Sense data are read in fixed format (SPC-3 4.5.3). A CHECK CONDITION whose sense key, ASC and
 * ASCQ are all 0 counts as success and is reported on standard output, since some drives raise one
 * without a reason. Two failures therefore look like a success:
 *
 *   - A device that does not answer. The request then ends without sense data after hdr.timeout and
 *     the kernel's attempts to recover the device.
 *   - A device that sends sense data in descriptor format (SPC-3 4.5.2, response codes 72h and
 *     73h), if bytes 12 and 13 and the low half of byte 2 are 0.
 *
 * Returns DEV_MMC_OK or another result from the list above. */
int Dev_ExecMMC(tMmcCmd *pCmd, int fd, int verbose);

/* TEST UNIT READY (SPC-3 6.33), up to three times. One second passes after each attempt that fails,
 * the third included, so a unit that is not ready takes three seconds. A device that does not
 * answer counts as ready (Dev_ExecMMC).
 *
 *   pDevPath  for the log lines
 *
 * Returns DEV_QUERY_OK when the unit is ready, else DEV_QUERY_FAILED. */
int Dev_TestUnitReady(const char *pDevPath, int fd);

/* INQUIRY (SPC-3 6.4). Vendor, product and revision are logged.
 *
 *   pDevPath  for the log lines
 *   pModel    NULL, or DEV_MODEL_SIZE bytes for vendor and product run together. Of their 24
 *             characters only letters, digits and spaces are kept. Each run of spaces becomes one
 *             space; at the end it is removed, at the beginning it stays.
 *
 * Returns DEV_QUERY_OK or DEV_QUERY_FAILED. */
int Dev_Inquiry(const char *pDevPath, int fd, char *pModel);

#ifdef __cplusplus
}
#endif

#endif
