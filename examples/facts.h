#ifndef TALVEK_EXAMPLES_FACTS_H
#define TALVEK_EXAMPLES_FACTS_H

/* What the examples share: options, and facts in three forms.
 *
 *   for people   host name    recorder
 *   -p           host_name recorder           one fact a line; in lists items.1.host_name recorder
 *   -j           {"host_name": "recorder"}    one JSON object; a list is an array of objects
 *
 * The library writes its log to standard output. FactsOption moves it to standard error, so that
 * standard output holds the facts alone. */

#include <stdint.h>

enum { FACTS_USAGE = 2 }; /* exit status after wrong use */

/* getopt(3) with -p and -j in it. The program's own options are `pOptions`, in getopt's notation.
 * Returns the next one of them, and -1 at the first argument, argv[optind]. Anything wrong ends the
 * program with the usage line: the program's name and `pUsage`. */
int FactsOption(int argc, char *argv[], const char *pOptions, const char *pUsage);

/* Reads a whole number from `min` to `max`. Anything else ends the program with the usage line. */
long FactsArgument(const char *pText, long min, long max);

/* Ends the program with the usage line and status FACTS_USAGE. */
void FactsWrongUse(void) __attribute__((noreturn));

/* Writes a fact at once. Names have small letters, digits and "_", which people see as a blank. An
 * unknown value, NULL, is "-" for people, null in JSON, and no line with -p. Control characters
 * appear as \xHH, so that no text can move the cursor; JSON has UTF-8 alone, other bytes become
 * U+FFFD. People see the unit after a number. */
void FactsText(const char *pName, const char *pValue);
void FactsNumber(const char *pName, int64_t value, const char *pUnit);

/* Writes a list. The facts after each FactsItem belong to one item, a line for people. Lists do not
 * contain lists. */
void FactsList(const char *pName);
void FactsItem(void);
void FactsListEnd(void);

/* Completes the output. Returns `status`, or 1 when the output could not be written. */
int FactsEnd(int status);

#endif
