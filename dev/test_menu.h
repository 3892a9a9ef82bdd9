#ifndef TALVEK_DEV_TEST_MENU_H
#define TALVEK_DEV_TEST_MENU_H

/* The technician's menu: runs the storage functions by hand on a unit. */

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DEV_MENU_NODE_SIZE 12   /* bytes of sgName and sdName */
#define DEV_MENU_DEVICE_SIZE 64 /* bytes of devName */
#define DEV_MENU_LINE_MAX 255   /* characters of a line that Dev_RunTestMenu accepts */

/* The current selections. */
typedef struct tDevTestMenu {
    char sgName[DEV_MENU_NODE_SIZE];    /* generic node, "/dev/sg0" */
    char sdName[DEV_MENU_NODE_SIZE];    /* block or optical node, "/dev/sda" */
    char devName[DEV_MENU_DEVICE_SIZE]; /* device that the queries use */
    int major;
    int minor;
} tDevTestMenu;

/* Prints the menu with its 18 items and the selections that they use. NULL prints nothing. */
void Dev_PrintTestMenu(const tDevTestMenu *pState);

/* Prints the menu, then reads item numbers from a stream, one a line, and runs the items until item
 * 17 or the end of input. An item that needs more input asks for it; an empty line cancels the
 * question and changes nothing. Wrong input is reported, and the question is repeated. Blanks
 * around the text of a line are ignored.
 *
 *   pState  selections to start with; items 1 to 3, 13 and 14 change them
 *   pIn     open for reading; stays open
 *
 * Results are printed on standard output before the next question. Cancellation of the thread waits
 * until the menu ends. Returns 0, or -1 for a NULL argument (not logged). Uses DEV_REPLY_SIZE bytes
 * (scsi.h) of stack more than other entries. */
int Dev_RunTestMenu(tDevTestMenu *pState, FILE *pIn);

#ifdef __cplusplus
}
#endif

#endif
