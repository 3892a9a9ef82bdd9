#ifndef TALVEK_COMMON_UNIT_INFO_H
#define TALVEK_COMMON_UNIT_INFO_H

/* A unit's identity and network settings in one record, and helpers for units: link activity,
 * Base64, sorting and listing. */

#include <stdint.h>

#include "file_content.h"
#include "net_info.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_UNIT_NAME_SIZE = 64, /* bytes for a host name in tUnitNetInfo, including the NUL */
};

/* A unit. A list of units is an array of these records of 328 bytes. Texts are NUL-terminated. */
typedef struct tUnitNetInfo {
    char model[COM_UNIT_MODEL_SIZE];         /* /etc/Model */
    char proj[COM_UNIT_PROJECT_SIZE];        /* /etc/Proj */
    char name[COM_UNIT_NAME_SIZE];           /* host name */
    char ip[COM_NET_ADDRESS_TEXT_SIZE];      /* IPv4 address: 192.168.1.5 */
    char port[COM_PORT_SIZE];                /* /etc/Port, decimal */
    char netmask[COM_NET_ADDRESS_TEXT_SIZE]; /* this and the next two: like ip */
    char gateway[COM_NET_ADDRESS_TEXT_SIZE];
    char dns[COM_NET_ADDRESS_TEXT_SIZE]; /* first name server */
    char mac[24];                        /* hardware address: 00:11:22:AA:BB:CC */
    char dev[COM_NET_IF_NAME_SIZE];      /* interface */
    char note[COM_UNIT_NOTE_SIZE];       /* /etc/Note */
    int32_t mtu;                         /* bytes */
    int32_t if_info_num;                 /* the caller's; this and if_info are not filled */
    char if_info[16];
} tUnitNetInfo;

/* Fills a record with the identity and the network settings of this unit.
 *
 *   pInfo    all fields are overwritten except if_info_num and if_info
 *   pIfName  interface name as for COM_GetNetInfo. Its first 15 characters are stored in `dev`;
 *            "auto" is stored unchanged, and NULL leaves `dev` empty. May be the `dev` of pInfo.
 *
 * A text that is longer than its field is truncated. After a failed read the field has the failure
 * text of its reader: "unknown", "80" for the port, an address or hardware address of zeros. A host
 * name of 64 characters does not fit and is a failed read.
 *
 * Returns 0 when all reads succeeded, else minus the number of failed ones. The note is not
 * counted. */
int COM_GetUnitNetInfo(tUnitNetInfo *pInfo, const char *pIfName);

/* Returns the number of packets that an interface has received, from
 * /sys/class/net/<name>/statistics/rx_packets. Only the first 8 digits are read: a count of 9
 * digits changes with every 10th packet, one of 10 digits with every 100th. 0 when it cannot be
 * read (not logged). */
int COM_GetRxPackets(const char *pIfName);

enum {
    COM_BASE64_NO_VALUE = 64, /* the character is not in the Base64 alphabet */
};

/* Returns the value of a Base64 character (RFC 4648, section 4) or COM_BASE64_NO_VALUE. */
int COM_Base64Value(char c);

/* Decodes Base64 (RFC 4648, section 4). Characters that are not in the alphabet are skipped, and
 * the first "=" ends the text. Of an incomplete last group the complete bytes are written.
 *
 *   pDst   room for three quarters of the length of pText, rounded down; may be pText itself. No
 *          NUL is added.
 *
 * Returns the number of bytes written. */
int COM_Base64Decode(void *pDst, const char *pText);

/* Returns the index of the first non-zero unit after a zero unit: 4 for {a, b, 0, 0, c}. The array
 * must contain such a unit, because the scan does not end otherwise. NULL is logged and gives 0. */
int COM_CountUtf8RowLength(const uint16_t *pArray);

/* Comparator for qsort: compares two tUnitNetInfo by address, component by component as numbers.
 * Equal addresses are logged and compare as 0; NULL compares as 0. */
int COM_SortUnitInfoViaIP(const void *pA, const void *pB);

/* Logs `count` records, five lines each. A count of 0 or less logs nothing. */
void COM_ShowAllUnitInfo(int count, const tUnitNetInfo *pInfo);

#ifdef __cplusplus
}
#endif

#endif
