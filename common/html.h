#ifndef TALVEK_COMMON_HTML_H
#define TALVEK_COMMON_HTML_H

/* Turns HTML in memory into text, or cuts one element out of it. Neither entry parses HTML: a tag
 * begins at "<" and ends at the next ">", even in comments, scripts and quoted attributes, and
 * character references are not decoded.
 *
 * A text must be shorter than 2 GiB. */

#ifdef __cplusplus
extern "C" {
#endif

/* What COM_ExtractHtmlTag returns of the element. */
enum {
    COM_HTML_CONTENT = 0,   /* the text between the element's tags */
    COM_HTML_WITH_TAGS = 1, /* the element with its tags; any other value has the same effect */
};

/* Removes all tags from a text. A tag whose name begins with "br", in any case, becomes a newline.
 *
 *   pSrc      is modified: in each tag that becomes a newline the ">" is overwritten with it. Pass
 *             a copy if the source is still needed.
 *   ppResult  points to NULL or to a block from malloc, which is reused. Receives the block with
 *             the text and its NUL, which the caller frees.
 *
 * Returns the size of the text in bytes, including the NUL; -1 with *ppResult unchanged when the
 * source holds nothing but tags, or there is no memory for the first character. When memory runs
 * out later, this is logged, the result is the text so far, and the rest of the source is not
 * read. */
int COM_StripHtmlCode(char *pSrc, char **ppResult);

/* Cuts the first element of a name out of a text, including nested elements of the same name.
 *
 *   pTag      the element's name without brackets; ASCII case is ignored. A tag has this name when
 *             it begins with the name and a blank, a tab or ">" follows.
 *   pHtml     the text
 *   ppResult  receives a new block with the element and a NUL, which the caller frees. The old
 *             value is not freed. Unchanged after -1, except NULL when there is no memory.
 *   keepTags  COM_HTML_CONTENT or COM_HTML_WITH_TAGS
 *
 * Opening and closing tags of the name are only counted: after a stray closing tag, the next
 * opening tag does not begin an element.
 *
 * Returns the size of the result in bytes, including the NUL; -1 when the element is missing, not
 * closed or empty, or there is no memory (logged). */
int COM_ExtractHtmlTag(const char *pTag, const char *pHtml, char **ppResult, int keepTags);

#ifdef __cplusplus
}
#endif

#endif
