#ifndef TALVEK_COMMON_TEXT_H
#define TALVEK_COMMON_TEXT_H

/* Scraping: one value out of a text that is held in memory - an HTTP header block, a device's XML
 * reply, a key=value line, a configuration file. Nothing here parses the document: a key is found,
 * and the value is cut out behind it by a fixed rule.
 *
 * Rules of all entries but COM_GetTwoNumbers and COM_ReplaceStr:
 *
 *   - Texts are NUL-terminated. A key is found at its first place in the text, ignoring ASCII case;
 *     the delimiters of the value (quotes, blank, line end, ">") are matched exactly.
 *   - pDst receives the value with a NUL behind it. `size` is in bytes; an entry says whether the
 *     NUL is counted. A value that does not fit is cut, the log says "Warning! overflow (len, size)
 *     = (%d, %d)" and the entry succeeds all the same.
 *   - The result is a position in pSrc, which stays the caller's, or NULL. After NULL the
 *     destination is as it was unless the entry says otherwise.
 *   - NULL for a text, key, tag or destination gives NULL, without a log line; nothing is written.
 *   - A size of 0 or below is room for nothing: the result is NULL. */

#ifdef __cplusplus
extern "C" {
#endif

/* Finds a key, ignoring ASCII case. The cost grows with the length of pSrc up to the match,
 * whatever the texts are. An empty key is found at the start of any text.
 *
 * Returns the first place of pKey in pSrc, or NULL. */
const char *COM_StrCaseStr(const char *pSrc, const char *pKey);

/* Copies the text between the first pair of double quotes behind the key. The first quote need not
 * stand next to the key.
 *
 *   pDst  size + 1 bytes: a value of `size` characters or more is cut to `size` characters (with
 *         the warning) and closed by a NUL behind them
 *
 * Returns the position just behind the key, or NULL when the key, either quote or the value itself
 * is missing. An empty value leaves pDst empty; so does any value with a size of 0. */
const char *COM_GetStrInDoubleQuotes(const char *pSrc, const char *pKey, char *pDst, int size);

/* COM_GetStrInDoubleQuotes with single quotes. */
const char *COM_GetStrInSingleQuotes(const char *pSrc, const char *pKey, char *pDst, int size);

/* Copies the text from behind the key up to the next blank (0x20). An empty value is a value: the
 * entry succeeds and pDst is empty.
 *
 *   pDst  `size` bytes, the NUL included
 *
 * Returns the position just behind the key, or NULL when the key or the blank is missing. */
const char *COM_GetStrBeforeSpace(const char *pSrc, const char *pKey, char *pDst, int size);

/* Copies the text from behind the key up to the end of its line, the nearer of LF and CR. A last
 * line without an end is not found. An empty line is a value, as with COM_GetStrBeforeSpace.
 *
 *   pDst  `size` bytes, the NUL included; the warning shows the key and how the value begins (with
 *         a size of 0 or below, the whole text behind the key)
 *
 * Returns the position just behind the key, or NULL when the key or the line end is missing. */
const char *COM_GetStrBeforeEOL(const char *pSrc, const char *pKey, char *pDst, int size);

/* Copies the rest of the key's line, up to the nearer of LF and CR, into a block of its own.
 *
 *   ppOut  receives the block, which the caller releases with free. Hand in a pointer that is NULL:
 *          what it holds is not released, and where nothing is allocated (no line end, empty line)
 *          a pointer that is not NULL makes the call look successful.
 *
 * Returns the position just behind the key, or NULL when the key or the line end is missing, the
 * value is empty, or there is no memory (logged; *ppOut is NULL then). */
const char *COM_GetLineAfterKey(const char *pSrc, const char *pKey, char **ppOut);

/* Ends pSrc at the end of the key's line: a NUL is written over the nearer of LF and CR, so that
 * the result is the value as a text.
 *
 * Returns the position just behind the key, or NULL with pSrc as it was when the key or the line
 * end is missing or the value is empty. */
char *COM_CutLineAfterKey(char *pSrc, const char *pKey);

/* Copies the text between <tag> and </tag>. The start tag must stand there without attributes. The
 * first "<tag>" and the first "</tag>" of the whole text count; nesting is not understood. What is
 * found, and what is not, is logged.
 *
 *   pTag  the tag's name without brackets, up to 252 characters; a longer one is not found
 *   pDst  `size` bytes, the NUL included. Set it before the call: where the closing tag stands
 *         first, the log shows what it holds.
 *
 * Returns the position just behind <tag>, or NULL when either tag is missing or the closing tag
 * stands before the opening one. An empty value is a value. */
const char *COM_GetXMLData(const char *pSrc, const char *pTag, char *pDst, int size);

/* Copies the attributes of the first start tag that begins with "<tag": the text between it and the
 * next ">", its leading blank included. Single attributes are taken from the copy with
 * COM_GetStrInDoubleQuotes.
 *
 *   pTag  the tag's name without brackets, up to 254 characters; a longer one is not found
 *   pDst  `size` bytes, the NUL included
 *
 * Returns the position just behind the ">", or NULL when the tag or the ">" is missing. */
const char *COM_GetXMLAttribute(const char *pSrc, const char *pTag, char *pDst, int size);

/* Reads the first two decimal numbers of a text such as "640x480;". A sign counts when it begins a
 * number; behind a digit it only ends the number before it ("5-3" is 5 and 3). A sign without
 * digits is the number 0. A number beyond 32 bits becomes the nearest that fits.
 *
 *   pBuf     `len` bytes; no NUL is needed
 *   pFirst, pSecond  receive the numbers; NULL where one is not wanted
 *
 * Returns how many were stored: 2, 1 or 0. A first number that reaches the very end of the bytes is
 * not reported, so hand in the character behind it too; a second one is. What is not reported is
 * not stored. 0 also with pBuf NULL or a `len` below 1. */
int COM_GetTwoNumbers(const char *pBuf, int len, int *pFirst, int *pSecond);

/* Replaces every occurrence of a text (case matters) in a heap text, from left to right. The search
 * goes on at the start of what was put in, so a match may be made of it and what follows: "aabb"
 * with "ab" replaced by "a" becomes "aa".
 *
 *   pBuf  NUL-terminated, from malloc; the caller's before and after. The block moves as it grows.
 *   pOld  what to replace; with an empty text nothing is replaced
 *   pNew  what to put there
 *
 * pNew must not contain pOld: the call would replace for ever. pOld and pNew must not lie in the
 * block. When the block cannot grow, that is logged and tried again until it can; the thread cannot
 * be cancelled meanwhile.
 *
 * Returns the block, which the caller goes on to own; pBuf as it was when it is NULL or another
 * argument is. */
char *COM_ReplaceStr(char *pBuf, const char *pOld, const char *pNew);

#ifdef __cplusplus
}
#endif

#endif
