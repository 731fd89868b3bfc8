/* tq_zlog.h: the system log. Uses zlog where that library is on the machine, with the configuration that the
 * environment's ZLOG_CONF_PATH names; syslog otherwise, and for a category that zlog has no rule for. The library's
 * category is "policy_plx", the store client's "tq_mom", the debug shell's "ssat".
 */
#ifndef TQ_ZLOG_H
#define TQ_ZLOG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The compiler compares the format with its arguments, where it can. */
#if defined(__GNUC__)
#define TQ_ZLOG_FORMAT(format_index, first) __attribute__((format(printf, format_index, first)))
#else
#define TQ_ZLOG_FORMAT(format_index, first)
#endif

/* zlog's own levels, so that numbers in a configuration mean the same on both sides; the system log has one of the same
 * meaning for each. */
enum tq_zlog_level {
    /* The library's Detail. */
    TQ_ZLOG_DEBUG = 20,
    /* Not used by the library; for applications. */
    TQ_ZLOG_INFO = 40,
    /* Its Notice. */
    TQ_ZLOG_NOTICE = 60,
    /* Its Impt. */
    TQ_ZLOG_WARN = 80,
    /* Its Error. */
    TQ_ZLOG_ERROR = 100,
    /* As TQ_ZLOG_INFO. */
    TQ_ZLOG_FATAL = 120
};

/* Opens a log category: the name by which a log's configuration tells messages apart. The library's is "policy_plx",
 * the store client's "tq_mom"; an application takes one of its own. The handle lives as long as the process. NULL when
 * there is no memory for it. */
void *tq_zlog_init(const char *category);

/* Logs one line, less the newlines at its end: where it was reported (a file and a function with their lengths, and a
 * line), how grave it is (enum tq_zlog_level), and a format with its arguments, as in zlog's own call. A NULL category
 * logs nothing. The library formats a message itself and passes "%s": at most 1023 characters.
 *
 * Of one message (the same category, file, line, level and text) no more than twenty go out within a second. Those
 * beyond are held back and counted: "N more of these: TEXT" is logged once when the second is over, with the next
 * message of whatever kind, or when the process ends in an orderly way. A message of another text is another message.
 * The last 32 messages are watched; one that had to make room is told of at once.
 *
 * `level` decides what becomes of the line by the log's own configuration. What the library hands over at all is for
 * g_policy_plx_zlog_level (plx/diag.h) to say, before. */
void tqdf_zlog(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
               int level, const char *format, ...) TQ_ZLOG_FORMAT(8, 9);

/* How many messages were held back in this process. */
uint64_t tq_zlog_held_back(void);

/* snprintf()'s contract: at most `size` bytes with the terminator; returns how many characters the whole text has. The
 * library formats what it logs with it. */
int at_snprintf(char *buffer, size_t size, const char *format, ...) TQ_ZLOG_FORMAT(3, 4);

#ifdef __cplusplus
}
#endif

#endif
