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
 * item 17 or the end of input. Items that need more ask for it; an empty line gives such a question
 * up and keeps what was there. Wrong input is told and asked for again. A line has at most 255
 * characters; blanks around its text do not count.
 *
 *   pState  selections to start with; edited by items 1 to 3, 13 and 14 alone
 *   pIn     open for reading; stays open
 *
 * Results are printed on standard output, each at the latest before the next question. Returns 0,
 * or -1 for a NULL argument. */
int Dev_RunTestMenu(tDevTestMenu *pState, FILE *pIn);

#ifdef __cplusplus
}
#endif

#endif
