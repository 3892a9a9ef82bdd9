#ifndef TALVEK_COMMON_PLATFORM_H
#define TALVEK_COMMON_PLATFORM_H

/* Records that cross a boundary (packages, unit records, device data) have the byte order of the
 * processor that the library was made for. */
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "talvek is for little-endian processors only"
#endif

#endif
