#include "facts.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static enum { FOR_PEOPLE, PLAIN, JSON } form = FOR_PEOPLE;
static FILE *pOut;           /* standard output as the program was given it */
static const char *pProgram; /* for the usage line */
static const char *pArguments;
static const char *pListName; /* NULL outside a list */
static int item;              /* number of the item in the list, from 1 */
static int opened;            /* the JSON object has begun */
static int begun;             /* the JSON object, or the item, has a fact already */

void FactsWrongUse(void) {
    fprintf(stderr, "usage: %s [-p | -j] %s\n", pProgram, pArguments);
    exit(FACTS_USAGE);
}

/* Keeps standard output for the facts and leads everything else to standard error. */
static void Begin(void) {
    const int fd = dup(STDOUT_FILENO);
    pOut = fd < 0 ? NULL : fdopen(fd, "w");
    if (pOut == NULL || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        fprintf(stderr, "%s: standard output: %s\n", pProgram, strerror(errno));
        exit(1);
    }
}

int FactsOption(int argc, char *argv[], const char *pOptions, const char *pUsage) {
    char options[32];
    /* "+": options end at the first argument, whatever the C library. */
    snprintf(options, sizeof options, "+pj%s", pOptions);
    pProgram = argv[0];
    pArguments = pUsage;
    for (;;) {
        const int option = getopt(argc, argv, options);
        if (option == 'p') {
            form = PLAIN;
        } else if (option == 'j') {
            form = JSON;
        } else if (option == '?') {
            FactsWrongUse();
        } else {
            if (option == -1) {
                Begin();
            }
            return option;
        }
    }
}

long FactsArgument(const char *pText, long min, long max) {
    char *pEnd = NULL;
    errno = 0;
    const long value = strtol(pText, &pEnd, 10);
    if (pEnd == pText || *pEnd != '\0' || errno != 0 || value < min || value > max) {
        FactsWrongUse();
    }
    return value;
}

/* The number of bytes of the UTF-8 character at pText (RFC 3629), 0 where there is none. */
static int Utf8Length(const unsigned char *pText) {
    const unsigned char first = pText[0];
    const int length = first < 0x80                    ? 1
                       : first >= 0xC2 && first < 0xE0 ? 2
                       : first >= 0xE0 && first < 0xF0 ? 3
                       : first >= 0xF0 && first < 0xF5 ? 4
                                                       : 0;
    for (int i = 1; i < length; ++i) {
        if ((pText[i] & 0xC0) != 0x80) {
            return 0;
        }
    }
    /* Overlong forms, surrogates, and what is above U+10FFFF. */
    if ((first == 0xE0 && pText[1] < 0xA0) || (first == 0xED && pText[1] >= 0xA0) ||
        (first == 0xF0 && pText[1] < 0x90) || (first == 0xF4 && pText[1] >= 0x90)) {
        return 0;
    }
    return length;
}

/* A JSON string (RFC 8259, section 7). */
static void WriteJsonText(const char *pValue) {
    const unsigned char *pText = (const unsigned char *)pValue;
    fputc('"', pOut);
    while (*pText != '\0') {
        const int length = Utf8Length(pText);
        if (*pText == '"' || *pText == '\\') {
            fprintf(pOut, "\\%c", *pText);
        } else if (*pText < 0x20 || *pText == 0x7F) {
            fprintf(pOut, "\\u%04x", *pText);
        } else if (length == 0) {
            fputs("\\ufffd", pOut);
        } else {
            fwrite(pText, 1, (size_t)length, pOut);
        }
        pText += length == 0 ? 1 : length;
    }
    fputc('"', pOut);
}

static void WriteText(const char *pValue) {
    for (const unsigned char *pText = (const unsigned char *)pValue; *pText != '\0'; ++pText) {
        if (*pText < 0x20 || *pText == 0x7F) {
            fprintf(pOut, "\\x%02x", *pText);
        } else {
            fputc(*pText, pOut);
        }
    }
}

static void WriteJsonName(const char *pName) {
    fprintf(pOut, "%s%s\"%s\": ", opened ? "" : "{", begun ? ", " : "", pName);
    opened = 1;
    begun = 1;
}

/* Writes what comes before a value; the value and EndFact follow. */
static void BeginFact(const char *pName) {
    if (form == JSON) {
        WriteJsonName(pName);
    } else if (form == PLAIN) {
        if (pListName != NULL) {
            fprintf(pOut, "%s.%d.", pListName, item);
        }
        fprintf(pOut, "%s ", pName);
    } else {
        fputs(pListName != NULL ? "  " : "", pOut);
        for (const char *p = pName; *p != '\0'; ++p) {
            fputc(*p == '_' ? ' ' : *p, pOut);
        }
        const int width = pListName != NULL ? 1 : 22 - (int)strlen(pName);
        fprintf(pOut, "%*s", width > 1 ? width : 1, "");
    }
}

static void EndFact(void) {
    if (form == PLAIN || (form == FOR_PEOPLE && pListName == NULL)) {
        fputc('\n', pOut);
    }
    fflush(pOut);
}

void FactsText(const char *pName, const char *pValue) {
    if (pValue == NULL && form == PLAIN) {
        return;
    }
    BeginFact(pName);
    if (form == JSON && pValue != NULL) {
        WriteJsonText(pValue);
    } else if (pValue != NULL) {
        WriteText(pValue);
    } else {
        fputs(form == JSON ? "null" : "-", pOut);
    }
    EndFact();
}

void FactsNumber(const char *pName, int64_t value, const char *pUnit) {
    BeginFact(pName);
    fprintf(pOut, "%lld", (long long)value);
    if (form == FOR_PEOPLE && pUnit != NULL) {
        fprintf(pOut, " %s", pUnit);
    }
    EndFact();
}

void FactsList(const char *pName) {
    if (form == JSON) {
        WriteJsonName(pName);
        fputc('[', pOut);
    }
    pListName = pName;
    item = 0;
}

/* Ends the item before this one, if there is one. */
static void EndItem(void) {
    if (item > 0 && form != PLAIN) {
        fputc(form == JSON ? '}' : '\n', pOut);
    }
}

void FactsItem(void) {
    EndItem();
    ++item;
    if (form == JSON) {
        fputs(item > 1 ? ", {" : "{", pOut);
    } else if (form == FOR_PEOPLE) {
        fprintf(pOut, "%2d", item);
    }
    begun = 0;
}

void FactsListEnd(void) {
    EndItem();
    if (form == JSON) {
        fputc(']', pOut);
    }
    pListName = NULL;
    begun = 1;
    fflush(pOut);
}

int FactsEnd(int status) {
    if (form == JSON) {
        fputs(opened ? "}\n" : "{}\n", pOut);
    }
    const int failed = ferror(pOut) != 0;
    if (fclose(pOut) != 0 || failed) {
        fprintf(stderr, "%s: the output could not be written\n", pProgram);
        return 1;
    }
    return status;
}
