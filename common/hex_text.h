#ifndef TALVEK_COMMON_HEX_TEXT_H
#define TALVEK_COMMON_HEX_TEXT_H

/* Data that the kernel publishes as hexadecimal text. */

#ifdef __cplusplus
extern "C" {
#endif

/* Reads an open file from its position to its end, without its white space.
 *
 *   fd       open for reading; stays open
 *   pLength  receives the number of characters, the NUL not counted; may be NULL
 *
 * Returns a NUL-terminated heap text, which the caller frees; an empty one for an empty file. NULL
 * with *pLength as it was, logged, when the file cannot be read, when there is no memory, or when
 * more than 1 MiB is left of the file, its white space counted. */
char *COM_ReadHexDataInStrFormat(int fd, int *pLength);

#ifdef __cplusplus
}
#endif

#endif
