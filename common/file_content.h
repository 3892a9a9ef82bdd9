#ifndef TALVEK_COMMON_FILE_CONTENT_H
#define TALVEK_COMMON_FILE_CONTENT_H

/* Whole files in one call: short texts, blocks of bytes, ring buffers, and the unit's one-line
 * identity files under /etc.
 *
 * A file that cannot be opened is logged with the module name COMMON and the entry's own name; of a
 * read or a write that fails only the result tells, unless the entry says that it is logged. A path
 * is a NUL-terminated text; NULL as a path fails like a path that cannot be read (EFAULT). Files
 * are created with mode 0664 less the umask. No open is tried again. */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the first line of a short text file and appends it to what the buffer holds: clear the
 * buffer first.
 *
 *   pFileName  the file
 *   pBuf       a NUL-terminated text. The result takes `len` bytes behind that text, the NUL
 *              counted. The failure text takes 8 bytes from the start of pBuf, or len + 1 when
 *              `len` is below 7: a buffer of 8 bytes or more and its size as `len` always fit.
 *   len        room in bytes, at least 2 to read anything
 *
 * The file is read in blocks of 255 bytes. Of each block the part before its first CR, LF or NUL is
 * kept, so a file of one short line gives that line without its end, and what a longer file gives
 * depends on where its blocks fall. Reading ends when the room is used, at the end of the file, or
 * when 4096 blocks in a row gave nothing.
 *
 * Returns 0 when at least one byte was read, else -1 with pBuf holding "unknown" cut to `len`
 * characters (a negative `len` does not cut it). A missing file is not logged, nor one that is
 * empty or cannot be read; other failures to open are. With pBuf NULL nothing is written. */
int COM_GetFileContent(const char *pFileName, char *pBuf, int len);

/* Replaces a file's content by a text (without its NUL), in one write.
 * Returns 0 when at least one byte was written, else -1: an empty text empties the file and is
 * reported as a failure. */
int COM_SetFileContent(const char *pFileName, const char *pBuf);

/* COM_SetFileContent that adds the text at the end of the file. */
int COM_AppendFileContent(const char *pFileName, const char *pBuf);

/* Replaces a file's content by `len` bytes, in one write.
 * Returns 0 when all were written, 1 when some were (logged), 0 or -1 as the write returned when
 * none were, -1 when the file cannot be opened. */
int COM_SaveDataIntoFile(const char *pFileName, const void *pData, int len);

/* Replaces a file's content by `len` bytes of a ring buffer in their order.
 *
 *   pRing     the ring's first byte
 *   start     offset of the first byte to save, 0 to ringSize
 *   ringSize  size of the ring in bytes; below 1, pRing is a plain buffer without a wrap
 *   len       bytes to save, at most ringSize
 *
 * Partial writes are continued; the thousandth write in a row that takes nothing counts as failed
 * (EIO). A file that exists must belong to the caller, or the caller be privileged (O_NOATIME).
 *
 * Returns 0 when all were written; also, with the write's failure logged, when nothing of a piece
 * that does not wrap could be written. 1 when some were written (logged). -1 when the file cannot
 * be opened, when the part up to the end of a ring that wraps could not be written whole, or when
 * that part is empty (start = ringSize). */
int COM_SaveRingBufDataIntoFile(const char *pFileName, const void *pRing, int start, int ringSize,
                                int len);

/* Reads up to `len` bytes from the start of a file, in one read. No NUL is added.
 * Returns 0 when `len` bytes were read, 1 when fewer but some, 0 (end of file) or -1 as the read
 * returned when none were, -1 when the file cannot be opened (logged). */
int COM_LoadDataFromFile(const char *pFileName, void *pBuf, int len);

/* Reads the unit's port number, a text, from /etc/Port: COM_GetFileContent with its rules for the
 * buffer. When that returns -1 the result stays -1 and pBuf holds "80", cut to size - 1. */
int COM_GetPort(char *pBuf, int size);

/* Writes the unit's port number to /etc/Port: its first seven characters in decimal.
 * Returns 0 or -1. */
int COM_SetPort(int port);

/* Sets the kernel's host name (up to 64 characters) and, when that succeeded, writes it to
 * /etc/hostname too. Returns 0 when the kernel took the name, else -1 (not logged). */
int COM_SetHostName(const char *pName);

/* A unit's identity. The fields are NUL-terminated texts. The record is laid out as the first 304
 * bytes of tUnitNetInfo (unit_info.h), whose fields from the address up to the interface lie in the
 * room of host_name behind the name itself. */
typedef struct tUnitInfo {
    char model[32];      /* /etc/Model */
    char project[32];    /* /etc/Proj */
    char host_name[176]; /* /etc/hostname and the kernel's host name */
    char note[64];       /* /etc/Note */
} tUnitInfo;

/* Writes the identity of this unit. An empty field empties its file and counts as a failure
 * (COM_SetFileContent); an empty host name does not, as the kernel takes it.
 * Returns the sum of the four results: 0 when all succeeded, else minus the number that failed. */
int COM_SetUnitInfo(const tUnitInfo *pInfo);

/* Makes a file-system node unless the path exists already, whatever it is.
 *
 *   mode  type and permission bits (mknod(2)), the latter less the umask
 *   dev   device number, for S_IFCHR and S_IFBLK
 *
 * Returns 0 when it exists or was made, else -1. */
int COM_MakeNode(const char *pPath, mode_t mode, dev_t dev);

/* Reads the revision of the unit's software from the first 256 bytes of /etc/SVN: the letters and
 * digits behind "Revision: ". A revision of digits alone is written with at least four ("0123") and
 * without further zeros before it.
 *
 *   pBuf  247 bytes hold the longest revision and its NUL
 *
 * Returns 0, or -1 with nothing written when the file or the mark is missing or pBuf is NULL. */
int COM_GetSvnRevision(char *pBuf);

#ifdef __cplusplus
}
#endif

#endif
