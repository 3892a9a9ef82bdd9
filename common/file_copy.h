#ifndef TALVEK_COMMON_FILE_COPY_H
#define TALVEK_COMMON_FILE_COPY_H

/* Copies of whole files.
 *
 * A file that cannot be opened and a write that fails are logged with the module name COMMON and
 * the entry's own name, as is a destination of COM_CopyFile whose close fails; a failed read is
 * not. */

#ifdef __cplusplus
extern "C" {
#endif

/* Copies a file.
 *
 *   pDst  created or emptied, also when pSrc cannot be opened. A missing directory is made (mode
 *         0755) when its own path has at most 125 characters; of a longer path only a part is made,
 *         and the copy fails. It must not be the same file as pSrc, which would be emptied.
 *   pSrc  the file to copy
 *
 * An unprivileged caller must own both files (O_NOATIME, else EPERM). Mode, owner and times are not
 * copied: a new file has mode 0664 less the umask. On a file system that can share blocks between
 * files (btrfs, xfs) the copy shares those of the source.
 *
 * Returns 0 or -1; a failed copy leaves what was written. */
int COM_CopyFile(const char *pDst, const char *pSrc);

/* Moves a file to a lasting place and leaves a link: after success, pLink is a symbolic link with
 * the text pTarget.
 *
 * If pLink exists and pTarget does not, pTarget is first made as a copy of the file pLink, with its
 * missing directories (mode 0755). An existing pTarget is unchanged. If pLink does not exist, its
 * missing directories are made, and pTarget may be missing.
 *
 * pTarget should be absolute: the copy is made relative to the current directory, but the text of a
 * link is relative to the directory of the link. The two must not be the same path: the file would
 * be removed.
 *
 * Returns the result of COM_CreateSymbolLink; -1 also when a path cannot be examined (not logged),
 * or the copy fails or would be of something other than a regular file. A failed copy is removed,
 * unless pTarget is a symbolic link; directories that were made stay. The next call takes a part
 * that remains, for example after a power failure, for the whole file. */
int COM_CopyAndLink(const char *pTarget, const char *pLink);

/* Appends a file to another, which is created with mode 0777 less the umask when it is missing. A
 * file that is appended to itself is doubled.
 *
 * Returns the number of bytes appended (INT32_MAX when there are more); -1 on failure (NULL is not
 * logged) and when there was nothing to append. A failed write leaves what was appended before it.
 * A read error counts as the end of the source. */
int COM_AppendFileToFile(const char *pDst, const char *pSrc);

#ifdef __cplusplus
}
#endif

#endif
