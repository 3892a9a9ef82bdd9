#ifndef TALVEK_COMMON_FILE_H
#define TALVEK_COMMON_FILE_H

/* Small file-system operations: directories, links, moves, line-wise editing, growing buffers.
 *
 * Failures are logged with the module name COMMON and the entry's own name. A path is a
 * NUL-terminated text; NULL is a failure unless the entry says otherwise. */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a directory with all the directories that lead to it.
 *
 *   pPath  the directory, with or without a "/" at the end
 *   mode   permission bits of each directory made, less the umask
 *
 * Returns 0 when the whole path exists or was made, else -1 (also when something else than a
 * directory has the name); what was made before the failure stays. What stands before the last "/"
 * may have up to 254 bytes; a longer one is not made (ENAMETOOLONG). */
int COM_Mkdir(const char *pPath, mode_t mode);

/* Removes what a directory holds. Entries named "lost+found" are always passed over, so that the
 * root of a mounted file system can be emptied.
 *
 *   recursive   1 descends into subdirectories and removes them too; any other value leaves them
 *   pDir        the directory
 *   removeSelf  not 0: the directory itself is removed at the end
 *
 * Symbolic links are followed by the look at an entry: a link to a directory counts as one (what
 * the directory holds is removed, the link itself cannot be), a link that leads nowhere, or back to
 * a directory that is being emptied, is a failure. The root directory, by whatever path or link, is
 * never emptied: it counts as one that cannot be opened (EINVAL).
 *
 * Returns the number of entries removed (the directory itself included), -1 when an entry could not
 * be examined or removed (the others are removed all the same), 0 when the directory cannot be
 * opened. A directory that cannot be removed itself is logged and does not count as a failure. */
int _COM_RemoveFileInDir_(int recursive, const char *pDir, int removeSelf);

/* _COM_RemoveFileInDir_ with the directory itself removed too. */
int COM_RemoveFileInDir(int recursive, const char *pDir);

/* Removes a file; of a symbolic link, the file that the link names while the link stays (one link
 * is followed, and a relative link text is taken from the current directory).
 * Returns 0 or -1. A link whose text has 256 bytes or more is refused (ENAMETOOLONG). */
int COM_RemoveRealFile(const char *pPath);

/* Creates the symbolic link pLink with the text pTarget.
 *
 *   mode  0  an existing link path is removed first when the target exists
 *         1  an existing link path is always removed first
 *         2  nothing is made, and the result is 0, when the target does not exist
 *
 * The two must not be the same path: modes 0 and 1 would remove the file.
 *
 * Returns 0 or -1. */
int COM_CreateSymbolLink(int mode, const char *pTarget, const char *pLink);

/* Tells what an open descriptor of this process refers to.
 *
 *   pPath    128 bytes for the path with its NUL, or NULL
 *   verbose  not 0: the path and the file type are logged too
 *
 * Returns 0, or -1 when the descriptor is not open, or when what it refers to has no path that can
 * be examined (a socket, a pipe, a removed file) or one of more than 127 bytes; pPath is then as it
 * was. */
int COM_GetFdInfo(int fd, char *pPath, int verbose);

/* Moves a text file by copying, for use across file systems: the destination is made or emptied
 * (mode 0664 less the umask), filled and the source removed.
 *
 * Meant for text: of each block of 512 bytes read, what stands behind the first NUL byte is left
 * out. Returns 0, also when the source cannot be removed (logged); a file moved onto itself stays
 * as it is. Returns -1 after a failure; the source is then still there, and the destination, once
 * it was opened, holds what was written. */
int COM_RenameFile(const char *pSrc, const char *pDst);

/* One line to find and to replace. */
typedef struct tFileItem {
    int32_t key_len; /* characters of the key that count; 0 = no key; set to 0 by a match */
    char key[160];   /* text to look for; a NUL in it ends it early, an empty one matches nothing */
    char line[160];  /* replacement without newline, NUL-terminated unless it has 160 bytes; empty
                        deletes the line */
} tFileItem;

typedef struct tFileItemRequest {
    int32_t count;            /* items in pItems */
    int32_t find_only;        /* not 0: only count the matches, the file stays as it is */
    int32_t match_substring;  /* not 0: a key may stand anywhere in a line (case matters), else a
                                 line begins with it (ASCII case ignored) */
    int32_t append_unmatched; /* not 0: replacements without a match are added at the end, and
                                 counted (with find_only they are counted all the same) */
    tFileItem *pItems;        /* owned by the caller; key_len is changed by matches */
} tFileItemRequest;

/* Edits a text file line by line through a temporary copy under /var. A line is taken 255 bytes at
 * a time; what is left of a longer one counts as a line of its own. Meant for text: what stands
 * behind a NUL in a line, its newline too, is left out.
 *
 * Each line is given to the first item that still has a key and matches. A file that does not exist
 * is created. Returns the number of lines replaced, deleted and appended, or -1. The file has to be
 * writable and /var too, also with find_only.
 *
 * A failed edit leaves an empty file, never a half-edited one (find_only leaves it as it was). A
 * thread that is cancelled leaves it as it was or edited whole. */
int COM_ReplaceItemsInFile(const char *pFileName, tFileItemRequest *pRequest);

/* Grows a heap buffer and copies into it.
 *
 *   size    new size of the whole block in bytes
 *   ppBuf   the block (or NULL for a first one); receives the new block
 *   offset  where the copy goes; the bytes from there to the end that it does not fill are zeroed
 *   pSrc    `length` bytes, which may lie inside the block that is grown and overlap the place
 *           they are copied to; NULL copies none
 *
 * Returns the new block, which belongs to the caller, or NULL with *ppBuf still valid. A copy that
 * would pass the end of the block is cut to it. */
void *COM_ReallocAndCopyBuf(size_t size, void **ppBuf, size_t offset, const void *pSrc,
                            size_t length);

/* Closes the descriptor in *pFd and stores -1 there. Returns what close returned, or -1 when pFd is
 * NULL or *pFd negative. */
int COM_CloseFd(int *pFd);

#ifdef __cplusplus
}
#endif

#endif
