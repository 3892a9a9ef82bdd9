#ifndef TALVEK_COMMON_FILE_H
#define TALVEK_COMMON_FILE_H

/* Small file-system operations: directories, links, moves, line-wise editing, growing buffers.
 *
 * Failures are logged with the module name COMMON and the entry's own name. */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a directory with all the directories that lead to it.
 *
 *   pPath  the directory, with or without a "/" at the end; what precedes its last "/" may have up
 *          to 254 bytes (else ENAMETOOLONG)
 *   mode   permission bits of each new directory, less the umask
 *
 * Returns 0 when the whole path exists or was made, else -1 (also when something other than a
 * directory has the name); what was made before the failure stays. */
int COM_Mkdir(const char *pPath, mode_t mode);

/* Values of `recursive`; any other one counts as COM_REMOVE_FLAT. */
enum {
    COM_REMOVE_FLAT = 0, /* leaves subdirectories */
    COM_REMOVE_TREE = 1  /* empties and removes them too */
};

/* Removes what a directory holds. Entries named "lost+found" always stay, so that the root of a
 * mounted file system can be emptied.
 *
 *   recursive   COM_REMOVE_FLAT or COM_REMOVE_TREE
 *   pDir        the directory
 *   removeSelf  not 0: the directory itself is removed at the end
 *
 * An entry that is a symbolic link counts as what it leads to. A link to a file is removed; the
 * file stays. A link to a directory counts as a directory: with COM_REMOVE_TREE that directory is
 * emptied, and the link stays. A link that leads nowhere, or back to a directory that is being
 * emptied, is a failure. A directory that is replaced by a link during the call is not followed.
 * The root directory, by whatever path or link, is never emptied: it counts as one that cannot be
 * opened (EINVAL).
 *
 * Returns the number of entries removed (the directory itself included); -1 when an entry could not
 * be examined or removed (the others are removed all the same); 0 when the directory cannot be
 * opened. A directory inside it that cannot be opened, and any directory that cannot be removed at
 * the end, is logged and is no failure: the result counts what was removed. Each level of the tree
 * takes a descriptor: if none is left, the levels below stay. */
int _COM_RemoveFileInDir_(int recursive, const char *pDir, int removeSelf);

/* _COM_RemoveFileInDir_ with the directory itself removed too. */
int COM_RemoveFileInDir(int recursive, const char *pDir);

/* Removes a file. For a symbolic link, the file that it names is removed, and the link stays. Only
 * one link is followed. A relative link text is relative to the current directory.
 *
 * Returns 0 or -1. A link whose text has 256 bytes or more is refused (ENAMETOOLONG). */
int COM_RemoveRealFile(const char *pPath);

/* Modes of COM_CreateSymbolLink; any other one replaces nothing. */
enum {
    COM_LINK_REPLACE_IF_TARGET = 0, /* removes an existing link path if the target exists */
    COM_LINK_REPLACE = 1,           /* removes an existing link path */
    COM_LINK_IF_TARGET = 2          /* replaces nothing; without the target it makes no link and
                                       returns 0 */
};

/* Creates the symbolic link pLink with the text pTarget.
 *
 *   mode  COM_LINK_REPLACE_IF_TARGET, COM_LINK_REPLACE or COM_LINK_IF_TARGET. A directory at the
 *         link path is not removed.
 *
 * The two must not be the same path: a mode that replaces would remove the file.
 *
 * Returns 0 or -1. */
int COM_CreateSymbolLink(int mode, const char *pTarget, const char *pLink);

enum { COM_FD_PATH_SIZE = 128 }; /* bytes of COM_GetFdInfo's path with its NUL */

/* Reports what an open descriptor of this process refers to.
 *
 *   pPath    COM_FD_PATH_SIZE bytes for the path, or NULL
 *   verbose  not 0: the path, the file type and, for a regular file, its size and offset are logged
 *
 * Returns 0. Returns -1 when the descriptor is not open, when it has no path that can be examined
 * (a socket, a pipe, a removed file), or when its path has COM_FD_PATH_SIZE bytes or more. */
int COM_GetFdInfo(int fd, char *pPath, int verbose);

/* Moves a text file by copying, for use across file systems: the destination is created or emptied
 * (mode 0664 less the umask) and filled, and the source is removed.
 *
 * Meant for text: of each block of 512 bytes read, what follows the first NUL byte is left out.
 *
 * Returns 0, also when the source cannot be removed (logged). A file that is moved onto itself is
 * unchanged. Returns -1 after a failure; the source then still exists, and the destination, once it
 * was opened, holds what was written. */
int COM_RenameFile(const char *pSrc, const char *pDst);

enum { COM_FILE_ITEM_SIZE = 160 }; /* bytes of a key and of a line of tFileItem */

/* One line to find and to replace. */
typedef struct tFileItem {
    int32_t key_len; /* characters of the key that count; 0 = no key; a match sets it to 0 */
    char key[COM_FILE_ITEM_SIZE];  /* text to look for; it ends at a NUL; an empty one matches
                                      nothing */
    char line[COM_FILE_ITEM_SIZE]; /* replacement without newline; it ends at a NUL or after 160
                                      bytes; an empty one deletes the line */
} tFileItem;

typedef struct tFileItemRequest {
    int32_t count;            /* items in pItems */
    int32_t find_only;        /* not 0: only counts the matches, the file is unchanged */
    int32_t match_substring;  /* not 0: the key may be anywhere in a line, and case matters; else
                                 a line begins with it, ignoring ASCII case */
    int32_t append_unmatched; /* not 0: the lines of items that have a key but no match are added at
                                 the end, and counted (with find_only, only counted) */
    tFileItem *pItems;        /* owned by the caller; matches change key_len */
} tFileItemRequest;

/* Edits a text file line by line through a temporary copy in /var. At most 255 bytes count as one
 * line; the rest of a longer line is a line of its own. Meant for text: what follows a NUL in a
 * line, its newline too, is left out.
 *
 * Each line goes to the first item that still has a key and matches. A file that does not exist is
 * created. The file and /var must be writable, also with find_only.
 *
 * Returns the number of lines replaced, deleted and appended, or -1. A failed edit leaves an empty
 * file, never a half-edited one; with find_only the file is unchanged. */
int COM_ReplaceItemsInFile(const char *pFileName, tFileItemRequest *pRequest);

/* Resizes a heap buffer and copies into it.
 *
 *   size    new size of the whole block in bytes
 *   ppBuf   the block, or NULL for a first one; receives the new block
 *   offset  where the copy goes; the bytes from there to the end that it does not fill are zeroed
 *   pSrc    `length` bytes, which may be inside the block and overlap their destination; NULL
 *           copies none
 *   length  fewer bytes are copied if the destination, or a source inside the block, would pass the
 *           end of the new block
 *
 * Returns the new block, which belongs to the caller, or NULL with *ppBuf still valid. */
void *COM_ReallocAndCopyBuf(size_t size, void **ppBuf, size_t offset, const void *pSrc,
                            size_t length);

/* Closes the descriptor in *pFd and stores -1 there. Returns what close returned; -1 when pFd is
 * NULL or *pFd negative. Nothing is logged. */
int COM_CloseFd(int *pFd);

#ifdef __cplusplus
}
#endif

#endif
