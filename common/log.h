#ifndef TALVEK_COMMON_LOG_H
#define TALVEK_COMMON_LOG_H

/* The log that all modules write to: each call writes one line to standard output, made of a module
 * name, a source line, a function name if there is one, and a printf text. The text brings its own
 * newline.
 *
 * A line is flushed at once, so lines appear once and in order, whether standard output is a
 * terminal, a pipe or a file, and even when the program then calls fork or system. Lines of
 * different threads do not mix.
 *
 * Every entry keeps errno. The module name and the format of COM_Log and COM_LogColor must not be
 * NULL. */

#ifdef __cplusplus
extern "C" {
#endif

/* Writes "module,line:function(): message", or "module,line: message" without a function name.
 *
 *   pModule    name of the source module as written in the line ("COMMON", "DEV", ...)
 *   line       source line
 *   pFunction  name of the calling function, or NULL for none
 *   pFormat    printf format, followed by its arguments; the message may have any length and is
 *              never truncated
 *
 * Returns what printf returned for the line. Without memory for a message of 256 characters or
 * more, it writes "Failed to print" instead of the message, without a newline. Without memory for
 * 256 bytes it writes nothing and returns -1. */
int COM_Log(const char *pModule, int line, const char *pFunction, const char *pFormat, ...)
    __attribute__((format(printf, 4, 5)));

/* COM_Log with "\e[33m" before the line and "\e[0m" after it, always: a terminal shows the line in
 * yellow. */
int COM_LogColor(const char *pModule, int line, const char *pFunction, const char *pFormat, ...)
    __attribute__((format(printf, 4, 5)));

/* Writes "[YYYY/MM/DD hh:mm:ss.uuuuuu] " (UTC), or "module,line: [...] " if pModule is not NULL.
 *
 * The caller prints its message right after it, on the same line: the time stamp has no newline and
 * is not flushed. It and the message are two writes, so a line of another thread can come between
 * them.
 *
 * Returns 0, or -1 without output when the clock cannot be read or converted. */
int COM_PrintTimeStamp(const char *pModule, int line);

#ifdef __cplusplus
}
#endif

#endif
