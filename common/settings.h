#ifndef TALVEK_COMMON_SETTINGS_H
#define TALVEK_COMMON_SETTINGS_H

/* Reads one setting out of a settings document: XML-like text in which each setting is an element
 *
 *     <DATA Name="Mode" type="INT" min="0" max="1" value="1">
 *     <ITEM Name="Off"/><ITEM Name="On"/>
 *     </DATA>
 *
 * with its attributes in any order. The document is not parsed, only searched for texts. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_XML_NAME_SIZE = 80,  /* bytes for a name in a record */
    COM_XML_TEXT_SIZE = 256, /* bytes for a text in a record, including the NUL */
};

/* Type of a setting. */
enum {
    COM_XML_TYPE_INT = 0,  /* type="INT" */
    COM_XML_TYPE_TEXT = 1, /* type="VIRTKB" or type="TEXT" */
    COM_XML_TYPE_OTHER = 2 /* any other type; read like an integer */
};

typedef struct tXmlDataItem {
    char name[COM_XML_NAME_SIZE]; /* in: the setting to find; a name of 80 characters has no NUL */
    int32_t type;                 /* COM_XML_TYPE_...; in: the type if the document has none */
    int32_t min;                  /* `min` attribute */
    int32_t max;                  /* `max` attribute */
    int32_t value;                /* `value` attribute of an integer setting */
    char text[COM_XML_TEXT_SIZE]; /* text setting: the `value` attribute; any other setting: the
                                     names of its items in document order, separated by commas */
} tXmlDataItem;
static_assert(sizeof(tXmlDataItem) == 352, "the record has no gaps");
static_assert(offsetof(tXmlDataItem, type) == 80, "the type follows the name");
static_assert(offsetof(tXmlDataItem, text) == 96, "the text follows the numbers");

/* Fills a record from the first element whose name begins with the given name: "Bright" also finds
 * "Brightness" if that comes first. The case of names and tags matters, that of the other attribute
 * keys does not.
 *
 *   pDoc   the document
 *   pItem  the caller sets `name`, and `type` for a document without types. Numbers are read as
 *          strtol(3) reads them, in base 10, and clamped to 32 bits. Values are truncated to 80
 *          characters, the text of items to 255, with a warning in the log.
 *
 * An attribute that the element does not have is taken from a later element. An attribute that no
 * later element has, or an empty one, leaves its field unchanged. Unless the setting is a text,
 * `text` is always written. The items end with the element, or before the first one with an empty
 * name. An <ITEM> without `Name=` takes the next name in the document.
 *
 * Returns 0. Returns -1 when no element has the name, when no "</DATA>" or no name follows the
 * start of that element or of one before it, or when an argument is NULL. */
int COM_ParserXmlData(const char *pDoc, tXmlDataItem *pItem);

#ifdef __cplusplus
}
#endif

#endif
