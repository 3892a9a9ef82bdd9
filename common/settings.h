#ifndef TALVEK_COMMON_SETTINGS_H
#define TALVEK_COMMON_SETTINGS_H

/* One setting out of a settings document: XML-like text in which each setting is an element
 *
 *     <DATA Name="Mode" type="INT" min="0" max="1" value="1">
 *     <ITEM Name="Off"/><ITEM Name="On"/>
 *     </DATA>
 *
 * with its attributes in any order. The document is walked by text searches and not parsed. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_XML_TYPE_INT = 0,  /* type="INT" */
    COM_XML_TYPE_TEXT = 1, /* type="VIRTKB" or type="TEXT" */
    COM_XML_TYPE_OTHER = 2 /* any other type; read like an integer */
};

typedef struct tXmlDataItem {
    char name[80];  /* in: what to look for */
    int32_t type;   /* COM_XML_TYPE_...; in for documents that tell no type */
    int32_t min;    /* `min` attribute */
    int32_t max;    /* `max` attribute */
    int32_t value;  /* `value` attribute of an integer setting */
    char text[256]; /* text setting: the `value` attribute; any other: the names of its items in
                       their order with commas between them, empty without items */
} tXmlDataItem;
static_assert(sizeof(tXmlDataItem) == 352, "the record has no gaps");
static_assert(offsetof(tXmlDataItem, type) == 80, "behind the name");
static_assert(offsetof(tXmlDataItem, text) == 96, "behind the numbers");

/* Fills the record of a setting from the first element whose name begins with the name looked for
 * ("Bright" finds "Brightness" too, if that comes first).
 *
 *   pDoc   NUL-terminated document
 *   pItem  `name` is set by the caller; without a NUL all its 80 characters count. Numbers are read
 *          like strtol does, and held within 32 bits. Values are cut to 80 characters, the text of
 *          items to 255, with a warning in the log.
 *
 * An attribute that the element does not have is taken from an element behind it; one that is not
 * there at all leaves its field as it was (`text` of an integer setting is always written). The
 * items end with the element, or at the first whose name is empty.
 *
 * Returns 0, or -1 with the record as it was when no element has the name, an element on the way
 * has no "</DATA>" or no name behind it, or an argument is NULL. */
int COM_ParserXmlData(const char *pDoc, tXmlDataItem *pItem);

#ifdef __cplusplus
}
#endif

#endif
