#ifndef TALVEK_SERVICE_PACKAGE_H
#define TALVEK_SERVICE_PACKAGE_H

/* The package that client and daemon exchange: a header of 16 bytes, then a payload. Fields of
 * several bytes are little-endian. docs/package-format.md draws the layout. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Largest package in bytes, header included. Neither end sends or accepts more. */
#define TALVEK_PKG_MAX 1152

/* The protocol version that stands in `ver`. */
#define TALVEK_PKG_VERSION 1

/* Values of `type`. All others are not implemented. */
#define TALVEK_PKG_REGISTER 1 /* name=value strings, each with its NUL; the daemon echoes them */
#define TALVEK_PKG_COMMAND 2  /* the command text with its NUL */
#define TALVEK_PKG_RESULT 5   /* the status as a signed 32-bit integer: 0 to 255, or -1 */

/* The header. It may stand at any address, over bytes of any other type. */
typedef struct __attribute__((packed, may_alias)) tTalvekPkg {
    uint8_t ver_fragement; /* bits 0-6 ver: 1; bit 7 fragement: 1 = one of several packages */
    uint8_t pkg_cnt_idx;   /* bits 0-3 pkg_cnt: packages of the message; bits 4-7 pkg_idx: number
                              of this one, from 1 */
    uint16_t reserved;     /* 0 in what is built; covered by the checksum, not checked otherwise */
    uint32_t session;      /* given out by the daemon; 0 in the first package of a client */
    uint16_t sn;           /* sequence number, counted by each end for what it sends */
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
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the record is laid over little-endian packages");

/* One connection of the daemon. The daemon fills it; the handler of the connection uses it. */
typedef struct tTalvekClient {
    int32_t daemon_pid; /* process id of the listening process */
    int32_t fd;         /* the accepted connection; -1 when there is none */
    int32_t number;     /* count of accepted connections up to this one, which is counted too */
    int32_t session;    /* number that the client holds; 0 at first, -1 after its release */
    uint16_t sn;        /* sequence counter of the daemon's replies, 0 at first */
} tTalvekClient;

/* The checksum that belongs into a header: its first 14 bytes as seven little-endian 16-bit words,
 * all joined by exclusive or. The payload is not covered. 0 for NULL. */
uint16_t TALVEK_CalcPkgChecksum(const tTalvekPkg *pPkg);

/* Checks the header of a package, which may still be incomplete.
 *
 *   pPkg      the bytes received so far
 *   received  how many they are
 *
 * A good header has `ver` 1, either `fragement` 0 with `pkg_cnt` 1 or `fragement` 1 with `pkg_cnt`
 * 2 or more, a `pkg_idx` no greater than `pkg_cnt`, and the right checksum. `sz` is not judged:
 * the caller holds it against the bytes that it has and against its buffer.
 *
 * Returns `type` of a good header (0 when that is the type). Returns 0 for NULL and for fewer than
 * 16 bytes, silently, and for a bad header with a dump of it in the log. */
int TALVEK_CheckPkgHeader(const tTalvekPkg *pPkg, uint32_t received);

/* Writes a package to the client's connection, in as many writes as it takes.
 *
 *   pClient  its fd is written to
 *   pPkg     header and payload
 *   size     bytes of both together
 *
 * Returns 0, or -1 as soon as a write fails or writes nothing; what was written until then has left
 * the process. -1 for NULL. */
int TALVEK_SendPkg(const tTalvekClient *pClient, const tTalvekPkg *pPkg, uint32_t size);

/* Takes the strings of a register package into the environment of this process (setenv, existing
 * values are overwritten).
 *
 *   pPayload  name=value strings, each closed by a NUL; not changed
 *   length    bytes of all strings with their NULs
 *
 * A string without "=" ends the walk. One with an empty name is passed over. A last string without
 * a NUL ends with the payload. Without memory for a copy of the payload nothing is taken over. Not
 * to be called while other threads use the environment. */
void TALVEK_SetEnvFromPkg(const char *pPayload, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif
