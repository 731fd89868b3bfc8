/* ssat.h: the debug shell.
 *
 * A command's description tells what a line is parsed into: "app_type=%s, acl_id=%d, $n" takes a text and a signed
 * number; %x takes an unsigned hexadecimal number; "$n" ends the list. A description without a conversion, such as
 * "open debug", takes no argument.
 */
#ifndef SSAT_H
#define SSAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef union ssat_value {
    int32_t d;
    uint32_t x;
    const char *s; /* lives until the handler returns */
} ssat_value;

/* argv[0] is the first argument, not the command. */
typedef int (*ssat_handler)(int argc, const ssat_value *argv);

/* Opens the shell of a module on the context's event loop. 0 on success. */
int ssat_lib_init(void *context, const char *module);

/* Adds a command; the texts are copied. `reserved` is 0. 0 on success. */
int ssat_reg_mod_cmd(const char *module, const char *command, int reserved, const char *description,
                     ssat_handler handler);

#ifdef __cplusplus
}
#endif

#endif
