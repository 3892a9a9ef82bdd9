#ifndef TALVEK_COMMON_IO_H
#define TALVEK_COMMON_IO_H

/* Small operations on processes, sockets, escaped texts and ring buffers. Only COM_SetSockTimeout
 * logs. */

#ifdef __cplusplus
extern "C" {
#endif

/* Finds out whether a process runs: whether some /proc/<pid>/cmdline contains a text in its first
 * 127 bytes. The arguments there are separated by NUL bytes, so only the name that the program was
 * called by (argv[0], up to a newline) is compared.
 *
 *   pText  the text, with case; an empty one is contained in every command line. The caller's own
 *          process counts too.
 *
 * Returns 0 when there is one, else -1; also when /proc cannot be opened. */
int COM_CheckProcExist(const char *pText);

/* Decodes the escapes of quoted-printable text (RFC 2045, 6.7): "=" and two hexadecimal digits in
 * upper or lower case become one byte. An "=" that is followed by anything else is copied, so a
 * soft line break stays.
 *
 *   pDst  room for strlen(pSrc) bytes; no NUL is added. May be pSrc itself.
 *   pSrc  the text
 *
 * Returns the number of bytes written, or -1 when an argument is NULL. */
int COM_DecodeHexEscape(char *pDst, const char *pSrc);

/* Sends `size` bytes, in as many calls of send as it takes. A peer that has closed gives an error,
 * not SIGPIPE (MSG_NOSIGNAL).
 *
 * Returns the number of bytes left unsent: 0 when all were sent; `size` itself when it is below 1
 * or pData is NULL. */
int COM_SendAll(int sock, const void *pData, int size);

/* Copies out of a ring buffer.
 *
 *   pDst      `size` bytes; does not overlap the ring
 *   pRing     the ring's first byte
 *   offset    where the copy begins, 0 to ringSize; the caller keeps and wraps it
 *   ringSize  size of the ring in bytes; below 1, pRing is a plain buffer without a wrap
 *   size      bytes to copy, also more than ringSize: the copy wraps as often as it must
 *
 * Nothing is copied when a pointer is NULL, `size` is below 1 or `offset` is outside the ring. */
void COM_ReadRingBuf(void *pDst, const void *pRing, int offset, int ringSize, int size);

/* Copies into a ring buffer, the reverse of COM_ReadRingBuf. After a copy that is longer than the
 * ring, the ring holds the last bytes. */
void COM_WriteRingBuf(void *pRing, int offset, int ringSize, const void *pSrc, int size);

/* Sleeps, with a line on standard output before and after the sleep when there is a tag.
 *
 *   sec, nsec  time to sleep; nsec is 0 to 999999999
 *   pTag       shown with `line` in both lines; NULL for none
 *
 * A signal ends the sleep early. Returns nanosleep's result (0 or -1) without a tag; with one, the
 * number of bytes of the second line, or a negative number when it could not be written. */
int COM_SleepTrace(int sec, int nsec, const char *pTag, int line);

/* Sets a socket's send and receive time-outs (SO_SNDTIMEO, SO_RCVTIMEO, socket(7)); 0 waits for
 * ever.
 *
 * Returns 0, or -1 when one cannot be set (logged); the receive time-out is unchanged then. */
int COM_SetSockTimeout(int sock, int seconds);

#ifdef __cplusplus
}
#endif

#endif
