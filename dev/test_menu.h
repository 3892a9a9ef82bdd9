#ifndef TALVEK_DEV_TEST_MENU_H
#define TALVEK_DEV_TEST_MENU_H

/* The technician's menu: exercises the storage functions by hand on a unit. */

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The current selections, each name with its NUL. */
typedef struct tDevTestMenu {
    char sgName[12];  /* generic node, "/dev/sg0" */
    char sdName[12];  /* block or optical node, "/dev/sda" */
    char devName[64]; /* device that the queries act on */
    int major;
    int minor;
} tDevTestMenu;

/* Prints the menu with its 18 items and the selections that they use. NULL prints nothing. */
void Dev_PrintTestMenu(const tDevTestMenu *pState);

/* Prints the menu, then reads item numbers from a stream, a line each, and does what they say until
 * item 17 or the end of input. Items that need more ask for it. Wrong input is told and asked for
 * again; a line has at most 255 characters.
 *
 *   pState  selections to start with; edited by the items
 *   pIn     open for reading; stays open
 *
 * Returns 0, or -1 for a NULL argument. */
int Dev_RunTestMenu(tDevTestMenu *pState, FILE *pIn);

#ifdef __cplusplus
}
#endif

#endif
