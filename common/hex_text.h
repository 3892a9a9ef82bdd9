#ifndef TALVEK_COMMON_HEX_TEXT_H
#define TALVEK_COMMON_HEX_TEXT_H

/* Data that the kernel publishes as hexadecimal text. */

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_HEX_TEXT_MAX_FILE = 1048576, /* bytes that COM_ReadHexDataInStrFormat reads at most */
};

/* Reads an open file from its position to its end and removes the white space.
 *
 *   fd       open for reading; stays open
 *   pLength  receives the number of characters, without the NUL; may be NULL
 *
 * Returns a NUL-terminated text, which the caller frees; it is empty at the end of the file.
 * Returns NULL, leaves *pLength unchanged and logs the reason when the file cannot be read, there
 * is no memory, or more than COM_HEX_TEXT_MAX_FILE bytes are left. */
char *COM_ReadHexDataInStrFormat(int fd, int *pLength);

#ifdef __cplusplus
}
#endif

#endif
