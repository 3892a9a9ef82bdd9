#ifndef TALVEK_COMMON_FILE_COPY_H
#define TALVEK_COMMON_FILE_COPY_H

/* Copies of whole files.
 *
 * A file that cannot be opened and a write that fails are logged with the module name COMMON and
 * the entry's own name; a read that fails is not. A path is a NUL-terminated text; NULL as a path
 * is a failure. */

#ifdef __cplusplus
extern "C" {
#endif

/* Copies a file.
 *
 *   pDst  made or emptied, also when pSrc cannot be opened. A missing directory is made (mode 0755)
 *         when its own path has at most 125 characters; a longer one is made in part and the copy
 *         fails. Must not be the same file as pSrc, which would be emptied.
 *   pSrc  the file to copy
 *
 * Both files must belong to the caller, or the caller be privileged (O_NOATIME, else EPERM). Mode,
 * owner and times are not copied: a file that is made has mode 0664 less the umask. The call takes
 * 64 KiB of stack.
 *
 * Returns 0 or -1; a failed copy leaves what was written. */
int COM_CopyFile(const char *pDst, const char *pSrc);

/* Moves a file to a place that survives and leaves a link: afterwards pLink is a symbolic link with
 * the text pTarget. A pTarget that does not exist is first made as a copy of the file pLink; one
 * that exists is kept as it is. Missing directories of both are made (mode 0755).
 *
 * pTarget is an absolute path as a rule: a relative one is copied to from the current directory,
 * while the link leads from its own. The two must not be the same path: the file would be removed.
 *
 * Returns the result of COM_CreateSymbolLink, or -1 (a path that cannot be examined is not
 * logged). */
int COM_CopyAndLink(const char *pTarget, const char *pLink);

/* Appends a file to another, which is created with mode 0777 less the umask when it is missing. A
 * file that is appended to itself is doubled.
 * Returns the number of bytes appended (INT32_MAX when there are more), or -1 on failure and when
 * there was nothing to append; a failed write leaves what was appended before it. A source that
 * cannot be read further counts as ended. */
int COM_AppendFileToFile(const char *pDst, const char *pSrc);

#ifdef __cplusplus
}
#endif

#endif
