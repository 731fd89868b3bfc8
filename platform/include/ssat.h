/* ssat.h: the debug shell.
 *
 * A command's description tells what a line is parsed into: "app_type=%s, acl_id=%d, $n" takes a text and a signed
 * number; %x takes an unsigned hexadecimal number; "$n" ends the list. A description without a conversion, such as
 * "open debug", takes no argument. A line gives its arguments by name or in their order: `fp_udp_dump_acl all 0` is
 * `fp_udp_dump_acl acl_id=0 app_type=all`.
 */
#ifndef SSAT_H
#define SSAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One argument, by its conversion: %d, %x or %s. */
typedef union ssat_value {
    int32_t d;
    uint32_t x;
    /* Terminated; lives until the handler returns. */
    const char *s;
} ssat_value;

/* Runs a command on the event loop. argv[0] is the first argument, not the command; there are as many as the
 * description has conversions. What it prints to standard output goes to whoever asked. 0, or non-zero for "failed". */
typedef int (*ssat_handler)(int argc, const ssat_value *argv);

/* Opens the shell of a module on the context's event loop; ssat_client.h is its other end. 0 on success; otherwise the
 * module has no shell, and everything else works. */
int ssat_lib_init(void *context, const char *module);

/* Adds a command; the texts are copied. `reserved` is 0. 0 on success. */
int ssat_reg_mod_cmd(const char *module, const char *command, int reserved, const char *description,
                     ssat_handler handler);

/* What the shells of this process have counted since it started; a module has no counters of its own. The command
 * `counters` of each shell (ssat_client.h) prints these among others. */
typedef struct ssat_counters {
    /* Commands that ran, whatever they returned. */
    uint64_t commands;
    /* Of these, how many printed more than the shell keeps: the rest of their output is lost. */
    uint64_t cut;
    /* Connections that were idle longest and had to make room for another. */
    uint64_t dropped;
    /* Connections of other users, which are refused and logged. */
    uint64_t denied;
} ssat_counters;

/* Fills them in. */
void ssat_counters_get(ssat_counters *counters);

#ifdef __cplusplus
}
#endif

#endif
