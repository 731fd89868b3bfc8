/* A store client in front of the real one, for LD_PRELOAD: sweeps, deletions, and the ends of batches, fail with the
 * results that PLX_SWEEPS, PLX_DELETIONS and PLX_BATCHES list, one after the other; 0, and all behind the list, are the
 * real ones. A batch fails by its first write, which is made nevertheless; PLX_BLIND_BATCHES is for those whose results
 * nobody takes. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <tq_mom.h>

typedef int (*sweep_func)(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection,
                          uint32_t bound);
typedef int (*del_func)(void *handle, uint32_t db, const ProtobufCMessage *record);
typedef int (*end_func)(void *handle, int *results, uint32_t count);

static void find_real(const char *name, void *func)
{
    void *found = dlsym(RTLD_NEXT, name);
    memcpy(func, &found, sizeof found);
}

static int next_of(const char *variable, const char **at)
{
    char *end = NULL;
    long result;
    if (*at == NULL)
        *at = getenv(variable) ? getenv(variable) : "";
    result = strtol(*at, &end, 10);
    *at = *end == ',' ? end + 1 : end;
    return (int)result;
}

int tq_mom_dsend_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint32_t bound)
{
    static const char *at;
    const int result = next_of("PLX_SWEEPS", &at);
    sweep_func real;
    find_real("tq_mom_dsend_sync", &real);
    return result ? result : real(handle, db, record, selection, bound);
}

int tq_mom_del_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    static const char *at;
    const int result = next_of("PLX_DELETIONS", &at);
    del_func real;
    find_real("tq_mom_del_sync", &real);
    return result ? result : real(handle, db, record);
}

int tq_mom_batch_end(void *handle, int *results, uint32_t count)
{
    static const char *at[2];
    end_func real;
    int result, failed;
    find_real("tq_mom_batch_end", &real);
    result = real(handle, results, count);
    failed = next_of(count > 0 ? "PLX_BATCHES" : "PLX_BLIND_BATCHES", &at[count > 0]);
    if (failed && count > 0)
        results[0] = failed;
    return failed ? failed : result;
}
