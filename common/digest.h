#ifndef TALVEK_COMMON_DIGEST_H
#define TALVEK_COMMON_DIGEST_H

/* MD5 (RFC 1321) and SHA-1 (FIPS 180-1) of files, buffers and strings, and the check of a file
 * against an MD5 side file as md5sum writes it.
 *
 * Both are for finding damage, not for withstanding attacks. Digest texts are lower-case
 * hexadecimal and are written without a terminating NUL: 32 characters of MD5, 40 of SHA-1. A
 * caller that wants a text passes a zeroed buffer of one byte more. The argument orders of the two
 * families differ and are fixed: MD5 takes its context first, SHA-1 last. NULL as data counts as
 * empty; with NULL as a context or an output nothing is done. */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_MD5_SIZE = 16,      /* bytes of an MD5 digest */
    COM_MD5_HEX_SIZE = 32,  /* characters of its text */
    COM_SHA1_SIZE = 20,     /* bytes of a SHA-1 digest */
    COM_SHA1_HEX_SIZE = 40, /* characters of its text */
};

/* Contexts belong to the caller. */
typedef struct tMd5Ctx {
    uint32_t state[4];
    uint32_t bits[2]; /* bits taken in so far: low word, high word */
    uint8_t block[64];
} tMd5Ctx;

typedef struct tSha1Ctx {
    uint32_t bytes[2]; /* bytes taken in so far: low word, high word */
    uint32_t state[5];
    uint8_t block[64];
} tSha1Ctx;

/* Begins an MD5 digest. */
void COM_Md5Init(tMd5Ctx *pCtx);

/* Takes in `length` bytes. */
void COM_Md5Update(tMd5Ctx *pCtx, const void *pData, size_t length);

/* Writes the 16-byte digest and wipes the whole context to zero; begin anew with COM_Md5Init. */
void COM_Md5Final(uint8_t *pDigest, tMd5Ctx *pCtx);

/* Writes the 32 characters of a 16-byte digest. */
void COM_Md5DigestToHex(char *pHex, const uint8_t *pDigest);

/* The 32 characters of the MD5 digest of `length` bytes, or of a NUL-terminated string without its
 * NUL. */
void COM_MakeBufMD5(char *pHex, const void *pData, size_t length);
void COM_MakeStrMD5(char *pHex, const char *pText);

/* The 32 characters of the MD5 digest of a file.
 *
 * A file that cannot be read to its end gives the digest of what was read. Returns the result of
 * closing the file, which is 0 as a rule; when the file cannot be opened, pHex stays as it was and
 * the result is what COM_Log returned for the message, a positive count. -1 when pHex is NULL. The
 * call takes 32 KiB of stack. */
int COM_MakeFileMD5(char *pHex, const char *pFileName);

/* Compares a file with the hash in its side file.
 *
 *   pFileName  file to check
 *   pSuffix    what the side file's name has behind that of the file, or NULL for ".md5"
 *
 * The side file (its first 256 bytes) holds hashes, each followed by a file name, between blanks,
 * tabs and line ends. Only last path components are compared, so that the file may lie in any
 * directory; the first that equals the file's decides. Hashes are compared exactly: one in upper
 * case never matches. Names are compared as they stand: the "*" that `md5sum -b` puts before a name
 * without directories belongs to it, and a name with a blank in it is never found.
 *
 * Returns 0 when the file matches, else -1: the hashes differ (both are printed), no hash stands
 * before the name (printed too), no name matches, or the side file is missing or empty (logged). */
int COM_CheckFileMD5(const char *pFileName, const char *pSuffix);

/* Begins a SHA-1 digest. */
void COM_Sha1Init(tSha1Ctx *pCtx);

/* Takes in `length` bytes. */
void COM_Sha1Update(const void *pData, size_t length, tSha1Ctx *pCtx);

/* Writes the 20-byte digest; returns pDigest. */
uint8_t *COM_Sha1Final(uint8_t *pDigest, tSha1Ctx *pCtx);

/* The 20 bytes of the SHA-1 digest of a NUL-terminated string without its NUL (NULL counts as
 * empty), or of `length` bytes. Both return pDigest. */
uint8_t *COM_MakeStrSHA1(uint8_t *pDigest, const char *pText);
uint8_t *COM_MakeBufSHA1(uint8_t *pDigest, const void *pData, size_t length);

/* The 20 bytes of the SHA-1 digest of a file; its text is logged. Results as COM_MakeFileMD5. */
int COM_MakeFileSHA1(uint8_t *pDigest, const char *pFileName);

/* Writes the 40 characters of a 20-byte digest. */
void COM_Sha1DigestToHex(char *pHex, const uint8_t *pDigest);

#ifdef __cplusplus
}
#endif

#endif
