#ifndef TALVEK_SERVICE_PACKAGE_H
#define TALVEK_SERVICE_PACKAGE_H

/* The package that client and daemon exchange: a header of 16 bytes, then the payload. Fields of
 * several bytes are little-endian. docs/package-format.md draws the layout. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "../common/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Largest package in bytes, header included. Neither end sends or accepts more. */
#define TALVEK_PKG_MAX 1152

/* Values and bits of the first two bytes. */
#define TALVEK_PKG_VERSION 1      /* `ver` */
#define TALVEK_PKG_VER_MASK 0x7F  /* `ver` in the first byte */
#define TALVEK_PKG_FRAGEMENT 0x80 /* `fragement` in the first byte */
#define TALVEK_PKG_CNT_MASK 0x0F  /* `pkg_cnt` in the second byte */
#define TALVEK_PKG_IDX_SHIFT 4    /* bits below `pkg_idx` in the second byte */
#define TALVEK_PKG_SINGLE 0x11    /* the second byte of a single package */

/* Values of `type` and their payloads. All others are not implemented. */
#define TALVEK_PKG_REGISTER 1 /* name=value strings, each with its NUL; the daemon echoes them */
#define TALVEK_PKG_COMMAND 2  /* the command text with its NUL */
#define TALVEK_PKG_RESULT 5   /* the status, a signed 32-bit integer: 0 to 255, or -1 */

/* The header. It may be at any address, over bytes of any other type. */
typedef struct __attribute__((packed, may_alias)) tTalvekPkg {
    uint8_t ver_fragement; /* bits 0-6 ver: 1; bit 7 fragement: 1 = one of several packages */
    uint8_t pkg_cnt_idx;   /* bits 0-3 pkg_cnt: packages of the message; bits 4-7 pkg_idx: number
                              of this one, from 1 */
    uint16_t reserved;     /* 0 when built here; covered by the checksum, otherwise not checked */
    uint32_t session;      /* assigned by the daemon; 0 in the first package of a client */
    uint16_t sn;           /* sequence number; each end counts what it sends */
    uint16_t type;         /* TALVEK_PKG_... */
    uint16_t sz;           /* bytes of the whole package, header included */
    uint16_t chksum;       /* exclusive or of the seven 16-bit words before it */
} tTalvekPkg;

static_assert(sizeof(tTalvekPkg) == 16, "the header of a package");
static_assert(offsetof(tTalvekPkg, reserved) == 2, "tTalvekPkg");
static_assert(offsetof(tTalvekPkg, session) == 4, "tTalvekPkg");
static_assert(offsetof(tTalvekPkg, sn) == 8, "tTalvekPkg");
static_assert(offsetof(tTalvekPkg, type) == 10, "tTalvekPkg");
static_assert(offsetof(tTalvekPkg, sz) == 12, "tTalvekPkg");
static_assert(offsetof(tTalvekPkg, chksum) == 14, "tTalvekPkg");

/* One connection of the daemon. The daemon fills it in for the handler. */
typedef struct tTalvekClient {
    int32_t daemon_pid; /* process id of the listening process */
    int32_t fd;         /* the accepted connection; -1 for none */
    int32_t number;     /* number of this connection, counted from 1 */
    int32_t session;    /* session number of the client; 0 at first, -1 after its release */
    uint16_t sn;        /* sequence counter of the replies, 0 at first */
} tTalvekClient;

/* Returns the checksum of a header: the exclusive or of its first seven little-endian 16-bit
 * words, 0 for NULL. The payload is not covered. */
uint16_t TALVEK_CalcPkgChecksum(const tTalvekPkg *pPkg);

/* Checks the header of a package whose payload may still be incomplete.
 *
 *   pPkg      the bytes received so far
 *   received  their number
 *
 * A good header has `ver` 1; `fragement` 0 with `pkg_cnt` 1, or `fragement` 1 with `pkg_cnt` 2 or
 * more; a `pkg_idx` no greater than `pkg_cnt`; and the correct checksum. `sz` is not checked: the
 * caller compares it with the number of bytes that it has and with the size of its buffer.
 *
 * Returns the `type` of a good header, which may be 0. Returns 0 for NULL and for fewer than 16
 * bytes without a message, and for a bad header after a dump of it in the log. */
int TALVEK_CheckPkgHeader(const tTalvekPkg *pPkg, uint32_t received);

/* Writes a package to the client's connection, in as many writes as it takes.
 *
 *   pClient  its fd is written to
 *   pPkg     header and payload
 *   size     bytes of both together
 *
 * Returns 0, or -1 as soon as a write fails (with its errno) or writes nothing. The bytes before
 * that have been sent. -1 for NULL. Nothing is logged. */
int TALVEK_SendPkg(const tTalvekClient *pClient, const tTalvekPkg *pPkg, uint32_t size);

/* Adds the strings of a register package to the environment of this process (setenv); existing
 * values are overwritten.
 *
 *   pPayload  name=value strings, each with its NUL; not changed
 *   length    bytes of all strings with their NULs
 *
 * The first string without "=" and all strings after it are ignored. A string with an empty name is
 * skipped. A last string without a NUL ends with the payload. Without memory for a copy of the
 * payload nothing is added (not logged). Other threads must not use the environment meanwhile. */
void TALVEK_SetEnvFromPkg(const char *pPayload, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif
