#ifndef TALVEK_COMMON_TEXT_H
#define TALVEK_COMMON_TEXT_H

/* Scraping: takes one value out of a text in memory, such as an HTTP header block, a device's XML
 * reply, a key=value line or a configuration file. Nothing here parses the document: an entry finds
 * a key and copies the value after it by a fixed rule.
 *
 * Rules of all entries except COM_GetTwoNumbers and COM_ReplaceStr:
 *
 *   - The first occurrence of a key in the text counts. ASCII case is ignored in keys and tags; the
 *     delimiters of a value (quotes, blank, line end, ">") are matched exactly.
 *   - pDst receives the value and a NUL. Each entry says whether `size` includes the NUL. A value
 *     that does not fit is truncated, "Warning! overflow (len, size) = (%d, %d)" is logged, and the
 *     call succeeds.
 *   - The result is a position in pSrc, or NULL. After NULL, pDst is unchanged unless the entry
 *     says otherwise.
 *   - With a size of 0 or less the result is NULL. */

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_XML_DATA_TAG_MAX = 252,      /* characters of a tag for COM_GetXMLData */
    COM_XML_ATTRIBUTE_TAG_MAX = 254, /* characters of a tag for COM_GetXMLAttribute */
};

/* Finds a key, ignoring ASCII case. An empty key is found at the start of any text. Takes time
 * proportional to the length of pSrc, whatever the texts are.
 *
 * Returns the first occurrence of pKey in pSrc, or NULL. */
const char *COM_StrCaseStr(const char *pSrc, const char *pKey);

/* Copies the text between the first pair of double quotes after the key. Other text may come
 * between the key and the first quote.
 *
 *   pDst  size + 1 bytes: a value of `size` characters or more is truncated to `size` characters,
 *         followed by a NUL
 *
 * Returns the position right after the key, or NULL when the key, a quote or the value is missing.
 * An empty value leaves pDst empty; so does any value with a size of 0. */
const char *COM_GetStrInDoubleQuotes(const char *pSrc, const char *pKey, char *pDst, int size);

/* COM_GetStrInDoubleQuotes with single quotes. */
const char *COM_GetStrInSingleQuotes(const char *pSrc, const char *pKey, char *pDst, int size);

/* Copies the text from the end of the key to the next blank (0x20). Unlike an empty quoted value,
 * an empty value is a success and leaves pDst empty.
 *
 *   pDst  `size` bytes, including the NUL
 *
 * Returns the position right after the key, or NULL when the key or the blank is missing. */
const char *COM_GetStrBeforeSpace(const char *pSrc, const char *pKey, char *pDst, int size);

/* Copies the text from the end of the key to the end of its line, which is the nearer of LF and CR.
 * A last line without LF or CR is not found. An empty value is a success and leaves pDst empty.
 *
 *   pDst  `size` bytes, including the NUL
 *
 * The warning also shows the key and the value, at most 20 characters of it and only those that are
 * copied; with a size of 0 or less it shows all text after the key.
 *
 * Returns the position right after the key, or NULL when the key or the line end is missing. */
const char *COM_GetStrBeforeEOL(const char *pSrc, const char *pKey, char *pDst, int size);

/* Copies the rest of the key's line, up to the nearer of LF and CR, into a new block.
 *
 *   ppOut  receives the block, which the caller frees. Pass the address of a NULL pointer: the old
 *          value is not freed, and when nothing is allocated (no line end or an empty value), a
 *          value other than NULL makes the call look successful.
 *
 * Returns the position right after the key, or NULL when the key or the line end is missing, the
 * value is empty, or there is no memory (logged; *ppOut is then NULL). */
const char *COM_GetLineAfterKey(const char *pSrc, const char *pKey, char **ppOut);

/* Writes a NUL over the end of the key's line, which is the nearer of LF and CR. The result is then
 * the value as a text.
 *
 * Returns the position right after the key, or NULL with pSrc unchanged when the key or the line
 * end is missing or the value is empty. */
char *COM_CutLineAfterKey(char *pSrc, const char *pKey);

/* Copies the text between <tag> and </tag>. A start tag with attributes is not found. Nesting is
 * not understood: the first "<tag>" and the first "</tag>" of the whole text count. The value, or
 * what is missing, is logged.
 *
 *   pTag  the tag's name without brackets, at most COM_XML_DATA_TAG_MAX characters; a longer one is
 *         not found
 *   pDst  `size` bytes, including the NUL. Initialise it: when the closing tag comes first, the
 *         log shows its content.
 *
 * Returns the position right after <tag>, or NULL when either tag is missing or the closing tag
 * comes before the opening one. An empty value is a success. */
const char *COM_GetXMLData(const char *pSrc, const char *pTag, char *pDst, int size);

/* Copies the attributes of the first start tag that begins with "<tag": the text from there to the
 * next ">", including its leading blank. COM_GetStrInDoubleQuotes takes single attributes out of
 * the copy.
 *
 *   pTag  the tag's name without brackets, at most COM_XML_ATTRIBUTE_TAG_MAX characters; a longer
 *         one is not found
 *   pDst  `size` bytes, including the NUL
 *
 * Returns the position right after the ">", or NULL when the tag or the ">" is missing. An empty
 * value is a success. */
const char *COM_GetXMLAttribute(const char *pSrc, const char *pTag, char *pDst, int size);

/* Reads the first two decimal numbers of a text such as "640x480;". A sign belongs to a number only
 * as its first character ("5-3" is 5 and 3). A sign without digits is the number 0. A number that
 * exceeds 32 bits becomes the nearest 32-bit number.
 *
 *   pBuf             `size` bytes; no NUL is needed
 *   pFirst, pSecond  receive the numbers; may be NULL
 *
 * Returns how many numbers were stored: 2, 1, or 0 (also with a size of 0 or less). If the first
 * number reaches the end of the bytes it is not reported, so include the character after it; the
 * second number may reach the end. A number that is not reported is not stored. */
int COM_GetTwoNumbers(const char *pBuf, int size, int *pFirst, int *pSecond);

/* Replaces every occurrence of a text in a heap text, from left to right. Case matters. The search
 * resumes at the start of the inserted text, so a match may consist of it and of what follows:
 * "aabb" with "ab" replaced by "a" becomes "aa".
 *
 *   pBuf  a block from malloc; it moves when it grows
 *   pOld  the text to replace; an empty one replaces nothing
 *   pNew  the replacement
 *
 * pNew must not contain pOld, or the call never ends. pOld and pNew must not lie in the block. When
 * the block cannot grow, this is logged and tried again until it can grow.
 *
 * Returns the block, which stays the caller's; with a NULL argument pBuf, unchanged. */
char *COM_ReplaceStr(char *pBuf, const char *pOld, const char *pNew);

#ifdef __cplusplus
}
#endif

#endif
