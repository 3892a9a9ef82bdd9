#ifndef TALVEK_COMMON_HTML_H
#define TALVEK_COMMON_HTML_H

/* HTML that is held in memory, turned into text or cut to one element. Neither entry parses HTML:
 * a tag begins at "<" and ends at the next ">", also in comments, scripts and quoted attributes,
 * and character references stay as they are.
 *
 * Texts are NUL-terminated, below 2 GiB. NULL for an argument gives -1. */

#ifdef __cplusplus
extern "C" {
#endif

/* Takes all tags out of a text and keeps what stands between them, as it is. A tag whose name
 * begins with "br" in any case becomes a newline.
 *
 *   pSrc      is changed: the ">" of each such tag is overwritten with a newline. Hand in a copy if
 *             it is still needed.
 *   ppResult  NULL or a block from malloc, which is grown and overwritten. Receives the text with
 *             its NUL, to be released with free.
 *
 * Returns the bytes of the result, the NUL included; -1 when the source yields no character or
 * there is no memory for the first one (*ppResult is then as it was). Where memory ends later, the
 * result is what fitted, the failure is logged and the rest of the source is left alone. */
int COM_StripHtmlCode(char *pSrc, char **ppResult);

/* Cuts the first element of a name out of a text, with the elements of the same name that it holds.
 *
 *   pTag      the element's name without brackets, in any case. A tag has this name when it begins
 *             with it and a blank, a tab or ">" follows.
 *   pHtml     the text
 *   ppResult  receives a new block with the element and a NUL, to be released with free; what it
 *             held is not released. After -1 it is as it was, NULL when there was no memory.
 *   keepTags  0 for what stands between the element's tags, else the element with its tags
 *
 * Opening and closing tags are only counted: for each stray closing tag ahead of the element, one
 * opening tag is passed over. Returns the bytes of the result, the NUL included; -1 when the
 * element is not there, is not closed or is empty, or there is no memory (logged). */
int COM_ExtractHtmlTag(const char *pTag, const char *pHtml, char **ppResult, int keepTags);

#ifdef __cplusplus
}
#endif

#endif
