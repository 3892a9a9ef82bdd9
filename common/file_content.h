#ifndef TALVEK_COMMON_FILE_CONTENT_H
#define TALVEK_COMMON_FILE_CONTENT_H

/* Reads or writes a whole file in one call: short texts, blocks of bytes, ring buffers, and the
 * unit's identity files under /etc, which hold one line each.
 *
 * A file that cannot be opened is logged. A read or write that fails is only reported by the
 * result, unless the entry says that it is logged. A new file gets mode 0664 less the umask. A
 * write that is cut short is continued until everything is written or a write fails. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the first line of a short text file and appends it to the text in the buffer. Empty the
 * buffer first to get the line alone.
 *
 *   pFileName  the file
 *   pBuf       a text. Up to `size` bytes are written at the end of that text, including the NUL.
 *              After a failure, "unknown" is written at the start of pBuf: 8 bytes, or size + 1
 *              when `size` is below 7. So an empty buffer of 8 or more bytes with its size always
 *              suffices.
 *   size       room in bytes; at least 2 to read anything
 *
 * The file is read in blocks of 255 bytes, and each block is kept up to its first CR, LF or NUL. So
 * a file of one short line gives that line without its end; what a longer file gives depends on
 * where its blocks begin. Reading ends when `size` is used up, at the end of the file, at a failed
 * read, and after 4096 blocks in a row without a character to keep.
 *
 * Returns 0 when at least one byte was read. Otherwise -1, and pBuf holds "unknown", truncated to
 * `size` characters (a negative size does not truncate). A missing file is not logged, nor is an
 * empty file or a failed read; other failures to open a file are. */
int COM_GetFileContent(const char *pFileName, char *pBuf, int size);

/* Replaces the content of a file with a text, without its NUL.
 *
 * Returns 0 when at least one byte was written, also when the disk had no room for the rest, else
 * -1. So an empty text empties the file and returns -1. */
int COM_SetFileContent(const char *pFileName, const char *pText);

/* Appends a text to a file. Otherwise like COM_SetFileContent. */
int COM_AppendFileContent(const char *pFileName, const char *pText);

/* Results of COM_SaveDataIntoFile, COM_SaveRingBufDataIntoFile and COM_LoadDataFromFile. */
enum {
    COM_DATA_COMPLETE = 0, /* all bytes; or none, in the cases that the entry names */
    COM_DATA_PARTIAL = 1,  /* at least one byte, but not all */
};

/* Replaces the content of a file with `size` bytes. With NULL as data the write fails: the file is
 * empty then. Returns
 *
 *   COM_DATA_COMPLETE  when all bytes were written, or the first write took no byte without failing
 *   COM_DATA_PARTIAL   when some were written (logged)
 *   -1                 when the file cannot be opened or the first write fails */
int COM_SaveDataIntoFile(const char *pFileName, const void *pData, int size);

/* Replaces the content of a file with `size` bytes of a ring buffer, in the order in which they
 * were put there.
 *
 *   pRing     first byte of the ring; with NULL the write fails
 *   start     offset of the first byte to save, 0 to ringSize
 *   ringSize  size of the ring in bytes; below 1, pRing is a plain buffer that does not wrap
 *   size      bytes to save, at most ringSize
 *
 * A write that takes no byte is repeated too; the thousandth in a row is a failure (EIO). An
 * existing file must belong to the caller, unless the caller is privileged (O_NOATIME).
 *
 * Returns
 *
 *   COM_DATA_COMPLETE  when all bytes were written; also when they do not wrap and none was written
 *                      (the failed write is logged)
 *   COM_DATA_PARTIAL   when some were written (logged)
 *   -1                 when the file cannot be opened; also when the bytes wrap and the part up to
 *                      the end of the ring was not completely written (logged) or is empty
 *                      (start = ringSize) */
int COM_SaveRingBufDataIntoFile(const char *pFileName, const void *pRing, int start, int ringSize,
                                int size);

/* Reads up to `size` bytes from the start of a file, in one read. No NUL is added. Returns
 *
 *   COM_DATA_COMPLETE  when `size` bytes were read, or none because the file is empty
 *   COM_DATA_PARTIAL   when fewer were read
 *   -1                 when the file cannot be opened or read */
int COM_LoadDataFromFile(const char *pFileName, void *pBuf, int size);

enum {
    COM_DEFAULT_PORT = 80,
    COM_PORT_SIZE = 8, /* bytes for a port number as text, including the NUL */
};

/* Reads the unit's port number from /etc/Port into a text, by the rules of COM_GetFileContent. When
 * that returns -1, so does this, and pBuf holds COM_DEFAULT_PORT, truncated to size - 1
 * characters. */
int COM_GetPort(char *pBuf, int size);

/* Writes the unit's port number to /etc/Port in decimal, truncated to COM_PORT_SIZE - 1 characters.
 * Returns 0 or -1. */
int COM_SetPort(int port);

/* Sets the kernel's host name (at most 64 characters) and then writes it to /etc/hostname. Returns
 * 0 when the kernel accepted the name, whether or not the file could be written; else -1 (not
 * logged). */
int COM_SetHostName(const char *pName);

enum {
    COM_UNIT_MODEL_SIZE = 32, /* sizes of identity texts in bytes, including the NUL */
    COM_UNIT_PROJECT_SIZE = 32,
    COM_UNIT_NOTE_SIZE = 64,
};

/* A unit's identity. The layout is that of the first 304 bytes of tUnitNetInfo (unit_info.h);
 * host_name covers that record's fields from `name` to `dev`. */
typedef struct tUnitInfo {
    char model[COM_UNIT_MODEL_SIZE];     /* /etc/Model */
    char project[COM_UNIT_PROJECT_SIZE]; /* /etc/Proj */
    char host_name[176];                 /* /etc/hostname and the kernel's host name */
    char note[COM_UNIT_NOTE_SIZE];       /* /etc/Note */
} tUnitInfo;
static_assert(sizeof(tUnitInfo) == 304, "the record has no gaps");
static_assert(offsetof(tUnitInfo, host_name) == 64, "the host name follows the project");
static_assert(offsetof(tUnitInfo, note) == 240, "the note follows the host name");

/* Writes the identity of this unit. An empty field empties its file and counts as a failure (see
 * COM_SetFileContent). An empty host name is no failure, because the kernel accepts it.
 *
 * Returns the sum of the four results: 0 when all succeeded, else minus the number of failures. */
int COM_SetUnitInfo(const tUnitInfo *pInfo);

/* Creates a file-system node, unless anything exists at the path.
 *
 *   mode  file type and permission bits (mknod(2)), less the umask
 *   dev   device number, for S_IFCHR and S_IFBLK
 *
 * Returns 0 when it exists or was created, else -1. */
int COM_MakeNode(const char *pPath, mode_t mode, dev_t dev);

enum {
    COM_SVN_REVISION_SIZE = 247, /* bytes for the longest revision and its NUL */
};

/* Reads the revision of the unit's software: the letters and digits after "Revision: " in the first
 * 256 bytes of /etc/SVN. A revision of digits only is written as a number of at least four digits:
 * "123" and "000123" become "0123".
 *
 *   pBuf  COM_SVN_REVISION_SIZE bytes
 *
 * Returns 0, or -1 with pBuf unchanged when the file or "Revision: " is missing. */
int COM_GetSvnRevision(char *pBuf);

#ifdef __cplusplus
}
#endif

#endif
