/* Stands in zlog's place: the entry points that the wrapper uses, refusing what the real ones refuse and printing each
 * line to standard output. Built in four variants: whole, without zlog(), with a configuration that fails, and with one
 * that has no rule for our category, whose lines it drops as the real one does.
 */
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int zlog_init(const char *configuration);
void *zlog_get_category(const char *name);
int zlog_level_enabled(void *category, int level);
void zlog(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line, int level,
          const char *format, ...);

static int initialised;

int zlog_level_enabled(void *category, int level)
{
    (void)category;
#ifdef ZLOG_WITHOUT_RULE
    (void)level;
    return 0;
#else
    return level == 100; /* a rule for errors alone is a rule */
#endif
}

int zlog_init(const char *configuration)
{
#ifdef ZLOG_INIT_FAILS
    (void)configuration;
    return -1;
#else
    printf("init %s\n", configuration ? configuration : "default");
    initialised = 1;
    return 0;
#endif
}

void *zlog_get_category(const char *name)
{
    static char kept[8][32]; /* zlog keeps its categories, too */
    static int count;
    return initialised && count < 8 ? strncpy(kept[count++], name, sizeof kept[0] - 1) : NULL;
}

#ifndef ZLOG_WITHOUT_LOG
void zlog(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line, int level,
          const char *format, ...)
{
    va_list args;
#ifdef ZLOG_WITHOUT_RULE
    return;
#endif
    printf("zlog %s %.*s %.*s %ld %d format=%s: ", (const char *)category, (int)file_len, file, (int)func_len, func,
           line, level, format);
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    printf("\n");
}
#endif
