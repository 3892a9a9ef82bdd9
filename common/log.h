#ifndef TALVEK_COMMON_LOG_H
#define TALVEK_COMMON_LOG_H

/* One log line for every module: module name, source line, the function's name if it is of use, and
 * a printf text, on standard output. The caller's text carries its own newline.
 *
 * Each line is handed to standard output in one piece and flushed at once, so that it appears once
 * and in order whatever standard output is (terminal, pipe, file), also around fork and system. The
 * time stamp alone waits for the message that its caller prints behind it.
 * errno is the same after a call as before it. No state is kept; any thread may log. */

#ifdef __cplusplus
extern "C" {
#endif

/* Writes "module,line:function(): message", or "module,line: message" without a function name.
 *
 *   pModule    name of the source module, as it is to appear ("COMMON", "DEV", "DNS", "TALVEK")
 *   line       source line
 *   pFunction  name of the caller's function, or NULL for none
 *   pFormat    printf format and its arguments; the message may have any length and is never cut
 *
 * Returns the count of bytes that printf reported for the line, or -1 when there is no memory for
 * the message and nothing was written. When memory ends while a message of 256 characters or more
 * is formatted, the text "Failed to print" stands in its place, without a newline. */
int COM_Log(const char *pModule, int line, const char *pFunction, const char *pFormat, ...)
    __attribute__((format(printf, 4, 5)));

/* COM_Log with the line in yellow on a terminal: "\e[33m" before it and "\e[0m" behind it. */
int COM_LogColor(const char *pModule, int line, const char *pFunction, const char *pFormat, ...)
    __attribute__((format(printf, 4, 5)));

/* Writes "[YYYY/MM/DD hh:mm:ss.uuuuuu] " (UTC) ahead of a message that the caller prints at once
 * behind it, with "module,line: " before the bracket unless pModule is NULL. The prefix has no
 * newline and is not flushed. It and the message are two writes: another thread's line can come
 * between them.
 *
 * Returns 0, or -1 without output when the clock cannot be read or converted. */
int COM_PrintTimeStamp(const char *pModule, int line);

#ifdef __cplusplus
}
#endif

#endif
