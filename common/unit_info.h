#ifndef TALVEK_COMMON_UNIT_INFO_H
#define TALVEK_COMMON_UNIT_INFO_H

/* The unit's identity and network settings in one record, with the small helpers that go with lists
 * of units: link activity, Base64, sorting and listing. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A unit. Lists are plain arrays of these 328 bytes. Texts end with a NUL inside their field. */
typedef struct tUnitNetInfo {
    char model[32];      /* /etc/Model */
    char proj[32];       /* /etc/Proj */
    char name[64];       /* host name */
    char ip[16];         /* IPv4 address, 192.168.1.5 */
    char port[8];        /* /etc/Port, decimal */
    char netmask[16];    /* as ip */
    char gateway[16];    /* as ip */
    char dns[16];        /* first name server, as ip */
    char mac[24];        /* hardware address, 00:11:22:AA:BB:CC */
    char dev[16];        /* interface */
    char note[64];       /* /etc/Note */
    int32_t mtu;         /* bytes */
    int32_t if_info_num; /* for the user; COM_GetUnitNetInfo leaves both as they are */
    char if_info[16];
} tUnitNetInfo;

/* Fills a record with what this unit is.
 *
 *   pInfo    the record; its last two fields stay as they are, the others are written anew
 *   pIfName  interface asked about, as in COM_GetNetInfo (net_info.h); `dev` takes its first 15
 *            characters as given, "auto" too. NULL leaves `dev` empty. May be the `dev` of pInfo
 *
 * A file's text is cut to its field less one byte, as COM_GetFileContent (file_content.h) reads it;
 * that reader puts "unknown" where it fails, `port` then becomes "80", and `name` is "unknown"
 * where the host name cannot be had (one of 64 characters does not fit). The network fields hold
 * the failure texts of net_info.h where nothing can be said.
 *
 * Returns 0 when all succeeded, else a negative count of what failed (the note does not count). -1
 * for a NULL record. */
int COM_GetUnitNetInfo(tUnitNetInfo *pInfo, const char *pIfName);

/* Packets that an interface has received (/sys/class/net/<name>/statistics/rx_packets): the first 8
 * digits of the count, which serves to see activity. 0 when it cannot be read, without a message.
 */
int COM_GetRxPackets(const char *pIfName);

/* Value of a Base64 character (RFC 4648, section 4): 0 to 63, or 64 for any other character. */
int COM_Base64Value(char c);

/* Decodes Base64 (RFC 4648, section 4). Characters outside the alphabet are passed over; the first
 * "=" or the NUL ends the text; an incomplete last group gives its complete bytes.
 *
 *   pDst   room for three quarters of the length of pText, rounded down; no NUL is added. May be
 *          pText itself
 *   pText  NUL-terminated
 *
 * Returns the number of bytes written, 0 for a NULL argument. */
int COM_Base64Decode(void *pDst, const char *pText);

/* Index of the first non-zero unit that follows a zero unit: of {a, b, 0, 0, c} it is 4.
 *
 *   pArray  must hold such a unit: the scan has no other end
 *
 * Returns the index, or 0 for NULL (logged). */
int COM_CountUtf8RowLength(const uint16_t *pArray);

/* Comparator for qsort over arrays of tUnitNetInfo, by IPv4 address, component by component as
 * numbers. Equal addresses compare as 0 after a log line. */
int COM_SortUnitInfoViaIP(const void *pA, const void *pB);

/* Logs `count` records, five lines each; none when count is 0 or less. */
void COM_ShowAllUnitInfo(int count, const tUnitNetInfo *pInfo);

#ifdef __cplusplus
}
#endif

#endif
