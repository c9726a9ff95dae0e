/* The logger: one line a record, to the system log, standard error and standard output.
 *
 *     WARN:queue:queue_create: p:4711, t:4713 : calloc(): Cannot allocate memory
 *     |    |     |              |       |        |
 *     |    |     function       |       |        message, cut at 1,499 bytes
 *     |    base name of file    |       kernel thread id
 *     level word                process id
 *
 * Level word, file and function together are the prefix; it is cut at 1,499 bytes as well. Nothing
 * is filtered: every record goes to every sink that is switched on. */
#ifndef ZTLIB_LOGGER_H
#define ZTLIB_LOGGER_H

#include <stdarg.h>
#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* Levels are the system log's priorities. Any other value prints with an empty level word. */
enum {
    LOGGER_ERROR = 3,   /* "ERR:"  hard errors: invalid arguments, limits reached */
    LOGGER_WARNING = 4, /* "WARN:" failed system calls and allocations, refused input */
    LOGGER_INFO = 6     /* "INFO:" for the host's own use */
};

/* The settings. They are read at every record; a host may change the three flags at any time, from
 * any thread that orders its change itself or that stores a single byte. */
extern uint8_t logger_to_syslog; /* 1: also to the system log (default 1) */
extern uint8_t logger_to_stderr; /* 1: also to standard error (default 0) */
extern uint8_t logger_to_stdout; /* 1: also to standard output (default 0) */

/* The identity under which the system log is opened (default "ztlib"; not copied). The log is
 * opened at the first record that finds logger_to_syslog set, with facility LOG_DAEMON, and never
 * closed: a change after that has no effect. */
extern const char *logger_syslog_name;

/* Writes one record.
 *   level     one of the values above; its low 8 bits are used
 *   file      source path of the caller, for example "./queue/queue"; only its last component is
 *             printed ("." for an empty or null path, "/" for one of slashes alone). Never written to.
 *   function  name of the calling function; null prints nothing
 *   format    a printf format, then its arguments; "%n" only in a constant one
 * A null format prints an empty message. The result has no meaning.
 * Thread safety: any thread, no lock; each sink receives a record as one whole line, and nothing is
 * flushed. errno is preserved. */
int logger_log(int level, const char *file, const char *function, const char *format, ...)
    ZT_PRINTF_LIKE(4, 5);

/* logger_log() with an argument list that the caller started and ends. */
int logger_valog(int level, const char *file, const char *function, const char *format,
                 va_list arguments) ZT_PRINTF_LIKE(4, 0);

ZT_END_DECLS

#endif
