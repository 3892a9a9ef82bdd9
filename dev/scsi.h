#ifndef TALVEK_DEV_SCSI_H
#define TALVEK_DEV_SCSI_H

/* SCSI requests through the Linux generic driver: the one routine that executes them, with its
 * diagnostics, and the two simplest commands.
 *
 * The descriptor is that of a /dev/sg* node, or of a block or optical node, opened for reading and
 * writing and non-blocking. */

#include <assert.h>
#include <scsi/sg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One request. The caller zeroes it whole and fills label and hdr; cdb, sense and reply buffers
 * that hdr points to stay the caller's. */
typedef struct tMmcCmd {
    char label[64];  /* "(<device path>) <COMMAND>" with its NUL, for the log lines */
    sg_io_hdr_t hdr; /* Linux <scsi/sg.h> */
} tMmcCmd;

static_assert(offsetof(tMmcCmd, hdr) == 64, "tMmcCmd");
static_assert(sizeof(void *) != 4 || sizeof(tMmcCmd) == 128, "tMmcCmd");

#define DEV_MMC_TIMEOUT_MS 20000 /* hdr.timeout of every command */
#define DEV_SENSE_SIZE 64        /* hdr.mx_sb_len of every command */
#define DEV_REPLY_SIZE 0x10000   /* the largest reply buffer, in bytes */

/* Executes one request, once.
 *
 *   cmd      interface_id 'S'; dxfer_direction SG_DXFER_FROM_DEV or SG_DXFER_NONE; cmdp, cmd_len
 *            the CDB; sbp, mx_sb_len a zeroed sense buffer; dxferp, dxfer_len a zeroed reply
 *            buffer, dxfer_len being the allocation length of the CDB; timeout in milliseconds.
 *            The results stand in hdr as the driver leaves them (info, status, resid ...).
 *   verbose  1: failures are explained (sense bytes; SCSI, host and driver status) and a success
 *            is told with a hex dump of dxfer_len bytes of the reply; 0: one line per failure
 *
 * Returns 0 for success; -1 when the driver does not tell its version; -2 when the driver is older
 * than 3.0 (version 30000); -3 when the SG_IO ioctl fails; -4 when the device reports CHECK
 * CONDITION with a sense key, ASC or ASCQ (fixed-format sense, SPC-3 4.5.3) that is not zero. A
 * check condition without sense counts as success, since some drives raise it for nothing; it is
 * told on standard output. */
int Dev_ExecMMC(tMmcCmd *cmd, int fd, int verbose);

/* TEST UNIT READY (SPC-3 6.33), up to three times; one second passes after each attempt that
 * fails, the third included.
 *
 *   devPath  for the log lines
 *
 * Returns 1 if the unit is ready, else 0. */
int Dev_TestUnitReady(const char *devPath, int fd);

/* INQUIRY (SPC-3 6.4), with vendor, product and revision logged.
 *
 *   devPath  for the log lines
 *   model    NULL, or 25 bytes: vendor and product run together as at most 24 characters and a NUL.
 *            Letters, digits and single spaces are kept, one leading space among them; further
 *            spaces, a space at the end and every other character are dropped.
 *
 * Returns 1, or 0 with model as it was. */
int Dev_Inquiry(const char *devPath, int fd, char *model);

#ifdef __cplusplus
}
#endif

#endif
