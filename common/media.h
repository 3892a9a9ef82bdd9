#ifndef TALVEK_COMMON_MEDIA_H
#define TALVEK_COMMON_MEDIA_H

/* Helpers of programs that serve media over HTTP: content types, audio codecs, the challenge of
 * HTTP Digest authentication (RFC 7616), units of an H.264 byte stream (ITU-T H.264 annexes B and
 * D), and the Internet checksum (RFC 1071).
 *
 * An output for a number may be NULL if the caller does not need the number. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the content type for a file name, by the extension after its last ".": avi, rpt, txt,
 * log, jpg, jpe, jpeg, gif, bmp, pdf, rar, xml, zip, mpeg, mpg, mpe, mp4, lower case only. The type
 * is "text/plain" for any other extension, for a name without one, and for NULL. The result is a
 * constant text. Each call is logged. */
const char *COM_GetMimeType(const char *pFileName);

/* Identifiers of narrow-band audio codecs. */
enum {
    COM_AUDIO_CODEC_UNKNOWN = 0,
    COM_AUDIO_CODEC_PCMA = 6,
    COM_AUDIO_CODEC_PCMU = 7,
    COM_AUDIO_CODEC_G726_16 = 0x4000,
    COM_AUDIO_CODEC_G726_24 = 0x4001,
    COM_AUDIO_CODEC_G726_32 = 0x4002,
    COM_AUDIO_CODEC_G726_40 = 0x4003,

    COM_AUDIO_CODEC_SECOND = 8, /* the value of *pSecond for every name */
};

/* Returns the identifier of an audio codec by its name in a session description.
 *
 *   pName    "PCMU", "PCMA", "G726-16", "G726-24", "G726-32" or "G726-40"; ASCII case is ignored
 *   pSecond  receives COM_AUDIO_CODEC_SECOND for every name
 *   pId      receives the codec's identifier; COM_AUDIO_CODEC_UNKNOWN for any other name and for
 *            NULL
 *
 * Returns 0. */
int COM_GetAudioCodecId(const char *pName, int *pSecond, int *pId);

enum {
    COM_DIGEST_VALUE_SIZE = 80, /* bytes for a realm, nonce or opaque value, including the NUL */
    COM_DIGEST_QOP_SIZE = 16,   /* bytes for the quality of protection, including the NUL */
};

/* The challenge of a server that requests Digest authentication. A program's authentication record
 * ends with it; pass the address of this part. */
typedef struct tDigestChallenge {
    char realm[COM_DIGEST_VALUE_SIZE];
    char qop[COM_DIGEST_QOP_SIZE];
    char nonce[COM_DIGEST_VALUE_SIZE];
    char opaque[COM_DIGEST_VALUE_SIZE];
} tDigestChallenge;
static_assert(sizeof(tDigestChallenge) == 256, "the record has no gaps");
static_assert(offsetof(tDigestChallenge, qop) == 80, "qop follows the realm");
static_assert(offsetof(tDigestChallenge, nonce) == 96, "the nonce follows qop");
static_assert(offsetof(tDigestChallenge, opaque) == 176, "opaque follows the nonce");

/* Reads realm, qop, nonce and opaque, each in double quotes, from the first
 * "WWW-Authenticate: Digest" of a header block (ASCII case is ignored). A parameter that this
 * header does not have is taken from a later one.
 *
 *   pRec  a missing parameter leaves its field unchanged, and an empty one empties it. A value that
 *         does not fit with its NUL is truncated, and a warning is logged.
 *
 * Returns 0, or -1 without the header. */
int COM_ParseDigestChallenge(const char *pHeaders, tDigestChallenge *pRec);

enum {
    COM_NAL_TYPE_SEI = 6, /* nal_unit_type of supplemental enhancement information */
};

/* Finds the first start code 00 00 00 01 that is followed by at least one byte. Start codes of
 * three bytes are not recognised.
 *
 *   pBuf      `size` bytes
 *   pNalType  receives the unit's nal_unit_type (0 to 31)
 *
 * Returns the offset of the start code, or -1. */
int COM_FindStartCode(const void *pBuf, int size, int *pNalType);

/* Finds the first SEI unit and reads the type and the size of its first message (H.264, 7.3.2.3.1:
 * each byte FF adds 255, the first other byte is added last). Emulation-prevention bytes are not
 * removed.
 *
 *   pBuf          `size` bytes
 *   pPayloadType  receives the payload type
 *   pPayloadSize  receives the payload size in bytes, which may exceed the bytes that follow
 *
 * Returns the offset of the unit's start code; -1 without an SEI unit, or when the bytes end inside
 * the two numbers. */
int COM_FindSeiPayload(const void *pBuf, int size, int *pPayloadType, int *pPayloadSize);

/* Computes the Internet checksum (RFC 1071): the complement of the one's complement sum of the
 * 16-bit words in memory order. An odd last byte is padded with a zero byte.
 *
 *   pData  `size` bytes at any address; with NULL, or a size of 0 or less, the result is 0xFFFF
 *
 * Returns the checksum in memory order: stored as a uint16_t, it is the checksum on the wire. For
 * bytes that include their correct checksum it is 0. */
uint16_t COM_CheckSum16(const void *pData, int size);

#ifdef __cplusplus
}
#endif

#endif
