#ifndef TALVEK_COMMON_DIGEST_H
#define TALVEK_COMMON_DIGEST_H

/* MD5 (RFC 1321) and SHA-1 (FIPS 180-1) of files, buffers and strings, and the check of a file
 * against an MD5 side file as md5sum writes it. Both digests find damage; they do not withstand
 * attacks.
 *
 * The text of a digest is lower-case hexadecimal and is written without a terminating NUL. For a
 * NUL-terminated text, pass a zeroed buffer of one byte more. The two families order their
 * arguments differently: MD5 takes its context first, SHA-1 last. NULL as data counts as no
 * data. */

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

    COM_DIGEST_BLOCK_SIZE = 64, /* bytes of a block of either algorithm */
};

typedef struct tMd5Ctx {
    uint32_t state[4];
    uint32_t bits[2]; /* number of bits so far: low word, high word */
    uint8_t block[COM_DIGEST_BLOCK_SIZE];
} tMd5Ctx;

typedef struct tSha1Ctx {
    uint32_t bytes[2]; /* number of bytes so far: low word, high word */
    uint32_t state[5];
    uint8_t block[COM_DIGEST_BLOCK_SIZE];
} tSha1Ctx;

/* Begins an MD5 digest. */
void COM_Md5Init(tMd5Ctx *pCtx);

/* Adds `size` bytes to the digest. */
void COM_Md5Update(tMd5Ctx *pCtx, const void *pData, size_t size);

/* Writes the digest of COM_MD5_SIZE bytes and zeroes the context. Call COM_Md5Init before the next
 * digest. */
void COM_Md5Final(uint8_t *pDigest, tMd5Ctx *pCtx);

/* Writes the COM_MD5_HEX_SIZE characters of a digest. */
void COM_Md5DigestToHex(char *pHex, const uint8_t *pDigest);

/* Writes the COM_MD5_HEX_SIZE characters of the MD5 digest of `size` bytes, or of a text without
 * its NUL. */
void COM_MakeBufMD5(char *pHex, const void *pData, size_t size);
void COM_MakeStrMD5(char *pHex, const char *pText);

/* Writes the COM_MD5_HEX_SIZE characters of the MD5 digest of a file. If a read fails, this is the
 * digest of the bytes before the failure.
 *
 * Returns the result of closing the file, usually 0. When the file cannot be opened (also for a
 * NULL path), the result is that of COM_Log for the message, a positive number. -1 when pHex is
 * NULL. */
int COM_MakeFileMD5(char *pHex, const char *pFileName);

/* Compares the MD5 digest of a file with the hash in its side file.
 *
 *   pFileName  the file to check
 *   pSuffix    added to pFileName, it gives the name of the side file; NULL means ".md5"
 *
 * The side file contains hashes, each followed by a file name, separated by blanks, tabs and line
 * ends. Its first 256 bytes are read. The first name whose last path component equals that of
 * pFileName decides, so the directories may differ. Hashes are compared exactly, so one in upper
 * case does not match. The "*" that `md5sum -b` puts before a name counts as part of it. A name
 * with a blank is not found.
 *
 * Returns 0 when the file matches. Otherwise -1: the hashes differ or no hash precedes the name
 * (both hashes are printed), no name matches, or the side file is missing or empty (logged). */
int COM_CheckFileMD5(const char *pFileName, const char *pSuffix);

/* Begins a SHA-1 digest. */
void COM_Sha1Init(tSha1Ctx *pCtx);

/* Adds `size` bytes to the digest. */
void COM_Sha1Update(const void *pData, size_t size, tSha1Ctx *pCtx);

/* Writes the digest of COM_SHA1_SIZE bytes and returns pDigest; with a NULL context nothing is
 * written. */
uint8_t *COM_Sha1Final(uint8_t *pDigest, tSha1Ctx *pCtx);

/* Writes the COM_SHA1_SIZE bytes of the SHA-1 digest of a text without its NUL (NULL is an empty
 * text), or of `size` bytes. Both return pDigest. */
uint8_t *COM_MakeStrSHA1(uint8_t *pDigest, const char *pText);
uint8_t *COM_MakeBufSHA1(uint8_t *pDigest, const void *pData, size_t size);

/* Writes the COM_SHA1_SIZE bytes of the SHA-1 digest of a file and logs its text. Otherwise like
 * COM_MakeFileMD5. */
int COM_MakeFileSHA1(uint8_t *pDigest, const char *pFileName);

/* Writes the COM_SHA1_HEX_SIZE characters of a digest. */
void COM_Sha1DigestToHex(char *pHex, const uint8_t *pDigest);

#ifdef __cplusplus
}
#endif

#endif
