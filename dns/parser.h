#ifndef TALVEK_DNS_PARSER_H
#define TALVEK_DNS_PARSER_H

/* Reading of responses: addresses, and names of mail exchangers. */

#include "result.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the addresses of a response to an A query. DNS.h describes the layout that it expects.
 *
 *   pResponse, length  the bytes received
 *   pResult            result array. The number of entries stored is the low byte of the answer
 *                      count, at most DNS_MAX_ENTRIES; entries without an address are zeroed
 *
 * If the response ends inside an address, the missing bytes are 0. Returns DNS_OK, also when no
 * entry is valid because the first address is 0.0.0.0; DNS_NO_ANSWER, with pResult unchanged and
 * nothing logged, when there are fewer than 18 bytes, no answers, or no address. */
int DNS_ParserA(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult);

/* Reads the addresses of the exchangers from the additional section of a response to an MX query
 * and sorts them by preference. Exchangers of the same preference are in no defined order.
 *
 *   pResponse, length  the bytes received
 *   pResult            result array; the entries of the lowest preferences are stored
 *
 * A preference outside the response is 0. Returns DNS_OK; DNS_NO_ANSWER, with pResult unchanged,
 * when the additional section is empty (not logged) or when its records would fill the whole
 * response or more. */
int DNS_ParserMX(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult);

/* Checks whether a response to an MX query has answers: the low byte of its answer count is not
 * 0.
 *
 *   pResponse, length  the bytes received
 *   queryLength        length of the query; not used
 *
 * Returns DNS_OK or DNS_NO_ANSWER. Nothing is logged. */
int DNS_CheckMXAnswer(const uint8_t *pResponse, int length, int queryLength);

/* Writes a name of a response as text, with a "." before each label and a "," at the end:
 * ".mx1.example.com,". Bytes from 1 to 29 are lengths of labels, bytes from 30 to 191 characters,
 * even if they are lengths of longer labels. Bytes from 192 on are pointers, whose target is
 * their second byte alone.
 *
 *   pResponse, length  the bytes received
 *   offset             offset of the name or of a pointer to it, such as name_ofs of an entry that
 *                      DNS_ParserMX stored from this response
 *   pText, size        out: the text with its NUL, cut to `size` bytes
 *
 * Returns the number of characters without the NUL. Returns -1, with the text up to there, when
 * the name runs out of the response, its pointers form a ring, or the text does not fit. Nothing
 * is logged. */
int DNS_ExpandPointer(const uint8_t *pResponse, int length, int offset, char *pText, int size);

/* Comparator for qsort over arrays of tDnsAddrEntry: preference of the first minus that of the
 * second; 0 for NULL. */
int DNS_CmpPreference(const void *pFirst, const void *pSecond);

#ifdef __cplusplus
}
#endif

#endif
