#ifndef TALVEK_COMMON_MEDIA_H
#define TALVEK_COMMON_MEDIA_H

/* Look-ups of programs that serve media over HTTP: content types, audio codecs, the challenge of
 * HTTP Digest authentication (RFC 7616), units of an H.264 byte stream (ITU-T H.264 annexes B and
 * D), and the Internet checksum (RFC 1071).
 *
 * Texts are NUL-terminated, counts are in bytes, and a number that is not wanted may be NULL. After
 * -1 all outputs are as they were. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Tells the content type for a file name by what stands behind its last ".": avi, rpt, txt, log,
 * jpg, jpe, jpeg, gif, bmp, pdf, rar, xml, zip, mpeg, mpg, mpe, mp4, in this case only. Each call
 * is logged.
 *
 * Returns a static text, "text/plain" for any other extension, for none and for NULL. */
const char *COM_GetMimeType(const char *pFileName);

/* Tells the identifier of a narrow-band audio codec that a session description names.
 *
 *   pName    "PCMU", "PCMA", "G726-16", "G726-24", "G726-32" or "G726-40", in any case
 *   pSecond  receives 8, whatever the name
 *   pId      receives 7, 6, 0x4000, 0x4001, 0x4002 or 0x4003; 0 for any other name and for NULL
 *
 * Returns 0. */
int COM_GetAudioCodecId(const char *pName, int *pSecond, int *pId);

/* The challenge of a server that asks for Digest authentication. It is the last part of a program's
 * own authentication record; hand in the address of this part. */
typedef struct tDigestChallenge {
    char realm[80];
    char qop[16];
    char nonce[80];
    char opaque[80];
} tDigestChallenge;
static_assert(sizeof(tDigestChallenge) == 256, "four texts without gaps");
static_assert(offsetof(tDigestChallenge, qop) == 80, "behind the realm");
static_assert(offsetof(tDigestChallenge, nonce) == 96, "behind the quality of protection");
static_assert(offsetof(tDigestChallenge, opaque) == 176, "behind the nonce");

/* Takes realm, qop, nonce and opaque, each in double quotes, out of the first
 * "WWW-Authenticate: Digest" of a header block (in any case). What the header line does not have is
 * taken from the lines behind it.
 *
 *   pRec  a parameter that is missing leaves its field as it was, an empty one makes it empty; one
 *         that is longer than its field is cut, its NUL is the field's last byte, and the log warns
 *
 * Returns 0, or -1 when the header is not there or an argument is NULL. */
int COM_ParseDigestChallenge(const char *pHeaders, tDigestChallenge *pRec);

/* Finds the first start code 00 00 00 01 that at least one byte follows. Start codes of three bytes
 * are not recognised.
 *
 *   pBuf      `len` bytes
 *   pNalType  receives the type of the unit (0 to 31)
 *
 * Returns the offset of the start code, or -1. */
int COM_FindStartCode(const void *pBuf, int len, int *pNalType);

/* Finds the first SEI unit (type 6) and reads the type and the size of its first message (H.264,
 * 7.3.2.3.1: each byte FF counts 255, the first other byte ends the number). Emulation prevention
 * bytes are not looked for.
 *
 *   pBuf          `len` bytes
 *   pPayloadType  receives the payload's type
 *   pPayloadSize  receives the payload's size in bytes, as it is told; it may promise more bytes
 *                 than there are
 *
 * Returns the offset of the unit's start code; -1 when there is no SEI unit, or the bytes end
 * within the two numbers. */
int COM_FindSeiPayload(const void *pBuf, int len, int *pPayloadType, int *pPayloadSize);

/* Computes the Internet checksum (RFC 1071): the complement of the one's complement sum of the
 * 16-bit words as they lie in memory. A last odd byte is taken with a zero byte behind it.
 *
 *   pData  `len` bytes at any address; NULL or a length of 0 and below count as no bytes (0xFFFF)
 *
 * The result is in memory order too: stored as a uint16_t, it is the checksum on the wire. Over
 * bytes that hold their right checksum the result is 0. */
uint16_t COM_CheckSum16(const void *pData, int len);

#ifdef __cplusplus
}
#endif

#endif
