/* tq_zlog.h: the system log. Uses zlog where that library is on the machine, syslog otherwise. */
#ifndef TQ_ZLOG_H
#define TQ_ZLOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TQ_ZLOG_FORMAT(format_index, first) __attribute__((format(printf, format_index, first)))
#else
#define TQ_ZLOG_FORMAT(format_index, first)
#endif

/* zlog's own levels. */
enum tq_zlog_level {
    TQ_ZLOG_DEBUG = 20,
    TQ_ZLOG_INFO = 40,
    TQ_ZLOG_NOTICE = 60,
    TQ_ZLOG_WARN = 80,
    TQ_ZLOG_ERROR = 100,
    TQ_ZLOG_FATAL = 120
};

/* Opens a log category; the handle lives as long as the process. NULL when there is no memory for it. */
void *tq_zlog_init(const char *category);

/* Logs one line; a NULL category logs nothing. */
void tqdf_zlog(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
               int level, const char *format, ...) TQ_ZLOG_FORMAT(8, 9);

/* snprintf()'s contract. */
int at_snprintf(char *buffer, size_t size, const char *format, ...) TQ_ZLOG_FORMAT(3, 4);

#ifdef __cplusplus
}
#endif

#endif
